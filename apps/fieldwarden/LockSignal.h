// SPDX-License-Identifier: Apache-2.0
// The lock's signal as it stands in the dumps that the library writes, and its axes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

namespace libfieldwarden::app {

/// What a dump holds.
enum class LockSignalKind {
    Fid, ///< Points in time, the first at 0 s.
    Fft, ///< Points in frequency, 0 Hz first, the negative frequencies in the second half.
};

/// Complex points. Both parts have the same length, which is not 0.
struct LockSignal {
    std::vector<std::int32_t> real;
    std::vector<std::int32_t> imaginary;
};

/// Points in a second of the lock's receiver: 68,571,428 Hz, decimated by 2,048.
inline constexpr double kLockPointsPerSecond = 68571428.0 / 2048.0;

/// The most points of a dump that is read; the library's own have 65,536.
inline constexpr std::size_t kMostLockPoints = std::size_t{1} << 22U;

/// Reads a dump: the HDF5 datasets "/Real" and "/Imag" of 32-bit integers in one dimension.
/// @throws std::runtime_error  when it cannot be read or holds something else; the words name the file and
/// the
///                             reason.
LockSignal readLockSignal(std::filesystem::path const& aPath);

/// @return The magnitude of each point.
std::vector<double> magnitudes(LockSignal const& aSignal);

/// @return Times of the points of an FID in s.
std::vector<double> fidTimes(std::size_t aCount);

/// @return Frequencies of the points of an FFT in Hz, ascending, as zeroInTheMiddle() orders the points.
std::vector<double> fftFrequencies(std::size_t aCount);

/// @return The points of an FFT by ascending frequency: the halves change places. Of an odd number of points
///         the second half is the shorter one.
LockSignal zeroInTheMiddle(LockSignal aSignal);

} // namespace libfieldwarden::app
