// SPDX-License-Identifier: Apache-2.0
// The Fourier transform of a short FID with many zeros behind it.
#pragma once

#include <complex>
#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace libfieldwarden::sim {

/// Transforms up to 65,536 points, of which the last ones may be zeros:
///
///     X(k) = sum over n of x(n) exp(-2 pi i n k / 65536)
///
/// With at most 1,024 points ahead of the zeros it takes 64 transforms of 1,024 points instead of the long
/// one: with k = 64 q + r, X is the transform over q of x(n) exp(-2 pi i n r / 65536), one for each r. That
/// leaves out the butterflies that only move zeros about (H. Sorensen, C. Burrus, "Efficient computation of
/// the DFT with only a subset of input or output points", IEEE Trans. Signal Processing 41, 1993).
///
/// Not thread-safe: one thread at a time.
class PaddedTransform {
public:
    using Value = std::complex<double>;

    static constexpr std::size_t kLength = 65'536;
    static constexpr std::size_t kShortLength = 1'024;

    /// The strongest point of a spectrum.
    struct Peak {
        std::size_t index = 0; ///< The first of equals.
        double magnitude = 0.0;
    };

    PaddedTransform();
    ~PaddedTransform();
    PaddedTransform(PaddedTransform const&) = delete;
    PaddedTransform& operator=(PaddedTransform const&) = delete;

    /// @param aPoints  At most kLength; zeros follow them.
    void transform(std::span<Value const> aPoints);

    /// The same by one transform of the whole length, whatever the points: what the short way is measured by.
    void transformPlainly(std::span<Value const> aPoints);

    /// @param aIndex  0 to 65,535; the upper half are the negative frequencies.
    Value at(std::size_t aIndex) const noexcept { return mSpectrum[placeOf(aIndex)]; }

    Peak peak() const noexcept;

private:
    struct Engines;

    static constexpr std::size_t kResidues = kLength / kShortLength;

    /// The spectrum lies residue after residue when it was made the short way.
    std::size_t placeOf(std::size_t aIndex) const noexcept {
        return mByResidue ? aIndex % kResidues * kShortLength + aIndex / kResidues : aIndex;
    }

    std::unique_ptr<Engines> mEngines;
    std::vector<Value> mTwiddles; ///< exp(-2 pi i n r / 65536), r after r.
    std::vector<Value> mTurned;
    std::vector<Value> mPadded;
    std::vector<Value> mSpectrum;
    bool mByResidue = true;
};

} // namespace libfieldwarden::sim
