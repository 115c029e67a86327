// SPDX-License-Identifier: Apache-2.0
// The mock lock: stored values, fixed answers, and real control files polled by a clock that moves by hand.
#include "lock/LockMock.h"

#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/LockInterfaceListener.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::ElementsAre;
using testing::ElementsAreArray;

/// Counts the calls of warningsChanged(); every other call is a failure.
class Listener : public LockInterfaceListener {
public:
    void error(std::string const& /*aText*/) override { ADD_FAILURE() << "error"; }
    void warningsChanged() override {
        ++changes;
        if (onChange) {
            onChange();
        }
    }
    void doing(std::string const& /*aText*/) override { ADD_FAILURE() << "doing"; }
    void state(int /*aState*/) override { ADD_FAILURE() << "state"; }
    void updateLockPIDSet(int /*aSet*/) override { ADD_FAILURE() << "updateLockPIDSet"; }
    void lost(int /*aStatus*/) override { ADD_FAILURE() << "lost"; }

    std::atomic<int> changes{0};
    std::function<void()> onChange;
};

class LockMockTest : public testing::Test {
protected:
    void make() {
        mLock = std::make_unique<LockMock>(mDirectory.path(), nullptr);
        mClock->awaitWaiters(1); // the first poll is over
    }
    /// Lets the second between two polls pass, and the poll.
    void nextPoll() {
        EXPECT_EQ(mClock->advanceToNextDeadline(), 1s);
        mClock->awaitWaiters(1);
    }
    std::filesystem::path warningsFile() const { return mDirectory.path() / "warnings"; }
    std::filesystem::path criticalWarningsFile() const { return mDirectory.path() / "critical_warnings"; }

    TemporaryDirectory mDirectory;
    LogCapture mLog;
    HandClockScope mClock;
    Listener mListener;
    std::unique_ptr<LockMock> mLock;
};

TEST_F(LockMockTest, StandsOutInTheLogAndThenPolls) {
    make();
    EXPECT_THAT(mLog.lines(),
                ElementsAre(CapturedLine{Severity::Critical, "USING MOCK VERSION OF THE LOCK", {}, {}},
                            CapturedLine{Severity::Info, "+pollCtrlFiles", {}, {}},
                            CapturedLine{Severity::Info, "-pollCtrlFiles", {}, {}}));
    EXPECT_EQ(mLog.lines()[0].name, "LockMock");
    EXPECT_EQ(mLog.lines()[0].category, "Lock");
}

TEST_F(LockMockTest, StoresWarningsThatAreThereAtTheStartWithoutTellingALaterListener) {
    writeFile(warningsFile(), "magnet warm");
    make();
    EXPECT_EQ(mLock->warnings(), "magnet warm");
    mLock->setListener(&mListener);
    nextPoll();
    EXPECT_EQ(mListener.changes, 0);
    writeFile(warningsFile(), "magnet cold");
    nextPoll();
    EXPECT_EQ(mListener.changes, 1);
}

TEST_F(LockMockTest, TellsAChangeOfTheWarnings) {
    make();
    mLock->setListener(&mListener);
    mLog.clear();
    writeFile(warningsFile(), "overheat\n");
    nextPoll();
    EXPECT_EQ(mListener.changes, 1);
    EXPECT_THAT(mLog.lines(),
                ElementsAre(CapturedLine{Severity::Info, "+pollCtrlFiles", {}, {}},
                            CapturedLine{Severity::Info, "Warnings changing to 'overheat\n'", {}, {}},
                            CapturedLine{Severity::Info, "Listener warningsChanged()", {}, {}},
                            CapturedLine{Severity::Info, "-pollCtrlFiles", {}, {}}));
    EXPECT_EQ(mLock->warnings(), "overheat\n"); // the newline is part of the text
    EXPECT_EQ(mLock->criticalWarnings(), "");
}

TEST_F(LockMockTest, TellsAChangeOfTheCriticalWarningsByTheSameCall) {
    make();
    mLock->setListener(&mListener);
    mLog.clear();
    writeFile(criticalWarningsFile(), "quench");
    nextPoll();
    EXPECT_EQ(mListener.changes, 1);
    EXPECT_TRUE(mLog.has(Severity::Info, "Critical warnings chaning to 'quench'"));
    EXPECT_EQ(mLock->criticalWarnings(), "quench");
}

TEST_F(LockMockTest, TellsOnceForEachFileWhenBothChange) {
    make();
    mLock->setListener(&mListener);
    writeFile(warningsFile(), "a");
    writeFile(criticalWarningsFile(), "b");
    nextPoll();
    EXPECT_EQ(mListener.changes, 2);
}

TEST_F(LockMockTest, TellsNothingWhenTheSameTextIsWrittenAgain) {
    writeFile(warningsFile(), "same");
    make();
    mLock->setListener(&mListener);
    writeFile(warningsFile(), "same");
    nextPoll();
    EXPECT_EQ(mListener.changes, 0);
}

TEST_F(LockMockTest, TellsARemovedFileOnceAsAnEmptyText) {
    writeFile(warningsFile(), "text");
    make();
    mLock->setListener(&mListener);
    std::filesystem::remove(warningsFile());
    nextPoll();
    nextPoll();
    EXPECT_EQ(mListener.changes, 1);
    EXPECT_EQ(mLock->warnings(), "");
    EXPECT_TRUE(mLog.has(Severity::Info, "Warnings changing to ''"));
}

TEST_F(LockMockTest, StoresAndLogsAChangeWithoutAListener) {
    make();
    writeFile(warningsFile(), "alone");
    nextPoll();
    EXPECT_EQ(mLock->warnings(), "alone");
    EXPECT_FALSE(mLog.has(Severity::Info, "Listener warningsChanged()"));
}

TEST_F(LockMockTest, CallsNobodyAfterTheListenerWasRemovedOrSetToNull) {
    make();
    mLock->setListener(&mListener);
    mLock->removeListener();
    writeFile(warningsFile(), "one");
    nextPoll();
    mLock->setListener(&mListener);
    mLock->setListener(nullptr);
    writeFile(warningsFile(), "two");
    nextPoll();
    EXPECT_EQ(mListener.changes, 0);
}

TEST_F(LockMockTest, GoesOnAfterAListenerThatThrowsAndDoesNotRepeatTheCall) {
    make();
    mLock->setListener(&mListener);
    mListener.onChange = [] { throw std::runtime_error("daemon trouble"); };
    writeFile(warningsFile(), "text");
    nextPoll();
    EXPECT_TRUE(mLog.has(Severity::Error, "Some error while polling control files"));
    EXPECT_FALSE(mLog.lines().back().text == "-pollCtrlFiles");
    nextPoll();
    EXPECT_EQ(mListener.changes, 1);
    EXPECT_EQ(mLock->warnings(), "text");
}

TEST_F(LockMockTest, LetsTheListenerAskForTheTexts) {
    make();
    std::string heard;
    mListener.onChange = [&] { heard = mLock->warnings(); };
    mLock->setListener(&mListener);
    writeFile(warningsFile(), "text");
    nextPoll();
    EXPECT_EQ(heard, "text");
}

TEST_F(LockMockTest, TakesAFolderOrAPipeInTheFilesPlaceForAnEmptyText) {
    std::filesystem::create_directory(warningsFile());
    ASSERT_EQ(mkfifo(criticalWarningsFile().c_str(), 0600), 0);
    make();
    EXPECT_EQ(mLock->warnings(), "");
    EXPECT_EQ(mLock->criticalWarnings(), "");
    EXPECT_TRUE(mLog.linesUpTo(Severity::Warning).size() == 1U); // the word that this is a mock
}

TEST_F(LockMockTest, TakesAHugeBinaryFileWhole) {
    std::string huge;
    huge.resize(100'000'000);
    huge[12345] = '\xff';
    writeFile(warningsFile(), huge);
    make();
    EXPECT_TRUE(mLock->warnings() == huge);
}

TEST_F(LockMockTest, PollsAMissingFolder) {
    std::filesystem::remove_all(mDirectory.path());
    make();
    EXPECT_EQ(mLock->warnings(), "");
    writeFile(warningsFile(), "came later");
    nextPoll();
    EXPECT_EQ(mLock->warnings(), "came later");
}

TEST_F(LockMockTest, EndsAtOnceInTheMiddleOfItsSecond) {
    make();
    auto const begin = mClock->now();
    mLock.reset(); // A thread that sat its second out would never end: time does not move.
    EXPECT_EQ(mClock->now(), begin);
}

TEST_F(LockMockTest, GivesItsFixedAnswers) {
    make();
    EXPECT_TRUE(mLock->getLock());
    EXPECT_TRUE(mLock->get19FOptionAvailable());
    EXPECT_FALSE(mLock->getLockLost());
    EXPECT_FALSE(mLock->getH0PolarityInverse());
    EXPECT_EQ(mLock->getAutoLockBehavior(), 0);
    EXPECT_EQ(mLock->getLockLevel(), 0.0);
    EXPECT_EQ(mLock->getEffectiveField(), 0.0);
    EXPECT_EQ(mLock->getLockDC(), 0.0);
    EXPECT_EQ(mLock->getMagnetField(), 42.0F);
    EXPECT_EQ(mLock->getLockConfiguration(), "1L");
    EXPECT_EQ(mLock->getSubstanceValueRange(), "19F=0");
}

TEST_F(LockMockTest, GivesBackWhatWasSet) {
    make();
    struct Pair {
        void (LockInterface::*set)(double);
        double (LockInterface::*get)();
    };
    LockInterface& lock = *mLock;
    for (Pair const pair : {Pair{&LockInterface::setLockField, &LockInterface::getLockField},
                            Pair{&LockInterface::setLockShift, &LockInterface::getLockShift},
                            Pair{&LockInterface::setLoopGain, &LockInterface::getLoopGain},
                            Pair{&LockInterface::setLoopTime, &LockInterface::getLoopTime},
                            Pair{&LockInterface::setLoopFilter, &LockInterface::getLoopFilter},
                            Pair{&LockInterface::setLockPhase, &LockInterface::getLockPhase},
                            Pair{&LockInterface::setLockPower, &LockInterface::getLockPower},
                            Pair{&LockInterface::setLockGain, &LockInterface::getLockGain},
                            Pair{&LockInterface::setLockInPowerStep, &LockInterface::getLockInPowerStep},
                            Pair{&LockInterface::setBasic1HFrequency, &LockInterface::getBasic1HFrequency}}) {
        EXPECT_EQ((lock.*pair.get)(), 0.0);
        (lock.*pair.set)(-1.5e300); // nothing is validated
        EXPECT_EQ((lock.*pair.get)(), -1.5e300);
    }
    lock.setLockMute(true);
    EXPECT_TRUE(lock.getLockMute());
    lock.setLockSubstance(-7);
    EXPECT_EQ(lock.getLockSubstance(), -7);
    lock.setAdditionalLockPeaks(9);
    EXPECT_EQ(lock.getAdditionalLockPeaks(), 9);
}

TEST_F(LockMockTest, TellsNobodyOfASetValue) {
    make();
    mLock->setListener(&mListener);
    mLock->setLockPIDSet(3);
    EXPECT_EQ(mLock->getLockPIDSet(), 3); // the listener fails on updateLockPIDSet()
}

TEST_F(LockMockTest, LogsEveryOperationByItsName) {
    make();
    mLog.clear();
    LockInterface& lock = *mLock;
    lock.getLock();
    lock.startLock();
    lock.stopLock();
    lock.holdLock();
    lock.setBasic1HFrequency(1.0);
    lock.getBasic1HFrequency();
    lock.getMagnetField();
    lock.beginOfOneParameterSet();
    lock.endOfOneParameterSet();
    lock.cancelOfOneParameterSet();
    lock.getLockConfiguration();
    lock.get19FOptionAvailable();
    lock.getLockSubstance();
    lock.setLockSubstance(1);
    lock.getLockInPowerStep();
    lock.setLockInPowerStep(1.0);
    lock.getEffectiveField();
    lock.getSubstanceValueRange();
    lock.getH0PolarityInverse();
    lock.getLockMute();
    lock.setLockMute(true);
    lock.getLockField();
    lock.setLockField(1.0);
    lock.getLockDC();
    lock.getLockShift();
    lock.setLockShift(1.0);
    lock.getLoopGain();
    lock.setLoopGain(1.0);
    lock.getLoopTime();
    lock.setLoopTime(1.0);
    lock.getLoopFilter();
    lock.setLoopFilter(1.0);
    lock.getLockLost();
    lock.getLockPhase();
    lock.setLockPhase(1.0);
    lock.getLockPower();
    lock.setLockPower(1.0);
    lock.getLockGain();
    lock.setLockGain(1.0);
    lock.getLockPIDSet();
    lock.setLockPIDSet(1);
    lock.getLockLevel();
    lock.getAutoLockBehavior();
    lock.getAdditionalLockPeaks();
    lock.setAdditionalLockPeaks(1);
    lock.setListener(nullptr);
    lock.removeListener();
    (void)lock.warnings();
    (void)lock.criticalWarnings();
    lock.resetLockLost();

    std::vector<CapturedLine> expected;
    for (char const* const name : {"getLock",
                                   "startLock",
                                   "stopLock",
                                   "holdLock",
                                   "setBasic1HFrequency",
                                   "getBasic1HFrequency",
                                   "getMagnetField",
                                   "beginOfOneParameterSet",
                                   "endOfOneParameterSet",
                                   "cancelOfOneParameterSet",
                                   "getLockConfiguration",
                                   "get19FOptionAvailable",
                                   "getLockSubstance",
                                   "setLockSubstance",
                                   "getLockInPowerStep",
                                   "setLockInPowerStep",
                                   "getEffectiveField",
                                   "getSubstanceValueRange",
                                   "getH0PolarityInverse",
                                   "getLockMute",
                                   "setLockMute",
                                   "getLockField",
                                   "setLockField",
                                   "getLockDC",
                                   "getLockShift",
                                   "setLockShift",
                                   "getLoopGain",
                                   "setLoopGain",
                                   "getLoopTime",
                                   "setLoopTime",
                                   "getLoopFilter",
                                   "setLoopFilter",
                                   "getLockLost",
                                   "getLockPhase",
                                   "setLockPhase",
                                   "getLockPower",
                                   "setLockPower",
                                   "getLockGain",
                                   "setLockGain",
                                   "getLockPIDSet",
                                   "setLockPIDSet",
                                   "getLockLevel",
                                   "getAutoLockBehavior",
                                   "getAdditionalLockPeaks",
                                   "setAdditionalLockPeaks",
                                   "setListener",
                                   "removeListener",
                                   "warnings",
                                   "criticalWarnings",
                                   "resetLockLost"}) {
        expected.push_back({Severity::Info, std::string("+") + name, {}, {}});
    }
    ASSERT_EQ(expected.size(), 50U);
    EXPECT_THAT(mLog.lines(), ElementsAreArray(expected));
}

} // namespace
