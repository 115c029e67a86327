// SPDX-License-Identifier: Apache-2.0
// A clock that runs n times as fast as the real one, for simulated instruments that are watched.
#pragma once

#include <velmor/platform/Clock.h>

namespace velmor::platform {

/// Runs faster or slower than the real clock from the moment it was made, at which both show the same time.
class ScaledClock final : public Clock {
public:
    /// The largest scale: the calendar of a faster clock would run out within days.
    static constexpr double kLargestScale = 1e4;

    /// @param aScale  Clock seconds in a real second; above 0, at most kLargestScale.
    /// @throws std::invalid_argument  when it is not.
    explicit ScaledClock(double aScale);

    TimePoint now() const noexcept override;
    SystemTimePoint systemNow() const noexcept override;
    void sleepFor(Duration aDuration) override;
    std::cv_status waitUntil(std::condition_variable& aCondition,
                             std::unique_lock<std::mutex>& aLock,
                             TimePoint aDeadline) override;
    /// @return At least a quarter of a second of real time: who answers is not faster than the machine.
    Duration patience(Duration aDuration) const noexcept override;

private:
    Duration elapsed() const noexcept;
    Duration toReal(Duration aDuration) const noexcept;

    double mScale;
    TimePoint mStart;
    SystemTimePoint mSystemStart;
};

} // namespace velmor::platform
