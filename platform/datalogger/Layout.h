// SPDX-License-Identifier: Apache-2.0
// What the writer and the reader agree on of the file.
#pragma once

#include <chrono>
#include <cstdint>

namespace velmor::kepla::datalogger {

/// Marks the file as the data logger's in SQLite's header: "FWDL".
inline constexpr std::int64_t kApplicationId = 0x4657444C;
/// Number of the tables' layout.
inline constexpr std::int64_t kLayout = 1;

/// Times are microseconds since 1970-01-01 UTC. The samples of a channel lie together in the order of time,
/// so that neither reading a channel nor forgetting its oldest samples touches the others; `seq` tells
/// samples of one microsecond apart. A value that is NULL is NaN.
inline constexpr char const* kTables = R"(
CREATE TABLE channel (
    id INTEGER PRIMARY KEY,
    name TEXT NOT NULL UNIQUE,
    unit INTEGER NOT NULL,
    unit_text TEXT NOT NULL,
    storage INTEGER NOT NULL,
    stats_storage INTEGER NOT NULL,
    stats_period INTEGER NOT NULL,
    description TEXT NOT NULL,
    period INTEGER NOT NULL,
    lower_limit REAL,
    upper_limit REAL,
    lower_expected REAL,
    upper_expected REAL,
    labels TEXT NOT NULL,
    enabled INTEGER NOT NULL,
    resolution REAL,
    offset REAL,
    factor REAL,
    hidden INTEGER NOT NULL
);
CREATE TABLE sample (
    channel INTEGER NOT NULL,
    time INTEGER NOT NULL,
    seq INTEGER NOT NULL,
    value REAL,
    status INTEGER NOT NULL,
    PRIMARY KEY (channel, time, seq)
) WITHOUT ROWID;
CREATE TABLE statistic (
    channel INTEGER NOT NULL,
    time INTEGER NOT NULL,
    count INTEGER NOT NULL,
    least REAL NOT NULL,
    greatest REAL NOT NULL,
    mean REAL NOT NULL,
    PRIMARY KEY (channel, time)
) WITHOUT ROWID;
CREATE TABLE row_count (
    channel INTEGER PRIMARY KEY,
    count INTEGER NOT NULL
);
CREATE VIEW reading AS
    SELECT name AS channel, strftime('%Y-%m-%dT%H:%M:%fZ', sample.time / 1e6, 'unixepoch') AS time,
           value, unit_text AS unit, status
    FROM sample JOIN channel ON channel.id = sample.channel;
)";

/// How long an operation that may wait does so for another program's lock.
inline constexpr std::chrono::seconds kPatience{2};

/// @return The time in the file's measure, rounded down.
inline std::int64_t toFileTime(std::chrono::system_clock::time_point aTime) noexcept {
    return std::chrono::floor<std::chrono::microseconds>(aTime.time_since_epoch()).count();
}

inline std::chrono::system_clock::time_point fromFileTime(std::int64_t aTime) noexcept {
    return std::chrono::system_clock::time_point{std::chrono::microseconds{aTime}};
}

} // namespace velmor::kepla::datalogger
