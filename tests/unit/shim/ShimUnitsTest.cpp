// SPDX-License-Identifier: Apache-2.0
// Units to uA and back: the factor to the last bit, the range, the rounding.
#include "shim/ShimUnits.h"

#include "support/LogCapture.h"

#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <rapidcheck/gtest.h>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

TEST(ShimUnits, MakesOneAmpereOf130000Units) {
    EXPECT_EQ(ShimUnits::touA(130000.0), 1000000);
    EXPECT_EQ(ShimUnits::touA(-130000.0), -1000000);
}

TEST(ShimUnits, RefusesMoreThanOneAmpere) {
    EXPECT_THAT([] { ShimUnits::touA(130000.1); },
                ThrowsMessage<std::invalid_argument>(
                    StrEq("ShimUnits to uA: units must be between -130000.000000 and "
                          "130000.000000 but was 130000.100000")));
    EXPECT_THAT([] { ShimUnits::touA(-131000.0); },
                ThrowsMessage<std::invalid_argument>(
                    StrEq("ShimUnits to uA: units must be between -130000.000000 and "
                          "130000.000000 but was -131000.000000")));
    EXPECT_THROW(ShimUnits::touA(std::nextafter(130000.0, 1e9)), std::invalid_argument);
    EXPECT_THROW(ShimUnits::touA(std::numeric_limits<double>::infinity()), std::invalid_argument);
}

TEST(ShimUnits, TakesNanForZero) {
    EXPECT_EQ(ShimUnits::touA(std::numeric_limits<double>::quiet_NaN()), 0);
}

TEST(ShimUnits, DoesNotRoundTrip) {
    EXPECT_EQ(ShimUnits::touA(1.0), 8); // 7.692 uA, rounded
    // 8 / 7.692307692307692 = 1.04, and the double next to it would do
    EXPECT_DOUBLE_EQ(ShimUnits::toUnits(8), 1.04);
}

TEST(ShimUnits, RoundsHalvesAwayFromZero) {
    // 0.065 units are 0.5 uA.
    EXPECT_EQ(ShimUnits::touA(0.0651), 1);
    EXPECT_EQ(ShimUnits::touA(-0.0651), -1);
    EXPECT_EQ(ShimUnits::touA(0.0649), 0);
    // 0.325 * 7.692307692307692 is 2.5 to the last bit
    EXPECT_EQ(0.325 * 7.692307692307692, 2.5);
    EXPECT_EQ(ShimUnits::touA(0.325), 3);
    EXPECT_EQ(ShimUnits::touA(-0.325), -3);
}

TEST(ShimUnits, DividesByTheStoredFactor) {
    // One step below the double next to 100/13, so that a computed factor would differ.
    constexpr double kFactor = 0x1.ec4ec4ec4ec4ep+2;
    EXPECT_NE(kFactor, 100.0 / 13.0);
    for (int const microAmpere : {1, 3, 7, 999999, -1000000}) {
        EXPECT_EQ(ShimUnits::toUnits(microAmpere), microAmpere / kFactor);
    }
}

TEST(ShimUnits, ConvertsVectorsElementByElement) {
    EXPECT_THAT(ShimUnits::touA(std::vector<double>{1.0, 0.0, -13.0}), ElementsAre(8, 0, -100));
    EXPECT_THAT(ShimUnits::toUnits(std::vector<int>{8, 0, -8}),
                ElementsAre(ShimUnits::toUnits(8), 0.0, -ShimUnits::toUnits(8)));
    EXPECT_TRUE(ShimUnits::touA(std::vector<double>{}).empty());
    EXPECT_TRUE(ShimUnits::toUnits(std::vector<int>{}).empty());
    EXPECT_THROW(ShimUnits::touA(std::vector<double>{0.0, 130001.0}), std::invalid_argument);
}

TEST(ShimUnits, TracesEachConversion) {
    LogCapture const log;
    ShimUnits::toUnits(8);
    ShimUnits::touA(1.5); // 11.538 uA
    EXPECT_THAT(log.lines(),
                ElementsAre(CapturedLine{Severity::Trace, "ShimUnits::toUnits(uA=8) = 1.040000", {}, {}},
                            CapturedLine{Severity::Trace, "ShimUnits::toUA(units=1.500000) = 12", {}, {}}));
}

RC_GTEST_PROP(ShimUnitsProperty, GivesBackEveryMicroAmpere, ()) {
    // Within 1 A: a uA is 0.13 units and comes back whole.
    int const microAmpere = *rc::gen::inRange(-999999, 1000000);
    RC_ASSERT(ShimUnits::touA(ShimUnits::toUnits(microAmpere)) == microAmpere);
}

} // namespace
