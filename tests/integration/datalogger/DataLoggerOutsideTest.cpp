// SPDX-License-Identifier: Apache-2.0
// SQLite's command-line tool reads the data logger's file while it is being written.
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/HandClockScope.h"
#include "support/TemporaryDirectory.h"

#include <velmor/kepla/datalogger/SqliteDataLogger.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <string>
#include <thread>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::runProgram;
using libfieldwarden::test::TemporaryDirectory;
using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::datalogger::SqliteDataLogger;

class DataLoggerOutside : public testing::Test {
protected:
    /// What the tool says to a query.
    std::string ask(std::string const& aSql) const {
        auto const result = runProgram({"sqlite3", "-readonly", file.string(), aSql});
        EXPECT_EQ(result.exitCode, 0) << result.output;
        return result.output;
    }

    static DataLoggerChannelInfo info(std::string const& aName) {
        return {{"lock", aName},
                DataLoggerUnit::Kelvin,
                DataLoggerStats::none(),
                DataLoggerStorageType::ShortTerm,
                "x"};
    }

    TemporaryDirectory folder;
    std::filesystem::path file = folder.path() / "datalogger.sqlite";
};

TEST_F(DataLoggerOutside, ShowsReadingsWithNameTimeAndUnit) {
    HandClockScope const clock; // 2023-05-24 00:00:00 UTC
    SqliteDataLogger logger(file);
    auto const channel = logger.createChannel(info("slope"));
    channel->push(298.125, clock->systemNow() + 1500ms);
    channel->push(std::numeric_limits<double>::quiet_NaN(), clock->systemNow() + 2s);
    channel->push(std::numeric_limits<double>::infinity(), clock->systemNow() + 3s);
    clock->awaitWaiters(1);
    clock->advance(1s);
    clock->awaitWaiters(1);
    EXPECT_EQ(ask("SELECT * FROM reading"),
              "lock/slope|2023-05-24T00:00:01.500Z|298.125|K|0\n"
              "lock/slope|2023-05-24T00:00:02.000Z||K|0\n"
              "lock/slope|2023-05-24T00:00:03.000Z|Inf|K|0\n");
}

TEST_F(DataLoggerOutside, ReadsWholeAndGrowingStatesWhileTheLibraryWrites) {
    SqliteDataLogger logger(file, {.flushInterval = 5ms});
    auto const first = logger.createChannel(info("first"));
    auto const second = logger.createChannel(info("second"));
    std::atomic<bool> stop{false};
    std::thread pusher([&] {
        auto time = std::chrono::system_clock::now();
        while (!stop) {
            first->push(1.0, time);
            second->push(1.0, time);
            time += 1us;
            std::this_thread::yield();
        }
    });
    EXPECT_TRUE(
        libfieldwarden::test::eventually([&] { return ask("SELECT count(*) > 0 FROM sample") == "1\n"; }));
    long before = 0;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(ask("PRAGMA quick_check"), "ok\n");
        // A count kept beside the samples agrees with them in every state that can be seen.
        EXPECT_EQ(ask("SELECT count(*) FROM row_count JOIN channel ON id = channel WHERE count <> "
                      "(SELECT count(*) FROM sample WHERE sample.channel = id)"),
                  "0\n");
        long const rows = std::stol(ask("SELECT count(*) FROM sample"));
        EXPECT_GE(rows, before);
        before = rows;
    }
    stop = true;
    pusher.join();
}

} // namespace
