// SPDX-License-Identifier: Apache-2.0
// The lock service: what each operation answers, logs, and asks of the objects behind it.
#include "lock/LockQ47.h"

#include "lock/LockParameters.h"

#include "support/FakeBackend.h"
#include "support/FakeDataLogger.h"
#include "support/FakeLockHardware.h"
#include "support/FakePeriodicCallers.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/LockInterfaceListener.h>
#include <fieldwarden/ShimForLockIfc.h>
#include <fieldwarden/ShimTargetTemperatureIfc.h>
#include <fieldwarden/TemperatureForLockIfc.h>
#include <velmor/q47/seqlock/PosixSeqlockDriver.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::FakeBackendScope;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::FakeLockHardware;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::ThrowsMessage;

namespace {

/// Temperature and shim sides, as far as the lock sees them.
struct Neighbours : ShimTargetTemperatureIfc, TemperatureForLockIfc, ShimForLockIfc {
    void setShimTargetTemperature(double /*aTemperature*/) override {}
    double shimTargetTemperature(bool /*aFromBoard*/) const override { return 298.15; }
    double probeTemperature() const override { return 298.15; }
    bool atEnabled() const override { return at; }
    bool areAllShimZero() override { return false; }

    bool at = false;
};

class Heard : public LockInterfaceListener {
public:
    void error(std::string const& aText) override { add("error: " + aText); }
    void warningsChanged() override { add("warningsChanged"); }
    void doing(std::string const& aText) override { add("doing: " + aText); }
    void state(int aStatus) override { add("state " + std::to_string(aStatus)); }
    void updateLockPIDSet(int aPIDSet) override { add("pidset " + std::to_string(aPIDSet)); }
    void lost(int aStatus) override { add("lost " + std::to_string(aStatus)); }

    void await(std::string const& aWhat) {
        std::unique_lock lock(mMutex);
        mNews.wait(lock, [&] { return std::find(mHeard.begin(), mHeard.end(), aWhat) != mHeard.end(); });
    }
    std::vector<std::string> heard() {
        std::lock_guard const lock(mMutex);
        return mHeard;
    }
    void forget() {
        std::lock_guard const lock(mMutex);
        mHeard.clear();
    }

private:
    void add(std::string aWhat) {
        std::lock_guard const lock(mMutex);
        mHeard.push_back(std::move(aWhat));
        mNews.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mNews;
    std::vector<std::string> mHeard;
};

class LockQ47Test : public testing::Test {
protected:
    LockQ47Test() {
        // A driver without a device: the lock works, it only makes no dumps.
        mBackend->seqlockDriverDoor = [this] {
            return std::make_shared<velmor::q47::seqlock::PosixSeqlockDriver>(mDirectory.path());
        };
        mBackend->instrumentPathDoor = [this](std::filesystem::path const& aPath) {
            return mDirectory.path() / aPath.relative_path();
        };
        mLock = std::make_unique<LockQ47>(mHardware, mParameters, mNeighbours, mNeighbours, mNeighbours,
                                          mDataLogger, std::make_shared<FakePeriodicCallers>(), false);
        mLock->setListener(&mHeard);
        mLog.clear();
    }

    std::vector<CapturedLine> ownLines() const { return mLog.linesOf("LockQ47"); }
    static CapturedLine line(Severity aSeverity, std::string aText) {
        return {aSeverity, std::move(aText), {}, {}};
    }
    std::vector<double> pushed(std::string const& aChannel) {
        std::vector<double> values;
        for (auto const& push : mDataLogger->pushes(aChannel)) {
            values.push_back(push.value);
        }
        return values;
    }

    LogCapture mLog;
    TemporaryDirectory mDirectory;
    FakeBackendScope mBackend;
    std::shared_ptr<FakeLockHardware> mHardware = std::make_shared<FakeLockHardware>();
    std::shared_ptr<LockParameters> mParameters =
        std::make_shared<LockParameters>((mDirectory.path() / "lock.config").string());
    std::shared_ptr<Neighbours> mNeighbours = std::make_shared<Neighbours>();
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    Heard mHeard;
    std::unique_ptr<LockQ47> mLock;
};

TEST_F(LockQ47Test, LeavesNothingBehindWhenItFailsOnItsWayUp) {
    mLock.reset();
    mDataLogger->refused = "lock/enabled"; // The first channel that is made behind the state machine.
    std::weak_ptr<FakeLockHardware> const hardware = mHardware;
    EXPECT_THROW(LockQ47(std::exchange(mHardware, nullptr), mParameters, mNeighbours, mNeighbours,
                         mNeighbours, mDataLogger, std::make_shared<FakePeriodicCallers>(), true),
                 std::runtime_error);
    EXPECT_TRUE(hardware.expired()) << "the machine and the streams keep each other";
}

TEST_F(LockQ47Test, AnswersTheFixedValues) {
    EXPECT_EQ(mLock->getMagnetField(), 3.1415F);
    EXPECT_EQ(mLock->getLockConfiguration(), "1L");
    EXPECT_TRUE(mLock->get19FOptionAvailable());
    EXPECT_EQ(mLock->getEffectiveField(), 0.0);
    EXPECT_EQ(mLock->getSubstanceValueRange(), "19F=0");
    EXPECT_FALSE(mLock->getH0PolarityInverse());
    EXPECT_FALSE(mLock->getLockMute());
    EXPECT_EQ(mLock->getLockDC(), 0.0);
    EXPECT_EQ(mLock->getLockLevel(), 0.0);
    EXPECT_EQ(mLock->getAutoLockBehavior(), 0);
    EXPECT_EQ(mLock->warnings(), "");
    EXPECT_EQ(mLock->criticalWarnings(), "");
    EXPECT_FALSE(mLock->getLock());
    EXPECT_FALSE(mLock->getLockLost());
    EXPECT_FALSE(mLock->shimCoilTargetTemperatureRegulationArmed());
}

TEST_F(LockQ47Test, KeepsTheValuesThatItHasNoUseFor) {
    struct Value {
        double (LockQ47::*get)();
        void (LockQ47::*set)(double);
    };
    for (Value const& value : {Value{&LockQ47::getLockField, &LockQ47::setLockField},
                               Value{&LockQ47::getLockShift, &LockQ47::setLockShift},
                               Value{&LockQ47::getLoopGain, &LockQ47::setLoopGain},
                               Value{&LockQ47::getLoopTime, &LockQ47::setLoopTime},
                               Value{&LockQ47::getLoopFilter, &LockQ47::setLoopFilter},
                               Value{&LockQ47::getLockPhase, &LockQ47::setLockPhase},
                               Value{&LockQ47::getLockPower, &LockQ47::setLockPower},
                               Value{&LockQ47::getLockGain, &LockQ47::setLockGain},
                               Value{&LockQ47::getLockInPowerStep, &LockQ47::setLockInPowerStep}}) {
        EXPECT_EQ(((*mLock).*value.get)(), 0.0);
        ((*mLock).*value.set)(-12.5);
        EXPECT_EQ(((*mLock).*value.get)(), -12.5);
    }
    EXPECT_EQ(mLock->getLockSubstance(), 1);
    mLock->setLockSubstance(7);
    EXPECT_EQ(mLock->getLockSubstance(), 7);
    EXPECT_EQ(mLock->getAdditionalLockPeaks(), 0);
    mLock->setAdditionalLockPeaks(3);
    EXPECT_EQ(mLock->getAdditionalLockPeaks(), 3);
    EXPECT_THAT(mHardware->journal(), IsEmpty());
}

TEST_F(LockQ47Test, OnlyLogsWhatTheInstrumentDoesNotOffer) {
    mLock->holdLock();
    mLock->cancelOfOneParameterSet();
    mLock->setLockMute(true);
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Info, "+holdLock: not yet implemented"),
                                        line(Severity::Info, "cancelOfOneParameterSet: not yet implemented"),
                                        line(Severity::Info, "+setLockMute(lockMute = 1)"),
                                        line(Severity::Info, "setLockMute not implemented yet")));
}

TEST_F(LockQ47Test, MakesItsTwoChannels) {
    auto const infos = mDataLogger->infos();
    auto const find = [&](std::string const& aName) {
        return *std::find_if(infos.begin(), infos.end(),
                             [&](auto const& aInfo) { return aInfo.name() == aName; });
    };
    EXPECT_EQ(find("lock/enabled").description, "Is the lock enabled (1) or not (0)");
    EXPECT_EQ(find("lock/pidset_index").description,
              "Which lock PID set is used: 0 = slow, 1 = fast, 2 = normal");
}

TEST_F(LockQ47Test, StartsTheLock) {
    mLock->startLock();
    mHeard.await("doing: Starting the lock");
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Info, "+startLock")));
    EXPECT_THAT(pushed("lock/enabled"), ElementsAre(1.0));
}

TEST_F(LockQ47Test, StopsTheLock) {
    mLock->stopLock();
    mHeard.await("doing: stopped");
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Info, "+stopLock")));
    EXPECT_THAT(pushed("lock/enabled"), ElementsAre(0.0));
}

TEST_F(LockQ47Test, RefusesToStopWhileTheAdjustableTemperatureIsOn) {
    mNeighbours->at = true;
    mHeard.forget();
    EXPECT_THAT([this] { mLock->stopLock(); },
                ThrowsMessage<std::runtime_error>(
                    "The lock must remain enabled while the adjustable temperature option is enabled."));
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Info, "+stopLock"),
                                        line(Severity::Error,
                                             "User requested to stop the lock but AT is enabled: denied")));
    EXPECT_THAT(pushed("lock/enabled"), IsEmpty());
    EXPECT_THAT(mHeard.heard(), Not(Contains("doing: Stopping the lock")));
}

TEST_F(LockQ47Test, RestartsOnlyOnAFrequencyChangeOfMoreThan900Hz) {
    mLock->setBasic1HFrequency(80'000'000.0);
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Info, "setBasic1HFrequency(80000000.000000 Hz)"),
                                        line(Severity::Info, "restarting the lock")));
    mLog.clear();
    mLock->setBasic1HFrequency(80'000'900.0); // exactly 900 Hz
    EXPECT_THAT(ownLines(),
                ElementsAre(line(Severity::Info, "setBasic1HFrequency(80000900.000000 Hz)"),
                            line(Severity::Info,
                                 "basic 1H frequency didn't change enough to require a lock restart. New "
                                 "80000900.000000, previous 80000000.000000")));
    EXPECT_EQ(mLock->getBasic1HFrequency(), 80'000'900.0); // kept all the same
    mLog.clear();
    mLock->setBasic1HFrequency(80'001'800.1);
    EXPECT_TRUE(mLog.has(Severity::Info, "restarting the lock"));
    EXPECT_EQ(mLog.count(Severity::Info, "+notifyMagnetFrequencyHasBeenSet"), 1U);
}

TEST_F(LockQ47Test, ChoosesAPidSet) {
    EXPECT_EQ(mLock->getLockPIDSet(), 2);
    mLock->setLockPIDSet(1);
    EXPECT_EQ(mLock->getLockPIDSet(), 1);
    EXPECT_TRUE(mLog.has(Severity::Info, "+setLockPIDSet(pidSet = 1)"));
    EXPECT_TRUE(mLog.has(Severity::Info, "+notifyPIDSetChanged"));
    EXPECT_THAT(mHeard.heard(), Contains("pidset 1"));
    EXPECT_THAT(pushed("lock/pidset_index"), ElementsAre(1.0));
}

TEST_F(LockQ47Test, RefusesAnUnknownPidSetAndTellsNobody) {
    EXPECT_THAT([this] { mLock->setLockPIDSet(3); },
                ThrowsMessage<std::invalid_argument>("Unknown lock PID set"));
    EXPECT_EQ(mLock->getLockPIDSet(), 3);
    EXPECT_FALSE(mLog.has(Severity::Info, "+notifyPIDSetChanged"));
    EXPECT_THAT(mHeard.heard(), Not(Contains("pidset 3")));
    EXPECT_THAT(pushed("lock/pidset_index"), IsEmpty());
}

TEST_F(LockQ47Test, GuardsTheNestingOfParameterSets) {
    EXPECT_THAT([this] { mLock->endOfOneParameterSet(); },
                ThrowsMessage<std::runtime_error>("Not in a parameter set, cannot end one."));
    mLock->beginOfOneParameterSet();
    EXPECT_THAT([this] { mLock->beginOfOneParameterSet(); },
                ThrowsMessage<std::runtime_error>("Already in a parameter set, cannot begin another one"));
    mLock->cancelOfOneParameterSet(); // leaves it open
    mLock->endOfOneParameterSet();
    mLock->beginOfOneParameterSet();
    EXPECT_THAT(
        ownLines(),
        ElementsAre(
            line(Severity::Debug, "endOfOneParameterSet"),
            line(Severity::Error, "endOfOneParameterSet: not in a parameter set, cannot end one"),
            line(Severity::Debug, "beginOfOneParameterSet"), line(Severity::Debug, "beginOfOneParameterSet"),
            line(Severity::Error,
                 "beginOfOneParameterSet: already in a parameter set, cannot begin another one"),
            line(Severity::Info, "cancelOfOneParameterSet: not yet implemented"),
            line(Severity::Debug, "endOfOneParameterSet"), line(Severity::Debug, "beginOfOneParameterSet")));
}

TEST_F(LockQ47Test, WordsTheRangeWarningWithTheFrequencyToSet) {
    mLock->setBasic1HFrequency(80'123'000.0);
    // The output's sign is 1 at first: 80.123 MHz less 4 kHz.
    EXPECT_EQ(mLock->lockDACRangeWarningMessage(),
              "The lock field exceeds 90% of the maximum range.\n"
              "The system stability will degrade if the lock field reaches 100%.\n"
              "To prevent this, please change the spectrometer frequency by -4 kHz, to 80.119 MHz.");
}

TEST_F(LockQ47Test, RefusesNoListener) {
    EXPECT_THAT(
        [this] { mLock->setListener(nullptr); },
        ThrowsMessage<std::invalid_argument>("setListener(nullptr): please use removeListener instead"));
    mLock->removeListener();
    mHeard.forget();
    mLock->setLockPIDSet(0);
    EXPECT_THAT(mHeard.heard(), Not(Contains("pidset 0")));
}

TEST_F(LockQ47Test, ReadsAllRegistersAndGoesOnPastOneThatIsBroken) {
    mHardware->registers.fidShift->hold(15);
    mHardware->registers.pidPTerm->failReads("no number");
    mHardware->registers.streamControl->hold(LockHardwareStreamControl::Sequencer);
    auto const registers = mLock->readRegisters();
    EXPECT_EQ(registers.size(), 78U);
    auto const find = [&](std::string const& aName) {
        return *std::find_if(registers.begin(), registers.end(),
                             [&](auto const& aRegister) { return aRegister.name == aName; });
    };
    EXPECT_EQ(find("data/fid_shift").value, "15");
    EXPECT_EQ(find("control/stream_control").value, "Sequencer (1)");
    EXPECT_TRUE(find("control/stream_control").readable);
    EXPECT_EQ(find("pid/p_term").value, "no number");
    EXPECT_FALSE(find("pid/p_term").readable);
}

TEST_F(LockQ47Test, SaysWhenADumpHasNotCome) {
    EXPECT_THROW(mLock->dumpSignal("x"), std::runtime_error);
    EXPECT_THROW(mLock->dumpSignal("a/b"), std::invalid_argument);
}

TEST_F(LockQ47Test, LeavesNothingBehind) {
    std::weak_ptr<FakeLockHardware> const hardware = mHardware;
    mLock->startLock();
    mLock.reset();
    mHardware.reset();
    EXPECT_TRUE(hardware.expired());
}

} // namespace
