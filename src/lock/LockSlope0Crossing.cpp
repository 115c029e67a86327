// SPDX-License-Identifier: Apache-2.0
// Least squares around the zero crossing of the lock's spectrum.
#include "lock/LockSlope0Crossing.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

using velmor::kepla::log::Severity;

namespace {

constexpr std::size_t kPointsOfFit = 32;

bool crossesZero(int aBefore, int aHere) {
    // A point at zero is a crossing when it is reached, not when it is left.
    return (aBefore < 0 && aHere >= 0) || (aBefore > 0 && aHere <= 0);
}

} // namespace

LockSlope0Crossing::LockSlope0Crossing()
    : Logger("LockSlope0Crossing", "Lock") {}

double LockSlope0Crossing::linearRegressionSlope(std::vector<int> const& data,
                                                 unsigned int begin,
                                                 unsigned int count) {
    keplaDoLog(Severity::Trace, "linearRegressionSlope: begin = %lu and count = %lu", {}, begin, count);
    double sumX = 0.0;
    double sumY = 0.0;
    double sumXX = 0.0;
    double sumXY = 0.0;
    for (unsigned int index = 0; index < count; ++index) {
        unsigned int const place = begin + index;
        double const x = place;
        double const y = data.at(place);
        sumX += x;
        sumY += y;
        sumXX += x * x;
        sumXY += x * y;
    }
    double const n = count;
    return (n * sumXY - sumX * sumY) / (n * sumXX - sumX * sumX);
}

double LockSlope0Crossing::slopeAt0Crossing(std::shared_ptr<std::vector<int>> const& data) {
    if (data->size() < kPointsOfFit) {
        keplaDoLog(Severity::Error, "slopeAt0Crossing: need at least %lu points but got %lu", {},
                   kPointsOfFit, data->size());
        throw std::invalid_argument("Not enough data to process");
    }
    std::vector<int> rotated(data->size()); // 0 Hz in the middle
    std::rotate_copy(data->begin(), data->begin() + static_cast<std::ptrdiff_t>(data->size() / 2),
                     data->end(), rotated.begin());
    auto const [least, greatest] = std::minmax_element(rotated.begin(), rotated.end());
    keplaDoLog(Severity::Trace, "Min and max items are: %d and %d", {}, *least, *greatest);
    auto const [first, last] = std::minmax(least, greatest);
    auto const before = std::adjacent_find(first, last + 1, crossesZero);
    if (before == last + 1) {
        keplaDoLog(Severity::Error, "No zero crossing found between min and max elements", {});
        throw std::invalid_argument("Internal error when processing data");
    }
    auto const crossing = static_cast<std::size_t>(before - rotated.begin()) + 1;
    keplaDoLog(Severity::Debug,
               "Zero crossing found at index %lu, value = %d, data[zc-1] = %d, data[zc+1] = %d", {}, crossing,
               rotated[crossing], rotated[crossing - 1], rotated.at(crossing + 1));
    return linearRegressionSlope(rotated, static_cast<unsigned int>(crossing - kPointsOfFit / 2),
                                 kPointsOfFit);
}
