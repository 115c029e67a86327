// SPDX-License-Identifier: Apache-2.0
// A log file on spdlog's rotating sink, with the care for outages that it leaves to its user.
#include <velmor/kepla/log/FileSink.h>

#include "SpdlogLine.h"

#include <cstdint>
#include <cstdio>
#include <exception>
#include <utility>

#include <spdlog/sinks/rotating_file_sink.h>

namespace velmor::kepla::log {

namespace {

std::size_t rotationSize(unsigned int aRotateKiB) {
    return aRotateKiB == 0 ? SIZE_MAX : std::size_t{aRotateKiB} * 1024;
}

void complainOnStandardError(std::string const& aText) {
    std::fputs((aText + "\n").c_str(), stderr);
}

} // namespace

FileSink::FileSink(std::filesystem::path aPath, unsigned int aRotateKiB, Complaint aComplaint, Now aNow)
    : mPath(std::move(aPath))
    , mRotateKiB(aRotateKiB)
    , mComplaint(aComplaint ? std::move(aComplaint) : complainOnStandardError)
    , mNow(aNow ? std::move(aNow) : std::chrono::steady_clock::now) {}

FileSink::~FileSink() = default;

void FileSink::write(Line const& aLine) noexcept {
    std::lock_guard const lock(mMutex);
    auto const now = mNow();
    if (mOutageTold && now < mRetryAt) {
        ++mLost;
        return;
    }
    try {
        writeToFile(aLine);
        if (aLine.severity <= Severity::Info || now - mFlushedAt >= kFlushInterval) {
            mFile->flush();
            mFlushedAt = now;
        }
        mOutageTold = false;
    } catch (std::exception const& error) {
        ++mLost;
        beginOutage(error.what(), now);
    }
}

void FileSink::writeToFile(Line const& aLine) {
    if (mFile == nullptr) {
        mFile = std::make_unique<spdlog::sinks::rotating_file_sink_st>(
            mPath.string(), rotationSize(mRotateKiB), kRotatedFiles);
        mFile->set_pattern(kLinePattern);
    }
    if (mLost != 0) {
        std::string const text =
            std::to_string(mLost) + " lines are missing here: the file could not be written";
        mFile->log(toSpdlog({Severity::Warning, aLine.origin, text, aLine.time}));
        mFile->flush();
        mLost = 0;
    }
    if (aLine.text.size() > kLongestText) {
        writeCut(aLine);
    } else {
        mFile->log(toSpdlog(aLine));
    }
}

void FileSink::writeCut(Line const& aLine) {
    std::string text(aLine.text.substr(0, kLongestText));
    text += "... (" + std::to_string(aLine.text.size()) + " characters)";
    mFile->log(toSpdlog({aLine.severity, aLine.origin, text, aLine.time}));
}

void FileSink::beginOutage(char const* aReason, std::chrono::steady_clock::time_point aNow) noexcept {
    mFile.reset();
    mRetryAt = aNow + kRetryInterval;
    if (std::exchange(mOutageTold, true)) {
        return;
    }
    try {
        mComplaint("fieldwarden: log file '" + mPath.string() +
                   "' cannot be written, its lines are dropped: " + aReason);
    } catch (...) {
        // Nobody is left to tell.
    }
}

void FileSink::flush() noexcept {
    std::lock_guard const lock(mMutex);
    try {
        if (mFile != nullptr) {
            mFile->flush();
        }
    } catch (std::exception const& error) {
        beginOutage(error.what(), mNow());
    }
}

} // namespace velmor::kepla::log
