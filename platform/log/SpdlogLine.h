// SPDX-License-Identifier: Apache-2.0
// The form in which spdlog's sinks take our lines, and their common layout.
#pragma once

#include <velmor/kepla/log/LoggerImpl.h>

#include <array>
#include <cstddef>

#include <spdlog/details/log_msg.h>

namespace velmor::kepla::log {

/// Date and time with milliseconds, severity, thread, origin, text.
inline constexpr char const* kLinePattern = "[%Y-%m-%d %H:%M:%S.%e] [%l] [%t] [%n] %v";

/// spdlog's level for each severity.
inline constexpr std::array kSpdlogLevels{spdlog::level::critical, spdlog::level::err,
                                          spdlog::level::warn,     spdlog::level::info,
                                          spdlog::level::debug,    spdlog::level::trace};

inline spdlog::details::log_msg toSpdlog(Line const& aLine) {
    return {aLine.time, spdlog::source_loc{}, aLine.origin.label,
            kSpdlogLevels[static_cast<std::size_t>(aLine.severity)],
            spdlog::string_view_t(aLine.text.data(), aLine.text.size())};
}

} // namespace velmor::kepla::log
