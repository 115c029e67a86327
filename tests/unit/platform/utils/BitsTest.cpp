// SPDX-License-Identifier: Apache-2.0
// Two's complement of register words.
#include <velmor/kepla/utils/Bits.h>

#include <limits>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace {

using velmor::kepla::utils::Bits;

TEST(Bits, ExtendTheSignOf24Bits) {
    EXPECT_EQ(Bits::signed24bto32b(0x000000U), 0);
    EXPECT_EQ(Bits::signed24bto32b(0x7FFFFFU), 8388607);
    EXPECT_EQ(Bits::signed24bto32b(0x800000U), -8388608);
    EXPECT_EQ(Bits::signed24bto32b(0xFFFFFFU), -1);
}

TEST(Bits, IgnoreWhatStandsAbove24Bits) {
    EXPECT_EQ(Bits::signed24bto32b(0x40000001U), 1);
    EXPECT_EQ(Bits::signed24bto32b(0x7FFFFFFFU), -1);
}

TEST(Bits, ExtendTheSignOf48Bits) {
    EXPECT_EQ(Bits::signed48bto64b(0x7FFFFFFFFFFFULL), 140737488355327LL);  // 2^47 - 1
    EXPECT_EQ(Bits::signed48bto64b(0x800000000000ULL), -140737488355328LL); // -2^47
    EXPECT_EQ(Bits::signed48bto64b(0xFFFFFFFFFFFFULL), -1LL);
    EXPECT_EQ(Bits::signed48bto64b(0xFFFF000000000001ULL), 1LL);
}

TEST(Bits, GiveThePatternOfANumberAtAWidth) {
    EXPECT_EQ(Bits::two_complement(-1, 24), 0xFFFFFFU);
    EXPECT_EQ(Bits::two_complement(-8388608, 24), 0x800000U);
    EXPECT_EQ(Bits::two_complement(8388607, 24), 0x7FFFFFU);
    EXPECT_EQ(Bits::two_complement(-1, 1), 1U);
    EXPECT_EQ(Bits::two_complement(-1, 0), 0U);
    EXPECT_EQ(Bits::two_complement(std::numeric_limits<int>::min(), 32), 0x80000000U);
    EXPECT_EQ(Bits::two_complement(-1, 99), 0xFFFFFFFFU);
}

RC_GTEST_PROP(Bits, ReadBackThePatternOfAny24BitNumber, ()) {
    int const value = *rc::gen::inRange(-8388608, 8388608);
    RC_ASSERT(Bits::signed24bto32b(Bits::two_complement(value, 24)) == value);
}

} // namespace
