// SPDX-License-Identifier: Apache-2.0
// Which temperatures of a run are worth a line, and what the listener's news become.
#include "apps/fieldwarden/TemperatureWatch.h"

#include "StandInTemperature.h"
#include "apps/fieldwarden/TemperatureEvents.h"
#include "support/HandClockScope.h"

#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::app::Event;
using libfieldwarden::app::EventQueue;
using libfieldwarden::app::TemperatureEvents;
using libfieldwarden::app::TemperatureWatch;
using libfieldwarden::app::Tone;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::StandInTemperature;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class TemperatureWatchTest : public testing::Test {
protected:
    /// The names of the events of a look.
    std::vector<std::string> look() {
        mWatch.look();
        mEvents = mQueue.take();
        std::vector<std::string> names;
        for (Event const& event : mEvents) {
            names.push_back(event.name);
        }
        return names;
    }

    HandClockScope mClock;
    EventQueue mQueue;
    StandInTemperature mTemperature;
    TemperatureWatch mWatch{mTemperature, mQueue};
    std::vector<Event> mEvents;
};

TEST_F(TemperatureWatchTest, TellsAllAtTheFirstLook) {
    EXPECT_THAT(look(), ElementsAre("temperatures", "readiness"));
    EXPECT_EQ(mEvents[0].text, "298.150 K, shim coil 25.000 C, iso box 294.15 K, probe 297.8 K");
    EXPECT_EQ(mEvents[0].fields["probeKelvin"], 297.8);
    EXPECT_EQ(mEvents[1].text, "ready within 25 min");
    EXPECT_EQ(mEvents[1].fields["minutesAtMost"], 25);
}

TEST_F(TemperatureWatchTest, ShowsReadinessFirstOnATerminalsLine) {
    look();
    mClock->advance(seconds(600));
    look();
    // 1500 s - 600 s
    EXPECT_EQ(mWatch.words(true),
              "magnet ready within 15 min, 298.150 K, shim coil 25.000 C, iso box 294.15 K, probe 297.8 K");
    EXPECT_EQ(mWatch.words(false),
              "magnet ready within 15 min, 298.150 K, shim coil 25.000 C, iso box 294.15 K");
}

TEST_F(TemperatureWatchTest, ToldIsWhatHasMovedEnough) {
    look();
    mTemperature.magnetKelvin += 0.015;
    mTemperature.coilCelsius += 0.04;
    mTemperature.isoBoxKelvin += 0.15;
    mTemperature.probeKelvin += 0.9;
    EXPECT_THAT(look(), IsEmpty());
    mTemperature.probeKelvin += 0.2; // 1.1 K since it was told
    EXPECT_THAT(look(), ElementsAre("temperatures"));
    mTemperature.coilCelsius += 0.06;
    EXPECT_THAT(look(), ElementsAre("temperatures"));
}

TEST_F(TemperatureWatchTest, TellsWhenTheReasonOfNotBeingReadyChanges) {
    look();
    mTemperature.magnetKelvin = 298.25;
    EXPECT_THAT(look(), ElementsAre("temperatures", "readiness"));
    EXPECT_EQ(mEvents[1].text, "not ready, 0.10 K above its target");
    EXPECT_TRUE(mEvents[1].fields["minutesAtMost"].is_null());
}

TEST_F(TemperatureWatchTest, LeavesItToTheServiceToTellThatTheMagnetIsReady) {
    look();
    mTemperature.magnetReady = true;
    EXPECT_THAT(look(), IsEmpty());
    EXPECT_EQ(mWatch.words(false).substr(0, 21), "magnet ready, 298.150");
}

TEST_F(TemperatureWatchTest, KnowsNoProbeWithoutTheOption) {
    mTemperature.channel = 0;
    look();
    EXPECT_FALSE(mEvents[0].fields.contains("probeKelvin"));
    EXPECT_FALSE(mWatch.temperatures()->probeKelvin);
}

TEST_F(TemperatureWatchTest, TellsOnceThatTheBoardDoesNotAnswer) {
    mTemperature.silent = true;
    EXPECT_THAT(look(), ElementsAre("boardSilent"));
    EXPECT_EQ(mEvents[0].text, "no temperatures: the board is silent");
    EXPECT_EQ(mEvents[0].tone, Tone::Alarm);
    EXPECT_THAT(look(), IsEmpty());
    EXPECT_EQ(mWatch.words(true), "no temperatures");
    mTemperature.silent = false;
    look();
    mTemperature.silent = true;
    EXPECT_THAT(look(), ElementsAre("boardSilent"));
}

TEST_F(TemperatureWatchTest, TheListenersNewsBecomeEvents) {
    TemperatureEvents const events(mTemperature, mQueue);
    mTemperature.listener->magnetReadyChanged(true);
    mTemperature.listener->probeTargetTemperatureChanged(310.0);
    mTemperature.listener->probeMeasuredGasFlowChanged(250.5);
    mTemperature.listener->probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus::Error);
    mTemperature.listener->probeTemperatureChanged(300.0); // read at leisure
    auto const heard = mQueue.take();
    ASSERT_EQ(heard.size(), 4U);
    EXPECT_EQ(heard[0].source + ": " + heard[0].text, "magnet: ready");
    EXPECT_EQ(heard[1].source + ": " + heard[1].text, "probe: target: 310.0 K");
    EXPECT_EQ(heard[2].text, "gas flow: 250.5 l/h");
    EXPECT_EQ(heard[3].text, "gas: error of the flow box");
    EXPECT_EQ(heard[3].fields["gas"], 7);
    EXPECT_EQ(heard[3].tone, Tone::Alarm);
}

} // namespace
