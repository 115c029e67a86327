// SPDX-License-Identifier: Apache-2.0
// Reads the data logger's file in portions: between them no transaction is open, so that neither a slow
// consumer nor a pager in front of the command keeps the writer's log from being taken into the file.
#include <velmor/kepla/datalogger/DataLoggerReader.h>

#include "Layout.h"
#include "Sqlite.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <stdexcept>
#include <utility>

namespace velmor::kepla::datalogger {

namespace {

constexpr std::size_t kPortion = 1000;
constexpr std::int64_t kOldest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kNewest = std::numeric_limits<std::int64_t>::max();

/// A file name as a URI's path.
std::string uriOf(std::filesystem::path const& aPath) {
    constexpr std::string_view kHex = "0123456789ABCDEF";
    std::string uri = "file:";
    for (char const character : std::filesystem::absolute(aPath).string()) {
        if (character == '%' || character == '?' || character == '#') {
            auto const code = static_cast<unsigned char>(character);
            uri += {'%', kHex[code / 16U], kHex[code % 16U]};
        } else {
            uri += character;
        }
    }
    return uri;
}

std::unique_ptr<SqliteConnection> openReadOnly(std::filesystem::path const& aPath) {
    if (!std::filesystem::exists(aPath)) {
        throw std::runtime_error("There is no data logger file " + aPath.string());
    }
    constexpr char const* kLook = "SELECT count(*) FROM sqlite_master";
    try {
        auto database = std::make_unique<SqliteConnection>(aPath.string(), SQLITE_OPEN_READONLY, kPatience);
        database->number(kLook);
        return database;
    } catch (SqliteError const& error) {
        // Nobody has the file open, and we may not make the files that go with an open one: it stands still.
        bool const standsStill = !std::filesystem::exists(aPath.string() + "-wal");
        if (!standsStill || (error.code() != SQLITE_CANTOPEN && error.code() != SQLITE_READONLY)) {
            throw;
        }
        return std::make_unique<SqliteConnection>(uriOf(aPath) + "?immutable=1",
                                                  SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, kPatience);
    }
}

std::map<int, std::string> labelsOf(std::string const& aText) {
    std::map<int, std::string> labels;
    for (std::size_t begin = 0; begin < aText.size();) {
        std::size_t const equals = aText.find('=', begin);
        std::size_t const end = aText.find('\n', begin);
        if (equals == std::string::npos || end == std::string::npos || equals > end) {
            break;
        }
        int value = 0;
        std::from_chars(aText.data() + begin, aText.data() + equals, value);
        labels.emplace(value, aText.substr(equals + 1, end - equals - 1));
        begin = end + 1;
    }
    return labels;
}

} // namespace

class DataLoggerReader::Statements {
public:
    explicit Statements(std::filesystem::path const& aPath)
        : database(openReadOnly(aPath)) {
        if (database->number("PRAGMA application_id") != kApplicationId ||
            database->number("PRAGMA user_version") != kLayout) {
            throw std::runtime_error(aPath.string() + ": it is not a data logger file of this version");
        }
    }

    /// @return Id of a channel in the file.
    std::int64_t idOf(std::string_view aChannel) const {
        auto find = database->prepare("SELECT id FROM channel WHERE name = ?1");
        std::int64_t const id = find.bind(1, aChannel).number();
        if (id == 0) {
            throw std::invalid_argument("The data logger has no channel \"" + std::string(aChannel) + "\"");
        }
        return id;
    }

    std::vector<DataLoggerChannelSummary> summaries(std::string_view aChannel) const;

    std::unique_ptr<SqliteConnection> database;
};

std::vector<DataLoggerChannelSummary> DataLoggerReader::Statements::summaries(
    std::string_view aChannel) const {
    auto channels = database->prepare(
        "SELECT id, name, unit, storage, stats_period, description, labels, hidden, coalesce(count, 0) "
        "FROM channel LEFT JOIN row_count ON channel.id = row_count.channel WHERE ?1 = '' OR name = ?1 "
        "ORDER BY name");
    auto first = database->prepare(
        "SELECT time, value, status FROM sample WHERE channel = ?1 ORDER BY time, seq LIMIT 1");
    auto last = database->prepare(
        "SELECT time, value, status FROM sample WHERE channel = ?1 AND status <> ?2 "
        "ORDER BY time DESC, seq DESC LIMIT 1");
    auto const sampleOf = [](SqliteStatement& aStatement) {
        std::optional<DataLoggerSample> sample;
        if (aStatement.next()) {
            sample = DataLoggerSample{fromFileTime(aStatement.integer(0)), aStatement.real(1),
                                      static_cast<DataLoggerStatusCode>(aStatement.integer(2))};
        }
        aStatement.reset();
        return sample;
    };
    std::vector<DataLoggerChannelSummary> found;
    channels.bind(1, aChannel);
    while (channels.next()) { // One read of the file as it stands: the outer statement keeps it open.
        std::int64_t const id = channels.integer(0);
        DataLoggerChannelSummary summary{};
        summary.name = channels.text(1);
        summary.unit = static_cast<DataLoggerUnit>(channels.integer(2));
        summary.storageType = static_cast<DataLoggerStorageType>(channels.integer(3));
        summary.statsPeriod = std::chrono::seconds{channels.integer(4)};
        summary.description = channels.text(5);
        summary.labels = labelsOf(channels.text(6));
        summary.hidden = channels.integer(7) != 0;
        summary.count = static_cast<std::uint64_t>(channels.integer(8));
        summary.first = sampleOf(first.bind(1, id));
        summary.last =
            sampleOf(last.bind(1, id).bind(2, static_cast<std::int64_t>(DataLoggerStatusCode::SamplesLost)));
        found.push_back(std::move(summary));
    }
    return found;
}

DataLoggerReader::DataLoggerReader(std::filesystem::path const& aPath)
    : mStatements(std::make_unique<Statements>(aPath)) {}

DataLoggerReader::~DataLoggerReader() = default;

std::vector<DataLoggerChannelSummary> DataLoggerReader::channels() const {
    return mStatements->summaries("");
}

DataLoggerChannelSummary DataLoggerReader::channel(std::string_view aChannel) const {
    mStatements->idOf(aChannel);
    return mStatements->summaries(aChannel).at(0);
}

namespace {

/// A place in the rows of a channel.
struct Place {
    std::int64_t time;
    std::int64_t seq;
};

struct Row {
    Place place;
    std::array<double, 3> values;
    std::int64_t whole;
};

/// How to page through the rows of one table. Every statement selects time, seq, one whole number and the
/// values.
struct Pages {
    char const* rows;       ///< ?1 channel, ?2 and ?3 the place before, ?4 until, ?5 how many.
    char const* newestFrom; ///< Place of the ?4th row before the end: ?1 channel, ?2 since, ?3 until.
    int values;
};

constexpr Pages kSamplePages{
    "SELECT time, seq, status, value FROM sample WHERE channel = ?1 AND (time, seq) > (?2, ?3) AND time <= "
    "?4 "
    "ORDER BY time, seq LIMIT ?5",
    "SELECT time, seq FROM sample WHERE channel = ?1 AND time BETWEEN ?2 AND ?3 "
    "ORDER BY time DESC, seq DESC LIMIT 1 OFFSET ?4",
    1};

constexpr Pages kStatisticPages{
    "SELECT time, 0, count, least, greatest, mean FROM statistic WHERE channel = ?1 AND time >= ?2 AND "
    "(time, 0) > (?2, ?3) "
    "AND time <= ?4 ORDER BY time LIMIT ?5",
    "SELECT time, 0 FROM statistic WHERE channel = ?1 AND time BETWEEN ?2 AND ?3 ORDER BY time DESC LIMIT 1 "
    "OFFSET ?4",
    3};

std::size_t page(SqliteConnection& aDatabase,
                 std::int64_t aChannel,
                 Pages const& aPages,
                 DataLoggerQuery const& aQuery,
                 std::function<bool(Row const&)> const& aSink) {
    std::int64_t const since = aQuery.since ? toFileTime(*aQuery.since) : kOldest;
    std::int64_t const until = aQuery.until ? toFileTime(*aQuery.until) : kNewest;
    std::size_t left = aQuery.limit.value_or(std::numeric_limits<std::size_t>::max());
    Place behind{since, -1};
    if (aQuery.newest && aQuery.limit && left > 0) {
        auto find = aDatabase.prepare(aPages.newestFrom);
        find.bind(1, aChannel).bind(2, since).bind(3, until).bind(4, static_cast<std::int64_t>(left - 1));
        if (find.next()) {
            behind = {find.integer(0), find.integer(1) - 1};
        }
        find.reset();
    }
    auto select = aDatabase.prepare(aPages.rows);
    std::vector<Row> rows;
    rows.reserve(kPortion);
    std::size_t handed = 0;
    while (left > 0) {
        std::size_t const portion = std::min(kPortion, left);
        select.bind(1, aChannel).bind(2, behind.time).bind(3, behind.seq).bind(4, until);
        select.bind(5, static_cast<std::int64_t>(portion));
        rows.clear();
        while (select.next()) {
            Row row{{select.integer(0), select.integer(1)}, {}, select.integer(2)};
            for (int value = 0; value < aPages.values; ++value) {
                row.values[static_cast<std::size_t>(value)] = select.real(3 + value);
            }
            rows.push_back(row);
        }
        for (Row const& row : rows) {
            ++handed;
            if (!aSink(row)) {
                return handed;
            }
        }
        if (rows.size() < portion) {
            break;
        }
        behind = rows.back().place;
        left -= rows.size();
    }
    return handed;
}

} // namespace

std::size_t DataLoggerReader::samples(std::string_view aChannel,
                                      DataLoggerQuery const& aQuery,
                                      std::function<bool(DataLoggerSample const&)> const& aSink) const {
    return page(*mStatements->database, mStatements->idOf(aChannel), kSamplePages, aQuery,
                [&](Row const& aRow) {
                    return aSink({fromFileTime(aRow.place.time), aRow.values[0],
                                  static_cast<DataLoggerStatusCode>(aRow.whole)});
                });
}

std::size_t DataLoggerReader::statistics(std::string_view aChannel,
                                         DataLoggerQuery const& aQuery,
                                         std::function<bool(DataLoggerStatistic const&)> const& aSink) const {
    return page(*mStatements->database, mStatements->idOf(aChannel), kStatisticPages, aQuery,
                [&](Row const& aRow) {
                    return aSink({fromFileTime(aRow.place.time), static_cast<std::uint64_t>(aRow.whole),
                                  aRow.values[0], aRow.values[1], aRow.values[2]});
                });
}

std::uint64_t DataLoggerReader::bytes() const {
    auto const number = [&](char const* aSql) {
        return static_cast<std::uint64_t>(mStatements->database->number(aSql));
    };
    return (number("PRAGMA page_count") - number("PRAGMA freelist_count")) * number("PRAGMA page_size");
}

} // namespace velmor::kepla::datalogger
