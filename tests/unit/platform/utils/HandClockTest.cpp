// SPDX-License-Identifier: Apache-2.0
// The clock that moves by hand, with threads that wait on it.
#include <velmor/platform/HandClock.h>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using velmor::platform::Clock;
using velmor::platform::HandClock;

TEST(HandClock, StandsStillUntilItIsMoved) {
    HandClock clock;
    auto const start = clock.now();
    auto const systemStart = clock.systemNow();
    EXPECT_EQ(clock.now(), start);
    clock.advance(1500ms);
    EXPECT_EQ(clock.now() - start, 1500ms);
    EXPECT_EQ(clock.systemNow() - systemStart, 1500ms);
}

TEST(HandClock, WakesASleeperWhenItsTimeHasCome) {
    HandClock clock;
    std::atomic<bool> awake{false};
    std::thread sleeper([&] {
        clock.sleepFor(10s);
        awake = true;
    });
    clock.awaitWaiters(1);
    clock.advance(9999ms);
    clock.awaitWaiters(1);
    EXPECT_FALSE(awake);
    clock.advance(1ms);
    sleeper.join();
    EXPECT_TRUE(awake);
}

TEST(HandClock, ReturnsAtOnceFromASleepOfNothing) {
    HandClock clock;
    auto const begin = clock.now();
    clock.sleepFor(0s);
    clock.sleepFor(-1s);
    EXPECT_EQ(clock.now(), begin);
}

TEST(HandClock, WakesSleepersInTheOrderOfTheirTimes) {
    HandClock clock;
    std::mutex mutex;
    std::vector<Clock::TimePoint> wakeTimes;
    auto const start = clock.now();
    std::vector<std::thread> sleepers;
    for (auto const duration : {3s, 1s, 2s}) {
        sleepers.emplace_back([&, duration] {
            clock.sleepFor(duration);
            std::lock_guard const lock(mutex);
            wakeTimes.push_back(clock.now());
        });
    }
    clock.awaitWaiters(3);
    EXPECT_EQ(clock.advanceToNextDeadline(3), 1s);
    EXPECT_EQ(clock.advanceToNextDeadline(2), 1s);
    EXPECT_EQ(clock.advanceToNextDeadline(1), 1s);
    for (std::thread& sleeper : sleepers) {
        sleeper.join();
    }
    ASSERT_EQ(wakeTimes.size(), 3U);
    EXPECT_EQ(clock.now() - start, 3s);
}

TEST(HandClock, LetsANotificationEndAWait) {
    HandClock clock;
    std::mutex mutex;
    std::condition_variable condition;
    bool ready = false;
    std::atomic<bool> seen{false};
    std::thread waiter([&] {
        std::unique_lock lock(mutex);
        seen = clock.waitFor(condition, lock, 1h, [&] { return ready; });
    });
    clock.awaitWaiters(1);
    {
        std::lock_guard const lock(mutex);
        ready = true;
    }
    condition.notify_all();
    waiter.join();
    EXPECT_TRUE(seen);
}

TEST(HandClock, ReportsThatAConditionDidNotComeInTime) {
    HandClock clock;
    std::mutex mutex;
    std::condition_variable condition;
    std::atomic<bool> seen{true};
    std::thread waiter([&] {
        std::unique_lock lock(mutex);
        seen = clock.waitFor(condition, lock, 2min, [] { return false; });
    });
    EXPECT_EQ(clock.advanceToNextDeadline(), 2min);
    waiter.join();
    EXPECT_FALSE(seen);
}

TEST(HandClock, LosesNoWakeUpWhenNotificationsAndTimeRace) {
    HandClock clock;
    std::mutex mutex;
    std::condition_variable condition;
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::thread waiter([&] {
        while (!stop) {
            std::unique_lock lock(mutex);
            clock.waitFor(condition, lock, 1ms, [&] { return stop.load(); });
            ++rounds;
        }
    });
    std::thread notifier([&] {
        while (!stop) {
            condition.notify_all();
            std::this_thread::yield();
        }
    });
    while (rounds < 2000) {
        clock.advance(1ms);
    }
    stop = true;
    clock.advance(1ms);
    condition.notify_all();
    waiter.join();
    notifier.join();
}

} // namespace
