// SPDX-License-Identifier: Apache-2.0
// How long the data logger keeps what it is given.
#pragma once

#include <velmor/kepla/utils/EnumUtils.h>

#include <array>
#include <cstdint>

namespace velmor::kepla::datalogger {

/// How long values are kept. The numbers are kept in the data logger's file and never change their meaning.
enum class DataLoggerStorageType : std::uint8_t {
    None = 0,      ///< Not at all.
    ShortTerm = 1, ///< What comes all the time, such as a reading every few seconds: for weeks.
    LongTerm = 2,  ///< What comes seldom, such as settings and statistics: for years.
};

} // namespace velmor::kepla::datalogger

template <>
struct velmor::kepla::utils::EnumTexts<velmor::kepla::datalogger::DataLoggerStorageType> {
    using Type = velmor::kepla::datalogger::DataLoggerStorageType;
    static constexpr std::array<EnumText<Type>, 3> kTexts{{
        {Type::None, "none"},
        {Type::ShortTerm, "short-term"},
        {Type::LongTerm, "long-term"},
    }};
};
