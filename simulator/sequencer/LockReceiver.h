// SPDX-License-Identifier: Apache-2.0
// From the line of the lock sample to the words of its FID: excitation, receiver, noise, gain.
#pragma once

#include "simulator/magnet/Magnet.h"

#include <complex>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace libfieldwarden::sim {

/// What the pulse of the transmitter has begun.
struct LockExcitation {
    double offsetHz = 0.0; ///< The line's frequency less the transmitter's.
    double t2StarSeconds = 1.0;
    double amplitude = 0.0; ///< Of the first point, in counts at shift 0.
};

/// The points of one acquisition.
struct LockFid {
    std::vector<std::complex<double>>
        samples; ///< In counts at shift 0, with the fractions that the CIC adds.
    std::vector<std::complex<std::int32_t>> words; ///< After the gain, limited to 32 bits with their sign.
    std::int32_t greatest = 0;                     ///< Of all real and imaginary parts of the words.
    bool overflow = false;                         ///< Whether a word had to be limited.
};

/// Transmitter, probe and receiver of the lock.
///
/// The transmitter's words: the synthesiser makes 480 MHz * word / 2^32, of which the intermediate frequency
/// of 120/7 MHz is taken off; 16,384 of amplitude are 1 Vpp. A pulse of 100 mVpp turns the magnetisation by
/// 30 degrees, and the signal goes with the sine of that angle.
///
/// The receiver's band: a two-pole crystal filter at the intermediate frequency, 450 Hz to either side
/// (1/sqrt(1 + (f/450 Hz)^4)), and five stages of the CIC filter (sinc^5 of f over the sampling rate). So a
/// line 2 kHz away is just seen by who asks for a twentieth of the signal, one 4 kHz away still stands out of
/// the noise, and beyond the sampling rate nothing is left.
///
/// A point is a count of the converter: 27,852 for a whole signal at its start, which is 0.85 of 2^15. The
/// FID's words are the points times 2^shift: at shift 15 the signal begins at 0.85 * 2^30, so that its peak
/// is at bit 29 whatever its phase; 17 is the first shift at which it leaves the 31 bits beside the sign.
///
/// Thermal noise is white, and as strong in a point as 1/200 of the signal.
///
/// Passive; one thread at a time.
class LockReceiver {
public:
    static constexpr double kSamplesPerSecond = 68571428.0 / 2048.0;
    static constexpr double kSynthesiserHz = 480'000'000.0;
    static constexpr double kIntermediateHz = 120'000'000.0 / 7.0;
    static constexpr double kSignalCounts = 0.85 * 32768.0; ///< At 100 mVpp, on resonance.
    static constexpr double kSignalToNoise = 200.0;  ///< First point over the noise's standard deviation.
    static constexpr double kPhaseRadian = 0.9;      ///< By which cables and filters turn the signal.
    static constexpr unsigned kGroupDelayPoints = 6; ///< By which the filters delay it.

    explicit LockReceiver(std::uint64_t aSeed);

    /// @param aFrequencyWord  Of the transmitter.
    /// @return Its frequency at the sample, in Hz.
    static double transmitterHz(std::uint32_t aFrequencyWord);

    /// @return The share of the signal that passes the receiver, by the distance from its middle.
    static double response(double aOffsetHz);

    /// Sends the pulse.
    /// @param aAmplitudeWord  Of the transmitter; 0 when it is off.
    static LockExcitation excite(LockLine const& aLine,
                                 std::uint32_t aFrequencyWord,
                                 std::uint32_t aAmplitudeWord);

    /// Takes the points of an FID.
    /// @param aPoints      How many.
    /// @param aShift       Of the gain.
    /// @param aGroupDelay  How many points at the start, in which the filters fill, are left out.
    /// @param aNoise       The noise as a multiple of what it should be.
    LockFid acquire(LockExcitation const& aExcitation,
                    std::size_t aPoints,
                    unsigned aShift,
                    unsigned aGroupDelay,
                    double aNoise);

private:
    std::mt19937_64 mRandom;
    std::normal_distribution<double> mNormal;
};

} // namespace libfieldwarden::sim
