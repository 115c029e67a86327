// SPDX-License-Identifier: Apache-2.0
// What stands behind a Logger: the receiver of finished lines, and the default one, which feeds the process's
// sinks.
#pragma once

#include <velmor/kepla/log/Severity.h>

#include <chrono>
#include <string>
#include <string_view>

namespace velmor::kepla::log {

/// Who speaks: the identity of a logger. One object for each distinct pair, kept until the process ends, so
/// that a logger holds no more than a pointer.
struct Origin {
    std::string name;     ///< Class name, for example "LockMock".
    std::string category; ///< Subsystem word, for example "Lock"; may be empty.
    std::string label;    ///< "category/name", or the name alone without a category: what the sinks print.
};

/// One finished line on its way to the sinks. Valid during the call only.
struct Line {
    Severity severity;
    Origin const& origin;
    std::string_view text;
    std::chrono::system_clock::time_point time;
};

/// Receiver of the lines of one or more loggers. Called from any thread, also from several at once.
class LoggerImplInterface {
public:
    virtual ~LoggerImplInterface() = default;

    /// Takes one line. Must not throw: a line that cannot be kept is lost, never the caller.
    virtual void write(Line const& aLine) noexcept = 0;
};

/// The default receiver: hands each line to the sinks that Configuration installed.
class LoggerImpl : public LoggerImplInterface {
public:
    LoggerImpl() = default;
    void write(Line const& aLine) noexcept override;
};

} // namespace velmor::kepla::log
