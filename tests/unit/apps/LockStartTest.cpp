// SPDX-License-Identifier: Apache-2.0
// Frequencies as users write them, and the bar of long steps.
#include "apps/fieldwarden/LockStart.h"
#include "apps/fieldwarden/WrongUsage.h"

#include <gmock/gmock.h>

namespace {

using libfieldwarden::app::barText;
using libfieldwarden::app::frequencyFor;
using libfieldwarden::app::frequencyFromText;
using libfieldwarden::app::SessionOptions;
using libfieldwarden::app::WrongUsage;

TEST(LockStart, TakesAFrequencyWithAndWithoutItsUnit) {
    EXPECT_DOUBLE_EQ(frequencyFromText("80.123"), 80'123'000.0);
    EXPECT_DOUBLE_EQ(frequencyFromText("80.123MHz"), 80'123'000.0);
    EXPECT_DOUBLE_EQ(frequencyFromText("80123400Hz"), 80'123'400.0);
}

TEST(LockStart, RefusesWhatIsNoFrequencyOfAMagnet) {
    for (char const* text : {"", "fast", "80 MHz", "80.1GHz", "-80", "0", "nan", "inf", "1000.1", "80.1x"}) {
        EXPECT_THROW(frequencyFromText(text), WrongUsage) << text;
    }
}

TEST(LockStart, KnowsTheFrequencyOfTheSimulatedMagnetOnly) {
    SessionOptions options;
    EXPECT_FALSE(frequencyFor(options, std::nullopt));
    options.simulate = true;
    EXPECT_EQ(frequencyFor(options, std::nullopt), 80'123'000.0);
    EXPECT_EQ(frequencyFor(options, "80.5"), 80'500'000.0);
}

TEST(ProgressBar, FillsWithWhatIsDone) {
    EXPECT_EQ(barText(0, 10), "[--------------------]");
    EXPECT_EQ(barText(5, 10), "[##########----------]");
    EXPECT_EQ(barText(10, 10), "[####################]");
    EXPECT_EQ(barText(11, 10), "[####################]");
    EXPECT_EQ(barText(0, 0), "[--------------------]");
}

} // namespace
