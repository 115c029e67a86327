// SPDX-License-Identifier: Apache-2.0
// The arithmetic of the ramp.
#include "at/ATRamp.h"

using velmor::kepla::log::Severity;

ATRamp::ATRamp(double aSlope)
    : Logger("ATRamp", "Temperature")
    , mSlope(aSlope) {}

void ATRamp::reset(double aFrom, double aTo) {
    mElapsed = std::chrono::milliseconds(0);
    mFrom = aFrom;
    mTo = aTo;
    mSlopeSign = aFrom <= aTo ? 1.0 : -1.0;
    keplaDoLog(Severity::Info, "reset(from = %f, to = %f, mSlopeSign = %d)", {}, aFrom, aTo,
               static_cast<int>(mSlopeSign));
}

double ATRamp::tick(std::chrono::milliseconds const& aElapsed) {
    mElapsed += aElapsed;
    // From the start of the ramp, so that rounding does not add up.
    double value = mFrom + static_cast<double>(mElapsed.count()) * mSlope * mSlopeSign;
    bool const arrived = mSlopeSign > 0.0 ? value >= mTo : value <= mTo;
    if (arrived) {
        value = mTo;
    }
    keplaDoLog(Severity::Trace, "ramp tick(%u ms): sets target temperature to %f", {}, aElapsed.count(),
               value);
    return value;
}
