// SPDX-License-Identifier: Apache-2.0
// Averages and comparators take their values in without the heap.
#include "support/AllocationCount.h"
#include "temperature/AverageComparator.h"
#include "temperature/MovingAverage.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::allocationsOfThisThread;

TEST(AverageAllocation, NoValueNeedsTheHeap) {
    // Copies, as the service makes them of one for its six sensors.
    std::vector<MovingAverage> averages(6);
    double target = 298.15;
    std::vector<AverageComparator> comparators(
        6, AverageComparator([&target](double aMean) { return aMean > target; }));
    auto const before = allocationsOfThisThread();
    for (int poll = 0; poll < 300; ++poll) {
        for (std::size_t sensor = 0; sensor < averages.size(); ++sensor) {
            comparators[sensor].push(averages[sensor].push(299.0));
        }
    }
    EXPECT_EQ(allocationsOfThisThread(), before);
    EXPECT_TRUE(comparators.back().result());
}

} // namespace
