// SPDX-License-Identifier: Apache-2.0
// Reads the data logger's file, also while it is being written.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerStatusCode.h>
#include <velmor/kepla/datalogger/DataLoggerStorageType.h>
#include <velmor/kepla/datalogger/DataLoggerUnit.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmor::kepla::datalogger {

/// One row of a channel.
struct DataLoggerSample {
    std::chrono::system_clock::time_point time; ///< To the microsecond.
    double value;                               ///< In the channel's unit.
    DataLoggerStatusCode status;
};

/// What is kept of the samples of one period.
struct DataLoggerStatistic {
    std::chrono::system_clock::time_point begin; ///< Of the period.
    std::uint64_t count;                         ///< Of the samples that were good and finite.
    double least;                                ///< In the channel's unit, as the next two.
    double greatest;
    double mean;
};

/// A channel in the file.
struct DataLoggerChannelSummary {
    std::string name;                      ///< Its path, joined with "/".
    DataLoggerUnit unit;                   ///< Of its values.
    DataLoggerStorageType storageType;     ///< How long its samples are kept.
    std::chrono::seconds statsPeriod;      ///< Of its statistics; 0 s when it has none.
    std::string description;               ///< A sentence for people.
    std::map<int, std::string> labels;     ///< Words for single values.
    bool hidden;                           ///< Whether lists leave it out unless asked for all.
    std::uint64_t count;                   ///< Of its rows, SamplesLost included.
    std::optional<DataLoggerSample> first; ///< The oldest row.
    std::optional<DataLoggerSample> last;  ///< The newest row that is a sample, not a gap.
};

/// Which rows are wanted. Times are included.
struct DataLoggerQuery {
    std::optional<std::chrono::system_clock::time_point> since = std::nullopt;
    std::optional<std::chrono::system_clock::time_point> until = std::nullopt;
    std::optional<std::size_t> limit = std::nullopt; ///< At most so many rows.
    bool newest = false; ///< Whether the limit keeps the newest rows rather than the oldest.
};

/// A reader of the data logger's file. It changes nothing in it and never hinders the writer, not even while
/// a callback takes its time. For one thread at a time; every operation reads from the disk.
class DataLoggerReader {
public:
    /// @param aPath  The file.
    /// @throws std::runtime_error  when there is no such file or it is not the data logger's; the words name
    ///                             it and the reason.
    explicit DataLoggerReader(std::filesystem::path const& aPath);
    ~DataLoggerReader();
    DataLoggerReader(DataLoggerReader const&) = delete;
    DataLoggerReader& operator=(DataLoggerReader const&) = delete;

    /// @return All channels, by name.
    /// @throws std::runtime_error  when the file cannot be read.
    std::vector<DataLoggerChannelSummary> channels() const;

    /// @param aChannel  Name of the channel, its path joined with "/".
    /// @return The channel.
    /// @throws std::invalid_argument  when there is no such channel; the words name it.
    /// @throws std::runtime_error     when the file cannot be read.
    DataLoggerChannelSummary channel(std::string_view aChannel) const;

    /// Hands over the rows of a channel one by one, in the order of their times.
    /// @param aChannel  Name of the channel.
    /// @param aQuery    Which rows.
    /// @param aSink     Takes a row; answers whether it wants more. What is written meanwhile may come, too.
    /// @return How many rows were handed over.
    /// @throws std::invalid_argument  when there is no such channel.
    /// @throws std::runtime_error     when the file cannot be read; also what the sink throws.
    std::size_t samples(std::string_view aChannel,
                        DataLoggerQuery const& aQuery,
                        std::function<bool(DataLoggerSample const&)> const& aSink) const;

    /// Hands over the statistics of a channel, by the beginnings of their periods; otherwise as samples().
    std::size_t statistics(std::string_view aChannel,
                           DataLoggerQuery const& aQuery,
                           std::function<bool(DataLoggerStatistic const&)> const& aSink) const;

    /// @return What the file holds, in bytes, free pages left out: what a size limit bounds.
    /// @throws std::runtime_error  when the file cannot be read.
    std::uint64_t bytes() const;

private:
    class Statements;

    std::unique_ptr<Statements> mStatements;
};

} // namespace velmor::kepla::datalogger
