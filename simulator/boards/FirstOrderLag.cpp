// SPDX-License-Identifier: Apache-2.0
// The exponential and its inverse.
#include "simulator/boards/FirstOrderLag.h"

#include <cmath>
#include <stdexcept>

namespace libfieldwarden::sim {

FirstOrderLag::FirstOrderLag(Duration aTimeConstant, double aValue)
    : mTimeConstant(std::chrono::duration<double>(aTimeConstant).count())
    , mStart(aValue)
    , mTarget(aValue) {
    if (aTimeConstant <= Duration::zero()) {
        throw std::invalid_argument("A time constant must be longer than 0");
    }
}

void FirstOrderLag::setTarget(double aTarget, TimePoint aNow) {
    mStart = value(aNow);
    mTarget = aTarget;
    mSince = aNow;
}

void FirstOrderLag::rest(double aValue) {
    mStart = aValue;
    mTarget = aValue;
}

double FirstOrderLag::value(TimePoint aNow) const {
    double const elapsed = std::chrono::duration<double>(aNow - mSince).count();
    return mTarget + (mStart - mTarget) * std::exp(-elapsed / mTimeConstant);
}

FirstOrderLag::TimePoint FirstOrderLag::settled(double aDistance) const {
    double const step = std::abs(mStart - mTarget);
    return step <= aDistance ? mSince : after(std::log(step / aDistance));
}

std::optional<FirstOrderLag::TimePoint> FirstOrderLag::passes(double aLevel, TimePoint aNow) const {
    double const present = value(aNow);
    bool const between = (present < aLevel && aLevel < mTarget) || (mTarget < aLevel && aLevel < present);
    if (!between) {
        return std::nullopt;
    }
    return after(std::log((mStart - mTarget) / (aLevel - mTarget)));
}

FirstOrderLag::TimePoint FirstOrderLag::after(double aTimeConstants) const {
    std::chrono::duration<double> const time(aTimeConstants * mTimeConstant);
    // One nanosecond more, so that what is asked for is true at that time.
    return mSince + std::chrono::duration_cast<Duration>(time) + Duration(1);
}

} // namespace libfieldwarden::sim
