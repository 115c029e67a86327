// SPDX-License-Identifier: Apache-2.0
// The values that callers leave for the state machine of the adjustable temperature.
#pragma once

#include <atomic>

/// Written by callers ahead of the event that tells of it, read by the machine's thread. Any thread; nothing
/// blocks.
class ATFSMParameters {
public:
    /// @return The target in K; 0.0 at first.
    double targetTemperature() const { return mTargetTemperature; }
    /// @param aKelvin  The target in K.
    void setTargetTemperature(double aKelvin) { mTargetTemperature = aKelvin; }

    /// @return Whether a sample is in the magnet; true at first.
    bool sampleInMagnet() const { return mSampleInMagnet; }
    /// @param aInMagnet  Whether a sample is in the magnet.
    void setSampleInMagnet(bool aInMagnet) { mSampleInMagnet = aInMagnet; }

    /// @return From which temperature in K on ramps start. Intended to be 0.0: that leaves it to the table of
    /// flows.
    static constexpr double startRampUpTemperature() { return 0.0; }

    /// @return To which temperature in K the probe is brought before the gas ends.
    static constexpr double stopRampDownTemperature() { return 308.15; }

    /// @return The slope of ramps in K per millisecond: 1 K a minute.
    static constexpr double normalSlope() { return 1.6666666666666667e-05; }

private:
    std::atomic<double> mTargetTemperature{0.0};
    std::atomic<bool> mSampleInMagnet{true};
};
