// SPDX-License-Identifier: Apache-2.0
// The codings of the three generations of the flow box, byte by byte.
#include "at/AtFlowBoxPrototype.h"
#include "at/AtFlowBoxV1.h"
#include "at/AtFlowBoxV2.h"
#include "support/ExpectThrow.h"
#include "support/LogCapture.h"

#include <array>
#include <bitset>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::expectThrow;
using libfieldwarden::test::line;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;

constexpr unsigned kBytes = 256;

unsigned char byte(unsigned aValue) {
    return static_cast<unsigned char>(aValue);
}

bool operator==(ActualFlow const& aLeft, std::array<unsigned, 4> const& aRight) {
    return std::array<unsigned, 4>{aLeft.hardwareError, aLeft.isKnobSetToRemote, aLeft.isHoldFlowEnabled,
                                   aLeft.softwareFlowIndex} == aRight;
}

TEST(AtFlowBoxes, SayWhatTheyCan) {
    AtFlowBoxPrototype prototype;
    AtFlowBoxV1 v1;
    AtFlowBoxV2 v2;
    EXPECT_FALSE(prototype.isHoldFlowIndependent());
    EXPECT_FALSE(v1.isHoldFlowIndependent());
    EXPECT_TRUE(v2.isHoldFlowIndependent());
    EXPECT_FALSE(prototype.canReadBackValves());
    EXPECT_TRUE(v1.canReadBackValves());
    EXPECT_TRUE(v2.canReadBackValves());
}

template <typename Box>
class FlowBoxWithHoldFlow : public ::testing::Test {};
using BoxesWithHoldFlow = ::testing::Types<AtFlowBoxPrototype, AtFlowBoxV1>;
TYPED_TEST_SUITE(FlowBoxWithHoldFlow, BoxesWithHoldFlow);

TYPED_TEST(FlowBoxWithHoldFlow, CodesHoldFlowAndMainFlowsInARow) {
    TypeParam box;
    EXPECT_EQ(box.toHardwareFlowIndex(0, false), 0);
    EXPECT_EQ(box.toHardwareFlowIndex(0, true), 1);
    EXPECT_EQ(box.toHardwareFlowIndex(1, true), 2);
    EXPECT_EQ(box.toHardwareFlowIndex(2, true), 3);
    EXPECT_EQ(box.toHardwareFlowIndex(3, true), 4);
}

TYPED_TEST(FlowBoxWithHoldFlow, RefusesAMainFlowWithoutHoldFlow) {
    TypeParam box;
    LogCapture log;
    expectThrow<std::invalid_argument>([&] { box.toHardwareFlowIndex(2, false); },
                                       "Cannot set AT gas flow without setting hold flow");
    EXPECT_THAT(log.lines(),
                ElementsAre(line(Severity::Error,
                                 "requested swFlowIndex 2 and holdFlow = 0: unsupported with this flow box, "
                                 "hold flow required")));
}

TYPED_TEST(FlowBoxWithHoldFlow, DecodesTheIndexOfEveryByte) {
    TypeParam box;
    for (unsigned hw = 0; hw < kBytes; ++hw) {
        SCOPED_TRACE(hw);
        unsigned const index = hw <= 1 ? 0 : hw - 1;
        ActualFlow const actual = box.toSoftwareFlowIndex(byte(hw), byte(hw));
        EXPECT_EQ(actual.softwareFlowIndex, index);
        EXPECT_EQ(actual.isHoldFlowEnabled, hw != 0);
        EXPECT_TRUE(actual.isKnobSetToRemote);
        EXPECT_EQ(AtFlowBoxPrototype::toSoftwareFlowIndex(byte(hw)), index);
    }
}

TEST(FlowBoxPrototype, SeesNeitherErrorsNorTheKnob) {
    AtFlowBoxPrototype box;
    EXPECT_TRUE(box.toSoftwareFlowIndex(255, 3) == (std::array<unsigned, 4>{0, 1, 1, 254}));
    EXPECT_TRUE(box.toSoftwareFlowIndex(2, 3) == (std::array<unsigned, 4>{0, 1, 1, 1}));
}

TEST(FlowBoxV1, SeesTheKnobInAByteThatWasNotExpected) {
    AtFlowBoxV1 box;
    EXPECT_TRUE(box.toSoftwareFlowIndex(3, 3) == (std::array<unsigned, 4>{0, 1, 1, 2}));
    EXPECT_TRUE(box.toSoftwareFlowIndex(2, 3) == (std::array<unsigned, 4>{0, 0, 1, 1}));
    EXPECT_TRUE(box.toSoftwareFlowIndex(0, 1) == (std::array<unsigned, 4>{0, 0, 0, 0}));
}

TEST(FlowBoxV1, TellsOfAnErrorByTheHighestByteOnly) {
    AtFlowBoxV1 box;
    EXPECT_TRUE(box.toSoftwareFlowIndex(255, 3) == (std::array<unsigned, 4>{1, 0, 1, 254}));
    for (unsigned hw = 0; hw < kBytes - 1; ++hw) {
        EXPECT_FALSE(box.toSoftwareFlowIndex(byte(hw), byte(hw)).hardwareError) << hw;
    }
}

TEST(FlowBoxV2, CodesAClosedHoldValveBesideAMainFlow) {
    AtFlowBoxV2 box;
    EXPECT_EQ(box.toHardwareFlowIndex(0, false), 0);
    EXPECT_EQ(box.toHardwareFlowIndex(0, true), 1);
    EXPECT_EQ(box.toHardwareFlowIndex(1, true), 2);
    EXPECT_EQ(box.toHardwareFlowIndex(2, true), 3);
    EXPECT_EQ(box.toHardwareFlowIndex(3, true), 4);
    EXPECT_EQ(box.toHardwareFlowIndex(1, false), 12);
    EXPECT_EQ(box.toHardwareFlowIndex(2, false), 13);
    EXPECT_EQ(box.toHardwareFlowIndex(3, false), 14);
}

/// Bytes that decode alike, each to its own base: itself less the offset.
struct V2Rows {
    unsigned first;
    unsigned last;
    unsigned offset;
    bool isValid;
    bool isKnobSetToRemote;
    bool isHoldFlowEnabled;
    unsigned indexOfFirst; ///< Goes up by one a byte where it is not 0.
};

constexpr auto kV2Rows = std::to_array<V2Rows>({
    {0, 0, 0, true, true, false, 0},
    {1, 1, 0, true, true, true, 0},
    {2, 4, 0, true, true, true, 1},
    {5, 9, 0, false, true, false, 0},
    {10, 10, 10, true, true, false, 0},
    {11, 11, 10, true, true, true, 0},
    {12, 14, 10, true, true, false, 1},
    {15, 99, 10, false, true, false, 0},
    {100, 100, 100, true, false, false, 0},
    {101, 101, 100, true, false, true, 0},
    {102, 104, 100, true, false, true, 1},
    {105, 109, 100, false, false, true, 0},
    {110, 111, 110, true, false, true, 0}, // on, unlike 10
    {112, 114, 110, true, false, true, 1}, // on, unlike 12 to 14
    {115, 255, 110, false, false, true, 0},
});

TEST(FlowBoxV2, DecodesEveryByte) {
    AtFlowBoxV2 box;
    std::bitset<kBytes> seen;
    for (V2Rows const& row : kV2Rows) {
        for (unsigned hw = row.first; hw <= row.last; ++hw) {
            SCOPED_TRACE(hw);
            ASSERT_FALSE(seen.test(hw));
            seen.set(hw);
            LogCapture log;
            unsigned const index = row.indexOfFirst == 0 ? 0 : row.indexOfFirst + hw - row.first;
            EXPECT_TRUE(box.toSoftwareFlowIndex(byte(hw), 0) ==
                        (std::array<unsigned, 4>{row.isValid ? 0U : 1U, row.isKnobSetToRemote ? 1U : 0U,
                                                 row.isHoldFlowEnabled ? 1U : 0U, index}));
            auto const offset = line(
                Severity::Trace, "hwFlowIndex after removed offset is " + std::to_string(hw - row.offset));
            auto const invalid = line(Severity::Error, "Invalid hardware flow index: " + std::to_string(hw));
            if (row.isValid) {
                EXPECT_THAT(log.lines(), ElementsAre(offset));
            } else {
                EXPECT_THAT(log.lines(), ElementsAre(offset, invalid));
            }
        }
    }
    EXPECT_TRUE(seen.all());
}

TEST(FlowBoxV2, ReadsBackWhatItWrites) {
    AtFlowBoxV2 box;
    for (unsigned index = 0; index <= 3; ++index) {
        for (bool const hold : {false, true}) {
            unsigned char const hw = box.toHardwareFlowIndex(byte(index), hold);
            EXPECT_TRUE(box.toSoftwareFlowIndex(hw, 77) ==
                        (std::array<unsigned, 4>{0, 1, hold ? 1U : 0U, index}));
        }
    }
}

} // namespace
