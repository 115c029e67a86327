// SPDX-License-Identifier: Apache-2.0
// The probe's way through a run: on when the lock is armed, up, held, down, and off.
#include "apps/fieldwarden/ProbeRun.h"

#include "StandInTemperature.h"
#include "apps/fieldwarden/TemperatureEvents.h"
#include "apps/fieldwarden/WrongUsage.h"
#include "support/HandClockScope.h"

#include <fieldwarden/LockForTemperatureIfc.h>

#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::app::Event;
using libfieldwarden::app::EventQueue;
using libfieldwarden::app::Phase;
using libfieldwarden::app::PhaseClock;
using libfieldwarden::app::ProbeRun;
using libfieldwarden::app::TemperatureEvents;
using libfieldwarden::app::WrongUsage;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::StandInTemperature;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;
using Stage = ProbeRun::Stage;

class ArmedOrNot : public LockForTemperatureIfc {
public:
    bool shimCoilTargetTemperatureRegulationArmed() const override { return armed; }
    bool armed = false;
};

class ProbeRunTest : public testing::Test {
protected:
    ProbeRun& make(double aKelvin = 310.0) {
        return mProbe.emplace(mTemperature, &mLock, aKelvin, mQueue, mPhases);
    }
    /// What the service says goes through the listener and the queue to the probe.
    void hear() {
        for (Event const& event : mQueue.take()) {
            mProbe->hear(event);
            mTexts.push_back(event.text);
        }
    }
    void say(ProbeTemperatureGlobalStatus aStatus) {
        mTemperature.listener->probeTemperatureStatusChanged(aStatus);
        hear();
    }
    void say(ProbeTemperatureControlStatus aStatus) {
        mTemperature.listener->probeTemperatureControlStatusChanged(aStatus);
        hear();
    }
    void say(TemperatureStability aStability) {
        mTemperature.listener->probeTemperatureStabilityChanged(aStability);
        hear();
    }
    void bringUp() {
        mLock.armed = true;
        mProbe->look(297.8);
        say(ProbeTemperatureGlobalStatus::On);
        say(ProbeTemperatureControlStatus::Ramping);
    }
    std::vector<std::string> phases() {
        mPhases.end();
        std::vector<std::string> names;
        for (Phase const& phase : mPhases.phases()) {
            names.push_back(phase.name);
        }
        return names;
    }

    HandClockScope mClock;
    EventQueue mQueue;
    PhaseClock mPhases{"lock start"};
    StandInTemperature mTemperature;
    TemperatureEvents mEvents{mTemperature, mQueue};
    ArmedOrNot mLock;
    std::optional<ProbeRun> mProbe;
    std::vector<std::string> mTexts;
};

TEST_F(ProbeRunTest, SetsTheTargetAtOnceAndSwitchesOnWhenTheLockIsArmed) {
    make();
    EXPECT_THAT(mTemperature.asked, ElementsAre("target 310.0"));
    mProbe->look(297.8);
    EXPECT_EQ(mProbe->stage(), Stage::WaitsForLock);
    EXPECT_EQ(mProbe->words(0.0), "probe waits for the lock");
    mLock.armed = true;
    mProbe->look(297.8);
    EXPECT_THAT(mTemperature.asked, ElementsAre("target 310.0", "on"));
    EXPECT_EQ(mProbe->stage(), Stage::GasStarts);
}

TEST_F(ProbeRunTest, SwitchesOnAtOnceWhereNoLockIsAsked) {
    mProbe.emplace(mTemperature, nullptr, 310.0, mQueue, mPhases);
    mProbe->look(297.8);
    EXPECT_EQ(mTemperature.asked.back(), "on");
}

TEST_F(ProbeRunTest, AsksTheServiceOnlyOnce) {
    make();
    bringUp();
    mProbe->look(298.0);
    mProbe->look(298.1);
    EXPECT_THAT(mTemperature.asked, ElementsAre("target 310.0", "on"));
}

TEST_F(ProbeRunTest, GoesUpIsHeldAndStableAndComesDown) {
    make();
    bringUp();
    EXPECT_EQ(mProbe->stage(), Stage::RampUp);
    mProbe->look(304.5);
    // 6.7 of 12.2 K are five of ten parts and a bit; 310.0 - 304.5 = 5.5 K at 1 K a minute.
    EXPECT_EQ(mProbe->words(200.0), "[#####-----] 304.5 K to 310.0 K, 6 min, 200 l/h");
    say(ProbeTemperatureControlStatus::Holding);
    EXPECT_EQ(mProbe->stage(), Stage::Settles);
    say(TemperatureStability::Stable);
    EXPECT_EQ(mProbe->stage(), Stage::Stable);
    EXPECT_TRUE(mProbe->wasStable());
    mProbe->look(309.8);
    EXPECT_EQ(mProbe->words(200.0), "probe 309.8 K of 310.0 K, stable, 200 l/h");
    mProbe->switchOff();
    EXPECT_THAT(mTemperature.asked, ElementsAre("target 310.0", "on", "off"));
    mProbe->look(309.0);
    EXPECT_THAT(mProbe->words(200.0), HasSubstr("309.0 K to 308.1 K, 1 min"));
    say(ProbeTemperatureControlStatus::Ramping);
    EXPECT_FALSE(mProbe->over());
    say(ProbeTemperatureGlobalStatus::Off);
    EXPECT_TRUE(mProbe->over());
    EXPECT_THAT(phases(), ElementsAre("lock start", "gas", "ramp", "settling", "held", "down and off"));
}

TEST_F(ProbeRunTest, CountsStabilityThatCameBeforeTheEndOfTheRamp) {
    make();
    bringUp();
    say(TemperatureStability::Stable);
    EXPECT_FALSE(mProbe->wasStable());
    say(ProbeTemperatureControlStatus::Holding);
    EXPECT_TRUE(mProbe->wasStable());
}

TEST_F(ProbeRunTest, TellsTheRampWithEachKelvin) {
    make();
    bringUp();
    mTexts.clear();
    for (double const kelvin : {298.0, 298.5, 299.0, 299.9, 300.0}) {
        mProbe->look(kelvin);
    }
    hear();
    EXPECT_THAT(mTexts, ElementsAre("ramp: 298.0 K to 310.0 K, about 12 min to go",
                                    "ramp: 299.0 K to 310.0 K, about 11 min to go",
                                    "ramp: 300.0 K to 310.0 K, about 10 min to go"));
}

TEST_F(ProbeRunTest, NeedsNoWayDownBeforeItWasSwitchedOn) {
    make();
    mProbe->switchOff();
    EXPECT_TRUE(mProbe->over());
    EXPECT_FALSE(mProbe->wasOn());
    EXPECT_THAT(mTemperature.asked, ElementsAre("target 310.0"));
}

TEST_F(ProbeRunTest, NeedsNoRampDownFromACoolProbe) {
    make(300.0);
    bringUp();
    mProbe->look(300.0);
    mProbe->switchOff();
    hear();
    mTexts.clear();
    mProbe->look(299.9);
    hear();
    EXPECT_THAT(mTexts, IsEmpty());
    EXPECT_EQ(mProbe->words(50.0), "probe 299.9 K, switching off, 50 l/h");
}

TEST_F(ProbeRunTest, IsOverWhenTheRegulationGaveUp) {
    make();
    bringUp();
    say(ProbeTemperatureGlobalStatus::Error);
    EXPECT_EQ(mProbe->stage(), Stage::Failed);
    EXPECT_TRUE(mProbe->over());
    mProbe->switchOff();
    EXPECT_THAT(mTemperature.asked, ElementsAre("target 310.0", "on"));
}

TEST_F(ProbeRunTest, IsOverdueWhenTheWayDownTakesLongerThanItEverShould) {
    make();
    bringUp();
    mProbe->look(308.15);
    mProbe->switchOff();
    // (308.15 - 298.15) K x 1.5 min/K + 10 min = 25 min.
    mClock->advance(minutes(25));
    EXPECT_FALSE(mProbe->overdue());
    mClock->advance(seconds(1));
    EXPECT_TRUE(mProbe->overdue());
    say(ProbeTemperatureGlobalStatus::Off);
    EXPECT_FALSE(mProbe->overdue());
}

TEST_F(ProbeRunTest, DoesNotTakeTheOffOfTheOpeningForItsEnd) {
    make();
    say(ProbeTemperatureGlobalStatus::Off);
    EXPECT_EQ(mProbe->stage(), Stage::WaitsForLock);
}

TEST_F(ProbeRunTest, RefusesATargetOutsideOfTheRangeAndAnInstrumentWithoutTheOption) {
    for (double const kelvin : {298.1, 353.2, std::nan("")}) {
        EXPECT_THAT(
            [&] { make(kelvin); },
            ThrowsMessage<WrongUsage>(HasSubstr("outside of the probe's range, 298.15 K to 353.15 K")));
    }
    mTemperature.channel = 0;
    EXPECT_THAT([&] { make(); }, ThrowsMessage<WrongUsage>(HasSubstr("run it without --at")));
    EXPECT_THAT(mTemperature.asked, IsEmpty());
}

TEST_F(ProbeRunTest, TakesBothEndsOfTheRange) {
    EXPECT_NO_THROW(make(298.15));
    EXPECT_NO_THROW(make(353.15));
}

} // namespace
