// SPDX-License-Identifier: Apache-2.0
// The operations of the temperature service on a scripted board, without adjustable temperature.
#include "support/FakePeriodicCallers.h"
#include "temperature/TempBoardProxy.h"
#include "unit/temperature/TemperatureServiceFixture.h"

#include <fieldwarden/LockForTemperatureIfc.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::FakeTempBoard;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemperatureServiceTest;
using libfieldwarden::test::writeFile;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using velmor::kepla::datalogger::DataLoggerUnit;

constexpr char const* kRefused = "This system doesn't feature the adjustable temperature option.";

template <typename Exception, typename Run>
void expectThrow(Run aRun, std::string const& aWords) {
    try {
        aRun();
        ADD_FAILURE() << "nothing thrown";
    } catch (Exception const& error) {
        EXPECT_EQ(error.what(), aWords);
    }
}

/// A main record whose one iso box group has these values.
std::string isoBoxRecord(std::string const& aValues) {
    return "<record><group name=\"IsoBoxTempering\">" + aValues + "</group></record>";
}
std::string const kSmallPeltier = isoBoxRecord("<value>1</value><value>1</value><value>1</value>");
std::string const kBigPeltier = isoBoxRecord("<value>1</value><value>1</value><value>2</value>");

class TemperatureHardwareQ47Test : public TemperatureServiceTest {
protected:
    TemperatureHardwareQ47& service() {
        if (!mService) {
            mService = makeService(mCallers);
            mService->setListener(&mNews);
        }
        return *mService;
    }

    /// Makes the service and forgets what that left.
    TemperatureHardwareQ47& quietService() {
        service();
        mBoard->takeCalls();
        mLog.clear();
        mNews.take();
        return *mService;
    }

    /// Lines of the service itself.
    std::vector<CapturedLine> lines() const { return mLog.linesOf("TemperatureHardwareQ47"); }

    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    std::unique_ptr<TemperatureHardwareQ47> mService;
};

// -------------------------------------------------------------------------------------------- construction

TEST_F(TemperatureHardwareQ47Test, IsMadeInItsOrder) {
    mDeviceId->answer = [] { return kSmallPeltier; };
    mService = makeService(mCallers);
    auto said = lines();
    ASSERT_EQ(said.size(), 8U);
    EXPECT_EQ(said[6].severity, Severity::Error);
    EXPECT_THAT(said[6].text, StartsWith("Failed to read content of file at path '" + mVtuMdsPath.string() +
                                         "' with error '"));
    said.erase(said.begin() + 6);
    EXPECT_THAT(
        said,
        ElementsAre(
            CapturedLine{Severity::Trace, "creating temperature board proxy...", {}, {}},
            CapturedLine{Severity::Trace, "configuring IsoBox Peltier...", {}, {}},
            CapturedLine{
                Severity::Debug, "configureIsoBoxPeltier: got main MDS: '" + kSmallPeltier + "'", {}, {}},
            CapturedLine{Severity::Info,
                         "configureIsoBoxPeltier: isobox tempering peltier type 1 specified in MDS",
                         {},
                         {}},
            CapturedLine{Severity::Info, "configureIsoBoxPeltier: small peltier", {}, {}},
            CapturedLine{Severity::Trace, "creating AT controller...", {}, {}},
            CapturedLine{Severity::Trace, "initializing datalogger...", {}, {}}));
    EXPECT_EQ(lines().front().category, "Temperature");
    EXPECT_THAT(
        mBoard->takeCalls(),
        ElementsAre("targetMagnetTemperature(1)", "isoBoxTargetTemperature()", "targetMagnetTemperature(2)",
                    "targetMagnetTemperature(3)", "targetMagnetTemperature(4)", "targetMagnetTemperature(5)",
                    "targetMagnetTemperature(6)", "shimTargetTemperature(1, true)",
                    "shimTargetTemperature(2, true)", "shimTargetTemperature(3, true)",
                    "setIsoBoxTemperingMode(0)", "setupSavedOnEEPROM()", "setVTMode(0)",
                    "setupSavedOnEEPROM()"));
    ASSERT_EQ(mCallers->jobs().size(), 2U);
    EXPECT_EQ(mCallers->jobs()[0]->periodSeconds, 10.0);
    EXPECT_EQ(mCallers->jobs()[1]->periodSeconds, 10.0);
}

TEST_F(TemperatureHardwareQ47Test, EndsItsPeriodicCallsWithItself) {
    service();
    mService = nullptr;
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
}

TEST_F(TemperatureHardwareQ47Test, PassesOnWhyItCannotBeMade) {
    mBoard->fail("setVTMode", "the bus is gone");
    expectThrow<std::runtime_error>([&] { makeService(mCallers); }, "the bus is gone");
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Failed to initialize the temperature hardware control, error was the bus is gone"));
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
}

TEST_F(TemperatureHardwareQ47Test, TakesAFileThatCannotBeReadForASystemWithoutOption) {
    EXPECT_EQ(service().getProbeDeviceActiveChannel(), 0);
    EXPECT_TRUE(mLog.has(Severity::Info, "System doesn't have AT"));
}

TEST_F(TemperatureHardwareQ47Test, ReadsTheRecordOfTheVariableTemperatureUnit) {
    writeFile(mVtuMdsPath, "no record");
    service();
    bool found = false;
    for (CapturedLine const& line : mLog.linesOf("ATController")) {
        found = found || (line.severity == Severity::Error &&
                          line.text.starts_with("Failed to parse VTU MDS, will consider system doesn't have "
                                                "the AT option. Error was "));
    }
    EXPECT_TRUE(found);
    for (CapturedLine const& line : lines()) {
        EXPECT_FALSE(line.text.starts_with("Failed to read content")) << line.text;
    }
}

TEST_F(TemperatureHardwareQ47Test, TakesAFolderInPlaceOfTheRecordForASystemWithoutOption) {
    std::filesystem::create_directories(mVtuMdsPath);
    EXPECT_EQ(service().getProbeDeviceActiveChannel(), 0);
    EXPECT_EQ(service().getProbeTemperatureMeasurements(), "<temperature />");
    bool found = false;
    for (CapturedLine const& line : lines()) {
        found = found || (line.severity == Severity::Error &&
                          line.text.starts_with("Failed to read content of file at path '" +
                                                mVtuMdsPath.string() + "' with error '"));
    }
    EXPECT_TRUE(found);
}

TEST_F(TemperatureHardwareQ47Test, TakesARecordThatMakesNoSenseForASystemWithoutOption) {
    for (std::string const& record :
         {std::string(), std::string("<record>"), std::string("\0\1\2", 3), std::string("<flows/>")}) {
        SCOPED_TRACE(record);
        mService = nullptr;
        writeFile(mVtuMdsPath, record);
        EXPECT_EQ(service().getProbeDeviceActiveChannel(), 0);
        EXPECT_EQ(service().getProbeTemperatureMeasurements(), "<temperature />");
    }
}

TEST_F(TemperatureHardwareQ47Test, MakesItsChannelsInTheirOrder) {
    service();
    auto const infos = mDataLogger->infos();
    struct Golden {
        std::string path;
        std::string description;
        DataLoggerUnit unit;
    };
    std::vector<Golden> golden{
        {"temperatureBoard/magnet/stable",
         "Computed value. Is the magnet considered stable. Value also sent to Panorin.",
         DataLoggerUnit::Boolean},
        {"sample/in_magnet/from_basicsamplechangerserver",
         "Indicates if we expect a sample to be in the magnet or not. This is NOT a sensor but a computed "
         "value.",
         DataLoggerUnit::Boolean},
        {"sample/exchange_mode",
         "Indicates if we are in sample exchange mode, i.e. we are within a sample transfer.",
         DataLoggerUnit::Boolean},
        {"temperatureBoard/shim/globalMovingAverage", "Moving average of the shim global temperature",
         DataLoggerUnit::Kelvin},
        {"temperatureBoard/shim/globalInSpec", "Is the global temperature of the shim in spec?",
         DataLoggerUnit::Boolean},
        {"temperatureBoard/isobox/globalMovingAverage", "Moving average of the isobox global temperature",
         DataLoggerUnit::Kelvin},
    };
    for (std::string const number : {"1", "2", "3", "4", "5", "6"}) {
        golden.push_back({"temperatureBoard/magnet/temperatureMovingAverage/" + number,
                          "Moving average of the magnet sensor " + number, DataLoggerUnit::Kelvin});
    }
    for (std::string const number : {"1", "2", "3", "4", "5", "6"}) {
        golden.push_back({"temperatureBoard/magnet/temperatureInSpecs/" + number,
                          "Is the temperature measured by sensor " + number + " from magnet in spec?",
                          DataLoggerUnit::Boolean});
    }
    ASSERT_EQ(infos.size(), 45 + golden.size()); // behind those of the board
    for (std::size_t row = 0; row < golden.size(); ++row) {
        EXPECT_EQ(infos[45 + row].name(), golden[row].path);
        EXPECT_EQ(infos[45 + row].description, golden[row].description);
        EXPECT_EQ(infos[45 + row].unit, golden[row].unit) << golden[row].path;
        EXPECT_EQ(infos[45 + row].resolution, 0.001) << golden[row].path;
        EXPECT_TRUE(infos[45 + row].stats.isNone()) << golden[row].path;
    }
}

// ---------------------------------------------------------------------------------------------- iso box mode

TEST_F(TemperatureHardwareQ47Test, TakesTheBigPeltierWhereTheRecordSaysSo) {
    mDeviceId->answer = [] { return kBigPeltier; };
    mBoard->set("setupSavedOnEEPROM", false);
    service();
    EXPECT_TRUE(mLog.has(Severity::Info, "configureIsoBoxPeltier: big peltier"));
    auto const calls = mBoard->takeCalls();
    EXPECT_EQ(std::vector<std::string>(calls.begin() + 10, calls.begin() + 13),
              (std::vector<std::string>{"setIsoBoxTemperingMode(1)", "setupSavedOnEEPROM()",
                                        "saveSetupToEEPROM()"}));
}

TEST_F(TemperatureHardwareQ47Test, TakesTheSmallPeltierWithoutAGroup) {
    service();
    EXPECT_TRUE(mLog.has(Severity::Info, "No IsoBoxTempering group found in MDS, defaults to small peltier"));
    EXPECT_THAT(mBoard->takeCalls(), Contains("setIsoBoxTemperingMode(0)"));
}

TEST_F(TemperatureHardwareQ47Test, LeavesTheModeAloneForMoreThanOneGroup) {
    std::string const record =
        "<record><group name=\"IsoBoxTempering\"/><group name=\"IsoBoxTempering\"/>"
        "<group name=\"IsoBoxTempering\"/></record>";
    mDeviceId->answer = [&] { return std::string(record); };
    service();
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "configureIsoBoxPeltier: 3 IsoBoxTempering groups found, when max 1 "
                         "expected. MDS is '" +
                             record + "'"));
    EXPECT_TRUE(
        mLog.has(Severity::Error,
                 "Failed to configure the iso box peltier, error is Invalid MDS for IsoBoxTempering"));
    EXPECT_THAT(mBoard->takeCalls(), Not(Contains(HasSubstr("setIsoBoxTemperingMode"))));
}

TEST_F(TemperatureHardwareQ47Test, LeavesTheModeAloneForAnUnknownPeltier) {
    for (std::string const type : {"0", "3", "4294967295"}) {
        SCOPED_TRACE(type);
        mDeviceId->answer = [&] {
            return isoBoxRecord("<value>1</value><value>1</value><value>" + type + "</value>");
        };
        mService = nullptr;
        mLog.clear();
        mBoard->takeCalls();
        service();
        EXPECT_TRUE(mLog.has(Severity::Info, "configureIsoBoxPeltier: isobox tempering peltier type " + type +
                                                 " specified in MDS"));
        EXPECT_TRUE(mLog.has(Severity::Error, "configureIsoBoxPeltier: unknown peltier type"));
        EXPECT_TRUE(
            mLog.has(Severity::Error,
                     "Failed to configure the iso box peltier, error is Invalid MDS for IsoBoxTempering"));
        EXPECT_THAT(mBoard->takeCalls(), Not(Contains(HasSubstr("setIsoBoxTemperingMode"))));
    }
}

TEST_F(TemperatureHardwareQ47Test, LeavesTheModeAloneForARecordThatMakesNoSense) {
    for (std::string const& record :
         {std::string(), std::string("no record"), std::string("<record>"), isoBoxRecord(""),
          isoBoxRecord("<value>1</value><value>1</value>"),
          isoBoxRecord("<value>1</value><value>1</value><value>big</value>"),
          isoBoxRecord("<value>1</value><value>1</value><value></value>"),
          isoBoxRecord("<value>1</value><value>1</value><value>2.5</value>"),
          isoBoxRecord("<value>1</value><value>1</value><value>4294967298</value>"),
          isoBoxRecord("<value>1</value><value>1</value><value>-1</value>")}) {
        SCOPED_TRACE(record);
        mDeviceId->answer = [&] { return record; };
        mService = nullptr;
        mLog.clear();
        mBoard->takeCalls();
        service();
        bool found = false;
        for (CapturedLine const& line : lines()) {
            found = found || (line.severity == Severity::Error &&
                              line.text.starts_with("Failed to configure the iso box peltier, error is "));
        }
        EXPECT_TRUE(found);
        EXPECT_THAT(mBoard->takeCalls(), Not(Contains(HasSubstr("setIsoBoxTemperingMode"))));
    }
}

TEST_F(TemperatureHardwareQ47Test, TakesThePeltierFromTheThirdValueWhateverElseTheRecordHolds) {
    mDeviceId->answer = [] {
        return std::string(
            "<record><group name=\"Magnet\"><value>1</value><value>1</value><value>1</value></group>"
            "<group name=\"IsoBoxTempering\"><value>none</value><value/><value>2</value>"
            "<value>1</value><value>far</value></group></record>");
    };
    service();
    EXPECT_TRUE(
        mLog.has(Severity::Info, "configureIsoBoxPeltier: isobox tempering peltier type 2 specified in MDS"));
    EXPECT_TRUE(mLog.has(Severity::Info, "configureIsoBoxPeltier: big peltier"));
    EXPECT_THAT(mBoard->takeCalls(), Contains("setIsoBoxTemperingMode(1)"));
}

TEST_F(TemperatureHardwareQ47Test, GoesOnWhenTheIsoBoxCannotBeSetUp) {
    mDeviceId->answer = []() -> std::string { throw std::runtime_error("no such record"); };
    service();
    EXPECT_TRUE(
        mLog.has(Severity::Error, "Failed to configure the iso box peltier, error is no such record"));
    mService = nullptr;
    mDeviceId->answer = []() -> std::string { throw 42; };
    service();
    EXPECT_TRUE(mLog.has(Severity::Error, "Failed to configure the iso box peltier. No details available."));
    mService = nullptr;
    mDeviceId->answer = [] { return kBigPeltier; };
    mBoard->fail("setIsoBoxTemperingMode", "no answer");
    service();
    EXPECT_TRUE(mLog.has(Severity::Error, "Failed to configure the iso box peltier, error is no answer"));
    EXPECT_EQ(mCallers->jobs().size(), 2U);
}

// ---------------------------------------------------------------------------------------------- quantities

TEST_F(TemperatureHardwareQ47Test, GivesTheMagnetsTemperatureWithItsBand) {
    mBoard->set("magnetTemperature", 299.5);
    mBoard->set("targetMagnetTemperature(1)", 300.0);
    auto const value = quietService().getMagnetTemperature();
    EXPECT_EQ(value.value, 299.5);
    EXPECT_DOUBLE_EQ(value.upper, 300.02);
    EXPECT_DOUBLE_EQ(value.lower, 299.98);
    EXPECT_EQ(value.format, "1.3");
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("magnetTemperature()")); // the target is known
    EXPECT_THAT(lines(), ElementsAre(CapturedLine{
                             Severity::Trace, "TemperatureHardwareQ47::getMagnetTemperature()", {}, {}}));
    EXPECT_THAT(mNews.take(), ElementsAre("magnetTemperature = 299.5"));
}

TEST_F(TemperatureHardwareQ47Test, GivesTheMagnetsTarget) {
    mBoard->set("targetMagnetTemperature(1)", 300.0);
    EXPECT_EQ(quietService().getTargetMagnetTemperature(), 300.0);
    EXPECT_THAT(lines(),
                ElementsAre(CapturedLine{
                    Severity::Trace, "TemperatureHardwareQ47::getTargetMagnetTemperature()", {}, {}}));
}

TEST_F(TemperatureHardwareQ47Test, SaysThatTheMagnetIsNotReadyAtFirst) {
    EXPECT_FALSE(quietService().isMagnetReady());
    EXPECT_THAT(lines(), ElementsAre(CapturedLine{
                             Severity::Trace, "TemperatureHardwareQ47::isMagnetReady()", {}, {}}));
}

TEST_F(TemperatureHardwareQ47Test, GivesTheProbesTemperatureWithAnEmptyRange) {
    mBoard->set("probeTemperature", 0.0);
    auto const value = quietService().getProbeTemperature();
    EXPECT_EQ(value.value, 0.0);
    EXPECT_EQ(value.lower, 273.15); // the board's
    EXPECT_EQ(value.upper, 0.0);    // there is no table of flows
    EXPECT_EQ(value.format, "1.1");
    EXPECT_THAT(mBoard->takeCalls(),
                ElementsAre("probeTemperature()", "probeGasRegulatedTemperatureRange()"));
    EXPECT_THAT(lines(), ElementsAre(CapturedLine{
                             Severity::Trace, "TemperatureHardwareQ47::getProbeTemperature()", {}, {}}));
}

TEST_F(TemperatureHardwareQ47Test, GivesTheShimCoilsInCelsius) {
    mBoard->set("shimTemperature", 298.40);
    mBoard->set("shimTargetTemperature", 298.35);
    auto const value = quietService().getShimCoilTemperature();
    EXPECT_NEAR(value.value, 25.05, 1e-9); // 298.40 + 298.15 - 298.35 - 273.15
    EXPECT_DOUBLE_EQ(value.upper, 25.02);
    EXPECT_DOUBLE_EQ(value.lower, 24.98);
    EXPECT_EQ(value.format, "1.3");
    EXPECT_THAT(lines(), ElementsAre(CapturedLine{
                             Severity::Trace, "TemperatureHardwareQ47::getShimCoilTemperature()", {}, {}}));
}

TEST_F(TemperatureHardwareQ47Test, GivesTheIsoBoxWithItsBand) {
    mBoard->set("isoBoxTemperature", 303.0);
    mBoard->set("isoBoxTargetTemperature", 302.0);
    auto const value = quietService().getIsoBoxTemperature();
    EXPECT_EQ(value.value, 303.0);
    EXPECT_DOUBLE_EQ(value.upper, 302.3);
    EXPECT_DOUBLE_EQ(value.lower, 301.7);
    EXPECT_EQ(value.format, "1.3");
    EXPECT_THAT(lines(), ElementsAre(CapturedLine{
                             Severity::Trace, "TemperatureHardwareQ47::getIsoBoxTemperature()", {}, {}}));
}

TEST_F(TemperatureHardwareQ47Test, PassesOnThatTheBoardDoesNotAnswer) {
    for (char const* const call : {"magnetTemperature", "probeTemperature", "shimTemperature",
                                   "isoBoxTemperature", "probeGasHeatingSpiralPower"}) {
        mBoard->fail(call, "silent");
    }
    auto& service = quietService();
    expectThrow<std::runtime_error>([&] { service.getMagnetTemperature(); }, "silent");
    expectThrow<std::runtime_error>([&] { service.getProbeTemperature(); }, "silent");
    expectThrow<std::runtime_error>([&] { service.getShimCoilTemperature(); }, "silent");
    expectThrow<std::runtime_error>([&] { service.getIsoBoxTemperature(); }, "silent");
    expectThrow<std::runtime_error>([&] { service.getProbeActualPower(); }, "silent");
    expectThrow<std::runtime_error>([&] { service.probeTemperature(); }, "silent");
}

TEST_F(TemperatureHardwareQ47Test, GivesWhatIsFixed) {
    auto& service = quietService();
    EXPECT_EQ(service.getProbeChillerType(), 0);
    EXPECT_EQ(service.getProbeChillerActualPowerParameterName(), "");
    EXPECT_EQ(service.getProbeChillerTargetPowerParameterName(), "");
    EXPECT_EQ(service.getProbeChillerStatus(), 0);
    EXPECT_EQ(service.getProbeTargetGasFlowForStandby(), 0.0);
    EXPECT_EQ(service.getProbeGasMode(), 0);
    EXPECT_EQ(service.getProbeDeviceAccessoryChannel(), 0);
    EXPECT_EQ(service.getProbeMeasuredSafetyTemperature(), 0.0);
    EXPECT_EQ(service.getProbeFullPower(), 43.0);
    EXPECT_EQ(service.getProbeMaximumPower(), 43.0);
    service.beginOfOneParameterSet();
    service.endOfOneParameterSet();
    service.cancelOfOneParameterSet();
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
    EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(TemperatureHardwareQ47Test, OnlyKeepsTheMaximumSafetyTemperature) {
    EXPECT_EQ(quietService().getProbeMaximumSafetyTemperature(), 0.0);
    service().setProbeMaximumSafetyTemperature(-12.5);
    EXPECT_EQ(service().getProbeMaximumSafetyTemperature(), -12.5);
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(TemperatureHardwareQ47Test, GivesThePowerOfTheHeatingSpiral) {
    mBoard->set("probeGasHeatingSpiralPower", 7.5);
    EXPECT_EQ(quietService().getProbeActualPower(), 7.5);
    EXPECT_THAT(mNews.take(), ElementsAre("probeActualPower = 7.5"));
}

// ---------------------------------------------------------------------------------------- without the option

TEST_F(TemperatureHardwareQ47Test, GivesWhatIsKnownOfAProbeWithoutOption) {
    auto& service = quietService();
    EXPECT_EQ(service.getProbeTemperatureStatus(), ProbeTemperatureGlobalStatus::Off);
    EXPECT_EQ(service.getProbeMeasuredGasFlow(), 0.0);
    EXPECT_EQ(service.getProbeTargetGasFlowForOperation(), 0.0);
    EXPECT_EQ(service.getProbeGasFlowStatus(), ProbeTemperatureControlGasFlowStatus::Off);
    EXPECT_EQ(service.getProbeDeviceActiveChannel(), 0);
    EXPECT_EQ(service.getProbeTemperatureRegulatorStatus(), 0);
    EXPECT_EQ(service.getProbeTemperatureRegulatorMode(), ProbeTemperatureControlStatus::Off);
    EXPECT_EQ(service.getProbeTemperatureRegulatorStability(), TemperatureStability::NotYetStable);
    EXPECT_EQ(service.getTargetProbeTemperature(), 0.0);
    EXPECT_TRUE(mLog.has(Severity::Trace, "TemperatureHardwareQ47::getTargetProbeTemperature()"));
    EXPECT_EQ(service.getProbeGasFlowList(), "<flows><flow valueLiterPerHour=\"0\" /></flows>");
    EXPECT_EQ(service.getProbeTemperatureMeasurements(), "<temperature />");
    EXPECT_FALSE(service.atEnabled());
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(TemperatureHardwareQ47Test, RefusesToRegulateAProbeWithoutOption) {
    auto& service = quietService();
    expectThrow<std::runtime_error>([&] { service.setTargetProbeTemperature(300.0); }, kRefused);
    EXPECT_TRUE(mLog.has(Severity::Info,
                         "TemperatureHardwareQ47::setTargetProbeTemperature(temperature = 300.000000)"));
    expectThrow<std::runtime_error>(
        [&] { service.setProbeTemperatureStatus(ProbeTemperatureGlobalStatus::On); }, kRefused);
    EXPECT_TRUE(mLog.has(Severity::Info, "setProbeTemperatureStatus(status = 1)"));
    expectThrow<std::runtime_error>(
        [&] { service.setProbeTemperatureStatus(ProbeTemperatureGlobalStatus::Off); }, kRefused);
    EXPECT_TRUE(mLog.has(Severity::Info, "setProbeTemperatureStatus(status = 0)"));
    expectThrow<std::runtime_error>([&] { service.setProbeGasFlowForOperation(200.0); }, kRefused);
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(TemperatureHardwareQ47Test, RefusesAStatusThatNobodyKnows) {
    auto& service = quietService();
    for (int const status : {2, 7, -1}) {
        SCOPED_TRACE(status);
        mLog.clear();
        expectThrow<std::invalid_argument>(
            [&] { service.setProbeTemperatureStatus(static_cast<ProbeTemperatureGlobalStatus>(status)); },
            "Invalid probe temperature status requested");
        std::string const number = std::to_string(status);
        EXPECT_THAT(
            mLog.lines(),
            ElementsAre(
                CapturedLine{Severity::Info, "setProbeTemperatureStatus(status = " + number + ")", {}, {}},
                CapturedLine{Severity::Error,
                             "setProbeTemperatureStatus(requested = " + number + "): invalid status",
                             {},
                             {}}));
    }
}

TEST_F(TemperatureHardwareQ47Test, TellsTheLimitsOfTheProbesTarget) {
    quietService().setProbeTemperatureMax(320.0);
    EXPECT_THAT(mNews.take(),
                ElementsAre("probeTargetTemperatureMinimum = 273.15", "probeTargetTemperatureMaximum = 0"));
    mBoard->set("probeGasRegulatedTemperatureRange", FakeTempBoard::Range{0.0, 0.0});
    service().setProbeTemperatureMin(0.0);
    EXPECT_THAT(mNews.take(),
                ElementsAre("probeTargetTemperatureMinimum = 0", "probeTargetTemperatureMaximum = 0"));
}

TEST_F(TemperatureHardwareQ47Test, TellsNoLimitsThatWereRefused) {
    auto& service = quietService();
    expectThrow<std::invalid_argument>([&] { service.setProbeTemperatureMin(-1.0); },
                                       "Minimal probe's temperature must be higher than 0K");
    expectThrow<std::invalid_argument>([&] { service.setProbeTemperatureMax(-1.0); },
                                       "Maximal probe's temperature must be higher than 0K");
    // The range begins above the target, which cannot go along.
    expectThrow<std::runtime_error>([&] { service.setProbeTemperatureMin(280.0); }, kRefused);
    EXPECT_THAT(mNews.take(), IsEmpty());
}

// ------------------------------------------------------------------------------------------- sample exchange

TEST_F(TemperatureHardwareQ47Test, KeepsTheModeOfTheSampleExchange) {
    auto& service = quietService();
    EXPECT_FALSE(service.getAirFlowForSampleExchange());
    service.setAirFlowForSampleExchange(true);
    EXPECT_TRUE(service.getAirFlowForSampleExchange());
    service.setSampleInMagnetForAirFlow(false);
    service.setAirFlowForSampleExchange(false);
    EXPECT_FALSE(service.getAirFlowForSampleExchange());
    EXPECT_THAT(
        mLog.lines(),
        ElementsAre(CapturedLine{Severity::Info,
                                 "+setAirFlowForSampleExchange(sampleExchange = 1, mSampleInMagnet = 1)",
                                 {},
                                 {}},
                    CapturedLine{Severity::Info, "+prepareTransfer", {}, {}},
                    CapturedLine{Severity::Debug, "setSampleInMagnetForAirFlow(sampleInMagnet = 0)", {}, {}},
                    CapturedLine{Severity::Info,
                                 "+setAirFlowForSampleExchange(sampleExchange = 0, mSampleInMagnet = 0)",
                                 {},
                                 {}},
                    CapturedLine{Severity::Info, "+completeTransfer(sample_in_magnet = 0)", {}, {}}));
    EXPECT_THAT(values("sample/exchange_mode"), ElementsAre(1.0, 0.0));
    EXPECT_THAT(values("sample/in_magnet/from_basicsamplechangerserver"), ElementsAre(0.0));
    EXPECT_EQ(mDataLogger->pushes("sample/exchange_mode").front().time, mClock->systemNow());
    service.setSampleInMagnetForAirFlow(true);
    EXPECT_THAT(values("sample/in_magnet/from_basicsamplechangerserver"), ElementsAre(0.0, 1.0));
}

// ---------------------------------------------------------------------------------------- shim cooling mode

TEST_F(TemperatureHardwareQ47Test, RefusesAShimCoolingModeThatNobodyKnows) {
    auto& service = quietService();
    for (int const mode : {-1, 2, 2147483647}) {
        SCOPED_TRACE(mode);
        mLog.clear();
        expectThrow<std::invalid_argument>(
            [&] { service.setShimCoolingMode(mode); },
            "The requested shim cooling mode is not supported on this hardware.");
        EXPECT_THAT(mLog.lines(), ElementsAre(CapturedLine{Severity::Error,
                                                           "setShimCoolingMode: unsupported mode requested " +
                                                               std::to_string(mode),
                                                           {},
                                                           {}}));
    }
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(TemperatureHardwareQ47Test, LeavesAShimCoolingModeThatTheBoardHasAlready) {
    quietService().setShimCoolingMode(0);
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("shimTemperingMode()"));
    EXPECT_THAT(mLog.lines(),
                ElementsAre(CapturedLine{Severity::Debug, "Setting the shim cooling mode to 0", {}, {}}));
}

TEST_F(TemperatureHardwareQ47Test, ChangesAndSavesTheShimCoolingMode) {
    auto& service = quietService();
    mBoard->set("setupSavedOnEEPROM", false);
    service.setShimCoolingMode(1);
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("shimTemperingMode()", "setShimTemperingMode(1)",
                                                 "setupSavedOnEEPROM()", "saveSetupToEEPROM()"));
    EXPECT_THAT(
        mLog.lines(),
        ElementsAre(CapturedLine{Severity::Debug, "Setting the shim cooling mode to 1", {}, {}},
                    CapturedLine{Severity::Warning, "Changing shim cooling mode from 0 to 1", {}, {}}));
    mBoard->set("setupSavedOnEEPROM", true);
    service.setShimCoolingMode(1);
    EXPECT_THAT(mBoard->takeCalls(),
                ElementsAre("shimTemperingMode()", "setShimTemperingMode(1)", "setupSavedOnEEPROM()"));
}

// ------------------------------------------------------------------------------------- lock, board, listener

TEST_F(TemperatureHardwareQ47Test, MovesTheShimCoilsForTheLock) {
    ShimTargetTemperatureIfc& forLock = quietService();
    EXPECT_EQ(forLock.shimTargetTemperature(false), 298.15);
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
    forLock.setShimTargetTemperature(298.45);
    EXPECT_EQ(forLock.shimTargetTemperature(false), 298.45);
    EXPECT_EQ(forLock.shimTargetTemperature(true), 298.15);
    mBoard->set("probeTemperature", 299.0);
    EXPECT_EQ(forLock.probeTemperature(), 299.0);
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("setShimTargetTemperature(1, 298.45)",
                                                 "shimTargetTemperature(1, true)", "probeTemperature()"));
}

TEST_F(TemperatureHardwareQ47Test, HoldsTheLockUntilItIsTakenAway) {
    struct Lock : LockForTemperatureIfc {
        bool shimCoilTargetTemperatureRegulationArmed() const override { return false; }
    };
    auto lock = std::make_shared<Lock>();
    std::weak_ptr<Lock> const watched = lock;
    service().setLock(std::move(lock));
    EXPECT_FALSE(watched.expired());
    service().setLock(nullptr);
    EXPECT_TRUE(watched.expired());
}

TEST_F(TemperatureHardwareQ47Test, GivesTheBoardBehindItsProxy) {
    EXPECT_NE(std::dynamic_pointer_cast<TempBoardProxy>(service().board()), nullptr);
}

TEST_F(TemperatureHardwareQ47Test, GivesTheRecordOfTheBoardOrNothing) {
    mBoard->set("mds", "a record");
    EXPECT_EQ(quietService().tempBoardMDS(), "a record");
    mBoard->fail("mds", "silent");
    EXPECT_EQ(service().tempBoardMDS(), "");
    EXPECT_TRUE(mLog.has(Severity::Error, "Failed to get the MDS of the temperature board. Error silent"));
    mBoard->onCall("mds", [] { throw 42; });
    EXPECT_EQ(service().tempBoardMDS(), "");
    EXPECT_TRUE(mLog.has(Severity::Error, "Failed to get the MDS of the temperature board. Unknown error"));
}

TEST_F(TemperatureHardwareQ47Test, HasOneListenerThatIsNotNull) {
    auto& service = quietService();
    expectThrow<std::invalid_argument>([&] { service.setListener(nullptr); }, "Invalid temperature listener");
    mBoard->set("magnetTemperature", 299.0);
    service.getMagnetTemperature();
    EXPECT_THAT(mNews.take(), ElementsAre("magnetTemperature = 299"));
    service.removeListener();
    mBoard->set("magnetTemperature", 300.0);
    service.getMagnetTemperature();
    EXPECT_THAT(mNews.take(), IsEmpty());
}

TEST_F(TemperatureHardwareQ47Test, MayBeUsedWhileItJudges) {
    auto& service = quietService();
    service.removeListener();
    std::thread judge([this] {
        for (int poll = 0; poll < 60; ++poll) {
            for (auto const& job : mCallers->jobs()) {
                job->call();
            }
        }
    });
    for (int turn = 0; turn < 200; ++turn) {
        service.isMagnetReady();
        service.getMagnetTemperature();
        service.getShimCoilTemperature();
        service.setShimTargetTemperature(298.15);
        service.setSampleInMagnetForAirFlow(turn % 2 == 0);
        service.setAirFlowForSampleExchange(turn % 2 == 0);
        service.setProbeMaximumSafetyTemperature(turn);
        service.setLock(nullptr);
        service.atEnabled();
    }
    judge.join();
    EXPECT_TRUE(service.isMagnetReady());
}

} // namespace
