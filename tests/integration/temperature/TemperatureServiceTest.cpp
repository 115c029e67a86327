// SPDX-License-Identifier: Apache-2.0
// The temperature service on the simulated board over the bus within this process: when the magnet is ready,
// what the records do to the iso box, and that the hard power-off really ends heating and gas. The time moves
// by hand, ten seconds a poll; what is called every ten seconds is called by the test.
#include "simulator/boards/CanNode.h"
#include "simulator/boards/TemperatureBoard.h"
#include "support/Eventually.h"
#include "support/FakeDataLogger.h"
#include "support/FakePeriodicCallers.h"
#include "support/FakeTemperatureListener.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "temperature/ATHardPowerOff.h"
#include "temperature/TempBoardQ47.h"
#include "temperature/TemperatureHardwareQ47.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::CanNode;
using libfieldwarden::sim::SensorFault;
using libfieldwarden::sim::TemperatureBoard;
using libfieldwarden::sim::TemperatureSensor;
using libfieldwarden::temperature::ATHardPowerOff;
using libfieldwarden::test::eventually;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::FakeTemperatureListener;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::IsEmpty;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::InProcessBus;
using velmor::kepla::canopen::NmtState;
using namespace std::chrono_literals;

constexpr std::uint8_t kNode = 7;

/// Gives one main record, or none.
class OneRecord : public velmor::kepla::deviceid::DeviceIdClientIfc {
public:
    explicit OneRecord(std::string aRecord)
        : mRecord(std::move(aRecord)) {}
    std::string mainMds() override {
        if (mRecord.empty()) {
            throw std::runtime_error("there is no main record");
        }
        return mRecord;
    }

private:
    std::string mRecord;
};

class TemperatureService : public testing::Test {
protected:
    ~TemperatureService() override {
        if (mService) {
            mService->removeListener();
        }
    }

    /// Switches the board on and makes the service.
    /// @param aCold    Whether the board has been off, so that all bodies are at the room's temperature.
    /// @param aRecord  The main record; empty for one that cannot be read.
    void start(bool aCold = false, std::string aRecord = "<record/>") {
        mSimulated = std::make_shared<TemperatureBoard>(TemperatureBoard::Options{.cold = aCold});
        mNode = std::make_unique<CanNode>(mBus->open("board"), kNode, mSimulated);
        mClock->advance(500ms);
        ASSERT_TRUE(eventually([this] { return mNode->state() == NmtState::PreOperational; }));
        mBoard = std::make_shared<TempBoardQ47>(mMaster, nullptr, "/firmware", kNode);
        mBoard->prepare();
        mService = std::make_unique<TemperatureHardwareQ47>(
            mBoard, mDataLogger, mCallers, std::make_shared<OneRecord>(std::move(aRecord)), "/no/such/file");
        mService->setListener(&mDaemon);
        mDaemon.takeCalls();
    }

    /// Ten seconds pass, and what is called every ten seconds is called.
    void poll() {
        mClock->advance(10s);
        for (auto const& job : mCallers->jobs()) {
            job->call();
        }
    }

    /// Seconds pass; in each the board is asked something, so that it does not miss the library.
    void seconds(int aCount) {
        for (int passed = 0; passed < aCount; ++passed) {
            mClock->advance(1s);
            mBoard->magnetTemperature();
        }
    }

    /// @return How many polls it took until the magnet's readiness was as wanted; -1 when it took more.
    int pollsUntilReadyIs(bool aReady, int aAtMost) {
        for (int polls = 1; polls <= aAtMost; ++polls) {
            poll();
            if (mService->isMagnetReady() == aReady) {
                return polls;
            }
        }
        return -1;
    }

    /// @return What the daemon was told of the magnet's readiness since the last question.
    std::vector<std::string> toldOfReadiness() {
        std::vector<std::string> told;
        for (std::string const& call : mDaemon.takeCalls()) {
            if (call.starts_with("magnetReadyChanged")) {
                told.push_back(call);
            }
        }
        return told;
    }

    double lastPushed(std::string const& aChannel) { return mDataLogger->pushes(aChannel).back().value; }

    LogCapture mLog;
    HandClockScope mClock;
    std::unique_ptr<InProcessBus> mBus = std::make_unique<InProcessBus>();
    std::shared_ptr<CanOpenMaster> mMaster =
        std::make_shared<CanOpenMaster>(mBus->open("can0"), std::uint8_t{1});
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    std::shared_ptr<TemperatureBoard> mSimulated;
    std::unique_ptr<CanNode> mNode;
    std::shared_ptr<TempBoardQ47> mBoard;
    FakeTemperatureListener mDaemon;
    std::unique_ptr<TemperatureHardwareQ47> mService;
};

// ------------------------------------------------------------------------------------------------ readiness

// A board that has stayed switched on holds the magnet on its target: each mean is in specification from the
// first poll on, and fifty of them are needed.
TEST_F(TemperatureService, FindsTheMagnetReadyWithTheFiftiethPollOfARegulatedBoard) {
    start();
    EXPECT_EQ(pollsUntilReadyIs(true, 100), 50);
    EXPECT_THAT(toldOfReadiness(), testing::ElementsAre("magnetReadyChanged(true)"));
    EXPECT_EQ(mLog.count(Severity::Info, "Magnet ready state changed from 0 to 1"), 1U);
    EXPECT_EQ(lastPushed("temperatureBoard/magnet/stable"), 1.0);
    for (int polls = 0; polls < 100; ++polls) { // stays so over the whole window of the means
        poll();
        ASSERT_TRUE(mService->isMagnetReady());
    }
    EXPECT_THAT(toldOfReadiness(), IsEmpty());
}

/// @return With which poll each of the six means had been within 0.02 K of the target fifty times in a row,
///         as the data logger has them; 0 if that has not been.
std::size_t pollOfTheFiftiethGoodMean(FakeDataLogger& aLogger, double aTarget) {
    std::size_t last = 0;
    for (int sensor = 1; sensor <= 6; ++sensor) {
        auto const means =
            aLogger.pushes("temperatureBoard/magnet/temperatureMovingAverage/" + std::to_string(sensor));
        std::size_t inARow = 0;
        std::size_t poll = 0;
        while (poll < means.size() && inARow < 50) {
            inARow = std::abs(means[poll].value - aTarget) < 0.02 ? inARow + 1 : 0;
            ++poll;
        }
        if (inARow < 50) {
            return 0;
        }
        last = std::max(last, poll);
    }
    return last;
}

// The room has 23 degrees Celsius, 2 K below the target. The readings of the beginning are in the means of
// the first hundred polls, and each of them takes up to 2 K / 100 = 0.02 K off; the mean that has forgotten
// them is the first of fifty: 100 + 50 = 150 polls at least.
TEST_F(TemperatureService, FindsAColdMagnetReadyWhenTheColdReadingsAreForgotten) {
    start(true);
    EXPECT_LT(mService->getMagnetTemperature().value, mService->getTargetMagnetTemperature() - 1.9);
    int const polls = pollsUntilReadyIs(true, 1000);
    EXPECT_GE(polls, 150);
    EXPECT_EQ(static_cast<std::size_t>(polls),
              pollOfTheFiftiethGoodMean(*mDataLogger, mService->getTargetMagnetTemperature()));
    EXPECT_THAT(toldOfReadiness(), testing::ElementsAre("magnetReadyChanged(true)"));
}

// A sensor that shows the end of its range moves its mean of fifty readings by far more than 0.02 K at once.
TEST_F(TemperatureService, DeclaresTheMagnetNotReadyWithASensorThatFails) {
    start();
    ASSERT_EQ(pollsUntilReadyIs(true, 50), 50);
    toldOfReadiness();
    mSimulated->failSensor(TemperatureSensor::MagnetTop, SensorFault::Open);
    EXPECT_EQ(pollsUntilReadyIs(false, 2), 1);
    EXPECT_THAT(toldOfReadiness(), testing::ElementsAre("magnetReadyChanged(false)"));
    EXPECT_EQ(mLog.count(Severity::Info, "Magnet ready state changed from 1 to 0"), 1U);
    // Sensor 5 is out of specification, its neighbours are not.
    EXPECT_EQ(lastPushed("temperatureBoard/magnet/temperatureInSpecs/5"), 0.0);
    EXPECT_EQ(lastPushed("temperatureBoard/magnet/temperatureInSpecs/4"), 1.0);
}

// What is not read is not judged: the means stand still, and so does what was found.
TEST_F(TemperatureService, LosesOnlyASensorThatTheBoardRefusesAndFindsItAgain) {
    start();
    ASSERT_EQ(pollsUntilReadyIs(true, 50), 50);
    std::size_t const refused = mDataLogger->pushes("temperatureBoard/magnet/temperatureInSpecs/3").size();
    std::size_t const other = mDataLogger->pushes("temperatureBoard/magnet/temperatureInSpecs/4").size();
    mNode->faults().abortObject({0x3001, 4}, 0x0606'0000); // sensor 3; CiA 301: hardware error
    poll();
    EXPECT_EQ(mDataLogger->pushes("temperatureBoard/magnet/temperatureInSpecs/3").size(), refused);
    EXPECT_EQ(mDataLogger->pushes("temperatureBoard/magnet/temperatureInSpecs/4").size(), other + 1);
    mNode->faults().clear();
    poll();
    EXPECT_EQ(mDataLogger->pushes("temperatureBoard/magnet/temperatureInSpecs/3").size(), refused + 1);
    EXPECT_TRUE(mService->isMagnetReady());
}

// ------------------------------------------------------------------------------------------------ power-off

TEST_F(TemperatureService, EndsHeatingAndGasOfTheProbeAtOnce) {
    start();
    auto const board = mService->board();
    board->setVTMode(VTMode::PortExpander);
    board->setProbeGasFlow(2);
    board->setTargetProbeTemperature(313.15);
    board->setProbeTemperatureRegulation(true);
    seconds(60);
    ASSERT_NEAR(mSimulated->drive().gasLiterPerHour, 200.0, 1e-9);
    ASSERT_GT(mSimulated->drive().spiralWatt, 0.0);
    mLog.clear();

    ATHardPowerOff(board);
    EXPECT_EQ(mLog.count(Severity::Error, "+ATHardPowerOff"), 1U);
    seconds(1);
    EXPECT_EQ(mSimulated->drive().spiralWatt, 0.0);
    EXPECT_EQ(mSimulated->drive().gasLiterPerHour, 0.0);
    EXPECT_EQ(board->probeGasFlow(), 0);
    EXPECT_FALSE(board->probeTemperatureRegulation());
    EXPECT_FALSE(board->probeGasHeatingSpiralRegulation());
    EXPECT_NEAR(board->targetProbeTemperature(), 292.15, 1e-3);

    seconds(600); // and it stays so
    EXPECT_EQ(mSimulated->drive().spiralWatt, 0.0);
}

TEST_F(TemperatureService, LeavesTheMagnetRegulatedByAPowerOff) {
    start();
    mService->board()->setVTMode(VTMode::PortExpander);
    ATHardPowerOff(mService->board());
    EXPECT_EQ(pollsUntilReadyIs(true, 50), 50);
}

// ------------------------------------------------------------------------------------------------- iso box

std::string peltierGroup(std::string_view aType) {
    return R"(<group name="IsoBoxTempering"><value>1</value><value>1</value><value>)" + std::string(aType) +
           "</value></group>";
}

TEST_F(TemperatureService, KeepsTheBigPeltierOfTheRecordInTheBoardsMemory) {
    start(false, "<record>" + peltierGroup("2") + "</record>");
    seconds(1);
    EXPECT_TRUE(mSimulated->drive().bigPeltier);
    EXPECT_TRUE(mBoard->setupSavedOnEEPROM());
    EXPECT_EQ(mBoard->isoBoxTemperingMode(), static_cast<IsoBoxTemperingMode>(1));
    EXPECT_FALSE(mLog.has(Severity::Error, "configureIsoBoxPeltier: unknown peltier type"));
}

TEST_F(TemperatureService, TakesTheSmallPeltierForARecordWithout) {
    start();
    seconds(1);
    EXPECT_FALSE(mSimulated->drive().bigPeltier);
    EXPECT_TRUE(mLog.has(Severity::Info, "No IsoBoxTempering group found in MDS, defaults to small peltier"));
}

/// A main record that is no good, with the start of what the log says of it.
struct BadRecord {
    char const* name;
    std::string record;
    std::string words;
};

class TemperatureServiceWithABadRecord : public TemperatureService,
                                         public testing::WithParamInterface<BadRecord> {};

TEST_P(TemperatureServiceWithABadRecord, StartsAllTheSameAndLeavesTheBoardAlone) {
    start(false, GetParam().record);
    auto const errors = mLog.linesUpTo(Severity::Error);
    EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [](auto const& aLine) {
        return aLine.severity == Severity::Error && aLine.text.starts_with(GetParam().words);
    })) << testing::PrintToString(errors);
    EXPECT_EQ(pollsUntilReadyIs(true, 50), 50);
    EXPECT_FALSE(mSimulated->drive().bigPeltier);
}

constexpr char const* kFailed = "Failed to configure the iso box peltier, error is ";

INSTANTIATE_TEST_SUITE_P(
    Records,
    TemperatureServiceWithABadRecord,
    testing::Values(
        BadRecord{"Missing", "", std::string(kFailed) + "there is no main record"},
        BadRecord{"Cut", "<record><group name=", kFailed},
        BadRecord{"OfTwoGroups", "<record>" + peltierGroup("2") + peltierGroup("2") + "</record>",
                  "configureIsoBoxPeltier: 2 IsoBoxTempering groups found, when max 1 expected. MDS is '"},
        BadRecord{"OfAThirdType", "<record>" + peltierGroup("3") + "</record>",
                  "configureIsoBoxPeltier: unknown peltier type"},
        BadRecord{"OfATypeInLetters", "<record>" + peltierGroup("big") + "</record>", kFailed},
        BadRecord{"WithoutAType",
                  R"(<record><group name="IsoBoxTempering"><value>1</value></group></record>)", kFailed}),
    [](testing::TestParamInfo<BadRecord> const& aInfo) { return aInfo.param.name; });

} // namespace
