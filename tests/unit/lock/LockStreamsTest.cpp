// SPDX-License-Identifier: Apache-2.0
// The supervision of the running lock: locked, lost, the output's range, silence, and the dumps.
#include "lock/LockStreams.h"

#include "lock/LockFSM.h"
#include "lock/LockListenerSync.h"
#include "lock/LockParameters.h"
#include "lock/LockShimTargetTemperatureRegulatorIfc.h"
#include "lock/hardware/LockPIDDataStream.h"
#include "lock/hardware/LockPIDStreamIfc.h"
#include "lock/hardware/LockStreamPIDData.h"
#include "lock/hardware/PidRecord.h"
#include "support/Eventually.h"
#include "support/FakeBackend.h"
#include "support/FakeDataLogger.h"
#include "support/FakeLockHardware.h"
#include "support/FakePeriodicCallers.h"
#include "support/FakeStreamDevice.h"
#include "support/FullDisk.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/ProcessResources.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/LockInternalNotifierIfc.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::eventually;
using libfieldwarden::test::FakeBackendScope;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::FakeLockHardware;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::FakeSeqlockDriver;
using libfieldwarden::test::FakeStream;
using libfieldwarden::test::FullDisk;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::ProcessResources;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ThrowsMessage;

namespace {

constexpr double kThreshold = 4800000.0; ///< The default of the parameters.

CapturedLine line(Severity aSeverity, std::string aText) {
    return {aSeverity, std::move(aText), {}, {}};
}

/// Everything that is heard and called, in one order. Any thread.
class Journal {
public:
    void add(std::string aWhat) {
        std::lock_guard const lock(mMutex);
        mLines.push_back(std::move(aWhat));
    }
    std::vector<std::string> take() {
        std::lock_guard const lock(mMutex);
        return std::exchange(mLines, {});
    }

private:
    std::mutex mMutex;
    std::vector<std::string> mLines;
};

class Listener : public LockInterfaceListener {
public:
    explicit Listener(Journal& aJournal)
        : mJournal(aJournal) {}
    void error(std::string const& aText) override { mJournal.add("error " + aText); }
    void warningsChanged() override { mJournal.add("warningsChanged"); }
    void doing(std::string const& aText) override { mJournal.add("doing " + aText); }
    void state(int aStatus) override { mJournal.add("state " + std::to_string(aStatus)); }
    void updateLockPIDSet(int aPIDSet) override { mJournal.add("pidset " + std::to_string(aPIDSet)); }
    void lost(int aStatus) override { mJournal.add("lost " + std::to_string(aStatus)); }

private:
    Journal& mJournal;
};

class Regulator : public LockShimTargetTemperatureRegulatorIfc {
public:
    explicit Regulator(Journal& aJournal)
        : mJournal(aJournal) {}
    void start() override { mJournal.add("regulator start"); }
    void stop() override { mJournal.add("regulator stop"); }
    void pause() override { mJournal.add("regulator pause"); }
    void pushLockPIDDataOut(int aPidDataOut) override {
        last = aPidDataOut;
        if (fails) {
            throw std::runtime_error("no board");
        }
    }
    bool armed() const override { return false; }

    std::atomic<int> last{0};
    std::atomic<bool> fails{false};

private:
    Journal& mJournal;
};

/// A PID stream that a test feeds, one record or time-out at a time.
class FakePIDStream : public LockPIDStreamIfc {
public:
    explicit FakePIDStream(Journal& aJournal)
        : mJournal(aJournal) {}

    void start() override {
        mJournal.add("stream start");
        if (fails) {
            throw std::runtime_error("no stream");
        }
        std::lock_guard const lock(mMutex);
        mWake = false;
        mCalls = 0;
    }
    void stop() override {
        mJournal.add("stream stop");
        {
            std::lock_guard const lock(mMutex);
            mWake = true;
        }
        mNews.notify_all();
        if (failsToStop) {
            throw std::runtime_error("no end");
        }
    }
    bool dequeueWait(std::unique_ptr<LockStreamPIDData>& aOut,
                     std::chrono::duration<double> aTimeout) override {
        EXPECT_EQ(aTimeout.count(), 1.0);
        std::unique_lock lock(mMutex);
        ++mCalls;
        mAsked.notify_all();
        mNews.wait(lock, [this] { return mWake || !mItems.empty(); });
        if (mItems.empty()) {
            return false;
        }
        aOut = std::move(mItems.front());
        mItems.pop_front();
        return aOut != nullptr;
    }

    bool empty() {
        std::lock_guard const lock(mMutex);
        return mItems.empty();
    }

    /// Delivers a record and waits until it has been worked off.
    void feed(long long aIn, int aOut = 0, unsigned short aSlice = 0, double aPhase = 0.0) {
        deliver(std::make_unique<LockStreamPIDData>(aSlice, aOut, aIn, aPhase));
    }
    /// Lets a second pass without a record.
    void timeOut() { deliver(nullptr); }

    /// The same, where the thread ends with it.
    void timeOutForTheLastTime() { put(nullptr); }
    void feedForTheLastTime(long long aIn) { put(std::make_unique<LockStreamPIDData>(0, 0, aIn, 0.0)); }

    std::atomic<bool> fails{false};
    std::atomic<bool> failsToStop{false};

private:
    void put(std::unique_ptr<LockStreamPIDData> aItem) {
        {
            std::lock_guard const lock(mMutex);
            mItems.push_back(std::move(aItem));
        }
        mNews.notify_all();
    }
    void deliver(std::unique_ptr<LockStreamPIDData> aItem) {
        std::unique_lock lock(mMutex);
        mAsked.wait(lock, [this] { return mCalls > 0; });
        unsigned const before = mCalls;
        mItems.push_back(std::move(aItem));
        mNews.notify_all();
        mAsked.wait_for(lock, seconds(20), [&] { return mCalls > before; });
    }

    Journal& mJournal;
    std::mutex mMutex;
    std::condition_variable mNews;
    std::condition_variable mAsked;
    std::deque<std::unique_ptr<LockStreamPIDData>> mItems;
    bool mWake = false;
    unsigned mCalls = 0;
};

class Notifier : public LockInternalNotifierIfc {
public:
    explicit Notifier(Journal& aJournal)
        : mJournal(aJournal) {}
    void notifyHardwareError() override { mJournal.add("hardware error"); }

private:
    Journal& mJournal;
};

class LockStreamsTest : public testing::Test {
protected:
    LockStreamsTest() {
        mBackend->seqlockDriverDoor = [this] { return mDriver; };
        mBackend->instrumentPathDoor = [this](std::filesystem::path const& aPath) {
            return mFolder.path() / aPath.relative_path();
        };
        mListener->setListener(&mHeard);
        make();
        mJournal.take();
        mLog.clear();
    }
    ~LockStreamsTest() override { mStreams.reset(); }

    void make() {
        mStreams = std::make_unique<LockStreams>(mHardware, mStream, mListener, mParameters, mRegulator,
                                                 mDataLogger, mPeriodic);
    }

    /// Starts, and forgets what was heard of it.
    void start() {
        mStreams->start();
        mJournal.take();
    }
    /// Feeds records of one input.
    void feed(int aCount, long long aIn) {
        for (int record = 0; record < aCount; ++record) {
            mStream->feed(aIn);
        }
    }

    Journal mJournal;
    FakeBackendScope mBackend;
    HandClockScope mClock; // behind the backend, which brings a clock of its own
    LogCapture mLog;
    TemporaryDirectory mFolder;
    std::shared_ptr<FakeSeqlockDriver> mDriver = std::make_shared<FakeSeqlockDriver>();
    std::shared_ptr<FakeLockHardware> mHardware = std::make_shared<FakeLockHardware>();
    std::shared_ptr<FakePIDStream> mStream = std::make_shared<FakePIDStream>(mJournal);
    Listener mHeard{mJournal};
    std::shared_ptr<LockListenerSync> mListener = std::make_shared<LockListenerSync>();
    std::shared_ptr<LockParameters> mParameters =
        std::make_shared<LockParameters>((mFolder.path() / "lock.config").string());
    std::shared_ptr<Regulator> mRegulator = std::make_shared<Regulator>(mJournal);
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<FakePeriodicCallers> mPeriodic = std::make_shared<FakePeriodicCallers>();
    std::unique_ptr<LockStreams> mStreams;
};

// ------------------------------------------------------------------------------------------------ lifecycle

TEST_F(LockStreamsTest, MakesItsChannelsInTheirOrder) {
    std::vector<std::string> names;
    for (auto const& info : mDataLogger->infos()) {
        names.push_back(info.name() + ": " + info.description);
        EXPECT_EQ(static_cast<int>(info.unit), info.name() == "lock/locked" ? 35 : 16);
        EXPECT_EQ(static_cast<int>(info.storageType), 1);
        EXPECT_EQ(info.stats, velmor::kepla::datalogger::DataLoggerStats::none());
    }
    EXPECT_THAT(names, ElementsAre("lock/pid/phase: Computed phase of the lock FID",
                                   "lock/pid/max_slice: Position of the max slice in the FFT",
                                   "lock/pid/data_in: Value entering the hardware PID regulator",
                                   "lock/pid/data_out: Value going out of the PID regulator, to the DAC",
                                   "lock/locked: Locked state: 0 = not locked, 1 = locked"));
}

TEST_F(LockStreamsTest, MakesTheFolderOfTheDumpsWithAllItsParents) {
    EXPECT_TRUE(std::filesystem::is_directory(mFolder.path() / "var/log/q47lock/fft_td_dumps"));
    make();
    EXPECT_TRUE(mLog.has(Severity::Info, "FFT and TD dumps will be stored in /var/log/q47lock/fft_td_dumps"));
    EXPECT_EQ(mLog.linesOf("LockStreams").front().category, "Lock");
}

TEST_F(LockStreamsTest, CannotBeMadeWhereTheFolderCannot) {
    std::filesystem::remove_all(mFolder.path() / "var");
    writeFile(mFolder.path() / "var", "in the way");
    EXPECT_THROW(make(), std::filesystem::filesystem_error);
}

TEST_F(LockStreamsTest, BeginsUnlockedAndQuiet) {
    EXPECT_FALSE(mStreams->locked());
    EXPECT_FALSE(mStreams->pidDataTimedOut());
    EXPECT_EQ(mStreams->outputDACSign(), 1);
    EXPECT_EQ(mStreams->outputRangeWarning(), 0);
    EXPECT_EQ(mStreams->lostMgr()->state(), 0);
}

TEST_F(LockStreamsTest, StartsStreamDumpsAndRegularDumps) {
    mStreams->start();
    EXPECT_THAT(mJournal.take(), ElementsAre("stream start"));
    EXPECT_THAT(mHardware->takeActions(), ElementsAre("set log/time_domain_src = 1"));
    ASSERT_EQ(mPeriodic->jobs().size(), 1U);
    EXPECT_EQ(mPeriodic->jobs().front()->periodSeconds, 5.0);
    EXPECT_TRUE(eventually([this] {
        return mLog.has(Severity::Info, "+dumpFFT(name = 'onstart'):") &&
               mLog.has(Severity::Info, "+dumpFID(name = 'onstart'):") &&
               mLog.has(Severity::Info, "pidStreamThread started");
    }));
    EXPECT_TRUE(mLog.has(Severity::Info, "starting the lock data streams"));
    EXPECT_TRUE(mLog.has(Severity::Debug, "+startPIDStream"));
    mPeriodic->jobs().front()->call();
    EXPECT_TRUE(mLog.has(Severity::Info, "+dumpFFT(name = 'regular'):"));
    EXPECT_TRUE(mLog.has(Severity::Info, "+dumpFID(name = 'regular'):"));
}

TEST_F(LockStreamsTest, OnlyWarnsWhenItIsStartedTwice) {
    start();
    mLog.clear();
    mStreams->start();
    EXPECT_TRUE(
        mLog.has(Severity::Warning, "already started, cannot restart it, consider everything is fine?!"));
    EXPECT_THAT(mJournal.take(), IsEmpty());
    EXPECT_EQ(mPeriodic->jobs().size(), 1U);
}

TEST_F(LockStreamsTest, StopsEverythingAndTellsTheListener) {
    start();
    mLog.clear();
    mStreams->stop();
    EXPECT_THAT(mJournal.take(),
                ElementsAre("regulator stop", "regulator stop", "stream stop", "state 0", "doing stopped"));
    EXPECT_THAT(mPeriodic->jobs(), IsEmpty());
    EXPECT_EQ(mDataLogger->pushes("lock/locked").back().value, 0.0);
    EXPECT_TRUE(mLog.has(Severity::Info, "stopping the lock data streams"));
    EXPECT_TRUE(mLog.has(Severity::Debug, "+stopPIDStream"));
    EXPECT_TRUE(mLog.has(Severity::Info, "pidStreamThread stopped"));
    for (CapturedLine const& each : mLog.linesOf("LockStreams")) {
        EXPECT_GE(each.severity, Severity::Info) << each.text; // being woken is no time-out
    }
}

TEST_F(LockStreamsTest, StopsWhatWasNeverStarted) {
    mStreams->stop();
    EXPECT_THAT(mJournal.take(),
                ElementsAre("regulator stop", "regulator stop", "stream stop", "state 0", "doing stopped"));
}

TEST_F(LockStreamsTest, StartsAnewAfterAStop) {
    start();
    feed(50, 0);
    mStreams->stop();
    EXPECT_FALSE(mStreams->locked());
    start();
    feed(49, 0);
    EXPECT_FALSE(mStreams->locked());
    feed(1, 0);
    EXPECT_TRUE(mStreams->locked());
}

TEST_F(LockStreamsTest, HandsOnThatTheStreamCannotBeStarted) {
    mStream->fails = true;
    EXPECT_THAT([this] { mStreams->start(); }, ThrowsMessage<std::runtime_error>("no stream"));
    EXPECT_THAT(mJournal.take(), ElementsAre("stream start"));
    EXPECT_THAT(mHardware->takeActions(), IsEmpty());
    EXPECT_THAT(mPeriodic->jobs(), IsEmpty());
    EXPECT_THROW(mStreams->start(), std::runtime_error);
    mStream->fails = false;
    start(); // There is no stop behind a start that failed.
    feed(50, 0);
    EXPECT_TRUE(mStreams->locked());
    EXPECT_FALSE(
        mLog.has(Severity::Warning, "already started, cannot restart it, consider everything is fine?!"));
    EXPECT_EQ(mPeriodic->jobs().size(), 1U);
}

TEST_F(LockStreamsTest, EndsTheStreamWhenTheRestOfTheStartFails) {
    mHardware->registers.timeDomainSrc->onWrite(
        [](bool /*aOn*/) { throw std::runtime_error("no register"); });
    EXPECT_THAT([this] { mStreams->start(); }, ThrowsMessage<std::runtime_error>("no register"));
    EXPECT_THAT(mJournal.take(), ElementsAre("stream start", "stream stop")); // the listener hears nothing
    EXPECT_TRUE(mLog.has(Severity::Info, "pidStreamThread stopped"));
    EXPECT_FALSE(mLog.has(Severity::Info, "+dumpFFT(name = 'onstart'):"));
    mHardware->registers.timeDomainSrc->onWrite(nullptr);
    start();
    feed(50, 0);
    EXPECT_TRUE(mStreams->locked());
}

TEST_F(LockStreamsTest, EndsTheStreamWhenThereIsNobodyForTheRegularDumps) {
    struct Refusing : velmor::kepla::utils::PeriodicCallerManagerIfc {
        std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> createPeriodicCaller(
            double /*aPeriodSeconds*/, std::function<void()> /*aCallback*/) override {
            throw std::runtime_error("no time");
        }
    };
    LockStreams streams(mHardware, mStream, mListener, mParameters, mRegulator, mDataLogger,
                        std::make_shared<Refusing>());
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_THAT([&] { streams.start(); }, ThrowsMessage<std::runtime_error>("no time"));
        EXPECT_THAT(mJournal.take(), ElementsAre("stream start", "stream stop"));
    }
}

TEST_F(LockStreamsTest, HandsOnWhyTheStartFailedThoughTheStreamDoesNotEndEither) {
    mHardware->registers.timeDomainSrc->onWrite(
        [](bool /*aOn*/) { throw std::runtime_error("no register"); });
    mStream->failsToStop = true;
    EXPECT_THAT([this] { mStreams->start(); }, ThrowsMessage<std::runtime_error>("no register"));
    EXPECT_TRUE(mLog.has(Severity::Error, "Failed to stop the PID stream: no end"));
    mStream->failsToStop = false;
}

TEST_F(LockStreamsTest, EndsTheSupervisionThoughTheStreamDoesNotStop) {
    start();
    feed(50, 0);
    mStream->failsToStop = true;
    EXPECT_THAT([this] { mStreams->stop(); }, ThrowsMessage<std::runtime_error>("no end"));
    EXPECT_TRUE(mLog.has(Severity::Info, "pidStreamThread stopped"));
    EXPECT_FALSE(mStreams->locked());
    EXPECT_EQ(mDataLogger->pushes("lock/locked").back().value, 0.0);
    mStream->failsToStop = false;
    start();
    feed(50, 0);
    EXPECT_TRUE(mStreams->locked());
}

TEST_F(LockStreamsTest, EndsAllThreadsThoughItWasNeverStopped) {
    mStreams.reset();
    auto const before = ProcessResources::now();
    for (int round = 0; round < 5; ++round) {
        make();
        mStreams->start();
        mStreams.reset();
        EXPECT_THAT(mPeriodic->jobs(), IsEmpty());
    }
    EXPECT_TRUE(ProcessResources::settledTo(before).isNotAbove(before));
}

// --------------------------------------------------------------------------------------------------- locked

TEST_F(LockStreamsTest, IsLockedWithTheFiftiethGoodMean) {
    start();
    feed(49, 0);
    EXPECT_FALSE(mStreams->locked());
    EXPECT_THAT(mJournal.take(), IsEmpty());
    mLog.clear();
    feed(1, 0);
    EXPECT_TRUE(mStreams->locked());
    EXPECT_THAT(mJournal.take(), ElementsAre("state 1", "doing locked", "lost 2"));
    EXPECT_TRUE(mLog.has(Severity::Info, "Locked state changed to TRUE"));
    EXPECT_EQ(mDataLogger->pushes("lock/locked").back().value, 1.0);
    EXPECT_EQ(mStreams->lostMgr()->state(), 2);
    EXPECT_TRUE(eventually([this] { return mLog.has(Severity::Info, "+dumpFFT(name = 'lastlocked'):"); }));
}

TEST_F(LockStreamsTest, LosesTheLockWithTheFirstBadMean) {
    start();
    feed(100, 0); // the window is full now
    mJournal.take();
    mLog.clear();
    feed(1, 479999999); // 479,999,999 / 100 = 4,799,999.99: still inside
    EXPECT_TRUE(mStreams->locked());
    feed(1, 1); // 480,000,000 / 100 = 4,800,000: the threshold itself is outside
    EXPECT_FALSE(mStreams->locked());
    EXPECT_THAT(mJournal.take(), ElementsAre("state 2", "doing trying to lock", "regulator pause", "lost 1"));
    EXPECT_TRUE(mLog.has(Severity::Info, "Locked state changed to FALSE"));
    EXPECT_EQ(mDataLogger->pushes("lock/locked").back().value, 0.0);
    EXPECT_TRUE(eventually([this] { return mLog.has(Severity::Info, "+dumpFFT(name = 'lastloss'):"); }));
}

TEST_F(LockStreamsTest, WantsFiftyGoodMeansAfterABadOne) {
    start();
    feed(100, 0);
    feed(1, 480000000);  // mean 4,800,000
    feed(1, -480000000); // mean 0
    mJournal.take();
    feed(48, 0);
    EXPECT_FALSE(mStreams->locked());
    feed(1, 0); // the fiftieth good one: -480,000,000 and 49 zeros
    EXPECT_TRUE(mStreams->locked());
    EXPECT_EQ(mStreams->lostMgr()->state(), 1); // until somebody takes note
}

TEST_F(LockStreamsTest, ComparesTheMeansOfBothSigns) {
    start();
    feed(60, static_cast<long long>(-kThreshold));
    EXPECT_FALSE(mStreams->locked());
    feed(49, static_cast<long long>(-kThreshold) + 1); // every mean with one of these is inside
    EXPECT_FALSE(mStreams->locked());
    feed(1, static_cast<long long>(-kThreshold) + 1);
    EXPECT_TRUE(mStreams->locked());
}

TEST_F(LockStreamsTest, AppliesANewThresholdAtOnce) {
    start();
    feed(60, 1000000);
    EXPECT_TRUE(mStreams->locked());
    auto const set = mParameters->pidSetByID(LockPIDSetID::Normal);
    mParameters->setComputedPIDThreshold(1000000.0, set, set, set);
    feed(1, 1000000);
    EXPECT_FALSE(mStreams->locked());
}

// ------------------------------------------------------------------------------------------------ regulator

TEST_F(LockStreamsTest, StartsTheRegulatorAfterFiveSecondsLocked) {
    start();
    feed(50, 0);
    mJournal.take();
    mClock->advance(milliseconds(4999));
    feed(1, 0);
    EXPECT_THAT(mJournal.take(), IsEmpty());
    mClock->advance(milliseconds(1));
    feed(2, 0);
    EXPECT_THAT(mJournal.take(), ElementsAre("regulator start")); // once
    EXPECT_TRUE(mLog.has(Severity::Info,
                         "locked for more than 5 seconds: starting shim target temperature regulator"));
}

TEST_F(LockStreamsTest, CountsTheFiveSecondsFromTheLastLock) {
    start();
    feed(100, 0);
    mClock->advance(seconds(3));
    feed(1, 480000000);
    feed(1, -480000000);
    feed(49, 0); // locked again
    mJournal.take();
    mClock->advance(seconds(3)); // 6 s after the first lock, 3 s after the second
    feed(1, 0);
    EXPECT_THAT(mJournal.take(), IsEmpty());
    mClock->advance(seconds(2));
    feed(1, 0);
    EXPECT_THAT(mJournal.take(), ElementsAre("regulator start"));
}

TEST_F(LockStreamsTest, FeedsTheRegulatorWithEveryOutput) {
    start();
    mStream->feed(0, -12345);
    EXPECT_EQ(mRegulator->last, -12345);
    EXPECT_EQ(mStreams->outputDACSign(), -1);
    mStream->feed(0, 0);
    EXPECT_EQ(mRegulator->last, 0);
    EXPECT_EQ(mStreams->outputDACSign(), 1);
}

TEST_F(LockStreamsTest, EndsTheThreadWhenTheRegulatorFails) {
    start();
    mRegulator->fails = true;
    mStream->feedForTheLastTime(0);
    EXPECT_TRUE(eventually([this] { return mLog.has(Severity::Info, "pidStreamThread stopped"); }));
    EXPECT_TRUE(mLog.has(Severity::Critical, "pidStreamThread failed with no board"));
    EXPECT_THAT(mJournal.take(), IsEmpty()); // nobody is told
    EXPECT_FALSE(mStreams->pidDataTimedOut());
    mRegulator->fails = false;
    mStream->feed(0, 5); // The stream goes on: its records are taken, and nothing is made of them.
    mStream->feed(0, 5);
    EXPECT_TRUE(mStream->empty());
    EXPECT_EQ(mRegulator->last, 0);
    mStreams->stop();
    start();
    mStream->feed(0, 17);
    EXPECT_EQ(mRegulator->last, 17);
}

// ------------------------------------------------------------------------------------------- the H0 output

TEST_F(LockStreamsTest, WarnsFromNinetyToEightyFivePercentOfTheRange) {
    start();
    mStream->feed(0, 7549745);
    EXPECT_EQ(mStreams->outputRangeWarning(), 0);
    mStream->feed(0, 7549746); // 0.9 * 8388607 = 7549746.3
    EXPECT_EQ(mStreams->outputRangeWarning(), 2);
    EXPECT_THAT(mJournal.take(), ElementsAre("warningsChanged"));
    EXPECT_TRUE(mLog.has(Severity::Info, "H0 output warning changes from 0 to: 2"));
    EXPECT_TRUE(mLog.has(Severity::Trace,
                         "checkH0DacRange: pidDataOut is 7549746, absolute is 7549746, warning "
                         "threshold is 7549746"));
    mStream->feed(0, -8388608);
    mStream->feed(0, -7130315); // 0.85 * 8388607 = 7130315.95
    EXPECT_EQ(mStreams->outputRangeWarning(), 2);
    EXPECT_THAT(mJournal.take(), IsEmpty());
    mStream->feed(0, 7130314);
    EXPECT_EQ(mStreams->outputRangeWarning(), 0);
    EXPECT_THAT(mJournal.take(), ElementsAre("warningsChanged"));
    EXPECT_TRUE(mLog.has(Severity::Info, "H0 output warning changes from 2 to: 0"));
    mStream->feed(0, 7500000);
    EXPECT_EQ(mStreams->outputRangeWarning(), 0);
    EXPECT_THAT(mJournal.take(), IsEmpty());
}

// ------------------------------------------------------------------------------------------ the data logger

TEST_F(LockStreamsTest, PushesTheRecordToTheDataLoggerOnceASecond) {
    start();
    mClock->advance(milliseconds(999));
    mStream->feed(1, 2, 3, 0.5);
    EXPECT_THAT(mDataLogger->pushes("lock/pid/data_in"), IsEmpty());
    mClock->advance(milliseconds(1));
    mStream->feed(-4000000000LL, -5, 258, -0.25);
    auto const time = mClock->systemNow();
    using Push = FakeDataLogger::Push;
    EXPECT_THAT(mDataLogger->pushes("lock/pid/data_in"), ElementsAre(Push{-4000000000.0, time}));
    EXPECT_THAT(mDataLogger->pushes("lock/pid/data_out"), ElementsAre(Push{-5.0, time}));
    EXPECT_THAT(mDataLogger->pushes("lock/pid/phase"), ElementsAre(Push{-0.25, time}));
    EXPECT_THAT(mDataLogger->pushes("lock/pid/max_slice"), ElementsAre(Push{258.0, time}));
    EXPECT_TRUE(mLog.has(Severity::Trace,
                         "pushed lock point to datalogger: PID data in -4000000000, PID data "
                         "out -5, max slice 258, phase -0.250000"));
    mClock->advance(milliseconds(999));
    mStream->feed(1);
    EXPECT_EQ(mDataLogger->pushes("lock/pid/data_in").size(), 1U);
}

// --------------------------------------------------------------------------------------------------- silence

TEST_F(LockStreamsTest, CallsSixtySilentSecondsAHardwareError) {
    mStreams->setInternalNotifier(std::make_shared<Notifier>(mJournal));
    start();
    for (int second = 1; second < 60; ++second) {
        mStream->timeOut();
        EXPECT_TRUE(mLog.has(Severity::Warning, "pidStreamThread: data in timeout, retry counter = " +
                                                    std::to_string(60 - second)));
    }
    EXPECT_FALSE(mStreams->pidDataTimedOut());
    mStream->timeOutForTheLastTime();
    EXPECT_TRUE(eventually([this] { return mLog.has(Severity::Info, "pidStreamThread stopped"); }));
    EXPECT_TRUE(mStreams->pidDataTimedOut());
    EXPECT_TRUE(mLog.has(Severity::Error, "pidStreamThread: data in timeout, no more retries"));
    EXPECT_THAT(mJournal.take(), ElementsAre("hardware error", "warningsChanged"));
    mStreams->stop(); // the thread has ended: returns at once
    EXPECT_TRUE(mStreams->pidDataTimedOut());
    start();
    EXPECT_FALSE(mStreams->pidDataTimedOut());
}

TEST_F(LockStreamsTest, CountsTheSilentSecondsAnewAfterARecord) {
    start();
    for (int second = 1; second < 60; ++second) {
        mStream->timeOut();
    }
    mStream->feed(0);
    mStream->timeOut();
    EXPECT_EQ(mLog.count(Severity::Warning, "pidStreamThread: data in timeout, retry counter = 59"), 2U);
    EXPECT_FALSE(mStreams->pidDataTimedOut());
}

TEST_F(LockStreamsTest, DoesWithoutANotifier) {
    mStreams->setInternalNotifier(std::make_shared<Notifier>(mJournal));
    mStreams->setInternalNotifier(nullptr);
    start();
    for (int second = 1; second < 60; ++second) {
        mStream->timeOut();
    }
    mStream->timeOutForTheLastTime();
    EXPECT_TRUE(eventually([this] { return mLog.has(Severity::Info, "pidStreamThread stopped"); }));
    EXPECT_THAT(mJournal.take(), ElementsAre("warningsChanged"));
}

TEST_F(LockStreamsTest, NeedsAStopBeforeItWatchesAgainBehindASilence) {
    start();
    feed(50, 0);
    for (int second = 1; second < 60; ++second) {
        mStream->timeOut();
    }
    mStream->timeOutForTheLastTime();
    EXPECT_TRUE(eventually([this] { return mLog.has(Severity::Info, "pidStreamThread stopped"); }));
    mJournal.take();
    mStreams->start(); // Intended: for a start alone, they still run.
    EXPECT_TRUE(
        mLog.has(Severity::Warning, "already started, cannot restart it, consider everything is fine?!"));
    EXPECT_THAT(mJournal.take(), IsEmpty());
    EXPECT_TRUE(mStreams->pidDataTimedOut());
    mStreams->stop();
    start();
    feed(50, 0);
    EXPECT_TRUE(mStreams->locked());
    EXPECT_FALSE(mStreams->pidDataTimedOut());
    // The latch begins where it was left: it was locked, and is not with the first record.
    EXPECT_THAT(mJournal.take(), ElementsAre("lost 1", "state 1", "doing locked"));
}

/// The supervision on the PID stream itself, second by second.
class LockStreamsSilence : public LockStreamsTest {
protected:
    LockStreamsSilence() {
        mDevice->onWait([](seconds /*aTimeout*/) { // so that a stop need not wait for the clock
            std::this_thread::yield();
            return 0;
        });
        mStreams.reset();
        mStreams = std::make_unique<LockStreams>(mHardware, std::make_shared<LockPIDDataStream>(mHardware),
                                                 mListener, mParameters, mRegulator, mDataLogger, mPeriodic);
        mStreams->setInternalNotifier(std::make_shared<Notifier>(mJournal));
        mStreams->start();
    }

    /// Delivers records of a lock that holds, all in one packet, and waits until they are worked off.
    void deliver(std::size_t aRecords) {
        mDevice->add(std::vector<unsigned char>(aRecords * libfieldwarden::lock::PidRecord::kSize));
        mDelivered += aRecords;
        EXPECT_TRUE(eventually(
            [this] { return mLog.count(Severity::Trace, "pidStreamThread: got data") == mDelivered; }));
        awaitAllThreads(); // The words come before the work.
    }
    void deliverUntilLocked() {
        deliver(50);
        EXPECT_TRUE(eventually([this] { return mStreams->locked() && mStreams->lostMgr()->state() == 2; }));
        mJournal.take();
    }
    /// Waits until each thread waits for its next second: the supervision's, and the two of the dumps.
    void awaitAllThreads() { mClock->awaitWaiters(3); }
    /// Nothing comes for some seconds; every thread has its turn in each.
    void beSilent(int aSeconds) {
        for (int second = 0; second < aSeconds; ++second) {
            awaitAllThreads();
            mClock->advance(seconds(1));
        }
        awaitAllThreads();
    }

    std::shared_ptr<FakeStream> mDevice = mDriver->stream("/dev/lock_dma_pid");
    std::size_t mDelivered = 0;
};

TEST_F(LockStreamsSilence, IsSurvivedFor59SecondsWithoutAWord) {
    deliverUntilLocked();
    beSilent(59);
    deliver(1);
    EXPECT_TRUE(mStreams->locked());
    EXPECT_FALSE(mStreams->pidDataTimedOut());
    EXPECT_THAT(mJournal.take(), ElementsAre("regulator start")); // locked all the time
    EXPECT_EQ(mLog.count(Severity::Warning, "pidStreamThread: data in timeout, retry counter = 1"), 1U);
    beSilent(59); // The next silence is counted from its own beginning.
    deliver(1);
    EXPECT_TRUE(mStreams->locked());
    EXPECT_THAT(mJournal.take(), IsEmpty());
}

TEST_F(LockStreamsSilence, IsAHardwareErrorWithThe60thSecondAndNotBefore) {
    deliverUntilLocked();
    beSilent(59);
    mClock->advance(milliseconds(999));
    EXPECT_THAT(mJournal.take(), IsEmpty());
    EXPECT_FALSE(mStreams->pidDataTimedOut());
    mClock->advance(milliseconds(1));
    EXPECT_TRUE(eventually([this] { return mLog.has(Severity::Info, "pidStreamThread stopped"); }));
    EXPECT_TRUE(mStreams->pidDataTimedOut());
    EXPECT_THAT(mJournal.take(), ElementsAre("hardware error", "warningsChanged"));
    mClock->advance(seconds(1)); // 61 s: it has been said
    EXPECT_THAT(mJournal.take(), IsEmpty());
    EXPECT_EQ(mLog.count(Severity::Error, "pidStreamThread: data in timeout, no more retries"), 1U);

    mStreams->stop();
    EXPECT_THAT(mJournal.take(), ElementsAre("regulator stop", "regulator stop", "state 0", "doing stopped"));
    mStreams->start();
    EXPECT_FALSE(mStreams->pidDataTimedOut());
    deliver(50);
    EXPECT_TRUE(eventually([this] { return mStreams->locked(); }));
}

// ---------------------------------------------------------------------------------------- the state machine

/// Workflows that only work, and streams as the machine sees them.
struct Idle : libfieldwarden::lock::StartAndStopIfc {
    void start() override {}
    void stop() override {}
};
struct Watching : libfieldwarden::lock::StartAndStopIfc {
    explicit Watching(LockStreams& aStreams)
        : streams(aStreams) {}
    void start() override { streams.start(); }
    void stop() override { streams.stop(); }
    LockStreams& streams;
};

/// The machine with these streams, and no sequencer to set up.
class Machine : public LockFSM {
public:
    Machine(LockStreams& aStreams,
            std::shared_ptr<LockParametersInterface> const& aParameters,
            std::shared_ptr<LockListenerSync> aListener)
        : Logger("LockFSM", "Lock")
        , LockFSM(
              std::make_shared<Idle>(),
              std::make_shared<Watching>(aStreams),
              aParameters,
              std::move(aListener),
              [] {},
              false) {}
};

TEST_F(LockStreamsTest, SupervisesTheStartBehindOneWhoseStreamFailed) {
    auto const device = mDriver->stream("/dev/lock_dma_pid");
    device->onWait([](seconds /*aTimeout*/) {
        std::this_thread::yield();
        return 0;
    });
    mStreams.reset();
    mStreams = std::make_unique<LockStreams>(mHardware, std::make_shared<LockPIDDataStream>(mHardware),
                                             mListener, mParameters, mRegulator, mDataLogger, mPeriodic);
    mParameters->setMagnet1HFrequency(80e6);
    std::vector<std::string> heard;
    auto const hears = [&](std::string const& aWhat) {
        return eventually([&] {
            auto const news = mJournal.take();
            heard.insert(heard.end(), news.begin(), news.end());
            return std::find(heard.begin(), heard.end(), aWhat) != heard.end();
        });
    };
    Machine machine(*mStreams, mParameters, mListener);
    EXPECT_TRUE(hears("doing stopped"));

    device->add({1});
    device->fail(FakeStream::Fault::NextPacket, EIO);
    heard.clear();
    machine.start();
    EXPECT_TRUE(hears("doing stopped"));
    EXPECT_THAT(heard, ElementsAre("doing Starting the lock", "state 2", "doing starting", "state 6",
                                   "error Could not start the lock: Could not flush data", "state 0",
                                   "doing stopped"));

    device->fail(FakeStream::Fault::NextPacket, 0);
    heard.clear();
    mLog.clear();
    machine.start();
    EXPECT_TRUE(hears("doing lock is regulating, not yet locked"));
    device->add(std::vector<unsigned char>(50 * libfieldwarden::lock::PidRecord::kSize));
    EXPECT_TRUE(hears("doing locked"));
    EXPECT_TRUE(mStreams->locked());
    EXPECT_FALSE(
        mLog.has(Severity::Warning, "already started, cannot restart it, consider everything is fine?!"));
    machine.stop();
    EXPECT_TRUE(hears("doing Stopping the lock"));
}

// ----------------------------------------------------------------------------------------------------- dumps

/// The same with devices.
class LockStreamsDumps : public LockStreamsTest {
protected:
    LockStreamsDumps() {
        for (auto const& stream : {mTd, mFd}) {
            stream->onWait([](seconds /*aTimeout*/) {
                std::this_thread::yield();
                return 0;
            });
        }
        mHardware->registers.singleTdTransfer->onWrite([this](bool /*aOn*/) { mTd->add(points(64)); });
        mHardware->registers.singleFdTransfer->onWrite([this](bool /*aOn*/) { mFd->add(points(4096)); });
        mStreams.reset();
        make();
        mLog.clear();
    }
    ~LockStreamsDumps() override { mStreams.reset(); } // A dump under way needs the devices.

    /// The imaginary part rises by 7 a point through zero at the FFT's 0 Hz; the real part is 0.
    static std::vector<unsigned char> points(int aCount) {
        std::vector<unsigned char> packet;
        for (int point = 0; point < aCount; ++point) {
            int const offset = point < aCount / 2 ? point : point - aCount;
            auto const word = static_cast<std::uint32_t>(7 * offset);
            for (unsigned int const shift : {24U, 16U, 8U, 0U}) {
                packet.push_back(static_cast<unsigned char>(word >> shift));
            }
            packet.insert(packet.end(), 4, 0);
        }
        return packet;
    }
    std::filesystem::path dumped(std::string const& aName) const {
        return mFolder.path() / "var/log/q47lock/fft_td_dumps" / aName;
    }

    std::shared_ptr<FakeStream> mTd = mDriver->stream("/dev/lock_dma_td");
    std::shared_ptr<FakeStream> mFd = mDriver->stream("/dev/lock_dma_fd");
};

TEST_F(LockStreamsDumps, DumpsTheSpectrumAndThenTheFID) {
    mStreams->dumpFFTandFID("3__start");
    EXPECT_TRUE(std::filesystem::exists(dumped("lock_fft_3__start.h5")));
    EXPECT_TRUE(std::filesystem::exists(dumped("lock_fid_3__start.h5")));
    EXPECT_THAT(mHardware->takeActions(),
                ElementsAre("set log/single_fd_transfer = 1", "set log/single_td_transfer = 1"));
    EXPECT_THAT(mLog.linesOf("LockStreams"),
                ElementsAre(line(Severity::Info, "+dumpFFT(name = '3__start'):"),
                            line(Severity::Info, "+dumpFID(name = '3__start'):")));
}

TEST_F(LockStreamsDumps, DumpsOnRequestOnThreadsOfItsOwn) {
    mStreams->requestDumpFID("mine");
    mStreams->requestDumpFFT("yours");
    EXPECT_TRUE(eventually([this] {
        return std::filesystem::exists(dumped("lock_fid_mine.h5")) &&
               std::filesystem::exists(dumped("lock_fft_yours.h5"));
    }));
    EXPECT_TRUE(mLog.has(Severity::Info, "+requestDumpFID(Name = 'mine')"));
    EXPECT_TRUE(mLog.has(Severity::Info, "+requestDumpFFT(name = 'yours')"));
}

TEST_F(LockStreamsDumps, MeasuresTheSlopeOfTheImaginaryPart) {
    EXPECT_NEAR(mStreams->fftSlopeAt0Crossing(), 7.0, 1e-9);
}

TEST_F(LockStreamsDumps, AcquiresOneThingAtATime) {
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    auto const alone = [&](std::shared_ptr<FakeStream> const& aStream, int aPoints) {
        overlapped = overlapped || ++inside != 1;
        aStream->add(points(aPoints));
        --inside;
    };
    mHardware->registers.singleTdTransfer->onWrite([&](bool /*aOn*/) { alone(mTd, 64); });
    mHardware->registers.singleFdTransfer->onWrite([&](bool /*aOn*/) { alone(mFd, 4096); });
    std::thread other([this] {
        for (int round = 0; round < 10; ++round) {
            mStreams->dumpFFTandFID("other");
        }
    });
    for (int round = 0; round < 10; ++round) {
        mStreams->requestDumpFID("mine");
        mStreams->fftSlopeAt0Crossing();
    }
    other.join();
    mStreams.reset(); // Dumps that were asked for still use what stands above.
    EXPECT_FALSE(overlapped);
}

TEST_F(LockStreamsDumps, GoOnBehindADeviceThatFailsInTheMiddleOfThePacket) {
    start();
    EXPECT_TRUE(eventually([this] {
        return std::filesystem::exists(dumped("lock_fft_onstart.h5")) &&
               std::filesystem::exists(dumped("lock_fid_onstart.h5"));
    }));
    mHardware->registers.singleFdTransfer->onWrite([this](bool /*aOn*/) {
        mFd->add(points(2048), false); // half of it
    });
    mFd->onWait([this](seconds /*aTimeout*/) { // and in place of the other half
        mFd->fail(FakeStream::Fault::Read, EIO);
        return 1;
    });
    std::string const file = dumped("lock_fft_torn.h5").string();
    mStreams->dumpFFTandFID("torn");
    EXPECT_TRUE(mLog.has(Severity::Error, "-acquireAndDump(" + file +
                                              ") failed with Error while reading data from input. Error 5"));
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_TRUE(std::filesystem::exists(dumped("lock_fid_torn.h5")));
    feed(49, 0);
    EXPECT_THAT(mJournal.take(), IsEmpty()); // nobody is told

    mFd->fail(FakeStream::Fault::Read, 0); // It works again, and the torn packet has an end.
    mFd->add({});
    mFd->onWait([](seconds /*aTimeout*/) {
        std::this_thread::yield();
        return 0;
    });
    mHardware->registers.singleFdTransfer->onWrite([this](bool /*aOn*/) { mFd->add(points(4096)); });
    mStreams->dumpFFTandFID("whole");
    EXPECT_TRUE(std::filesystem::exists(dumped("lock_fft_whole.h5")));
    EXPECT_NEAR(mStreams->fftSlopeAt0Crossing(), 7.0, 1e-9); // no rest of the torn packet in it
    feed(1, 0);
    EXPECT_TRUE(mStreams->locked());
}

TEST_F(LockStreamsDumps, OnlyFailThemselvesOnAFullDisk) {
    {
        FullDisk const full(100);
        start(); // asks for both dumps
        EXPECT_TRUE(eventually([this] {
            auto const failed = [this](char const* aFile) {
                return mLog.has(Severity::Error, "-acquireAndDump(" + dumped(aFile).string() +
                                                     ") failed with filesystem error: cannot write the dump: "
                                                     "File too large [" +
                                                     dumped(aFile).string() + "]");
            };
            return failed("lock_fft_onstart.h5") && failed("lock_fid_onstart.h5");
        }));
        feed(50, 0);
        EXPECT_TRUE(mStreams->locked());
        EXPECT_THAT(mJournal.take(), ElementsAre("state 1", "doing locked", "lost 2"));
        EXPECT_NEAR(mStreams->fftSlopeAt0Crossing(), 7.0, 1e-9); // needs no disk
    }
    EXPECT_TRUE(eventually([this] { return mLog.has(Severity::Info, "+dumpFFT(name = 'lastlocked'):"); }));
    mStreams->dumpFFTandFID("later");
    EXPECT_TRUE(std::filesystem::exists(dumped("lock_fft_later.h5")));
    EXPECT_TRUE(std::filesystem::exists(dumped("lock_fid_later.h5")));
    for (auto const& entry : std::filesystem::directory_iterator(dumped(""))) {
        EXPECT_EQ(entry.path().extension(), ".h5"); // nothing half-written stays behind
    }
}

TEST_F(LockStreamsDumps, EndsADumpThatGetsNoAnswerWhenItIsDestroyed) {
    mHardware->registers.singleTdTransfer->onWrite(nullptr);
    mStreams->requestDumpFID("never");
    EXPECT_TRUE(eventually([this] { return !mHardware->takeActions().empty(); }));
    auto const time = mClock->now();
    mStreams.reset();
    EXPECT_EQ(mClock->now(), time); // far from the 30 s
    EXPECT_FALSE(std::filesystem::exists(dumped("lock_fid_never.h5")));
}

// ------------------------------------------------------------------------------------------------------ lost

TEST(LockLost, LatchesALockThatWasLost) {
    Journal journal;
    Listener heard(journal);
    auto const listener = std::make_shared<LockListenerSync>();
    listener->setListener(&heard);
    LockLost lost(listener);
    EXPECT_EQ(lost.state(), 0);
    lost.push(0);
    EXPECT_EQ(lost.state(), 0);
    lost.push(1);
    lost.push(1);
    EXPECT_EQ(lost.state(), 2);
    lost.push(0);
    EXPECT_EQ(lost.state(), 1);
    lost.push(1);
    EXPECT_EQ(lost.state(), 1); // kept until the reset
    EXPECT_THAT(journal.take(), ElementsAre("lost 2", "lost 1"));
    lost.reset();
    EXPECT_EQ(lost.state(), 2); // locked now
    lost.reset();
    EXPECT_THAT(journal.take(), ElementsAre("lost 2"));
    lost.push(0);
    lost.reset();
    EXPECT_EQ(lost.state(), 0);
    EXPECT_THAT(journal.take(), ElementsAre("lost 1", "lost 0"));
}

} // namespace
