// SPDX-License-Identifier: Apache-2.0
// The sink behind the log capture.
#include "support/LogCapture.h"

#include <algorithm>
#include <stdexcept>

namespace libfieldwarden::test {

using velmor::kepla::log::Configuration;
using velmor::kepla::log::Line;

bool operator==(CapturedLine const& aLeft, CapturedLine const& aRight) {
    return aLeft.severity == aRight.severity && aLeft.text == aRight.text;
}

void PrintTo(CapturedLine const& aLine, std::ostream* aStream) {
    *aStream << static_cast<int>(aLine.severity) << " \"" << aLine.text << "\" (" << aLine.name << ")";
}

class LogCapture::CaptureSink : public velmor::kepla::log::Sink {
public:
    void write(Line const& aLine) noexcept override {
        std::lock_guard const lock(mMutex);
        mLines.push_back({aLine.severity, std::string(aLine.text), aLine.origin.name, aLine.origin.category});
    }

    template <typename Predicate>
    std::vector<CapturedLine> select(Predicate aPredicate) const {
        std::lock_guard const lock(mMutex);
        std::vector<CapturedLine> result;
        std::copy_if(mLines.begin(), mLines.end(), std::back_inserter(result), aPredicate);
        return result;
    }

    void clear() {
        std::lock_guard const lock(mMutex);
        mLines.clear();
    }

private:
    mutable std::mutex mMutex;
    std::vector<CapturedLine> mLines;
};

LogCapture::LogCapture()
    : mSink(std::make_shared<CaptureSink>()) {
    if (Configuration::isInitialized()) {
        throw std::logic_error("LogCapture: the logging is set up already");
    }
    Configuration::initWith({{mSink, Severity::Trace}});
}

LogCapture::~LogCapture() {
    Configuration::shutdown();
}

std::vector<CapturedLine> LogCapture::lines() const {
    return mSink->select([](CapturedLine const&) { return true; });
}

std::vector<CapturedLine> LogCapture::linesOf(std::string const& aName) const {
    return mSink->select([&](CapturedLine const& aLine) { return aLine.name == aName; });
}

std::vector<CapturedLine> LogCapture::linesUpTo(Severity aSeverity) const {
    return mSink->select([&](CapturedLine const& aLine) { return aLine.severity <= aSeverity; });
}

bool LogCapture::has(Severity aSeverity, std::string const& aText) const {
    return count(aSeverity, aText) != 0;
}

std::size_t LogCapture::count(Severity aSeverity, std::string const& aText) const {
    return mSink
        ->select(
            [&](CapturedLine const& aLine) { return aLine.severity == aSeverity && aLine.text == aText; })
        .size();
}

void LogCapture::clear() {
    mSink->clear();
}

} // namespace libfieldwarden::test
