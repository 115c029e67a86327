// SPDX-License-Identifier: Apache-2.0
// Shim files line by line, and every way to get one wrong.
#include "shim/ShimFile.h"

#include "support/TemporaryDirectory.h"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <rapidcheck/gtest.h>

namespace {

using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::StrEq;
using testing::ThrowsMessage;

class ShimFileTest : public testing::Test {
protected:
    std::shared_ptr<ShimGradientsTOSK> read(std::string const& aText) {
        writeFile(path(), aText);
        return ShimFile(path()).gradients();
    }
    std::string path() const { return (mDirectory.path() / "shims").string(); }

    TemporaryDirectory mDirectory;
};

/// One line that carries a gradient: its name and its value.
std::pair<std::string, int> line(std::string const& aLine) {
    std::string name = "untouched";
    int value = -77;
    EXPECT_TRUE(ShimFile::parseLine(aLine, 1, name, value));
    return {name, value};
}

auto failsWith(std::string const& aWords) {
    return ThrowsMessage<std::runtime_error>(StrEq("Invalid shim file. Error at line 7" + aWords));
}

auto parsing(std::string const& aLine) {
    return [aLine] {
        std::string name;
        int value = 0;
        ShimFile::parseLine(aLine, 7, name, value);
    };
}

TEST_F(ShimFileTest, TellsTheNameOfALineWhoseValueIsBad) {
    std::string name = "untouched";
    int value = -77;
    EXPECT_THROW(ShimFile::parseLine("Z3 much", 1, name, value), std::runtime_error);
    EXPECT_EQ(name, "Z3");
    EXPECT_EQ(value, -77);
}

TEST_F(ShimFileTest, ReadsGradientsAndLeavesTheOthersZero) {
    auto const gradients = read("# factory\n\nZ 120\nXZ2   -45\n(X2-Y2)Z 7\r\nZ0 1");
    EXPECT_EQ(gradients->get("Z"), 120);
    EXPECT_EQ(gradients->get("XZ2"), -45);
    EXPECT_EQ(gradients->get("(X2-Y2)Z"), 7);
    EXPECT_EQ(gradients->get("Z0"), 1); // the last line has no LF
    EXPECT_EQ(gradients->get("Z2"), 0);
    EXPECT_EQ(gradients->getVector()(39), 0);
}

TEST_F(ShimFileTest, SharesWhatItHasRead) {
    writeFile(path(), "Z 3\n");
    ShimFile file(path());
    EXPECT_EQ(file.gradients(), file.gradients());
    EXPECT_EQ(ShimFile::parse(path())->get("Z"), 3);
}

TEST_F(ShimFileTest, TakesCommentsAndEmptyLinesForAllZeros) {
    EXPECT_TRUE(read("# one\n\n#Z 5\n\n")->areAllZeros());
    EXPECT_TRUE(read("")->areAllZeros());
}

TEST_F(ShimFileTest, KeepsTheLastValueOfANameGivenTwice) {
    EXPECT_EQ(read("Z 1\nZ 2\n")->get("Z"), 2);
}

TEST_F(ShimFileTest, TellsThePathOfAFileThatIsNotThere) {
    std::string const missing = path() + ".missing";
    EXPECT_THAT([&] { ShimFile file(missing); },
                ThrowsMessage<std::invalid_argument>(StrEq("Failed to open shim file '" + missing + "'")));
}

TEST_F(ShimFileTest, RefusesAFolder) {
    std::string const folder = mDirectory.path().string();
    EXPECT_THAT([&] { ShimFile file(folder); },
                ThrowsMessage<std::invalid_argument>(StrEq("Failed to open shim file '" + folder + "'")));
}

TEST_F(ShimFileTest, NamesTheLineAndTheGradientThatItDoesNotKnow) {
    EXPECT_THAT(
        [&] { read("# one\nZ 1\nQ 1\n"); },
        ThrowsMessage<std::runtime_error>(StrEq("Invalid shim file. Error at line 3: failed to set gradient "
                                                "with There is no TOSK gradient named 'Q'")));
}

TEST_F(ShimFileTest, DoesNotTrimTabsFromNames) {
    EXPECT_THAT([&] { read("Z\t 1\n"); }, ThrowsMessage<std::runtime_error>(StrEq(
                                              "Invalid shim file. Error at line 1: failed to set gradient "
                                              "with There is no TOSK gradient named 'Z\t'")));
}

TEST_F(ShimFileTest, StopsAtTheFirstBadLine) {
    EXPECT_THAT([&] { read("Z 1\nZ\nQ 1\n"); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("Invalid shim file. Error at line 2: no space found after gradient name")));
}

TEST_F(ShimFileTest, RefusesABlankLineOfACrLfFile) {
    EXPECT_THAT([&] { read("Z 1\r\n\r\nY 2\r\n"); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("Invalid shim file. Error at line 2: no space found after gradient name")));
}

TEST(ShimFileLine, SkipsEmptyLinesAndCommentsAndLeavesTheTargetsAlone) {
    std::string name = "untouched";
    int value = -77;
    EXPECT_FALSE(ShimFile::parseLine("", 1, name, value));
    EXPECT_FALSE(ShimFile::parseLine("# Z 5", 1, name, value));
    EXPECT_FALSE(ShimFile::parseLine("#", 1, name, value));
    EXPECT_EQ(name, "untouched");
    EXPECT_EQ(value, -77);
}

TEST(ShimFileLine, TakesNameBlanksValueAndCr) {
    EXPECT_EQ(line("Z 5"), std::pair("Z" + std::string(), 5));
    EXPECT_EQ(line("XYZ2     -12"), std::pair("XYZ2" + std::string(), -12));
    EXPECT_EQ(line("Z 5\r"), std::pair("Z" + std::string(), 5));
    EXPECT_EQ(line("Z 5\rtail"), std::pair("Z" + std::string(), 5));
}

TEST(ShimFileLine, TakesNumbersAsStolDoes) {
    EXPECT_EQ(line("Z +5").second, 5);
    EXPECT_EQ(line("Z \t5").second, 5);
    EXPECT_EQ(line("Z 12abc").second, 12);
    EXPECT_EQ(line("Z 12 13").second, 12);
    EXPECT_EQ(line("Z 010").second, 10);
    EXPECT_EQ(line("Z 1.9").second, 1);
}

TEST(ShimFileLine, TakesTheWholeRangeOf32Bits) {
    EXPECT_EQ(line("Z 2147483647").second, 2147483647);
    EXPECT_EQ(line("Z -2147483648").second, -2147483647 - 1);
}

TEST(ShimFileLine, RefusesWhatNeeds33BitsAsItRefusesWhatNeeds65) {
    std::string const words = ": gradient value could not be parse to int. Error was: stol";
    EXPECT_THAT(parsing("Z 2147483648"), failsWith(words));
    EXPECT_THAT(parsing("Z -2147483649"), failsWith(words));
    EXPECT_THAT(parsing("Z 99999999999999999999"), failsWith(words));
}

TEST(ShimFileLine, RefusesALineWithoutBlank) {
    EXPECT_THAT(parsing("Z"), failsWith(": no space found after gradient name"));
    EXPECT_THAT(parsing("Z\t5"), failsWith(": no space found after gradient name"));
    EXPECT_THAT(parsing("\r"), failsWith(": no space found after gradient name"));
}

TEST(ShimFileLine, RefusesANameWithBlanksOnly) {
    EXPECT_THAT(parsing("Z "), failsWith(": no value after gradient name"));
    EXPECT_THAT(parsing("   "), failsWith(": no value after gradient name"));
}

TEST(ShimFileLine, RefusesAValueThatIsNoNumber) {
    EXPECT_THAT(parsing("Z five"), failsWith(": gradient value could not be parse to int. Error was: stol"));
    EXPECT_THAT(parsing("Z \r"), failsWith(": gradient value could not be parse to int. Error was: stol"));
    // the name is empty, and the value text is "Z 5"
    EXPECT_THAT(parsing(" Z 5"), failsWith(": gradient value could not be parse to int. Error was: stol"));
}

TEST(ShimFileLine, TakesNoCommentBehindABlank) {
    EXPECT_THAT(parsing(" # Z 5"), failsWith(": gradient value could not be parse to int. Error was: stol"));
}

TEST(ShimFileLine, GivesAnEmptyNameBehindALeadingBlank) {
    EXPECT_EQ(line(" 5"), std::pair(std::string(), 5));
}

RC_GTEST_PROP(ShimFileProperty, ReadsBackEveryNameAndValue, (int aValue)) {
    std::string const name = ShimGradientsTOSK::getGradientNameByCode(*rc::gen::inRange(0, 39));
    std::string const blanks(*rc::gen::inRange<std::size_t>(1, 9), ' ');
    std::string read;
    int value = 0;
    RC_ASSERT(ShimFile::parseLine(name + blanks + std::to_string(aValue), 1, read, value));
    RC_ASSERT(read == name);
    RC_ASSERT(value == aValue);
}

} // namespace
