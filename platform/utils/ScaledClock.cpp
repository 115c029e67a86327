// SPDX-License-Identifier: Apache-2.0
// Waits of the scaled clock are real waits of the scaled length.
#include <velmor/platform/ScaledClock.h>

#include <algorithm>
#include <stdexcept>

namespace velmor::platform {

namespace {

Clock::Duration times(Clock::Duration aDuration, double aFactor) {
    auto const scaled = std::chrono::duration<double, std::nano>(aDuration) * aFactor;
    return scaled >= std::chrono::hours(24 * 365) ? Clock::Duration(std::chrono::hours(24 * 365))
                                                  : std::chrono::duration_cast<Clock::Duration>(scaled);
}

} // namespace

ScaledClock::ScaledClock(double aScale)
    : mScale(aScale)
    , mStart(Clock::real().now())
    , mSystemStart(Clock::real().systemNow()) {
    if (!(aScale > 0.0 && aScale <= kLargestScale)) {
        throw std::invalid_argument("The time scale must be a positive number, at most 10000");
    }
}

Clock::Duration ScaledClock::elapsed() const noexcept {
    return std::chrono::duration_cast<Duration>(
        std::chrono::duration<double, std::nano>(Clock::real().now() - mStart) * mScale);
}

Clock::Duration ScaledClock::toReal(Duration aDuration) const noexcept {
    return times(aDuration, 1.0 / mScale);
}

Clock::TimePoint ScaledClock::now() const noexcept {
    return mStart + elapsed();
}

Clock::SystemTimePoint ScaledClock::systemNow() const noexcept {
    return mSystemStart + std::chrono::duration_cast<SystemTimePoint::duration>(elapsed());
}

void ScaledClock::sleepFor(Duration aDuration) {
    Clock::real().sleepFor(toReal(aDuration));
}

std::cv_status ScaledClock::waitUntil(std::condition_variable& aCondition,
                                      std::unique_lock<std::mutex>& aLock,
                                      TimePoint aDeadline) {
    TimePoint const realDeadline = Clock::real().now() + toReal(aDeadline - now());
    return Clock::real().waitUntil(aCondition, aLock, realDeadline);
}

Clock::Duration ScaledClock::patience(Duration aDuration) const noexcept {
    constexpr auto kLeastReal = std::chrono::milliseconds(250);
    return std::max(aDuration, times(kLeastReal, mScale));
}

} // namespace velmor::platform
