// SPDX-License-Identifier: Apache-2.0
// Log lines on standard error, for services in the foreground.
#pragma once

#include <velmor/kepla/log/Configuration.h>

#include <memory>

namespace spdlog::sinks {
class sink;
}

namespace velmor::kepla::log {

/// Writes lines to standard error, in the layout of the files.
class ConsoleSink : public Sink {
public:
    ConsoleSink();
    ~ConsoleSink() override;
    void write(Line const& aLine) noexcept override;

private:
    std::unique_ptr<spdlog::sinks::sink> mStream;
};

} // namespace velmor::kepla::log
