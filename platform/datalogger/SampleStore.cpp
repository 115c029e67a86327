// SPDX-License-Identifier: Apache-2.0
// How samples come into the data logger's file and how the oldest leave it.
#include "SampleStore.h"

#include "Layout.h"

#include <velmor/kepla/utils/EnumUtils.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

namespace velmor::kepla::datalogger {

namespace {

using velmor::kepla::log::Severity;
using velmor::platform::Clock;

constexpr int kPageSize = 4096;
/// The write-ahead log is cut to this size when it has been taken into the file.
constexpr int kLogSize = 4 * 1024 * 1024;
/// At run time a damaged file is replaced once in this time only: a disk that damages everything shall not
/// also be filled with what it damaged.
constexpr std::chrono::hours kBetweenReplacements{1};
/// Where there is too much, the oldest part of the time goes.
constexpr std::int64_t kPartToForget = 20;

std::string labelsText(std::map<int, std::string> const& aLabels) {
    std::string text;
    for (auto const& [value, label] : aLabels) {
        text += std::to_string(value) + "=" + label + "\n";
    }
    return text;
}

std::int64_t periodBegin(std::int64_t aTime, std::int64_t aLength) noexcept {
    std::int64_t const into = aTime % aLength;
    return aTime - (into < 0 ? into + aLength : into);
}

bool isBeyondLimits(double aValue, DataLoggerChannelInfo const& aInfo) noexcept {
    return (aInfo.lowerLimit != DataLoggerChannelInfo::kNoLowerLimit && aValue < aInfo.lowerLimit) ||
           (aInfo.upperLimit != DataLoggerChannelInfo::kNoUpperLimit && aValue > aInfo.upperLimit);
}

/// Whether the disk is full or fails, be it SQLite or the file system that says so.
bool isOutage(std::exception const& aError) noexcept {
    if (auto const* const database = dynamic_cast<SqliteError const*>(&aError)) {
        return database->isOutage();
    }
    auto const* const system = dynamic_cast<std::system_error const*>(&aError);
    return system != nullptr && isDiskOutage(system->code());
}

} // namespace

struct SampleStore::Statements {
    explicit Statements(SqliteConnection& aDatabase)
        : begin(aDatabase.prepare("BEGIN IMMEDIATE"))
        , commit(aDatabase.prepare("COMMIT"))
        , insert(aDatabase.prepare("INSERT INTO sample VALUES (?1, ?2, 0, ?3, ?4) ON CONFLICT DO NOTHING"))
        , insertBehind(aDatabase.prepare("INSERT INTO sample SELECT ?1, ?2, max(seq) + 1, ?3, ?4 FROM sample "
                                         "WHERE channel = ?1 AND time = ?2"))
        , addRows(aDatabase.prepare("INSERT INTO row_count VALUES (?1, ?2) "
                                    "ON CONFLICT DO UPDATE SET count = count + excluded.count"))
        , addStatistic(aDatabase.prepare(
              "INSERT INTO statistic VALUES (?1, ?2, ?3, ?4, ?5, ?6) ON CONFLICT DO UPDATE SET "
              "least = min(least, excluded.least), greatest = max(greatest, excluded.greatest), "
              "mean = mean + (excluded.mean - mean) * excluded.count / (count + excluded.count), "
              "count = count + excluded.count"))
        , saveChannel(aDatabase.prepare(
              "INSERT INTO channel VALUES (NULL, ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, "
              "?14, "
              "?15, ?16, ?17, ?18) ON CONFLICT (name) DO UPDATE SET unit = excluded.unit, "
              "unit_text = excluded.unit_text, storage = excluded.storage, "
              "stats_storage = excluded.stats_storage, stats_period = excluded.stats_period, "
              "description = excluded.description, period = excluded.period, "
              "lower_limit = excluded.lower_limit, upper_limit = excluded.upper_limit, "
              "lower_expected = excluded.lower_expected, upper_expected = excluded.upper_expected, "
              "labels = excluded.labels, enabled = excluded.enabled, resolution = excluded.resolution, "
              "offset = excluded.offset, factor = excluded.factor, hidden = excluded.hidden RETURNING id"))
        , pages(aDatabase.prepare("PRAGMA page_count"))
        , freePages(aDatabase.prepare("PRAGMA freelist_count")) {}

    SqliteStatement begin;
    SqliteStatement commit;
    SqliteStatement insert;
    SqliteStatement insertBehind;
    SqliteStatement addRows;
    SqliteStatement addStatistic;
    SqliteStatement saveChannel;
    SqliteStatement pages;
    SqliteStatement freePages;
};

SampleStore::Channel::Channel(DataLoggerChannelInfo aInfo)
    : info(std::move(aInfo))
    , keepsSamples(info.storageType != DataLoggerStorageType::None)
    , periodLength(std::chrono::microseconds{info.stats.period()}.count()) {}

SampleStore::SampleStore(std::filesystem::path aPath, SqliteDataLoggerOptions const& aOptions)
    : Logger("SqliteDataLogger", "")
    , mPath(std::move(aPath))
    , mOptions(aOptions)
    , mClock(Clock::current()) {}

SampleStore::~SampleStore() = default;

// -------------------------------------------------------------------------------------- opening, replacing

std::optional<std::string> SampleStore::open() {
    std::optional<std::string> outage;
    try {
        makeFolder();
        openOrReplace(kPatience);
    } catch (std::exception const& error) {
        if (!isOutage(error)) {
            throw std::runtime_error(std::string("The data logger cannot be opened: ") + error.what());
        }
        outage = error.what();
    }
    mMovedAside.reset(); // what was damaged before does not count against this run
    return outage;
}

/// Makes the folder where that is wanted.
/// @throws std::runtime_error  when it is missing otherwise.
void SampleStore::makeFolder() const {
    auto const folder = mPath.parent_path();
    std::error_code error;
    if (folder.empty() || std::filesystem::is_directory(folder, error)) {
        return;
    }
    std::string const words = mPath.string() + ": the directory " + folder.string();
    if (!mOptions.makesFolder) {
        throw std::runtime_error(words + " does not exist");
    }
    std::filesystem::create_directories(folder, error);
    if (error) {
        throw std::system_error(error, words + " cannot be made");
    }
}

void SampleStore::openOrReplace(Clock::Duration aPatience) {
    try {
        openFile(aPatience);
    } catch (SqliteError const& error) {
        if (!error.isDamage()) {
            throw;
        }
        moveAside(error.what());
        openFile(aPatience);
    }
}

/// Looks whether the disk takes one more file: SQLite says only that it could not make one.
/// @throws std::system_error  when it does not for want of room, or fails.
void SampleStore::throwIfThereIsNoRoom() const {
    std::string const probe = mPath.string() + ".probe";
    int const descriptor = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    std::error_code const error(errno, std::system_category());
    if (descriptor >= 0) {
        ::close(descriptor);
        ::unlink(probe.c_str());
    } else if (isDiskOutage(error)) {
        throw std::system_error(error, mPath.string() + ": it cannot be opened");
    }
}

/// Leaves nothing half open.
void SampleStore::openFile(Clock::Duration aPatience) {
    try {
        openDatabase(aPatience);
    } catch (SqliteError const& error) {
        close();
        if (error.code() == SQLITE_CANTOPEN) {
            throwIfThereIsNoRoom();
        }
        throw;
    } catch (...) {
        close();
        throw;
    }
}

void SampleStore::openDatabase(Clock::Duration aPatience) {
    mDatabase = std::make_unique<SqliteConnection>(mPath.string(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                                                   aPatience);
    mDatabase->execute(fmt::format("PRAGMA page_size = {}", kPageSize));
    if (mDatabase->number("SELECT count(*) FROM sqlite_master") == 0) {
        makeTables();
    } else {
        checkTables();
    }
    // A loss of power may cost the last transactions, but never the file.
    mDatabase->execute("PRAGMA synchronous = NORMAL");
    mDatabase->execute(fmt::format("PRAGMA journal_size_limit = {}", kLogSize));
    if (mOptions.maxPages != 0) {
        mDatabase->execute(fmt::format("PRAGMA max_page_count = {}", mOptions.maxPages));
    }
    mStatements = std::make_unique<Statements>(*mDatabase);
    mDatabase->losePatience();
}

void SampleStore::makeTables() {
    mDatabase->execute("PRAGMA journal_mode = WAL");
    mDatabase->execute(
        fmt::format("BEGIN IMMEDIATE; PRAGMA application_id = {}; PRAGMA user_version = {}; {} COMMIT",
                    kApplicationId, kLayout, kTables));
}

void SampleStore::checkTables() {
    if (mDatabase->number("PRAGMA application_id") != kApplicationId) {
        throw std::runtime_error(mPath.string() + ": it is a database of another program");
    }
    if (auto const layout = mDatabase->number("PRAGMA user_version"); layout != kLayout) {
        throw SqliteError(SQLITE_CORRUPT,
                          fmt::format("{}: it has the unknown layout {}", mPath.string(), layout));
    }
    mDatabase->execute("PRAGMA journal_mode = WAL");
    // Looks into every channel, so that most damage shows before the first sample waits.
    mDatabase->execute(
        "SELECT (SELECT max(time) FROM sample WHERE channel = id), "
        "(SELECT max(time) FROM statistic WHERE channel = id) FROM channel");
}

void SampleStore::close() noexcept {
    mStatements.reset();
    mDatabase.reset();
    for (Channel& channel : mChannels) {
        channel.id = 0;
    }
}

void SampleStore::closeRemoved() {
    keplaDoLog(Severity::Warning, "%s: somebody has removed it. A new file is begun", {}, mPath.string());
    std::error_code ignored;
    if (std::filesystem::exists(mPath, ignored)) {
        mDatabase->leaveLog(); // By its name it belongs to whoever has made the new file.
    }
    close();
}

void SampleStore::moveAside(std::string const& aReason) {
    close();
    std::string const suffix = fmt::format(
        ".damaged-{:%Y%m%dT%H%M%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(mClock.systemNow())));
    auto aside = mPath;
    aside += suffix;
    for (int copy = 2; std::filesystem::exists(aside); ++copy) {
        aside = mPath;
        aside += fmt::format("{}-{}", suffix, copy);
    }
    std::filesystem::rename(mPath, aside);
    std::error_code ignored; // The two others need not be there.
    std::filesystem::rename(mPath.string() + "-wal", aside.string() + "-wal", ignored);
    std::filesystem::remove(mPath.string() + "-shm", ignored);
    mMovedAside = mClock.now();
    keplaDoLog(Severity::Warning, "%s. It is moved to %s and a new file is begun", {}, aReason,
               aside.string());
}

// ------------------------------------------------------------------------------------------------- writing

void SampleStore::describe(std::size_t aIndex, DataLoggerChannelInfo aInfo) {
    if (aIndex == mChannels.size()) {
        mChannels.emplace_back(std::move(aInfo));
    } else {
        mChannels.at(aIndex) = Channel(std::move(aInfo));
    }
}

bool SampleStore::hasNews() const noexcept {
    return std::any_of(mChannels.begin(), mChannels.end(),
                       [](Channel const& aChannel) { return aChannel.id == 0; });
}

template <typename Action>
void SampleStore::transaction(Action aAction) {
    try {
        mStatements->begin.run();
        aAction();
        mStatements->commit.run();
    } catch (SqliteError const& error) {
        mDatabase->rollback();
        if (error.isDamage() && (!mMovedAside || mClock.now() - *mMovedAside >= kBetweenReplacements)) {
            moveAside(error.what());
        }
        throw;
    } catch (...) {
        mDatabase->rollback(); // Whatever it was: while a transaction is open, no other one begins.
        throw;
    }
}

void SampleStore::write(SampleRing const& aSamples, std::vector<LostSamples> const& aLost) {
    if (mDatabase != nullptr && mDatabase->hasMoved()) {
        closeRemoved();
    }
    if (mDatabase == nullptr) {
        if (mOptions.makesFolder) {
            makeFolder();
        }
        openOrReplace({});
    }
    std::vector<Channel*> saved;
    try {
        transaction([&] {
            for (Channel& channel : mChannels) {
                channel.rows = 0;
                channel.sums = {};
                if (channel.id == 0) {
                    save(channel);
                    saved.push_back(&channel);
                }
            }
            for (std::size_t age = 0; age < aSamples.size(); ++age) {
                add(mChannels[aSamples[age].channel], aSamples[age]);
            }
            for (std::size_t index = 0; index < aLost.size(); ++index) {
                if (aLost[index].count > 0) {
                    insert(mChannels[index], aLost[index].time, static_cast<double>(aLost[index].count),
                           DataLoggerStatusCode::SamplesLost);
                }
            }
            for (Channel& channel : mChannels) {
                saveStatistics(channel);
                if (channel.rows > 0) {
                    mStatements->addRows.bind(1, channel.id).bind(2, channel.rows).run();
                }
            }
        });
    } catch (...) {
        for (Channel* const channel : saved) {
            channel->id = 0;
        }
        throw;
    }
}

void SampleStore::save(Channel& aChannel) {
    DataLoggerChannelInfo const& info = aChannel.info;
    std::string const name = info.name();
    std::string const labels = labelsText(info.labels);
    SqliteStatement& statement = mStatements->saveChannel;
    statement.bind(1, std::string_view(name))
        .bind(2, static_cast<std::int64_t>(info.unit))
        .bind(3, utils::EnumUtils<DataLoggerUnit>::to_string(info.unit))
        .bind(4, static_cast<std::int64_t>(info.storageType))
        .bind(5, static_cast<std::int64_t>(info.stats.storageType()))
        .bind(6, static_cast<std::int64_t>(info.stats.period().count()))
        .bind(7, std::string_view(info.description))
        .bind(8, static_cast<std::int64_t>(info.period.count()))
        .bind(9, info.lowerLimit)
        .bind(10, info.upperLimit)
        .bind(11, info.lowerExpected)
        .bind(12, info.upperExpected)
        .bind(13, std::string_view(labels))
        .bind(14, static_cast<std::int64_t>(info.enabled))
        .bind(15, info.resolution)
        .bind(16, info.offset)
        .bind(17, info.factor)
        .bind(18, static_cast<std::int64_t>(info.hidden));
    std::int64_t id = 0;
    while (statement.next()) {
        id = statement.integer(0);
    }
    aChannel.id = id;
}

void SampleStore::add(Channel& aChannel, QueuedSample const& aSample) {
    if (!aChannel.info.enabled) {
        return;
    }
    bool const beyond =
        aSample.status == DataLoggerStatusCode::Good && isBeyondLimits(aSample.value, aChannel.info);
    insert(aChannel, aSample.time, aSample.value, beyond ? DataLoggerStatusCode::OutOfRange : aSample.status);
    if (aChannel.periodLength != 0 && aSample.status == DataLoggerStatusCode::Good && !beyond &&
        std::isfinite(aSample.value)) {
        addToStatistics(aChannel, aSample);
    }
}

void SampleStore::insert(Channel& aChannel, std::int64_t aTime, double aValue, DataLoggerStatusCode aStatus) {
    if (!aChannel.keepsSamples) {
        return;
    }
    auto const insertBy = [&](SqliteStatement& aStatement) {
        aStatement.bind(1, aChannel.id)
            .bind(2, aTime)
            .bind(3, aValue)
            .bind(4, static_cast<std::int64_t>(aStatus));
        aStatement.run();
    };
    insertBy(mStatements->insert);
    if (mDatabase->changes() == 0) { // There is one of this microsecond.
        insertBy(mStatements->insertBehind);
    }
    ++aChannel.rows;
}

void SampleStore::addToStatistics(Channel& aChannel, QueuedSample const& aSample) {
    std::int64_t const begin = periodBegin(aSample.time, aChannel.periodLength);
    PeriodSums& sums = aChannel.sums;
    if (sums.count == 0 || sums.begin != begin) {
        saveStatistics(aChannel);
        sums = {begin, 0, aSample.value, aSample.value, 0.0};
    }
    ++sums.count;
    sums.least = std::min(sums.least, aSample.value);
    sums.greatest = std::max(sums.greatest, aSample.value);
    sums.mean += (aSample.value - sums.mean) / static_cast<double>(sums.count);
}

void SampleStore::saveStatistics(Channel& aChannel) {
    PeriodSums const& sums = aChannel.sums;
    if (sums.count > 0) {
        mStatements->addStatistic.bind(1, aChannel.id)
            .bind(2, sums.begin)
            .bind(3, sums.count)
            .bind(4, sums.least)
            .bind(5, sums.greatest)
            .bind(6, sums.mean)
            .run();
    }
}

// ----------------------------------------------------------------------------------------------- retention

void SampleStore::forgetOld() {
    if (mDatabase == nullptr) {
        return;
    }
    auto const now = mClock.systemNow();
    forgetBefore(DataLoggerStorageType::ShortTerm, toFileTime(now - mOptions.shortTermRetention));
    forgetBefore(DataLoggerStorageType::LongTerm, toFileTime(now - mOptions.longTermRetention));
}

void SampleStore::forgetSurplus() {
    if (mDatabase == nullptr || bytesInUse() <= mOptions.sizeLimit) {
        return;
    }
    keplaDoLog(Severity::Info, "%s holds more than %u bytes: the oldest samples go", {}, mPath.string(),
               mOptions.sizeLimit);
    while (bytesInUse() > mOptions.sizeLimit) {
        if (!forgetOldest(DataLoggerStorageType::ShortTerm) &&
            !forgetOldest(DataLoggerStorageType::LongTerm)) {
            return;
        }
    }
}

std::uint64_t SampleStore::bytesInUse() {
    return static_cast<std::uint64_t>(mStatements->pages.number() - mStatements->freePages.number()) *
           kPageSize;
}

bool SampleStore::forgetOldest(DataLoggerStorageType aType) {
    auto span = mDatabase->prepare(
        "SELECT min(oldest), max(newest) FROM ("
        "SELECT (SELECT min(time) FROM sample WHERE channel = id) AS oldest, "
        "(SELECT max(time) FROM sample WHERE channel = id) AS newest FROM channel WHERE storage = ?1 UNION "
        "ALL "
        "SELECT (SELECT min(time) FROM statistic WHERE channel = id), "
        "(SELECT max(time) FROM statistic WHERE channel = id) FROM channel WHERE stats_storage = ?1) "
        "WHERE oldest IS NOT NULL");
    span.bind(1, static_cast<std::int64_t>(aType));
    if (!span.next() || span.text(0).empty()) {
        return false;
    }
    std::int64_t const oldest = span.integer(0);
    std::int64_t const newest = span.integer(1);
    span.reset();
    forgetBefore(aType, oldest + (newest - oldest) / kPartToForget + 1);
    return true;
}

void SampleStore::forgetBefore(DataLoggerStorageType aType, std::int64_t aTime) {
    std::vector<std::int64_t> ids;
    auto channels = mDatabase->prepare("SELECT id FROM channel WHERE storage = ?1 OR stats_storage = ?1");
    channels.bind(1, static_cast<std::int64_t>(aType));
    while (channels.next()) {
        ids.push_back(channels.integer(0));
    }
    auto samples = mDatabase->prepare(
        "DELETE FROM sample WHERE channel = ?1 AND time < ?2 AND "
        "(SELECT storage FROM channel WHERE id = ?1) = ?3");
    auto statistics = mDatabase->prepare(
        "DELETE FROM statistic WHERE channel = ?1 AND time < ?2 AND "
        "(SELECT stats_storage FROM channel WHERE id = ?1) = ?3");
    for (std::int64_t const id : ids) {
        transaction([&] { // One for each channel, to keep each short.
            samples.bind(1, id).bind(2, aTime).bind(3, static_cast<std::int64_t>(aType)).run();
            if (auto const gone = mDatabase->changes(); gone > 0) {
                mStatements->addRows.bind(1, id).bind(2, -gone).run();
            }
            statistics.bind(1, id).bind(2, aTime).bind(3, static_cast<std::int64_t>(aType)).run();
        });
    }
}

} // namespace velmor::kepla::datalogger
