// SPDX-License-Identifier: Apache-2.0
// The start of the lock, step by step, and its ways to fail.
#include "support/ExpectThrow.h"
#include "unit/lock/LockWorkflowsRig.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace {

using libfieldwarden::lock::LockEndRequested;
using libfieldwarden::lock::LockProgress;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::expectThrow;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::line;
using libfieldwarden::test::LockRig;
using libfieldwarden::test::LockWait;
using libfieldwarden::test::LockWorkflowsRig;
using libfieldwarden::test::Severity;
using libfieldwarden::test::writeFile;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;

class LockWorkflowsTest : public LockWorkflowsRig {
protected:
    /// A magnet on which the start comes to its end: the FID at 20 slices, then at 5, its peak at bit 29.
    void makeWorking() {
        mRegisters.maxSlicePosition->script({20, 5});
        mRegisters.fidMaxSlice->hold(1 << 29);
        mRegisters.phaseCorrection->hold(0x12345678);
    }
    /// No FID at 80 MHz, and a signal elsewhere.
    /// @param a1HFrequency  Where it is, in Hz.
    void moveSignalTo(double a1HFrequency) { putSignalAt(0.9407841 * a1HFrequency); }
    /// What a part of the hardware's helper does, as it stands in the journal.
    template <typename Work>
    std::vector<std::string> journalOf(Work const& aWork) {
        auto const hardware = std::make_shared<libfieldwarden::test::FakeLockHardware>();
        LockHardwareHelper helper(hardware, mRig.dataLogger);
        aWork(helper);
        return hardware->takeJournal();
    }
    double lastPushed(std::string const& aChannel) const { return mRig.pushed(aChannel).back(); }
};

void append(std::vector<std::string>& aTo, std::vector<std::string> const& aFrom) {
    aTo.insert(aTo.end(), aFrom.begin(), aFrom.end());
}

} // namespace

TEST_F(LockWorkflowsTest, MakesItsChannelsInTheirOrder) {
    std::vector<std::tuple<std::string, std::string>> channels;
    for (auto const& info : mRig.dataLogger->infos()) {
        channels.emplace_back(info.name(), info.description);
        EXPECT_EQ(info.unit, DataLoggerUnit::Dimensionless);
        EXPECT_EQ(info.storageType, DataLoggerStorageType::LongTerm);
        EXPECT_TRUE(info.stats.isNone());
    }
    using Channel = std::tuple<std::string, std::string>;
    EXPECT_THAT(
        channels,
        ElementsAre(
            Channel{"lock/softpid/MaxSlicePos",
                    "MaxSlicePos value while trying to regulate it towards 0 using a software PID."},
            Channel{"lock/softpid/MaxSlicePosThreshold",
                    "Value below which the lock FID is considered near enough to 0 to start the "
                    "hardware regulation."},
            Channel{"lock/fftImgSlope0Crossing", "Slope at 0 crossing of the imaginary part of the FFT"},
            Channel{"lock/pid/current/p_term", "P term for the lock PID"},
            Channel{"lock/pid/current/i_term", "I term for the lock PID"},
            Channel{"lock/pid/current/d_term", "D term for the lock PID"}));
}

TEST_F(LockWorkflowsTest, BringsTheHardwareUpInItsOrder) {
    mWorkflows.startForTests();
    std::vector<std::string> expected = journalOf([](auto& aHelper) { aHelper.reset(); });
    // 0.9407841 * 80 MHz = 75262728 Hz, and 120 MHz / 7 = 17142857.142857 Hz above that the synthesiser
    append(expected, {"setTx(92405585.14285713, 100)", "get status/dds_pll_unlocked = 0",
                      "get status/dds_pll_unlocked = 0"});
    append(expected, journalOf([](auto& aHelper) { aHelper.setLockDACToZero(); }));
    append(expected,
           {"set data/fft_zeros = 64529", "loadWindow(5 bytes)",
            "loadProgram(/usr/share/firmware/Q47Lock/memory.bin)", "set control/seq_clock_enable = 1",
            "set log/time_domain_src = 1", "set data/fid_group_delay = 6", "set data/fid_shift = 6",
            "dump start_1__cic_setInitial"});
    auto journal = mRig.hardware->takeJournal();
    auto const stream = std::find_if(journal.rbegin(), journal.rend(), [](std::string const& aText) {
        return aText.starts_with("set control/stream_control");
    });
    ASSERT_NE(stream, journal.rend());
    EXPECT_EQ(*std::prev(stream.base(), 2), "set log/time_domain_src = 1");
    journal.erase(std::next(stream).base()); // its value has words of its own
    EXPECT_EQ(journal, expected);
    EXPECT_EQ(mRegisters.streamControl->value(), LockHardwareStreamControl::Sequencer);
    EXPECT_THAT(
        lines(),
        ElementsAre(line(Severity::Debug, "~startLock: reloading the override parameters file"),
                    line(Severity::Debug, "~startLock: reset the hardware to ensure we have a known state"),
                    line(Severity::Debug,
                         "~startLock: configure TX frequency and amplitude. Magnet 1H freq = "
                         "80000000.000000 Hz"),
                    line(Severity::Info, "Setting the lock frequency to 75262728.000000 HZ"),
                    line(Severity::Debug, "~startLock: set lock DAC to zero"),
                    line(Severity::Debug, "~startLock: load the window function"),
                    line(Severity::Debug, "~startLock: load the sequencer"),
                    line(Severity::Debug,
                         "~startLock: set up group delay and initial CIC, then verify presence of FID")));
    EXPECT_EQ(lines().front().category, "Lock");
    EXPECT_EQ(mRig.log.lines().at(1).text,
              "+overrideFromFile(path='" + (mDirectory.path() / "lock.config").string() + "')");
}

TEST_F(LockWorkflowsTest, UsesTheFactorThatItHasJustRead) {
    writeFile(mDirectory.path() / "lock.config", "[factors]\n1HTo19F = 0.5\n");
    mWorkflows.startHardware();
    EXPECT_EQ(frequencies().back(), 40000000);
}

TEST_F(LockWorkflowsTest, DoesNotStartOnAFrequencyThatCannotBeSet) {
    mRegisters.statusPllDdsUnlocked->compute([] { return true; });
    expectThrow<std::runtime_error>([&] { mWorkflows.start(); }, "Failed to configure the lock's frequency");
    EXPECT_THAT(dumps(), IsEmpty());
}

TEST_F(LockWorkflowsTest, DoesNotStartOnADamagedConfiguration) {
    writeFile(mDirectory.path() / "lock.config", "[pid.slow]\np = 1\n");
    EXPECT_THROW(mWorkflows.start(), std::runtime_error);
    EXPECT_THAT(mRig.takeJournal(), IsEmpty()); // the hardware is not touched
    writeFile(mDirectory.path() / "lock.config", "");
    makeWorking();
    EXPECT_NO_THROW(mWorkflows.start());
}

TEST_F(LockWorkflowsTest, DoesNotStartWithoutItsWindow) {
    std::filesystem::remove(mDirectory.path() / "usr/share/firmware/Q47Lock/window.bin");
    expectThrow<std::runtime_error>(
        [&] { mWorkflows.start(); },
        "Could not open lock window file at '/usr/share/firmware/Q47Lock/window.bin'");
}

TEST_F(LockWorkflowsTest, PassesTheFailureOfTheProgramOn) {
    mRig.hardware->fail("loadProgram", "Failed to load the lock program.");
    expectThrow<std::runtime_error>([&] { mWorkflows.start(); }, "Failed to load the lock program.");
}

TEST_F(LockWorkflowsTest, StartsTheLockInItsOrder) {
    makeWorking();
    mWorkflows.startHardware(); // to be left out below
    auto const settingUp = mRig.takeActions();
    mRegisters.maxSlicePosition->script({20, 5});
    mWorkflows.start();
    auto actions = mRig.takeActions();
    ASSERT_GT(actions.size(), settingUp.size());
    EXPECT_TRUE(std::equal(settingUp.begin(), settingUp.end(), actions.begin()));
    actions.erase(actions.begin(), actions.begin() + static_cast<std::ptrdiff_t>(settingUp.size()));

    std::vector<std::string> expected(16, "await FID done"); // 16 of them, though the log says 8
    append(expected, {"set data/dac_data = 1073741824", "set status/fid_overflow = 1", "await FID done",
                      "dump 2__searchFid__0"});
    append(expected, {"set data/fid_shift = 6", "set status/fid_overflow = 1", "await FID done",
                      "await FID done", "dump 3__start__cic__setUp"});
    // 20 slices off: 50 * -20 = -1000, as 24 bits 0xFFFC18, with the write command 0x40FFFC18; 5 slices will
    // do
    append(expected, {"set status/fid_overflow = 1", "await FID done", "set data/dac_data = 1090518040",
                      "set status/fid_overflow = 1", "await FID done", "dump 4__start__movedtozero"});
    append(expected, {"set data/fid_phase_correction = 305419896"}); // 0x12345678
    for (int acquisition = 0; acquisition < 16; ++acquisition) {
        append(expected, {"set status/fid_overflow = 1", "await FID done"});
    }
    // the peak is at bit 29, so that the shift stays at 6
    append(expected, {"set status/fid_overflow = 1", "await FID done", "set data/fid_shift = 6"});
    append(expected, std::vector<std::string>(10, "await FID done"));
    append(expected, {"dump 5__start__cic__optimized", "measure slope"});
    append(expected,
           {"set data/fred_output_clear = 0", "set data/fred_coef_order1 = 0",
            "set data/fred_coef_order2 = 0", "set data/fred_shift = 0", "set data/fred_output_enable = 1"});
    append(expected,
           {"set pid/output_shift = 30", "set pid/input_shift = 7", "set pid/output_offset = -1000",
            "set pid/d_term = 0", "set pid/i_term = -7500", "set pid/p_term = 0", "dump 6__start__end"});
    std::vector<std::string> words; // the two registers whose values have words
    for (auto at = actions.begin(); at != actions.end();) {
        if (at->starts_with("set data/fred_output_select") || at->starts_with("set control/dac_conf_mode")) {
            words.push_back(*at + " ahead of " + *std::next(at));
            at = actions.erase(at);
        } else {
            ++at;
        }
    }
    EXPECT_EQ(actions, expected);
    ASSERT_EQ(words.size(), 2U);
    EXPECT_THAT(words[0], testing::HasSubstr("ahead of set data/fred_output_clear = 0"));
    EXPECT_THAT(words[1], testing::HasSubstr("ahead of set pid/d_term = 0"));
    EXPECT_EQ(mRegisters.fredOutputSelect->value(), LockHardwareFredSource::UsePolynom);
    EXPECT_EQ(mRegisters.dacConfMode->value(), LockHardwareDacConfMode::UsePIDOutput);
}

TEST_F(LockWorkflowsTest, TellsEveryStepOfTheStart) {
    makeWorking();
    mWorkflows.start();
    auto all = lines();
    auto const begin = std::find(
        all.begin(), all.end(), line(Severity::Info, "~start: waiting for 8 lock acquisitions to happen..."));
    std::vector<CapturedLine> expected{
        line(Severity::Info, "~start: waiting for 8 lock acquisitions to happen...")};
    for (int done = 0; done < 16; ++done) {
        expected.push_back(
            line(Severity::Trace, "~start: " + std::to_string(done) + " lock acquisitions done"));
    }
    for (auto const& [severity, text] : std::vector<std::pair<Severity, std::string>>{
             {Severity::Info, "~start: ...done waiting"},
             {Severity::Info, "Searching for lock FID"},
             {Severity::Debug, "~searchFid tries value 0 that translates to H0 DAC DATA REG = 0x40000000"},
             {Severity::Info, "-searchFid: fidFound = 1"},
             {Severity::Debug, "~startLock: ensure FID frequency is around 0 Hz"},
             {Severity::Info,
              "entering soft PID loop to move FID frequency to zero, initial H0 value = 0.000000"},
             {Severity::Debug, "maxSlicePos = 20"},
             {Severity::Debug, "soft PID out = -1000.000000, translates to H0 DAC DATA REG = 0x40FFFC18"},
             {Severity::Debug, "maxSlicePos = 5"},
             {Severity::Info, "maxSlicePos is now in the expected range, returning PID offset = -1000"},
             {Severity::Debug, "~startLock: set output phase correction to time domain phase correction"},
             {Severity::Debug, "~startLock: compute PID and locked threshold from slope at 0 crossing"},
             {Severity::Debug, "~startLock: optimize CIC shift"},
             {Severity::Info,
              "~startLock: slope at FFT 0 crossing is 1000.000000, i_term = -5000.000000 and "
              "locked_threshold = 3100000.000000"},
             {Severity::Debug, "~startLock: enabling FRED"},
             {Severity::Debug, "~startLock: starting PID"},
             {Severity::Debug, "~startLock: set P = 0, I = -7500 and D = 0"}}) {
        expected.push_back(line(severity, text));
    }
    EXPECT_THAT(std::vector<CapturedLine>(begin, all.end()), ElementsAreArray(expected));
}

TEST_F(LockWorkflowsTest, ComputesTheTermsFromTheSlope) {
    // i = -5000000 / 1000 = -5000, threshold = 3000000 + 100 * 1000 = 3100000;
    // normal 1.5 * -5000 = -7500, fast 2.25 * -5000 = -11250, slow -5000
    for (double const slope : {1000.0, -1000.0}) {
        makeWorking();
        mRig.streams->slope = slope;
        mWorkflows.start();
        EXPECT_EQ(mParameters->lockedThreshold(), 3100000.0);
        EXPECT_EQ(mParameters->pidSetByID(LockPIDSetID::Normal)->i(), -7500.0);
        EXPECT_EQ(mParameters->pidSetByID(LockPIDSetID::Fast)->i(), -11250.0);
        EXPECT_EQ(mParameters->pidSetByID(LockPIDSetID::Slow)->i(), -5000.0);
        for (auto const id : {LockPIDSetID::Normal, LockPIDSetID::Fast, LockPIDSetID::Slow}) {
            EXPECT_EQ(mParameters->pidSetByID(id)->p(), 0.0);
            EXPECT_EQ(mParameters->pidSetByID(id)->d(), 0.0);
        }
        EXPECT_EQ(mRegisters.pidITerm->value(), -7500);
        EXPECT_EQ(lastPushed("lock/fftImgSlope0Crossing"), slope); // with its sign
        EXPECT_EQ(lastPushed("lock/pid/current/p_term"), 0.0);
        EXPECT_EQ(lastPushed("lock/pid/current/i_term"), -7500.0);
        EXPECT_EQ(lastPushed("lock/pid/current/d_term"), 0.0);
    }
}

TEST_F(LockWorkflowsTest, WritesTheTermsOfTheChosenSet) {
    makeWorking();
    mParameters->setPIDSetID(LockPIDSetID::Fast);
    mRig.streams->slope = 18000.0; // i = -5000000 / 18000 = -277.77..., fast 2.25 times that is -625
    mWorkflows.start();
    EXPECT_EQ(mRegisters.pidITerm->value(), -625);
    mRegisters.maxSlicePosition->script({20, 5});
    mParameters->setPIDSetID(LockPIDSetID::Slow);
    mWorkflows.start();
    EXPECT_EQ(mRegisters.pidITerm->value(), -277);        // truncated toward zero
    EXPECT_EQ(mParameters->lockedThreshold(), 4800000.0); // 3000000 + 100 * 18000
}

TEST_F(LockWorkflowsTest, WritesTheConfiguredTermsWhenComputedOnesAreNotUsed) {
    makeWorking();
    writeFile(mDirectory.path() / "lock.config",
              "[global]\nuseComputed = 0\n[pid.normal]\np = 1.9\ni = -2.9\nd = 1e300\n"
              "[fred]\norder1 = 0.5\norder2 = -0.25\noutputShift = 12\n");
    mWorkflows.start();
    EXPECT_EQ(mRegisters.pidPTerm->value(), 1);
    EXPECT_EQ(mRegisters.pidITerm->value(), -2);
    EXPECT_EQ(mRegisters.pidDTerm->value(), 2147483647);
    EXPECT_EQ(mParameters->lockedThreshold(), 4800000.0);
    EXPECT_EQ(mRegisters.fredCoefOrder1->value(), 0x40000000U); // 0.5 * 2^31
    EXPECT_EQ(mRegisters.fredCoefOrder2->value(), 0xE0000000U); // -0.25 * 2^31 in two's complement
    EXPECT_EQ(mRegisters.fredShift->value(), 12);
    EXPECT_TRUE(mRegisters.fredOutputEnable->value());
}

TEST_F(LockWorkflowsTest, LetsASlopeOfNothingFlowOnAsAnInfiniteTerm) {
    makeWorking();
    mRig.streams->slope = 0.0;
    mWorkflows.start();
    EXPECT_EQ(mRegisters.pidITerm->value(), -2147483647 - 1);
    EXPECT_EQ(mParameters->lockedThreshold(), 3000000.0);
}

TEST_F(LockWorkflowsTest, RecordsTheParametersThatItRanWith) {
    makeWorking();
    mWorkflows.start();
    EXPECT_EQ(lastPushed("lock/parameters/locked_threshold"), 3100000.0);
    EXPECT_EQ(lastPushed("lock/parameters/pid/fast/i"), -11250.0);
    EXPECT_EQ(lastPushed("lock/parameters/magnet_1H_frequency"), 80000000.0);
}

TEST_F(LockWorkflowsTest, GoesOnWhenNoneOfThe16AcquisitionsComes) {
    makeWorking();
    mRig.hardware->waits(std::vector<LockWait>(16, LockRig::kSilence));
    mWorkflows.start();
    EXPECT_EQ(mRig.log.count(Severity::Error, "irqFidDone not raised within 1 second"), 16U);
    EXPECT_EQ(mRegisters.pidITerm->value(), -7500);
}

TEST_F(LockWorkflowsTest, EndsWhenAnAcquisitionIsMissingAfterThePhaseCorrection) {
    makeWorking();
    std::vector<LockWait> waits(16 + 1 + 2 + 2 + 7); // settling, search, CIC, two of the loop, seven of 16
    waits.push_back(LockRig::kSilence);
    mRig.hardware->waits(waits);
    expectThrow<std::runtime_error>([&] { mWorkflows.start(); },
                                    "Did not get a lock FID in time. Context is awaiting few acquisitions to "
                                    "ensure phase correction is enabled");
}

TEST_F(LockWorkflowsTest, AsksForAShimFileWhenThereIsNoFIDAndNoShim) {
    mRegisters.maxSliceMagnitude->hold(0);
    mShims->zero = true;
    expectThrow<std::runtime_error>([&] { mWorkflows.start(); },
                                    "The lock signal could not be found.\n"
                                    "It might be due to all shim gradients currently being set to zero.\n\n"
                                    "Please load a shim file (ldshim) and try to lock again.");
    EXPECT_EQ(lines().back(),
              line(Severity::Error,
                   "No lock FID found but all shim gradients are set to 0 --> user must load a shim file.\n"
                   "Won't search for the field because without shim being set we might find the wrong "
                   "frequency."));
    EXPECT_EQ(frequencies().size(), 2U); // the reset's 0 Hz and the configured one: nothing was searched
    EXPECT_EQ(mShims->asked, 1);
}

TEST_F(LockWorkflowsTest, NamesTheFrequencyThatWouldDo) {
    mParameters->setMagnet1HFrequency(79900000.0);
    moveSignalTo(80500000.0);
    std::string const words = "Please change your spectrometer frequency to 80.500MHz and try again";
    expectThrow<std::runtime_error>([&] { mWorkflows.start(); }, words);
    EXPECT_EQ(mRegisters.dacData->value(), 0x40000000U);
    EXPECT_TRUE(mRig.log.has(Severity::Error,
                             "No lock FID found: will now swipe through the frequency range "
                             "to find it"));
    EXPECT_EQ(lines().back(), line(Severity::Error, "User informed: " + words));
    // on the way through the field the H0 output is at 0, too
    auto const actions = mRig.takeActions();
    EXPECT_THAT(actions, Contains("set data/dac_data = 1073741824").Times(testing::Ge(4)));
}

TEST_F(LockWorkflowsTest, SuspectsTheFactorWhenMegahertzAndHertzAreNear) {
    // Intended: 80.5 MHz found and 80 Hz configured differ by less than 1000.
    mParameters->setMagnet1HFrequency(80.0);
    moveSignalTo(80500000.0);
    std::string const rest = "Please try an cfgrevive of your spectrometer configuration and try again.";
    std::string const words =
        "The lock could not be started using the spectrometer frequency 80.000.\n\n"
        "A configuration file is missing.\n" +
        rest;
    expectThrow<std::runtime_error>([&] { mWorkflows.start(); }, words);
    auto const warnings = mRig.log.linesUpTo(Severity::Warning);
    EXPECT_THAT(
        warnings,
        Contains(line(Severity::Warning,
                      "Found 1H frequency (80.500000 Hz) is almost the same as configured frequency "
                      "(80.000000 Hz).This typically means that the 1H to 19F conversion factor is wrong or "
                      "missing.File /opt/panorin/conf/instr/spect/lock.config exists = 0")));
    EXPECT_EQ(lines().back(), line(Severity::Error, "User informed: " + words));

    writeFile(mDirectory.path() / "opt/panorin/conf/instr/spect/lock.config", "");
    expectThrow<std::runtime_error>(
        [&] { mWorkflows.start(); },
        "The lock could not be started using the spectrometer frequency 80.000.\n\n" + rest);
}

TEST_F(LockWorkflowsTest, StopsTheClockOfTheSequencerAndNothingElse) {
    mWorkflows.stop();
    EXPECT_THAT(mRig.takeJournal(), ElementsAre("set control/seq_clock_enable = 0"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "+stop"), line(Severity::Debug, "-stopped")));
}

TEST_F(LockWorkflowsTest, StartsAgainAfterAFailedStart) {
    makeWorking();
    mRig.hardware->waits(std::vector<LockWait>(17, LockRig::kSilence));
    EXPECT_THROW(mWorkflows.start(), std::runtime_error);
    makeWorking();
    mWorkflows.start();
    EXPECT_EQ(mRegisters.pidITerm->value(), -7500);
}

TEST_F(LockWorkflowsTest, EndsAheadOfTheNextWaitWhereverItIsAskedTo) {
    makeWorking();
    int waits = 0;
    mRig.onCycle = [&] { ++waits; };
    mWorkflows.start();
    int const allWaits = waits;
    EXPECT_EQ(allWaits, 16 + 1 + 2 + 2 + 16 + 1 + 10);
    for (int askedAt = 1; askedAt <= allWaits; ++askedAt) {
        LockWorkflows workflows(mRig.hardware, mRig.helper, mParameters, mRig.streams, mShims);
        makeWorking();
        waits = 0;
        mRig.onCycle = [&] {
            if (++waits == askedAt) {
                workflows.requestEnd();
            }
        };
        expectThrow<LockEndRequested>([&] { workflows.start(); }, "The lock start was asked to end.");
        EXPECT_EQ(waits, askedAt);
    }
}

TEST_F(LockWorkflowsTest, DoesNotTouchTheHardwareWhenAskedToEndBefore) {
    mWorkflows.requestEnd();
    EXPECT_THROW(mWorkflows.start(), LockEndRequested);
    EXPECT_THROW((void)mWorkflows.scanField(), LockEndRequested);
    EXPECT_THAT(mRig.takeJournal(), IsEmpty());
}

TEST_F(LockWorkflowsTest, TellsItsProgressAndNothingElseChanges) {
    makeWorking();
    mWorkflows.start();
    auto const quietLines = mRig.log.lines();
    auto const quietJournal = mRig.takeJournal();
    mRig.log.clear();
    makeWorking();
    LockWorkflows workflows(mRig.hardware, mRig.helper, mParameters, mRig.streams, mShims);
    mRig.takeJournal();
    std::vector<std::string> steps;
    workflows.setProgressObserver([&](LockProgress const& aProgress) {
        EXPECT_LE(aProgress.done, aProgress.total);
        if (steps.empty() || steps.back() != aProgress.step) {
            steps.emplace_back(aProgress.step);
        }
    });
    workflows.start();
    EXPECT_EQ(mRig.log.lines(), quietLines);
    EXPECT_EQ(mRig.takeJournal().size(), quietJournal.size());
    EXPECT_THAT(steps, ElementsAre("Setting the lock hardware up", "Letting the lock signal settle",
                                   "Searching the lock signal", "Setting the CIC shift",
                                   "Moving the lock signal to 0 Hz", "Letting the phase correction settle",
                                   "Optimizing the CIC shift", "Measuring the slope at 0 Hz", "Started"));
}
