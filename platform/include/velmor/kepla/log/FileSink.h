// SPDX-License-Identifier: Apache-2.0
// A log file that rotates by size and that survives a missing folder, a full disk and a lost permission.
#pragma once

#include <velmor/kepla/log/Configuration.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace spdlog::sinks {
class sink;
}

namespace velmor::kepla::log {

/// Writes lines as "[date time] [severity] [thread] [category/name] text".
///
/// The file and its folder are made with the first line. While the file cannot be opened or written, lines
/// are counted and dropped; the reason is told once per outage on standard error, and the file is tried again
/// with the next line after kRetryInterval. The first line after an outage says how many are missing.
///
/// Lines at least as urgent as Info are brought to the disk at once, the others at the latest with the first
/// line that comes a second later.
class FileSink : public Sink {
public:
    /// Takes the one message of an outage.
    using Complaint = std::function<void(std::string const& aText)>;
    /// Tells the time; the process's steady clock unless a test puts its own.
    using Now = std::function<std::chrono::steady_clock::time_point()>;

    static constexpr std::chrono::seconds kRetryInterval{10};
    static constexpr std::chrono::seconds kFlushInterval{1};
    static constexpr std::size_t kRotatedFiles = 3;
    /// Longer texts are cut: a line must not push everything else out of a rotating file.
    static constexpr std::size_t kLongestText = std::size_t{64} * 1024;

    /// @param aPath       The file.
    /// @param aRotateKiB  Size in KiB at which it is rotated; 0: never.
    /// @param aComplaint  Where outages are told; standard error when empty.
    /// @param aNow        The time; the steady clock when empty.
    explicit FileSink(std::filesystem::path aPath,
                      unsigned int aRotateKiB,
                      Complaint aComplaint = {},
                      Now aNow = {});
    ~FileSink() override;

    void write(Line const& aLine) noexcept override;
    void flush() noexcept override;

private:
    void writeToFile(Line const& aLine);
    void writeCut(Line const& aLine);
    void beginOutage(char const* aReason, std::chrono::steady_clock::time_point aNow) noexcept;

    std::filesystem::path mPath;
    unsigned int mRotateKiB;
    Complaint mComplaint;
    Now mNow;
    std::mutex mMutex;
    std::unique_ptr<spdlog::sinks::sink> mFile; ///< Null before the first line and during an outage.
    bool mOutageTold = false;
    std::size_t mLost = 0;
    std::chrono::steady_clock::time_point mRetryAt{};
    std::chrono::steady_clock::time_point mFlushedAt{};
};

} // namespace velmor::kepla::log
