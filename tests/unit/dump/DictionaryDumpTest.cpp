// SPDX-License-Identifier: Apache-2.0
// The form of a dictionary dump: a line for each object, whatever comes of reading it, and an empty one a
// group.
#include "dump/DictionaryDump.h"

#include "support/FakeCanOpenNode.h"
#include "support/TemporaryDirectory.h"

#include <array>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::dump::ObjectRange;
using libfieldwarden::dump::ObjectType;
using libfieldwarden::dump::writeDictionary;
using libfieldwarden::test::FakeCanOpenNode;
using libfieldwarden::test::readFile;
using libfieldwarden::test::TemporaryDirectory;
using testing::ElementsAre;

class DictionaryDump : public testing::Test {
protected:
    template <std::size_t Size>
    std::string dump(std::array<ObjectRange, Size> const& aObjects) {
        std::ostringstream text;
        writeDictionary(mNode, text, aObjects);
        return text.str();
    }

    std::shared_ptr<FakeCanOpenNode> mNode = std::make_shared<FakeCanOpenNode>(std::uint8_t{8});
};

TEST_F(DictionaryDump, WritesIndexAndSubindexInUpperCaseHexadecimal) {
    mNode->set(0x1F5A, 0xAB, 7);
    EXPECT_EQ(dump(std::array{ObjectRange{0x1F5A, 0xAB, 0xAB, ObjectType::U8}}), "0x1F5A\t0xAB\t7\n\n");
}

TEST_F(DictionaryDump, ReadsEachTypeWithItsOwnOperationAndPrintsTheWholeRange) {
    mNode->set(0x0001, 0, 255);
    mNode->set(0x0002, 0, 65535);
    mNode->set(0x0003, 0, 4294967295);
    mNode->set(0x0004, 0, -2147483648);
    mNode->set(0x0005, 0, "Q47 \"shim\" board");
    EXPECT_EQ(dump(std::array{
                  ObjectRange{0x0001, 0, 0, ObjectType::U8}, ObjectRange{0x0002, 0, 0, ObjectType::U16},
                  ObjectRange{0x0003, 0, 0, ObjectType::U32}, ObjectRange{0x0004, 0, 0, ObjectType::I32},
                  ObjectRange{0x0005, 0, 0, ObjectType::STR}}),
              "0x0001\t0x00\t255\n\n"
              "0x0002\t0x00\t65535\n\n"
              "0x0003\t0x00\t4294967295\n\n"
              "0x0004\t0x00\t-2147483648\n\n"
              "0x0005\t0x00\tQ47 \"shim\" board\n\n"); // no quotes of its own
    EXPECT_THAT(mNode->takeCalls(),
                ElementsAre("readUInt8 0001:00", "readUInt16 0002:00", "readUInt32 0003:00",
                            "readInt32 0004:00", "readString 0005:00"));
}

TEST_F(DictionaryDump, KeepsTheRangesOfOneIndexInOneGroup) {
    mNode->set(0x1018, 0, 2);
    mNode->set(0x1018, 1, 1000);
    mNode->set(0x1018, 2, 2000);
    mNode->set(0x1200, 0, 3);
    EXPECT_EQ(
        dump(std::array{ObjectRange{0x1018, 0, 0, ObjectType::U8}, ObjectRange{0x1018, 1, 2, ObjectType::U32},
                        ObjectRange{0x1200, 0, 0, ObjectType::U8}}),
        "0x1018\t0x00\t2\n"
        "0x1018\t0x01\t1000\n"
        "0x1018\t0x02\t2000\n"
        "\n"
        "0x1200\t0x00\t3\n"
        "\n");
}

TEST_F(DictionaryDump, WritesTheWordsOfAFailureAndGoesOn) {
    mNode->set(0x3000, 1, 11);
    mNode->set(0x3000, 3, 13);
    mNode->fail(0x3000, 2, "object does not exist");
    EXPECT_EQ(dump(std::array{ObjectRange{0x3000, 1, 3, ObjectType::I32}}),
              "0x3000\t0x01\t11\n"
              "0x3000\t0x02\treading the value failed with object does not exist\n"
              "0x3000\t0x03\t13\n"
              "\n");
}

TEST_F(DictionaryDump, NamesAnExceptionOfAnotherKindUnknown) {
    mNode->onAccess(0x3000, 1, [] { throw 5; }); // NOLINT(misc-throw-by-value-catch-by-reference)
    EXPECT_EQ(dump(std::array{ObjectRange{0x3000, 1, 1, ObjectType::I32}}),
              "0x3000\t0x01\treading the value failed with unknown exception\n"
              "\n");
}

TEST_F(DictionaryDump, NamesTheObjectBeforeItIsRead) {
    std::ostringstream text;
    std::string atTheRead;
    mNode->set(0x2000, 1, 1);
    mNode->onAccess(0x2000, 1, [&] { atTheRead = text.str(); });
    writeDictionary(mNode, text, std::array{ObjectRange{0x2000, 1, 1, ObjectType::U32}});
    EXPECT_EQ(atTheRead, "0x2000\t0x01\t");
}

TEST_F(DictionaryDump, GivesTheStreamBack) {
    std::ostringstream text;
    EXPECT_EQ(&writeDictionary(mNode, text, {}), &text);
    EXPECT_EQ(text.str(), "");
}

TEST_F(DictionaryDump, LeavesAFailureOfTheStreamToTheCaller) {
    mNode->set(0x2000, 1, 1);
    std::ostringstream text;
    text.setstate(std::ios::badbit);
    EXPECT_EQ(writeDictionary(mNode, text, std::array{ObjectRange{0x2000, 1, 1, ObjectType::U32}}).bad(),
              true);

    std::ostream throwing(nullptr); // bad from the beginning, as it has nowhere to write
    EXPECT_THROW(throwing.exceptions(std::ios::badbit), std::ios::failure);
    EXPECT_THROW(writeDictionary(mNode, throwing, std::array{ObjectRange{0x2000, 1, 1, ObjectType::U32}}),
                 std::ios::failure);
}

TEST(DumpFile, TakesThePlaceOfAFormerFile) {
    TemporaryDirectory const directory;
    auto const path = directory.path() / "board.dump";
    libfieldwarden::dump::writeFile(path, [](std::ostream& aStream) { aStream << "a long first text\n"; });
    libfieldwarden::dump::writeFile(path, [](std::ostream& aStream) { aStream << "second\n"; });
    EXPECT_EQ(readFile(path), "second\n");
}

TEST(DumpFile, SaysWhichFileItCannotOpenAndWhy) {
    TemporaryDirectory const directory;
    auto const path = directory.path() / "missing" / "board.dump";
    try {
        libfieldwarden::dump::writeFile(path, [](std::ostream&) { FAIL() << "nothing to write to"; });
        FAIL() << "no exception";
    } catch (std::system_error const& error) {
        EXPECT_EQ(std::string(error.what()), "cannot open " + path.string() + ": No such file or directory");
    }
}

TEST(DumpFile, NoticesAFullDisk) {
    EXPECT_THROW(libfieldwarden::dump::writeFile(
                     "/dev/full", [](std::ostream& aStream) { aStream << "more than nothing\n"; }),
                 std::ios::failure);
}

TEST(DumpFile, PassesOnWhatTheWriterThrows) {
    TemporaryDirectory const directory;
    EXPECT_THROW(libfieldwarden::dump::writeFile(directory.path() / "board.dump",
                                                 [](std::ostream&) { throw std::invalid_argument("no"); }),
                 std::invalid_argument);
}

} // namespace
