// SPDX-License-Identifier: Apache-2.0
// The readable copy of the temperature board's dictionary against the stored one.
#include "TempBoardFixture.h"

#include "temperature/TemperatureDictionaryDump.h"

#include "support/TemporaryDirectory.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using libfieldwarden::tempboardq47::dumpCANopenDicOjbForLog;
using libfieldwarden::test::line;
using libfieldwarden::test::readFile;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TempBoardTest;
using libfieldwarden::test::TemporaryDirectory;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char const* kFailure = "reading the value failed with ";

/// One line of the stored dump.
struct Row {
    std::uint16_t index;
    std::uint8_t subindex;
    std::string result;
};

class TemperatureDictionaryDumpTest : public TempBoardTest {
protected:
    /// Gives the board the dictionary that the stored dump shows.
    void fill() {
        for (Row const& row : rows()) {
            bool const isNumber =
                !row.result.empty() &&
                row.result.find_first_not_of("0123456789", row.result[0] == '-' ? 1 : 0) == std::string::npos;
            if (row.result.starts_with(kFailure)) {
                mNode->fail(row.index, row.subindex, row.result.substr(std::string(kFailure).size()));
            } else if (isNumber) {
                mNode->set(row.index, row.subindex, std::stoll(row.result));
            } else {
                mNode->set(row.index, row.subindex, row.result);
            }
        }
    }

    std::vector<Row> rows() const {
        std::vector<Row> all;
        for (std::string const& text : linesOf(mGolden)) {
            if (!text.empty()) {
                all.push_back({static_cast<std::uint16_t>(std::stoul(text.substr(0, 6), nullptr, 16)),
                               static_cast<std::uint8_t>(std::stoul(text.substr(7, 4), nullptr, 16)),
                               text.substr(12)});
            }
        }
        return all;
    }

    static std::vector<std::string> linesOf(std::string const& aText) {
        std::vector<std::string> all;
        std::istringstream text(aText);
        for (std::string each; std::getline(text, each);) {
            all.push_back(each);
        }
        return all;
    }

    /// The stored dump with another result in every line.
    std::string goldenWith(std::string const& aResult) const {
        std::string text;
        for (std::string const& each : linesOf(mGolden)) {
            text += each.empty() ? "\n" : each.substr(0, 12) + aResult + "\n";
        }
        return text;
    }

    std::string dump() {
        std::ostringstream text;
        EXPECT_EQ(&dumpCANopenDicOjbForLog(mNode, text), &text);
        return text.str();
    }

    std::string const mGolden = readFile(TEMPERATURE_GOLDEN "/canopen_temperature.dump");
    TemporaryDirectory mDirectory;
};

TEST_F(TemperatureDictionaryDumpTest, WritesTheDictionaryToItsFile) {
    fill();
    mBoard->dumpCANopenValues(mDirectory.path().string());
    EXPECT_EQ(readFile(mDirectory.path() / "canopen_temperature.dump"), mGolden);
    EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(TemperatureDictionaryDumpTest, HasALineForEachOf242ObjectsAndAnEmptyOneForEachOf53Groups) {
    fill();
    std::size_t objects = 0;
    std::size_t groups = 0;
    for (std::string const& each : linesOf(dump())) {
        ++(each.empty() ? groups : objects);
    }
    EXPECT_EQ(objects, 242U);
    EXPECT_EQ(groups, 53U);
    EXPECT_TRUE(dump().ends_with("\n\n"));
}

TEST_F(TemperatureDictionaryDumpTest, ReadsEachObjectByTheOperationOfItsTypeInItsOrder) {
    fill();
    dump();
    EXPECT_THAT(calls(), ElementsAreArray(linesOf(readFile(TEMPERATURE_GOLDEN "/accesses.txt"))));
}

TEST_F(TemperatureDictionaryDumpTest, LeavesTheMagnetTargetThatCanOnlyBeWrittenOut) {
    fill();
    dump();
    auto const all = calls();
    EXPECT_THAT(all, testing::Not(testing::Contains(testing::EndsWith(" 3004:01"))));
    EXPECT_THAT(all, testing::Contains("readUInt16 3004:02"));
}

TEST_F(TemperatureDictionaryDumpTest, IsWholeWhenEveryReadFails) {
    for (Row const& row : rows()) {
        mNode->fail(row.index, row.subindex, "node 7 does not answer");
    }
    EXPECT_EQ(dump(), goldenWith("reading the value failed with node 7 does not answer"));
}

TEST_F(TemperatureDictionaryDumpTest, IsWholeWhateverIsThrown) {
    for (Row const& row : rows()) {
        mNode->onAccess(row.index, row.subindex, [] { throw 42; });
    }
    EXPECT_EQ(dump(), goldenWith("reading the value failed with unknown exception"));
}

TEST_F(TemperatureDictionaryDumpTest, NamesTheObjectBeforeItIsRead) {
    fill();
    std::ostringstream text;
    std::string before;
    mNode->onAccess(0x3101, 2, [&] { before = text.str(); });
    dumpCANopenDicOjbForLog(mNode, text);
    EXPECT_TRUE(before.ends_with("0x3101\t0x02\t"));
}

TEST_F(TemperatureDictionaryDumpTest, TakesThePlaceOfAFormerFile) {
    libfieldwarden::test::writeFile(mDirectory.path() / "canopen_temperature.dump", std::string(100000, 'x'));
    fill();
    mBoard->dumpCANopenValues(mDirectory.path().string());
    EXPECT_EQ(readFile(mDirectory.path() / "canopen_temperature.dump"), mGolden);
}

TEST_F(TemperatureDictionaryDumpTest, OnlyLogsThatItsFileCannotBeOpened) {
    auto const missing = (mDirectory.path() / "missing").string();
    mBoard->dumpCANopenValues(missing);
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Error,
                                          "Failed to dump CanOpen values with 'cannot open " + missing +
                                              "/canopen_temperature.dump: No such file or directory'")));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(TemperatureDictionaryDumpTest, OnlyLogsThatItsFileCannotBeWritten) {
    // A file on a device that is always full.
    std::filesystem::create_symlink("/dev/full", mDirectory.path() / "canopen_temperature.dump");
    fill();
    mBoard->dumpCANopenValues(mDirectory.path().string());
    auto const all = lines();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].severity, Severity::Error);
    EXPECT_TRUE(all[0].text.starts_with("Failed to dump CanOpen values with '")) << all[0].text;
}

} // namespace
