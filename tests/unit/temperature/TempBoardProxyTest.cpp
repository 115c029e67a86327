// SPDX-License-Identifier: Apache-2.0
// What the proxy asks of the board, pushes, tells and remembers.
#include "support/FakeDataLogger.h"
#include "support/FakePeriodicCallers.h"
#include "support/FakeTempBoard.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "temperature/TempBoardProxy.h"
#include "temperature/TemperatureListenerSync.h"

#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::FakeTempBoard;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::makeTempBoard;
using libfieldwarden::test::Severity;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;

/// A listener that keeps what it hears of the board.
class Hearer : public TemperatureListenerInterface {
public:
    std::vector<std::pair<std::string, double>> heard;

    void magnetTemperatureChanged(double aValue) override { heard.emplace_back("magnet", aValue); }
    void magnetReadyChanged(bool /*aReady*/) override {}
    void coilTemperatureChanged(double aValue) override { heard.emplace_back("coil", aValue); }
    void probeTargetTemperatureChanged(double /*aValue*/) override {}
    void probeTemperatureChanged(double aValue) override { heard.emplace_back("probe", aValue); }
    void probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus /*aStatus*/) override {}
    void probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus /*aStatus*/) override {}
    void probeTemperatureStabilityChanged(TemperatureStability /*aStability*/) override {}
    void probeMeasuredGasFlowChanged(double /*aFlow*/) override {}
    void probeTargetGasFlowForOperationChanged(double /*aFlow*/) override {}
    void probeTargetGasFlowForStandbyChanged(double /*aFlow*/) override {}
    void probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus /*aStatus*/) override {}
    void probeActualPowerChanged(double aValue) override { heard.emplace_back("power", aValue); }
    void probeTargetTemperatureMinimumChanged(double /*aValue*/) override {}
    void probeTargetTemperatureMaximumChanged(double /*aValue*/) override {}
    void probePowerMaximumChanged(double /*aPower*/) override {}
};

/// A proxy before a scripted board; nothing has been read through it.
class TempBoardProxyTest : public ::testing::Test {
protected:
    TempBoardProxyTest() { mSync->setListener(&mHearer); }

    /// All samples so far, as "channel = value", those of a channel in their order.
    std::vector<std::string> samples() {
        std::vector<std::string> all;
        for (auto const& info : mDataLogger->infos()) {
            for (auto const& push : mDataLogger->pushes(info.name())) {
                EXPECT_EQ(push.time, mClock->systemNow());
                all.push_back(fmt::format("{} = {}", info.name(), push.value));
            }
        }
        return all;
    }

    HandClockScope mClock;
    LogCapture mLog;
    std::shared_ptr<FakeTempBoard> mBoard = makeTempBoard();
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    std::shared_ptr<TemperatureListenerSync> mSync = std::make_shared<TemperatureListenerSync>(0.001, 0.1);
    Hearer mHearer;
    std::shared_ptr<TempBoardProxy> mProxy =
        std::make_shared<TempBoardProxy>(mBoard, mSync, mDataLogger, mCallers);
};

// ---------------------------------------------------------------------------------------------- channels

/// A channel as its path and its description, both to the letter.
struct GoldenChannel {
    std::string path;
    std::string description;
};

TEST_F(TempBoardProxyTest, MakesItsChannelsInTheirOrder) {
    std::vector<GoldenChannel> const golden{
        {"magnet/Left_ST19/temperature", "Magnet temperature sensor 1, position Left_ST19"},
        {"magnet/Right_ST27/temperature", "Magnet temperature sensor 2, position Right_ST27"},
        {"magnet/Front_ST29/temperature", "Magnet temperature sensor 3, position Front_ST29"},
        {"magnet/Back_ST28/temperature", "Magnet temperature sensor 4, position Back_ST28"},
        {"magnet/Top_ST30/temperature", "Magnet temperature sensor 5, position Top_ST30"},
        {"magnet/Bottom_ST26/temperature", "Magnet temperature sensor 6, position Bottom_ST26"},
        {"magnet/Left_ST19/heater_voltage", "Magnet heater 1 voltage, position Left_ST19"},
        {"magnet/Right_ST27/heater_voltage", "Magnet heater 2 voltage, position Right_ST27"},
        {"magnet/Front_ST29/heater_voltage", "Magnet heater 3 voltage, position Front_ST29"},
        {"magnet/Back_ST28/heater_voltage", "Magnet heater 4 voltage, position Back_ST28"},
        {"magnet/Top_ST30/heater_voltage", "Magnet heater 5 voltage, position Top_ST30"},
        {"magnet/Bottom_ST26/heater_voltage", "Magnet heater 6 voltage, position Bottom_ST26"},
        {"magnet/Left_ST19/target_temperature", "Target temperature for the sensor 1, position Left_ST19"},
        {"magnet/Right_ST27/target_temperature", "Target temperature for the sensor 2, position Right_ST27"},
        {"magnet/Front_ST29/target_temperature", "Target temperature for the sensor 3, position Front_ST29"},
        {"magnet/Back_ST28/target_temperature", "Target temperature for the sensor 4, position Back_ST28"},
        {"magnet/Top_ST30/target_temperature", "Target temperature for the sensor 5, position Top_ST30"},
        {"magnet/Bottom_ST26/target_temperature",
         "Target temperature for the sensor 6, position Bottom_ST26"},
        {"magnet/temperature/global", "average of the 6 magnet temperature sensors"},
        {"shim/temperature/global", "average of the 2 shim temperature sensors"},
        {"shim/temperature/1", "Shim temperature sensor 1"},
        {"shim/temperature/2", "Shim temperature sensor 2"},
        {"shim/temperature/1_target", "Target temperature for shim temperature sensor 1"},
        {"shim/temperature/2_target", "Target temperature for shim temperature sensor 2"},
        {"shim/heating_mat/current", "Current to the shim heating mat"},
        {"shim/heating_mat/power", "Instantaneous power sent to the shim heating mat"},
        {"isobox/temperature/global", "average of the 6 iso box temperature sensors"},
        {"isobox/temperature/1_reference", "Subindex 1 PT100 at CH10/ST16 - Reference IsoBox Temperature"},
        {"isobox/temperature/2_local_thermistor_reference",
         "Subindex 2 PT100 at CH12/ST12 - Local, Thermistor reference"},
        {"isobox/temperature/3_heatsink_airflow", "Subindex 3 PT100 at CH9/ST15 - CH9, Heatsink airflow"},
        {"isobox/temperature/4_IF_electronics", "Subindex 4 PT100 at CH8/ST23  - IF Electronics"},
        {"isobox/temperature/5_VT_mix_gas_exhaust", "SubIndex 5 PT100 at CH11/ST11 - VT mix gas at exhaust"},
        {"isobox/peltier/current_percent",
         "Percentage of the maximum current that flows through the IosBox peltier"},
        {"isobox/fan/speed", "0 = off, 1 = 12V, 2 = 16V"},
        {"isobox/temperature_target", "Target temperature for the iso box"},
        {"probe/temperature", "Probe's temperature. Only available on AT systems."},
        {"probe/heating_spiral/temperature", "Temperature of the spiral used to heat the probe gas"},
        {"probe/exhaust/temperature", "Temperature of the exhaust gas"},
        {"probe/target_temperature",
         "Target temperature for the probe. Doesn't immediately reflect the one set by the user (ramp)."},
        {"probe/heating_spiral/power", "The power injected in the heating spiral"},
        {"probe/heating_spiral/regulation_enabled",
         "Is the heating spiral temperature regulation enabled or not"},
        {"probe/temperature_regulation_enabled",
         "Is the temperature regulation of the probe enabled or not?"},
        {"probe/gas_overcurrent_count",
         "Number of overcurrent condition that occurred. Not cumulative, value since last data point."},
        {"probe/heating_spiral/target_temperature", "Target temperature for the heating spiral"},
        {"probe/gas_flow_index",
         "Index of the gas flow set on the board. 0 is off, 1 is hold gas, 2-4 are th"},
    };
    auto const infos = mDataLogger->infos();
    ASSERT_EQ(infos.size(), golden.size());
    for (std::size_t row = 0; row < golden.size(); ++row) {
        EXPECT_EQ(infos[row].name(), "temperatureBoard/" + golden[row].path) << row;
        EXPECT_EQ(infos[row].description, golden[row].description) << row;
    }
    EXPECT_EQ(infos[30].path,
              (std::vector<std::string>{"temperatureBoard", "isobox", "temperature", "4_IF_electronics"}));
}

TEST_F(TempBoardProxyTest, KeepsStatisticsOfWhatIsMeasuredOnly) {
    DataLoggerStats const shared(DataLoggerStorageType::LongTerm, std::chrono::seconds(600));
    for (DataLoggerChannelInfo const& info : mDataLogger->infos()) {
        std::string const name = info.name();
        bool const isTarget = name.find("target") != std::string::npos;
        bool const isFan = name == "temperatureBoard/isobox/fan/speed";
        EXPECT_EQ(info.stats, isTarget || isFan ? DataLoggerStats::none() : shared) << name;
        EXPECT_EQ(info.lowerLimit, std::numeric_limits<double>::min()) << name;
        EXPECT_EQ(info.upperLimit, std::numeric_limits<double>::max()) << name;
        EXPECT_EQ(info.lowerExpected, std::numeric_limits<double>::min()) << name;
        EXPECT_EQ(info.upperExpected, std::numeric_limits<double>::max()) << name;
        EXPECT_EQ(info.resolution, 0.001) << name;
        EXPECT_EQ(info.factor, 1.0) << name;
        EXPECT_NE(info.storageType, DataLoggerStorageType::None) << name;
    }
}

// -------------------------------------------------------------------------------------------- forwarding

/// One operation: what it asks of the board, what it gives, and the sample that it leaves, if any.
struct Operation {
    std::string call;
    std::string result;
    std::string sample;
    std::function<std::string(TempBoardProxy&)> run;
};

template <typename Value>
std::string text(Value const& aValue) {
    if constexpr (std::is_enum_v<Value>) {
        return std::to_string(static_cast<unsigned>(aValue));
    } else {
        return fmt::format("{}", aValue);
    }
}

TEST_F(TempBoardProxyTest, HandsTheOtherOperationsThrough) {
    mBoard->set("mds", "a record");
    mBoard->set("mdsOfATFlowBox", "another");
    mBoard->set("shimTemperingMode", ShimTemperingMode::Mode1);
    mBoard->set("isoBoxTemperingMode", IsoBoxTemperingMode::BigPeltier);
    mBoard->set("guessedFlowBoxEcl", 20);
    using Proxy = TempBoardProxy;
    auto const nothing = [](auto aRun) {
        return [aRun](Proxy& aProxy) {
            aRun(aProxy);
            return std::string();
        };
    };
    std::vector<Operation> const operations{
        {"mds()", "a record", "", [](Proxy& p) { return p.mds(); }},
        {"mdsOfATFlowBox()", "another", "", [](Proxy& p) { return p.mdsOfATFlowBox(); }},
        {"setTargetMagnetTemperature(25.5)", "", "",
         nothing([](Proxy& p) { p.setTargetMagnetTemperature(25.5); })},
        {"shimTemperingMode()", "1", "", [](Proxy& p) { return text(p.shimTemperingMode()); }},
        {"setShimTemperingMode(1)", "", "",
         nothing([](Proxy& p) { p.setShimTemperingMode(ShimTemperingMode::Mode1); })},
        {"vtMode()", "2", "", [](Proxy& p) { return text(p.vtMode()); }},
        {"setVTMode(1)", "", "", nothing([](Proxy& p) { p.setVTMode(VTMode::Prototype); })},
        {"isoBoxTemperingMode()", "1", "", [](Proxy& p) { return text(p.isoBoxTemperingMode()); }},
        {"setIsoBoxTemperingMode(1)", "", "",
         nothing([](Proxy& p) { p.setIsoBoxTemperingMode(IsoBoxTemperingMode::BigPeltier); })},
        {"setupSavedOnEEPROM()", "true", "", [](Proxy& p) { return text(p.setupSavedOnEEPROM()); }},
        {"saveSetupToEEPROM()", "", "", nothing([](Proxy& p) { p.saveSetupToEEPROM(); })},
        {"probeGasRegulatedTemperatureRange()", "273.15 to 373.15", "",
         [](Proxy& p) {
             auto const range = p.probeGasRegulatedTemperatureRange();
             return fmt::format("{} to {}", range.first, range.second);
         }},
        {"probeGasHeatingTimeout()", "60", "", [](Proxy& p) { return text(p.probeGasHeatingTimeout()); }},
        {"setProbeGasHeatingTimeout(240)", "", "",
         nothing([](Proxy& p) { p.setProbeGasHeatingTimeout(240); })},
        {"guessedFlowBoxEcl()", "20", "", [](Proxy& p) { return text(p.guessedFlowBoxEcl()); }},
        {"dumpCANopenValues(/tmp)", "", "", nothing([](Proxy& p) { p.dumpCANopenValues("/tmp"); })},
    };
    for (Operation const& operation : operations) {
        SCOPED_TRACE(operation.call);
        EXPECT_EQ(operation.run(*mProxy), operation.result);
        EXPECT_THAT(mBoard->takeCalls(), ElementsAre(operation.call));
        mBoard->fail(operation.call.substr(0, operation.call.find('(')), "the board says no");
        EXPECT_THROW(operation.run(*mProxy), std::runtime_error);
        mBoard->takeCalls();
    }
    EXPECT_THAT(samples(), IsEmpty());
    EXPECT_THAT(mHearer.heard, IsEmpty());
}

TEST_F(TempBoardProxyTest, PushesWhatIsReadOrWrittenUnlessItFails) {
    mBoard->set("magnetTemperature", 301.5);
    mBoard->set("isoBoxTemperature", 302.5);
    mBoard->set("shimTemperatureSensor(2)", 303.5);
    mBoard->set("probeTemperature", 304.5);
    mBoard->set("probeGasHeatingSpiralTemperature", 305.5);
    mBoard->set("probeGasExhaustTemperature", 306.5);
    mBoard->set("magnetTemperatureSensor(3)", 307.5);
    mBoard->set("isoBoxTemperatureSensor(5)", 308.5);
    mBoard->set("magnetHeaterVoltage(6)", 9.5);
    mBoard->set("isoBoxFanSpeed", 2);
    mBoard->set("isoBoxPeltierCurrentPercent", 0.75);
    mBoard->set("probeGasHeatingSpiralPower", 7.5);
    mBoard->set("probeGasHeatingSpiralRegulation", true);
    mBoard->set("probeTemperatureRegulation", true);
    mBoard->set("probeGasOvercurrentCountSinceLastRead", 4);
    mBoard->set("probeGasHeatingSpiralTargetTemperature", 311.5);
    mBoard->set("probeGasFlow", 3);
    using Proxy = TempBoardProxy;
    auto const nothing = [](auto aRun) {
        return [aRun](Proxy& aProxy) {
            aRun(aProxy);
            return std::string();
        };
    };
    std::vector<Operation> const operations{
        {"setProbeGasFlow(2)", "", "probe/gas_flow_index = 2",
         nothing([](Proxy& p) { p.setProbeGasFlow(2); })},
        {"setProbeGasHeatingSpiralTargetTemperature(320.25)", "",
         "probe/heating_spiral/target_temperature = 320.25",
         nothing([](Proxy& p) { p.setProbeGasHeatingSpiralTargetTemperature(320.25); })},
        {"setProbeTemperatureRegulation(true)", "", "probe/temperature_regulation_enabled = 1",
         nothing([](Proxy& p) { p.setProbeTemperatureRegulation(true); })},
        {"setProbeTemperatureRegulation(false)", "", "probe/temperature_regulation_enabled = 0",
         nothing([](Proxy& p) { p.setProbeTemperatureRegulation(false); })},
        {"setProbeGasHeatingSpiralRegulation(true)", "", "probe/heating_spiral/regulation_enabled = 1",
         nothing([](Proxy& p) { p.setProbeGasHeatingSpiralRegulation(true); })},
        {"setProbeGasHeatingSpiralPower(12.5)", "", "probe/heating_spiral/power = 12.5",
         nothing([](Proxy& p) { p.setProbeGasHeatingSpiralPower(12.5); })},
        {"setTargetProbeTemperature(292.15)", "", "probe/target_temperature = 292.15",
         nothing([](Proxy& p) { p.setTargetProbeTemperature(292.15); })},
        {"magnetTemperature()", "301.5", "magnet/temperature/global = 301.5",
         [](Proxy& p) { return text(p.magnetTemperature()); }},
        {"isoBoxTemperature()", "302.5", "isobox/temperature/global = 302.5",
         [](Proxy& p) { return text(p.isoBoxTemperature()); }},
        {"shimTemperatureSensor(2)", "303.5", "shim/temperature/2 = 303.5",
         [](Proxy& p) { return text(p.shimTemperatureSensor(2)); }},
        {"probeTemperature()", "304.5", "probe/temperature = 304.5",
         [](Proxy& p) { return text(p.probeTemperature()); }},
        {"probeGasHeatingSpiralTemperature()", "305.5", "probe/heating_spiral/temperature = 305.5",
         [](Proxy& p) { return text(p.probeGasHeatingSpiralTemperature()); }},
        {"probeGasExhaustTemperature()", "306.5", "probe/exhaust/temperature = 306.5",
         [](Proxy& p) { return text(p.probeGasExhaustTemperature()); }},
        {"magnetTemperatureSensor(3)", "307.5", "magnet/Front_ST29/temperature = 307.5",
         [](Proxy& p) { return text(p.magnetTemperatureSensor(3)); }},
        {"isoBoxTemperatureSensor(5)", "308.5", "isobox/temperature/5_VT_mix_gas_exhaust = 308.5",
         [](Proxy& p) { return text(p.isoBoxTemperatureSensor(5)); }},
        {"magnetHeaterVoltage(6)", "9.5", "magnet/Bottom_ST26/heater_voltage = 9.5",
         [](Proxy& p) { return text(p.magnetHeaterVoltage(6)); }},
        {"isoBoxFanSpeed()", "2", "isobox/fan/speed = 2", [](Proxy& p) { return text(p.isoBoxFanSpeed()); }},
        {"isoBoxPeltierCurrentPercent()", "0.75", "isobox/peltier/current_percent = 0.75",
         [](Proxy& p) { return text(p.isoBoxPeltierCurrentPercent()); }},
        {"probeGasHeatingSpiralPower()", "7.5", "probe/heating_spiral/power = 7.5",
         [](Proxy& p) { return text(p.probeGasHeatingSpiralPower()); }},
        {"probeGasHeatingSpiralRegulation()", "true", "probe/heating_spiral/regulation_enabled = 1",
         [](Proxy& p) { return text(p.probeGasHeatingSpiralRegulation()); }},
        {"probeTemperatureRegulation()", "true", "probe/temperature_regulation_enabled = 1",
         [](Proxy& p) { return text(p.probeTemperatureRegulation()); }},
        {"probeGasOvercurrentCountSinceLastRead()", "4", "probe/gas_overcurrent_count = 4",
         [](Proxy& p) { return text(p.probeGasOvercurrentCountSinceLastRead()); }},
        {"probeGasHeatingSpiralTargetTemperature()", "311.5",
         "probe/heating_spiral/target_temperature = 311.5",
         [](Proxy& p) { return text(p.probeGasHeatingSpiralTargetTemperature()); }},
        {"probeGasFlow()", "3", "probe/gas_flow_index = 3", [](Proxy& p) { return text(p.probeGasFlow()); }},
    };
    for (Operation const& operation : operations) {
        SCOPED_TRACE(operation.call);
        mDataLogger = std::make_shared<FakeDataLogger>();
        mProxy = std::make_shared<TempBoardProxy>(mBoard, mSync, mDataLogger, mCallers);
        mBoard->fail(operation.call, "the board says no", 1);
        EXPECT_THROW(operation.run(*mProxy), std::runtime_error);
        EXPECT_THAT(samples(), IsEmpty());
        mBoard->takeCalls();
        EXPECT_EQ(operation.run(*mProxy), operation.result);
        EXPECT_THAT(mBoard->takeCalls(), ElementsAre(operation.call));
        EXPECT_THAT(samples(), ElementsAre("temperatureBoard/" + operation.sample));
    }
}

TEST_F(TempBoardProxyTest, HasNoChannelForTheSixthSensorOfTheIsoBox) {
    mBoard->set("isoBoxTemperatureSensor(6)", 401.28);
    EXPECT_EQ(mProxy->isoBoxTemperatureSensor(6), 401.28);
    EXPECT_THAT(samples(), IsEmpty());
}

TEST_F(TempBoardProxyTest, PushesNothingForAnIdThatOnlyTheBoardKnows) {
    EXPECT_EQ(mProxy->magnetTemperatureSensor(0), 298.15);
    EXPECT_EQ(mProxy->magnetTemperatureSensor(7), 298.15);
    EXPECT_EQ(mProxy->magnetHeaterVoltage(255), 12.5);
    EXPECT_EQ(mProxy->shimTemperatureSensor(3), 298.15);
    EXPECT_THAT(samples(), IsEmpty());
}

TEST_F(TempBoardProxyTest, TellsTheListenerFourSignals) {
    mBoard->set("magnetTemperature", 301.5);
    mBoard->set("probeTemperature", 304.5);
    mBoard->set("probeGasHeatingSpiralPower", 7.5);
    mProxy->magnetTemperature();
    mProxy->shimTemperature();
    mProxy->probeTemperature();
    mProxy->probeGasHeatingSpiralPower();
    mProxy->isoBoxTemperature();
    mProxy->setProbeGasHeatingSpiralPower(1.0);
    using Heard = std::pair<std::string, double>;
    EXPECT_THAT(mHearer.heard, ElementsAre(Heard{"magnet", 301.5}, Heard{"coil", 298.15},
                                           Heard{"probe", 304.5}, Heard{"power", 7.5}));
}

// ------------------------------------------------------------------------------------------------ shim coils

TEST_F(TempBoardProxyTest, CorrectsTheShimTemperatureByItsTarget) {
    mBoard->set("shimTemperature", 298.40);
    mBoard->set("shimTargetTemperature(1, false)", 298.35);
    double const corrected = mProxy->shimTemperature();
    EXPECT_DOUBLE_EQ(corrected, 298.40 + 298.15 - 298.35); // 298.20
    EXPECT_NEAR(corrected, 298.20, 1e-9);
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("shimTemperature()", "shimTargetTemperature(1, false)"));
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/shim/temperature/global = 298.4"));
    ASSERT_EQ(mHearer.heard.size(), 1U);
    EXPECT_EQ(mHearer.heard[0].first, "coil");
    EXPECT_EQ(mHearer.heard[0].second, corrected);
}

TEST_F(TempBoardProxyTest, ShowsNoChangeOfTheCoilsWhenTheLockMovesTheirTarget) {
    double const before = mProxy->shimTemperature();
    mBoard->set("shimTargetTemperature(1, false)", 298.40);
    mBoard->set("shimTemperature", 298.40); // the coils have followed
    EXPECT_NEAR(mProxy->shimTemperature(), before, 1e-9);
    EXPECT_EQ(mHearer.heard.size(), 1U);
}

TEST_F(TempBoardProxyTest, AsksTheBoardForTheShimTargetEachTime) {
    mProxy->setShimTargetTemperature(1, 298.40); // The board keeps whole thousandths of it, or restarts.
    mBoard->set("shimTargetTemperature(1, false)", 298.15);
    mBoard->takeCalls();
    EXPECT_DOUBLE_EQ(mProxy->shimTemperature(), 298.15); // 298.15 + 298.15 - 298.15
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("shimTemperature()", "shimTargetTemperature(1, false)"));
}

TEST_F(TempBoardProxyTest, KeepsTheRawShimTemperatureWhenItsTargetCannotBeRead) {
    mBoard->fail("shimTargetTemperature", "silent");
    EXPECT_THROW(mProxy->shimTemperature(), std::runtime_error);
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/shim/temperature/global = 298.15"));
    EXPECT_THAT(mHearer.heard, IsEmpty());
}

TEST_F(TempBoardProxyTest, ReadsAShimTargetOnceUnlessTheHardwareIsMeant) {
    mBoard->set("shimTargetTemperature(2, false)", 298.25);
    mBoard->set("shimTargetTemperature(2, true)", 298.35);
    EXPECT_EQ(mProxy->shimTargetTemperature(2, false), 298.25);
    EXPECT_EQ(mProxy->shimTargetTemperature(2, false), 298.25);
    EXPECT_EQ(mProxy->shimTargetTemperature(2, true), 298.35);
    EXPECT_EQ(mProxy->shimTargetTemperature(2, false), 298.35);
    EXPECT_THAT(mBoard->takeCalls(),
                ElementsAre("shimTargetTemperature(2, false)", "shimTargetTemperature(2, true)"));
    EXPECT_EQ(mLog.count(Severity::Trace, "shimTargetTemperature(id = 2): reading it from HW"), 2U);
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/shim/temperature/1_target = 298.25",
                                       "temperatureBoard/shim/temperature/1_target = 298.35"));
}

TEST_F(TempBoardProxyTest, PushesReadShimTargetsTwoChannelsLower) {
    mBoard->set("shimTargetTemperature(3, true)", 298.65);
    mProxy->shimTargetTemperature(1, true);
    EXPECT_THAT(samples(), IsEmpty());
    mProxy->shimTargetTemperature(3, true);
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/shim/temperature/2_target = 298.65"));
}

TEST_F(TempBoardProxyTest, RefusesAShimTargetThatIsNone) {
    for (int const none : {0, 4, 255}) {
        SCOPED_TRACE(none);
        auto const id = static_cast<unsigned char>(none);
        mLog.clear();
        try {
            mProxy->shimTargetTemperature(id, true);
            ADD_FAILURE() << "not refused";
        } catch (std::runtime_error const& error) {
            EXPECT_STREQ(error.what(), "Invalid id provided for shimTargetTemperature");
        }
        EXPECT_THAT(mLog.linesOf("TempBoardProxy"),
                    ElementsAre(CapturedLine{
                        Severity::Error,
                        "Invalid shimTargetTemperature ID has been provided: " + std::to_string(id),
                        {},
                        {}}));
    }
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(TempBoardProxyTest, RemembersAShimTargetThatWasSet) {
    mProxy->setShimTargetTemperature(1, 298.45);
    EXPECT_EQ(mProxy->shimTargetTemperature(1, false), 298.45);
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("setShimTargetTemperature(1, 298.45)"));
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/shim/temperature/1_target = 298.45",
                                       "temperatureBoard/shim/temperature/2_target = 298.45"));
}

TEST_F(TempBoardProxyTest, PushesAnotherShimTargetThatWasSetTwoChannelsLower) {
    mProxy->setShimTargetTemperature(2, 298.55);
    mProxy->setShimTargetTemperature(3, 298.65);
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/shim/temperature/1_target = 298.55",
                                       "temperatureBoard/shim/temperature/2_target = 298.65"));
    EXPECT_EQ(mProxy->shimTargetTemperature(2, false), 298.55);
    EXPECT_EQ(mProxy->shimTargetTemperature(3, false), 298.65);
}

TEST_F(TempBoardProxyTest, RemembersNoShimTargetThatTheBoardRefused) {
    mBoard->fail("setShimTargetTemperature", "no", 1);
    EXPECT_THROW(mProxy->setShimTargetTemperature(1, 299.0), std::runtime_error);
    EXPECT_EQ(mProxy->shimTargetTemperature(1, false), 298.15);
    EXPECT_THAT(mBoard->takeCalls(),
                ElementsAre("setShimTargetTemperature(1, 299)", "shimTargetTemperature(1, false)"));
}

// --------------------------------------------------------------------------------------------- other targets

TEST_F(TempBoardProxyTest, ReadsATargetOfTheMagnetOnce) {
    mBoard->set("targetMagnetTemperature(2)", 300.25);
    EXPECT_EQ(mProxy->targetMagnetTemperature(2), 300.25);
    EXPECT_EQ(mProxy->targetMagnetTemperature(2), 300.25);
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("targetMagnetTemperature(2)"));
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/magnet/Left_ST19/target_temperature = 300.25"));
}

TEST_F(TempBoardProxyTest, PushesTargetsOfTheMagnetTwoChannelsLower) {
    for (unsigned char id = 0; id < 8; ++id) {
        mProxy->pushTargetMagnetTemperature(id, 300.0 + id);
        EXPECT_EQ(mProxy->targetMagnetTemperature(id), 300.0 + id);
    }
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/magnet/Left_ST19/target_temperature = 302",
                                       "temperatureBoard/magnet/Right_ST27/target_temperature = 303",
                                       "temperatureBoard/magnet/Front_ST29/target_temperature = 304",
                                       "temperatureBoard/magnet/Back_ST28/target_temperature = 305",
                                       "temperatureBoard/magnet/Top_ST30/target_temperature = 306",
                                       "temperatureBoard/magnet/Bottom_ST26/target_temperature = 307"));
}

TEST_F(TempBoardProxyTest, AsksTheBoardEachTimeForATargetBeyondItsMemory) {
    mProxy->pushTargetMagnetTemperature(8, 300.0);
    EXPECT_EQ(mProxy->targetMagnetTemperature(8), 298.15);
    EXPECT_EQ(mProxy->targetMagnetTemperature(255), 298.15);
    EXPECT_THAT(mBoard->takeCalls(),
                ElementsAre("targetMagnetTemperature(8)", "targetMagnetTemperature(255)"));
}

TEST_F(TempBoardProxyTest, KeepsTheOldTargetOfTheMagnetWhenANewOneIsSet) {
    EXPECT_EQ(mProxy->targetMagnetTemperature(1), 298.15);
    mProxy->setTargetMagnetTemperature(26.0);
    EXPECT_EQ(mProxy->targetMagnetTemperature(1), 298.15);
    mProxy->pushTargetMagnetTemperature(1, 299.15);
    EXPECT_EQ(mProxy->targetMagnetTemperature(1), 299.15);
}

TEST_F(TempBoardProxyTest, ReadsTheTargetOfTheIsoBoxOnce) {
    mBoard->fail("isoBoxTargetTemperature", "silent", 1);
    EXPECT_THROW(mProxy->isoBoxTargetTemperature(), std::runtime_error);
    mBoard->set("isoBoxTargetTemperature", 303.15);
    EXPECT_EQ(mProxy->isoBoxTargetTemperature(), 303.15);
    mBoard->set("isoBoxTargetTemperature", 304.15);
    EXPECT_EQ(mProxy->isoBoxTargetTemperature(), 303.15);
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("isoBoxTargetTemperature()", "isoBoxTargetTemperature()"));
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/isobox/temperature_target = 303.15"));
}

TEST_F(TempBoardProxyTest, ReadsTheTargetOfTheProbeOnce) {
    mBoard->set("targetProbeTemperature", 303.15);
    EXPECT_EQ(mProxy->targetProbeTemperature(), 303.15);
    EXPECT_EQ(mProxy->targetProbeTemperature(), 303.15);
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("targetProbeTemperature()"));
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/probe/target_temperature = 303.15"));
}

TEST_F(TempBoardProxyTest, NeverReadsATargetOfTheProbeThatWasSet) {
    mProxy->setTargetProbeTemperature(310.0);
    EXPECT_EQ(mProxy->targetProbeTemperature(), 310.0);
    mProxy->setTargetProbeTemperature(311.0);
    EXPECT_EQ(mProxy->targetProbeTemperature(), 311.0);
    EXPECT_THAT(mBoard->takeCalls(),
                ElementsAre("setTargetProbeTemperature(310)", "setTargetProbeTemperature(311)"));
    EXPECT_THAT(samples(), ElementsAre("temperatureBoard/probe/target_temperature = 310",
                                       "temperatureBoard/probe/target_temperature = 311"));
}

TEST_F(TempBoardProxyTest, MayBeAskedForTargetsWhileTheyAreSet) {
    std::thread setter([this] {
        for (int turn = 0; turn < 500; ++turn) {
            mProxy->setShimTargetTemperature(1, 298.0 + turn % 2);
            mProxy->setTargetProbeTemperature(298.0 + turn % 2);
            mProxy->pushTargetMagnetTemperature(1, 298.0 + turn % 2);
        }
    });
    for (int turn = 0; turn < 500; ++turn) {
        for (double const kelvin : {mProxy->shimTargetTemperature(1, false), mProxy->targetProbeTemperature(),
                                    mProxy->targetMagnetTemperature(1)}) {
            EXPECT_TRUE(kelvin == 298.0 || kelvin == 299.0 || kelvin == 298.15) << kelvin;
        }
    }
    setter.join();
}

// -------------------------------------------------------------------------------------- poll and single shot

std::vector<std::string> const kPollCalls{
    "magnetHeaterVoltage(1)",
    "magnetHeaterVoltage(2)",
    "magnetHeaterVoltage(3)",
    "magnetHeaterVoltage(4)",
    "magnetHeaterVoltage(5)",
    "magnetHeaterVoltage(6)",
    "isoBoxPeltierCurrentPercent()",
    "isoBoxTemperature()",
    "isoBoxFanSpeed()",
    "isoBoxTemperatureSensor(1)",
    "isoBoxTemperatureSensor(2)",
    "isoBoxTemperatureSensor(3)",
    "isoBoxTemperatureSensor(4)",
    "isoBoxTemperatureSensor(5)",
    "isoBoxTemperatureSensor(6)",
    "shimTemperatureSensor(1)",
    "shimTemperatureSensor(2)",
    "probeGasHeatingSpiralTemperature()",
    "probeGasHeatingSpiralPower()",
    "probeGasHeatingSpiralRegulation()",
    "probeGasOvercurrentCountSinceLastRead()",
    "probeGasExhaustTemperature()",
    "probeGasHeatingSpiralTargetTemperature()",
};

/// A call as the log shows it: an id is only "id".
std::string inLog(std::string const& aCall) {
    return aCall.ends_with("()") ? aCall : aCall.substr(0, aCall.find('(')) + "(id)";
}

TEST_F(TempBoardProxyTest, PollsTwentyThreeReadingsInTheirOrder) {
    mProxy->poll();
    EXPECT_EQ(mBoard->takeCalls(), kPollCalls);
    EXPECT_THAT(mLog.linesOf("TempBoardProxy"), ElementsAre(CapturedLine{Severity::Trace, "+poll", {}, {}},
                                                            CapturedLine{Severity::Trace, "-poll", {}, {}}));
    EXPECT_EQ(samples().size(), 22U); // all but the sixth sensor of the iso box
}

TEST_F(TempBoardProxyTest, LosesOnlyTheSignalWhoseReadFails) {
    for (std::string const& call : kPollCalls) {
        SCOPED_TRACE(call);
        mBoard->fail(call, "no answer");
        mLog.clear();
        mProxy->poll();
        EXPECT_EQ(mBoard->takeCalls(), kPollCalls);
        EXPECT_THAT(
            mLog.linesOf("TempBoardProxy"),
            ElementsAre(CapturedLine{Severity::Trace, "+poll", {}, {}},
                        CapturedLine{
                            Severity::Error, "poll: " + inLog(call) + " failed with error no answer", {}, {}},
                        CapturedLine{Severity::Trace, "-poll", {}, {}}));
        mBoard->mend(call);
    }
}

TEST_F(TempBoardProxyTest, LosesOnlyTheSignalWhoseReadFailsWithSomethingUnknown) {
    for (std::string const& call : kPollCalls) {
        SCOPED_TRACE(call);
        mBoard->onCall(call, [] { throw 42; });
        mLog.clear();
        mProxy->poll();
        EXPECT_EQ(mBoard->takeCalls(), kPollCalls);
        EXPECT_THAT(mLog.linesUpTo(Severity::Error),
                    ElementsAre(CapturedLine{
                        Severity::Error, "poll: " + inLog(call) + " failed with unknown error", {}, {}}));
        mBoard->mend(call);
    }
}

TEST_F(TempBoardProxyTest, OutlivesABoardThatFallsSilentInThePoll) {
    for (std::string const& call : kPollCalls) {
        mBoard->fail(call, "SDO time-out");
    }
    mProxy->poll();
    EXPECT_EQ(mBoard->takeCalls(), kPollCalls);
    EXPECT_EQ(mLog.linesUpTo(Severity::Error).size(), kPollCalls.size());
    EXPECT_THAT(samples(), IsEmpty());
}

TEST_F(TempBoardProxyTest, BeginsWithTheTargetsAndAPollEveryTenSeconds) {
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
    mProxy->init();
    EXPECT_THAT(
        mBoard->takeCalls(),
        ElementsAre("targetMagnetTemperature(1)", "isoBoxTargetTemperature()", "targetMagnetTemperature(2)",
                    "targetMagnetTemperature(3)", "targetMagnetTemperature(4)", "targetMagnetTemperature(5)",
                    "targetMagnetTemperature(6)", "shimTargetTemperature(1, true)",
                    "shimTargetTemperature(2, true)", "shimTargetTemperature(3, true)"));
    EXPECT_EQ(mLog.linesOf("TempBoardProxy").front(), (CapturedLine{Severity::Debug, "+singleShot", {}, {}}));
    EXPECT_EQ(mLog.linesOf("TempBoardProxy").back(), (CapturedLine{Severity::Debug, "-singleShot", {}, {}}));
    ASSERT_EQ(mCallers->jobs().size(), 1U);
    EXPECT_EQ(mCallers->jobs().front()->periodSeconds, 10.0);
    mCallers->jobs().front()->call();
    EXPECT_EQ(mBoard->takeCalls(), kPollCalls);
}

TEST_F(TempBoardProxyTest, ReadsNoTargetAgainAfterTheSingleShot) {
    mProxy->singleShot();
    mBoard->takeCalls();
    for (unsigned char id = 1; id <= 6; ++id) {
        mProxy->targetMagnetTemperature(id);
    }
    mProxy->isoBoxTargetTemperature();
    mProxy->shimTargetTemperature(1, false);
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(TempBoardProxyTest, EndsTheSingleShotAtTheFirstFailure) {
    mBoard->fail("targetMagnetTemperature(3)", "no answer", 1);
    mProxy->init();
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("targetMagnetTemperature(1)", "isoBoxTargetTemperature()",
                                                 "targetMagnetTemperature(2)", "targetMagnetTemperature(3)"));
    EXPECT_TRUE(mLog.has(Severity::Error, "singleShot failed with error no answer"));
    mBoard->onCall("targetMagnetTemperature(4)", [] { throw 42; });
    mProxy->singleShot();
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("targetMagnetTemperature(3)", "targetMagnetTemperature(4)"));
    EXPECT_TRUE(mLog.has(Severity::Error, "singleShot failed with unknown error"));
}

TEST_F(TempBoardProxyTest, EndsThePollWithItself) {
    mProxy->init();
    ASSERT_EQ(mCallers->jobs().size(), 1U);
    mProxy.reset();
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
}

TEST_F(TempBoardProxyTest, SpeaksUnderItsNameAndCategory) {
    mProxy->poll();
    auto const lines = mLog.linesOf("TempBoardProxy");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().category, "Temperature");
}

} // namespace
