// SPDX-License-Identifier: Apache-2.0
// The data logger on disks and files that fail, at the opening and at run time.
#include "DataLoggerFixture.h"
#include "support/FullDisk.h"
#include "support/LeapClock.h"

#include <velmor/platform/Clock.h>

#include <fstream>
#include <stdexcept>

#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::readFile;
using libfieldwarden::test::Severity;
using libfieldwarden::test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

/// Another program's connection to the file.
class Outsider {
public:
    explicit Outsider(std::filesystem::path const& aFile) {
        EXPECT_EQ(sqlite3_open(aFile.c_str(), &mDatabase), 0);
    }
    ~Outsider() { sqlite3_close(mDatabase); }
    Outsider(Outsider const&) = delete;
    Outsider& operator=(Outsider const&) = delete;

    void run(char const* aSql) {
        EXPECT_EQ(sqlite3_exec(mDatabase, aSql, nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(mDatabase);
    }

private:
    sqlite3* mDatabase = nullptr;
};

class SqliteDataLoggerFaults : public libfieldwarden::test::DataLoggerFixture {
protected:
    std::string refusal() {
        try {
            Store const store(file);
        } catch (std::runtime_error const& error) {
            return error.what();
        }
        return "opened";
    }

    std::vector<std::string> damagedFiles() const {
        std::vector<std::string> found;
        for (auto const& entry : std::filesystem::directory_iterator(folder.path())) {
            auto const name = entry.path().filename().string();
            if (name.find(".damaged-") != std::string::npos && name.find("-wal") == std::string::npos) {
                found.push_back(name);
            }
        }
        return found;
    }

    /// Overwrites all of the file but SQLite's header page.
    void damage() const {
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        auto const size = static_cast<std::streamoff>(std::filesystem::file_size(file));
        ASSERT_GT(size, 4096);
        stream.seekp(4096);
        stream << std::string(static_cast<std::size_t>(size - 4096), '\xA5');
    }

    std::string const fileError = "Samples cannot be written and wait in memory: " + file.string();
};

// ---------------------------------------------------------------------------------------------- the opening

TEST_F(SqliteDataLoggerFaults, SaysWhichDirectoryIsMissing) {
    file = folder.path() / "none" / "datalogger.sqlite";
    EXPECT_EQ(refusal(), "The data logger cannot be opened: " + file.string() + ": the directory " +
                             (folder.path() / "none").string() + " does not exist");
}

TEST_F(SqliteDataLoggerFaults, SaysThatTheFileCannotBeOpened) {
    std::filesystem::create_directory(file);
    EXPECT_EQ(refusal(), "The data logger cannot be opened: " + file.string() +
                             ": it cannot be opened (Is a directory)");
}

TEST_F(SqliteDataLoggerFaults, LeavesTheDatabaseOfAnotherProgramAlone) {
    Outsider(file).run("CREATE TABLE wines (name TEXT)");
    auto const before = readFile(file);
    EXPECT_EQ(refusal(),
              "The data logger cannot be opened: " + file.string() + ": it is a database of another program");
    EXPECT_EQ(readFile(file), before);
}

TEST_F(SqliteDataLoggerFaults, WaitsTwoSecondsForALockAtTheOpeningAndThenSaysSo) {
    Outsider other(file);
    other.run("BEGIN EXCLUSIVE; CREATE TABLE t (x)");
    auto const leap = std::make_shared<libfieldwarden::test::LeapClock>();
    auto const former = velmor::platform::Clock::use(leap);
    auto const before = leap->now();
    auto const words = refusal();
    velmor::platform::Clock::use(former);
    EXPECT_EQ(words,
              "The data logger cannot be opened: " + file.string() + ": another program holds it locked");
    EXPECT_EQ(leap->now() - before, 2s);
}

TEST_F(SqliteDataLoggerFaults, RefusesOptionsWithoutSense) {
    EXPECT_THROW(Store(file, {.queueCapacity = 0}), std::invalid_argument);
    EXPECT_THROW(Store(file, {.flushInterval = 0ms}), std::invalid_argument);
    EXPECT_THROW(Store(file, {.retentionInterval = 0min}), std::invalid_argument);
}

TEST_F(SqliteDataLoggerFaults, MovesAFileThatIsNoDatabaseAsideAndBeginsANewOne) {
    writeFile(file, std::string(10'000, 'x'));
    open();
    logger->createChannel(info("a"))->push(1.0, now());
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0));
    EXPECT_EQ(readFile(file.string() + ".damaged-20230524T000000Z"), std::string(10'000, 'x'));
    EXPECT_TRUE(log.has(Severity::Warning, file.string() + ": it is no database. It is moved to " +
                                               file.string() +
                                               ".damaged-20230524T000000Z and a new file is begun"));
}

TEST_F(SqliteDataLoggerFaults, MovesADamagedFileAsideAndBeginsANewOne) {
    open();
    logger->createChannel(info("a"))->push(1.0, now());
    turn();
    logger.reset();
    damage();
    open();
    EXPECT_THAT(damagedFiles(), ElementsAre("datalogger.sqlite.damaged-20230524T000001Z"));
    EXPECT_TRUE(log.has(Severity::Warning, file.string() + ": it is damaged. It is moved to " +
                                               file.string() +
                                               ".damaged-20230524T000001Z and a new file is begun"));
    EXPECT_THAT(Reader(file).channels(), IsEmpty());
}

TEST_F(SqliteDataLoggerFaults, MovesATruncatedFileAside) {
    open();
    logger->createChannel(info("a"))->push(1.0, now());
    turn();
    logger.reset();
    std::filesystem::resize_file(file, 4096);
    open();
    EXPECT_EQ(damagedFiles().size(), 1U);
}

TEST_F(SqliteDataLoggerFaults, KeepsEveryDamagedFileOfOneSecond) {
    for (int i = 0; i < 3; ++i) {
        writeFile(file,
                  "no database, but long enough to be read as the header of one: " + std::string(100, 'x'));
        open();
        logger.reset();
    }
    EXPECT_THAT(damagedFiles(),
                testing::UnorderedElementsAre("datalogger.sqlite.damaged-20230524T000000Z",
                                              "datalogger.sqlite.damaged-20230524T000000Z-2",
                                              "datalogger.sqlite.damaged-20230524T000000Z-3"));
}

TEST_F(SqliteDataLoggerFaults, MovesAFileOfAnUnknownLayoutAside) {
    open();
    logger.reset();
    Outsider(file).run("PRAGMA user_version = 7");
    open();
    EXPECT_TRUE(log.has(Severity::Warning, file.string() + ": it has the unknown layout 7. It is moved to " +
                                               file.string() +
                                               ".damaged-20230524T000000Z and a new file is begun"));
}

TEST_F(SqliteDataLoggerFaults, StartsOnAnEmptyFile) {
    writeFile(file, "");
    open();
    EXPECT_THAT(damagedFiles(), IsEmpty());
    EXPECT_THAT(log.linesUpTo(Severity::Warning), IsEmpty());
}

TEST_F(SqliteDataLoggerFaults, OpensOnADiskThatFailsAndWritesOnceItIsWell) {
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc> channel;
    {
        libfieldwarden::test::FullDisk const disk(0); // not a byte can be written
        open();
        channel = logger->createChannel(info("a"));
        channel->push(1.0, now());
        turn();
        turn();
    }
    EXPECT_EQ(log.count(Severity::Error, fileError + ": the disk fails (File too large)"), 1U);
    EXPECT_EQ(log.linesUpTo(Severity::Error).size(), 1U);
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0));
    EXPECT_TRUE(log.has(Severity::Info, "Samples are written again after 3 s"));
    EXPECT_EQ(logger->lostSamples(), 0U);
}

TEST_F(SqliteDataLoggerFaults, MakesTheFileOnceTheDiskIsWellThoughThereIsNoSample) {
    {
        libfieldwarden::test::FullDisk const disk(0);
        open();
        turn();
    }
    EXPECT_FALSE(log.has(Severity::Info, "Samples are written again after 1 s"));
    turn();
    EXPECT_TRUE(log.has(Severity::Info, "Samples are written again after 2 s"));
    EXPECT_THAT(Reader(file).channels(), IsEmpty());
}

TEST_F(SqliteDataLoggerFaults, SaysWhatIsLostWhenTheDiskFailsFromTheOpeningToTheEnd) {
    libfieldwarden::test::FullDisk const disk(0);
    open({.queueCapacity = 10});
    auto channel = logger->createChannel(info("a"));
    for (int i = 0; i < 12; ++i) {
        channel->push(i, now());
    }
    turn();
    EXPECT_EQ(logger->lostSamples(), 2U);
    channel.reset();
    logger.reset();
    EXPECT_TRUE(log.has(Severity::Error, "10 samples are lost with the end of the data logger: " +
                                             file.string() + ": the disk fails (File too large)"));
}

TEST_F(SqliteDataLoggerFaults, OpensWhereThereIsNoRoomForANewFileBesideADamagedOne) {
    writeFile(file, std::string(10'000, 'x'));
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc> channel;
    {
        libfieldwarden::test::FullDisk const disk(0);
        open();
        channel = logger->createChannel(info("a"));
        channel->push(1.0, now());
        turn();
    }
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0));
    EXPECT_EQ(damagedFiles().size(), 1U);
}

/// A small disk of its own, seen by this thread and those that it makes from then on.
class SmallDisk {
public:
    SmallDisk(std::filesystem::path aPath, std::string const& aOptions)
        : mPath(std::move(aPath)) {
        std::filesystem::create_directory(mPath);
        mMounted = unshare(CLONE_NEWNS) == 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("tmpfs", mPath.c_str(), "tmpfs", 0, aOptions.c_str()) == 0;
    }
    ~SmallDisk() {
        if (mMounted) {
            umount2(mPath.c_str(), MNT_DETACH);
        }
    }
    SmallDisk(SmallDisk const&) = delete;
    SmallDisk& operator=(SmallDisk const&) = delete;

    /// Only root may have one.
    bool works() const noexcept { return mMounted; }

private:
    std::filesystem::path mPath;
    bool mMounted = false;
};

TEST_F(SqliteDataLoggerFaults, OpensOnAFullDiskAndWritesOnceThereIsRoom) {
    SmallDisk const disk(folder.path() / "disk", "size=1m");
    if (!disk.works()) {
        GTEST_SKIP() << "no disk can be mounted here";
    }
    auto const filling = folder.path() / "disk" / "filling";
    std::ofstream(filling) << std::string(2 << 20, 'x');
    file = folder.path() / "disk" / "datalogger.sqlite";
    open();
    auto const channel = logger->createChannel(info("a"));
    channel->push(1.0, now());
    turn();
    EXPECT_EQ(log.count(Severity::Error, "Samples cannot be written and wait in memory: " + file.string() +
                                             ": the disk is full"),
              1U);
    std::filesystem::remove(filling);
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0));
    logger.reset();
}

TEST_F(SqliteDataLoggerFaults, OpensAnOldFileOnAFullDisk) {
    SmallDisk const disk(folder.path() / "disk", "size=1m");
    if (!disk.works()) {
        GTEST_SKIP() << "no disk can be mounted here";
    }
    file = folder.path() / "disk" / "datalogger.sqlite";
    open();
    logger->createChannel(info("a"))->push(1.0, now());
    turn();
    logger.reset();
    auto const filling = folder.path() / "disk" / "filling";
    std::ofstream(filling) << std::string(2 << 20, 'x');
    open();
    auto const channel = logger->createChannel(info("a"));
    channel->push(2.0, now());
    turn();
    EXPECT_EQ(log.linesUpTo(Severity::Error).size(), 1U);
    std::filesystem::remove(filling);
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0, 2.0));
    logger.reset();
}

TEST_F(SqliteDataLoggerFaults, OpensAnOldFileWhereThereIsNoRoomForTheLogBesideIt) {
    SmallDisk const disk(folder.path() / "disk", "nr_inodes=4"); // the root, the file and its two others
    if (!disk.works()) {
        GTEST_SKIP() << "no disk can be mounted here";
    }
    file = folder.path() / "disk" / "datalogger.sqlite";
    open();
    logger->createChannel(info("a"))->push(1.0, now());
    turn();
    logger.reset(); // takes the two away
    for (char const* const name : {"1", "2"}) {
        std::ofstream(folder.path() / "disk" / name) << "x";
    }
    open();
    auto const channel = logger->createChannel(info("a"));
    channel->push(2.0, now());
    turn();
    EXPECT_EQ(log.linesUpTo(Severity::Error).size(), 1U);
    for (char const* const name : {"1", "2"}) {
        std::filesystem::remove(folder.path() / "disk" / name);
    }
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0, 2.0));
    logger.reset();
}

TEST_F(SqliteDataLoggerFaults, MakesItsFolderOnceADiskHasRoomForIt) {
    SmallDisk const disk(folder.path() / "disk", "nr_inodes=2"); // the root and one more
    if (!disk.works()) {
        GTEST_SKIP() << "no disk can be mounted here";
    }
    auto const filling = folder.path() / "disk" / "filling";
    std::ofstream(filling) << "x";
    auto const place = folder.path() / "disk" / "data";
    file = place / "datalogger.sqlite";
    EXPECT_EQ(refusal(), "The data logger cannot be opened: " + file.string() + ": the directory " +
                             place.string() + " does not exist");
    open({.makesFolder = true});
    auto const channel = logger->createChannel(info("a"));
    channel->push(1.0, now());
    turn();
    EXPECT_EQ(log.count(Severity::Error, "Samples cannot be written and wait in memory: " + file.string() +
                                             ": the directory " + place.string() +
                                             " cannot be made: No space left on device"),
              1U);
    std::filesystem::remove(filling);
    turn(); // now there is a folder, and no room for the file: that is still the same outage
    EXPECT_TRUE(std::filesystem::is_directory(place));
    logger.reset();
    open({.makesFolder = true});
    EXPECT_TRUE(log.has(Severity::Error, "Samples cannot be written and wait in memory: " + file.string() +
                                             ": it cannot be opened: No space left on device"));
    logger.reset();
}

TEST_F(SqliteDataLoggerFaults, MakesItsFolderWhereThatIsWanted) {
    file = folder.path() / "new" / "data" / "datalogger.sqlite";
    open({.makesFolder = true});
    logger->createChannel(info("a"))->push(1.0, now());
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0));
}

TEST_F(SqliteDataLoggerFaults, SaysThatItsFolderCannotBeMade) {
    writeFile(folder.path() / "none", "a file");
    file = folder.path() / "none" / "data" / "datalogger.sqlite";
    std::string words;
    try {
        Store const store(file, {.makesFolder = true});
    } catch (std::runtime_error const& error) {
        words = error.what();
    }
    EXPECT_EQ(words, "The data logger cannot be opened: " + file.string() + ": the directory " +
                         file.parent_path().string() + " cannot be made: Not a directory");
}

// ------------------------------------------------------------------------------------------------ run time

TEST_F(SqliteDataLoggerFaults, KeepsSamplesWhileTheFileIsLockedAndSaysSoOnce) {
    open();
    auto const channel = logger->createChannel(info("a"));
    turn();
    Outsider other(file);
    other.run("BEGIN IMMEDIATE");
    for (int i = 0; i < 3; ++i) {
        channel->push(i, now());
        turn();
    }
    EXPECT_EQ(log.count(Severity::Error, fileError + ": another program holds it locked"), 1U);
    EXPECT_THAT(values("a"), IsEmpty());
    other.run("ROLLBACK");
    turn();
    EXPECT_THAT(values("a"), ElementsAre(0.0, 1.0, 2.0));
    EXPECT_TRUE(log.has(Severity::Info, "Samples are written again after 3 s"));
    EXPECT_EQ(logger->lostSamples(), 0U);
    other.run("BEGIN IMMEDIATE");
    channel->push(3.0, now());
    turn();
    EXPECT_EQ(log.count(Severity::Error, fileError + ": another program holds it locked"), 2U);
}

TEST_F(SqliteDataLoggerFaults, KeepsSamplesWhileTheDiskIsFullAndWritesThemOnceThereIsRoom) {
    open({.maxPages = 40});
    auto const channel = logger->createChannel(info("a"));
    // 40 pages of 4096 bytes are too few for 6,000 samples of more than 20 bytes, and enough for 3,000.
    for (int i = 0; i < 6'000; ++i) {
        channel->push(i + 0.5, now() + i * 1us);
        if (i % 1'000 == 999) {
            turn();
        }
    }
    EXPECT_EQ(log.count(Severity::Error, fileError + ": the disk is full"), 1U);
    auto const written = values("a").size();
    EXPECT_GT(written, 1'000U);
    EXPECT_LT(written, 6'000U);
    Outsider(file).run("DELETE FROM sample WHERE value < 3000");
    turn();
    auto const kept = values("a");
    ASSERT_EQ(kept.size(), 3'000U);
    EXPECT_EQ(kept.front(), 3'000.5);
    EXPECT_EQ(kept.back(), 5'999.5);
    EXPECT_EQ(logger->lostSamples(), 0U);
}

TEST_F(SqliteDataLoggerFaults, LosesTheOldestWhenTheBacklogIsFullAndLeavesAGapInTheChannel) {
    open({.queueCapacity = 100});
    auto const quick = logger->createChannel(info("quick"));
    auto const slow = logger->createChannel(info("slow"));
    turn();
    log.clear();
    Outsider other(file);
    other.run("BEGIN IMMEDIATE");
    Time const begin = now();
    slow->push(-1.0, begin);
    for (int i = 0; i < 160; ++i) {
        quick->push(i, begin + i * 1s);
        if (i % 40 == 39) {
            turn();
        }
    }
    // 161 samples, room for 100: the one of "slow" and 60 of "quick" went.
    EXPECT_EQ(logger->lostSamples(), 61U);
    EXPECT_EQ(log.count(Severity::Warning, "There is no room for more samples: the oldest are lost"), 1U);
    other.run("ROLLBACK");
    turn();
    turn();
    EXPECT_EQ(log.count(Severity::Info, "61 samples were lost"), 1U);
    auto const kept = samples("quick");
    ASSERT_EQ(kept.size(), 101U);
    EXPECT_EQ(kept[0].status, Status::SamplesLost);
    EXPECT_EQ(kept[0].value, 60.0);
    EXPECT_EQ(kept[0].time, begin);
    EXPECT_EQ(kept[1].value, 60.0);
    EXPECT_EQ(kept[1].status, Status::Good);
    EXPECT_EQ(kept[100].value, 159.0);
    ASSERT_EQ(samples("slow").size(), 1U);
    EXPECT_EQ(samples("slow")[0].status, Status::SamplesLost);
    EXPECT_EQ(samples("slow")[0].value, 1.0);
    EXPECT_FALSE(Reader(file).channel("test/slow").last.has_value());
}

TEST_F(SqliteDataLoggerFaults, SaysEachBurstOfLossesOnce) {
    open({.queueCapacity = 10});
    auto const channel = logger->createChannel(info("a"));
    turn();
    for (int burst = 1; burst <= 2; ++burst) {
        {
            Outsider other(file);
            other.run("BEGIN IMMEDIATE");
            for (int i = 0; i < 12; ++i) {
                channel->push(i, now());
                if (i % 4 == 3) {
                    turn();
                }
            }
        }
        turn();
        turn();
        EXPECT_EQ(log.count(Severity::Warning, "There is no room for more samples: the oldest are lost"),
                  static_cast<std::size_t>(burst));
        EXPECT_EQ(log.count(Severity::Info, "2 samples were lost"), static_cast<std::size_t>(burst));
    }
}

TEST_F(SqliteDataLoggerFaults, SaysWhatIsLostAtTheEnd) {
    open();
    auto channel = logger->createChannel(info("a"));
    turn();
    Outsider other(file);
    other.run("BEGIN IMMEDIATE");
    channel->push(1.0, now());
    channel->push(2.0, now());
    channel.reset();
    logger.reset();
    EXPECT_TRUE(log.has(Severity::Error, "2 samples are lost with the end of the data logger: " +
                                             file.string() + ": another program holds it locked"));
}

TEST_F(SqliteDataLoggerFaults, MovesAFileAsideThatIsDamagedAtRunTime) {
    open();
    auto const channel = logger->createChannel(info("a"));
    for (int i = 0; i < 2'000; ++i) {
        channel->push(i, now());
    }
    turn();
    Outsider(file).run("PRAGMA wal_checkpoint(TRUNCATE)");
    damage();
    Outsider(file).run(
        "PRAGMA user_version = 1"); // a change from outside makes the writer look at the file anew
    channel->push(-1.0, now());
    turn();
    EXPECT_EQ(damagedFiles().size(), 1U);
    turn();
    EXPECT_THAT(values("a"), ElementsAre(-1.0));
    EXPECT_EQ(logger->lostSamples(), 0U);
    EXPECT_EQ(log.linesUpTo(Severity::Error).size(), 1U);
    EXPECT_TRUE(log.has(Severity::Info, "Samples are written again after 1 s"));
}

TEST_F(SqliteDataLoggerFaults, GoesOnAfterATransactionThatSomethingElseThanTheFileEnded) {
    open();
    Info strange = info("a");
    strange.unit = static_cast<Unit>(99); // has no text
    auto const channel = logger->createChannel(strange);
    channel->push(1.0, now());
    turn();
    EXPECT_TRUE(log.has(Severity::Error,
                        "Samples cannot be written and wait in memory: Requested enum value not found."));
    logger->createChannel(info("a")); // described as it should be
    turn();
    EXPECT_THAT(values("a"), ElementsAre(1.0));
}

TEST_F(SqliteDataLoggerFaults, SurvivesThatAnotherProgramsDatabaseTakesItsPlace) {
    open();
    auto const channel = logger->createChannel(info("a"));
    channel->push(1.0, now());
    turn();
    std::filesystem::remove(file);
    std::filesystem::remove(file.string() + "-wal");
    Outsider(file).run("CREATE TABLE wines (name TEXT)");
    channel->push(2.0, now());
    turn();
    channel->push(3.0, now());
    turn();
    EXPECT_EQ(log.count(Severity::Error, fileError + ": it is a database of another program"), 1U);
    std::filesystem::remove(file);
    turn();
    EXPECT_THAT(values("a"), ElementsAre(2.0, 3.0));
}

TEST_F(SqliteDataLoggerFaults, BeginsANewFileWhereSomebodyRemovedIt) {
    open();
    auto const channel = logger->createChannel(info("a"));
    channel->push(1.0, now());
    turn();
    std::filesystem::remove(file);
    channel->push(2.0, now());
    turn();
    EXPECT_THAT(values("a"), ElementsAre(2.0));
    EXPECT_TRUE(log.has(Severity::Warning, file.string() + ": somebody has removed it. A new file is begun"));
}

TEST_F(SqliteDataLoggerFaults, GoesOnWhenTheDirectoryIsBack) {
    file = folder.path() / "disk" / "datalogger.sqlite";
    std::filesystem::create_directory(file.parent_path());
    open();
    auto const channel = logger->createChannel(info("a"));
    channel->push(1.0, now());
    turn();
    std::filesystem::remove_all(file.parent_path());
    channel->push(2.0, now());
    turn();
    EXPECT_TRUE(log.has(Severity::Error, "Samples cannot be written and wait in memory: " + file.string() +
                                             ": it cannot be opened (No such file or directory)"));
    std::filesystem::create_directory(file.parent_path());
    turn();
    EXPECT_THAT(values("a"), ElementsAre(2.0));
}

} // namespace
