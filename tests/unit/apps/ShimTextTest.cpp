// SPDX-License-Identifier: Apache-2.0
// Gradients and currents as people write them, and shim files.
#include "apps/fieldwarden/ShimText.h"

#include "apps/fieldwarden/WrongUsage.h"
#include "support/TemporaryDirectory.h"

#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::app::Gradient;
using libfieldwarden::app::parseAssignment;
using libfieldwarden::app::parseCurrent;
using libfieldwarden::app::parseShimFileLine;
using libfieldwarden::app::readShimFile;
using libfieldwarden::app::writeShimFile;
using libfieldwarden::app::WrongUsage;
using libfieldwarden::test::readFile;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::AllOf;
using testing::HasSubstr;
using testing::ThrowsMessage;

/// "5:Z=1200" for each gradient: the line's number, the name, the value.
std::vector<std::string> linesOf(std::filesystem::path const& aPath) {
    std::vector<std::string> lines;
    for (auto const& [number, gradient] : readShimFile(aPath)) {
        lines.push_back(std::to_string(number) + ":" + gradient.first + "=" +
                        std::to_string(gradient.second));
    }
    return lines;
}

TEST(ParseAssignment, TakesANameAndAWholeNumberOf32Bits) {
    struct Row {
        char const* text;
        Gradient gradient;
    };
    for (Row const& row : {Row{"Z=1200", {"Z", 1200}}, Row{"X=-30", {"X", -30}}, Row{"X=+30", {"X", 30}},
                           Row{"(X2-Y2)Z2=0", {"(X2-Y2)Z2", 0}}, Row{"Z=2147483647", {"Z", 2147483647}},
                           Row{"Z=-2147483648", {"Z", -2147483647 - 1}}, Row{"Z=007", {"Z", 7}}}) {
        EXPECT_EQ(parseAssignment(row.text), row.gradient) << row.text;
    }
}

TEST(ParseAssignment, RefusesAnythingElse) {
    for (char const* const text :
         {"", "Z", "=", "=5", "Z=", "Z= 5", "Z=5 ", "Z=1.5", "Z=1e3", "Z=0x10", "Z=+-5", "Z=--5", "Z=+",
          "Z=five", "Z=2147483648", "Z=-2147483649", "Z=1=2"}) {
        EXPECT_THROW(parseAssignment(text), WrongUsage) << text;
    }
}

TEST(ParseCurrent, TakesAmpereAndItsParts) {
    struct Row {
        char const* text;
        double ampere;
    };
    for (Row const& row :
         {Row{"0.25", 0.25}, Row{"0.25A", 0.25}, Row{"250mA", 0.25}, Row{"250000uA", 0.25}, Row{"-1", -1.0},
          Row{"+1A", 1.0}, Row{".5", 0.5}, Row{"1e-3", 0.001}, Row{"0", 0.0},
          Row{"7", 7.0}}) { // That 7 A are too many is the instrument's to say.
        EXPECT_DOUBLE_EQ(parseCurrent(row.text), row.ampere) << row.text;
    }
}

TEST(ParseCurrent, RefusesAnythingElse) {
    for (char const* const text : {"", "A", "mA", "1 A", "1kA", "1V", "nan", "inf", "-infA", "1e999", "1,5",
                                   "+-1", "1m", "0x1", "1AA"}) {
        EXPECT_THROW(parseCurrent(text), WrongUsage) << text;
    }
}

TEST(ParseShimFileLine, TakesWhatTheLibraryTakesInAFactoryShimFile) {
    struct Row {
        char const* line;
        std::optional<Gradient> gradient;
    };
    for (Row const& row :
         {Row{"", {}}, Row{"# Z 5", {}}, Row{"Z 1200", Gradient("Z", 1200)},
          Row{"Z    -7", Gradient("Z", -7)}, Row{"Z 5\r", Gradient("Z", 5)},
          Row{"Z 12abc", Gradient("Z", 12)}, Row{"Z 12 13", Gradient("Z", 12)},
          Row{"Z \t+8", Gradient("Z", 8)}, Row{"\tZ 5", Gradient("\tZ", 5)}, Row{" 5", Gradient("", 5)},
          Row{"Z -2147483648", Gradient("Z", -2147483647 - 1)}}) {
        EXPECT_EQ(parseShimFileLine(row.line), row.gradient) << row.line;
    }
}

TEST(ParseShimFileLine, SaysWhatIsWrong) {
    struct Row {
        char const* line;
        char const* words;
    };
    for (Row const& row :
         {Row{"Z", "no space found after gradient name"}, Row{"\r", "no space found after gradient name"},
          Row{"Z\t5", "no space found after gradient name"}, Row{"Z ", "no value after gradient name"},
          Row{" # no comment", "'# no comment' is not a whole number of 32 bits"},
          Row{" Z 5", "'Z 5' is not a whole number of 32 bits"},
          Row{"Z \r", "'\r' is not a whole number of 32 bits"},
          Row{"Z +-5", "'+-5' is not a whole number of 32 bits"},
          Row{"Z 2147483648", "'2147483648' is not a whole number of 32 bits"}}) {
        EXPECT_THAT([&] { parseShimFileLine(row.line); }, ThrowsMessage<std::invalid_argument>(row.words))
            << row.line;
    }
}

TEST(ReadShimFile, GivesTheGradientsWithTheirLines) {
    TemporaryDirectory const directory;
    auto const& folder = directory.path();
    writeFile(folder / "shims", "# mine\n\nZ 1200\nX -30\r\nZ 7");
    EXPECT_THAT(linesOf(folder / "shims"), testing::ElementsAre("3:Z=1200", "4:X=-30", "5:Z=7"));
}

TEST(ReadShimFile, TakesAnEmptyFile) {
    TemporaryDirectory const directory;
    auto const& folder = directory.path();
    writeFile(folder / "shims", "");
    EXPECT_THAT(linesOf(folder / "shims"), testing::IsEmpty());
}

TEST(ReadShimFile, NamesFileAndLineOfAnError) {
    TemporaryDirectory const directory;
    auto const& folder = directory.path();
    writeFile(folder / "shims", "Z 1200\nX five\n");
    EXPECT_THAT([&] { readShimFile(folder / "shims"); },
                ThrowsMessage<std::runtime_error>("Shim file '" + (folder / "shims").string() +
                                                  "', line 2: 'five' is not a whole number of 32 bits"));
}

TEST(ReadShimFile, SaysWhyAFileCannotBeRead) {
    TemporaryDirectory const directory;
    auto const& folder = directory.path();
    EXPECT_THAT([&] { readShimFile(folder / "none"); },
                ThrowsMessage<std::runtime_error>(HasSubstr("none': No such file or directory")));
    EXPECT_THAT([&] { readShimFile(folder); },
                ThrowsMessage<std::runtime_error>(HasSubstr("': Is a directory")));
}

TEST(ReadShimFile, RefusesAFileWithoutEnd) {
    EXPECT_THAT([] { readShimFile("/dev/zero"); },
                ThrowsMessage<std::runtime_error>("'/dev/zero' is no shim file: it has more than 1 MiB"));
}

TEST(WriteShimFile, WritesWhatReadShimFileReads) {
    TemporaryDirectory const directory;
    auto const& folder = directory.path();
    writeShimFile(folder / "shims", {{"Z", 1200}, {"(X2-Y2)", -30}});
    EXPECT_EQ(readFile(folder / "shims"),
              "# Shim file: a gradient's name and its value in units.\nZ 1200\n(X2-Y2) -30\n");
    EXPECT_THAT(linesOf(folder / "shims"), testing::ElementsAre("2:Z=1200", "3:(X2-Y2)=-30"));
}

TEST(WriteShimFile, ReplacesTheFileBehindALinkAndLeavesTheLink) {
    TemporaryDirectory const directory;
    auto const& folder = directory.path();
    writeFile(folder / "shims", "Z 1\n");
    std::filesystem::create_symlink("shims", folder / "link");
    writeShimFile(folder / "link", {{"Z", 2}});
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
    EXPECT_THAT(linesOf(folder / "shims"), testing::ElementsAre("2:Z=2"));
}

TEST(WriteShimFile, WritesToADeviceWithoutReplacingIt) {
    writeShimFile("/dev/null", {{"Z", 2}});
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST(WriteShimFile, LeavesNothingOfItsOwnBehindWhenItFails) {
    TemporaryDirectory const directory;
    auto const& folder = directory.path();
    EXPECT_THAT([&] { writeShimFile(folder / "none" / "shims", {}); },
                ThrowsMessage<std::runtime_error>(
                    AllOf(HasSubstr("Cannot write the shim file"), HasSubstr("No such file or directory"))));
    std::filesystem::create_directory(folder / "shims");
    EXPECT_THAT([&] { writeShimFile(folder / "shims", {}); },
                ThrowsMessage<std::runtime_error>(HasSubstr("Is a directory")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
}

} // namespace
