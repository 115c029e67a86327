// SPDX-License-Identifier: Apache-2.0
// The regulator of the simulated sequencer in the fixed point of its registers: FRED and PID.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace libfieldwarden::sim {

/// One step a cycle from the spectrum to the H0 converter.
///
/// The input is the imaginary part of the spectrum at 0 Hz with kFractionBits bits behind the point: 48 bits,
/// two's complement, a count of the spectrum's words being 128. On a line of positive frequency it is
/// positive, so a stable loop has negative terms. With >> the arithmetic shift, which rounds down:
///
///     e = input + FRED - set point                         48 bits, limited
///     e = e * 2^35 / magnitude                             where the scaler is enabled
///     x = e >> input shift
///     I = I + i_term * x
///     S = I + p_term * x + d_term * (x - x of n cycles ago)   n: derivative order; no D term with n = 0
///     output = output offset + (S >> (7 + 40 - output shift)) 24 bits, limited
///
/// Beyond the 7 fraction bits the net right shift of S is so 40 less the output shift: 10 for the output
/// shift 30 that the start writes. With an input shift of 7, a slope of 18,000 counts a bin and an i_term of
/// -417 a bin makes (18000 * 128 >> 7) * 417 >> 17 = 57 counts a cycle, the eighteenth of the 1,024 counts by
/// which H0 moves the line by a bin.
///
/// I and S have 64 bits and stop at their ends. Where the output is limited, overflow shows and I gives back
/// what is too much, so that it does not wind up. The output offset counts with its low 24 bits.
///
/// Passive; one thread at a time.
class PidRegulator {
public:
    static constexpr unsigned kFractionBits = 7;
    static constexpr unsigned kOutputPoint = 40;
    static constexpr std::int32_t kGreatestOutput = 0x7F'FFFF;
    static constexpr std::int32_t kLeastOutput = -0x80'0000;
    /// The magnitude at which the scaler changes nothing.
    static constexpr std::int64_t kScalerReference = std::int64_t{1} << 35;

    struct Settings {
        std::int64_t setPoint = 0;
        std::int32_t p = 0;
        std::int32_t i = 0;
        std::int32_t d = 0;
        std::int32_t outputOffset = 0; ///< 24 bits.
        unsigned outputShift = 0;      ///< 0 to 63.
        unsigned inputShift = 0;       ///< 0 to 63.
        unsigned derivativeOrder = 0;  ///< 0 to 7.
        bool scaler = false;
    };

    struct Output {
        std::int32_t value = 0; ///< 24 bits.
        bool overflow = false;
        std::int64_t error = 0; ///< e, before the scaler.
    };

    /// @param aInput      Input with FRED's share.
    /// @param aMagnitude  Of the greatest slice, for the scaler.
    Output step(std::int64_t aInput, std::int64_t aMagnitude, Settings const& aSettings);

    /// Forgets integral and former inputs.
    void clear() noexcept;

private:
    static constexpr std::size_t kRemembered = 8;

    std::int64_t mIntegral = 0;
    std::array<std::int64_t, kRemembered> mInputs{}; ///< x, the newest first.
};

/// FRED, which adds to the regulator's input what is known ahead of the H0 output: with h the output, 24
/// bits, and the coefficients in Q31,
///
///     offset + (((c1 * h + c2 * (h * h >> 23)) >> 31) << shift)      from the polynomial
///     offset                                                         from the data register
///
/// @return 48 bits, limited.
std::int64_t fredOutput(std::int64_t aOffset,
                        std::int32_t aOrder1,
                        std::int32_t aOrder2,
                        unsigned aShift,
                        bool aPolynomial,
                        std::int32_t aH0);

} // namespace libfieldwarden::sim
