// SPDX-License-Identifier: Apache-2.0
// The console on spdlog's sink for standard error.
#include <velmor/kepla/log/ConsoleSink.h>

#include "SpdlogLine.h"

#include <exception>

#include <spdlog/sinks/stdout_sinks.h>

namespace velmor::kepla::log {

ConsoleSink::ConsoleSink()
    : mStream(std::make_unique<spdlog::sinks::stderr_sink_mt>()) {
    mStream->set_pattern(kLinePattern);
}

ConsoleSink::~ConsoleSink() = default;

void ConsoleSink::write(Line const& aLine) noexcept {
    try {
        mStream->log(toSpdlog(aLine));
    } catch (std::exception const&) {
        // A console that went away takes nothing with it.
    }
}

} // namespace velmor::kepla::log
