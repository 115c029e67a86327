// SPDX-License-Identifier: Apache-2.0
// A quantity that follows its target with one time constant: a settling current, a warming heatsink.
#pragma once

#include <velmor/platform/Clock.h>

#include <optional>

namespace libfieldwarden::sim {

/// The step response of a first-order system, y(t) = target + (y0 - target) exp(-(t - t0) / tau), told
/// exactly for any time and not stepped. Not for several threads at a time; nothing blocks.
class FirstOrderLag {
public:
    using Duration = velmor::platform::Clock::Duration;
    using TimePoint = velmor::platform::Clock::TimePoint;

    /// Starts at rest.
    /// @param aTimeConstant  Longer than 0.
    /// @param aValue         Value and target, in the unit of the quantity.
    /// @throws std::invalid_argument  when the time constant is not longer than 0.
    FirstOrderLag(Duration aTimeConstant, double aValue);

    /// Changes the target; the value goes on from where it is.
    void setTarget(double aTarget, TimePoint aNow);

    /// Puts value and target to one number at once.
    void rest(double aValue);

    /// @return The value at a time that is not before the last change of the target.
    double value(TimePoint aNow) const;

    double target() const noexcept { return mTarget; }

    /// @return When the value comes within a distance of its target; the past when it is already there.
    TimePoint settled(double aDistance) const;

    /// @return When the value passes a level on its way to the target; none when it never does or has done so
    ///         before the time.
    std::optional<TimePoint> passes(double aLevel, TimePoint aNow) const;

private:
    TimePoint after(double aTimeConstants) const;

    double mTimeConstant; ///< In seconds.
    double mStart;
    double mTarget;
    TimePoint mSince;
};

} // namespace libfieldwarden::sim
