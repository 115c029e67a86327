// SPDX-License-Identifier: Apache-2.0
// The units in which data-logger channels are kept.
#pragma once

#include <velmor/kepla/utils/EnumUtils.h>

#include <array>
#include <cstdint>

namespace velmor::kepla::datalogger {

/// Unit of a channel's values. The numbers are kept in the data logger's file: new units get new numbers, and
/// no number ever changes its meaning.
enum class DataLoggerUnit : std::uint8_t {
    Unknown = 0,             ///< Nobody said.
    Kelvin = 1,              ///< Temperatures.
    Ampere = 2,              ///< Currents.
    Volt = 3,                ///< Voltages.
    Watt = 4,                ///< Powers.
    Hertz = 5,               ///< Frequencies.
    Pascal = 6,              ///< Pressures.
    CubicMetrePerSecond = 7, ///< Gas flows.
    Second = 8,              ///< Durations.
    Tesla = 9,               ///< Fields.
    Percent = 10,            ///< Parts of a full scale, 0 to 100.
    Dimensionless = 16,      ///< Plain numbers: counts, states, indexes, raw values.
    Boolean = 35,            ///< Flags: 0 or 1.
};

} // namespace velmor::kepla::datalogger

template <>
struct velmor::kepla::utils::EnumTexts<velmor::kepla::datalogger::DataLoggerUnit> {
    using Unit = velmor::kepla::datalogger::DataLoggerUnit;
    static constexpr std::array<EnumText<Unit>, 13> kTexts{{
        {Unit::Unknown, "unknown"},
        {Unit::Kelvin, "K"},
        {Unit::Ampere, "A"},
        {Unit::Volt, "V"},
        {Unit::Watt, "W"},
        {Unit::Hertz, "Hz"},
        {Unit::Pascal, "Pa"},
        {Unit::CubicMetrePerSecond, "m3/s"},
        {Unit::Second, "s"},
        {Unit::Tesla, "T"},
        {Unit::Percent, "%"},
        {Unit::Dimensionless, "1"},
        {Unit::Boolean, "bool"},
    }};
};
