// SPDX-License-Identifier: Apache-2.0
// The token readers one by one: what they take, where they leave the cursor, how they count lines.
#include "shim/FileEntry.h"

#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

using shim::FileEntry;

/// A text with a cursor in it.
struct Cursor {
    explicit Cursor(std::string aText)
        : text(std::move(aText))
        , at(text.c_str()) {}
    Cursor(Cursor const&) = delete;
    Cursor& operator=(Cursor const&) = delete;

    std::string text;
    char const* at;
    int line = 1;
};

TEST(FileEntry, SkipsExactlyTheFiveSeparators) {
    Cursor cursor("\t\n\f\r \vx");
    FileEntry::ReadSeparator(cursor.at, cursor.line);
    EXPECT_STREQ(cursor.at, "\vx");
}

TEST(FileEntry, CountsLinesAtLfAndFfButNotAtCr) {
    Cursor cursor("\n\f\r\r\n");
    FileEntry::ReadSeparator(cursor.at, cursor.line);
    EXPECT_EQ(cursor.line, 4); // 1, and LF, FF, LF
    EXPECT_STREQ(cursor.at, "");
}

TEST(FileEntry, ReadsATagOfOneCharacter) {
    Cursor cursor("  \nFoo");
    EXPECT_EQ(FileEntry::ReadTag(cursor.at, cursor.line), 'F');
    EXPECT_STREQ(cursor.at, "oo");
    EXPECT_EQ(cursor.line, 2);
}

TEST(FileEntry, SkipsSeparatorsBehindATag) {
    Cursor cursor("F \n 1");
    EXPECT_EQ(FileEntry::ReadTag(cursor.at, cursor.line), 'F');
    EXPECT_STREQ(cursor.at, "1");
    EXPECT_EQ(cursor.line, 2);
}

TEST(FileEntry, SkipsCommentsOfAllKindsInFrontOfATag) {
    Cursor cursor("% E\n* E\f; E\n;%*\nV");
    EXPECT_EQ(FileEntry::ReadTag(cursor.at, cursor.line), 'V');
    EXPECT_EQ(cursor.line, 5);
}

TEST(FileEntry, EndsACommentAtLfOrFfAndNotAtCr) {
    Cursor cursor("% one\rE\nM");
    EXPECT_EQ(FileEntry::ReadTag(cursor.at, cursor.line), 'M');
}

TEST(FileEntry, GivesNoTagAtTheEndAndStaysThere) {
    for (char const* const text : {"", " \n", "% comment that runs to the end", "%"}) {
        Cursor cursor(text);
        EXPECT_EQ(FileEntry::ReadTag(cursor.at, cursor.line), '\0');
        EXPECT_EQ(cursor.at, cursor.text.c_str() + cursor.text.size());
    }
}

TEST(FileEntry, ReadsAnIntegerWithoutASeparatorBehindIt) {
    Cursor cursor("12ab");
    int value = 0;
    EXPECT_TRUE(FileEntry::ReadInteger(value, cursor.at, cursor.line));
    EXPECT_EQ(value, 12);
    EXPECT_STREQ(cursor.at, "ab");
}

TEST(FileEntry, ReadsAnIntegerToTheEndOfTheText) {
    Cursor cursor("40");
    int value = 0;
    EXPECT_TRUE(FileEntry::ReadInteger(value, cursor.at, cursor.line));
    EXPECT_EQ(value, 40);
    EXPECT_STREQ(cursor.at, "");
}

TEST(FileEntry, RefusesAnIntegerWithoutADigit) {
    for (char const* const text : {"-1", "+1", "x", "%", "", " 1"}) {
        Cursor cursor(text);
        int value = -77;
        EXPECT_FALSE(FileEntry::ReadInteger(value, cursor.at, cursor.line)) << text;
        EXPECT_EQ(value, -77);
        EXPECT_STREQ(cursor.at, text);
    }
}

TEST(FileEntry, LetsAnIntegerOverflowUnnoticed) {
    Cursor cursor("4294967297 2147483648");
    int value = 0;
    EXPECT_TRUE(FileEntry::ReadInteger(value, cursor.at, cursor.line));
    EXPECT_EQ(value, 1); // 2^32 + 1
    EXPECT_TRUE(FileEntry::ReadInteger(value, cursor.at, cursor.line));
    EXPECT_EQ(value, -2147483647 - 1); // 2^31
}

TEST(FileEntry, ReadsADoubleAndSkipsItsTail) {
    Cursor cursor("-1.25e2xyz\n7");
    double value = 0.0;
    EXPECT_TRUE(FileEntry::ReadDouble(value, cursor.at, cursor.line));
    EXPECT_EQ(value, -125.0);
    EXPECT_STREQ(cursor.at, "7");
    EXPECT_EQ(cursor.line, 2);
}

TEST(FileEntry, TakesATextThatIsNoNumberForZero) {
    Cursor cursor("abc 7");
    double value = 5.0;
    EXPECT_TRUE(FileEntry::ReadDouble(value, cursor.at, cursor.line));
    EXPECT_EQ(value, 0.0);
    EXPECT_STREQ(cursor.at, "7");
}

TEST(FileEntry, ReadsADoubleToTheEndOfTheText) {
    Cursor cursor("0.5tail");
    double value = 0.0;
    EXPECT_TRUE(FileEntry::ReadDouble(value, cursor.at, cursor.line));
    EXPECT_EQ(value, 0.5);
    EXPECT_STREQ(cursor.at, "");
    EXPECT_TRUE(FileEntry::ReadDouble(value, cursor.at, cursor.line)); // at the end: no number, and no way on
    EXPECT_EQ(value, 0.0);
    EXPECT_STREQ(cursor.at, "");
}

TEST(FileEntry, TakesWhatStrtodTakes) {
    Cursor cursor("inf nan 0x1p-1 1e999");
    double value = 0.0;
    FileEntry::ReadDouble(value, cursor.at, cursor.line);
    EXPECT_EQ(value, std::numeric_limits<double>::infinity());
    FileEntry::ReadDouble(value, cursor.at, cursor.line);
    EXPECT_TRUE(std::isnan(value));
    FileEntry::ReadDouble(value, cursor.at, cursor.line);
    EXPECT_EQ(value, 0.5);
    FileEntry::ReadDouble(value, cursor.at, cursor.line);
    EXPECT_EQ(value, std::numeric_limits<double>::infinity());
}

TEST(FileEntry, ReadsOneCharacter) {
    Cursor cursor("G x");
    char character = '@';
    EXPECT_TRUE(FileEntry::ReadCharacter(character, cursor.at, cursor.line));
    EXPECT_EQ(character, 'G');
    EXPECT_STREQ(cursor.at, "x");
}

TEST(FileEntry, RefusesACharacterAtASeparatorOrAtTheEnd) {
    for (char const* const text : {" G", "\nG", "\tG", "\rG", "\fG", ""}) {
        Cursor cursor(text);
        char character = '@';
        EXPECT_FALSE(FileEntry::ReadCharacter(character, cursor.at, cursor.line));
        EXPECT_EQ(character, '@');
        EXPECT_STREQ(cursor.at, text);
    }
}

TEST(FileEntry, ReadsAStringAndCutsItSilently) {
    Cursor cursor("abcdefghijklmnopqrst\nE");
    FixedSizeString name(9);
    EXPECT_TRUE(FileEntry::ReadString(name, cursor.at, cursor.line));
    EXPECT_STREQ(name.text(), "abcdefgh");
    EXPECT_STREQ(cursor.at, "E");
    EXPECT_EQ(cursor.line, 2);
}

TEST(FileEntry, ReadsAStringToTheEndOfTheText) {
    Cursor cursor("abc");
    FixedSizeString name(9);
    EXPECT_TRUE(FileEntry::ReadString(name, cursor.at, cursor.line));
    EXPECT_STREQ(name.text(), "abc");
    EXPECT_STREQ(cursor.at, "");
}

TEST(FileEntry, RefusesAStringAtASeparatorOrAtTheEnd) {
    for (char const* const text : {" abc", ""}) {
        Cursor cursor(text);
        FixedSizeString name(9);
        EXPECT_FALSE(FileEntry::ReadString(name, cursor.at, cursor.line));
        EXPECT_STREQ(cursor.at, text);
    }
}

TEST(FileEntry, BeginsEachKindOfEntryWithItsMarks) {
    shim::ToskFileEntry_Mode const mode;
    EXPECT_EQ(mode.valid, 0);
    EXPECT_EQ(mode.kind, 7);
    EXPECT_EQ(mode.character, '@'); // 0x40
    EXPECT_EQ(mode.name.capacity(), 9U);

    shim::ToskFileEntry_ForwardRelation const relation;
    EXPECT_EQ(relation.valid, 0);
    EXPECT_EQ(relation.kind, 9);
    EXPECT_EQ(relation.first, 268435455);  // 0x0FFFFFFF
    EXPECT_EQ(relation.second, 268435440); // 0x0FFFFFF0
    EXPECT_EQ(relation.value, 0.0);

    shim::ToskFileEntry_Weight const weight;
    EXPECT_EQ(weight.valid, 0);
    EXPECT_EQ(weight.kind, 11);
    EXPECT_EQ(weight.value, 0.0);
}

} // namespace
