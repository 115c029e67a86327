// SPDX-License-Identifier: Apache-2.0
// Log files: their layout, their rotation, and what happens when they cannot be written.
#include "support/TemporaryDirectory.h"

#include <velmor/kepla/log/FileSink.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::readFile;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using velmor::kepla::log::FileSink;
using velmor::kepla::log::Origin;
using velmor::kepla::log::Severity;

class FileSinkTest : public testing::Test {
protected:
    void write(FileSink& aSink, std::string const& aText, Severity aSeverity = Severity::Info) {
        aSink.write({aSeverity, mOrigin, aText, std::chrono::system_clock::now()});
    }
    FileSink::Complaint complaint() {
        return [this](std::string const& aText) { mComplaints.push_back(aText); };
    }
    FileSink::Now clock() {
        return [this] { return mNow; };
    }

    TemporaryDirectory mDirectory;
    Origin mOrigin{"LockMock", "Lock", "Lock/LockMock"};
    std::chrono::steady_clock::time_point mNow{std::chrono::hours(1)};
    std::vector<std::string> mComplaints;
};

TEST_F(FileSinkTest, WritesDateSeverityThreadOriginAndText) {
    auto const file = mDirectory.path() / "a.log";
    FileSink sink(file, 0);
    write(sink, "+getLock");
    EXPECT_THAT(
        readFile(file),
        MatchesRegex("\\[[0-9-]+ [0-9:.]+\\] \\[info\\] \\[[0-9]+\\] \\[Lock/LockMock\\] \\+getLock\n"));
}

TEST_F(FileSinkTest, MakesTheFolderOfTheFile) {
    auto const file = mDirectory.path() / "data" / "logs" / "a.log";
    FileSink sink(file, 0);
    write(sink, "text");
    EXPECT_THAT(readFile(file), HasSubstr("text"));
}

TEST_F(FileSinkTest, RotatesAtTheSizeAndKeepsThreeOldFiles) {
    FileSink sink(mDirectory.path() / "a.log", 1);
    for (int i = 0; i < 100; ++i) {
        write(sink, std::string(200, 'x')); // 5 of these make more than 1 KiB
    }
    EXPECT_LE(std::filesystem::file_size(mDirectory.path() / "a.log"), 1024U);
    EXPECT_TRUE(std::filesystem::exists(mDirectory.path() / "a.1.log"));
    EXPECT_TRUE(std::filesystem::exists(mDirectory.path() / "a.3.log"));
    EXPECT_FALSE(std::filesystem::exists(mDirectory.path() / "a.4.log"));
}

TEST_F(FileSinkTest, TellsOncePerOutageThatTheFileCannotBeOpened) {
    writeFile(mDirectory.path() / "plain", "a file where a folder should be");
    auto const file = mDirectory.path() / "plain" / "a.log";
    FileSink sink(file, 0, complaint(), clock());
    write(sink, "one");
    write(sink, "two");
    ASSERT_THAT(mComplaints, SizeIs(1));
    EXPECT_THAT(mComplaints[0], HasSubstr("log file '" + file.string() + "' cannot be written"));
    mNow += FileSink::kRetryInterval;
    write(sink, "three");
    EXPECT_THAT(mComplaints, SizeIs(1));
}

TEST_F(FileSinkTest, WritesAgainAfterAnOutageAndSaysHowManyLinesAreMissing) {
    auto const blocker = mDirectory.path() / "plain";
    writeFile(blocker, "");
    auto const file = blocker / "a.log";
    FileSink sink(file, 0, complaint(), clock());
    write(sink, "one");
    write(sink, "two");
    std::filesystem::remove(blocker);
    mNow += FileSink::kRetryInterval;
    write(sink, "three");
    EXPECT_THAT(readFile(file), HasSubstr("2 lines are missing here: the file could not be written\n"));
    EXPECT_THAT(readFile(file), HasSubstr("three\n"));
    EXPECT_THAT(readFile(file), Not(HasSubstr("one")));
}

TEST_F(FileSinkTest, SurvivesADiskThatIsFull) {
    FileSink sink("/dev/full", 0, complaint(), clock());
    write(sink, "text");
    ASSERT_THAT(mComplaints, SizeIs(1));
    EXPECT_THAT(mComplaints[0], HasSubstr("/dev/full"));
}

TEST_F(FileSinkTest, BringsUrgentLinesToTheDiskAtOnceAndOthersWithinASecond) {
    auto const file = mDirectory.path() / "a.log";
    FileSink sink(file, 0, complaint(), clock());
    write(sink, "first", Severity::Info);
    write(sink, "second", Severity::Debug);
    EXPECT_THAT(readFile(file), Not(HasSubstr("second")));
    mNow += FileSink::kFlushInterval;
    write(sink, "third", Severity::Debug);
    EXPECT_THAT(readFile(file), HasSubstr("second"));
    EXPECT_THAT(readFile(file), HasSubstr("third"));
}

TEST_F(FileSinkTest, CutsAHugeTextAndSaysHowLongItWas) {
    auto const file = mDirectory.path() / "a.log";
    FileSink sink(file, 1024);
    std::string text;
    text.resize(100'000'000, 'x');
    write(sink, text);
    EXPECT_LT(std::filesystem::file_size(file), FileSink::kLongestText + 200);
    EXPECT_THAT(readFile(file), HasSubstr("... (100000000 characters)\n"));
}

} // namespace
