// SPDX-License-Identifier: Apache-2.0
// The data logger of the instrument: channels kept in a SQLite file by a thread of its own.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerInterface.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>

namespace velmor::kepla::datalogger {

class SampleWriter;

/// What the data logger keeps and how.
struct SqliteDataLoggerOptions {
    /// Samples that wait for the writer, and as many again while the disk does not take them. 24 bytes each.
    std::size_t queueCapacity = 32768;
    /// Longest time that a sample waits before it is written; half a queue full shortens it.
    std::chrono::milliseconds flushInterval{1000};
    /// How long ShortTerm samples and statistics are kept.
    std::chrono::hours shortTermRetention{24 * 30};
    /// How long LongTerm samples and statistics are kept.
    std::chrono::hours longTermRetention{24 * 365 * 5};
    /// Bound of what the file holds, in bytes: beyond it the oldest ShortTerm samples go first, then the
    /// oldest statistics and LongTerm samples.
    std::uint64_t sizeLimit = 1024ULL * 1024 * 1024;
    /// How often what is too old is looked for.
    std::chrono::minutes retentionInterval{60};
    /// The file never has more pages of 4096 bytes, as if the disk ended there; 0 for as many as the disk
    /// takes.
    unsigned maxPages = 0;
    /// The file's folder is made where it is missing.
    bool makesFolder = false;
};

/// Keeps channels in a SQLite file in WAL mode, so that others may read it at any time.
///
/// Pushes go to a bounded queue. The thread "data-logger" writes it in one transaction a second, by the
/// process's Clock. What the disk does not take waits and is tried again every second; when the room for
/// waiting samples is full, the oldest go. They are counted, the log tells it once a burst, and a SamplesLost
/// row stands in their channel. It is the same when the disk is full or fails at the opening. No fault of the
/// disk ever reaches a pusher. A damaged file is moved aside
/// (".damaged-" and the time behind its name), and a new one begun.
///
/// All operations may be called from any thread.
class SqliteDataLogger final : public DataLoggerInterface {
public:
    using Options = SqliteDataLoggerOptions;

    /// Opens the file, or makes it. Waits for at most 2 s for another program that holds it locked. Where the
    /// disk is full or fails, the log tells it, samples wait, and the file is opened as soon as that is over.
    /// @param aPath     The file; its folder exists, unless the options let it be made.
    /// @param aOptions  What is kept and how.
    /// @throws std::runtime_error     when the file cannot be opened otherwise; the words name it and the
    ///                                reason.
    /// @throws std::invalid_argument  for a queue capacity, flush or retention interval of 0.
    explicit SqliteDataLogger(std::filesystem::path const& aPath, Options const& aOptions = {});

    /// Once the last channel is gone, too, writes what waits and joins the writer.
    ~SqliteDataLogger() override;
    SqliteDataLogger(SqliteDataLogger const&) = delete;
    SqliteDataLogger& operator=(SqliteDataLogger const&) = delete;

    std::shared_ptr<DataLoggerChannelIfc> createChannel(DataLoggerChannelInfo const& aInfo) override;

    /// @return How many samples have been lost for want of room since this object was made.
    std::uint64_t lostSamples() const noexcept;

private:
    std::shared_ptr<SampleWriter> mWriter;
};

} // namespace velmor::kepla::datalogger
