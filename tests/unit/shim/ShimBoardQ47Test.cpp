// SPDX-License-Identifier: Apache-2.0
// One shim board against a scripted dictionary: every access in its order, every line of the log, every
// failure.
#include "ShimBoardFixture.h"

#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestNode.h"

#include <velmor/kepla/canopen/CanLinkError.h>
#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>

#include <chrono>
#include <limits>
#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::currents;
using libfieldwarden::test::expectThrow;
using libfieldwarden::test::FakeCanOpenNode;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::line;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::makeShimNode;
using libfieldwarden::test::makeSilentMaster;
using libfieldwarden::test::readFile;
using libfieldwarden::test::readingAll;
using libfieldwarden::test::ScriptedShimBoard;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writing;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

using Push = FakeDataLogger::Push;

class ShimBoardQ47Test : public testing::Test {
protected:
    ShimBoardQ47Test() { mLog.clear(); }

    /// The board with its number of sources known, so that a test sees only what it asks for.
    void know() {
        EXPECT_EQ(mBoard->getCurrentSourcesCount(), 17U);
        mNode->takeCalls();
        mLog.clear();
    }
    std::vector<CapturedLine> lines() const { return mLog.linesOf("ShimBoardQ47(canID = 8)"); }

    HandClockScope mClock;
    LogCapture mLog;
    std::shared_ptr<FakeCanOpenNode> mNode = makeShimNode(8);
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> mMaster = makeSilentMaster();
    std::unique_ptr<ScriptedShimBoard> mBoard =
        std::make_unique<ScriptedShimBoard>(mNode, mMaster, mDataLogger, mCallers);
};

// ---------------------------------------------------------------------------------------------- life cycle

TEST_F(ShimBoardQ47Test, SpeaksUnderItsCanIdInTheShimCategory) {
    ScriptedShimBoard const other(makeShimNode(9), mMaster, mDataLogger, mCallers);
    auto const all = mLog.linesOf("ShimBoardQ47(canID = 9)");
    ASSERT_THAT(all, ElementsAre(line(Severity::Trace, "~ShimBoardQ47 constructor")));
    EXPECT_EQ(all.front().category, "Shim");
}

TEST_F(ShimBoardQ47Test, DoesNotTalkToTheBoardWhenItIsMadeNorWhenItGoes) {
    EXPECT_THAT(mNode->takeCalls(), IsEmpty());
    mBoard.reset();
    EXPECT_THAT(mNode->takeCalls(), IsEmpty());
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "~ShimBoardQ47 destructor")));
}

TEST_F(ShimBoardQ47Test, NeedsAMaster) {
    EXPECT_THROW(ScriptedShimBoard(mNode, nullptr, mDataLogger, mCallers), std::invalid_argument);
}

// ----------------------------------------------------------------------------------------- number of sources

TEST_F(ShimBoardQ47Test, AsksForTheNumberOfSourcesOnlyOnce) {
    EXPECT_EQ(mBoard->getCurrentSourcesCount(), 17U);
    mNode->set(0x3000, 0, 5);
    EXPECT_EQ(mBoard->getCurrentSourcesCount(), 17U);
    EXPECT_THAT(mNode->takeCalls(), ElementsAre("readUInt16 3000:00"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace,
                                          "~getCurrentSourcesCount: not read yet, asking the hardware"),
                                     line(Severity::Info, "~getCurrentSourcesCount: read 17 from hardware")));
}

TEST_F(ShimBoardQ47Test, KeepsTheLowEightBitsOfTheNumberOfSources) {
    mNode->set(0x3000, 0, 0x0203);
    EXPECT_EQ(mBoard->getCurrentSourcesCount(), 3U);
}

TEST_F(ShimBoardQ47Test, AsksAgainForANumberOfSourcesThatCouldNotBeRead) {
    mNode->fail(0x3000, 0, "node 8 does not answer", 1);
    expectThrow<std::runtime_error>([&] { mBoard->getCurrentSourcesCount(); }, "node 8 does not answer");
    EXPECT_EQ(mBoard->getCurrentSourcesCount(), 17U);
}

// ----------------------------------------------------------------------------------------------- one current

TEST_F(ShimBoardQ47Test, ReadsTheCurrentOfASource) {
    know();
    mNode->set(0x3000, 17, -123456);
    EXPECT_EQ(mBoard->getShimCurrent(17), -123456);
    EXPECT_THAT(mNode->takeCalls(), ElementsAre("readInt32 3000:11"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "+getShimCurrent(sourceIndex = 17)"),
                                     line(Severity::Info, "-getShimCurrent(sourceIndex = 17) = -123456")));
}

TEST_F(ShimBoardQ47Test, GivesAnErrorCodeOfOneSourceAsItComes) {
    mNode->set(0x3000, 3, 10000123);
    EXPECT_EQ(mBoard->getShimCurrent(3), 10000123);
}

TEST_F(ShimBoardQ47Test, RefusesASourceBelowTheFirstWithoutAskingTheBoard) {
    for (int const index : {0, -1, std::numeric_limits<int>::min()}) {
        mLog.clear();
        expectThrow<std::invalid_argument>([&] { mBoard->getShimCurrent(index); },
                                           "Invalid shim current source index");
        auto const number = std::to_string(index);
        EXPECT_THAT(lines(),
                    ElementsAre(line(Severity::Trace, "+getShimCurrent(sourceIndex = " + number + ")"),
                                line(Severity::Error,
                                     "-getShimCurrent(sourceIndex = " + number + "): invalid source index")));
    }
    EXPECT_THAT(mNode->takeCalls(), IsEmpty());
}

TEST_F(ShimBoardQ47Test, RefusesASourceBehindTheLast) {
    expectThrow<std::invalid_argument>([&] { mBoard->getShimCurrent(18); },
                                       "Invalid shim current source index");
    EXPECT_THAT(mNode->takeCalls(), ElementsAre("readUInt16 3000:00"));
    EXPECT_TRUE(mLog.has(Severity::Error, "-getShimCurrent(sourceIndex = 18): invalid source index"));
}

// ---------------------------------------------------------------------------------------------- all currents

TEST_F(ShimBoardQ47Test, ReadsAllCurrentsInTheOrderOfTheSources) {
    mNode->set(0x3000, 0, 3);
    mNode->set(0x3000, 1, 1000);
    mNode->set(0x3000, 2, -2000);
    mNode->set(0x3000, 3, 9999999);
    std::vector<int> read{7, 7, 7, 7, 7}; // too long, and with old values
    mBoard->getShimCurrents(read);
    EXPECT_THAT(read, ElementsAre(1000, -2000, 9999999));
    EXPECT_THAT(mNode->takeCalls(), ElementsAre("readUInt16 3000:00", "readInt32 3000:01",
                                                "readInt32 3000:02", "readInt32 3000:03"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "+getShimCurrents"),
                                     line(Severity::Trace,
                                          "~getCurrentSourcesCount: not read yet, asking the hardware"),
                                     line(Severity::Info, "~getCurrentSourcesCount: read 3 from hardware"),
                                     line(Severity::Info, "~getShimCurrents: shim[1] = 1000 uA"),
                                     line(Severity::Info, "~getShimCurrents: shim[2] = -2000 uA"),
                                     line(Severity::Info, "~getShimCurrents: shim[3] = 9999999 uA"),
                                     line(Severity::Trace, "-getShimCurrents")));
}

TEST_F(ShimBoardQ47Test, PassesTheWordsOfTheBusOnAndGoesOnAfterwards) {
    using velmor::kepla::canopen::CanLinkError;
    know();
    mNode->set(0x3000, 5, 55);
    std::vector<int> read;
    for (std::string const words : {"node 8, 0x3000:05: no answer in time", "node 8, 0x3000:05: aborted",
                                    "node 8, 0x3000:05: 8 bytes where 4 were wanted"}) {
        mNode->fail(0x3000, 5, words, 1);
        expectThrow<std::runtime_error>([&] { mBoard->getShimCurrents(read); }, words);
        mBoard->getShimCurrents(read);
        EXPECT_EQ(read[4], 55);
    }
    mNode->onAccess(0x3000, 5, [] { throw CanLinkError(CanLinkError::Reason::BusOff, "can0 is bus-off"); });
    expectThrow<CanLinkError>([&] { mBoard->getShimCurrents(read); }, "can0 is bus-off");
    mNode->onAccess(0x3000, 5, {});
    EXPECT_EQ(mBoard->getShimCurrent(5), 55);
}

TEST_F(ShimBoardQ47Test, ZeroesTheElementBehindASourceThatReportsAnError) {
    mNode->set(0x3000, 0, 3);
    mNode->set(0x3000, 1, 10000123);
    mNode->set(0x3000, 2, 500);
    mNode->set(0x3000, 3, 600);
    std::vector<int> read;
    mBoard->getShimCurrents(read);
    EXPECT_THAT(read, ElementsAre(10000123, 0, 600));
    EXPECT_TRUE(mLog.has(
        Severity::Critical,
        "getShimCurrents: shim[1] = 10000123uA which is an error code. Consider it is set to zero."));
    EXPECT_TRUE(mLog.has(Severity::Info, "~getShimCurrents: shim[2] = 0 uA"));
}

TEST_F(ShimBoardQ47Test, HidesTheErrorOfASourceBehindAnotherOneWithAnError) {
    mNode->set(0x3000, 0, 3);
    mNode->set(0x3000, 1, 10000123);
    mNode->set(0x3000, 2, 10000124);
    mNode->set(0x3000, 3, 600);
    std::vector<int> read;
    mBoard->getShimCurrents(read);
    EXPECT_THAT(read, ElementsAre(10000123, 0, 600)); // zeroed before its own turn
}

TEST_F(ShimBoardQ47Test, ZeroesNothingBehindTheLastSource) {
    mNode->set(0x3000, 17, 10000001);
    std::vector<int> read;
    mBoard->getShimCurrents(read);
    auto expected = currents({});
    expected.back() = 10000001;
    EXPECT_EQ(read, expected);
}

TEST_F(ShimBoardQ47Test, TakesTenMillionForAnErrorWhenReading) {
    mNode->set(0x3000, 4, 10000000);
    std::vector<int> read;
    mBoard->getShimCurrents(read);
    EXPECT_TRUE(mLog.has(
        Severity::Critical,
        "getShimCurrents: shim[4] = 10000000uA which is an error code. Consider it is set to zero."));
}

// ---------------------------------------------------------------------------------------------- setting them

TEST_F(ShimBoardQ47Test, WritesAllCurrentsInOneBlockAndReadsThemBack) {
    auto const wanted = currents({1, -1, 1000000, -1000000});
    mBoard->setShimCurrents(wanted);
    EXPECT_THAT(
        mNode->takeCalls(),
        ElementsAreArray(readingAll({"readUInt16 3000:00",
                                     // 1 000 000 = 0x000F4240, -1 000 000 = 0xFFF0BDC0, low byte first
                                     "writeBlock 3001:01 01000000FFFFFFFF40420F00C0BDF0FF"
                                     "00000000000000000000000000000000"
                                     "00000000000000000000000000000000"
                                     "00000000000000000000000000000000"
                                     "00000000"})));
    auto const all = lines();
    ASSERT_THAT(all, SizeIs(41));
    EXPECT_EQ(all[0], (line(Severity::Trace, "+setShimCurrents(currents.size() = 17")));
    EXPECT_EQ(all[3], (line(Severity::Info, "~setShimCurrents: shim[0] = 1 uA")));
    EXPECT_EQ(all[6], (line(Severity::Info, "~setShimCurrents: shim[3] = -1000000 uA")));
    EXPECT_EQ(all[19], (line(Severity::Info, "~setShimCurrents: shim[16] = 0 uA")));
    EXPECT_EQ(all[20], (line(Severity::Trace, "+readBackShimCurrents")));
    EXPECT_EQ(all[21], (line(Severity::Trace, "+getShimCurrents")));
    EXPECT_EQ(all[22], (line(Severity::Info, "~getShimCurrents: shim[1] = 1 uA")));
    EXPECT_EQ(all[39], (line(Severity::Trace, "-getShimCurrents")));
    EXPECT_EQ(all[40], (line(Severity::Trace, "-setShimCurrents")));
}

TEST_F(ShimBoardQ47Test, RefusesAnotherNumberOfCurrentsWithoutBusTrafficButForTheFirstCount) {
    auto const set = [&] { mBoard->setShimCurrents({1, 2, 3}); };
    expectThrow<std::invalid_argument>(set, "Got 3 shim values but needs 17");
    EXPECT_THAT(mNode->takeCalls(), ElementsAre("readUInt16 3000:00"));
    EXPECT_TRUE(mLog.has(Severity::Error, "~setShimCurrents: currents.size() = 3 but has 17 sources"));

    expectThrow<std::invalid_argument>(set, "Got 3 shim values but needs 17");
    EXPECT_THAT(mNode->takeCalls(), IsEmpty());
}

TEST_F(ShimBoardQ47Test, TellsOfAFailedWriteWhenTheReadBackIsFine) {
    know();
    mNode->fail(0x3001, 1, "node 8: transfer aborted", 1);
    expectThrow<std::runtime_error>(
        [&] {
            mBoard->setShimCurrents(currents({1, -1}));
        },
        "node 8: transfer aborted"); // 1 uA of difference is none
    EXPECT_THAT(mNode->takeCalls(), ElementsAreArray(readingAll({writing(currents({1, -1}))})));
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning),
                ElementsAre(line(Severity::Error,
                                 "setShimCurrents: SDO upload failed with node 8: transfer aborted")));
    EXPECT_FALSE(mLog.has(Severity::Trace, "-setShimCurrents"));

    mBoard->setShimCurrents(currents({1000})); // and goes on
    EXPECT_EQ(mNode->number(0x3000, 1), 1000);
}

TEST_F(ShimBoardQ47Test, KeepsTheTypeOfAFailedWrite) {
    using velmor::kepla::canopen::CanLinkError;
    mNode->onAccess(0x3001, 1, [] { throw CanLinkError(CanLinkError::Reason::BusOff, "can0 is bus-off"); });
    EXPECT_THROW(mBoard->setShimCurrents(currents({})), CanLinkError);
}

TEST_F(ShimBoardQ47Test, TellsWhatTheReadBackFoundInPlaceOfAFailedWrite) {
    mNode->fail(0x3001, 1, "node 8: transfer aborted", 1);
    expectThrow<std::runtime_error>([&] { mBoard->setShimCurrents(currents({1000})); },
                                    "Source 1 value has a difference of -1000uA to requested value\n");
}

TEST_F(ShimBoardQ47Test, TellsThatTheReadBackFailedInPlaceOfAFailedWrite) {
    know();
    mNode->fail(0x3001, 1, "node 8: transfer aborted", 1);
    mNode->fail(0x3000, 2, "node 8 does not answer", 1);
    expectThrow<std::runtime_error>([&] { mBoard->setShimCurrents(currents({1000})); },
                                    "node 8 does not answer");
    EXPECT_THAT(mNode->takeCalls(),
                ElementsAre(writing(currents({1000})), "readInt32 3000:01", "readInt32 3000:02"));
    EXPECT_TRUE(
        mLog.has(Severity::Error, "setShimCurrents: SDO upload failed with node 8: transfer aborted"));

    mBoard->setShimCurrents(currents({1000})); // and goes on
    EXPECT_EQ(mNode->number(0x3000, 1), 1000);
}

TEST_F(ShimBoardQ47Test, TellsOfABoardThatResetsBetweenWriteAndReadBack) {
    mNode->onAccess(0x3000, 1, [&] { // the first read finds it with all currents gone
        for (std::uint8_t source = 1; source <= 17; ++source) {
            mNode->set(0x3000, source, 0);
        }
    });
    expectThrow<std::runtime_error>(
        [&] {
            mBoard->setShimCurrents(currents({0, 300, -400}));
        },
        "Source 2 value has a difference of -300uA to requested value\n"
        "Source 3 value has a difference of 400uA to requested value\n");
    mNode->onAccess(0x3000, 1, {});
    mBoard->setShimCurrents(currents({0, 300, -400}));
    EXPECT_EQ(mNode->number(0x3000, 3), -400);
}

// ------------------------------------------------------------------------------------------------- read back

TEST_F(ShimBoardQ47Test, LetsADifferenceOfOneMicroampereBe) {
    mNode->set(0x3000, 1, 1001);
    mNode->set(0x3000, 2, 999);
    mBoard->readBackShimCurrents(currents({1000, 1000}));
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), IsEmpty());
}

TEST_F(ShimBoardQ47Test, TellsOfEachDifferenceFromTwoMicroamperes) {
    mNode->set(0x3000, 1, 1002);
    mNode->set(0x3000, 2, 998);
    mNode->set(0x3000, 17, 2);
    std::string const words =
        "Source 1 value has a difference of 2uA to requested value\n"
        "Source 2 value has a difference of -2uA to requested value\n"
        "Source 17 value has a difference of 2uA to requested value\n";
    expectThrow<std::runtime_error>([&] { mBoard->readBackShimCurrents(currents({1000, 1000})); }, words);
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), ElementsAre(line(Severity::Error, words)));
}

TEST_F(ShimBoardQ47Test, TellsOfAnErrorCodeAndOfTheElementThatItZeroed) {
    mNode->set(0x3000, 3, 10000123);
    mNode->set(0x3000, 4, 700);
    expectThrow<std::runtime_error>(
        [&] {
            mBoard->readBackShimCurrents(currents({0, 0, 50, 700}));
        },
        "Error code 123 on source 3\n"
        "Source 4 value has a difference of -700uA to requested value\n");
    // Where 0 was asked for, the zeroed element is as it should be.
    expectThrow<std::runtime_error>(
        [&] {
            mBoard->readBackShimCurrents(currents({0, 0, 50, 0}));
        },
        "Error code 123 on source 3\n");
}

TEST_F(ShimBoardQ47Test, ComparesTenMillionAsACurrent) {
    mNode->set(0x3000, 17, 10000000);
    auto wanted = currents({});
    expectThrow<std::runtime_error>([&] { mBoard->readBackShimCurrents(wanted); },
                                    "Source 17 value has a difference of 10000000uA to requested value\n");
    wanted.back() = 10000000;
    mBoard->readBackShimCurrents(wanted);
}

TEST_F(ShimBoardQ47Test, TellsADifferenceBeyondThirtyTwoBits) {
    mNode->set(0x3000, 1, -2147483648);
    // -2147483648 - 2147483647
    expectThrow<std::runtime_error>([&] { mBoard->readBackShimCurrents(currents({2147483647})); },
                                    "Source 1 value has a difference of -4294967295uA to requested value\n");
}

TEST_F(ShimBoardQ47Test, RefusesToCompareWithAnotherNumberOfCurrents) {
    expectThrow<std::runtime_error>(
        [&] {
            mBoard->readBackShimCurrents({1, 2});
        },
        "Mismatch in number of shim currents that have been read back");
    EXPECT_TRUE(mLog.has(Severity::Critical, "Read back 17l shim currents but expected 2l"));
}

// ---------------------------------------------------------------------------------------------- temperatures

TEST_F(ShimBoardQ47Test, GivesTemperaturesInKelvin) {
    mNode->set(0x3002, 1, 25000);
    mNode->set(0x3002, 5, -500);
    EXPECT_DOUBLE_EQ(mBoard->temperature(1), 298.15); // 25.000 + 273.15
    EXPECT_DOUBLE_EQ(mBoard->temperature(5), 272.65); // -0.500 + 273.15
    EXPECT_THAT(mNode->takeCalls(), ElementsAre("readInt32 3002:01", "readInt32 3002:05"));
}

TEST_F(ShimBoardQ47Test, RefusesASensorThatItDoesNotHave) {
    for (int const id : {0, 6, 255}) {
        expectThrow<std::invalid_argument>([&] { mBoard->temperature(static_cast<unsigned char>(id)); },
                                           "Shim board temperature sensor ID must be between 1 and 5");
    }
    EXPECT_THAT(mNode->takeCalls(), IsEmpty());
}

TEST_F(ShimBoardQ47Test, PushesAllTemperaturesWithTheSystemTime) {
    for (std::uint8_t sensor = 1; sensor <= 5; ++sensor) {
        mNode->set(0x3002, sensor, std::int64_t{sensor} * 10000);
    }
    mClock->advance(90s);
    mBoard->readTemperatures();
    auto const now = mClock->systemNow();
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/temperature/dacs_upper"), ElementsAre(Push{283.15, now}));
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/temperature/dacs_bottom"), ElementsAre(Push{293.15, now}));
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/temperature/heatsink_bottom"),
                ElementsAre(Push{303.15, now}));
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/temperature/heatsink_middle"),
                ElementsAre(Push{313.15, now}));
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/temperature/heatsink_upper"),
                ElementsAre(Push{323.15, now}));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "+readTemperatures")));
}

TEST_F(ShimBoardQ47Test, GoesOnBehindASensorThatCannotBeRead) {
    mNode->fail(0x3002, 2, "node 8 does not answer", 1);
    mBoard->readTemperatures();
    EXPECT_THAT(
        lines(),
        ElementsAre(
            line(Severity::Trace, "+readTemperatures"),
            line(Severity::Warning,
                 "Could not read temperature sensor 1. Error: node 8 does not answer"))); // counted from 0
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/temperature/dacs_upper"), SizeIs(1));
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/temperature/dacs_bottom"), IsEmpty());
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/temperature/heatsink_upper"), SizeIs(1));
}

// ------------------------------------------------------------------------------------------------- the hooks

TEST_F(ShimBoardQ47Test, ReadsTemperaturesOnceAMinuteFromPrepareToShutdown) {
    mBoard->afterPrepare();
    auto jobs = mCallers->jobs();
    ASSERT_THAT(jobs, SizeIs(1));
    EXPECT_EQ(jobs[0]->periodSeconds, 60.0);
    EXPECT_THAT(mNode->takeCalls(),
                ElementsAre("readUInt8 3004:01")); // no temperature before the first minute
    jobs[0]->call();
    EXPECT_THAT(mNode->takeCalls(), ElementsAre("readInt32 3002:01", "readInt32 3002:02", "readInt32 3002:03",
                                                "readInt32 3002:04", "readInt32 3002:05"));
    jobs.clear();

    mBoard->beforeShutdown();
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
    EXPECT_THAT(mNode->takeCalls(), IsEmpty());
}

TEST_F(ShimBoardQ47Test, KeepsOneTemperatureJobHoweverOftenItIsPrepared) {
    mBoard->afterPrepare();
    mBoard->afterPrepare();
    EXPECT_THAT(mCallers->jobs(), SizeIs(1));
}

TEST_F(ShimBoardQ47Test, EndsTheTemperatureJobWhenItGoes) {
    mBoard->afterPrepare();
    mBoard.reset();
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
}

TEST_F(ShimBoardQ47Test, PushesTheCalibrationStatusOnceItIsPrepared) {
    mNode->set(0x3004, 1, 129);
    mBoard->afterPrepare();
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/calibration_offset"),
                ElementsAre(Push{129.0, mClock->systemNow()}));
    EXPECT_EQ(mBoard->calibrationOffset(), 129U);
    EXPECT_THAT(mNode->takeCalls(), ElementsAre("readUInt8 3004:01", "readUInt8 3004:01"));
}

TEST_F(ShimBoardQ47Test, PassesAFailureToReadTheCalibrationOn) {
    mNode->fail(0x3004, 1, "node 8 does not answer", 1);
    expectThrow<std::runtime_error>([&] { mBoard->afterPrepare(); }, "node 8 does not answer");
    mBoard->afterPrepare();
    EXPECT_THAT(mDataLogger->pushes("shimboard/8/calibration_offset"), SizeIs(1));
}

// ------------------------------------------------------------------------------------------- firmware update

TEST_F(ShimBoardQ47Test, RestoresItsCurrentsAfterAFirmwareUpdate) {
    mNode->set(0x3000, 2, 4242);
    mBoard->preFirmwareUpdate(true);
    EXPECT_THAT(mNode->takeCalls(), ElementsAreArray(readingAll({"readUInt16 3000:00"})));
    mNode->set(0x3000, 2, 0); // the new firmware begins without currents
    mBoard->postFirmwareUpdate();
    EXPECT_THAT(mNode->takeCalls(), ElementsAreArray(readingAll({writing(currents({0, 4242}))})));
    EXPECT_EQ(mNode->number(0x3000, 2), 4242);
}

TEST_F(ShimBoardQ47Test, RestoresNothingThatItDidNotSave) {
    mBoard->preFirmwareUpdate(false);
    mBoard->postFirmwareUpdate();
    EXPECT_THAT(mNode->takeCalls(), IsEmpty());
}

TEST_F(ShimBoardQ47Test, RestoresTheSameCurrentsAgainAfterASecondUpdateOfAStoppedBoard) {
    mNode->set(0x3000, 1, 55);
    mBoard->preFirmwareUpdate(true);
    mBoard->postFirmwareUpdate();
    mNode->takeCalls();
    mBoard->preFirmwareUpdate(false); // what was saved is not forgotten
    mBoard->postFirmwareUpdate();
    EXPECT_THAT(mNode->takeCalls(), ElementsAreArray(readingAll({writing(currents({55}))})));
}

TEST_F(ShimBoardQ47Test, PassesOnThatItCannotSaveItsCurrents) {
    mNode->fail(0x3000, 5, "node 8 does not answer");
    expectThrow<std::runtime_error>([&] { mBoard->preFirmwareUpdate(true); }, "node 8 does not answer");
}

TEST_F(ShimBoardQ47Test, OnlyLogsThatItCannotRestoreItsCurrents) {
    mBoard->preFirmwareUpdate(true);
    mNode->fail(0x3001, 1, "node 8: transfer aborted", 1);
    mBoard->postFirmwareUpdate();
    EXPECT_TRUE(mLog.has(Severity::Critical,
                         "Failed to restore the shim currents after a firmware update. "
                         "Reason was: node 8: transfer aborted"));
}

// -------------------------------------------------------------------------------------------- data logger

TEST_F(ShimBoardQ47Test, DescribesItsChannelsInTheOrderOfTheSensors) {
    using velmor::kepla::datalogger::DataLoggerStats;
    constexpr auto kKelvin = velmor::kepla::datalogger::DataLoggerUnit{1};
    constexpr auto kPlain = velmor::kepla::datalogger::DataLoggerUnit{16};
    constexpr auto kShort = velmor::kepla::datalogger::DataLoggerStorageType{1};
    constexpr auto kLong = velmor::kepla::datalogger::DataLoggerStorageType{2};
    constexpr double kSmallest = std::numeric_limits<double>::min();
    constexpr double kLargest = std::numeric_limits<double>::max();
    auto const temperature = [&](std::string const& aName, std::string const& aDescription) {
        return FakeDataLogger::Info({"shimboard", "8", "temperature", aName}, kKelvin,
                                    DataLoggerStats(kLong, 600s), kShort, aDescription, 0us, kSmallest,
                                    kLargest, kSmallest, kLargest, {}, true, 0.001, 0.0, 1.0, false);
    };
    EXPECT_EQ(mDataLogger->infos(),
              (std::vector{
                  temperature("dacs_upper", "Temperature at DACs onboard area 1 (upper part of board)"),
                  temperature("dacs_bottom", "Temperature at DACs onboard area 1 (lower part of board)"),
                  temperature("heatsink_bottom", "Temperature at lower part of board's heatsink"),
                  temperature("heatsink_middle", "Temperature at middle part of board's heatsink"),
                  temperature("heatsink_upper", "Temperature at upper part of board's heatsink"),
                  FakeDataLogger::Info(
                      {"shimboard", "8", "calibration_offset"}, kPlain, DataLoggerStats::none(), kShort,
                      "CanOpen index 0x3004 sub index 1. < 128 -> not calibrated or EEPROM read "
                      "error. > 128 means calibrated and data successfully read from EEPROM.",
                      0us, kSmallest, kLargest, kSmallest, kLargest, {}, true, 0.001, 0.0, 1.0, false),
              }));
}

// ------------------------------------------------------------------------------------------------------ dump

/// The dictionary that the golden file shows.
void fillForTheDump(FakeCanOpenNode& aNode) {
    auto const numbers = [&](std::uint16_t aIndex, std::uint8_t aFirst,
                             std::vector<std::int64_t> const& aValues) {
        for (std::int64_t const value : aValues) {
            aNode.set(aIndex, aFirst++, value);
        }
    };
    numbers(0x1018, 0, {4, 81, 4718, 65539, 20230227});
    numbers(0x1200, 0, {2, 1544, 1416});
    numbers(0x1800, 0, {5, 392, 255});
    numbers(0x1A00, 0, {1, 4294967295});
    numbers(0x1F50, 0, {1});
    numbers(0x1F51, 0, {1, 1});
    numbers(0x1F55, 0, {1, 42});
    numbers(0x1F56, 0, {1, 1187});
    numbers(0x1F57, 0, {1, 0});
    numbers(0x2000, 0, {5, 101, 102, 103, 104, 105});
    numbers(0x200A, 0, {1, 7});
    numbers(0x200B, 0, {1});
    aNode.set(0x200B, 1, "Q47_SHIM");
    numbers(0x200C, 0, {4, 201, 202, 203, 204});
    numbers(0x200D, 0, {2});
    aNode.set(0x200D, 1, "built on the 24th of May");
    aNode.set(0x200D, 2, "");
    numbers(0x2100, 0, {4, 3, 2, 1, 255});
    numbers(0x3000, 0,
            {17, 1000, -2000, 3000, -4000, 5000, -6000, 7000, -8000, 9000, -10000, 11000, -12000, 13000,
             -14000, 15000, -16000, 10000123});
    numbers(0x3001, 0, {1});
    aNode.fail(0x3001, 1, "node 8: 0x3001:01 cannot be read");
    numbers(0x3002, 0, {5, 25000, 25100, 41000, 42000, -500});
    numbers(0x3003, 0, {1, 65535});
    numbers(0x3004, 0, {1, 200});
}

TEST_F(ShimBoardQ47Test, DumpsItsDictionaryToAFileOfItsCanId) {
    TemporaryDirectory const directory;
    fillForTheDump(*mNode);
    mBoard->dumpCANopenValues(directory.path().string());
    EXPECT_EQ(readFile(directory.path() / "canopen_shim_8.dump"),
              readFile(SHIM_GOLDEN "/canopen_shim_8.dump"));
    EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(ShimBoardQ47Test, DumpsEachObjectByTheOperationOfItsType) {
    TemporaryDirectory const directory;
    fillForTheDump(*mNode);
    mBoard->dumpCANopenValues(directory.path().string());
    auto const calls = mNode->takeCalls();
    ASSERT_THAT(calls, SizeIs(75));
    EXPECT_EQ(calls[0], "readUInt8 1018:00");
    EXPECT_EQ(calls[1], "readUInt32 1018:01");
    EXPECT_THAT(calls, Contains("readUInt8 1800:02"));
    EXPECT_THAT(calls, Contains("readUInt32 1F51:01"));
    EXPECT_THAT(calls, Contains("readString 200B:01"));
    EXPECT_THAT(calls, Contains("readString 200D:02"));
    EXPECT_THAT(calls, Contains("readUInt8 2100:04"));
    EXPECT_THAT(calls, Contains("readUInt8 3000:00")); // 8 bits here
    EXPECT_THAT(calls, Contains("readInt32 3000:11"));
    EXPECT_THAT(calls, Contains("readInt32 3001:01")); // the block that is written
    EXPECT_THAT(calls, Contains("readInt32 3002:05"));
    EXPECT_THAT(calls, Contains("readUInt16 3003:01"));
    EXPECT_EQ(calls[73], "readUInt8 3004:00");
    EXPECT_EQ(calls[74], "readUInt8 3004:01");
}

TEST_F(ShimBoardQ47Test, DumpsSeventeenSourcesWhateverNumberTheBoardReports) {
    TemporaryDirectory const directory;
    fillForTheDump(*mNode);
    mNode->set(0x3000, 0, 3);
    mBoard->dumpCANopenValues(directory.path().string());
    EXPECT_THAT(mNode->takeCalls(), Contains("readInt32 3000:11"));
}

TEST_F(ShimBoardQ47Test, DumpsAWholeFileOfFailuresWhenTheBoardIsSilent) {
    TemporaryDirectory const directory;
    fillForTheDump(*mNode);
    std::string expected;
    std::istringstream golden(readFile(SHIM_GOLDEN "/canopen_shim_8.dump"));
    for (std::string line; std::getline(golden, line);) {
        if (!line.empty()) {
            auto const index = static_cast<std::uint16_t>(std::stoul(line.substr(0, 6), nullptr, 16));
            auto const subindex = static_cast<std::uint8_t>(std::stoul(line.substr(7, 4), nullptr, 16));
            mNode->fail(index, subindex, "node 8 does not answer");
            line = line.substr(0, 12) + "reading the value failed with node 8 does not answer";
        }
        expected += line + "\n";
    }
    mBoard->dumpCANopenValues(directory.path().string());
    EXPECT_EQ(readFile(directory.path() / "canopen_shim_8.dump"), expected);
}

TEST_F(ShimBoardQ47Test, OnlyLogsThatItCannotDump) {
    TemporaryDirectory const directory;
    auto const missing = (directory.path() / "missing").string();
    mBoard->dumpCANopenValues(missing);
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Error,
                                          "Failed to dump CanOpen values with 'cannot open " + missing +
                                              "/canopen_shim_8.dump: No such file or directory'")));
    EXPECT_THAT(mNode->takeCalls(), IsEmpty());
}

TEST(ShimBoardQ47OnTheBus, LooksForItsFirmwareInTheFolderOfTheFirmware) {
    HandClockScope const clock;
    TemporaryDirectory const folder;
    auto const path = [&](char const* aFile) { return (folder.path() / aFile).string(); };
    velmor::kepla::canopen::InProcessBus bus;
    auto const master = std::make_shared<velmor::kepla::canopen::CanOpenMaster>(bus.open("can0"), 1);
    libfieldwarden::test::TestNode node(bus, 8);
    node.set32({0x1000, 0}, 0x00020192);
    node.set8({0x1F51, 1}, 1);
    node.set32({0x1F56, 1}, 123);
    node.set32({0x1F57, 1}, 0);
    node.setText({0x200B, 1}, "Q47-SHIM");
    ShimBoardQ47 board(master, 8, folder.path().string(), std::make_shared<FakeDataLogger>(),
                       std::make_shared<FakePeriodicCallers>(), nullptr);
    libfieldwarden::test::writeFile(path("build.info"), "jenkins_build_id=124\n"); // another one is stored
    try {
        board.prepare();
        ADD_FAILURE() << "nothing was thrown";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("'" + path("Q47_Shim_CAN_update.bin.gz") + "'"));
    }
}

} // namespace
