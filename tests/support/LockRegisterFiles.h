// SPDX-License-Identifier: Apache-2.0
// The register files of the sequencer's driver, written out: what is on disk, whatever the library's own
// table says.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace libfieldwarden::test {

/// One register as it is published.
struct LockRegisterFile {
    std::string_view path; ///< Below the register tree; without the endings of a pair.
    bool writable;
    bool pair; ///< Two files of 32 bits, ending in "_high" and "_low".
};

/// The folder of the register files.
inline constexpr std::string_view kLockRegisterRoot = "/sys/class/misc/seqlock/";

/// All registers, in the order of the interface.
inline constexpr auto kLockRegisterFiles = std::to_array<LockRegisterFile>({
    {"irq/adc_pll_unlocked_mask", true, false},
    {"irq/dds_pll_unlocked_mask", true, false},
    {"irq/dds_pll_busy_mask", true, false},
    {"irq/dds_pll_io_error_mask", true, false},
    {"irq/dc_out_of_range_mask", true, false},
    {"irq/seq_instr_mem_error_mask", true, false},
    {"irq/seq_error_mask", true, false},
    {"irq/pid_overflow_mask", true, false},
    {"irq/fid_overflow_mask", true, false},
    {"irq/fid_done_mask", true, false},
    {"status/adc_pll_unlocked", true, false},
    {"status/dds_pll_unlocked", true, false},
    {"status/dds_pll_busy", true, false},
    {"status/update_busy_error", true, false},
    {"status/dc_out_of_range", true, false},
    {"status/seq_instr_mem_error", true, false},
    {"status/seq_error", true, false},
    {"status/seq_error_code", true, false},
    {"status/pid_overflow", true, false},
    {"status/fid_overflow", true, false},
    {"status/fid_done", true, false},
    {"status/fd_error", true, false},
    {"status/fir_ready", true, false},
    {"status/dac_conf_ready", true, false},
    {"status/error_address", true, false},
    {"data/max_slice_position", false, false},
    {"data/dc_out_of_range_threshold", true, false},
    {"data/fft_zeros", true, false},
    {"data/dac_data", true, false},
    {"data/max_slice_magnitude", false, true},
    {"data/mean_average_control_bypass", true, false},
    {"data/fixed_average_control_bypass", true, false},
    {"data/fid_shift", true, false},
    {"data/fid_max_slice", false, false},
    {"data/window_disable", true, false},
    {"data/phase_correction_bypass", true, false},
    {"data/single_phase_update", true, false},
    {"data/fred_output_enable", true, false},
    {"data/fred_output_clear", true, false},
    {"data/fred_output_select", true, false},
    {"data/phase_correction", false, false},
    {"data/fid_group_delay", true, false},
    {"data/fid_phase_correction", true, false},
    {"data/fred_offset", true, true},
    {"data/fred_coef_order1", true, false},
    {"data/fred_coef_order2", true, false},
    {"data/fred_shift", true, false},
    {"pid/control_clear", true, false},
    {"pid/setpoint", true, true},
    {"pid/derivative_order", true, false},
    {"pid/p_term", true, false},
    {"pid/i_term", true, false},
    {"pid/d_term", true, false},
    {"pid/output_offset", true, false},
    {"pid/output_shift", true, false},
    {"pid/input_shift", true, false},
    {"pid/enable_scaler", true, false},
    {"log/time_domain_itf", true, false},
    {"log/time_domain_src", true, false},
    {"log/fft_itf_enable", true, false},
    {"log/pid_itf_enable", true, false},
    {"log/single_fd_transfer", true, false},
    {"log/single_td_transfer", true, false},
    {"log/stream_packet_size", true, false},
    {"control/main_reset", true, false},
    {"control/seq_clock_enable", true, false},
    {"control/seq_start", true, false},
    {"control/dac_conf_mode", true, false},
    {"control/io_update", true, false},
    {"control/stream_control", true, false},
    {"control/no_use_dac", true, false},
    {"control/td_stream_no_wait", true, false},
    {"control/trigger_in", true, false},
    {"control/trigger_out", true, false},
    {"control/seq_irq_test", true, false},
    {"control/seq_irq_test_enable", true, false},
    {"control/lock_window_test", true, false},
    {"control/enable_test_dac", true, false},
});

/// @return The paths of a register's files, the high word first.
inline std::vector<std::string> pathsOf(LockRegisterFile const& aRegister) {
    std::string const path = std::string(kLockRegisterRoot).append(aRegister.path);
    return aRegister.pair ? std::vector{path + "_high", path + "_low"} : std::vector{path};
}

} // namespace libfieldwarden::test
