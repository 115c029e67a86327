// SPDX-License-Identifier: Apache-2.0
// The text that is cut to its buffer.
#include "shim/FixedSizeString.h"

#include <stdexcept>
#include <type_traits>

#include <gtest/gtest.h>

namespace {

TEST(FixedSizeString, BeginsEmpty) {
    FixedSizeString const text(9);
    EXPECT_STREQ(text.text(), "");
    EXPECT_EQ(text.capacity(), 9U);
    EXPECT_TRUE(std::has_virtual_destructor_v<FixedSizeString>);
}

TEST(FixedSizeString, KeepsWhatFitsBesideTheZero) {
    FixedSizeString text(9);
    text.assign("12345678");
    EXPECT_STREQ(text.text(), "12345678");
    text.assign("123456789");
    EXPECT_STREQ(text.text(), "12345678");
}

TEST(FixedSizeString, ForgetsALongerTextForAShorterOne) {
    FixedSizeString text(9);
    text.assign("12345678");
    text.assign("ab");
    EXPECT_STREQ(text.text(), "ab");
}

TEST(FixedSizeString, HoldsNothingInOneByte) {
    FixedSizeString text(1);
    text.assign("a");
    EXPECT_STREQ(text.text(), "");
}

TEST(FixedSizeString, NeedsRoomForTheZero) {
    EXPECT_THROW(FixedSizeString(0), std::invalid_argument);
}

} // namespace
