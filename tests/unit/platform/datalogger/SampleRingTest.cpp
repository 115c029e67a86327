// SPDX-License-Identifier: Apache-2.0
// The bounded queue of samples.
#include "datalogger/SampleRing.h"

#include <deque>
#include <vector>

#include <gmock/gmock.h>
#include <rapidcheck/gtest.h>

namespace {

using velmor::kepla::datalogger::SampleRing;

std::vector<double> valuesOf(SampleRing const& aRing) {
    std::vector<double> values;
    for (std::size_t age = 0; age < aRing.size(); ++age) {
        values.push_back(aRing[age].value);
    }
    return values;
}

TEST(SampleRing, IsFullAtItsCapacityAndKeepsTheOrderAcrossItsEnd) {
    SampleRing ring(3);
    for (double const value : {1.0, 2.0, 3.0}) {
        ring.add({0, value, 0, {}});
    }
    EXPECT_TRUE(ring.full());
    ring.removeOldest(2);
    ring.add({0, 4.0, 0, {}});
    ring.add({0, 5.0, 0, {}});
    EXPECT_THAT(valuesOf(ring), testing::ElementsAre(3.0, 4.0, 5.0));
    ring.removeOldest(7);
    EXPECT_TRUE(ring.empty());
}

RC_GTEST_PROP(SampleRing, BehavesAsAQueueOfAnyLength, (std::vector<std::uint8_t> const& aActions)) {
    SampleRing ring(5);
    std::deque<double> model;
    double next = 0.0;
    for (auto const action : aActions) {
        if (action % 3 != 0 && !ring.full()) {
            ring.add({0, next, 0, {}});
            model.push_back(next);
            next += 1.0;
        } else {
            std::size_t const count = std::min<std::size_t>(action % 4, model.size());
            ring.removeOldest(count);
            model.erase(model.begin(), model.begin() + static_cast<std::ptrdiff_t>(count));
        }
        RC_ASSERT(valuesOf(ring) == std::vector<double>(model.begin(), model.end()));
    }
}

} // namespace
