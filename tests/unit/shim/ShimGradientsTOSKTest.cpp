// SPDX-License-Identifier: Apache-2.0
// The gradient vocabulary, its order, and the slot that has no name.
#include "shim/ShimGradientsTOSK.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using testing::StrEq;
using testing::ThrowsMessage;

TEST(ShimGradientsTOSK, NamesTheGradientsInTheOrderOfTheMatrixFiles) {
    std::vector<std::string> const expected{
        "Z",    "Z2",  "Z3",        "Z4",        "Z5",        "X",    "XZ",   "XZ2",      "(X2-Y2)", "XY",
        "Y",    "YZ",  "YZ2",       "(X2-Y2)Z2", "XZ4",       "XZ3",  "Z6",   "(X2-Y2)Z", "YZ4",     "YZ3",
        "XYZ2", "XYZ", "X3Z",       "X3",        "Y3Z",       "Y3",   "Z7",   "Z8",       "Z9",      "Z10",
        "XZ5",  "YZ5", "(X2-Y2)Z3", "(X2-Y2)Z4", "(X2-Y2)Z5", "XYZ3", "XYZ4", "XYZ5",     "Z0"};
    std::vector<std::string> names;
    for (int code = 0; code < ShimGradientsTOSK::gradientsCount(); ++code) {
        names.push_back(ShimGradientsTOSK::getGradientNameByCode(code));
        EXPECT_EQ(ShimGradientsTOSK::getGradientCodeByName(names.back()), code);
    }
    EXPECT_EQ(names, expected);
}

TEST(ShimGradientsTOSK, CountsNamesAndNotSlots) {
    EXPECT_EQ(ShimGradientsTOSK::gradientsCount(), 39);
    EXPECT_EQ(ShimGradientsTOSK().getVector().size(), 40U);
}

TEST(ShimGradientsTOSK, EndsTheCodesWithZ0) {
    EXPECT_EQ(ShimGradientsTOSK::getGradientNameByCode(38), "Z0");
    EXPECT_THAT([] { ShimGradientsTOSK::getGradientNameByCode(39); },
                ThrowsMessage<std::invalid_argument>(StrEq("There is no such TOSK gradient code: 39")));
    EXPECT_THAT([] { ShimGradientsTOSK::getGradientNameByCode(-1); },
                ThrowsMessage<std::invalid_argument>(StrEq("There is no such TOSK gradient code: -1")));
}

TEST(ShimGradientsTOSK, KnowsNamesToTheLetter) {
    EXPECT_THAT([] { ShimGradientsTOSK::getGradientCodeByName("z"); },
                ThrowsMessage<std::invalid_argument>(StrEq("There is no TOSK gradient named 'z'")));
    EXPECT_THAT([] { ShimGradientsTOSK::getGradientCodeByName(""); },
                ThrowsMessage<std::invalid_argument>(StrEq("There is no TOSK gradient named ''")));
}

TEST(ShimGradientsTOSK, BeginsWithZeros) {
    ShimGradientsTOSK const gradients;
    EXPECT_TRUE(gradients.areAllZeros());
    EXPECT_EQ(gradients.get("Z0"), 0);
}

TEST(ShimGradientsTOSK, CountsTheUnnamedSlotWhenItLooksForZeros) {
    ShimGradientsTOSK gradients;
    gradients.getVector()(39) = 1;
    EXPECT_FALSE(gradients.areAllZeros());
    for (int code = 0; code < 39; ++code) {
        EXPECT_EQ(gradients.get(ShimGradientsTOSK::getGradientNameByCode(code)), 0);
    }
}

TEST(ShimGradientsTOSK, StoresAnyValueAtTheNamesCode) {
    ShimGradientsTOSK gradients;
    gradients.set("XZ4", 2147483647);
    EXPECT_EQ(gradients.get("XZ4"), 2147483647);
    EXPECT_EQ(gradients.getVector()(14), 2147483647);
    EXPECT_FALSE(gradients.areAllZeros());
}

TEST(ShimGradientsTOSK, RefusesToSetOrGetAnUnknownName) {
    ShimGradientsTOSK gradients;
    EXPECT_THAT([&] { gradients.set("Z11", 1); },
                ThrowsMessage<std::invalid_argument>(StrEq("There is no TOSK gradient named 'Z11'")));
    EXPECT_THAT([&] { gradients.get("Z11"); },
                ThrowsMessage<std::invalid_argument>(StrEq("There is no TOSK gradient named 'Z11'")));
    EXPECT_TRUE(gradients.areAllZeros());
}

TEST(ShimGradientsTOSK, CopiesAllFortySlots) {
    ShimGradientsTOSK from;
    ShimGradientsTOSK to;
    for (unsigned int slot = 0; slot < 40; ++slot) {
        from.getVector()(slot) = static_cast<int>(slot) - 20;
    }
    to.set("Z", 5);
    ShimGradientsTOSK::copy(from, to);
    for (unsigned int slot = 0; slot < 40; ++slot) {
        EXPECT_EQ(to.getVector()(slot), static_cast<int>(slot) - 20);
    }
}

} // namespace
