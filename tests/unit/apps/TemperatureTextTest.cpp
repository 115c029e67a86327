// SPDX-License-Identifier: Apache-2.0
// Temperatures, flows, ramps and readiness as people read and write them.
#include "apps/fieldwarden/TemperatureText.h"

#include "apps/fieldwarden/WrongUsage.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::app::flowsFromXml;
using libfieldwarden::app::MagnetReadiness;
using libfieldwarden::app::meaningOf;
using libfieldwarden::app::phaseTable;
using libfieldwarden::app::RampProgress;
using libfieldwarden::app::temperatureFromText;
using libfieldwarden::app::Tone;
using libfieldwarden::app::WrongUsage;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

TEST(TemperatureFromText, TakesKelvinAndDegreesCelsius) {
    EXPECT_DOUBLE_EQ(temperatureFromText("310"), 310.0);
    EXPECT_DOUBLE_EQ(temperatureFromText("310.5K"), 310.5);
    EXPECT_DOUBLE_EQ(temperatureFromText("36.85C"), 310.0); // 36.85 + 273.15
    EXPECT_DOUBLE_EQ(temperatureFromText("-10C"), 263.15);
}

TEST(TemperatureFromText, RefusesAnythingElse) {
    for (char const* const text :
         {"", "K", "C", "warm", "310 K", "310F", "nan", "inf", "-310", "0", "-273.15C", "310KK", "3e999"}) {
        EXPECT_THAT([&] { temperatureFromText(text); },
                    ThrowsMessage<WrongUsage>(HasSubstr("as in 310, 310K or 36.85C")))
            << text;
    }
}

TEST(FlowsFromXml, ReadsTheServicesList) {
    EXPECT_THAT(
        flowsFromXml("<flows><flow valueLiterPerHour=\"0\" /><flow valueLiterPerHour=\"250.5\" /></flows>"),
        ElementsAre(0.0, 250.5));
    EXPECT_THAT(flowsFromXml("<flows />"), IsEmpty());
    EXPECT_THAT(flowsFromXml("<flows></flows>"), IsEmpty());
}

TEST(FlowsFromXml, RefusesWhatIsNoList) {
    for (char const* const text :
         {"", "<temperature />", "<flows><flow valueLiterPerHour=\"much\" /></flows>",
          "<flows><flow valueLiterPerHour=\"5"}) {
        EXPECT_THROW(flowsFromXml(text), std::runtime_error) << text;
    }
}

TEST(MeaningOfAStatus, WantsToBeSeenWhenItIsAnError) {
    EXPECT_EQ(meaningOf(ProbeTemperatureGlobalStatus::Error).tone, Tone::Alarm);
    EXPECT_EQ(meaningOf(ProbeTemperatureGlobalStatus::Error).words, "gave up: heating and gas are cut");
    EXPECT_EQ(meaningOf(ProbeTemperatureControlGasFlowStatus::Error).tone, Tone::Alarm);
    EXPECT_EQ(meaningOf(ProbeTemperatureControlStatus::Holding).words, "holding the target");
    EXPECT_EQ(meaningOf(TemperatureStability::LeftBand).tone, Tone::Warning);
    EXPECT_EQ(meaningOf(TemperatureStability::Stable).tone, Tone::Good);
}

TEST(MeaningOfAStatus, OfANumberWithoutANameIsUnknown) {
    EXPECT_EQ(meaningOf(static_cast<ProbeTemperatureGlobalStatus>(99)).words, "unknown");
    EXPECT_EQ(meaningOf(static_cast<TemperatureStability>(99)).words, "unknown");
}

TEST(RampProgress, TellsTheWayAndTheTimeStillToGo) {
    // 310.0 - 301.2 = 8.8 K at 1 K a minute.
    RampProgress const ramp{298.0, 301.2, 310.0};
    EXPECT_EQ(ramp.words(), "301.2 K to 310.0 K, about 9 min to go");
    EXPECT_NEAR(ramp.fraction(), 0.2667, 0.0001); // 3.2 / 12
}

TEST(RampProgress, GoesDownToo) {
    RampProgress const ramp{310.0, 309.0, 308.0};
    EXPECT_DOUBLE_EQ(ramp.fraction(), 0.5);
    EXPECT_EQ(ramp.minutesToGo(), 1);
}

TEST(RampProgress, StaysBetweenItsEnds) {
    EXPECT_DOUBLE_EQ((RampProgress{298.0, 297.0, 310.0}).fraction(), 0.0);
    EXPECT_DOUBLE_EQ((RampProgress{298.0, 311.0, 310.0}).fraction(), 1.0);
    EXPECT_DOUBLE_EQ((RampProgress{310.0, 310.0, 310.0}).fraction(), 1.0);
}

TEST(MagnetReadiness, IsAtMostAMeanAndItsHoldingAway) {
    MagnetReadiness magnet;
    magnet.look(303.15, 303.15, false, seconds(100));
    EXPECT_EQ(magnet.words(), "ready within 25 min"); // 1500 s
    magnet.look(303.16, 303.15, false, seconds(1000));
    EXPECT_EQ(magnet.minutesAtMost(), 10); // 1500 - 900 = 600 s
    magnet.look(303.16, 303.15, false, seconds(1001));
    EXPECT_EQ(magnet.minutesAtMost(), 10); // 599 s, rounded up
    magnet.look(303.16, 303.15, true, seconds(1010));
    EXPECT_EQ(magnet.words(), "ready");
    EXPECT_FALSE(magnet.minutesAtMost());
}

TEST(MagnetReadiness, CountsAnewWhenTheMagnetHasLeftItsTarget) {
    MagnetReadiness magnet;
    magnet.look(303.15, 303.15, false, seconds(0));
    magnet.look(302.95, 303.15, false, seconds(900));
    EXPECT_EQ(magnet.words(), "not ready, 0.20 K below its target");
    magnet.look(303.65, 303.15, false, seconds(910));
    EXPECT_EQ(magnet.words(), "not ready, 0.50 K above its target");
    magnet.look(303.15, 303.15, false, seconds(1000));
    EXPECT_EQ(magnet.words(), "ready within 25 min");
}

TEST(MagnetReadiness, SaysSoWhenTheTimeIsOver) {
    MagnetReadiness magnet;
    magnet.look(303.15, 303.15, false, seconds(0));
    magnet.look(303.15, 303.15, false, seconds(1500));
    EXPECT_EQ(magnet.kind(), MagnetReadiness::Kind::Late);
    EXPECT_THAT(magnet.words(), HasSubstr("a sensor is not"));
}

TEST(PhaseTable, SumsRealAndInstrumentTime) {
    EXPECT_EQ(phaseTable({{"opening", 1.25, 12.5}, {"ramp up", 50.5, 505.0}}),
              "phase                 real    instrument\n"
              "opening              1.2 s        12.5 s\n"
              "ramp up             50.5 s       505.0 s\n"
              "all                 51.8 s       517.5 s\n");
}

} // namespace
