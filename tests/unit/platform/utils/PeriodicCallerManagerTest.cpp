// SPDX-License-Identifier: Apache-2.0
// Periodic calls by the hand-driven clock.
#include "support/HandClockScope.h"
#include "support/LogCapture.h"

#include <velmor/kepla/utils/PeriodicCallerManager.h>

#include <atomic>
#include <cmath>
#include <future>
#include <stdexcept>
#include <vector>

#include <pthread.h>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using velmor::kepla::utils::ExecutionStrategy;
using velmor::kepla::utils::PeriodicCallerIfc;
using velmor::kepla::utils::PeriodicCallerManager;
using velmor::platform::Clock;

class PeriodicCallerManagerTest : public testing::Test {
protected:
    /// Moves the time to the next call and waits until the worker has made it and waits again.
    Clock::Duration nextCall() {
        auto const step = mClock->advanceToNextDeadline();
        mClock->awaitWaiters(1);
        return step;
    }

    LogCapture mLog;
    HandClockScope mClock;
    std::unique_ptr<PeriodicCallerManager> mManager =
        std::make_unique<PeriodicCallerManager>(ExecutionStrategy::OneWorker, "");
};

TEST_F(PeriodicCallerManagerTest, CallsFirstAfterOnePeriodAndThenEveryPeriod) {
    std::atomic<int> calls{0};
    auto const handle = mManager->createPeriodicCaller(10.0, [&] { ++calls; });
    mClock->awaitWaiters(1);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(nextCall(), 10s);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(nextCall(), 10s);
    EXPECT_EQ(calls, 2);
}

TEST_F(PeriodicCallerManagerTest, InterleavesJobsByTheirTimes) {
    std::vector<std::string> calls;
    // The sooner one first: the worker waits for it, whether or not it has noticed the other.
    auto const quick = mManager->createPeriodicCaller(1.5, [&] { calls.emplace_back("quick"); });
    auto const slow = mManager->createPeriodicCaller(2.0, [&] { calls.emplace_back("slow"); });
    nextCall(); // 1.5 s
    nextCall(); // 2.0 s
    nextCall(); // 3.0 s
    nextCall(); // 4.0 s
    EXPECT_THAT(calls, ElementsAre("quick", "slow", "quick", "slow"));
}

TEST_F(PeriodicCallerManagerTest, LeavesOutPeriodsThatPassedDuringALongCallAndKeepsItsGrid) {
    auto const start = mClock->now();
    std::vector<Clock::Duration> times;
    auto const handle = mManager->createPeriodicCaller(10.0, [&] {
        times.push_back(mClock->now() - start);
        if (times.size() == 1) {
            mClock->advance(25s); // from 10 s to 35 s: the calls of 20 s and 30 s are missed
        }
    });
    nextCall();
    nextCall();
    nextCall();
    EXPECT_THAT(times, ElementsAre(10s, 40s, 50s));
}

TEST_F(PeriodicCallerManagerTest, LogsACallThatThrowsAndMakesItAgain) {
    int calls = 0;
    auto const handle = mManager->createPeriodicCaller(1.0, [&] {
        if (++calls == 1) {
            throw std::runtime_error("bus off");
        }
        throw 42;
    });
    nextCall();
    EXPECT_TRUE(mLog.has(Severity::Error, "A periodic call threw an exception: bus off"));
    nextCall();
    EXPECT_TRUE(mLog.has(Severity::Error, "A periodic call threw an unknown exception"));
    EXPECT_EQ(calls, 2);
}

TEST_F(PeriodicCallerManagerTest, EndsTheCallsWithTheHandle) {
    std::atomic<int> dropped{0};
    std::atomic<int> kept{0};
    auto handle = mManager->createPeriodicCaller(1.0, [&] { ++dropped; });
    auto const other = mManager->createPeriodicCaller(1.0, [&] { ++kept; });
    mClock->awaitWaiters(1);
    handle.reset();
    nextCall();
    EXPECT_EQ(dropped, 0);
    EXPECT_EQ(kept, 1);
}

TEST_F(PeriodicCallerManagerTest, LetsADroppedHandleWaitForTheCallUnderWay) {
    std::promise<void> entered;
    std::promise<void> mayEnd;
    std::atomic<bool> ended{false};
    auto handle = mManager->createPeriodicCaller(1.0, [&] {
        entered.set_value();
        mayEnd.get_future().wait();
        ended = true;
    });
    mClock->advanceToNextDeadline();
    entered.get_future().wait();
    auto dropped = std::async(std::launch::async, [&] {
        handle.reset();
        return ended.load();
    });
    mayEnd.set_value();
    EXPECT_TRUE(dropped.get());
}

TEST_F(PeriodicCallerManagerTest, LetsACallDropItsOwnHandle) {
    std::unique_ptr<PeriodicCallerIfc> handle;
    int calls = 0;
    handle = mManager->createPeriodicCaller(1.0, [&] {
        ++calls;
        handle.reset();
    });
    auto const other = mManager->createPeriodicCaller(1.0, [] {});
    nextCall();
    nextCall();
    EXPECT_EQ(calls, 1);
}

TEST_F(PeriodicCallerManagerTest, LetsACallRegisterAnother) {
    std::unique_ptr<PeriodicCallerIfc> second;
    int calls = 0;
    auto const first = mManager->createPeriodicCaller(10.0, [&] {
        if (second == nullptr) {
            second = mManager->createPeriodicCaller(1.0, [&] { ++calls; });
        }
    });
    EXPECT_EQ(nextCall(), 10s);
    EXPECT_EQ(nextCall(), 1s);
    EXPECT_EQ(calls, 1);
}

TEST_F(PeriodicCallerManagerTest, EndsItsWorkerAndLeavesHandlesHarmless) {
    std::atomic<int> calls{0};
    auto const handle = mManager->createPeriodicCaller(1.0, [&] { ++calls; });
    mManager.reset();
    mClock->advance(10s);
    EXPECT_EQ(calls, 0);
}

TEST_F(PeriodicCallerManagerTest, NamesItsThread) {
    std::string name;
    PeriodicCallerManager named(ExecutionStrategy::OneWorker, "a-name-of-more-than-15");
    auto const handle = named.createPeriodicCaller(1.0, [&] {
        std::array<char, 16> text{};
        pthread_getname_np(pthread_self(), text.data(), text.size());
        name = text.data();
    });
    mClock->advanceToNextDeadline();
    mClock->awaitWaiters(1);
    EXPECT_EQ(name, "a-name-of-more-");
}

TEST_F(PeriodicCallerManagerTest, RefusesAPeriodThatIsNoPositiveNumberAndAnEmptyCall) {
    EXPECT_THROW(mManager->createPeriodicCaller(0.0, [] {}), std::invalid_argument);
    EXPECT_THROW(mManager->createPeriodicCaller(-1.0, [] {}), std::invalid_argument);
    EXPECT_THROW(mManager->createPeriodicCaller(std::nan(""), [] {}), std::invalid_argument);
    EXPECT_THROW(mManager->createPeriodicCaller(1e-10, [] {}), std::invalid_argument);
    EXPECT_NO_THROW(mManager->createPeriodicCaller(1e300, [] {}));
    EXPECT_THROW(mManager->createPeriodicCaller(1.0, {}), std::invalid_argument);
}

} // namespace
