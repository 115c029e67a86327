// SPDX-License-Identifier: Apache-2.0
// The arithmetic between 1H and 19F frequencies, slices of the FFT and words of registers.
#pragma once

#include <cstdint>
#include <memory>

class LockParametersInterface;

/// Conversions. Any thread, nothing blocks.
class LockFrequencyUtils {
public:
    /// @param aCoefficient  A coefficient of FRED, -1 to below 1.
    /// @return Its word, 1/2^31 a count (Q31), truncated toward zero; beyond the range the range's end.
    static std::int32_t doubleToFredCoef(double aCoefficient);

    /// @param aSlice       Number of a slice of the FFT.
    /// @param aParameters  Sampling frequency, decimation and length of the FFT.
    /// @return The slice's distance from 0 Hz in Hz.
    static double fftMaxSliceToHertz(unsigned short aSlice,
                                     std::shared_ptr<LockParametersInterface> const& aParameters);

    /// @param aFrequencyHz  The wanted lock frequency in Hz.
    /// @return The frequency of the lock's synthesiser in Hz.
    static double desiredToLockDDS(double aFrequencyHz);

    /// @param a19FHz       19F frequency in Hz.
    /// @param aParameters  The factor between the two.
    /// @return The 1H frequency of the same field in Hz.
    static double freq19Fto1H(double a19FHz, std::shared_ptr<LockParametersInterface> const& aParameters);

    /// @param a1HHz        1H frequency in Hz.
    /// @param aParameters  The factor between the two.
    /// @return The 19F frequency of the same field in Hz.
    static double freq1Hto19F(double a1HHz, std::shared_ptr<LockParametersInterface> const& aParameters);
};
