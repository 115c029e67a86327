// SPDX-License-Identifier: Apache-2.0
// A regulator as the temperature board's firmware runs it: sampled, proportional and integral, with limits.
#pragma once

#include <cstdint>

namespace libfieldwarden::sim {

/// u = P e + I, with I growing by P e dt / Ti at each sample. The output is limited, and where it is, the
/// integral stands still unless it would lead back (K. Åström, T. Hägglund, "PID Controllers", section 3.5:
/// conditional integration). Not for several threads at a time; nothing blocks.
class PiRegulator {
public:
    /// What the last sample did; the values stand in the status objects of the board.
    enum class State : std::uint8_t { Off = 0, Regulates = 1, AtLowerLimit = 2, AtUpperLimit = 3 };

    struct Terms {
        double gain = 0.0;         ///< P, in units of the output a kelvin.
        double integralTime = 0.0; ///< Ti in s; 0 for no integral.
        double lowest = 0.0;       ///< Of the output.
        double highest = 0.0;      ///< Of the output; not below the lowest.

        friend bool operator==(Terms const&, Terms const&) = default;
    };

    explicit PiRegulator(Terms const& aTerms)
        : mTerms(aTerms) {}

    /// The integral goes on from where it is, within the new limits.
    void setTerms(Terms const& aTerms);

    /// Starts as one that has been at rest with an output.
    void preset(double aOutput);

    /// Takes a sample.
    /// @param aTarget    In kelvin or degrees Celsius.
    /// @param aMeasured  In the same unit.
    /// @param aSeconds   Time until the next sample.
    /// @return The output until then.
    double sample(double aTarget, double aMeasured, double aSeconds);

    /// Switches off: forgets the integral.
    void off();

    double output() const noexcept { return mOutput; }
    State state() const noexcept { return mState; }

private:
    Terms mTerms;
    double mIntegral = 0.0;
    double mOutput = 0.0;
    State mState = State::Off;
};

} // namespace libfieldwarden::sim
