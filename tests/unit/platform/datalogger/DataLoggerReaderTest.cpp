// SPDX-License-Identifier: Apache-2.0
// Reading the data logger's file, most of the time while it is being written.
#include "DataLoggerFixture.h"

#include <cmath>
#include <stdexcept>

#include <sqlite3.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using velmor::kepla::datalogger::DataLoggerQuery;
using velmor::kepla::datalogger::DataLoggerStatistic;

class DataLoggerReader : public libfieldwarden::test::DataLoggerFixture {
protected:
    /// Five samples 1.0 … 5.0 in five seconds, written.
    void writeFive() {
        open();
        auto const channel = logger->createChannel(info("a"));
        begin = now();
        for (int i = 1; i <= 5; ++i) {
            channel->push(i, begin + i * 1s);
        }
        turn();
    }

    std::vector<double> asked(DataLoggerQuery const& aQuery) const {
        std::vector<double> found;
        Reader(file).samples("test/a", aQuery, [&](Sample const& aSample) {
            found.push_back(aSample.value);
            return true;
        });
        return found;
    }

    std::string refusal() const {
        try {
            Reader const reader(file);
        } catch (std::runtime_error const& error) {
            return error.what();
        }
        return "opened";
    }

    Time begin{};
};

TEST_F(DataLoggerReader, SaysThatThereIsNoFile) {
    EXPECT_EQ(refusal(), "There is no data logger file " + file.string());
}

TEST_F(DataLoggerReader, SaysThatAFileIsNoDatabase) {
    writeFile(file, std::string(5'000, 'x'));
    EXPECT_EQ(refusal(), file.string() + ": it is no database");
}

TEST_F(DataLoggerReader, RefusesTheDatabaseOfAnotherProgram) {
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &other), SQLITE_OK);
    sqlite3_exec(other, "CREATE TABLE wines (name TEXT)", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    EXPECT_EQ(refusal(), file.string() + ": it is not a data logger file of this version");
}

TEST_F(DataLoggerReader, ListsTheChannelsByNameWithWhatTheyHold) {
    open();
    Info flag({"lock", "locked"}, Unit::Boolean, Stats::none(), Storage::LongTerm, "Locked state");
    flag.labels = {{0, "not locked"}, {1, "locked"}, {-1, "a=b"}};
    flag.hidden = true;
    logger->createChannel(info("b", Storage::ShortTerm, Stats(Storage::LongTerm, 600s)));
    auto const locked = logger->createChannel(flag);
    begin = now();
    locked->push(0.0, begin);
    locked->push(1.0, begin + 5s, Status::Uncertain);
    turn();
    auto const channels = Reader(file).channels();
    ASSERT_EQ(channels.size(), 2U);
    EXPECT_EQ(channels[0].name, "lock/locked");
    EXPECT_EQ(channels[0].unit, Unit::Boolean);
    EXPECT_EQ(channels[0].storageType, Storage::LongTerm);
    EXPECT_EQ(channels[0].statsPeriod, 0s);
    EXPECT_EQ(channels[0].description, "Locked state");
    EXPECT_EQ(channels[0].labels, flag.labels);
    EXPECT_TRUE(channels[0].hidden);
    EXPECT_EQ(channels[0].count, 2U);
    EXPECT_EQ(channels[0].first->time, begin);
    EXPECT_EQ(channels[0].last->time, begin + 5s);
    EXPECT_EQ(channels[0].last->value, 1.0);
    EXPECT_EQ(channels[0].last->status, Status::Uncertain);
    EXPECT_EQ(channels[1].name, "test/b");
    EXPECT_EQ(channels[1].statsPeriod, 600s);
    EXPECT_FALSE(channels[1].hidden);
    EXPECT_EQ(channels[1].count, 0U);
    EXPECT_FALSE(channels[1].first.has_value());
    EXPECT_FALSE(channels[1].last.has_value());
}

TEST_F(DataLoggerReader, NamesTheChannelThatIsNotThere) {
    writeFive();
    Reader const reader(file);
    EXPECT_THROW(reader.channel("test/b"), std::invalid_argument);
    try {
        reader.samples("test/b", {}, [](Sample const&) { return true; });
        FAIL();
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(), "The data logger has no channel \"test/b\"");
    }
}

TEST_F(DataLoggerReader, TakesBothEndsOfATimeIn) {
    writeFive();
    EXPECT_THAT(asked({}), ElementsAre(1, 2, 3, 4, 5));
    EXPECT_THAT(asked({.since = begin + 2s}), ElementsAre(2, 3, 4, 5));
    EXPECT_THAT(asked({.until = begin + 2s}), ElementsAre(1, 2));
    EXPECT_THAT(asked({.since = begin + 2s, .until = begin + 4s}), ElementsAre(2, 3, 4));
    EXPECT_THAT(asked({.since = begin + 6s}), IsEmpty());
}

TEST_F(DataLoggerReader, LimitsToTheOldestOrToTheNewest) {
    writeFive();
    EXPECT_THAT(asked({.limit = 2}), ElementsAre(1, 2));
    EXPECT_THAT(asked({.limit = 2, .newest = true}), ElementsAre(4, 5));
    EXPECT_THAT(asked({.until = begin + 4s, .limit = 2, .newest = true}), ElementsAre(3, 4));
    EXPECT_THAT(asked({.limit = 9, .newest = true}), ElementsAre(1, 2, 3, 4, 5));
    EXPECT_THAT(asked({.since = begin + 5s, .limit = 3, .newest = true}), ElementsAre(5));
    EXPECT_THAT(asked({.limit = 0}), IsEmpty());
    EXPECT_THAT(asked({.limit = 0, .newest = true}), IsEmpty());
}

TEST_F(DataLoggerReader, StopsWhenTheSinkHasEnough) {
    writeFive();
    int seen = 0;
    EXPECT_EQ(Reader(file).samples("test/a", {}, [&](Sample const&) { return ++seen < 3; }), 3U);
    EXPECT_EQ(seen, 3);
}

TEST_F(DataLoggerReader, StreamsManyPortionsWithoutGapOrDouble) {
    open();
    auto const channel = logger->createChannel(info("a"));
    for (int i = 0; i < 3'500; ++i) {
        channel->push(i, now() + (i / 700) * 1us); // 700 of each microsecond: portions end amid them
    }
    turn();
    auto const kept = values("a");
    ASSERT_EQ(kept.size(), 3'500U);
    for (std::size_t i = 0; i < kept.size(); ++i) {
        ASSERT_EQ(kept[i], static_cast<double>(i));
    }
    EXPECT_EQ(asked({.limit = 1'234, .newest = true}).front(), 2'266.0); // 3500 - 1234
}

TEST_F(DataLoggerReader, SeesWhatIsWrittenAfterItsOpening) {
    writeFive();
    Reader const reader(file);
    EXPECT_EQ(reader.channel("test/a").count, 5U);
    logger->createChannel(info("a"))->push(6.0, begin + 6s);
    turn();
    EXPECT_EQ(reader.channel("test/a").count, 6U);
}

TEST_F(DataLoggerReader, DoesNotKeepTheWriterFromItsWorkInACallback) {
    open();
    auto const channel = logger->createChannel(info("a"));
    for (int i = 0; i < 1'500; ++i) {
        channel->push(i, now() + i * 1us);
    }
    turn();
    bool wrote = false;
    std::size_t const seen = Reader(file).samples("test/a", {}, [&](Sample const& aSample) {
        if (!wrote) {
            wrote = true;
            channel->push(-1.0, now() + 1h);
            turn();
            // The log of the file can be taken into it: nobody holds an old state of it.
            sqlite3* other = nullptr;
            EXPECT_EQ(sqlite3_open(file.c_str(), &other), SQLITE_OK);
            int left = -1;
            int taken = -1;
            EXPECT_EQ(sqlite3_wal_checkpoint_v2(other, nullptr, SQLITE_CHECKPOINT_TRUNCATE, &left, &taken),
                      SQLITE_OK);
            sqlite3_close(other);
        }
        EXPECT_TRUE(std::isfinite(aSample.value));
        return true;
    });
    EXPECT_EQ(seen, 1'501U); // the one written meanwhile, too
}

TEST_F(DataLoggerReader, PagesThroughStatistics) {
    open();
    auto const channel = logger->createChannel(info("a", Storage::None, Stats(Storage::LongTerm, 1s)));
    begin = now();
    for (int i = 0; i < 2'500; ++i) {
        channel->push(i, begin + i * 1s);
    }
    turn();
    std::vector<double> means;
    Reader(file).statistics("test/a", {.since = begin + 100s, .limit = 2'000, .newest = true},
                            [&](DataLoggerStatistic const& aStatistic) {
                                means.push_back(aStatistic.mean);
                                return true;
                            });
    ASSERT_EQ(means.size(), 2'000U);
    EXPECT_EQ(means.front(), 500.0); // 2500 - 2000
    EXPECT_EQ(means.back(), 2'499.0);
}

TEST_F(DataLoggerReader, ReadsAFileAtRestInAFolderThatItMayNotWrite) {
    writeFive();
    logger.reset();
    using std::filesystem::perms;
    auto const all = perms::owner_all | perms::group_all | perms::others_all;
    auto const write = perms::owner_write | perms::group_write | perms::others_write;
    std::filesystem::permissions(folder.path(), all & ~write);
    bool const isRoot = geteuid() == 0; // to whom no folder is closed
    if (isRoot) {
        ASSERT_EQ(seteuid(65534), 0);
    }
    EXPECT_THAT(asked({}), ElementsAre(1, 2, 3, 4, 5));
    if (isRoot) {
        ASSERT_EQ(seteuid(0), 0);
    }
}

} // namespace
