// SPDX-License-Identifier: Apache-2.0
// The clock that runs faster than the real one.
#include <velmor/platform/ScaledClock.h>

#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using velmor::platform::Clock;
using velmor::platform::ScaledClock;

TEST(ScaledClock, MovesByItsScale) {
    ScaledClock clock(1000.0);
    auto const realStart = Clock::real().now();
    auto const start = clock.now();
    clock.sleepFor(5s); // 5 ms of real time
    auto const passed = clock.now() - start;
    auto const realPassed = Clock::real().now() - realStart;
    EXPECT_GE(passed, 5s);
    EXPECT_LE(passed, realPassed * 1000);
}

TEST(ScaledClock, EndsAWaitAtItsOwnTime) {
    ScaledClock clock(10000.0);
    std::mutex mutex;
    std::condition_variable condition;
    std::unique_lock lock(mutex);
    auto const start = clock.now();
    EXPECT_FALSE(clock.waitFor(condition, lock, 20s, [] { return false; }));
    EXPECT_GE(clock.now() - start, 20s);
}

TEST(ScaledClock, IsPatientWithThoseWhoNeedRealTime) {
    // A quarter of a second of real time is 25 s on a clock that is a hundred times as fast, 0.5 s on one
    // that is twice as fast.
    EXPECT_EQ(ScaledClock(100.0).patience(1s), 25s);
    EXPECT_EQ(ScaledClock(2.0).patience(1s), 1s);
    EXPECT_EQ(ScaledClock(0.5).patience(1s), 1s);
    EXPECT_EQ(Clock::real().patience(1s), 1s);
}

TEST(ScaledClock, RefusesAScaleThatIsNoPositiveNumber) {
    EXPECT_THROW(ScaledClock(0.0), std::invalid_argument);
    EXPECT_THROW(ScaledClock(-1.0), std::invalid_argument);
    EXPECT_THROW(ScaledClock(std::nan("")), std::invalid_argument);
    EXPECT_THROW(ScaledClock(10'001.0), std::invalid_argument); // Its calendar would run out.
}

} // namespace
