// SPDX-License-Identifier: Apache-2.0
// The description with which a data-logger channel is made.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerStats.h>
#include <velmor/kepla/datalogger/DataLoggerStorageType.h>
#include <velmor/kepla/datalogger/DataLoggerUnit.h>

#include <chrono>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace velmor::kepla::datalogger {

/// Describes a channel. A value.
struct DataLoggerChannelInfo {
    /// Least value of a channel without a lower limit. Intended: the smallest positive double, which callers
    /// pass where they mean no limit; zero and negative values are within it.
    static constexpr double kNoLowerLimit = std::numeric_limits<double>::min();
    /// Greatest value of a channel without an upper limit.
    static constexpr double kNoUpperLimit = std::numeric_limits<double>::max();

    /// @param aPath           Name of the channel, from the general to the particular; at least one part,
    ///                        none empty. The parts are joined with "/", so a part may hold several levels.
    /// @param aUnit           Unit of the values.
    /// @param aStats          Statistics to keep beside the samples.
    /// @param aStorageType    How long the samples are kept; None for no samples at all.
    /// @param aDescription    A sentence for people.
    /// @param aPeriod         Time between samples; 0 where they come as they come.
    /// @param aLowerLimit     Least value that can be true; a sample below is kept as OutOfRange.
    /// @param aUpperLimit     Greatest value that can be true; a sample above is kept as OutOfRange.
    /// @param aLowerExpected  Least value to be expected: where a plot begins.
    /// @param aUpperExpected  Greatest value to be expected: where a plot ends.
    /// @param aLabels         Words for single values, such as the states of a machine.
    /// @param aEnabled        Whether samples are kept; else pushes are ignored.
    /// @param aResolution     Resolution of the source in its own numbers; for readers, values are not
    /// rounded.
    /// @param aOffset         Zero of the source in the channel's unit; for readers, values are kept as
    /// pushed.
    /// @param aFactor         Channel's unit in one of the source's; for readers, values are kept as pushed.
    /// @param aHidden         Whether lists leave the channel out unless asked for all.
    /// @throws std::invalid_argument  for a path without parts or with an empty one.
    DataLoggerChannelInfo(std::vector<std::string> aPath,
                          DataLoggerUnit aUnit,
                          DataLoggerStats const& aStats,
                          DataLoggerStorageType aStorageType,
                          std::string aDescription,
                          std::chrono::microseconds const& aPeriod = std::chrono::microseconds{0},
                          double const& aLowerLimit = kNoLowerLimit,
                          double const& aUpperLimit = kNoUpperLimit,
                          double const& aLowerExpected = kNoLowerLimit,
                          double const& aUpperExpected = kNoUpperLimit,
                          std::map<int, std::string> aLabels = {},
                          bool aEnabled = true,
                          double const& aResolution = 0.001,
                          double const& aOffset = 0.0,
                          double const& aFactor = 1.0,
                          bool aHidden = false);

    /// @return The parts of the path joined with "/", by which the channel is known in the file.
    std::string name() const;

    bool operator==(DataLoggerChannelInfo const&) const = default;

    std::vector<std::string> path;
    DataLoggerUnit unit;
    DataLoggerStats stats;
    DataLoggerStorageType storageType;
    std::string description;
    std::chrono::microseconds period;
    double lowerLimit;
    double upperLimit;
    double lowerExpected;
    double upperExpected;
    std::map<int, std::string> labels;
    bool enabled;
    double resolution;
    double offset;
    double factor;
    bool hidden;
};

} // namespace velmor::kepla::datalogger
