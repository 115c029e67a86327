// SPDX-License-Identifier: Apache-2.0
// Texts of enumeration values.
#include <velmor/kepla/utils/EnumUtils.h>

#include <array>

#include <gmock/gmock.h>

namespace {

enum class Colour { Red = 0, Green = 1, Blue = 4 };

} // namespace

template <>
struct velmor::kepla::utils::EnumTexts<Colour> {
    static constexpr std::array<EnumText<Colour>, 3> kTexts{
        {{Colour::Red, "red"}, {Colour::Green, "green"}, {Colour::Blue, "blue"}}};
};

namespace {

using Colours = velmor::kepla::utils::EnumUtils<Colour>;
using testing::ThrowsMessage;

TEST(EnumUtils, CountTheValues) {
    EXPECT_EQ(Colours::count(), 3U);
}

TEST(EnumUtils, GiveTheTextOfEveryValue) {
    EXPECT_EQ(Colours::to_string(Colour::Green), "green");
    EXPECT_EQ(Colours::to_string(Colour::Blue), "blue"); // its number is not its row
}

TEST(EnumUtils, RefuseAValueWithoutAText) {
    for (int const unknown : {2, 3, 5, -1, 1000}) {
        EXPECT_THAT([&] { (void)Colours::to_string(static_cast<Colour>(unknown)); },
                    ThrowsMessage<std::runtime_error>("Requested enum value not found."));
    }
}

TEST(EnumUtils, FindTheValueOfEveryText) {
    EXPECT_EQ(Colours::parse("red"), Colour::Red);
    EXPECT_EQ(Colours::parse("blue"), Colour::Blue);
}

TEST(EnumUtils, RefuseATextOfNoValue) {
    EXPECT_THAT([] { (void)Colours::parse("Red"); },
                ThrowsMessage<std::runtime_error>("Requested enum value not found."));
}

} // namespace
