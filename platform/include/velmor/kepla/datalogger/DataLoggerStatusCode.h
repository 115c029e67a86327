// SPDX-License-Identifier: Apache-2.0
// What is known of a data-logger sample beside its value.
#pragma once

#include <velmor/kepla/utils/EnumUtils.h>

#include <array>
#include <cstdint>

namespace velmor::kepla::datalogger {

/// Status of a sample. The numbers are kept in the data logger's file and never change their meaning.
enum class DataLoggerStatusCode : std::uint8_t {
    Good = 0,        ///< A value like any other.
    Uncertain = 1,   ///< The source doubts it.
    OutOfRange = 2,  ///< Beyond the limits of its channel; given by the data logger.
    Bad = 3,         ///< The source knows that it is wrong.
    SamplesLost = 4, ///< No sample but a gap: the value is the number of samples that were lost here.
};

} // namespace velmor::kepla::datalogger

template <>
struct velmor::kepla::utils::EnumTexts<velmor::kepla::datalogger::DataLoggerStatusCode> {
    using Status = velmor::kepla::datalogger::DataLoggerStatusCode;
    static constexpr std::array<EnumText<Status>, 5> kTexts{{
        {Status::Good, "good"},
        {Status::Uncertain, "uncertain"},
        {Status::OutOfRange, "out of range"},
        {Status::Bad, "bad"},
        {Status::SamplesLost, "samples lost"},
    }};
};
