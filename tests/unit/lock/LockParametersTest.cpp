// SPDX-License-Identifier: Apache-2.0
// The lock's parameters: defaults, configuration files of all kinds over them, and computed sets.
#include "lock/LockParameters.h"

#include "lock/LockParametersPIDStaticSet.h"

#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/VirtualOrder.h"

#include <array>
#include <atomic>
#include <locale>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::expectOrder;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::row;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::ElementsAre;
using testing::HasSubstr;

/// A set's terms as they are written in the tests.
using Terms = std::array<double, 3>;

/// A line to be expected, whichever logger it comes from.
CapturedLine line(Severity aSeverity, std::string const& aText) {
    return {aSeverity, aText, {}, {}};
}

Terms termsOf(std::shared_ptr<LockParametersPIDSet> const& aSet) {
    return {aSet->p(), aSet->i(), aSet->d()};
}

std::shared_ptr<LockParametersPIDSet> makeSet(double aP, double aI, double aD) {
    return std::make_shared<LockParametersPIDStaticSet>(aP, aI, aD);
}

/// Numbers with a comma in them, as a host in Germany or France has them.
struct CommaNumbers : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

class LockParametersTest : public testing::Test {
protected:
    std::string path() const { return (mDirectory.path() / "lock.config").string(); }

    /// Reads a file as a lock start does.
    void reload(std::string const& aText) {
        writeFile(path(), aText);
        mLog.clear();
        mParameters.reload();
    }
    /// Reads a file that is refused.
    /// @return The words for the user.
    std::string refused(std::string const& aText) {
        try {
            reload(aText);
        } catch (std::runtime_error const& error) {
            return error.what();
        }
        ADD_FAILURE() << "accepted: " << aText;
        return {};
    }
    Terms slow() { return termsOf(mParameters.pidSetByID(LockPIDSetID::Slow)); }
    Terms fast() { return termsOf(mParameters.pidSetByID(LockPIDSetID::Fast)); }
    Terms normal() { return termsOf(mParameters.pidSetByID(LockPIDSetID::Normal)); }

    LogCapture mLog;
    TemporaryDirectory mDirectory;
    LockParameters mParameters{path()};
};

} // namespace

TEST(LockParametersOrder, OperationsStandInTheirPlaces) {
    using I = LockParametersInterface;
    using Set = std::shared_ptr<LockParametersPIDSet>;
    expectOrder<I>(
        28,
        {
            row<void()>("reload", &I::reload),
            row<unsigned int() const>("transmitAmplitude_mVpp", &I::transmitAmplitude_mVpp),
            row<std::uint16_t() const>("fftZerosPadding", &I::fftZerosPadding),
            row<std::string() const>("firmwareRootPath", &I::firmwareRootPath),
            row<unsigned int() const>("decimation", &I::decimation),
            row<double() const>("samplingFrequency", &I::samplingFrequency),
            row<unsigned int() const>("fftLength", &I::fftLength),
            row<double() const>("magnet1HFrequency", &I::magnet1HFrequency),
            row<void(double)>("setMagnet1HFrequency", &I::setMagnet1HFrequency),
            row<Set()>("currentPID", &I::currentPID),
            row<I::LockPIDSetID() const>("pidSetID", &I::pidSetID),
            row<void(I::LockPIDSetID)>("setPIDSetID", &I::setPIDSetID),
            row<Set()>("getToZeroPID", &I::getToZeroPID),
            row<Set(I::LockPIDSetID) const>("pidSetByID", &I::pidSetByID),
            row<double() const>("lockedThreshold", &I::lockedThreshold),
            row<double() const>("frequencyFactor1HTo19F", &I::frequencyFactor1HTo19F),
            row<double() const>("fredCoefficientOrder1", &I::fredCoefficientOrder1),
            row<double() const>("fredCoefficientOrder2", &I::fredCoefficientOrder2),
            row<std::uint8_t() const>("fredOutputShift", &I::fredOutputShift),
            row<std::string() const>("pathRootLogs", &I::pathRootLogs),
            row<double() const>("dacOutOfRangeWarningThreshold", &I::dacOutOfRangeWarningThreshold),
            row<double() const>("dacOutOfRangeWarningRearmThreshold", &I::dacOutOfRangeWarningRearmThreshold),
            row<Set() const>("lockToShimCoilTargetTemperaturePID", &I::lockToShimCoilTargetTemperaturePID),
            row<double() const>("lockToShimCoilTargetTemperatureFeedForwardSlope",
                                &I::lockToShimCoilTargetTemperatureFeedForwardSlope),
            row<double() const>("lockToShimCoilTargetTemperatureFeedForwardOffset",
                                &I::lockToShimCoilTargetTemperatureFeedForwardOffset),
            row<double() const>("intermediateFrequencyInHz", &I::intermediateFrequencyInHz),
            row<bool() const>("useComputedPIDThreshold", &I::useComputedPIDThreshold),
            row<void(double, Set, Set, Set)>("setComputedPIDThreshold", &I::setComputedPIDThreshold),
        });
    using S = LockParametersPIDSet;
    expectOrder<S>(3, {row<double() const>("p", &S::p), row<double() const>("d", &S::d),
                       row<double() const>("i", &S::i)});
}

TEST_F(LockParametersTest, HasItsNumbersBeforeAnyFileIsRead) {
    writeFile(path(), "[threshold]\nlocked = 1\n[global]\nuseComputed = 0\n");
    LockParameters const fresh(path());
    EXPECT_EQ(fresh.transmitAmplitude_mVpp(), 100U);
    EXPECT_EQ(fresh.fftZerosPadding(), 64529);
    EXPECT_EQ(fresh.firmwareRootPath(), "/usr/share/firmware/Q47Lock");
    EXPECT_EQ(fresh.decimation(), 2048U);
    EXPECT_EQ(fresh.samplingFrequency(), 68571428.0);
    EXPECT_EQ(fresh.fftLength(), 65536U);
    EXPECT_EQ(fresh.magnet1HFrequency(), 0.0);
    EXPECT_EQ(fresh.pidSetID(), LockPIDSetID::Normal);
    EXPECT_EQ(fresh.lockedThreshold(), 4800000.0);
    EXPECT_EQ(fresh.frequencyFactor1HTo19F(), 0.9407841);
    EXPECT_EQ(fresh.fredCoefficientOrder1(), 0.0);
    EXPECT_EQ(fresh.fredCoefficientOrder2(), 0.0);
    EXPECT_EQ(fresh.fredOutputShift(), 0);
    EXPECT_EQ(fresh.pathRootLogs(), "/var/log/q47lock");
    EXPECT_EQ(fresh.dacOutOfRangeWarningThreshold(), 0.9);
    EXPECT_EQ(fresh.dacOutOfRangeWarningRearmThreshold(), 0.85);
    EXPECT_EQ(termsOf(fresh.lockToShimCoilTargetTemperaturePID()), (Terms{0.0, 0.0, 0.0}));
    EXPECT_EQ(fresh.lockToShimCoilTargetTemperatureFeedForwardSlope(), 0.0);
    EXPECT_EQ(fresh.lockToShimCoilTargetTemperatureFeedForwardOffset(), 0.0);
    EXPECT_EQ(fresh.intermediateFrequencyInHz(), 17142857.14285714); // 120 MHz / 7
    EXPECT_TRUE(fresh.useComputedPIDThreshold());
    EXPECT_EQ(termsOf(fresh.pidSetByID(LockPIDSetID::Slow)), (Terms{0.0, -200.0, 0.0}));
    EXPECT_EQ(termsOf(fresh.pidSetByID(LockPIDSetID::Fast)), (Terms{-200.0, -1200.0, 0.0}));
    EXPECT_EQ(termsOf(fresh.pidSetByID(LockPIDSetID::Normal)), (Terms{0.0, -400.0, 0.0}));
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{0.0, -400.0, 0.0}));
    EXPECT_EQ(termsOf(mParameters.getToZeroPID()), (Terms{50.0, 500.0, 0.0}));
}

TEST_F(LockParametersTest, GoesOnWithTheDefaultsWithoutAFile) {
    mParameters.reload();
    EXPECT_THAT(mLog.lines(), ElementsAre(line(Severity::Info, "+overrideFromFile(path='" + path() + "')"),
                                          line(Severity::Warning,
                                               "Could not open the configuration file, will not "
                                               "override parameters")));
    EXPECT_EQ(mLog.lines().front().name, "LockParameters");
    EXPECT_EQ(mLog.lines().front().category, "Lock");
    EXPECT_TRUE(mParameters.useComputedPIDThreshold());
    mParameters.setComputedPIDThreshold(3100000.0, makeSet(0, -3, 0), makeSet(0, -2, 0), makeSet(0, -1, 0));
    EXPECT_EQ(mParameters.lockedThreshold(), 3100000.0);
}

TEST_F(LockParametersTest, TakesEveryKeyFromTheFileAndTellsEach) {
    reload(
        "[pid.normal]\np = 1.5\ni = -2.5\nd = 0.25\n"
        "[pid.slow]\np = 2\ni = -3\nd = 4\n"
        "[pid.fast]\np = 5\ni = -6\nd = 7\n"
        "[global]\nuseComputed = 0\n"
        "[factors]\n1HTo19F = 0.5\n"
        "[fred]\norder1 = 0.25\norder2 = -0.125\noutputShift = 31\n"
        "[threshold]\nlocked = 1000\n"
        "[shimCoilTargetTemperature]\np = 8\ni = 9\nd = 10\nffOffset = 0.5\nffSlope = -0.75\n");
    EXPECT_THAT(
        mLog.lines(),
        ElementsAre(
            line(Severity::Info, "+overrideFromFile(path='" + path() + "')"),
            line(Severity::Info, "Overriden normal PID with p = 1.500000, i = -2.500000, d = 0.250000"),
            line(Severity::Info, "Overriden slow PID with p = 2.000000, i = -3.000000, d = 4.000000"),
            line(Severity::Info, "Overriden fast PID with p = 5.000000, i = -6.000000, d = 7.000000"),
            line(Severity::Info, "Use computed PID/Threshold flag overriden with value 0"),
            line(Severity::Info, "Frequency factor 1H to 19F overriden with value 0.50000000000000000"),
            line(Severity::Info, "FRED coefficient order 1 overriden with value 0.25000000000000000"),
            line(Severity::Info, "FRED coefficient order 2 overriden with value -0.12500000000000000"),
            line(Severity::Info, "FRED output shift overriden with value 31"),
            line(Severity::Info, "Locked threshold overriden with value 1000.000000"),
            line(Severity::Info,
                 "Overriden shimCoilTargetTemperature PID with p = 8.000000, i = 9.000000, d = 10.000000"),
            line(Severity::Info, "Shim coil target temperature feed forward offset is 0.500000"),
            line(Severity::Info, "Shim coil target temperature feed forward slope is -0.750000")));
    EXPECT_EQ(normal(), (Terms{1.5, -2.5, 0.25}));
    EXPECT_EQ(slow(), (Terms{2.0, -3.0, 4.0}));
    EXPECT_EQ(fast(), (Terms{5.0, -6.0, 7.0}));
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{1.5, -2.5, 0.25}));
    EXPECT_FALSE(mParameters.useComputedPIDThreshold());
    EXPECT_EQ(mParameters.frequencyFactor1HTo19F(), 0.5);
    EXPECT_EQ(mParameters.fredCoefficientOrder1(), 0.25);
    EXPECT_EQ(mParameters.fredCoefficientOrder2(), -0.125);
    EXPECT_EQ(mParameters.fredOutputShift(), 31);
    EXPECT_EQ(mParameters.lockedThreshold(), 1000.0);
    EXPECT_EQ(termsOf(mParameters.lockToShimCoilTargetTemperaturePID()), (Terms{8.0, 9.0, 10.0}));
    EXPECT_EQ(mParameters.lockToShimCoilTargetTemperatureFeedForwardOffset(), 0.5);
    EXPECT_EQ(mParameters.lockToShimCoilTargetTemperatureFeedForwardSlope(), -0.75);
    EXPECT_EQ(termsOf(mParameters.getToZeroPID()), (Terms{50.0, 500.0, 0.0})); // has no key
}

TEST_F(LockParametersTest, TellsWhichSetsTheFileDoesNotHave) {
    reload("");
    EXPECT_THAT(mLog.lines(),
                ElementsAre(line(Severity::Info, "+overrideFromFile(path='" + path() + "')"),
                            line(Severity::Debug, "No PID defined in config file for PID set normal"),
                            line(Severity::Debug, "No PID defined in config file for PID set slow"),
                            line(Severity::Debug, "No PID defined in config file for PID set fast"),
                            line(Severity::Debug,
                                 "No PID defined in config file for PID set shimCoilTargetTemperature")));
}

TEST_F(LockParametersTest, UsesTheThresholdOfTheFileWhenComputedOnesAreNotUsed) {
    reload("[global]\nuseComputed = 0\n[threshold]\nlocked = 1000\n");
    EXPECT_EQ(mParameters.lockedThreshold(), 1000.0);
    mLog.clear();
    mParameters.setComputedPIDThreshold(3100000.0, makeSet(0, -3, 0), makeSet(0, -2, 0), makeSet(0, -1, 0));
    EXPECT_THAT(mLog.lines(), ElementsAre(line(Severity::Warning,
                                               "setComputedPIDThreshold: ignored, as mUseComputed is 0")));
    EXPECT_EQ(mParameters.lockedThreshold(), 1000.0);
    EXPECT_EQ(normal(), (Terms{0.0, -400.0, 0.0}));
}

TEST_F(LockParametersTest, KeepsTheFilesThresholdAsideWhileComputedOnesAreUsed) {
    reload("[threshold]\nlocked = 1000\n");
    EXPECT_EQ(mParameters.lockedThreshold(), 4800000.0); // what was computed; nothing yet
}

TEST_F(LockParametersTest, TakesComputedSetsForOneRunOfTheLock) {
    mParameters.setComputedPIDThreshold(3100000.0, makeSet(0.0, -7500.0, 0.0), makeSet(0.0, -11250.0, 0.0),
                                        makeSet(0.0, -5000.0, 0.0));
    EXPECT_THAT(
        mLog.lines(),
        ElementsAre(line(Severity::Info,
                         "setComputedPIDThreshold(threshold = 3100000.000000, normal PID = (0.000000, "
                         "-7500.000000, 0.000000), fast PID = (0.000000, -11250.000000, 0.000000), "
                         "slow PID = (0.000000, -5000.000000, 0.000000)")));
    EXPECT_EQ(normal(), (Terms{0.0, -7500.0, 0.0}));
    EXPECT_EQ(fast(), (Terms{0.0, -11250.0, 0.0}));
    EXPECT_EQ(slow(), (Terms{0.0, -5000.0, 0.0}));
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{0.0, -7500.0, 0.0}));
    EXPECT_EQ(mParameters.lockedThreshold(), 3100000.0);

    mParameters.reload();
    EXPECT_EQ(normal(), (Terms{0.0, -400.0, 0.0}));
    EXPECT_EQ(fast(), (Terms{-200.0, -1200.0, 0.0}));
    EXPECT_EQ(slow(), (Terms{0.0, -200.0, 0.0}));
    EXPECT_EQ(mParameters.lockedThreshold(), 3100000.0); // the computed threshold stays, as intended
}

TEST_F(LockParametersTest, KeepsTheChosenSetUntilAFileIsReadWhole) {
    mParameters.setComputedPIDThreshold(1.0, makeSet(0, -3, 0), makeSet(0, -2, 0), makeSet(0, -1, 0));
    mParameters.reload(); // without a file the choice is not made anew
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{0.0, -3.0, 0.0}));
    reload("");
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{0.0, -400.0, 0.0}));
}

TEST_F(LockParametersTest, RemembersWhatIsNotResetWhenItsKeyIsTakenOut) {
    reload(
        "[fred]\norder1 = 0.5\norder2 = 0.25\noutputShift = 3\n[factors]\n1HTo19F = 0.9\n"
        "[threshold]\nlocked = 7\n[global]\nuseComputed = no\n"
        "[shimCoilTargetTemperature]\np = 1\ni = 2\nd = 3\nffOffset = 4\nffSlope = 5\n");
    mParameters.setMagnet1HFrequency(79996000.0);
    mParameters.setPIDSetID(LockPIDSetID::Fast);
    reload("[fred]\norder2 = 0.125\n");
    EXPECT_EQ(mParameters.fredCoefficientOrder1(), 0.5);
    EXPECT_EQ(mParameters.fredCoefficientOrder2(), 0.125);
    EXPECT_EQ(mParameters.fredOutputShift(), 3);
    EXPECT_EQ(mParameters.magnet1HFrequency(), 79996000.0);
    EXPECT_EQ(mParameters.pidSetID(), LockPIDSetID::Fast);
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{-200.0, -1200.0, 0.0}));
    // All else is back at its default.
    EXPECT_EQ(mParameters.frequencyFactor1HTo19F(), 0.9407841);
    EXPECT_TRUE(mParameters.useComputedPIDThreshold());
    EXPECT_EQ(termsOf(mParameters.lockToShimCoilTargetTemperaturePID()), (Terms{0.0, 0.0, 0.0}));
    EXPECT_EQ(mParameters.lockToShimCoilTargetTemperatureFeedForwardOffset(), 0.0);
    EXPECT_EQ(mParameters.lockToShimCoilTargetTemperatureFeedForwardSlope(), 0.0);
    reload("[global]\nuseComputed = 0\n");
    EXPECT_EQ(mParameters.lockedThreshold(), 4800000.0); // the default again, not 7
}

TEST_F(LockParametersTest, RefusesAFredShiftAboveFiveBits) {
    EXPECT_EQ(refused("[fred]\noutputShift = 32\norder1 = 0.5\n[threshold]\nlocked = 7\n"
                      "[global]\nuseComputed = 0\n"),
              "Could not process the lock configuration file.\n"
              "Error was Invalid value for lock parameter fred.outputShift");
    EXPECT_THAT(
        mLog.linesUpTo(Severity::Error),
        ElementsAre(line(Severity::Error,
                         "Invalid value for fred.outputShift. Got 32 but must be within 0 and 31 "
                         "included."),
                    line(Severity::Error, "Could not process the lock configuration file at '" + path() +
                                              "' because Invalid value for lock parameter "
                                              "fred.outputShift")));
    // What stands ahead of it in the order of reading is stored, what stands behind is not.
    EXPECT_EQ(mParameters.fredCoefficientOrder1(), 0.5);
    EXPECT_FALSE(mParameters.useComputedPIDThreshold());
    EXPECT_EQ(mParameters.fredOutputShift(), 0);
    EXPECT_EQ(mParameters.lockedThreshold(), 4800000.0);
}

TEST_F(LockParametersTest, TellsANegativeFredShiftAsItStandsInTheFile) {
    EXPECT_THAT(refused("[fred]\noutputShift = -1\n"), HasSubstr("lock parameter fred.outputShift"));
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Invalid value for fred.outputShift. Got -1 but must be within 0 "
                         "and 31 included."));
}

TEST_F(LockParametersTest, RefusesAFileWithAnIncompleteSet) {
    EXPECT_EQ(refused("[pid.slow]\np = 1\n"),
              "Could not process the lock configuration file.\n"
              "Error was The slow PID set is not complete. You need to define P, I and D values for it.");
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "An incomplete PID set has been provided for slow: p defined = 1, "
                         "i defined = 0, d defined = 0"));
    EXPECT_EQ(slow(), (Terms{0.0, -200.0, 0.0}));
}

TEST_F(LockParametersTest, RefusesEveryIncompleteSet) {
    for (std::string const set : {"pid.normal", "pid.slow", "pid.fast", "shimCoilTargetTemperature"}) {
        for (std::string const terms : {"p=1", "i=1", "d=1", "p=1\ni=1", "p=1\nd=1", "i=1\nd=1"}) {
            std::string const words = refused(fmt::format("[{}]\n{}\n", set, terms));
            EXPECT_THAT(words, HasSubstr(" PID set is not complete. You need to define P, I and D values"))
                << set << ' ' << terms;
        }
    }
}

TEST_F(LockParametersTest, IgnoresKeysThatItDoesNotKnow) {
    reload("stray = 1\n[fred]\norder3 = what\n[pid.quick]\np = 1\n# a remark\n");
    EXPECT_TRUE(mLog.linesUpTo(Severity::Warning).empty());
    EXPECT_EQ(normal(), (Terms{0.0, -400.0, 0.0}));
}

TEST_F(LockParametersTest, RefusesValuesThatAreNoNumbers) {
    for (std::string const key :
         {"[pid.normal]\ni", "[pid.slow]\np", "[pid.fast]\nd", "[factors]\n1HTo19F", "[fred]\norder1",
          "[fred]\norder2", "[threshold]\nlocked", "[shimCoilTargetTemperature]\nffSlope",
          "[shimCoilTargetTemperature]\nffOffset"}) {
        for (std::string const value :
             {"", "abc", "1,5", "1.5x", "1 2", "1e999", "0x10", "nan", "inf", "+-1", "--1", "+"}) {
            EXPECT_THAT(refused(fmt::format("{} = {}\n", key, value)), HasSubstr("\nError was "))
                << key << value;
        }
    }
}

TEST_F(LockParametersTest, RefusesFredShiftsThatAreNoNumbers) {
    for (std::string const value : {"", "x", "1.5", "1e1", "99999999999", "-99999999999",
                                    "123456789012345678901234567890", "4294967296"}) {
        EXPECT_THAT(refused("[fred]\noutputShift = " + value + "\n"), HasSubstr("fred.outputShift"));
        EXPECT_EQ(mParameters.fredOutputShift(), 0) << value;
    }
}

TEST_F(LockParametersTest, NamesKeyAndValueOfWhatItCannotRead) {
    EXPECT_EQ(refused("[threshold]\nlocked = much\n"),
              "Could not process the lock configuration file.\n"
              "Error was the argument ('much') for option 'threshold.locked' is invalid");
}

TEST_F(LockParametersTest, ReadsTheWordsForYesAndNo) {
    for (std::string const word : {"0", "no", "off", "false", "FALSE"}) {
        reload("[global]\nuseComputed = " + word + "\n");
        EXPECT_FALSE(mParameters.useComputedPIDThreshold()) << word;
    }
    for (std::string const word : {"1", "yes", "on", "true", "True"}) {
        reload("[global]\nuseComputed = " + word + "\n");
        EXPECT_TRUE(mParameters.useComputedPIDThreshold()) << word;
    }
    EXPECT_THAT(refused("[global]\nuseComputed = maybe\n"), HasSubstr("global.useComputed"));
}

TEST_F(LockParametersTest, ReadsNumbersInAllTheirForms) {
    reload("[threshold]\nlocked = +1.5e3\n[global]\nuseComputed=0\n");
    EXPECT_EQ(mParameters.lockedThreshold(), 1500.0);
    reload("threshold.locked = .25\nglobal.useComputed = 0\r\n");
    EXPECT_EQ(mParameters.lockedThreshold(), 0.25);
    reload("[threshold]\n\tlocked\t=\t-7\t# a remark\n[fred]\noutputShift = +4\n[global]\nuseComputed=0\n");
    EXPECT_EQ(mParameters.lockedThreshold(), -7.0);
    EXPECT_EQ(mParameters.fredOutputShift(), 4);
}

TEST_F(LockParametersTest, ReadsThePointInNumbersWhateverTheHostsLanguage) {
    std::locale const former = std::locale::global(std::locale(std::locale::classic(), new CommaNumbers()));
    reload("[threshold]\nlocked = 1234.5\n[global]\nuseComputed = 0\n[fred]\noutputShift = 12\n");
    std::locale::global(former);
    EXPECT_EQ(mParameters.lockedThreshold(), 1234.5);
    EXPECT_EQ(mParameters.fredOutputShift(), 12);
}

TEST_F(LockParametersTest, RefusesLinesThatAreNoLines) {
    EXPECT_THAT(refused("[threshold]\nlocked 1000\n"), HasSubstr("locked 1000"));
    EXPECT_THAT(refused("[threshold\nlocked = 1\n"), HasSubstr("\nError was "));
    EXPECT_THAT(refused({0x7F, 'E', 'L', 'F', 1, 0, 2, '\n', 0x1A, 0, 3}), HasSubstr("\nError was "));
}

TEST_F(LockParametersTest, RefusesAKeyThatStandsTwice) {
    EXPECT_THAT(refused("[threshold]\nlocked = 1\nlocked = 2\n"), HasSubstr("threshold.locked"));
}

// Boost's own placeholders, put into its words again and again, would never come to an end.
TEST_F(LockParametersTest, RefusesAPlaceholderOfItsParser) {
    EXPECT_THAT(refused("[fred]\norder1 = 0.25%value%\n"),
                HasSubstr("contains an invalid line 'order1 = 0.25%value%'"));
    EXPECT_THAT(refused("%invalid_line%\n"), HasSubstr("contains an invalid line '%invalid_line%'"));
    EXPECT_THAT(refused("[threshold]\nlocked = %canonical_option%"), HasSubstr("an invalid line"));
}

TEST_F(LockParametersTest, TakesAnyCommentAndAnyOtherPerCentSign) {
    reload("[threshold]\nlocked = 7 # %value% is 90 %\n[global]\nuseComputed = 0\n[mine]\nnote = 90 %\n");
    EXPECT_EQ(mParameters.lockedThreshold(), 7.0);
}

TEST_F(LockParametersTest, RefusesAFolderInTheFilesPlace) {
    ASSERT_EQ(mkdir(path().c_str(), 0700), 0);
    EXPECT_THROW(mParameters.reload(), std::runtime_error);
    EXPECT_TRUE(mLog.has(Severity::Error, "Could not process the lock configuration file at '" + path() +
                                              "' because the file cannot be read"));
}

TEST_F(LockParametersTest, ReadsAMendedFile) {
    refused("[threshold]\nlocked = broken\n");
    reload("[threshold]\nlocked = 5\n[global]\nuseComputed = 0\n");
    EXPECT_EQ(mParameters.lockedThreshold(), 5.0);
}

TEST_F(LockParametersTest, ChoosesASetByItsNumber) {
    mParameters.setPIDSetID(LockPIDSetID::Slow);
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{0.0, -200.0, 0.0}));
    mParameters.setPIDSetID(LockPIDSetID::Fast);
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{-200.0, -1200.0, 0.0}));
    mParameters.setPIDSetID(LockPIDSetID::Normal);
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{0.0, -400.0, 0.0}));
}

TEST_F(LockParametersTest, StoresAnUnknownNumberAndThenRefusesIt) {
    try {
        mParameters.setPIDSetID(static_cast<LockPIDSetID>(3));
        FAIL() << "accepted";
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(), "Unknown lock PID set");
    }
    EXPECT_EQ(mParameters.pidSetID(), static_cast<LockPIDSetID>(3));
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{0.0, -400.0, 0.0})); // the former set
    EXPECT_THAT(refused(""), HasSubstr("Error was Unknown lock PID set"));   // and the next start tells it
}

TEST_F(LockParametersTest, DoesNotKnowASetOfAnotherNumber) {
    try {
        (void)mParameters.pidSetByID(static_cast<LockPIDSetID>(-1));
        FAIL() << "accepted";
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(), "Unknown LockPIDSetID");
    }
    EXPECT_THAT(mLog.lines(),
                ElementsAre(line(Severity::Error, "LockParameters::pidSetByID(id = -1): unknown id")));
}

TEST_F(LockParametersTest, LetsAReaderKeepTheSetThatItHolds) {
    auto const held = mParameters.currentPID();
    mParameters.setComputedPIDThreshold(1.0, makeSet(0, -3, 0), makeSet(0, -2, 0), makeSet(0, -1, 0));
    EXPECT_EQ(termsOf(held), (Terms{0.0, -400.0, 0.0}));
}

TEST_F(LockParametersTest, ServesSeveralThreadsAtATime) {
    writeFile(path(), "[fred]\norder1 = 0.5\n[pid.fast]\np = 1\ni = 2\nd = 3\n");
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            EXPECT_GE(mParameters.lockedThreshold(), 3000000.0);
            EXPECT_EQ(mParameters.currentPID()->d() * 0.0, 0.0);
            (void)mParameters.pidSetByID(LockPIDSetID::Fast);
            (void)mParameters.magnet1HFrequency();
        }
    });
    std::thread caller([&] {
        for (int round = 0; round < 200; ++round) {
            mParameters.setPIDSetID(round % 2 == 0 ? LockPIDSetID::Fast : LockPIDSetID::Slow);
            mParameters.setMagnet1HFrequency(round);
        }
    });
    for (int round = 0; round < 50; ++round) {
        mParameters.reload();
        mParameters.setComputedPIDThreshold(3000000.0 + round, makeSet(0, -3, 0), makeSet(0, -2, 0),
                                            makeSet(0, -1, 0));
    }
    caller.join();
    done = true;
    reader.join();
    EXPECT_EQ(mParameters.lockedThreshold(), 3000049.0);
    EXPECT_EQ(termsOf(mParameters.currentPID()), (Terms{0.0, -1.0, 0.0})); // slow was the last choice
}
