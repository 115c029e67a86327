// SPDX-License-Identifier: Apache-2.0
// What the data logger keeps: samples, statistics, and for how long.
#include "DataLoggerFixture.h"
#include "support/AllocationCount.h"
#include "support/Eventually.h"

#include <atomic>
#include <cmath>
#include <fstream>
#include <limits>
#include <thread>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::eventually;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using velmor::kepla::datalogger::DataLoggerStatistic;

class SqliteDataLogger : public libfieldwarden::test::DataLoggerFixture {
protected:
    std::vector<DataLoggerStatistic> statistics(std::string const& aName) const {
        std::vector<DataLoggerStatistic> found;
        Reader(file).statistics("test/" + aName, {}, [&](DataLoggerStatistic const& aStatistic) {
            found.push_back(aStatistic);
            return true;
        });
        return found;
    }
};

TEST_F(SqliteDataLogger, WritesWithinASecondAndNotBefore) {
    open();
    auto const channel = logger->createChannel(info("a"));
    turn();
    channel->push(298.15, now());
    EXPECT_THAT(values("a"), IsEmpty());
    clock->advance(999ms);
    EXPECT_THAT(values("a"), IsEmpty());
    pass(1ms);
    EXPECT_THAT(values("a"), ElementsAre(298.15));
}

TEST_F(SqliteDataLogger, WritesAtOnceWhenHalfTheQueueIsFull) {
    open({.queueCapacity = 8});
    auto const channel = logger->createChannel(info("a"));
    turn();
    for (int i = 0; i < 4; ++i) {
        EXPECT_THAT(values("a"), IsEmpty());
        channel->push(i, now());
    }
    EXPECT_TRUE(eventually([&] { return values("a").size() == 4; }));
}

TEST_F(SqliteDataLogger, KeepsTimeValueAndStatusOfEachSample) {
    open();
    auto const channel = logger->createChannel(info("a"));
    Time const time = now() + 123456us;
    channel->push(-2.5, time);
    channel->push(0.0, time + 1us + 999ns, Status::Bad);
    turn();
    auto const kept = samples("a");
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept[0].time, time);
    EXPECT_EQ(kept[0].value, -2.5);
    EXPECT_EQ(kept[0].status, Status::Good);
    EXPECT_EQ(kept[1].time, time + 1us); // to the microsecond
    EXPECT_EQ(kept[1].value, 0.0);
    EXPECT_EQ(kept[1].status, Status::Bad);
}

TEST_F(SqliteDataLogger, KeepsValuesThatAreNoNumbers) {
    double const infinity = std::numeric_limits<double>::infinity();
    open();
    auto const channel = logger->createChannel(info("a"));
    channel->push(std::numeric_limits<double>::quiet_NaN(), now());
    channel->push(infinity, now() + 1s);
    channel->push(-infinity, now() + 2s);
    channel->push(std::numeric_limits<double>::denorm_min(), now() + 3s);
    turn();
    auto const kept = values("a");
    ASSERT_EQ(kept.size(), 4U);
    EXPECT_TRUE(std::isnan(kept[0]));
    EXPECT_EQ(kept[1], infinity);
    EXPECT_EQ(kept[2], -infinity);
    EXPECT_EQ(kept[3], std::numeric_limits<double>::denorm_min());
}

TEST_F(SqliteDataLogger, KeepsAllSamplesOfOneMicrosecondInTheirOrder) {
    open();
    auto const channel = logger->createChannel(info("a"));
    Time const time = now();
    for (double const value : {3.0, 1.0, 2.0}) {
        channel->push(value, time);
    }
    turn();
    channel->push(0.0, time);
    turn();
    EXPECT_THAT(values("a"), ElementsAre(3.0, 1.0, 2.0, 0.0));
}

TEST_F(SqliteDataLogger, OrdersSamplesByTheirTimesEvenBefore1970) {
    open({.shortTermRetention = std::chrono::hours(24 * 365 * 100)});
    auto const channel = logger->createChannel(info("a"));
    channel->push(2.0, Time{} + 1s);
    channel->push(1.0, Time{} - 1500ns); // rounded down to 2 us before
    turn();
    auto const kept = samples("a");
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept[0].time, Time{} - 2us);
    EXPECT_EQ(kept[1].value, 2.0);
}

TEST_F(SqliteDataLogger, MarksAGoodValueBeyondItsLimits) {
    open();
    Info limited = info("a");
    limited.lowerLimit = 200.0;
    limited.upperLimit = 400.0;
    auto const channel = logger->createChannel(limited);
    for (double const value : {199.0, 200.0, 400.0, 401.0}) {
        channel->push(value, now() + std::chrono::seconds(static_cast<int>(value)));
    }
    channel->push(500.0, now() + 500s, Status::Bad);
    turn();
    std::vector<Status> states;
    for (Sample const& sample : samples("a")) {
        states.push_back(sample.status);
    }
    EXPECT_THAT(states,
                ElementsAre(Status::OutOfRange, Status::Good, Status::Good, Status::OutOfRange, Status::Bad));
}

TEST_F(SqliteDataLogger, TakesTheSmallestPositiveDoubleForNoLimit) {
    open();
    logger->createChannel(info("a"))->push(-40.0, now());
    turn();
    ASSERT_EQ(samples("a").size(), 1U);
    EXPECT_EQ(samples("a")[0].status, Status::Good);
}

TEST_F(SqliteDataLogger, IgnoresPushesToADisabledChannel) {
    open();
    Info disabled = info("a");
    disabled.enabled = false;
    logger->createChannel(disabled)->push(1.0, now());
    turn();
    EXPECT_THAT(values("a"), IsEmpty());
}

TEST_F(SqliteDataLogger, FindsTheChannelOfAPathAgainInTheFile) {
    open();
    logger->createChannel(info("a"))->push(1.0, now());
    logger.reset();
    open();
    logger->createChannel(info("b"))->push(5.0, now());
    logger->createChannel(info("a"))->push(2.0, now() + 1s);
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0, 2.0));
    EXPECT_EQ(Reader(file).channels().size(), 2U);
    EXPECT_EQ(Reader(file).channel("test/a").count, 2U);
}

TEST_F(SqliteDataLogger, HoldsTheLatestDescriptionOfAChannelMadeTwice) {
    open();
    auto const first = logger->createChannel(info("a"));
    Info again = info("a");
    again.description = "Said better";
    auto const second = logger->createChannel(again);
    first->push(1.0, now());
    second->push(2.0, now());
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0, 2.0));
    EXPECT_EQ(Reader(file).channel("test/a").description, "Said better");
}

TEST_F(SqliteDataLogger, WritesWhatWaitsAtItsEnd) {
    open();
    auto channel = logger->createChannel(info("a"));
    channel->push(1.0, now());
    channel.reset();
    logger.reset();
    EXPECT_THAT(values("a"), ElementsAre(1.0));
}

TEST_F(SqliteDataLogger, LivesOnWhileAChannelIsHeld) {
    open();
    auto channel = logger->createChannel(info("a"));
    logger.reset();
    channel->push(1.0, now());
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0));
    channel->push(2.0, now());
    channel.reset();
    EXPECT_THAT(values("a"), ElementsAre(1.0, 2.0));
}

TEST_F(SqliteDataLogger, AllocatesNothingForAPush) {
    open();
    auto const channel = logger->createChannel(info("a"));
    auto const before = libfieldwarden::test::allocationsOfThisThread();
    for (int i = 0; i < 10; ++i) {
        channel->push(i, now());
    }
    EXPECT_EQ(libfieldwarden::test::allocationsOfThisThread(), before);
}

TEST_F(SqliteDataLogger, NamesItsThread) {
    open();
    auto const hasThread = [] {
        for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string name;
            std::getline(std::ifstream(task.path() / "comm"), name);
            if (name == "data-logger") {
                return true;
            }
        }
        return false;
    };
    EXPECT_TRUE(hasThread());
    logger.reset();
    EXPECT_TRUE(eventually([&] { return !hasThread(); }));
}

TEST_F(SqliteDataLogger, LosesNothingOfFourThreadsThatFitsTheQueue) {
    constexpr int kEach = 20'000;
    open({.queueCapacity = std::size_t{4} * kEach});
    Time const begin = now();
    std::vector<std::thread> pushers;
    for (int thread = 0; thread < 4; ++thread) {
        pushers.emplace_back([&, thread] {
            auto const channel = logger->createChannel(info(std::to_string(thread)));
            for (int i = 0; i < kEach; ++i) {
                channel->push(i, begin + std::chrono::milliseconds(i));
            }
        });
    }
    for (std::thread& pusher : pushers) {
        pusher.join();
    }
    EXPECT_EQ(logger->lostSamples(), 0U);
    logger.reset();
    for (int thread = 0; thread < 4; ++thread) {
        auto const kept = values(std::to_string(thread));
        ASSERT_EQ(kept.size(), std::size_t{kEach});
        for (int i = 0; i < kEach; ++i) {
            ASSERT_EQ(kept[static_cast<std::size_t>(i)], i);
        }
    }
}

// ---------------------------------------------------------------------------------------------- statistics

TEST_F(SqliteDataLogger, KeepsTheStatisticsOfEachPeriod) {
    open();
    auto const channel = logger->createChannel(info("a", Storage::ShortTerm, Stats(Storage::LongTerm, 600s)));
    // now() is a midnight, a multiple of 600 s.
    channel->push(1.0, now());
    channel->push(6.0, now() + 300s);
    channel->push(2.0, now() + 599s);
    channel->push(10.0, now() + 600s);
    Time const begin = now();
    turn();
    auto const kept = statistics("a");
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept[0].begin, begin);
    EXPECT_EQ(kept[0].count, 3U);
    EXPECT_EQ(kept[0].least, 1.0);
    EXPECT_EQ(kept[0].greatest, 6.0);
    EXPECT_DOUBLE_EQ(kept[0].mean, 3.0); // (1 + 6 + 2) / 3
    EXPECT_EQ(kept[1].begin, begin + 600s);
    EXPECT_EQ(kept[1].count, 1U);
    EXPECT_EQ(kept[1].mean, 10.0);
    EXPECT_EQ(values("a").size(), 4U);
}

TEST_F(SqliteDataLogger, JoinsTheStatisticsOfAPeriodOverTransactionsAndRestarts) {
    open();
    auto channel = logger->createChannel(info("a", Storage::ShortTerm, Stats(Storage::LongTerm, 600s)));
    Time const begin = now();
    channel->push(1.0, begin);
    channel->push(3.0, begin + 1s);
    turn();
    channel->push(8.0, begin + 2s);
    channel.reset();
    logger.reset();
    open();
    logger->createChannel(info("a", Storage::ShortTerm, Stats(Storage::LongTerm, 600s)))
        ->push(-4.0, begin + 3s);
    turn();
    auto const kept = statistics("a");
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_EQ(kept[0].count, 4U);
    EXPECT_EQ(kept[0].least, -4.0);
    EXPECT_EQ(kept[0].greatest, 8.0);
    EXPECT_DOUBLE_EQ(kept[0].mean, 2.0); // (1 + 3 + 8 - 4) / 4
}

TEST_F(SqliteDataLogger, LeavesOutOfTheStatisticsWhatIsNoGoodNumber) {
    open();
    Info limited = info("a", Storage::ShortTerm, Stats(Storage::LongTerm, 600s));
    limited.upperLimit = 400.0;
    auto const channel = logger->createChannel(limited);
    channel->push(1.0, now());
    channel->push(2.0, now(), Status::Uncertain);
    channel->push(401.0, now());
    channel->push(std::numeric_limits<double>::quiet_NaN(), now());
    turn();
    auto const kept = statistics("a");
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_EQ(kept[0].count, 1U);
    EXPECT_EQ(kept[0].mean, 1.0);
}

TEST_F(SqliteDataLogger, KeepsOnlyStatisticsOfAChannelWithoutStorage) {
    open();
    logger->createChannel(info("a", Storage::None, Stats(Storage::LongTerm, 600s)))->push(1.0, now());
    turn();
    EXPECT_THAT(values("a"), IsEmpty());
    EXPECT_EQ(statistics("a").size(), 1U);
}

// ----------------------------------------------------------------------------------------------- retention

TEST_F(SqliteDataLogger, ForgetsEachKindAfterItsTime) {
    open({.shortTermRetention = 48h, .longTermRetention = 96h});
    auto const shortTerm =
        logger->createChannel(info("short", Storage::ShortTerm, Stats(Storage::LongTerm, 600s)));
    auto const longTerm = logger->createChannel(info("long", Storage::LongTerm));
    for (auto const age : {97h, 94h, 49h, 46h}) {
        shortTerm->push(static_cast<double>(age.count()), now() - age);
        longTerm->push(static_cast<double>(age.count()), now() - age);
    }
    turn();
    pass(1h); // and the next look for what is old
    EXPECT_THAT(values("short"), ElementsAre(46.0));
    EXPECT_THAT(values("long"), ElementsAre(94.0, 49.0, 46.0));
    EXPECT_EQ(statistics("short").size(), 3U);
    EXPECT_EQ(Reader(file).channel("test/short").count, 1U);
}

TEST_F(SqliteDataLogger, BoundsWhatTheFileHoldsAndForgetsTheOldestShortTermSamplesFirst) {
    open({.queueCapacity = 20'000, .sizeLimit = std::uint64_t{512} * 1024});
    auto const settings = logger->createChannel(info("settings", Storage::LongTerm));
    auto const reading = logger->createChannel(info("reading"));
    settings->push(1.0, now() - 1000h);
    // 90,000 samples of more than 20 bytes are well above 512 KiB.
    for (int batch = 0; batch < 10; ++batch) {
        for (int i = 0; i < 9'000; ++i) {
            reading->push(batch * 9'000 + i + 0.5, now() + i * 100us);
        }
        turn();
        EXPECT_LE(Reader(file).bytes(), 512U * 1024U);
    }
    auto const kept = values("reading");
    EXPECT_THAT(values("settings"), ElementsAre(1.0));
    EXPECT_GT(kept.size(), 5'000U);
    EXPECT_EQ(kept.back(), 89'999.5);                                     // the newest is there,
    EXPECT_EQ(kept.front(), 90'000.5 - static_cast<double>(kept.size())); // and all down to the oldest
    EXPECT_EQ(Reader(file).channel("test/reading").count, kept.size());
    EXPECT_LE(std::filesystem::file_size(file), 1024U * 1024U);
    EXPECT_TRUE(
        log.has(Severity::Info, file.string() + " holds more than 524288 bytes: the oldest samples go"));
}

} // namespace
