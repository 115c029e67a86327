// SPDX-License-Identifier: Apache-2.0
// Deferred jobs: order, exceptions, and what is left at the end.
#include "support/LogCapture.h"

#include <velmor/kepla/utils/Defer.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using StringDefer = velmor::kepla::utils::Defer<std::string>;

TEST(Defer, RunsEveryItemInOrder) {
    std::vector<std::string> items;
    std::promise<void> done;
    StringDefer defer(
        [&](std::string const& aItem) {
            items.push_back(aItem);
            if (items.size() == 5) {
                done.set_value();
            }
        },
        "dump");
    for (char const* const item : {"1", "2", "3", "4", "5"}) {
        defer.trigger(item);
    }
    done.get_future().wait();
    EXPECT_THAT(items, ElementsAre("1", "2", "3", "4", "5"));
}

TEST(Defer, GoesOnAfterAnExceptionAndLogsIt) {
    LogCapture const log;
    std::promise<void> done;
    {
        StringDefer defer(
            [&](std::string const& aItem) {
                if (aItem == "known") {
                    throw std::runtime_error("disk full");
                }
                if (aItem == "unknown") {
                    throw 42;
                }
                done.set_value();
            },
            "LockStreams FFT Dump");
        defer.trigger("known");
        defer.trigger("unknown");
        defer.trigger("good");
        done.get_future().wait();
    }
    EXPECT_TRUE(log.has(Severity::Error, "Defer LockStreams FFT Dump threw an exception: disk full"));
    EXPECT_TRUE(log.has(Severity::Error, "Defer LockStreams FFT Dump threw an unknown exception"));
}

TEST(Defer, LetsTheRunningItemFinishAndDropsTheOthersAtItsEnd) {
    constexpr int kWaiting = 100'000;
    std::atomic<bool> destroying{false};
    std::atomic<bool> finished{false};
    std::atomic<int> others{0};
    std::promise<void> entered;
    auto defer = std::make_unique<StringDefer>(
        [&](std::string const& aItem) {
            if (aItem != "running") {
                ++others;
                return;
            }
            entered.set_value();
            while (!destroying) {
                std::this_thread::yield();
            }
            finished = true;
        },
        "dump");
    defer->trigger("running");
    entered.get_future().wait();
    for (int i = 0; i < kWaiting; ++i) {
        defer->trigger("waiting");
    }
    destroying = true;
    defer.reset(); // raises its flag long before the worker could be through with all of them
    EXPECT_TRUE(finished);
    EXPECT_LT(others, kWaiting);
}

TEST(Defer, LogsItsLife) {
    LogCapture const log;
    std::promise<void> done;
    {
        StringDefer defer([&](std::string const&) { done.set_value(); }, "FID");
        defer.trigger("x");
        done.get_future().wait();
    }
    EXPECT_TRUE(log.has(Severity::Trace, "Defer FID triggerred"));
    EXPECT_TRUE(log.has(Severity::Debug, "+processor for defer FID"));
    EXPECT_TRUE(log.has(Severity::Trace, "Defer FID: executing one item"));
    EXPECT_EQ(log.count(Severity::Debug, "Defer FID: +dtor"), 1U);
    EXPECT_TRUE(log.has(Severity::Debug, "-processor for defer FID"));
    EXPECT_EQ(log.lines().back().text, "Defer FID: -dtor");
    EXPECT_EQ(log.lines().back().name, "Defer");
    EXPECT_EQ(log.lines().back().category, "");
}

} // namespace
