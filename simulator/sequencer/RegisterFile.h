// SPDX-License-Identifier: Apache-2.0
// The registers of the simulated sequencer: what there is, what each takes, and the text that shows it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace libfieldwarden::sim {

// ROW(name, path below the register tree, how it may be written, how its text reads, bits that exist, value
// after power-on). A 64-bit quantity has two rows; the upper ones of 48-bit quantities have 16 bits.
// clang-format off
#define SIM_SEQUENCER_REGISTERS(ROW) \
    ROW(IrqAdcPllUnlocked, "irq/adc_pll_unlocked_mask", ReadWrite, Bit, 1, 0) \
    ROW(IrqDdsPllUnlocked, "irq/dds_pll_unlocked_mask", ReadWrite, Bit, 1, 0) \
    ROW(IrqDdsPllBusy, "irq/dds_pll_busy_mask", ReadWrite, Bit, 1, 0) \
    ROW(IrqDdsPllIoError, "irq/dds_pll_io_error_mask", ReadWrite, Bit, 1, 0) \
    ROW(IrqDcOutOfRange, "irq/dc_out_of_range_mask", ReadWrite, Bit, 1, 0) \
    ROW(IrqSeqInstrMemError, "irq/seq_instr_mem_error_mask", ReadWrite, Bit, 1, 0) \
    ROW(IrqSeqError, "irq/seq_error_mask", ReadWrite, Bit, 1, 0) \
    ROW(IrqPidOverflow, "irq/pid_overflow_mask", ReadWrite, Bit, 1, 0) \
    ROW(IrqFidOverflow, "irq/fid_overflow_mask", ReadWrite, Bit, 1, 0) \
    ROW(IrqFidDone, "irq/fid_done_mask", ReadWrite, Bit, 1, 0) \
    ROW(AdcPllUnlocked, "status/adc_pll_unlocked", OneToClear, Bit, 1, 0) \
    ROW(DdsPllUnlocked, "status/dds_pll_unlocked", OneToClear, Bit, 1, 0) \
    ROW(DdsPllBusy, "status/dds_pll_busy", OneToClear, Bit, 1, 0) \
    ROW(UpdateBusyError, "status/update_busy_error", OneToClear, Bit, 1, 0) \
    ROW(DcOutOfRange, "status/dc_out_of_range", OneToClear, Bit, 1, 0) \
    ROW(SeqInstrMemError, "status/seq_instr_mem_error", OneToClear, Bit, 1, 0) \
    ROW(SeqError, "status/seq_error", OneToClear, Bit, 1, 0) \
    ROW(SeqErrorCode, "status/seq_error_code", OneToClear, Byte, 8, 0) \
    ROW(PidOverflow, "status/pid_overflow", OneToClear, Bit, 1, 0) \
    ROW(FidOverflow, "status/fid_overflow", OneToClear, Bit, 1, 0) \
    ROW(FidDone, "status/fid_done", OneToClear, Bit, 1, 0) \
    ROW(FdError, "status/fd_error", OneToClear, Bit, 1, 0) \
    ROW(FirReady, "status/fir_ready", OneToClear, Bit, 1, 0) \
    ROW(DacConfReady, "status/dac_conf_ready", OneToClear, Bit, 1, 0) \
    ROW(ErrorAddress, "status/error_address", OneToClear, Half, 16, 0) \
    ROW(MaxSlicePosition, "data/max_slice_position", ReadOnly, Half, 16, 0) \
    ROW(DcOutOfRangeThreshold, "data/dc_out_of_range_threshold", ReadWrite, SignedWord, 32, 0) \
    ROW(FftZeros, "data/fft_zeros", ReadWrite, Word, 17, 0) \
    ROW(DacData, "data/dac_data", ReadWrite, Word, 32, 0) \
    ROW(MaxSliceMagnitudeHigh, "data/max_slice_magnitude_high", ReadOnly, Word, 32, 0) \
    ROW(MaxSliceMagnitudeLow, "data/max_slice_magnitude_low", ReadOnly, Word, 32, 0) \
    ROW(MeanAverageControlBypass, "data/mean_average_control_bypass", ReadWrite, Bit, 1, 0) \
    ROW(FixedAverageControlBypass, "data/fixed_average_control_bypass", ReadWrite, Bit, 1, 0) \
    ROW(FidShift, "data/fid_shift", ReadWrite, Byte, 5, 0) \
    ROW(FidMaxSlice, "data/fid_max_slice", ReadOnly, SignedWord, 32, 0) \
    ROW(WindowDisable, "data/window_disable", ReadWrite, Bit, 1, 0) \
    ROW(PhaseCorrectionBypass, "data/phase_correction_bypass", ReadWrite, Bit, 1, 0) \
    ROW(SinglePhaseUpdate, "data/single_phase_update", ReadWrite, Bit, 1, 0) \
    ROW(FredOutputEnable, "data/fred_output_enable", ReadWrite, Bit, 1, 0) \
    ROW(FredOutputClear, "data/fred_output_clear", ReadWrite, Bit, 1, 0) \
    ROW(FredOutputSelect, "data/fred_output_select", ReadWrite, Byte, 1, 0) \
    ROW(PhaseCorrection, "data/phase_correction", ReadOnly, Word, 32, 0) \
    ROW(FidGroupDelay, "data/fid_group_delay", ReadWrite, Byte, 8, 0) \
    ROW(FidPhaseCorrection, "data/fid_phase_correction", ReadWrite, Word, 32, 0) \
    ROW(FredOffsetHigh, "data/fred_offset_high", ReadWrite, Word, 16, 0) \
    ROW(FredOffsetLow, "data/fred_offset_low", ReadWrite, Word, 32, 0) \
    ROW(FredCoefOrder1, "data/fred_coef_order1", ReadWrite, Word, 32, 0) \
    ROW(FredCoefOrder2, "data/fred_coef_order2", ReadWrite, Word, 32, 0) \
    ROW(FredShift, "data/fred_shift", ReadWrite, Byte, 5, 0) \
    ROW(PidControlClear, "pid/control_clear", ReadWrite, Bit, 1, 0) \
    ROW(PidSetPointHigh, "pid/setpoint_high", ReadWrite, Word, 16, 0) \
    ROW(PidSetPointLow, "pid/setpoint_low", ReadWrite, Word, 32, 0) \
    ROW(PidDerivativeOrder, "pid/derivative_order", ReadWrite, Byte, 3, 0) \
    ROW(PidPTerm, "pid/p_term", ReadWrite, SignedWord, 32, 0) \
    ROW(PidITerm, "pid/i_term", ReadWrite, SignedWord, 32, 0) \
    ROW(PidDTerm, "pid/d_term", ReadWrite, SignedWord, 32, 0) \
    ROW(PidOutputOffset, "pid/output_offset", ReadWrite, SignedWord, 24, 0) \
    ROW(PidOutputShift, "pid/output_shift", ReadWrite, Byte, 6, 0) \
    ROW(PidInputShift, "pid/input_shift", ReadWrite, Byte, 6, 0) \
    ROW(PidEnableScaler, "pid/enable_scaler", ReadWrite, Bit, 1, 0) \
    ROW(TimeDomainItf, "log/time_domain_itf", ReadWrite, Bit, 1, 0) \
    ROW(TimeDomainSrc, "log/time_domain_src", ReadWrite, Bit, 1, 0) \
    ROW(FftItfEnable, "log/fft_itf_enable", ReadWrite, Bit, 1, 0) \
    ROW(PidItfEnable, "log/pid_itf_enable", ReadWrite, Bit, 1, 0) \
    ROW(SingleFdTransfer, "log/single_fd_transfer", ReadWrite, Bit, 1, 0) \
    ROW(SingleTdTransfer, "log/single_td_transfer", ReadWrite, Bit, 1, 0) \
    ROW(StreamPacketSize, "log/stream_packet_size", ReadWrite, Byte, 8, 1) \
    ROW(MainReset, "control/main_reset", ReadWrite, Bit, 1, 0) \
    ROW(SeqClockEnable, "control/seq_clock_enable", ReadWrite, Bit, 1, 0) \
    ROW(SeqStart, "control/seq_start", ReadWrite, Bit, 1, 0) \
    ROW(DacConfMode, "control/dac_conf_mode", ReadWrite, Byte, 1, 0) \
    ROW(IoUpdate, "control/io_update", ReadWrite, Bit, 1, 0) \
    ROW(StreamControl, "control/stream_control", ReadWrite, Byte, 1, 0) \
    ROW(NoUseDac, "control/no_use_dac", ReadWrite, Bit, 1, 0) \
    ROW(TdStreamNoWait, "control/td_stream_no_wait", ReadWrite, Bit, 1, 0) \
    ROW(TriggerIn, "control/trigger_in", ReadWrite, Bit, 1, 0) \
    ROW(TriggerOut, "control/trigger_out", ReadWrite, Bit, 1, 0) \
    ROW(SeqIrqTest, "control/seq_irq_test", ReadWrite, Bit, 1, 0) \
    ROW(SeqIrqTestEnable, "control/seq_irq_test_enable", ReadWrite, Bit, 1, 0) \
    ROW(LockWindowTest, "control/lock_window_test", ReadWrite, Bit, 1, 0) \
    ROW(EnableTestDac, "control/enable_test_dac", ReadWrite, Bit, 1, 0)
// clang-format on

/// The registers, in the order of their table.
enum class SequencerRegister : std::uint8_t {
#define SIM_SEQUENCER_NAME(name, path, access, form, bits, value) name,
    SIM_SEQUENCER_REGISTERS(SIM_SEQUENCER_NAME)
#undef SIM_SEQUENCER_NAME
};

/// The values of all registers and the texts by which the driver shows and takes them.
///
/// Texts end with a newline. Bits, bytes and halves read in decimal, words as "0x" and eight hexadecimal
/// digits, signed words in decimal with a sign. What is written may be decimal, hexadecimal with "0x" or
/// octal with 0, with a sign or not: a number that fits the text's form, of which the register keeps the bits
/// that exist. So 4294967295 in a signed word is -1.
///
/// Passive; one thread at a time.
class RegisterFile {
public:
    enum class Access : std::uint8_t { ReadOnly, ReadWrite, OneToClear };
    enum class Form : std::uint8_t { Bit, Byte, Half, Word, SignedWord };

    struct Row {
        std::string_view path; ///< Below "/sys/class/misc/seqlock/".
        Access access;
        Form form;
        unsigned bits; ///< That exist, from bit 0 on.
        std::uint32_t powerOn;
    };

    static constexpr std::array kRows{
#define SIM_SEQUENCER_ROW(name, path, access, form, bits, value) \
    Row{path, Access::access, Form::form, bits, value},
        SIM_SEQUENCER_REGISTERS(SIM_SEQUENCER_ROW)
#undef SIM_SEQUENCER_ROW
    };

    RegisterFile();

    /// @param aPath  Below the register tree.
    /// @return The register of that file; none when there is none.
    static std::optional<SequencerRegister> find(std::string_view aPath);

    static Row const& row(SequencerRegister aRegister) {
        return kRows[index(aRegister)];
    }

    /// @return The bits, those that do not exist as 0.
    std::uint32_t get(SequencerRegister aRegister) const {
        return mValues[index(aRegister)];
    }
    bool isSet(SequencerRegister aRegister) const {
        return get(aRegister) != 0;
    }
    /// @return A quantity whose uppermost existing bit is its sign.
    std::int32_t getSigned(SequencerRegister aRegister) const;
    /// @return 48 bits with a sign, from two registers.
    std::int64_t getSigned48(SequencerRegister aHigh, SequencerRegister aLow) const;

    /// Stores the bits that exist, whatever may be written from outside.
    void set(SequencerRegister aRegister, std::uint32_t aValue);

    /// @return What the register's file reads.
    std::string text(SequencerRegister aRegister) const;

    /// @return The bits that a text stands for; none when the register's file does not take it.
    static std::optional<std::uint32_t> parse(SequencerRegister aRegister, std::string_view aText);

private:
    static constexpr std::size_t index(SequencerRegister aRegister) {
        return static_cast<std::size_t>(aRegister);
    }

    std::array<std::uint32_t, kRows.size()> mValues{};
};

} // namespace libfieldwarden::sim
