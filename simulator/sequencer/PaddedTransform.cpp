// SPDX-License-Identifier: Apache-2.0
// Long and short way of the zero-padded transform, on KissFFT.
#include "simulator/sequencer/PaddedTransform.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <kissfft/kissfft.hh>

namespace libfieldwarden::sim {

namespace {

/// Plainly, without the checks for infinities that the operator makes.
inline std::complex<double> product(std::complex<double> aLeft, std::complex<double> aRight) {
    return {aLeft.real() * aRight.real() - aLeft.imag() * aRight.imag(),
            aLeft.real() * aRight.imag() + aLeft.imag() * aRight.real()};
}

} // namespace

struct PaddedTransform::Engines {
    kissfft<double> shortOne{kShortLength, false};
    std::unique_ptr<kissfft<double>> longOne; ///< Made when it is first wanted.
};

PaddedTransform::PaddedTransform()
    : mEngines(std::make_unique<Engines>())
    , mTwiddles(kLength)
    , mTurned(kShortLength)
    , mSpectrum(kLength) {
    for (std::size_t r = 0; r < kResidues; ++r) {
        for (std::size_t n = 0; n < kShortLength; ++n) {
            double const angle = -2.0 * std::numbers::pi * static_cast<double>(n * r) / kLength;
            mTwiddles[r * kShortLength + n] = std::polar(1.0, angle);
        }
    }
}

PaddedTransform::~PaddedTransform() = default;

void PaddedTransform::transform(std::span<Value const> aPoints) {
    if (aPoints.size() > kShortLength) {
        transformPlainly(aPoints);
        return;
    }
    mByResidue = true;
    std::fill(mTurned.begin() + static_cast<std::ptrdiff_t>(aPoints.size()), mTurned.end(), Value{});
    for (std::size_t r = 0; r < kResidues; ++r) {
        Value const* const twiddles = &mTwiddles[r * kShortLength];
        for (std::size_t n = 0; n < aPoints.size(); ++n) {
            mTurned[n] = product(aPoints[n], twiddles[n]);
        }
        mEngines->shortOne.transform(mTurned.data(), &mSpectrum[r * kShortLength]);
    }
}

void PaddedTransform::transformPlainly(std::span<Value const> aPoints) {
    mByResidue = false;
    if (!mEngines->longOne) {
        mEngines->longOne = std::make_unique<kissfft<double>>(kLength, false);
        mPadded.resize(kLength);
    }
    std::size_t const points = std::min(aPoints.size(), kLength);
    std::copy_n(aPoints.begin(), points, mPadded.begin());
    std::fill(mPadded.begin() + static_cast<std::ptrdiff_t>(points), mPadded.end(), Value{});
    mEngines->longOne->transform(mPadded.data(), mSpectrum.data());
}

PaddedTransform::Peak PaddedTransform::peak() const noexcept {
    std::size_t place = 0;
    double greatest = -1.0;
    for (std::size_t i = 0; i < kLength; ++i) {
        double const power = std::norm(mSpectrum[i]);
        if (power > greatest) {
            greatest = power;
            place = i;
        }
    }
    std::size_t const index = mByResidue ? place % kShortLength * kResidues + place / kShortLength : place;
    return {.index = index, .magnitude = std::sqrt(greatest)};
}

} // namespace libfieldwarden::sim
