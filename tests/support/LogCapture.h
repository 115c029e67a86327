// SPDX-License-Identifier: Apache-2.0
// Catches every log line of a test, so that words, severities and order can be asserted.
#pragma once

#include <velmor/kepla/log/Configuration.h>

#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace libfieldwarden::test {

using velmor::kepla::log::Severity;

/// One caught line.
struct CapturedLine {
    Severity severity;
    std::string text;
    std::string name;     ///< Of the logger.
    std::string category; ///< Of the logger.
};

/// Compares urgency and words only, so that an expected line is written as {Severity::Error, "words"}.
bool operator==(CapturedLine const& aLeft, CapturedLine const& aRight);
void PrintTo(CapturedLine const& aLine, std::ostream* aStream);

/// A line of the log as it is expected.
inline CapturedLine line(Severity aSeverity, std::string aText) {
    return {aSeverity, std::move(aText), {}, {}};
}

/// Sets the process's logging up to catch all lines, from construction to destruction.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    /// All lines so far, in order.
    std::vector<CapturedLine> lines() const;

    /// The lines of one logger.
    std::vector<CapturedLine> linesOf(std::string const& aName) const;

    /// The lines at a severity or more urgent.
    std::vector<CapturedLine> linesUpTo(Severity aSeverity) const;

    /// Whether a line of exactly these words was logged at this severity.
    bool has(Severity aSeverity, std::string const& aText) const;

    /// How often.
    std::size_t count(Severity aSeverity, std::string const& aText) const;

    /// Forgets what was caught so far.
    void clear();

private:
    class CaptureSink;
    std::shared_ptr<CaptureSink> mSink;
};

} // namespace libfieldwarden::test
