// SPDX-License-Identifier: Apache-2.0
// The map of the sequencer's registers, once: from it come the accessors of LockHardwareInterface, the
// register objects of LockQ47Hardware in their order, and the list that is dumped.
#pragma once

// Each group calls ROW(accessor, path below the root, access, type of the value) for its registers. The
// access is the word ahead of "Register" in the type: ReadOnlyRegister, ReadWriteRegister, ClearableRegister.
// Two registers are groups of their own since they are made late.
// clang-format off
#define LOCK_REGISTERS_IRQ_MASKS(ROW) \
    ROW(irqMaskAdcPllUnlocked, "irq/adc_pll_unlocked_mask", ReadWrite, bool) \
    ROW(irqMaskPllDdsUnlocked, "irq/dds_pll_unlocked_mask", ReadWrite, bool) \
    ROW(irqMaskPllDdsProfileUpdateBusyError, "irq/dds_pll_busy_mask", ReadWrite, bool) \
    ROW(irqMaskPllDdsIoUpdateBusyError, "irq/dds_pll_io_error_mask", ReadWrite, bool) \
    ROW(irqMaskDcCompOutOfRange, "irq/dc_out_of_range_mask", ReadWrite, bool) \
    ROW(irqMaskSeqInstrMemAccessError, "irq/seq_instr_mem_error_mask", ReadWrite, bool) \
    ROW(irqMaskSeqError, "irq/seq_error_mask", ReadWrite, bool) \
    ROW(irqMaskPidOveflow, "irq/pid_overflow_mask", ReadWrite, bool) \
    ROW(irqMaskFidOverflow, "irq/fid_overflow_mask", ReadWrite, bool) \
    ROW(irqMaskFidDone, "irq/fid_done_mask", ReadWrite, bool)

#define LOCK_REGISTERS_STATUS(ROW) \
    ROW(statusAdcPllUnlocked, "status/adc_pll_unlocked", Clearable, bool) \
    ROW(statusPllDdsUnlocked, "status/dds_pll_unlocked", Clearable, bool) \
    ROW(statusPllDdsProfileUpdateBusyError, "status/dds_pll_busy", Clearable, bool) \
    ROW(statusPllDdsIoUpdateBusyError, "status/update_busy_error", Clearable, bool) \
    ROW(statusDcCompOutOfRange, "status/dc_out_of_range", Clearable, bool) \
    ROW(statusSeqInstrMemeAccessError, "status/seq_instr_mem_error", Clearable, bool) \
    ROW(statusSeqError, "status/seq_error", Clearable, bool) \
    ROW(statusSeqErrorCode, "status/seq_error_code", Clearable, LockHardwareSeqErrorCode) \
    ROW(statusPidOverflow, "status/pid_overflow", Clearable, bool) \
    ROW(statusFidOverflow, "status/fid_overflow", Clearable, bool) \
    ROW(statusFidDone, "status/fid_done", Clearable, bool) \
    ROW(statusFdError, "status/fd_error", Clearable, bool) \
    ROW(statusFirReady, "status/fir_ready", Clearable, bool) \
    ROW(statusDacConfReady, "status/dac_conf_ready", Clearable, bool) \
    ROW(statusErrorAddress, "status/error_address", Clearable, std::uint16_t)

#define LOCK_REGISTERS_DATA_FIRST(ROW) \
    ROW(maxSlicePosition, "data/max_slice_position", ReadOnly, std::int16_t) \
    ROW(dcOutOfRangeThreshold, "data/dc_out_of_range_threshold", ReadWrite, std::int32_t) \
    ROW(fftZeros, "data/fft_zeros", ReadWrite, std::uint32_t) \
    ROW(dacData, "data/dac_data", ReadWrite, std::uint32_t) \
    ROW(maxSliceMagnitude, "data/max_slice_magnitude", ReadOnly, long long) \
    ROW(meanAverageControlByPass, "data/mean_average_control_bypass", ReadWrite, bool) \
    ROW(fixedAverageControlByPass, "data/fixed_average_control_bypass", ReadWrite, bool) \
    ROW(fidShift, "data/fid_shift", ReadWrite, std::uint8_t)

#define LOCK_REGISTERS_FID_MAX_SLICE(ROW) \
    ROW(fidMaxSlice, "data/fid_max_slice", ReadOnly, std::int32_t)

#define LOCK_REGISTERS_DATA_SECOND(ROW) \
    ROW(windowDisable, "data/window_disable", ReadWrite, bool) \
    ROW(phaseCorrectionByPass, "data/phase_correction_bypass", ReadWrite, bool) \
    ROW(singlePhaseUpdate, "data/single_phase_update", ReadWrite, bool) \
    ROW(fredOutputEnable, "data/fred_output_enable", ReadWrite, bool) \
    ROW(fredOutputClear, "data/fred_output_clear", ReadWrite, bool) \
    ROW(fredOutputSelect, "data/fred_output_select", ReadWrite, LockHardwareFredSource) \
    ROW(phaseCorrection, "data/phase_correction", ReadOnly, std::uint32_t) \
    ROW(fidGroupDelay, "data/fid_group_delay", ReadWrite, std::uint8_t) \
    ROW(fidPhaseCorrection, "data/fid_phase_correction", ReadWrite, std::uint32_t) \
    ROW(fredOffset, "data/fred_offset", ReadWrite, long long) \
    ROW(fredCoefOrder1, "data/fred_coef_order1", ReadWrite, std::uint32_t) \
    ROW(fredCoefOrder2, "data/fred_coef_order2", ReadWrite, std::uint32_t) \
    ROW(fredShift, "data/fred_shift", ReadWrite, std::uint8_t)

#define LOCK_REGISTERS_PID(ROW) \
    ROW(pidControlClear, "pid/control_clear", ReadWrite, bool) \
    ROW(pidSetPoint, "pid/setpoint", ReadWrite, long long) \
    ROW(pidDerivativeOrder, "pid/derivative_order", ReadWrite, std::uint8_t) \
    ROW(pidPTerm, "pid/p_term", ReadWrite, std::int32_t) \
    ROW(pidITerm, "pid/i_term", ReadWrite, std::int32_t) \
    ROW(pidDTerm, "pid/d_term", ReadWrite, std::int32_t) \
    ROW(pidOutputOffset, "pid/output_offset", ReadWrite, std::int32_t) \
    ROW(pidOutputShift, "pid/output_shift", ReadWrite, std::uint8_t) \
    ROW(pidInputShift, "pid/input_shift", ReadWrite, std::uint8_t)

#define LOCK_REGISTERS_PID_SCALER(ROW) \
    ROW(pidEnableScaler, "pid/enable_scaler", ReadWrite, bool)

#define LOCK_REGISTERS_LOG(ROW) \
    ROW(timeDomainItf, "log/time_domain_itf", ReadWrite, bool) \
    ROW(timeDomainSrc, "log/time_domain_src", ReadWrite, bool) \
    ROW(fftItfEnable, "log/fft_itf_enable", ReadWrite, bool) \
    ROW(pidItfEnable, "log/pid_itf_enable", ReadWrite, bool) \
    ROW(singleFdTransfer, "log/single_fd_transfer", ReadWrite, bool) \
    ROW(singleTdTransfer, "log/single_td_transfer", ReadWrite, bool) \
    ROW(streamPacketSize, "log/stream_packet_size", ReadWrite, std::uint8_t)

#define LOCK_REGISTERS_CONTROL(ROW) \
    ROW(mainReset, "control/main_reset", ReadWrite, bool) \
    ROW(seqClockEnable, "control/seq_clock_enable", ReadWrite, bool) \
    ROW(seqStart, "control/seq_start", ReadWrite, bool) \
    ROW(dacConfMode, "control/dac_conf_mode", ReadWrite, LockHardwareDacConfMode) \
    ROW(ioUpdate, "control/io_update", ReadWrite, bool) \
    ROW(streamControl, "control/stream_control", ReadWrite, LockHardwareStreamControl) \
    ROW(noUseDac, "control/no_use_dac", ReadWrite, bool) \
    ROW(tdStreamNoWait, "control/td_stream_no_wait", ReadWrite, bool) \
    ROW(triggerIn, "control/trigger_in", ReadWrite, bool) \
    ROW(triggerOut, "control/trigger_out", ReadWrite, bool) \
    ROW(seqIrqTest, "control/seq_irq_test", ReadWrite, bool) \
    ROW(seqIrqTestEnable, "control/seq_irq_test_enable", ReadWrite, bool) \
    ROW(lockWindowTest, "control/lock_window_test", ReadWrite, bool) \
    ROW(enableTestDac, "control/enable_test_dac", ReadWrite, bool)

/// All registers, in the order in which the interface declares them and the dump lists them.
#define LOCK_REGISTERS(ROW) \
    LOCK_REGISTERS_IRQ_MASKS(ROW) \
    LOCK_REGISTERS_STATUS(ROW) \
    LOCK_REGISTERS_DATA_FIRST(ROW) \
    LOCK_REGISTERS_FID_MAX_SLICE(ROW) \
    LOCK_REGISTERS_DATA_SECOND(ROW) \
    LOCK_REGISTERS_PID(ROW) \
    LOCK_REGISTERS_PID_SCALER(ROW) \
    LOCK_REGISTERS_LOG(ROW) \
    LOCK_REGISTERS_CONTROL(ROW)

/// All registers, in the order in which the hardware object makes them.
#define LOCK_REGISTERS_AS_MADE(ROW) \
    LOCK_REGISTERS_STATUS(ROW) \
    LOCK_REGISTERS_DATA_FIRST(ROW) \
    LOCK_REGISTERS_DATA_SECOND(ROW) \
    LOCK_REGISTERS_PID(ROW) \
    LOCK_REGISTERS_LOG(ROW) \
    LOCK_REGISTERS_CONTROL(ROW) \
    LOCK_REGISTERS_PID_SCALER(ROW) \
    LOCK_REGISTERS_FID_MAX_SLICE(ROW) \
    LOCK_REGISTERS_IRQ_MASKS(ROW)
// clang-format on
