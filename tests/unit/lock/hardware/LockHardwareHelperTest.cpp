// SPDX-License-Identifier: Apache-2.0
// The sequences on the lock hardware: reset in its order, FID presence, checks and dumps.
#include "lock/hardware/LockHardwareHelper.h"
#include "support/ExpectThrow.h"
#include "support/FakeDataLogger.h"
#include "support/FakeLockHardware.h"
#include "support/LockRegisterFiles.h"
#include "support/LogCapture.h"

#include <chrono>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace libfieldwarden::test {

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

class LockHardwareHelperTest : public testing::Test {
protected:
    LockHardwareHelperTest() { mLog.clear(); }

    std::vector<CapturedLine> ownLines() const { return mLog.linesOf("LockHardwareHelper"); }

    bool hasFID(int aShift, long long aMagnitude) {
        mHardware->registers.fidShift->hold(static_cast<std::uint8_t>(aShift));
        mHardware->registers.maxSliceMagnitude->hold(aMagnitude);
        return mHelper.hasFID();
    }
    void silence() {
        mHardware->onWait([](milliseconds /*aTimeout*/) { return false; });
    }
    /// An acquisition brings an FID at shift 10, or an overflow.
    void acquire(long long aMagnitude, bool aOverflow = false) {
        mHardware->registers.fidShift->hold(10);
        mHardware->onCycle([this, aMagnitude, aOverflow] {
            mHardware->registers.maxSliceMagnitude->hold(aMagnitude);
            mHardware->registers.statusFidOverflow->hold(aOverflow);
        });
    }

    LogCapture mLog;
    std::shared_ptr<FakeLockHardware> mHardware = std::make_shared<FakeLockHardware>();
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    LockHardwareHelper mHelper{mHardware, mDataLogger};
};

constexpr long long kThreshold = 53'687'091; // 0x3333333, at shift 10

std::vector<std::string> resetJournal() {
    return {
        "set control/seq_clock_enable = 0",
        // mask and clear, source by source
        "set status/adc_pll_unlocked = 1",
        "set irq/adc_pll_unlocked_mask = 0",
        "set status/dds_pll_unlocked = 1",
        "set irq/dds_pll_unlocked_mask = 0",
        "set status/dds_pll_busy = 1",
        "set irq/dds_pll_busy_mask = 0",
        "set status/update_busy_error = 1",
        "set irq/dds_pll_io_error_mask = 0",
        "set status/dc_out_of_range = 1",
        "set irq/dc_out_of_range_mask = 0",
        "set status/seq_instr_mem_error = 1",
        "set irq/seq_instr_mem_error_mask = 0",
        "set status/seq_error = 1",
        "set irq/seq_error_mask = 0",
        "set status/pid_overflow = 1",
        "set irq/pid_overflow_mask = 0",
        "set status/fid_overflow = 1",
        "set irq/fid_overflow_mask = 0",
        "set status/fid_done = 1",
        "set irq/fid_done_mask = 0",
        "set control/main_reset = 1",
        "set control/main_reset = 0",
        "set status/fir_ready = 1",
        "set status/dac_conf_ready = 1",
        "set status/error_address = 65535",
        "set status/seq_error_code = ALL_FOR_CLEAR",
        "set status/fd_error = 1",
        "setTx(0, 0)",
        "set control/dac_conf_mode = UseDataReg (0)",
        "set data/dac_data = 1073741824",
        "set control/no_use_dac = 0", // 0x40000000
        "set control/trigger_in = 0",
        "set control/trigger_out = 0",
        "set pid/d_term = 0",
        "set pid/i_term = 0",
        "set pid/p_term = 0",
        "set pid/derivative_order = 0",
        "set pid/setpoint = 0",
        "set pid/input_shift = 0",
        "set pid/output_shift = 0",
        "set pid/enable_scaler = 0",
        "set pid/output_offset = 0",
        "set pid/control_clear = 1",
        "set pid/control_clear = 0",
        "set data/fred_output_enable = 0",
        "set data/fred_offset = 0",
        "set data/fred_coef_order1 = 0",
        "set data/fred_coef_order2 = 0",
        "set data/fred_shift = 0",
        "set data/fred_output_select = UseDataReg (0)",
        "set data/fred_output_clear = 1",
        "set data/fred_output_clear = 0",
        "set control/stream_control = Registers (0)",
        "set log/fft_itf_enable = 0",
        "set log/pid_itf_enable = 0",
        "set log/time_domain_itf = 0",
        "set data/fid_phase_correction = 0",
        "set data/mean_average_control_bypass = 0",
        "set data/fixed_average_control_bypass = 0",
        "set data/window_disable = 0",
        "set data/phase_correction_bypass = 0",
        "set control/lock_window_test = 0",
        "set control/seq_irq_test_enable = 0",
        "set control/td_stream_no_wait = 0",
    };
}

} // namespace

// --- what it is made of

TEST_F(LockHardwareHelperTest, TouchesNoHardwareWhenItIsMade) {
    LockHardwareHelper const another(mHardware, mDataLogger);
    EXPECT_THAT(mHardware->takeJournal(), IsEmpty());
    EXPECT_EQ(another.datalogger(), mDataLogger);
}

TEST_F(LockHardwareHelperTest, ListsTheInterruptsInTheirOrder) {
    std::vector<std::string> names;
    for (auto const& irq : mHelper.irqs()) {
        names.push_back(irq->name());
    }
    EXPECT_THAT(names, ElementsAre("status/adc_pll_unlocked", "status/dds_pll_unlocked",
                                   "status/dds_pll_busy", "status/update_busy_error",
                                   "status/dc_out_of_range", "status/seq_instr_mem_error", "status/seq_error",
                                   "status/pid_overflow", "status/fid_overflow", "status/fid_done"));
    EXPECT_THAT(
        mHelper.irqs(),
        ElementsAre(mHelper.irqAdcPllUnlocked(), mHelper.irqPllDdsUnlocked(),
                    mHelper.irqPllDdsProfileUpdateBusyError(), mHelper.irqPllDdsIoUpdateError(),
                    mHelper.irqDcCompOutOfRange(), mHelper.irqSeqInstrMemAccessError(), mHelper.irqSeqError(),
                    mHelper.irqPidOverflow(), mHelper.irqFidOverflow(), mHelper.irqFidDone()));
}

TEST_F(LockHardwareHelperTest, ListsTheMasks) {
    std::vector<std::string> names;
    for (auto const& mask : mHelper.irqMaskRegisters()) {
        names.push_back(mask->name);
    }
    EXPECT_THAT(names,
                ElementsAre("irq/adc_pll_unlocked_mask", "irq/dds_pll_unlocked_mask", "irq/dds_pll_busy_mask",
                            "irq/dds_pll_io_error_mask", "irq/dc_out_of_range_mask",
                            "irq/seq_instr_mem_error_mask", "irq/seq_error_mask", "irq/pid_overflow_mask",
                            "irq/fid_overflow_mask", "irq/fid_done_mask"));
}

TEST_F(LockHardwareHelperTest, ListsEveryRegister) {
    std::vector<std::string> names;
    for (auto const& each : mHelper.registers()) {
        names.push_back(each->name);
    }
    std::vector<std::string> expected;
    for (auto const& each : kLockRegisterFiles) {
        expected.emplace_back(each.path);
    }
    EXPECT_EQ(names, expected);
}

TEST_F(LockHardwareHelperTest, MakesTheWordsOfTheDac) {
    EXPECT_EQ(LockHardwareHelper::intToDAC(0), 0x40000000U);
    EXPECT_EQ(LockHardwareHelper::intToDAC(1), 0x40000001U);
    EXPECT_EQ(LockHardwareHelper::intToDAC(-1), 0x40FFFFFFU);
    EXPECT_EQ(LockHardwareHelper::intToDAC(8388607), 0x407FFFFFU);
    EXPECT_EQ(LockHardwareHelper::intToDAC(-8388608), 0x40800000U);
}

// --- idle state

TEST_F(LockHardwareHelperTest, ResetsInTheBindingOrder) {
    mHelper.reset();
    EXPECT_THAT(mHardware->takeActions(), ElementsAreArray(resetJournal()));
}

TEST_F(LockHardwareHelperTest, TellsTheStepsOfTheReset) {
    mHelper.reset();
    EXPECT_THAT(
        ownLines(),
        ElementsAre(line(Severity::Debug, "+reset"),
                    line(Severity::Debug, "~reset: ensure sequencer clock are disabled"),
                    line(Severity::Debug, "~reset: mask all interrupts sources and clear them"),
                    line(Severity::Debug, "~reset: toggle main reset"),
                    line(Severity::Debug, "~reset: clear status registers after main reset"),
                    line(Severity::Debug, "~reset: set TX amplitude and frequency to zero"),
                    line(Severity::Debug, "~reset: set H0 output to zero"),
                    line(Severity::Info, "+setLockDACToZero"),
                    line(Severity::Debug, "~reset: set triggers (in/out) to low"),
                    line(Severity::Debug, "~reset: set all PIDs parameters to zero and clear it"),
                    line(Severity::Debug, "~reset: disable and clear FRED output"),
                    line(Severity::Debug, "~reset: give streaming control to the registers and disable all"),
                    line(Severity::Debug, "~reset: enforce some control bits that are never touched"),
                    line(Severity::Debug, "-reset")));
    EXPECT_EQ(ownLines().front().category, "Lock");
}

TEST_F(LockHardwareHelperTest, ResettingTwiceIsAsResettingOnce) {
    auto const dump = [&] {
        std::ostringstream stream;
        mHelper.dumpRegisters(stream);
        return stream.str();
    };
    mHardware->registers.pidPTerm->hold(7);
    mHardware->registers.statusSeqErrorCode->hold(LockHardwareSeqErrorCode::InvalidOpCode);
    mHelper.reset();
    std::string const once = dump();
    mHelper.reset();
    EXPECT_EQ(dump(), once);
}

TEST_F(LockHardwareHelperTest, WhatTheHardwareThrowsEndsTheReset) {
    mHardware->fail("setTx", "no main board");
    expectThrow<std::runtime_error>([&] { mHelper.reset(); }, "no main board");
    EXPECT_EQ(mHardware->takeActions().back(), "setTx(0, 0)");
}

TEST_F(LockHardwareHelperTest, SetsTheFieldToZeroFromTheDataRegister) {
    mHardware->registers.dacConfMode->hold(LockHardwareDacConfMode::UsePIDOutput);
    mHelper.setLockDACToZero();
    EXPECT_THAT(mHardware->takeActions(),
                ElementsAre("set control/dac_conf_mode = UseDataReg (0)", "set data/dac_data = 1073741824",
                            "set control/no_use_dac = 0"));
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Info, "+setLockDACToZero")));
}

// --- the FID

TEST_F(LockHardwareHelperTest, AMagnitudeAtTheThresholdIsAnFID) {
    EXPECT_TRUE(hasFID(10, kThreshold));
    EXPECT_FALSE(hasFID(10, kThreshold - 1));
}

TEST_F(LockHardwareHelperTest, TheThresholdFollowsTheShift) {
    EXPECT_TRUE(hasFID(11, 107'374'182));
    EXPECT_FALSE(hasFID(11, 107'374'181));
    EXPECT_TRUE(hasFID(9, 26'843'545)); // rounded down
    EXPECT_FALSE(hasFID(9, 26'843'544));
    EXPECT_TRUE(hasFID(0, 52'428)); // 53687091 / 1024 = 52428.8
    EXPECT_FALSE(hasFID(0, 52'427));
    EXPECT_TRUE(hasFID(31, 53'687'091LL << 21)); // beyond 32 bits
    EXPECT_FALSE(hasFID(31, (53'687'091LL << 21) - 1));
}

TEST_F(LockHardwareHelperTest, NoMagnitudeReachesTheThresholdOfAnAbsurdShift) {
    EXPECT_FALSE(hasFID(255, 1LL << 62));
    EXPECT_FALSE(hasFID(48, 1LL << 62));
}

TEST_F(LockHardwareHelperTest, ANegativeMagnitudeIsNoFID) {
    EXPECT_FALSE(hasFID(0, -1));
}

TEST_F(LockHardwareHelperTest, TellsHowItDecidesOnAnFID) {
    hasFID(11, 5);
    EXPECT_THAT(
        ownLines(),
        ElementsAre(line(Severity::Trace, "Initial threshold is 53687091"),
                    line(Severity::Trace,
                         "hadFID: CIC shift is 11, shift is 1, threshold for FID detection is now 107374182"),
                    line(Severity::Trace,
                         "hasFID: got a maxSliceMagnitude of 5 while threshold for FID "
                         "presence is 107374182. Will return 0")));
}

TEST_F(LockHardwareHelperTest, TestsWhetherAnAcquisitionHasAnFID) {
    acquire(kThreshold);
    EXPECT_TRUE(mHelper.testIfFID());
    EXPECT_EQ(ownLines().front(), line(Severity::Trace, "+testIfFID"));
    EXPECT_THAT(mHardware->takeActions(),
                ElementsAre("set status/fid_overflow = 1", "set status/fid_done = 1",
                            "set irq/fid_done_mask = 1", "waitForIRQ(1000 ms)", "set irq/fid_done_mask = 0"));
    acquire(kThreshold - 1);
    EXPECT_FALSE(mHelper.testIfFID());
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), IsEmpty());
}

TEST_F(LockHardwareHelperTest, AnOverflowIsTakenForAnFID) {
    acquire(0, true);
    EXPECT_TRUE(mHelper.testIfFID());
    EXPECT_THAT(
        ownLines(),
        ElementsAre(line(Severity::Trace, "+testIfFID"),
                    line(Severity::Error, "~testIfFID: got and FID overflow, considering this is an FID")));
}

TEST_F(LockHardwareHelperTest, NoAcquisitionIsNoFID) {
    silence();
    EXPECT_FALSE(mHelper.testIfFID());
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Trace, "+testIfFID"),
                                        line(Severity::Error, "~testIfFID: did not get FID done interrupt")));
}

TEST_F(LockHardwareHelperTest, WaitsForAnFID) {
    acquire(kThreshold);
    EXPECT_NO_THROW(mHelper.waitForFID("a search"));
    EXPECT_EQ(ownLines().front().text, "+waitForFID(context = a search)");
    EXPECT_THAT(mHardware->takeActions(),
                ElementsAre("set status/fid_overflow = 1", "set status/fid_done = 1",
                            "set irq/fid_done_mask = 1", "waitForIRQ(1000 ms)", "set irq/fid_done_mask = 0"));
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), IsEmpty());
}

TEST_F(LockHardwareHelperTest, WaitingForAnFIDFailsWithoutAnAcquisition) {
    silence();
    expectThrow<std::runtime_error>([&] { mHelper.waitForFID("a search"); },
                                    "Did not get a lock FID in time. Context is a search");
    EXPECT_TRUE(mLog.has(Severity::Error, "~waitForFID: did not get FID done interrupt. Context = a search"));
}

TEST_F(LockHardwareHelperTest, WaitingForAnFIDFailsWithAnExceptionOfItsOwnOnOverflow) {
    acquire(kThreshold, true);
    expectThrow<std::out_of_range>([&] { mHelper.waitForFID("a search"); },
                                   "Lock FID overflow. Context is a search");
    EXPECT_TRUE(mLog.has(Severity::Error, "~waitForFID: got and FID overflow. Context = a search"));
}

TEST_F(LockHardwareHelperTest, WaitingForAnFIDFailsWithoutOneInTheAcquisition) {
    acquire(kThreshold - 1);
    expectThrow<std::runtime_error>([&] { mHelper.waitForFID("a search"); },
                                    "Did not get a lock FID. Context is a search");
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "~waitForFID: got FID done interrupt, but hasFID() is false. Context = a search"));
}

TEST_F(LockHardwareHelperTest, AnOldOverflowDoesNotCount) {
    mHardware->registers.statusFidOverflow->hold(true);
    mHardware->registers.fidShift->hold(10);
    mHardware->registers.maxSliceMagnitude->hold(kThreshold);
    EXPECT_NO_THROW(mHelper.waitForFID("a search"));
}

// --- checks

TEST_F(LockHardwareHelperTest, IsReadyWhenNothingIsWrong) {
    std::ostringstream told;
    EXPECT_TRUE(mHelper.checkReadyToWork(told));
    EXPECT_EQ(told.str(), "");
}

TEST_F(LockHardwareHelperTest, TellsAllThatIsWrong) {
    mHardware->registers.statusAdcPllUnlocked->hold(true);
    mHardware->registers.statusPllDdsUnlocked->hold(true);
    mHardware->registers.statusPllDdsProfileUpdateBusyError->hold(true);
    mHardware->registers.statusPllDdsIoUpdateBusyError->hold(true);
    mHardware->registers.statusDcCompOutOfRange->hold(true);
    mHardware->registers.statusSeqInstrMemeAccessError->hold(true);
    mHardware->registers.statusSeqError->hold(true);
    mHardware->registers.statusSeqErrorCode->hold(LockHardwareSeqErrorCode::JumpAddressOutOfRange);
    std::ostringstream told;
    EXPECT_FALSE(mHelper.checkReadyToWork(told));
    EXPECT_EQ(told.str(),
              "ADC PLL is UNLOCKED\n"
              "PLL DDS is UNLOCKED\n"
              "PLL DDS profile update busy error\n"
              "PLL DDS IO update busy error\n"
              "DC comp out of range\n"
              "sequency instruction memory access error\n"
              "sequencer error is 3\n");
    EXPECT_THAT(mHardware->takeActions(), IsEmpty()); // nothing is cleared
}

TEST_F(LockHardwareHelperTest, OneWrongThingIsEnough) {
    mHardware->registers.statusDcCompOutOfRange->hold(true);
    std::ostringstream told;
    EXPECT_FALSE(mHelper.checkReadyToWork(told));
    EXPECT_EQ(told.str(), "DC comp out of range\n");
}

TEST_F(LockHardwareHelperTest, ReadsTheSevenStatusesInOrder) {
    std::ostringstream told;
    mHelper.checkReadyToWork(told);
    EXPECT_THAT(mHardware->takeJournal(),
                ElementsAre("get status/adc_pll_unlocked = 0", "get status/dds_pll_unlocked = 0",
                            "get status/dds_pll_busy = 0", "get status/update_busy_error = 0",
                            "get status/dc_out_of_range = 0", "get status/seq_instr_mem_error = 0",
                            "get status/seq_error = 0"));
}

TEST_F(LockHardwareHelperTest, NamesTheActiveInterrupts) {
    EXPECT_EQ(mHelper.activeIRQsAsString(), "");
    mHardware->registers.statusFidDone->hold(true);
    EXPECT_EQ(mHelper.activeIRQsAsString(), "status/fid_done");
    mHardware->registers.statusAdcPllUnlocked->hold(true);
    mHardware->registers.statusSeqError->hold(true);
    EXPECT_EQ(mHelper.activeIRQsAsString(), "status/adc_pll_unlocked, status/seq_error, status/fid_done");
}

TEST_F(LockHardwareHelperTest, MasksAndClearsAllInterrupts) {
    mHelper.maskClearCheckIRQs();
    auto const entries = mHardware->takeActions();
    auto const reset = resetJournal();
    // behind the clock of the reset stand exactly these
    EXPECT_EQ(entries, std::vector<std::string>(reset.begin() + 1, reset.begin() + 21));
}

TEST_F(LockHardwareHelperTest, DumpsALineForEachRegister) {
    mHardware->registers.fidShift->hold(10);
    mHardware->registers.maxSliceMagnitude->hold(4294967298);
    mHardware->registers.fredOutputSelect->hold(LockHardwareFredSource::UsePolynom);
    std::ostringstream dump;
    mHelper.dumpRegisters(dump);
    std::string expected;
    for (auto const& each : kLockRegisterFiles) {
        std::string const name(each.path);
        expected += name + " = ";
        expected += name == "data/fid_shift"             ? "10"
                    : name == "data/max_slice_magnitude" ? "4294967298"
                    : name == "data/fred_output_select"  ? "UsePolynom (1)"
                    : name == "control/dac_conf_mode"    ? "UseDataReg (0)"
                    : name == "control/stream_control"   ? "Registers (0)"
                    : name == "status/seq_error_code"    ? "NO ERROR (0)"
                                                         : "0";
        expected += '\n';
    }
    EXPECT_EQ(dump.str(), expected);
    auto const lines = ownLines();
    ASSERT_EQ(lines.size(), 80U); // 78 registers between begin and end
    EXPECT_EQ(lines.front().text, "+dumpRegisters");
    EXPECT_EQ(lines[1].text, "dumping register irq/adc_pll_unlocked_mask");
    EXPECT_EQ(lines[78].text, "dumping register control/enable_test_dac");
    EXPECT_EQ(lines.back().text, "-dumpRegisters");
}

TEST_F(LockHardwareHelperTest, ARegisterThatCannotBeReadEndsWhatAsksForIt) {
    auto const unreadable = []() -> bool {
        throw std::invalid_argument("Cannot convert value '' to boolean");
    };
    mHardware->registers.statusDcCompOutOfRange->compute(unreadable);
    std::ostringstream stream;
    expectThrow<std::invalid_argument>([&] { mHelper.checkReadyToWork(stream); },
                                       "Cannot convert value '' to boolean");
    expectThrow<std::invalid_argument>([&] { mHelper.activeIRQsAsString(); },
                                       "Cannot convert value '' to boolean");
    expectThrow<std::invalid_argument>([&] { mHelper.dumpRegisters(stream); },
                                       "Cannot convert value '' to boolean");
}

} // namespace libfieldwarden::test
