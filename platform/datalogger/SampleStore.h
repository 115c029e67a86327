// SPDX-License-Identifier: Apache-2.0
// The writer's side of the data logger's file: transactions, retention, and what to do about a damaged file.
#pragma once

#include "SampleRing.h"
#include "Sqlite.h"

#include <velmor/kepla/datalogger/DataLoggerChannelInfo.h>
#include <velmor/kepla/datalogger/SqliteDataLogger.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmor::kepla::datalogger {

/// Samples of one channel that were lost together.
struct LostSamples {
    std::uint64_t count = 0;
    std::int64_t time = 0; ///< Of the first of them, in the file's measure.

    /// Counts one more.
    void add(std::int64_t aTime) noexcept { add({1, aTime}); }
    void add(LostSamples const& aOther) noexcept {
        if (count == 0) {
            time = aOther.time;
        }
        count += aOther.count;
    }
};

/// The file. For one thread at a time; every operation may wait for the disk.
class SampleStore : private virtual velmor::kepla::log::Logger {
public:
    SampleStore(std::filesystem::path aPath, SqliteDataLoggerOptions const& aOptions);
    ~SampleStore();
    SampleStore(SampleStore const&) = delete;
    SampleStore& operator=(SampleStore const&) = delete;

    /// Opens the file or makes it. A damaged one is moved aside and a new one made.
    /// @return What the disk says when it is full or fails: then the file is closed, and write() tries again.
    /// @throws std::runtime_error  when it fails otherwise; the words name the file and the reason.
    std::optional<std::string> open();

    /// Says what a channel is like; it stands in the file with the next write.
    /// @param aIndex  The index by which samples name it; one more than the last, or a known one.
    void describe(std::size_t aIndex, DataLoggerChannelInfo aInfo);

    /// @return Whether a channel does not stand in the file as it has been described.
    bool hasNews() const noexcept;

    /// Writes all in one transaction, or nothing. Opens the file where it is closed; begins a new one where
    /// somebody took it away.
    /// @param aLost  By channel index; may be shorter than the list of channels.
    /// @throws std::runtime_error  when that fails; the words name the file and the reason. A damaged file
    ///                             has been moved aside then, so that the next write begins a new one.
    void write(SampleRing const& aSamples, std::vector<LostSamples> const& aLost);

    /// Forgets what is older than it is kept. Does nothing while the file is closed.
    /// @throws std::runtime_error  when that fails.
    void forgetOld();

    /// Forgets the oldest samples while the file holds more than it may. Does nothing while it is closed.
    /// @throws std::runtime_error  when that fails.
    void forgetSurplus();

private:
    struct Statements;

    /// What becomes of the samples of one period in the transaction under way.
    struct PeriodSums {
        std::int64_t begin = 0;
        std::int64_t count = 0;
        double least = 0.0;
        double greatest = 0.0;
        double mean = 0.0;
    };
    struct Channel {
        explicit Channel(DataLoggerChannelInfo aInfo);

        DataLoggerChannelInfo info;
        std::int64_t id = 0; ///< In the file; 0 while it does not stand there, or not as it is now.
        bool keepsSamples;
        std::int64_t periodLength; ///< Of the statistics, in the file's measure; 0 without.
        std::int64_t rows = 0;     ///< Added by the transaction under way.
        PeriodSums sums;
    };

    void makeFolder() const;
    void throwIfThereIsNoRoom() const;
    void openFile(velmor::platform::Clock::Duration aPatience);
    void openDatabase(velmor::platform::Clock::Duration aPatience);
    void openOrReplace(velmor::platform::Clock::Duration aPatience);
    void makeTables();
    void checkTables();
    void close() noexcept;
    void closeRemoved();
    void moveAside(std::string const& aReason);
    template <typename Action>
    void transaction(Action aAction);
    void save(Channel& aChannel);
    void add(Channel& aChannel, QueuedSample const& aSample);
    void insert(Channel& aChannel, std::int64_t aTime, double aValue, DataLoggerStatusCode aStatus);
    void addToStatistics(Channel& aChannel, QueuedSample const& aSample);
    void saveStatistics(Channel& aChannel);
    std::uint64_t bytesInUse();
    bool forgetOldest(DataLoggerStorageType aType);
    void forgetBefore(DataLoggerStorageType aType, std::int64_t aTime);

    std::filesystem::path mPath;
    SqliteDataLoggerOptions mOptions;
    velmor::platform::Clock& mClock;
    std::vector<Channel> mChannels;
    std::optional<velmor::platform::Clock::TimePoint> mMovedAside; ///< When a file was last moved aside.
    std::unique_ptr<SqliteConnection> mDatabase;
    std::unique_ptr<Statements> mStatements; ///< Goes before the connection.
};

} // namespace velmor::kepla::datalogger
