// SPDX-License-Identifier: Apache-2.0
// Holds the operations of the lock hardware to their order, and each register to its type and its name.
#include "lock/hardware/LockHardwareInterface.h"
#include "support/FakeLockHardware.h"
#include "support/VirtualOrder.h"

#include <chrono>
#include <cstdint>
#include <istream>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::expectOrder;
using libfieldwarden::test::FakeLockHardware;
using libfieldwarden::test::row;

template <typename T>
using ReadOnly = std::shared_ptr<LockHardwareRegisterReadOnly<T>>() const;
template <typename T>
using ReadWrite = std::shared_ptr<LockHardwareRegister<T>>() const;
template <typename T>
using Clearable = std::shared_ptr<LockHardwareRegisterClearable<T>>() const;

} // namespace

TEST(LockHardwareOrder, TheInterfaceKeepsItsOperationsInPlace) {
    using I = LockHardwareInterface;
    // 5 operations and 78 registers
    expectOrder<I>(
        83, {
                row<void(double, unsigned int)>("setTx", &I::setTx),
                row<double() const>("getTxFrequency", &I::getTxFrequency),
                row<void(std::string const&)>("loadProgram", &I::loadProgram),
                row<void(std::istream&)>("loadWindow", &I::loadWindow),
                row<bool(std::chrono::milliseconds const&)>("waitForIRQ", &I::waitForIRQ),
                row<ReadWrite<bool>>("irqMaskAdcPllUnlocked", &I::irqMaskAdcPllUnlocked),
                row<ReadWrite<bool>>("irqMaskPllDdsUnlocked", &I::irqMaskPllDdsUnlocked),
                row<ReadWrite<bool>>("irqMaskPllDdsProfileUpdateBusyError",
                                     &I::irqMaskPllDdsProfileUpdateBusyError),
                row<ReadWrite<bool>>("irqMaskPllDdsIoUpdateBusyError", &I::irqMaskPllDdsIoUpdateBusyError),
                row<ReadWrite<bool>>("irqMaskDcCompOutOfRange", &I::irqMaskDcCompOutOfRange),
                row<ReadWrite<bool>>("irqMaskSeqInstrMemAccessError", &I::irqMaskSeqInstrMemAccessError),
                row<ReadWrite<bool>>("irqMaskSeqError", &I::irqMaskSeqError),
                row<ReadWrite<bool>>("irqMaskPidOveflow", &I::irqMaskPidOveflow),
                row<ReadWrite<bool>>("irqMaskFidOverflow", &I::irqMaskFidOverflow),
                row<ReadWrite<bool>>("irqMaskFidDone", &I::irqMaskFidDone),
                row<Clearable<bool>>("statusAdcPllUnlocked", &I::statusAdcPllUnlocked),
                row<Clearable<bool>>("statusPllDdsUnlocked", &I::statusPllDdsUnlocked),
                row<Clearable<bool>>("statusPllDdsProfileUpdateBusyError",
                                     &I::statusPllDdsProfileUpdateBusyError),
                row<Clearable<bool>>("statusPllDdsIoUpdateBusyError", &I::statusPllDdsIoUpdateBusyError),
                row<Clearable<bool>>("statusDcCompOutOfRange", &I::statusDcCompOutOfRange),
                row<Clearable<bool>>("statusSeqInstrMemeAccessError", &I::statusSeqInstrMemeAccessError),
                row<Clearable<bool>>("statusSeqError", &I::statusSeqError),
                row<Clearable<LockHardwareSeqErrorCode>>("statusSeqErrorCode", &I::statusSeqErrorCode),
                row<Clearable<bool>>("statusPidOverflow", &I::statusPidOverflow),
                row<Clearable<bool>>("statusFidOverflow", &I::statusFidOverflow),
                row<Clearable<bool>>("statusFidDone", &I::statusFidDone),
                row<Clearable<bool>>("statusFdError", &I::statusFdError),
                row<Clearable<bool>>("statusFirReady", &I::statusFirReady),
                row<Clearable<bool>>("statusDacConfReady", &I::statusDacConfReady),
                row<Clearable<std::uint16_t>>("statusErrorAddress", &I::statusErrorAddress),
                row<ReadOnly<std::int16_t>>("maxSlicePosition", &I::maxSlicePosition),
                row<ReadWrite<std::int32_t>>("dcOutOfRangeThreshold", &I::dcOutOfRangeThreshold),
                row<ReadWrite<std::uint32_t>>("fftZeros", &I::fftZeros),
                row<ReadWrite<std::uint32_t>>("dacData", &I::dacData),
                row<ReadOnly<long long>>("maxSliceMagnitude", &I::maxSliceMagnitude),
                row<ReadWrite<bool>>("meanAverageControlByPass", &I::meanAverageControlByPass),
                row<ReadWrite<bool>>("fixedAverageControlByPass", &I::fixedAverageControlByPass),
                row<ReadWrite<std::uint8_t>>("fidShift", &I::fidShift),
                row<ReadOnly<std::int32_t>>("fidMaxSlice", &I::fidMaxSlice),
                row<ReadWrite<bool>>("windowDisable", &I::windowDisable),
                row<ReadWrite<bool>>("phaseCorrectionByPass", &I::phaseCorrectionByPass),
                row<ReadWrite<bool>>("singlePhaseUpdate", &I::singlePhaseUpdate),
                row<ReadWrite<bool>>("fredOutputEnable", &I::fredOutputEnable),
                row<ReadWrite<bool>>("fredOutputClear", &I::fredOutputClear),
                row<ReadWrite<LockHardwareFredSource>>("fredOutputSelect", &I::fredOutputSelect),
                row<ReadOnly<std::uint32_t>>("phaseCorrection", &I::phaseCorrection),
                row<ReadWrite<std::uint8_t>>("fidGroupDelay", &I::fidGroupDelay),
                row<ReadWrite<std::uint32_t>>("fidPhaseCorrection", &I::fidPhaseCorrection),
                row<ReadWrite<long long>>("fredOffset", &I::fredOffset),
                row<ReadWrite<std::uint32_t>>("fredCoefOrder1", &I::fredCoefOrder1),
                row<ReadWrite<std::uint32_t>>("fredCoefOrder2", &I::fredCoefOrder2),
                row<ReadWrite<std::uint8_t>>("fredShift", &I::fredShift),
                row<ReadWrite<bool>>("pidControlClear", &I::pidControlClear),
                row<ReadWrite<long long>>("pidSetPoint", &I::pidSetPoint),
                row<ReadWrite<std::uint8_t>>("pidDerivativeOrder", &I::pidDerivativeOrder),
                row<ReadWrite<std::int32_t>>("pidPTerm", &I::pidPTerm),
                row<ReadWrite<std::int32_t>>("pidITerm", &I::pidITerm),
                row<ReadWrite<std::int32_t>>("pidDTerm", &I::pidDTerm),
                row<ReadWrite<std::int32_t>>("pidOutputOffset", &I::pidOutputOffset),
                row<ReadWrite<std::uint8_t>>("pidOutputShift", &I::pidOutputShift),
                row<ReadWrite<std::uint8_t>>("pidInputShift", &I::pidInputShift),
                row<ReadWrite<bool>>("pidEnableScaler", &I::pidEnableScaler),
                row<ReadWrite<bool>>("timeDomainItf", &I::timeDomainItf),
                row<ReadWrite<bool>>("timeDomainSrc", &I::timeDomainSrc),
                row<ReadWrite<bool>>("fftItfEnable", &I::fftItfEnable),
                row<ReadWrite<bool>>("pidItfEnable", &I::pidItfEnable),
                row<ReadWrite<bool>>("singleFdTransfer", &I::singleFdTransfer),
                row<ReadWrite<bool>>("singleTdTransfer", &I::singleTdTransfer),
                row<ReadWrite<std::uint8_t>>("streamPacketSize", &I::streamPacketSize),
                row<ReadWrite<bool>>("mainReset", &I::mainReset),
                row<ReadWrite<bool>>("seqClockEnable", &I::seqClockEnable),
                row<ReadWrite<bool>>("seqStart", &I::seqStart),
                row<ReadWrite<LockHardwareDacConfMode>>("dacConfMode", &I::dacConfMode),
                row<ReadWrite<bool>>("ioUpdate", &I::ioUpdate),
                row<ReadWrite<LockHardwareStreamControl>>("streamControl", &I::streamControl),
                row<ReadWrite<bool>>("noUseDac", &I::noUseDac),
                row<ReadWrite<bool>>("tdStreamNoWait", &I::tdStreamNoWait),
                row<ReadWrite<bool>>("triggerIn", &I::triggerIn),
                row<ReadWrite<bool>>("triggerOut", &I::triggerOut),
                row<ReadWrite<bool>>("seqIrqTest", &I::seqIrqTest),
                row<ReadWrite<bool>>("seqIrqTestEnable", &I::seqIrqTestEnable),
                row<ReadWrite<bool>>("lockWindowTest", &I::lockWindowTest),
                row<ReadWrite<bool>>("enableTestDac", &I::enableTestDac),
            });
}

TEST(LockHardwareOrder, EachRegisterBearsItsPathAsItsName) {
    FakeLockHardware const hardware;
    EXPECT_EQ(hardware.irqMaskAdcPllUnlocked()->name, "irq/adc_pll_unlocked_mask");
    EXPECT_EQ(hardware.irqMaskPllDdsUnlocked()->name, "irq/dds_pll_unlocked_mask");
    EXPECT_EQ(hardware.irqMaskPllDdsProfileUpdateBusyError()->name, "irq/dds_pll_busy_mask");
    EXPECT_EQ(hardware.irqMaskPllDdsIoUpdateBusyError()->name, "irq/dds_pll_io_error_mask");
    EXPECT_EQ(hardware.irqMaskDcCompOutOfRange()->name, "irq/dc_out_of_range_mask");
    EXPECT_EQ(hardware.irqMaskSeqInstrMemAccessError()->name, "irq/seq_instr_mem_error_mask");
    EXPECT_EQ(hardware.irqMaskSeqError()->name, "irq/seq_error_mask");
    EXPECT_EQ(hardware.irqMaskPidOveflow()->name, "irq/pid_overflow_mask");
    EXPECT_EQ(hardware.irqMaskFidOverflow()->name, "irq/fid_overflow_mask");
    EXPECT_EQ(hardware.irqMaskFidDone()->name, "irq/fid_done_mask");
    EXPECT_EQ(hardware.statusAdcPllUnlocked()->name, "status/adc_pll_unlocked");
    EXPECT_EQ(hardware.statusPllDdsUnlocked()->name, "status/dds_pll_unlocked");
    EXPECT_EQ(hardware.statusPllDdsProfileUpdateBusyError()->name, "status/dds_pll_busy");
    EXPECT_EQ(hardware.statusPllDdsIoUpdateBusyError()->name, "status/update_busy_error");
    EXPECT_EQ(hardware.statusDcCompOutOfRange()->name, "status/dc_out_of_range");
    EXPECT_EQ(hardware.statusSeqInstrMemeAccessError()->name, "status/seq_instr_mem_error");
    EXPECT_EQ(hardware.statusSeqError()->name, "status/seq_error");
    EXPECT_EQ(hardware.statusSeqErrorCode()->name, "status/seq_error_code");
    EXPECT_EQ(hardware.statusPidOverflow()->name, "status/pid_overflow");
    EXPECT_EQ(hardware.statusFidOverflow()->name, "status/fid_overflow");
    EXPECT_EQ(hardware.statusFidDone()->name, "status/fid_done");
    EXPECT_EQ(hardware.statusFdError()->name, "status/fd_error");
    EXPECT_EQ(hardware.statusFirReady()->name, "status/fir_ready");
    EXPECT_EQ(hardware.statusDacConfReady()->name, "status/dac_conf_ready");
    EXPECT_EQ(hardware.statusErrorAddress()->name, "status/error_address");
    EXPECT_EQ(hardware.maxSlicePosition()->name, "data/max_slice_position");
    EXPECT_EQ(hardware.dcOutOfRangeThreshold()->name, "data/dc_out_of_range_threshold");
    EXPECT_EQ(hardware.fftZeros()->name, "data/fft_zeros");
    EXPECT_EQ(hardware.dacData()->name, "data/dac_data");
    EXPECT_EQ(hardware.maxSliceMagnitude()->name, "data/max_slice_magnitude");
    EXPECT_EQ(hardware.meanAverageControlByPass()->name, "data/mean_average_control_bypass");
    EXPECT_EQ(hardware.fixedAverageControlByPass()->name, "data/fixed_average_control_bypass");
    EXPECT_EQ(hardware.fidShift()->name, "data/fid_shift");
    EXPECT_EQ(hardware.fidMaxSlice()->name, "data/fid_max_slice");
    EXPECT_EQ(hardware.windowDisable()->name, "data/window_disable");
    EXPECT_EQ(hardware.phaseCorrectionByPass()->name, "data/phase_correction_bypass");
    EXPECT_EQ(hardware.singlePhaseUpdate()->name, "data/single_phase_update");
    EXPECT_EQ(hardware.fredOutputEnable()->name, "data/fred_output_enable");
    EXPECT_EQ(hardware.fredOutputClear()->name, "data/fred_output_clear");
    EXPECT_EQ(hardware.fredOutputSelect()->name, "data/fred_output_select");
    EXPECT_EQ(hardware.phaseCorrection()->name, "data/phase_correction");
    EXPECT_EQ(hardware.fidGroupDelay()->name, "data/fid_group_delay");
    EXPECT_EQ(hardware.fidPhaseCorrection()->name, "data/fid_phase_correction");
    EXPECT_EQ(hardware.fredOffset()->name, "data/fred_offset");
    EXPECT_EQ(hardware.fredCoefOrder1()->name, "data/fred_coef_order1");
    EXPECT_EQ(hardware.fredCoefOrder2()->name, "data/fred_coef_order2");
    EXPECT_EQ(hardware.fredShift()->name, "data/fred_shift");
    EXPECT_EQ(hardware.pidControlClear()->name, "pid/control_clear");
    EXPECT_EQ(hardware.pidSetPoint()->name, "pid/setpoint");
    EXPECT_EQ(hardware.pidDerivativeOrder()->name, "pid/derivative_order");
    EXPECT_EQ(hardware.pidPTerm()->name, "pid/p_term");
    EXPECT_EQ(hardware.pidITerm()->name, "pid/i_term");
    EXPECT_EQ(hardware.pidDTerm()->name, "pid/d_term");
    EXPECT_EQ(hardware.pidOutputOffset()->name, "pid/output_offset");
    EXPECT_EQ(hardware.pidOutputShift()->name, "pid/output_shift");
    EXPECT_EQ(hardware.pidInputShift()->name, "pid/input_shift");
    EXPECT_EQ(hardware.pidEnableScaler()->name, "pid/enable_scaler");
    EXPECT_EQ(hardware.timeDomainItf()->name, "log/time_domain_itf");
    EXPECT_EQ(hardware.timeDomainSrc()->name, "log/time_domain_src");
    EXPECT_EQ(hardware.fftItfEnable()->name, "log/fft_itf_enable");
    EXPECT_EQ(hardware.pidItfEnable()->name, "log/pid_itf_enable");
    EXPECT_EQ(hardware.singleFdTransfer()->name, "log/single_fd_transfer");
    EXPECT_EQ(hardware.singleTdTransfer()->name, "log/single_td_transfer");
    EXPECT_EQ(hardware.streamPacketSize()->name, "log/stream_packet_size");
    EXPECT_EQ(hardware.mainReset()->name, "control/main_reset");
    EXPECT_EQ(hardware.seqClockEnable()->name, "control/seq_clock_enable");
    EXPECT_EQ(hardware.seqStart()->name, "control/seq_start");
    EXPECT_EQ(hardware.dacConfMode()->name, "control/dac_conf_mode");
    EXPECT_EQ(hardware.ioUpdate()->name, "control/io_update");
    EXPECT_EQ(hardware.streamControl()->name, "control/stream_control");
    EXPECT_EQ(hardware.noUseDac()->name, "control/no_use_dac");
    EXPECT_EQ(hardware.tdStreamNoWait()->name, "control/td_stream_no_wait");
    EXPECT_EQ(hardware.triggerIn()->name, "control/trigger_in");
    EXPECT_EQ(hardware.triggerOut()->name, "control/trigger_out");
    EXPECT_EQ(hardware.seqIrqTest()->name, "control/seq_irq_test");
    EXPECT_EQ(hardware.seqIrqTestEnable()->name, "control/seq_irq_test_enable");
    EXPECT_EQ(hardware.lockWindowTest()->name, "control/lock_window_test");
    EXPECT_EQ(hardware.enableTestDac()->name, "control/enable_test_dac");
}
