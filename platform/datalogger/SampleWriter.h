// SPDX-License-Identifier: Apache-2.0
// The queue between those who push samples and the disk, and the thread that empties it.
#pragma once

#include "SampleRing.h"
#include "SampleStore.h"

#include <velmor/kepla/datalogger/DataLoggerChannelInfo.h>
#include <velmor/kepla/datalogger/SqliteDataLogger.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace velmor::kepla::datalogger {

/// Takes samples from any thread and writes them on its own, "data-logger". What cannot be written waits in a
/// backlog, which takes as many samples as the queue.
class SampleWriter : private virtual velmor::kepla::log::Logger {
public:
    /// Opens the file.
    /// @throws std::runtime_error, std::invalid_argument  as SqliteDataLogger.
    SampleWriter(std::filesystem::path const& aPath, SqliteDataLoggerOptions const& aOptions);
    /// Writes what waits and joins the thread.
    ~SampleWriter();
    SampleWriter(SampleWriter const&) = delete;
    SampleWriter& operator=(SampleWriter const&) = delete;

    /// Makes a channel or finds it. Any thread; waits for nothing but other callers.
    /// @return The index by which push() knows it.
    std::uint32_t describe(DataLoggerChannelInfo const& aInfo);

    /// Queues a sample. Any thread; neither allocates nor waits for the disk.
    void push(QueuedSample const& aSample) noexcept;

    /// @return How many samples have been lost. Any thread.
    std::uint64_t lostSamples() const noexcept { return mLostTotal.load(std::memory_order_relaxed); }

private:
    struct Known {
        std::uint32_t index;
        DataLoggerChannelInfo info;
    };

    void run();
    void collect();
    void collectSamples();
    void collectDescriptions();
    void noteLosses();
    void flush();
    bool write();
    void noteOutage(std::string const& aReason);
    void forget();
    void reportEnd();

    SqliteDataLoggerOptions mOptions;
    velmor::platform::Clock& mClock;

    std::mutex mRegistryMutex; ///< Guards the next two.
    std::map<std::string, Known, std::less<>> mRegistry;
    std::vector<std::pair<std::size_t, DataLoggerChannelInfo>> mDescribed; ///< Since the last collection.

    std::mutex mMutex; ///< Guards the next three. Held for moments only.
    SampleRing mQueue;
    std::vector<LostSamples> mQueueLost; ///< By channel.
    bool mStop = false;
    std::condition_variable mWake; ///< Half the queue is full, or the end has come.
    std::atomic<std::uint64_t> mLostTotal{0};

    // Of the thread alone.
    SampleStore mStore;
    SampleRing mBacklog;
    std::vector<LostSamples> mLost; ///< By channel, not written yet.
    std::uint64_t mLostSeen = 0;    ///< Of all that are lost, those that the log knows of.
    std::uint64_t mBurstBegan = 0;  ///< The number lost before the burst under way.
    bool mInBurst = false;
    std::optional<velmor::platform::Clock::TimePoint> mOutageBegan;
    std::string mOutageReason;
    velmor::platform::Clock::TimePoint mNextForgetting;

    std::thread mThread;
};

} // namespace velmor::kepla::datalogger
