// SPDX-License-Identifier: Apache-2.0
// The signal chain of the simulated lock ahead of the spectrum.
#include "simulator/sequencer/LockReceiver.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace libfieldwarden::sim {

namespace {

constexpr double kFilterHz = 450.0;
constexpr int kCicStages = 5;
constexpr double kAmplitudeWordOf100MilliVolt = 1638.4;
constexpr double kFlipAngleOf100MilliVolt = std::numbers::pi / 6.0;
constexpr double kInaudible = 1.0e-6; ///< Counts below which nothing need be computed.

double sinc(double aX) {
    return aX == 0.0 ? 1.0 : std::sin(std::numbers::pi * aX) / (std::numbers::pi * aX);
}

/// One part of a word: the count times the gain.
std::int32_t amplified(double aCount, unsigned aShift, LockFid& aFid) {
    constexpr double kGreatest = std::numeric_limits<std::int32_t>::max();
    double const word = std::ldexp(aCount, static_cast<int>(aShift));
    if (std::abs(word) > kGreatest) {
        aFid.overflow = true;
    }
    auto const limited = static_cast<std::int32_t>(std::clamp(word, -kGreatest, kGreatest));
    aFid.greatest = std::max(aFid.greatest, std::abs(limited));
    return limited;
}

} // namespace

LockReceiver::LockReceiver(std::uint64_t aSeed)
    : mRandom(aSeed) {}

double LockReceiver::transmitterHz(std::uint32_t aFrequencyWord) {
    return kSynthesiserHz * aFrequencyWord / 4294967296.0 - kIntermediateHz;
}

double LockReceiver::response(double aOffsetHz) {
    double const filter = 1.0 / std::sqrt(1.0 + std::pow(aOffsetHz / kFilterHz, 4));
    return filter * std::pow(std::abs(sinc(aOffsetHz / kSamplesPerSecond)), kCicStages);
}

LockExcitation LockReceiver::excite(LockLine const& aLine,
                                    std::uint32_t aFrequencyWord,
                                    std::uint32_t aAmplitudeWord) {
    double const offset = aLine.fluorineHz - transmitterHz(aFrequencyWord);
    double const angle = kFlipAngleOf100MilliVolt * aAmplitudeWord / kAmplitudeWordOf100MilliVolt;
    double const strength = std::sin(angle) / std::sin(kFlipAngleOf100MilliVolt);
    return {.offsetHz = offset,
            .t2StarSeconds = aLine.t2StarSeconds,
            .amplitude = kSignalCounts * strength * response(offset)};
}

LockFid LockReceiver::acquire(LockExcitation const& aExcitation,
                              std::size_t aPoints,
                              unsigned aShift,
                              unsigned aGroupDelay,
                              double aNoise) {
    LockFid fid;
    fid.samples.resize(aPoints);
    fid.words.resize(aPoints);

    if (std::abs(aExcitation.amplitude) > kInaudible) {
        std::complex<double> const turn =
            std::exp(std::complex<double>(-1.0 / aExcitation.t2StarSeconds,
                                          2.0 * std::numbers::pi * aExcitation.offsetHz) /
                     kSamplesPerSecond);
        // The signal's own point 0 is kGroupDelayPoints late; so many points are left out here.
        int const first = static_cast<int>(kGroupDelayPoints) - static_cast<int>(aGroupDelay);
        std::complex<double> signal = std::polar(aExcitation.amplitude, kPhaseRadian);
        if (first < 0) {
            signal *= std::pow(turn, -first);
        }
        for (std::size_t n = static_cast<std::size_t>(std::max(first, 0)); n < aPoints; ++n) {
            fid.samples[n] = signal;
            signal = {signal.real() * turn.real() - signal.imag() * turn.imag(),
                      signal.real() * turn.imag() + signal.imag() * turn.real()};
        }
    }

    double const deviation = aNoise * kSignalCounts / kSignalToNoise / std::numbers::sqrt2;
    for (std::size_t n = 0; n < aPoints; ++n) {
        std::complex<double>& sample = fid.samples[n];
        if (deviation > 0.0) {
            sample += std::complex<double>(deviation * mNormal(mRandom), deviation * mNormal(mRandom));
        }
        fid.words[n] = {amplified(sample.real(), aShift, fid), amplified(sample.imag(), aShift, fid)};
    }
    return fid;
}

} // namespace libfieldwarden::sim
