// SPDX-License-Identifier: Apache-2.0
// The verdict over the latest averages.
#include "temperature/AverageComparator.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace {

bool isPositive(double aValue) {
    return aValue > 0.0;
}

void push(AverageComparator& aComparator, int aTimes, double aValue) {
    for (int time = 0; time < aTimes; ++time) {
        aComparator.push(aValue);
    }
}

TEST(AverageComparator, SaysNoUntilFiftyValuesAreThere) {
    AverageComparator comparator(isPositive);
    EXPECT_FALSE(comparator.result());
    push(comparator, 49, 1.0);
    EXPECT_FALSE(comparator.result());
    EXPECT_TRUE(comparator.push(1.0));
    EXPECT_TRUE(comparator.result());
}

TEST(AverageComparator, SaysNoAsLongAsOneOfTheFiftyIsOutside) {
    AverageComparator comparator(isPositive);
    push(comparator, 50, 1.0);
    EXPECT_FALSE(comparator.push(-1.0));
    push(comparator, 49, 1.0);
    EXPECT_FALSE(comparator.result()) << "the value outside is the oldest of the fifty";
    EXPECT_TRUE(comparator.push(1.0));
}

TEST(AverageComparator, JudgesOlderValuesByTheNewBand) {
    double limit = 0.0;
    AverageComparator comparator([&](double aValue) { return aValue > limit; });
    push(comparator, 50, 1.0);
    limit = 2.0;
    EXPECT_FALSE(comparator.push(3.0)) << "49 values of 1.0 are below the new limit";
    limit = 0.5;
    EXPECT_TRUE(comparator.push(3.0));
}

TEST(AverageComparator, KeepsItsVerdictWhenTheBandIsUnknown) {
    bool known = true;
    AverageComparator comparator([&](double) { return known ? true : throw std::runtime_error("no target"); },
                                 2);
    push(comparator, 2, 1.0);
    known = false;
    EXPECT_THROW(comparator.push(1.0), std::runtime_error);
    EXPECT_TRUE(comparator.result());
}

TEST(AverageComparator, TakesAnotherCapacity) {
    AverageComparator comparator(isPositive, 3);
    push(comparator, 2, 1.0);
    EXPECT_FALSE(comparator.result());
    EXPECT_TRUE(comparator.push(1.0));
}

} // namespace
