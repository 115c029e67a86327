// SPDX-License-Identifier: Apache-2.0
// Moves a target temperature at a fixed slope.
#pragma once

#include <velmor/kepla/log/Logger.h>

#include <chrono>

/// A ramp from one temperature to another. Has no clock of its own: time passes by tick(). For one thread;
/// nothing blocks.
class ATRamp : private virtual velmor::kepla::log::Logger {
public:
    /// @param aSlope  In K per millisecond, positive; for ramps up and down.
    explicit ATRamp(double aSlope);

    /// Starts anew.
    /// @param aFrom  Start of the ramp in K.
    /// @param aTo    Its end in K; may be below the start.
    void reset(double aFrom, double aTo);

    /// Lets time pass.
    /// @param aElapsed  Since the last tick, or since reset().
    /// @return The temperature in K that the ramp has reached; its end once it is there.
    double tick(std::chrono::milliseconds const& aElapsed);

private:
    double const mSlope;     ///< In K per millisecond.
    double mFrom = 0.0;      ///< In K.
    double mSlopeSign = 0.0; ///< +1.0 or -1.0 once reset.
    double mTo = 0.0;        ///< In K.
    std::chrono::milliseconds mElapsed{0};
};
