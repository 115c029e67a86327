// SPDX-License-Identifier: Apache-2.0
// The temperature service on the simulated board: what it reads every ten seconds, and that a reading which
// fails is the only one lost.
#include "simulator/boards/CanNode.h"
#include "simulator/boards/TemperatureBoard.h"
#include "support/FakeDataLogger.h"
#include "support/FakePeriodicCallers.h"
#include "support/LogCapture.h"
#include "temperature/TempBoardQ47.h"
#include "temperature/TemperatureHardwareQ47.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::CanNode;
using libfieldwarden::sim::TemperatureBoard;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::AllOf;
using testing::Each;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::InProcessBus;
using velmor::kepla::canopen::SdoObject;

constexpr std::uint8_t kNode = 7;
constexpr std::uint32_t kHardwareFault = 0x0606'0000; ///< CiA 301: access failed due to an hardware error.

class NoRecords : public velmor::kepla::deviceid::DeviceIdClientIfc {
public:
    std::string mainMds() override { return "<record/>"; }
};

/// An object that is read every ten seconds, how its call is named, and the channels that stay empty without
/// it.
struct Reading {
    SdoObject object;
    std::string call;
    std::set<std::string> channels;
};

void PrintTo(Reading const& aReading, std::ostream* aOut) {
    *aOut << std::hex << aReading.object.index << ':' << +aReading.object.subindex;
}

class TemperatureReadings : public testing::TestWithParam<Reading> {
protected:
    using Counts = std::map<std::string, std::size_t>;

    TemperatureReadings() { mLog.clear(); }

    /// As readAll(), on a board with the option, so that the probe's readings go to the bus, too.
    Counts readAllOfAProbe() {
        mBoard->setVTMode(VTMode::PortExpander);
        return readAll();
    }

    /// All that is read every ten seconds, once.
    /// @return How many values came to each channel.
    Counts readAll() {
        Counts const before = pushed();
        for (auto const& job : mCallers->jobs()) {
            job->call();
        }
        Counts values = pushed();
        for (auto& [channel, count] : values) {
            auto const former = before.find(channel);
            count -= former == before.end() ? 0 : former->second;
        }
        return values;
    }

    /// @return The channels that the second round has fewer values in.
    static std::set<std::string> lost(Counts const& aWhole, Counts const& aRound) {
        std::set<std::string> channels;
        for (auto const& [channel, count] : aWhole) {
            auto const found = aRound.find(channel);
            if (found == aRound.end() || found->second < count) {
                channels.insert(channel);
            }
        }
        return channels;
    }

    Counts pushed() {
        Counts counts;
        for (auto const& info : mDataLogger->infos()) {
            counts[info.name()] = mDataLogger->pushes(info.name()).size();
        }
        return counts;
    }

    void expectOnlyThisIsLost() {
        Reading const& reading = GetParam();
        mLog.clear();
        EXPECT_EQ(lost(mWhole, readAll()), reading.channels);
        EXPECT_THAT(mLog.linesUpTo(Severity::Error),
                    AllOf(testing::Not(IsEmpty()),
                          Each(Field(&libfieldwarden::test::CapturedLine::text,
                                     HasSubstr(": " + reading.call + " failed with error ")))));
        mNode.faults().clear();
        mLog.clear();
        EXPECT_THAT(lost(mWhole, readAll()), IsEmpty());
        EXPECT_THAT(mLog.linesUpTo(Severity::Error), IsEmpty());
    }

    LogCapture mLog;
    InProcessBus mBus{{}};
    std::shared_ptr<TemperatureBoard> mSimulated =
        std::make_shared<TemperatureBoard>(TemperatureBoard::Options{});
    CanNode mNode{mBus.open("board"), kNode, mSimulated};
    std::shared_ptr<CanOpenMaster> mMaster =
        std::make_shared<CanOpenMaster>(mBus.open("can0"), std::uint8_t{1});
    std::shared_ptr<TempBoardQ47> mBoard =
        std::make_shared<TempBoardQ47>(mMaster, nullptr, "/firmware", kNode);
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    TemperatureHardwareQ47 mService{mBoard, mDataLogger, mCallers, std::make_shared<NoRecords>(),
                                    "/no/such/file"};
    Counts mWhole = readAllOfAProbe();
};

TEST_P(TemperatureReadings, LoseOnlyWhatTheBoardRefuses) {
    mNode.faults().abortObject(GetParam().object, kHardwareFault);
    expectOnlyThisIsLost();
}

TEST_P(TemperatureReadings, LoseOnlyWhatTheBoardAnswersWithNothing) {
    mNode.faults().answerWithSize(GetParam().object, 0);
    expectOnlyThisIsLost();
}

TEST_P(TemperatureReadings, LoseOnlyWhatTheBoardAnswersWithTooMuch) {
    mNode.faults().answerWithSize(GetParam().object, 100);
    expectOnlyThisIsLost();
}

std::string const kPositions[] = {"Left_ST19", "Right_ST27", "Front_ST29",
                                  "Back_ST28", "Top_ST30",   "Bottom_ST26"};

std::vector<Reading> readings() {
    std::string const root = "temperatureBoard/";
    std::vector<Reading> all;
    for (std::uint8_t sensor = 1; sensor <= 6; ++sensor) {
        auto const next = static_cast<std::uint8_t>(sensor + 1);
        std::string const number = std::to_string(sensor);
        std::string const position = root + "magnet/" + kPositions[sensor - 1];
        all.push_back({{0x3001, next},
                       "magnetTemperatureSensor(id)",
                       {position + "/temperature", root + "magnet/temperatureMovingAverage/" + number,
                        root + "magnet/temperatureInSpecs/" + number}});
        all.push_back({{0x3002, sensor}, "magnetHeaterVoltage(id)", {position + "/heater_voltage"}});
    }
    all.push_back({{0x3001, 1}, "magnetTemperature()", {root + "magnet/temperature/global"}});
    all.push_back(
        {{0x3101, 1},
         "shimTemperature()",
         {root + "shim/temperature/global", root + "shim/globalMovingAverage", root + "shim/globalInSpec"}});
    all.push_back({{0x3101, 2}, "shimTemperatureSensor(id)", {root + "shim/temperature/1"}});
    all.push_back({{0x3101, 3}, "shimTemperatureSensor(id)", {root + "shim/temperature/2"}});
    all.push_back({{0x3202, 1}, "isoBoxPeltierCurrentPercent()", {root + "isobox/peltier/current_percent"}});
    all.push_back({{0x3205, 1}, "isoBoxFanSpeed()", {root + "isobox/fan/speed"}});
    all.push_back(
        {{0x3301, 2}, "probeGasHeatingSpiralTemperature()", {root + "probe/heating_spiral/temperature"}});
    all.push_back({{0x3301, 3}, "probeGasExhaustTemperature()", {root + "probe/exhaust/temperature"}});
    all.push_back({{0x3302, 1}, "probeGasHeatingSpiralPower()", {root + "probe/heating_spiral/power"}});
    all.push_back({{0x3303, 1},
                   "probeGasHeatingSpiralRegulation()",
                   {root + "probe/heating_spiral/regulation_enabled"}});
    all.push_back(
        {{0x3303, 4}, "probeGasOvercurrentCountSinceLastRead()", {root + "probe/gas_overcurrent_count"}});
    all.push_back({{0x3304, 2},
                   "probeGasHeatingSpiralTargetTemperature()",
                   {root + "probe/heating_spiral/target_temperature"}});
    return all;
}

INSTANTIATE_TEST_SUITE_P(EachObject,
                         TemperatureReadings,
                         testing::ValuesIn(readings()),
                         [](testing::TestParamInfo<Reading> const& aInfo) {
                             SdoObject const object = aInfo.param.object;
                             return "Object" + std::to_string(object.index) + "Sub" +
                                    std::to_string(object.subindex);
                         });

/// A board that does not answer each request; what is asked first is the voltage of the first heater.
class TemperatureReadingsOfASilence : public TemperatureReadings {};

TEST_P(TemperatureReadingsOfASilence, LoseNothingToOneAnswerThatIsMissing) {
    mNode.faults().loseFrames(1); // What is not answered is asked for once more.
    EXPECT_THAT(lost(mWhole, readAll()), IsEmpty());
    EXPECT_THAT(mLog.linesUpTo(Severity::Error), IsEmpty());
}

TEST_P(TemperatureReadingsOfASilence, LoseOneSignalToTwoAnswersThatAreMissing) {
    mNode.faults().loseFrames(2);
    expectOnlyThisIsLost();
}

INSTANTIATE_TEST_SUITE_P(AtTheFirstObject,
                         TemperatureReadingsOfASilence,
                         testing::Values(Reading{{0x3002, 1},
                                                 "magnetHeaterVoltage(id)",
                                                 {"temperatureBoard/magnet/Left_ST19/heater_voltage"}}));

} // namespace
