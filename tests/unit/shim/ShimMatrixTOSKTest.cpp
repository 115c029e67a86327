// SPDX-License-Identifier: Apache-2.0
// TOSK matrix files: the format with all its freedoms and failures, and the arithmetic in both directions.
#include "shim/ShimMatrixTOSK.h"

#include "shim/ShimGradientsTOSK.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <locale>
#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <rapidcheck/gtest.h>

namespace {

namespace ublas = boost::numeric::ublas;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

/// The number punctuation of a language that writes 1.234,5.
class Comma : public std::numpunct<char> {
protected:
    char do_decimal_point() const override { return ','; }    // NOLINT(readability-identifier-naming)
    char do_thousands_sep() const override { return '.'; }    // NOLINT(readability-identifier-naming)
    std::string do_grouping() const override { return "\3"; } // NOLINT(readability-identifier-naming)
};

class ShimMatrixTOSKTest : public testing::Test {
protected:
    std::unique_ptr<ShimMatrixTOSK> load(std::string const& aText) {
        writeFile(path(), aText);
        return std::make_unique<ShimMatrixTOSK>(path());
    }
    auto loading(std::string const& aText) {
        return [this, aText] { load(aText); };
    }
    std::string path() const { return (mDirectory.path() / "matrix.dat").string(); }

    /// Loads a text that must be refused: with this exception, and with one urgent line in the log.
    void expectRefused(std::string const& aText,
                       std::string const& aException,
                       Severity aSeverity,
                       std::string const& aLogWords) {
        LogCapture const log;
        EXPECT_THAT(loading(aText), ThrowsMessage<std::runtime_error>(StrEq(aException))) << aText;
        EXPECT_THAT(log.linesUpTo(Severity::Warning), ElementsAre(CapturedLine{aSeverity, aLogWords, {}, {}}))
            << aText;
    }

    TemporaryDirectory mDirectory;
};

/// The coils that one gradient makes.
ublas::vector<double> coilsOf(ShimMatrixTOSK& aMatrix, std::string const& aName, int aValue) {
    ShimGradientsTOSK gradients;
    gradients.set(aName, aValue);
    return aMatrix.gradientsToCoils(&gradients);
}

// --- the arithmetic

TEST_F(ShimMatrixTOSKTest, MultipliesTheRowOfGradientsByTheMatrix) {
    // Z and Z2 on coils 0 and 2
    auto const matrix = load("F 1 1 0.5 F 1 3 2 F 2 1 -0.25 V 1 1 V 2 1 E");
    ShimGradientsTOSK gradients;
    gradients.set("Z", 10);
    gradients.set("Z2", 4);
    auto const coils = matrix->gradientsToCoils(&gradients);
    ASSERT_EQ(coils.size(), 40U);
    EXPECT_EQ(coils(0), 4.0); // 10 * 0.5 + 4 * -0.25
    EXPECT_EQ(coils(1), 0.0);
    EXPECT_EQ(coils(2), 20.0);         // 10 * 2
    EXPECT_EQ(gradients.get("Z"), 10); // unchanged
}

TEST_F(ShimMatrixTOSKTest, TruncatesTheWeightedGradientTowardZero) {
    auto const matrix = load("F 1 1 1 V 1 0.5 E");
    EXPECT_EQ(coilsOf(*matrix, "Z", 3)(0), 1.0);   // 3 * 0.5 = 1.5 becomes 1, not 2
    EXPECT_EQ(coilsOf(*matrix, "Z", -3)(0), -1.0); // and -1.5 becomes -1
}

TEST_F(ShimMatrixTOSKTest, CountsTheUnnamedSlotInTheSum) {
    auto const matrix = load("F 40 40 3 V 40 0 E"); // a named weight may not stand there, so its weight is 0
    ShimGradientsTOSK gradients;
    gradients.getVector()(39) = 5;
    EXPECT_EQ(matrix->gradientsToCoils(&gradients)(39), 0.0); // (int)(5 * 0.0) * 3

    // An infinite element times that 0 is no number: the slot does take part.
    auto const infinite = load("F 40 40 inf E");
    EXPECT_TRUE(std::isnan(infinite->gradientsToCoils(&gradients)(39)));
}

TEST_F(ShimMatrixTOSKTest, StopsAWeightedGradientAtTheEndsOf32Bits) {
    auto const matrix = load("F 1 1 1 V 1 1e10 V 2 nan F 2 2 1 E");
    EXPECT_EQ(coilsOf(*matrix, "Z", 1)(0), 2147483647.0);
    EXPECT_EQ(coilsOf(*matrix, "Z", -1)(0), -2147483648.0);
    EXPECT_EQ(coilsOf(*matrix, "Z2", 1)(1), 0.0);
}

TEST_F(ShimMatrixTOSKTest, RoundsOnTheWayBackAndDividesByTheWeight) {
    // gradients 0 and 1 from coils 0 and 1
    auto const matrix = load("I 1 1 1 I 2 1 0.5 I 1 2 -1 V 1 2 V 2 1 E");
    ublas::vector<double> coils(40, 0.0);
    coils(0) = 2.5;
    coils(1) = 1.0;
    ShimGradientsTOSK gradients;
    matrix->coilsToGradients(&coils, &gradients);
    EXPECT_EQ(gradients.get("Z"), 2);   // (2.5 * 1 + 1 * 0.5) / 2 = 1.5
    EXPECT_EQ(gradients.get("Z2"), -3); // -2.5, halves away from zero
}

TEST_F(ShimMatrixTOSKTest, GivesZeroForWhatIsNotFinite) {
    // Z has no weight: 5/0 is infinite; Z2 neither, and 0/0 is no number; Z3 meets an infinite element
    auto const matrix = load("I 1 1 1 I 1 3 inf V 3 1 E");
    ublas::vector<double> coils(40, 0.0);
    coils(0) = 5.0;
    ShimGradientsTOSK gradients;
    for (int& value : gradients.getVector()) {
        value = 77;
    }
    matrix->coilsToGradients(&coils, &gradients);
    EXPECT_TRUE(gradients.areAllZeros());
}

TEST_F(ShimMatrixTOSKTest, StopsAGradientAtTheEndsOf32Bits) {
    auto const matrix = load("I 1 1 1e300 I 1 2 -1e300 V 1 1 V 2 1 E");
    ublas::vector<double> coils(40, 0.0);
    coils(0) = 1.0;
    ShimGradientsTOSK gradients;
    matrix->coilsToGradients(&coils, &gradients);
    EXPECT_EQ(gradients.get("Z"), 2147483647);
    EXPECT_EQ(gradients.get("Z2"), -2147483647 - 1);
}

TEST_F(ShimMatrixTOSKTest, ChecksIndexesInTheShippedBuildToo) {
    auto const matrix = load("E");
    ublas::vector<double> tooShort(39, 0.0);
    ShimGradientsTOSK gradients;
    EXPECT_THAT([&] { matrix->coilsToGradients(&tooShort, &gradients); },
                ThrowsMessage<std::out_of_range>(StrEq("bad index")));
    EXPECT_THAT([&] { (void)gradients.getVector()(40); },
                ThrowsMessage<std::out_of_range>(StrEq("bad index")));
    ublas::matrix<double> square(40, 40);
    EXPECT_THAT([&] { (void)square(0, 40); }, ThrowsMessage<std::out_of_range>(StrEq("bad index")));
    EXPECT_THAT([&] { (void)square(40, 0); }, ThrowsMessage<std::out_of_range>(StrEq("bad index")));
}

TEST_F(ShimMatrixTOSKTest, TracesTheWayToTheCoilsAndBack) {
    auto const matrix = load("I 1 1 1 V 1 1 E");
    LogCapture const log;
    ShimGradientsTOSK gradients;
    auto coils = matrix->gradientsToCoils(&gradients);
    coils(0) = 1.75;
    matrix->coilsToGradients(&coils, &gradients);
    auto const lines = log.linesOf("ShimMatrixTOSK");
    // both entries, one line for the one finite value, and one for each of the 40 slots
    ASSERT_EQ(lines.size(), 43U);
    EXPECT_EQ(lines[0], (CapturedLine{Severity::Trace, "+gradientsToCoils", {}, {}}));
    EXPECT_EQ(lines[1], (CapturedLine{Severity::Trace, "+coilsToGradients", {}, {}}));
    EXPECT_EQ(lines[2], (CapturedLine{Severity::Trace, "DEBUG toskCurreints(0) = 1.750000", {}, {}}));
    EXPECT_EQ(lines[3], (CapturedLine{Severity::Trace, "gradVector[0] = 2", {}, {}}));
    EXPECT_EQ(lines[4], (CapturedLine{Severity::Trace, "gradVector[1] = 0", {}, {}}));
    EXPECT_EQ(lines[42], (CapturedLine{Severity::Trace, "gradVector[39] = 0", {}, {}}));
}

/// The same sums in the plainest form.
RC_GTEST_PROP(ShimMatrixTOSKProperty, AgreesWithThePlainSumToTheLastBit, ()) {
    TemporaryDirectory const directory;
    std::string const path = (directory.path() / "m").string();
    double forward[40][40] = {};
    std::string text;
    for (int entry = 0; entry < 60; ++entry) {
        int const i = *rc::gen::inRange(0, 39);
        int const j = *rc::gen::inRange(0, 40);
        int const millionths = *rc::gen::inRange(-2000000, 2000000);
        forward[i][j] = std::stod(std::to_string(millionths) + "e-6");
        text += "F " + std::to_string(i + 1) + ' ' + std::to_string(j + 1) + ' ' +
                std::to_string(millionths) + "e-6\n";
    }
    for (int code = 0; code < 39; ++code) {
        text += "V " + std::to_string(code + 1) + " 1\n";
    }
    writeFile(path, text + "E\n");
    ShimMatrixTOSK matrix(path);
    ShimGradientsTOSK gradients;
    for (unsigned int code = 0; code < 39; ++code) {
        gradients.getVector()(code) = *rc::gen::inRange(-130000, 130000);
    }
    auto const coils = matrix.gradientsToCoils(&gradients);
    for (unsigned int j = 0; j < 40; ++j) {
        double sum = 0.0;
        for (unsigned int i = 0; i < 40; ++i) {
            sum += gradients.getVector()(i) * forward[i][j];
        }
        RC_ASSERT(coils(j) == sum);
    }
}

// --- the format

TEST_F(ShimMatrixTOSKTest, LoadsABareEnd) {
    auto const matrix = load("E");
    EXPECT_EQ(matrix->getNamesOfActiveShimGradients(), "");
    EXPECT_EQ(matrix->exportForwardAndInverse(), "");
    ShimGradientsTOSK gradients;
    for (int& value : gradients.getVector()) {
        value = 1000;
    }
    auto coils = matrix->gradientsToCoils(&gradients);
    ASSERT_EQ(coils.size(), 40U);
    EXPECT_THAT(coils, testing::Each(0.0));
    matrix->coilsToGradients(&coils, &gradients);
    EXPECT_TRUE(gradients.areAllZeros()); // 0.0 / 0.0 is not finite
}

TEST_F(ShimMatrixTOSKTest, ReadsTokensInAnyLayoutAndAnyOrder) {
    auto const matrix = load("V\t1\f1\r\n% a comment\nF\n1\n\n1 0.5 ;another\nI 1 1 2\nM 1 G name E");
    EXPECT_EQ(matrix->exportForwardAndInverse(), "F 1 1 0.5\nI 1 1 2\n");
}

TEST_F(ShimMatrixTOSKTest, IgnoresAllBehindTheEnd) {
    EXPECT_EQ(load("F 1 1 2 V 1 1 E F 1 1 nonsense % M M M")->exportForwardAndInverse(), "F 1 1 2\n");
}

TEST_F(ShimMatrixTOSKTest, ReadsAnUnknownWordAsThreeTags) {
    // 'f' and 'o' are no tags, and the I of "foI" begins an entry
    EXPECT_EQ(load("foI 1 1 2 V 1 1 E")->exportForwardAndInverse(), "I 1 1 2\n");
}

TEST_F(ShimMatrixTOSKTest, TakesTagsInUpperCaseOnly) {
    EXPECT_EQ(load("f 1 1 2 V 1 1 E")->exportForwardAndInverse(), "");
}

TEST_F(ShimMatrixTOSKTest, TakesBothGradientModes) {
    EXPECT_NO_THROW(load("M 1 G x E"));
    EXPECT_NO_THROW(load("M 1 U x E"));
    EXPECT_NO_THROW(load("M 1 G abcdefghijklmnopqrst E")); // the name of 20 characters is cut
    EXPECT_NO_THROW(load("M 12Gx E")); // no blank is demanded behind digits or a character
}

TEST_F(ShimMatrixTOSKTest, RefusesAnotherMode) {
    expectRefused("\nM 1 Q x E",
                  "TOSK file: specified mode is not gradient related but those are the only modes supported",
                  Severity::Error, "Line 2: mode is not gradient related, not supported");
}

TEST_F(ShimMatrixTOSKTest, RefusesAModeWithAMissingField) {
    for (std::string const text : {"M x G y E", "M 1", "M 1 G", "M"}) {
        expectRefused(text, "TOSK file: got an invalid mode entry", Severity::Error,
                      "Line 1: got an invalid mode entry");
    }
}

TEST_F(ShimMatrixTOSKTest, RefusesASecondMode) {
    expectRefused("M 1 G x\nM 1 G x\nE", "TOSK file: further mode entry found, only one is allowed",
                  Severity::Error, "Line 2: got a further mode entry, only one is allowed");
}

TEST_F(ShimMatrixTOSKTest, RefusesAForwardRelationWithABadField) {
    for (std::string const text : {"\n\nF -1 2 0.5 E", "\n\nF 1 x 0.5 E", "\n\nF%1 1 1 E", "\n\nF"}) {
        expectRefused(text, "TOSK file: forward relation entry is not valid", Severity::Error,
                      "Line 3: forward relation entry is not valid");
    }
}

TEST_F(ShimMatrixTOSKTest, RefusesAnInverseRelationWithABadField) {
    expectRefused("I 1 -1 0.5 E", "TOSK file: inverse relation entry is not valid", Severity::Error,
                  "Line 1: inverse relation entry is not valid");
}

TEST_F(ShimMatrixTOSKTest, RefusesAWeightWithABadField) {
    expectRefused("V x 0.5 E", "TOSK file: weight entry is not valid", Severity::Error,
                  "Line 1: weight entry is not valid");
}

TEST_F(ShimMatrixTOSKTest, RefusesAWeightOutsideTheSlots) {
    for (std::string const text : {"V 0 1 E", "V 41 1 E", "V 0 0 E", "V 4000000000 1 E"}) {
        expectRefused(text, "TOSK file: weight entry is not valid", Severity::Error,
                      "Line 1: weight entry is not valid");
    }
}

TEST_F(ShimMatrixTOSKTest, RefusesATextWithoutEnd) {
    for (std::string const text : {"", " \n", "% only comments\n", "% E", "* E\n;E\n", "F 1 1 0.5", "F 1 1",
                                   "V 1 1", "I 1 1 1\n", "M 1 G x", "x"}) {
        expectRefused(text, "Invalid TOSK file: ends but no E (end) entry found", Severity::Critical,
                      "TOSK file ends but no E (end) entry found");
    }
}

TEST_F(ShimMatrixTOSKTest, EndsTheTextAtAZeroByte) {
    expectRefused(std::string("V 1 1\0 E", 8), "Invalid TOSK file: ends but no E (end) entry found",
                  Severity::Critical, "TOSK file ends but no E (end) entry found");
}

TEST_F(ShimMatrixTOSKTest, CountsAFormFeedAsALineButNotACr) {
    expectRefused("\f\r\r\nV x", "TOSK file: weight entry is not valid", Severity::Error,
                  "Line 3: weight entry is not valid");
}

TEST_F(ShimMatrixTOSKTest, TakesAValueThatIsNoNumberForZero) {
    EXPECT_EQ(load("F 1 2 abc V 1 1 E")->exportForwardAndInverse(), "");
}

TEST_F(ShimMatrixTOSKTest, RefusesIndexesBeyondTheMatrixOnlyWhenItIsFilled) {
    for (std::string const text :
         {"F 41 1 0.5 E", "F 1 41 0.5 E", "F 0 1 0.5 E", "F 1 0 0.5 E", "I 41 1 0.5 E", "I 1 0 0.5 E",
          "F 4294967295 1 1 E", "F 2147483648 1 1 E"}) {
        LogCapture const log;
        EXPECT_THAT(loading(text), ThrowsMessage<std::out_of_range>(StrEq("bad index"))) << text;
        EXPECT_THAT(log.linesUpTo(Severity::Warning), IsEmpty());
    }
    // the parser has passed it: a later failure of the text comes first
    EXPECT_THAT(loading("F 41 1 0.5"), ThrowsMessage<std::runtime_error>(
                                           StrEq("Invalid TOSK file: ends but no E (end) entry found")));
}

TEST_F(ShimMatrixTOSKTest, KeepsTheLastOfDuplicates) {
    EXPECT_EQ(load("F 1 1 1 F 1 1 2 I 1 1 3 I 1 1 4 V 1 9 V 1 1 E")->exportForwardAndInverse(),
              "F 1 1 2\nI 1 1 4\n");
}

TEST_F(ShimMatrixTOSKTest, ReadsPointsInNumbersWhateverTheLanguage) {
    std::locale const before =
        std::locale::global(std::locale(std::locale::classic(), new Comma)); // the locale owns its facet
    std::string const text = load("F 1 1 1234.5 V 1 1 E")->exportForwardAndInverse();
    std::locale::global(before);
    EXPECT_EQ(text, "F 1 1 1234.5\n");
}

// --- names and export

TEST_F(ShimMatrixTOSKTest, ListsTheGradientsWithAWeightInTheFilesOrder) {
    LogCapture const log;
    auto const matrix = load("V 39 1 V 2 0.5 V 1 -1 E");
    EXPECT_EQ(matrix->getNamesOfActiveShimGradients(), "Z0 Z2 Z");
    EXPECT_TRUE(log.has(Severity::Trace, "Translated code 38 into Z0"));
    EXPECT_TRUE(log.has(Severity::Trace, "Translated code 1 into Z2"));
    EXPECT_TRUE(log.has(Severity::Trace, "computeActiveShimGradientsString returns Z0 Z2 Z"));
    EXPECT_TRUE(log.has(Severity::Trace, "+getNamesOfActiveShimGradients"));
}

TEST_F(ShimMatrixTOSKTest, LeavesABlankBehindTheNamesWhenTheLastEntryHasNoWeight) {
    EXPECT_EQ(load("V 1 1 V 2 0 E")->getNamesOfActiveShimGradients(), "Z ");
    EXPECT_EQ(load("V 1 0 V 2 1 E")->getNamesOfActiveShimGradients(), "Z2");
    EXPECT_EQ(load("V 1 nan V 2 1 E")->getNamesOfActiveShimGradients(), "Z2");
}

TEST_F(ShimMatrixTOSKTest, TakesAWeightOfEpsilonForNone) {
    EXPECT_EQ(load("V 1 2.220446049250313e-16 V 2 1 E")->getNamesOfActiveShimGradients(), "Z2");
    EXPECT_EQ(load("V 1 2.3e-16 V 2 1 E")->getNamesOfActiveShimGradients(), "Z Z2");
}

TEST_F(ShimMatrixTOSKTest, SaysWhenThereAreNoWeights) {
    LogCapture const log;
    load("E");
    EXPECT_TRUE(log.has(Severity::Trace, "sensitivity vector is empty"));
    EXPECT_EQ(log.count(Severity::Trace, "computeActiveShimGradientsString returns "), 0U);
}

TEST_F(ShimMatrixTOSKTest, RefusesAWeightOfTheUnnamedSlot) {
    EXPECT_THAT(loading("V 40 1 E"),
                ThrowsMessage<std::invalid_argument>(StrEq("There is no such TOSK gradient code: 39")));
    EXPECT_NO_THROW(load("V 40 0 E"));
}

TEST_F(ShimMatrixTOSKTest, ExportsRowsWithTheWeightsFoldedIn) {
    // F(0,*) times 4; I(*,0) divided by 4; Z2 has no weight, so its column of I becomes 0 and so does its row
    // of F
    auto const matrix = load("F 1 2 0.5 F 1 1 -1 F 2 1 7 I 3 1 2 I 3 2 5 V 1 4 E");
    EXPECT_EQ(matrix->exportForwardAndInverse(), "F 1 1 -4\nF 1 2 2\nI 3 1 0.5\n");
}

TEST_F(ShimMatrixTOSKTest, ExportsElevenDigits) {
    auto const matrix = load("F 1 1 0.333333333333333 F 1 2 123456789012345 F 1 3 1e-16 F 1 4 -1e-5 V 1 1 E");
    EXPECT_EQ(matrix->exportForwardAndInverse(),
              "F 1 1 0.33333333333\nF 1 2 1.2345678901e+14\nF 1 4 -1e-05\n");
}

// --- files

TEST_F(ShimMatrixTOSKTest, TellsTheStepsOfLoading) {
    LogCapture const log;
    auto const matrix = load("V 1 1\nF 1 1 1 I 1 1 1\nM 1 G x\nQ E\n");
    auto const step = [](Severity aSeverity, std::string const& aText) {
        return CapturedLine{aSeverity, aText, {}, {}};
    };
    EXPECT_THAT(
        log.linesOf("ShimMatrixTOSK"),
        ElementsAre(step(Severity::Debug, "+loadFromFile(path='" + path() + "')"),
                    step(Severity::Debug, "+loadTextFile(toskFilePath='" + path() + "')"),
                    step(Severity::Trace, "-loadTextFile(toskFilePath='" + path() + "')"),
                    step(Severity::Trace, "Line 1: got tag V"),
                    step(Severity::Trace, "Line 1: got weight/sensitivity entry"),
                    step(Severity::Trace, "Line 2: got tag F"),
                    step(Severity::Trace, "Line 2: got forward relation entry"),
                    step(Severity::Trace, "Line 2: got tag I"),
                    step(Severity::Trace, "Line 2: got inverse relation entry"),
                    step(Severity::Trace, "Line 3: got tag M"),
                    step(Severity::Trace, "Line 3: got mode entry"),
                    step(Severity::Trace, "Line 4: got tag Q"),
                    step(Severity::Trace, "Line 5: got tag E"), // the tag takes the separators behind it
                    step(Severity::Trace, "Line 5: got end of file entry"),
                    step(Severity::Trace, "Translated code 0 into Z"),
                    step(Severity::Trace, "computeActiveShimGradientsString returns Z"),
                    step(Severity::Debug, "-loadFromFile(path='" + path() + "')")));
    EXPECT_EQ(log.lines().front().category, "Shim");
}

TEST_F(ShimMatrixTOSKTest, TellsThePathOfAFileThatIsNotThere) {
    LogCapture const log;
    std::string const missing = path() + ".missing";
    EXPECT_THAT([&] { ShimMatrixTOSK matrix(missing); },
                ThrowsMessage<std::invalid_argument>(StrEq("Could not open TOSK file #2 '" + missing + "'")));
    EXPECT_THAT(log.linesUpTo(Severity::Warning), IsEmpty());
}

TEST_F(ShimMatrixTOSKTest, RefusesAFolder) {
    LogCapture const log;
    std::string const folder = mDirectory.path().string();
    EXPECT_THAT([&] { ShimMatrixTOSK matrix(folder); },
                ThrowsMessage<std::invalid_argument>(StrEq("Could not open TOSK file '" + folder + "'")));
    auto const lines = log.linesUpTo(Severity::Warning);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].severity, Severity::Error);
    EXPECT_THAT(lines[0].text, testing::StartsWith("~loadTextFile(toskFilePath='" + folder +
                                                   "': failed to open file, exception = "));
}

TEST_F(ShimMatrixTOSKTest, RefusesAHugeFileWithoutReadingIt) {
    std::string const huge = path() + ".huge";
    std::ofstream(huge, std::ios::binary) << "E\n";
    std::filesystem::resize_file(huge, std::uintmax_t{1} << 40U); // A hole of a TiB.
    EXPECT_THAT([&] { ShimMatrixTOSK matrix(huge); },
                ThrowsMessage<std::invalid_argument>(StrEq("Could not open TOSK file '" + huge + "'")));
}

TEST_F(ShimMatrixTOSKTest, RefusesADeviceWithoutReadingFromIt) {
    EXPECT_THAT([] { ShimMatrixTOSK matrix("/dev/zero"); },
                ThrowsMessage<std::invalid_argument>(StrEq("Could not open TOSK file '/dev/zero'")));
}

} // namespace
