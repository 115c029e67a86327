// SPDX-License-Identifier: Apache-2.0
// Measures how steep the imaginary part of the lock's spectrum is where it crosses zero.
#pragma once

#include <velmor/kepla/log/Logger.h>

#include <memory>
#include <vector>

/// The slope from which the lock's PID terms and its locked threshold are computed. Any thread, nothing
/// blocks.
class LockSlope0Crossing : private virtual velmor::kepla::log::Logger {
public:
    LockSlope0Crossing();

    /// Fits a line to some points by least squares.
    /// @param data   The points; their places are their abscissas.
    /// @param begin  Place of the first point of the fit.
    /// @param count  Number of points of the fit; 0 yields no number.
    /// @return The line's slope in counts per point.
    /// @throws std::out_of_range  when a point lies outside of the data.
    double linearRegressionSlope(std::vector<int> const& data, unsigned int begin, unsigned int count);

    /// Finds the first zero crossing between the least and the greatest point and fits 32 points around it.
    /// @param data  Imaginary part of the spectrum in the FFT's order: 0 Hz first, negative frequencies
    ///              in the second half. At least 32 points.
    /// @return The slope in counts per point.
    /// @throws std::invalid_argument  when there are too few points, or no crossing.
    /// @throws std::out_of_range      when the crossing is nearer than 16 points to an end.
    double slopeAt0Crossing(std::shared_ptr<std::vector<int>> const& data);
};
