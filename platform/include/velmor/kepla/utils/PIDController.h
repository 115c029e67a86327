// SPDX-License-Identifier: Apache-2.0
// A software PID regulator for slow loops.
#pragma once

#include <velmor/platform/Clock.h>

#include <optional>

namespace velmor::kepla::utils {

/// Discrete PID regulator in parallel form with output limits:
///
///     e = set point - measured
///     output = p * e + i * integral(e dt) + d * de/dt, within the limits
///
/// The time step is the time since the former calculate(), in seconds; the first one after construction or
/// reset() has none, so that only its proportional term counts. The integral term is kept within the output
/// limits (anti-windup). (K. J. Astrom, T. Hagglund, "PID Controllers", 2nd edition, sections 3.2 and 3.5.)
///
/// Not thread-safe: one thread at a time.
class PIDController {
public:
    /// @param aP           Proportional gain, output units per unit of error.
    /// @param aI           Integral gain, per second.
    /// @param aD           Derivative gain, times second.
    /// @param aLowerLimit  Least output.
    /// @param aUpperLimit  Greatest output.
    /// @throws std::invalid_argument  when the lower limit is above the upper one.
    PIDController(double aP, double aI, double aD, double aLowerLimit, double aUpperLimit);

    /// Takes a measurement and gives the next output.
    /// @param aSetPoint  What the measurement should become.
    /// @param aMeasured  What it is. A value that is not a number changes nothing and yields the former
    /// output.
    /// @return The output, within the limits.
    double calculate(double aSetPoint, double aMeasured);

    /// Forgets integral, derivative and time, as if just constructed.
    void reset() noexcept;

private:
    struct Step {
        velmor::platform::Clock::TimePoint time;
        double error;
    };

    velmor::platform::Clock& mClock;
    double mP;
    double mI;
    double mD;
    double mLowerLimit;
    double mUpperLimit;
    double mIntegral = 0.0; ///< The whole integral term, in output units.
    double mOutput = 0.0;
    std::optional<Step> mFormer;
};

} // namespace velmor::kepla::utils
