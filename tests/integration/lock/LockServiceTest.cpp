// SPDX-License-Identifier: Apache-2.0
// The lock as a daemon meets it: the whole library on the simulated instrument, from the start to faults in
// the running lock, and closed in the middle of everything.
#include "simulator/instrument/Instrument.h"
#include "simulator/instrument/SimulatedBackend.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/SimulationSpeed.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/LockDiagnosticsInterface.h>
#include <fieldwarden/LockInterface.h>
#include <fieldwarden/LockInterfaceListener.h>
#include <fieldwarden/ShimInterface.h>
#include <velmor/kepla/log/Configuration.h>
#include <velmor/platform/Backend.h>
#include <velmor/platform/Clock.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::Instrument;
using libfieldwarden::sim::Magnet;
using libfieldwarden::sim::SequencerFaults;
using libfieldwarden::test::eventually;
using libfieldwarden::test::kSimulationSpeed;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using std::chrono::seconds;
using testing::HasSubstr;
using velmor::platform::Backend;
using velmor::platform::Clock;

constexpr double kMagnet1H = 80'123'400.0;
constexpr int kFullScale = 8388607;

/// Hears the lock; waits in real time, far beyond what a loaded machine needs.
class Heard : public LockInterfaceListener {
public:
    void error(std::string const& aText) override { add("error: " + aText); }
    void warningsChanged() override { add("warningsChanged"); }
    void doing(std::string const& aText) override { add("doing: " + aText); }
    void state(int aStatus) override { add("state " + std::to_string(aStatus)); }
    void updateLockPIDSet(int aPIDSet) override { add("pidset " + std::to_string(aPIDSet)); }
    void lost(int aStatus) override { add("lost " + std::to_string(aStatus)); }

    /// @return Whether a call that begins so has come since forget(); what came instead, if not.
    testing::AssertionResult await(std::string const& aPrefix) { return awaitAny({aPrefix}); }
    testing::AssertionResult awaitAny(std::vector<std::string> const& aPrefixes) {
        std::unique_lock lock(mMutex);
        bool const came = mNews.wait_for(lock, seconds(100), [&] {
            return std::any_of(mHeard.begin(), mHeard.end(), [&](std::string const& aCall) {
                return std::any_of(aPrefixes.begin(), aPrefixes.end(),
                                   [&](std::string const& aPrefix) { return aCall.starts_with(aPrefix); });
            });
        });
        return came ? testing::AssertionSuccess()
                    : testing::AssertionFailure() << "heard " << testing::PrintToString(mHeard);
    }
    std::vector<std::string> heard() {
        std::lock_guard const lock(mMutex);
        return mHeard;
    }
    /// The words of the last error.
    std::string lastError() {
        std::lock_guard const lock(mMutex);
        auto const found = std::find_if(mHeard.rbegin(), mHeard.rend(), [](std::string const& aCall) {
            return aCall.starts_with("error: ");
        });
        return found == mHeard.rend() ? "" : *found;
    }
    void forget() {
        std::lock_guard const lock(mMutex);
        mHeard.clear();
    }

private:
    void add(std::string aCall) {
        std::lock_guard const lock(mMutex);
        mHeard.push_back(std::move(aCall));
        mNews.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mNews;
    std::vector<std::string> mHeard;
};

/// The library on an instrument that runs faster than a real one.
class LockService : public testing::Test {
protected:
    LockService() {
        mInstrument = std::make_shared<Instrument>(Instrument::Options{
            .folder = mDirectory.path(), .timeScale = kSimulationSpeed, .magnet = {.protonHz = kMagnet1H}});
        Backend::use(libfieldwarden::sim::makeSimulatedBackend(mInstrument));
        velmor::kepla::log::Configuration::initWith({});
    }
    ~LockService() override {
        if (mOpen) {
            close();
        }
        Backend::use(nullptr);
    }

    void open(bool aShimmed = true) {
        auto const& folders = mInstrument->folders();
        FieldwardenInterface::openInterface("can0", folders.config.string(), folders.factory.string(),
                                            folders.shimFirmware.string(), folders.spectrometer.string(),
                                            folders.tempFirmware.string(), folders.data.string());
        mOpen = true;
        if (aShimmed) {
            FieldwardenInterface::getInstance()->getShim()->setShimSystem(ShimSysType::Wmxs1a);
        }
        lock().setListener(&mHeard);
    }
    /// @return How long it took, in real time.
    std::chrono::duration<double> close() {
        auto const begin = std::chrono::steady_clock::now();
        FieldwardenInterface::closeInterface();
        mOpen = false;
        return std::chrono::steady_clock::now() - begin;
    }
    static LockInterface& lock() { return *FieldwardenInterface::getInstance()->getLock(); }
    SequencerFaults& faults() { return mInstrument->sequencer()->faults(); }
    int h0() { return mInstrument->sequencer()->h0Count(); }

    /// Opens and waits for the lock.
    void openLocked() {
        open();
        lock().setBasic1HFrequency(kMagnet1H);
        ASSERT_TRUE(mHeard.await("state 1"));
    }
    static void letPass(seconds aSimulated) { Clock::current().sleepFor(aSimulated); }

    TemporaryDirectory mDirectory;
    std::shared_ptr<Instrument> mInstrument;
    Heard mHeard;
    bool mOpen = false;
};

// ------------------------------------------------------------------------------------------------- starts

TEST_F(LockService, LocksAtAKnownFrequency) {
    open();
    lock().setBasic1HFrequency(kMagnet1H - 800.0);
    ASSERT_TRUE(mHeard.await("state 1"));
    EXPECT_TRUE(mHeard.await("doing: locked"));
    EXPECT_TRUE(mHeard.await("lost 2"));
    EXPECT_TRUE(lock().getLock());
    EXPECT_TRUE(lock().getLockLost());
    EXPECT_EQ(lock().criticalWarnings(), "");
}

TEST_F(LockService, NamesTheRightFrequencyWhenItIsTold300kHzTooMuch) {
    open();
    lock().setBasic1HFrequency(kMagnet1H + 300'000.0);
    ASSERT_TRUE(mHeard.await("error"));
    EXPECT_EQ(
        mHeard.lastError(),
        "error: Could not start the lock: Please change your spectrometer frequency to 80.123MHz and try "
        "again");
    ASSERT_TRUE(mHeard.await("doing: stopped"));
    EXPECT_EQ(h0(), 0);
    // And it locks once the user has done so.
    mHeard.forget();
    lock().setBasic1HFrequency(80'123'000.0);
    lock().startLock();
    EXPECT_TRUE(mHeard.await("state 1"));
}

TEST_F(LockService, AsksForShimsWhenThereAreNone) {
    open(false);
    lock().setBasic1HFrequency(kMagnet1H);
    ASSERT_TRUE(mHeard.await("error"));
    EXPECT_EQ(
        mHeard.lastError(),
        "error: Could not start the lock: The lock signal could not be found.\nIt might be due to all shim "
        "gradients currently being set to zero.\n\nPlease load a shim file (ldshim) and try to lock again.");
}

TEST_F(LockService, SearchesTheFieldWithAWrongFactorAndNamesWhatItFinds) {
    writeFile(mInstrument->folders().spectrometer / "lock.config", "[factors]\n1HTo19F = 0.9400\n");
    open();
    lock().setBasic1HFrequency(kMagnet1H);
    ASSERT_TRUE(mHeard.await("error"));
    // 80.1234 MHz * 0.9407841 is the line; by the wrong factor that is 80.1902 MHz of 1H.
    EXPECT_THAT(mHeard.lastError(),
                HasSubstr("Please change your spectrometer frequency to 80.190MHz and try again"));
}

TEST_F(LockService, FailsOnADamagedConfigurationAndLocksWithAMendedOne) {
    openLocked();
    auto const config = mInstrument->folders().spectrometer / "lock.config";
    writeFile(config, "[fred]\noutputShift = 32\n");
    mHeard.forget();
    lock().setLockPIDSet(1);                  // restarts
    for (int start = 0; start < 2; ++start) { // every start says so
        ASSERT_TRUE(mHeard.await("error"));
        EXPECT_EQ(
            mHeard.lastError(),
            "error: Could not start the lock: Could not process the lock configuration file.\nError was "
            "Invalid value for lock parameter fred.outputShift");
        ASSERT_TRUE(mHeard.await("doing: stopped"));
        mHeard.forget();
        if (start == 0) {
            lock().startLock();
        }
    }
    writeFile(config, "[fred]\noutputShift = 31\n");
    mHeard.forget();
    lock().startLock();
    EXPECT_TRUE(mHeard.await("state 1"));
}

TEST_F(LockService, SaysWhenTheSynthesiserDoesNotLock) {
    open();
    faults().setDdsPllUnlocked(true);
    lock().setBasic1HFrequency(kMagnet1H);
    ASSERT_TRUE(mHeard.await("error"));
    EXPECT_EQ(mHeard.lastError(),
              "error: Could not start the lock: Failed to configure the lock's frequency");
    faults().setDdsPllUnlocked(false);
    mHeard.forget();
    lock().startLock();
    EXPECT_TRUE(mHeard.await("state 1"));
}

TEST_F(LockService, SaysWhenTheNoiseIsTooStrongAtEveryShift) {
    open();
    faults().setNoise(1.0e9);
    lock().setBasic1HFrequency(kMagnet1H);
    ASSERT_TRUE(mHeard.await("error"));
    EXPECT_EQ(mHeard.lastError(),
              "error: Could not start the lock: Lock FID overflow even with lowest possible CIC shift");
    faults().setNoise(1.0);
    mHeard.forget();
    lock().startLock();
    EXPECT_TRUE(mHeard.await("state 1"));
}

TEST_F(LockService, SaysWhenEveryFidOverflows) {
    open();
    faults().setOverflow(true);
    lock().setBasic1HFrequency(kMagnet1H);
    ASSERT_TRUE(mHeard.await("error"));
    EXPECT_THAT(mHeard.lastError(), HasSubstr("Could not start the lock: "));
    faults().setOverflow(false);
    mHeard.forget();
    lock().startLock();
    EXPECT_TRUE(mHeard.await("state 1"));
}

// --------------------------------------------------------------------------------------------- while it runs

TEST_F(LockService, LosesTheLockWhenTheFieldJumpsAndTakesItBack) {
    openLocked();
    mHeard.forget();
    mInstrument->magnet()->jump(-30.0); // 28 Hz of 19F, 55 bins: within the line's lobe
    ASSERT_TRUE(mHeard.await("state 2"));
    EXPECT_TRUE(mHeard.await("doing: trying to lock"));
    EXPECT_TRUE(mHeard.await("lost 1"));
    ASSERT_TRUE(mHeard.await("state 1")); // by itself
    EXPECT_TRUE(lock().getLockLost());
    mHeard.forget();
    lock().resetLockLost();
    EXPECT_TRUE(mHeard.await("lost 2"));
}

TEST_F(LockService, StaysAtItsFieldWhileTheFidIsGone) {
    openLocked();
    int const before = h0();
    faults().setSilentFid(true); // noise around 0 looks like a small error
    letPass(seconds(20));
    faults().setSilentFid(false);
    letPass(seconds(10));
    EXPECT_TRUE(lock().getLock());
    EXPECT_NEAR(h0(), before, 20'000);
}

TEST_F(LockService, SurvivesAPidStreamThatPausesFor50Seconds) {
    if (kSimulationSpeed < 2.0) {
        GTEST_SKIP() << "takes more than a minute of simulated time, and this build has to take it in full";
    }
    openLocked();
    faults().setStoppedPidStream(true);
    letPass(seconds(50));
    faults().setStoppedPidStream(false);
    letPass(seconds(5));
    EXPECT_EQ(lock().criticalWarnings(), "");
    EXPECT_TRUE(lock().getLock());
}

TEST_F(LockService, TellsAHardwareErrorWhenThePidStreamStaysAway) {
    if (kSimulationSpeed < 2.0) {
        GTEST_SKIP() << "takes more than a minute of simulated time, and this build has to take it in full";
    }
    openLocked();
    mHeard.forget();
    faults().setStoppedPidStream(true);
    ASSERT_TRUE(mHeard.await("state 6"));
    EXPECT_TRUE(mHeard.await("doing: hardware error"));
    EXPECT_TRUE(mHeard.await("warningsChanged"));
    EXPECT_EQ(lock().criticalWarnings(),
              "The lock has stopped because of an internal error.\nPlease try to restart it.\nShould that "
              "not help, "
              "please power cycle the device and try again.");
    faults().setStoppedPidStream(false);
    mHeard.forget();
    lock().startLock(); // It regulates again, but the supervision has ended with its thread and says nothing.
    ASSERT_TRUE(mHeard.await("doing: lock is regulating, not yet locked"));
    mHeard.forget();
    lock().stopLock(); // Out of a running lock a stop ends all of it,
    ASSERT_TRUE(mHeard.await("doing: stopped"));
    mHeard.forget();
    lock().startLock(); // and so this start is a whole one.
    ASSERT_TRUE(mHeard.await("state 1"));
    EXPECT_TRUE(lock().getLock());
    EXPECT_EQ(lock().criticalWarnings(), "");
}

TEST_F(LockService, TellsBothWarningsWithABlankLineBetweenThem) {
    if (kSimulationSpeed < 2.0) {
        GTEST_SKIP() << "takes more than a minute of simulated time, and this build has to take it in full";
    }
    open();
    // Full scale is 4449 Hz of 1H: 4050 Hz are 91 percent of it.
    lock().setBasic1HFrequency(kMagnet1H - 4050.0);
    ASSERT_TRUE(mHeard.await("state 1"));
    ASSERT_TRUE(mHeard.await("warningsChanged"));
    faults().setStoppedPidStream(true);
    ASSERT_TRUE(mHeard.await("state 6"));
    // 80,123,400 Hz less 4050 Hz, and 4 kHz up again.
    EXPECT_EQ(lock().criticalWarnings(),
              "The lock field exceeds 90% of the maximum range.\n"
              "The system stability will degrade if the lock field reaches 100%.\n"
              "To prevent this, please change the spectrometer frequency by +4 kHz, to 80.123 MHz."
              "\n\n"
              "The lock has stopped because of an internal error.\nPlease try to restart it.\n"
              "Should that not help, please power cycle the device and try again.");
}

TEST_F(LockService, WarnsNearTheEndOfTheRangeAndTakesTheWarningBack) {
    if (kSimulationSpeed < 2.0) {
        GTEST_SKIP() << "takes more than a minute of simulated time, and this build has to take it in full";
    }
    open();
    // Full scale is 4449 Hz of 1H: 2800 Hz are 63 percent of it, 90 percent are 1204 Hz further on.
    lock().setBasic1HFrequency(kMagnet1H - 2800.0);
    ASSERT_TRUE(mHeard.await("state 1"));
    mHeard.forget();
    auto const drift = [this](double aHertzPerSecond) { // the regulator can follow twice as much
        mInstrument->magnet()->setDrift(aHertzPerSecond, Clock::current().now());
    };
    drift(10.0);
    ASSERT_TRUE(mHeard.await("warningsChanged"));
    drift(0.0);
    EXPECT_LT(h0(), -0.89 * kFullScale);
    // The output is negative: the frequency 4 kHz up.
    EXPECT_EQ(lock().criticalWarnings(),
              "The lock field exceeds 90% of the maximum range.\n"
              "The system stability will degrade if the lock field reaches 100%.\n"
              "To prevent this, please change the spectrometer frequency by +4 kHz, to 80.125 MHz.");
    mHeard.forget();
    drift(-10.0);
    ASSERT_TRUE(mHeard.await("warningsChanged"));
    EXPECT_GT(h0(), -0.86 * kFullScale);
    EXPECT_EQ(lock().criticalWarnings(), "");
}

TEST_F(LockService, SurvivesAListenerThatThrows) {
    class Thrower : public Heard {
    public:
        void doing(std::string const& aText) override {
            Heard::doing(aText);
            throw std::runtime_error("daemon trouble");
        }
    } thrower;
    open();
    lock().setListener(&thrower);
    lock().setBasic1HFrequency(kMagnet1H);
    EXPECT_TRUE(thrower.await("state 1"));
    lock().removeListener();
}

TEST_F(LockService, PutsUpWithASlowListenerThatAsksItBack) {
    class Asker : public Heard {
    public:
        void doing(std::string const& aText) override {
            ask([&] { Heard::doing(aText); });
        }
        void state(int aStatus) override {
            ask([&] { Heard::state(aStatus); });
        }
        void lost(int aStatus) override {
            ask([&] { Heard::lost(aStatus); });
        }
        void warningsChanged() override {
            ask([&] { Heard::warningsChanged(); });
        }

    private:
        static void ask(std::function<void()> const& aCall) {
            letPass(seconds(2));
            LockInterface& service = lock();
            service.getLock();
            service.getLockLost();
            service.criticalWarnings();
            service.setLockGain(service.getLockGain() + 1.0);
            service.holdLock();
            aCall();
        }
    } asker;
    open();
    lock().setListener(&asker);
    lock().setBasic1HFrequency(kMagnet1H);
    EXPECT_TRUE(asker.await("state 1"));
    EXPECT_TRUE(asker.await("lost 2"));
    EXPECT_TRUE(lock().getLock());
    lock().stopLock();
    EXPECT_TRUE(asker.await("doing: stopped"));
    EXPECT_GT(lock().getLockGain(), 4.0);
    lock().removeListener();
}

TEST_F(LockService, StaysLockedWhileADeviceOfItsDumpsFails) {
    openLocked();
    for (char const* device : {"/dev/lock_dma_td", "/dev/lock_dma_fd"}) {
        faults().failRead(device, EIO);
    }
    letPass(seconds(12)); // two of the regular dumps
    auto& diagnostics = dynamic_cast<libfieldwarden::LockDiagnosticsInterface&>(lock());
    EXPECT_THROW(diagnostics.dumpSignal("failing"), std::runtime_error);
    EXPECT_TRUE(lock().getLock());
    EXPECT_EQ(mHeard.lastError(), "");
    for (char const* device : {"/dev/lock_dma_td", "/dev/lock_dma_fd"}) {
        faults().failRead(device, 0);
    }
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(diagnostics.dumpSignal("mended")) /
                                        "lock_fft_mended.h5"));
}

TEST_F(LockService, SaysNothingOfAPllAndAnOverflowInTheRunningLock) {
    openLocked();
    mHeard.forget();
    int const before = h0();
    faults().setOverflow(true);
    letPass(seconds(3));
    faults().setOverflow(false);
    faults().setDdsPllUnlocked(true);
    letPass(seconds(3));
    faults().setDdsPllUnlocked(false);
    // Whatever it did to the field: it locks by itself, and nobody hears of an error.
    EXPECT_TRUE(eventually([] { return lock().getLock(); }));
    EXPECT_EQ(mHeard.lastError(), "");
    EXPECT_EQ(lock().criticalWarnings(), "");
    letPass(seconds(10));
    EXPECT_NEAR(h0(), before, 20'000);
}

TEST_F(LockService, LocksWithoutTheDevicesOfItsDumpsButCannotMeasureTheSlope) {
    faults().refuseOpening("/dev/lock_dma_td", ENOENT);
    openLocked(); // The FID is for people only.
    close();
    faults().refuseOpening("/dev/lock_dma_fd", ENOENT);
    mHeard.forget();
    open();
    lock().setBasic1HFrequency(kMagnet1H);
    ASSERT_TRUE(mHeard.await("error"));
    EXPECT_EQ(mHeard.lastError(), "error: Could not start the lock: Cannot read data from hardware");
}

TEST_F(LockService, LocksWithoutAFolderForItsDumps) {
    open();
    // Neither missing nor full: a plain file stands where the folder was.
    auto const folder = mInstrument->folders().root / "var/log/q47lock/fft_td_dumps";
    std::filesystem::remove_all(folder);
    writeFile(folder, "");
    lock().setBasic1HFrequency(kMagnet1H);
    EXPECT_TRUE(mHeard.await("state 1"));
}

// ------------------------------------------------------------------------------------------------- closing

/// In real seconds: the longest single wait has 30 simulated ones, and a loaded machine takes its time.
constexpr double kLongestClose = 30.0 / kSimulationSpeed + 8.0;

TEST_F(LockService, ClosesInTheMiddleOfAStart) {
    open();
    lock().setBasic1HFrequency(kMagnet1H);
    ASSERT_TRUE(mHeard.await("doing: starting"));
    EXPECT_LT(close().count(), kLongestClose);
    mHeard.forget();
    openLocked();
}

TEST_F(LockService, ClosesInTheMiddleOfAFieldSearch) {
    open();
    bool searching = false;
    std::mutex mutex;
    std::condition_variable told;
    auto& diagnostics = dynamic_cast<libfieldwarden::LockDiagnosticsInterface&>(lock());
    diagnostics.setProgressListener([&](libfieldwarden::LockStepProgress const& aProgress) {
        if (aProgress.step == "Searching the field" && aProgress.done >= 3) {
            std::lock_guard const guard(mutex);
            searching = true;
            told.notify_all();
        }
    });
    lock().setBasic1HFrequency(kMagnet1H + 300'000.0);
    mInstrument->magnet()->jump(400'000.0); // far away, so that it takes long
    {
        std::unique_lock guard(mutex);
        ASSERT_TRUE(told.wait_for(guard, seconds(100), [&] { return searching; }));
    }
    EXPECT_LT(close().count(), kLongestClose);
    mInstrument->magnet()->jump(-400'000.0);
    mHeard.forget();
    openLocked();
}

TEST_F(LockService, ClosesWhileItIsLockedAndInTheMiddleOfDumps) {
    openLocked();
    faults().setStoppedAcquisition(true); // dumps wait for data from now on
    letPass(seconds(6));
    EXPECT_LT(close().count(), kLongestClose);
    faults().setStoppedAcquisition(false);
    mHeard.forget();
    openLocked();
    EXPECT_LT(close().count(), kLongestClose);
}

} // namespace
