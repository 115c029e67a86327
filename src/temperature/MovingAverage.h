// SPDX-License-Identifier: Apache-2.0
// The mean of a sensor's latest readings, long enough to see through its noise.
#pragma once

#include <cstddef>

#include <boost/circular_buffer.hpp>

/// Mean over the latest readings, at most 100 of them. The only allocation is that of the constructor. Not
/// thread-safe.
class MovingAverage {
public:
    /// Number of readings after which a new one replaces the oldest.
    static constexpr std::size_t kCapacity = 100;

    /// Takes a reading in.
    /// @param aValue  The reading, in any unit.
    /// @return The new mean.
    double push(double aValue) {
        mValues.push_back(aValue);
        // Summed anew each time: a running sum would keep the rounding of all readings, and one reading that
        // is not a number for ever.
        double sum = 0.0;
        for (double const value : mValues) {
            sum += value;
        }
        mMean = sum / static_cast<double>(mValues.size());
        return mMean;
    }

    /// @return The mean of the readings in the window; 0.0 before the first.
    double mean() const noexcept { return mMean; }

private:
    boost::circular_buffer<double> mValues{kCapacity};
    double mMean = 0.0;
};
