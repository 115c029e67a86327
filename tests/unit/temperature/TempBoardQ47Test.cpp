// SPDX-License-Identifier: Apache-2.0
// Every operation of the temperature board against a scripted dictionary: object, scale, words and severity.
#include "TempBoardFixture.h"

#include <velmor/kepla/canopen/CanLinkError.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using libfieldwarden::test::expectThrow;
using libfieldwarden::test::FakeCanOpenNode;
using libfieldwarden::test::line;
using libfieldwarden::test::ScriptedTempBoard;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TempBoardTest;
using testing::ElementsAre;
using testing::IsEmpty;

class TempBoardQ47Test : public TempBoardTest {
protected:
    /// Holds a getter to its object, its operation on the bus and its value, without a line in the log.
    void expectReading(std::uint16_t aIndex,
                       std::uint8_t aSubindex,
                       std::int64_t aOnTheBus,
                       std::string const& aAccess,
                       std::function<double(ScriptedTempBoard&)> const& aGetter,
                       double aExpected) {
        mNode->set(aIndex, aSubindex, aOnTheBus);
        EXPECT_DOUBLE_EQ(aGetter(*mBoard), aExpected) << aAccess;
        EXPECT_THAT(calls(), ElementsAre(aAccess));
    }
};

constexpr char const* kNoAT =
    "This system doesn't have the AT option: the requested operation cannot be performed";

// -------------------------------------------------------------------------------------------- life cycle

TEST_F(TempBoardQ47Test, SpeaksUnderItsCanIdInTheTemperatureCategory) {
    auto const node = std::make_shared<FakeCanOpenNode>(static_cast<unsigned char>(19));
    auto const board = std::make_shared<ScriptedTempBoard>(node, mMaster);
    board->setVTMode(VTMode::None);
    auto const all = mLog.linesOf("TempBoardQ47(canID = 19)");
    ASSERT_THAT(all, ElementsAre(line(Severity::Info, "VT Mode will be set to 0")));
    EXPECT_EQ(all.front().category, "Temperature");
}

TEST_F(TempBoardQ47Test, DoesNotTalkToTheBoardWhenItIsMadeNorWhenItGoes) {
    mBoard.reset();
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(TempBoardQ47Test, NeedsAMaster) {
    EXPECT_THROW(ScriptedTempBoard(mNode, nullptr), std::invalid_argument);
}

TEST_F(TempBoardQ47Test, HasNoWayToTheRecordOfTheFlowBox) {
    expectThrow<std::runtime_error>([&] { mBoard->mdsOfATFlowBox(); }, "Not implemented");
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(TempBoardQ47Test, PassesTheFailuresOfTheBusOnAndGoesOnAfterwards) {
    using velmor::kepla::canopen::CanLinkError;
    mNode->set(0x3001, 1, 30000);
    mNode->fail(0x3001, 1, "node 7, 0x3001:01: no answer in time", 1);
    expectThrow<std::runtime_error>([&] { mBoard->magnetTemperature(); },
                                    "node 7, 0x3001:01: no answer in time");
    EXPECT_DOUBLE_EQ(mBoard->magnetTemperature(), 303.15);
    mNode->onAccess(0x3001, 1, [] { throw CanLinkError(CanLinkError::Reason::BusOff, "can0 is bus-off"); });
    expectThrow<CanLinkError>([&] { mBoard->magnetTemperature(); }, "can0 is bus-off");
    mNode->onAccess(0x3001, 1, {});
    EXPECT_DOUBLE_EQ(mBoard->magnetTemperature(), 303.15);
}

// ------------------------------------------------------------------------------------- plain readings

TEST_F(TempBoardQ47Test, ReadsTheMagnetInKelvin) {
    // 30.000 + 273.15
    expectReading(
        0x3001, 1, 30000, "readUInt16 3001:01", [](auto& b) { return b.magnetTemperature(); }, 303.15);
    for (std::uint8_t id = 1; id <= 6; ++id) { // 28.001 + 273.15 at subindex 2, up to 28.006 at 7
        expectReading(
            0x3001, static_cast<std::uint8_t>(id + 1), 28000 + id,
            "readUInt16 3001:0" + std::to_string(id + 1),
            [id](auto& b) { return b.magnetTemperatureSensor(id); }, (28000.0 + id) / 1000.0 + 273.15);
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TempBoardQ47Test, ReadsTheWholeRangeOfSixteenBitsWithoutSign) {
    expectReading(
        0x3001, 1, 0, "readUInt16 3001:01", [](auto& b) { return b.magnetTemperature(); }, 273.15);
    // 65.535 + 273.15
    expectReading(
        0x3001, 1, 65535, "readUInt16 3001:01", [](auto& b) { return b.magnetTemperature(); }, 338.685);
}

TEST_F(TempBoardQ47Test, ReadsMagnetHeatersInVolt) {
    for (std::uint8_t id = 1; id <= 6; ++id) { // 12.501 V to 12.506 V
        expectReading(
            0x3002, id, 12500 + id, "readUInt16 3002:0" + std::to_string(id),
            [id](auto& b) { return b.magnetHeaterVoltage(id); }, (12500.0 + id) / 1000.0);
    }
}

TEST_F(TempBoardQ47Test, ReadsMagnetTargetsBehindTheOneThatIsWritten) {
    for (std::uint8_t id = 1; id <= 7; ++id) {
        expectReading(
            0x3004, static_cast<std::uint8_t>(id + 1), 30000 + id,
            "readUInt16 3004:0" + std::to_string(id + 1),
            [id](auto& b) { return b.targetMagnetTemperature(id); }, (30000.0 + id) / 1000.0 + 273.15);
    }
}

TEST_F(TempBoardQ47Test, ReadsTheShimCoilsInKelvin) {
    // 25.000 + 273.15
    expectReading(
        0x3101, 1, 25000, "readUInt16 3101:01", [](auto& b) { return b.shimTemperature(); }, 298.15);
    // 25.100 + 273.15
    expectReading(
        0x3101, 2, 25100, "readUInt16 3101:02", [](auto& b) { return b.shimTemperatureSensor(1); }, 298.25);
    expectReading(
        0x3101, 3, 25200, "readUInt16 3101:03", [](auto& b) { return b.shimTemperatureSensor(2); }, 298.35);
}

TEST_F(TempBoardQ47Test, ReadsShimTargetsFromTheHardwareWhateverTheFlagSays) {
    for (bool const fromHardware : {false, true}) {
        for (std::uint8_t id = 1; id <= 3; ++id) {
            expectReading(
                0x3104, id, 25000 + id, "readUInt16 3104:0" + std::to_string(id),
                [=](auto& b) { return b.shimTargetTemperature(id, fromHardware); },
                (25000.0 + id) / 1000.0 + 273.15);
        }
    }
}

TEST_F(TempBoardQ47Test, ReadsTheIsoBox) {
    expectReading(
        0x3201, 1, 31000, "readUInt16 3201:01", [](auto& b) { return b.isoBoxTemperature(); }, 304.15);
    // 31.500 + 273.15
    expectReading(
        0x3204, 1, 31500, "readUInt16 3204:01", [](auto& b) { return b.isoBoxTargetTemperature(); }, 304.65);
    // 2500 of 10000
    expectReading(
        0x3202, 1, 2500, "readUInt16 3202:01", [](auto& b) { return b.isoBoxPeltierCurrentPercent(); }, 0.25);
    expectReading(
        0x3205, 1, 2, "readUInt8 3205:01", [](auto& b) { return static_cast<double>(b.isoBoxFanSpeed()); },
        2.0);
}

TEST_F(TempBoardQ47Test, CountsIsoBoxSensorsFromTheIsoBoxItselfUnlikeThoseOfTheMagnet) {
    for (std::uint8_t id = 1; id <= 6; ++id) {
        expectReading(
            0x3201, id, 31000 + id, "readUInt16 3201:0" + std::to_string(id),
            [id](auto& b) { return b.isoBoxTemperatureSensor(id); }, (31000.0 + id) / 1000.0 + 273.15);
    }
    mNode->set(0x3001, 1, 1000);
    mNode->set(0x3001, 2, 2000);
    EXPECT_DOUBLE_EQ(mBoard->isoBoxTemperatureSensor(1), mBoard->isoBoxTemperature());
    EXPECT_NE(mBoard->magnetTemperatureSensor(1), mBoard->magnetTemperature());
}

TEST_F(TempBoardQ47Test, ReadsTheProbeTargetWithOrWithoutTheATOption) {
    // -40.000 + 273.15
    expectReading(
        0x3304, 1, -40000, "readInt32 3304:01", [](auto& b) { return b.targetProbeTemperature(); }, 233.15);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TempBoardQ47Test, RefusesIdsThatItDoesNotHaveWithoutAskingTheBoard) {
    for (int const each : {0, 7, 255}) {
        auto const id = static_cast<unsigned char>(each);
        expectThrow<std::runtime_error>([&] { mBoard->magnetTemperatureSensor(id); },
                                        "Unknown sensor requested");
        expectThrow<std::runtime_error>([&] { mBoard->isoBoxTemperatureSensor(id); },
                                        "Unknown sensor requested");
        expectThrow<std::invalid_argument>([&] { mBoard->magnetHeaterVoltage(id); },
                                           "Unknown magnet heater voltage requested");
    }
    for (int const each : {0, 3, 255}) {
        auto const id = static_cast<unsigned char>(each);
        expectThrow<std::runtime_error>([&] { mBoard->shimTemperatureSensor(id); },
                                        "Unknown sensor requested");
    }
    for (int const each : {0, 8, 255}) {
        auto const id = static_cast<unsigned char>(each);
        expectThrow<std::invalid_argument>([&] { mBoard->targetMagnetTemperature(id); },
                                           "Invalid target magnet temperature requested");
    }
    for (int const each : {0, 4, 255}) {
        auto const id = static_cast<unsigned char>(each);
        expectThrow<std::invalid_argument>([&] { mBoard->shimTargetTemperature(id, true); },
                                           "Unknown shim target temperature requested");
        expectThrow<std::invalid_argument>([&] { mBoard->setShimTargetTemperature(id, 298.15); },
                                           "Unknown shim target temperature requested");
    }
    EXPECT_THAT(calls(), IsEmpty());
}

// ----------------------------------------------------------------------------------------------- targets

TEST_F(TempBoardQ47Test, SetsTheMagnetTargetAsGivenWithoutConversion) {
    mBoard->setTargetMagnetTemperature(25.5); // 25.5 * 1000
    mBoard->setTargetMagnetTemperature(70.0); // 70000 - 65536
    EXPECT_THAT(calls(), ElementsAre("writeUInt16 3004:01 25500", "writeUInt16 3004:01 4464"));
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TempBoardQ47Test, SetsAMagnetTargetOutOfAllRangesToADefinedNumber) {
    mBoard->setTargetMagnetTemperature(-0.5);
    mBoard->setTargetMagnetTemperature(std::numeric_limits<double>::quiet_NaN());
    mBoard->setTargetMagnetTemperature(1e300); // 0xFFFFFFFF & 0xFFFF
    EXPECT_THAT(calls(),
                ElementsAre("writeUInt16 3004:01 0", "writeUInt16 3004:01 0", "writeUInt16 3004:01 65535"));
}

TEST_F(TempBoardQ47Test, SetsShimTargetsInThousandthsOfADegreeCelsius) {
    mBoard->setShimTargetTemperature(1, 300.0); // 300 - 273.15 = 26.85
    mBoard->setShimTargetTemperature(3, 273.0); // below zero
    EXPECT_THAT(calls(), ElementsAre("writeUInt16 3104:01 26850", "writeUInt16 3104:03 0"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "setShimTargetTemperature(id = 1, kelvin = 300.000000)"),
                            line(Severity::Info, "setShimTargetTemperature(id = 3, kelvin = 273.000000)")));
}

TEST_F(TempBoardQ47Test, LeavesALineOfARefusedShimTarget) {
    EXPECT_THROW(mBoard->setShimTargetTemperature(4, 298.15), std::invalid_argument);
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "setShimTargetTemperature(id = 4, kelvin = 298.150000)")));
}

// ------------------------------------------------------------------------------------------------- modes

TEST_F(TempBoardQ47Test, AsksForTheVTModeOnlyOnce) {
    mNode->set(0x3401, 5, 2);
    EXPECT_EQ(mBoard->vtMode(), VTMode::PortExpander);
    mNode->set(0x3401, 5, 0);
    EXPECT_EQ(mBoard->vtMode(), VTMode::PortExpander);
    EXPECT_TRUE(mBoard->hasAT());
    EXPECT_THAT(calls(), ElementsAre("readUInt8 3401:05"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "Reading VT mode from hardware"),
                                     line(Severity::Info, "VT mode is currently: 2")));
}

TEST_F(TempBoardQ47Test, KnowsTheVTModeThatItHasSet) {
    mBoard->setVTMode(VTMode::PortExpander);
    EXPECT_EQ(mBoard->vtMode(), VTMode::PortExpander);
    EXPECT_THAT(calls(), ElementsAre("writeUInt8 3401:05 2"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "VT Mode will be set to 2")));
}

TEST_F(TempBoardQ47Test, KeepsTheFormerVTModeWhenItCannotBeSet) {
    know(VTMode::Prototype);
    mNode->fail(0x3401, 5, "node 7 does not answer");
    EXPECT_THROW(mBoard->setVTMode(VTMode::None), std::runtime_error);
    EXPECT_EQ(mBoard->vtMode(), VTMode::Prototype);
}

TEST_F(TempBoardQ47Test, AsksAgainUntilTheBoardTellsAVTModeThatIsKnown) {
    mNode->set(0x3401, 5, 3);
    for (int attempt = 0; attempt < 2; ++attempt) {
        expectThrow<std::runtime_error>([&] { mBoard->hasAT(); }, "Unknown value for the VT mode");
        EXPECT_THAT(lines(),
                    ElementsAre(line(Severity::Debug, "Reading VT mode from hardware"),
                                line(Severity::Info, "VT mode is currently: 3"),
                                line(Severity::Error, "Unknown value for the VT mode (0x3401, 0x05): 0x03")));
    }
    mNode->set(0x3401, 5, 1);
    EXPECT_TRUE(mBoard->hasAT());
    EXPECT_THAT(calls(), ElementsAre("readUInt8 3401:05", "readUInt8 3401:05", "readUInt8 3401:05"));
}

TEST_F(TempBoardQ47Test, TellsTheUnknownVTModeInHexadecimal) {
    mNode->set(0x3401, 5, 254);
    EXPECT_THROW(mBoard->vtMode(), std::runtime_error);
    EXPECT_TRUE(mLog.has(Severity::Error, "Unknown value for the VT mode (0x3401, 0x05): 0xFE"));
}

TEST_F(TempBoardQ47Test, TakesAVTModeThatIsSetDuringAReadForTheNewerOne) {
    mNode->set(0x3401, 5, 1);
    mNode->onAccess(0x3401, 5, [&] {
        mNode->onAccess(0x3401, 5, {});
        mBoard->setVTMode(VTMode::None);
    });
    EXPECT_EQ(mBoard->vtMode(), VTMode::None);
    EXPECT_EQ(mBoard->vtMode(), VTMode::None);
}

TEST_F(TempBoardQ47Test, HasTheATOptionInEveryModeButNone) {
    for (auto const& [mode, expected] :
         {std::pair{VTMode::None, false}, {VTMode::Prototype, true}, {VTMode::PortExpander, true}}) {
        mBoard->setVTMode(mode);
        EXPECT_EQ(mBoard->hasAT(), expected);
    }
}

TEST_F(TempBoardQ47Test, AsksForTheShimTemperingModeEachTime) {
    mNode->set(0x3401, 4, 0);
    EXPECT_EQ(mBoard->shimTemperingMode(), ShimTemperingMode::Mode0);
    mNode->set(0x3401, 4, 1);
    EXPECT_EQ(mBoard->shimTemperingMode(), ShimTemperingMode::Mode1);
    EXPECT_THAT(calls(), ElementsAre("readUInt8 3401:04", "readUInt8 3401:04"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "Shim tempering mode is currently 0"),
                                     line(Severity::Info, "Shim tempering mode is currently 1")));
}

TEST_F(TempBoardQ47Test, RefusesAShimTemperingModeThatIsNotKnown) {
    mNode->set(0x3401, 4, 2);
    expectThrow<std::runtime_error>([&] { mBoard->shimTemperingMode(); },
                                    "Unknown value for shim tempering mode");
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "Shim tempering mode is currently 2"),
                                     line(Severity::Error,
                                          "Unknown value for shim tempering mode (0x3401, 0x4): 0x02")));
}

TEST_F(TempBoardQ47Test, SetsTheShimTemperingMode) {
    mBoard->setShimTemperingMode(ShimTemperingMode::Mode1);
    EXPECT_THAT(calls(), ElementsAre("writeUInt8 3401:04 1"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "Shim tempering mode will be set to 1")));
}

TEST_F(TempBoardQ47Test, TakesEveryIsoBoxTemperingModeAsItComes) {
    mNode->set(0x3401, 3, 255);
    EXPECT_EQ(static_cast<int>(mBoard->isoBoxTemperingMode()), 255);
    mNode->set(0x3401, 3, 1);
    EXPECT_EQ(mBoard->isoBoxTemperingMode(), IsoBoxTemperingMode::BigPeltier);
    mBoard->setIsoBoxTemperingMode(IsoBoxTemperingMode::BigPeltier);
    EXPECT_THAT(calls(), ElementsAre("readUInt8 3401:03", "readUInt8 3401:03", "writeUInt8 3401:03 1"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "Iso box tempering mode is currently 255"),
                                     line(Severity::Info, "Iso box tempering mode is currently 1"),
                                     line(Severity::Info, "Iso box tempering mode will be set to 1")));
}

TEST_F(TempBoardQ47Test, TakesOnlyOneForASavedSetup) {
    mNode->set(0x3401, 6, 1);
    EXPECT_TRUE(mBoard->setupSavedOnEEPROM());
    for (int const other : {0, 2, 255}) {
        mNode->set(0x3401, 6, other);
        EXPECT_FALSE(mBoard->setupSavedOnEEPROM());
    }
    auto const all = lines();
    ASSERT_EQ(all.size(), 4U);
    EXPECT_EQ(all[0], line(Severity::Info, "Current board configuration is saved on EEPROM: 1"));
    EXPECT_EQ(all[3], line(Severity::Info, "Current board configuration is saved on EEPROM: 0"));
    EXPECT_EQ(calls().front(), "readUInt8 3401:06");
}

TEST_F(TempBoardQ47Test, SavesTheSetup) {
    mBoard->saveSetupToEEPROM();
    EXPECT_THAT(calls(), ElementsAre("writeUInt8 3401:06 1"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "Saving the current setup to TemperatureBoard's EEPROM")));
}

// ------------------------------------------------------------------------------------- without AT option

TEST_F(TempBoardQ47Test, RefusesWhatNeedsTheATOptionButLeavesTheLines) {
    know(VTMode::None);
    expectThrow<std::runtime_error>([&] { mBoard->setTargetProbeTemperature(300.0); }, kNoAT);
    expectThrow<std::runtime_error>([&] { mBoard->setProbeGasHeatingSpiralTargetTemperature(310.0); }, kNoAT);
    expectThrow<std::runtime_error>([&] { mBoard->probeGasHeatingSpiralTargetTemperature(); }, kNoAT);
    expectThrow<std::runtime_error>([&] { mBoard->setProbeGasHeatingSpiralPower(12.0); }, kNoAT);
    expectThrow<std::runtime_error>([&] { mBoard->setProbeGasHeatingSpiralRegulation(true); }, kNoAT);
    expectThrow<std::runtime_error>([&] { mBoard->setProbeTemperatureRegulation(false); }, kNoAT);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(
        lines(),
        ElementsAre(line(Severity::Info, "Setting probe gas heating spiral target temperature to 310"),
                    line(Severity::Info, "Set probe gas heating spiral power to 12 Watt"),
                    line(Severity::Info, "Set probe gas heating spiral regulation enabled to 1"),
                    line(Severity::Info, "Set probe temperature regulation to enabled = 0")));
}

TEST_F(TempBoardQ47Test, ReadsZeroWithoutTheATOptionAndDoesNotAskTheBoard) {
    know(VTMode::None);
    EXPECT_EQ(mBoard->probeTemperature(), 0.0);
    EXPECT_EQ(mBoard->probeGasHeatingSpiralTemperature(), 0.0);
    EXPECT_EQ(mBoard->probeGasExhaustTemperature(), 0.0);
    EXPECT_EQ(mBoard->probeGasHeatingSpiralPower(), 0.0);
    EXPECT_FALSE(mBoard->probeGasHeatingSpiralRegulation());
    EXPECT_FALSE(mBoard->probeTemperatureRegulation());
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Trace, "Probe temperature is 0 Kelvin"),
                            line(Severity::Trace, "Gas heating spiral temperature is 0 Kelvin"),
                            line(Severity::Trace, "Gas exhaust temperature is 0 Kelvin"),
                            line(Severity::Trace, "Probe gas heating spiral power is 0 Watt"),
                            line(Severity::Trace, "Probe gas heating spiral regulation enabled is 0")));
}

TEST_F(TempBoardQ47Test, ServesTheRestOfTheProbeGasWithoutAskingForTheATOption) {
    mNode->set(0x3303, 3, 4);
    mNode->set(0x3303, 4, 0);
    mNode->set(0x3303, 6, 60);
    mNode->set(0x3303, 7, 2);
    mNode->set(0x3304, 1, 20000);
    EXPECT_DOUBLE_EQ(mBoard->targetProbeTemperature(), 293.15);
    EXPECT_EQ(mBoard->probeGasFlow(), 4);
    mBoard->setProbeGasFlow(3);
    EXPECT_EQ(mBoard->probeGasHeatingTimeout(), 60);
    mBoard->setProbeGasHeatingTimeout(30);
    EXPECT_EQ(mBoard->guessedFlowBoxEcl(), 2);
    EXPECT_EQ(mBoard->probeGasOvercurrentCountSinceLastRead(), 0U);
    EXPECT_THAT(calls(), ElementsAre("readInt32 3304:01", "readUInt8 3303:03", "writeUInt8 3303:03 3",
                                     "readUInt8 3303:06", "writeUInt8 3303:06 30", "readUInt8 3303:07",
                                     "readUInt8 3303:04"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "probeGasFlow() = 4"),
                                     line(Severity::Debug, "setProbeGasFlow(flowIndex = 3)"),
                                     line(Severity::Debug, "probeGasHeatingTimeout = 60 seconds"),
                                     line(Severity::Info, "setProbeGasHeatingTimeout(seconds = 30)"),
                                     line(Severity::Debug, "guessedFlowBoxEcl = 2")));
}

TEST_F(TempBoardQ47Test, PassesAVTModeThatNobodyKnowsOnFromWhatNeedsTheOption) {
    mNode->set(0x3401, 5, 9);
    expectThrow<std::runtime_error>([&] { mBoard->probeTemperature(); }, "Unknown value for the VT mode");
    expectThrow<std::runtime_error>([&] { mBoard->setProbeTemperatureRegulation(true); },
                                    "Unknown value for the VT mode");
    EXPECT_THAT(calls(), ElementsAre("readUInt8 3401:05", "readUInt8 3401:05"));
}

// ---------------------------------------------------------------------------------------- with AT option

TEST_F(TempBoardQ47Test, ReadsProbeSpiralAndExhaustWithThirtyTwoBits) {
    know(VTMode::Prototype);
    mNode->set(0x3301, 1, 36850);  // 310.0 K
    mNode->set(0x3301, 2, 150450); // 423.6 K, beyond 16 bits
    mNode->set(0x3301, 3, -40000); // 233.15 K
    EXPECT_DOUBLE_EQ(mBoard->probeTemperature(), 310.0);
    EXPECT_DOUBLE_EQ(mBoard->probeGasHeatingSpiralTemperature(), 423.6);
    EXPECT_DOUBLE_EQ(mBoard->probeGasExhaustTemperature(), 233.15);
    EXPECT_THAT(calls(), ElementsAre("readInt32 3301:01", "readInt32 3301:02", "readInt32 3301:03"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "Probe temperature is 310 Kelvin"),
                                     line(Severity::Trace, "Gas heating spiral temperature is 424 Kelvin"),
                                     line(Severity::Trace, "Gas exhaust temperature is 233 Kelvin")));
}

TEST_F(TempBoardQ47Test, ReadsAndSetsThePowerOfTheSpiralInMilliwatt) {
    know(VTMode::Prototype);
    mNode->set(0x3302, 1, 12345);
    EXPECT_DOUBLE_EQ(mBoard->probeGasHeatingSpiralPower(), 12.345);
    mBoard->setProbeGasHeatingSpiralPower(43.0);
    mBoard->setProbeGasHeatingSpiralPower(0.0);
    mBoard->setProbeGasHeatingSpiralPower(66.0); // 66000 - 65536
    EXPECT_THAT(calls(), ElementsAre("readUInt16 3302:01", "writeUInt16 3302:01 43000",
                                     "writeUInt16 3302:01 0", "writeUInt16 3302:01 464"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "Probe gas heating spiral power is 12 Watt"),
                                     line(Severity::Info, "Set probe gas heating spiral power to 43 Watt"),
                                     line(Severity::Info, "Set probe gas heating spiral power to 0 Watt"),
                                     line(Severity::Info, "Set probe gas heating spiral power to 66 Watt")));
}

TEST_F(TempBoardQ47Test, SetsTheRegulationOfTheSpiralInAnotherObjectThanItReads) {
    know(VTMode::PortExpander);
    mNode->set(0x3303, 1, 1);
    EXPECT_TRUE(mBoard->probeGasHeatingSpiralRegulation());
    mNode->set(0x3303, 1, 255);
    EXPECT_TRUE(mBoard->probeGasHeatingSpiralRegulation());
    mNode->set(0x3303, 1, 0);
    EXPECT_FALSE(mBoard->probeGasHeatingSpiralRegulation());
    mBoard->setProbeGasHeatingSpiralRegulation(true);
    mBoard->setProbeGasHeatingSpiralRegulation(false);
    EXPECT_THAT(calls(), ElementsAre("readUInt8 3303:01", "readUInt8 3303:01", "readUInt8 3303:01",
                                     "writeUInt8 3301:02 1", "writeUInt8 3301:02 0"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Trace, "Probe gas heating spiral regulation enabled is 1"),
                            line(Severity::Trace, "Probe gas heating spiral regulation enabled is 1"),
                            line(Severity::Trace, "Probe gas heating spiral regulation enabled is 0"),
                            line(Severity::Info, "Set probe gas heating spiral regulation enabled to 1"),
                            line(Severity::Info, "Set probe gas heating spiral regulation enabled to 0")));
}

TEST_F(TempBoardQ47Test, ReadsAndSetsTheRegulationOfTheProbe) {
    know(VTMode::PortExpander);
    mNode->set(0x3303, 2, 2);
    EXPECT_TRUE(mBoard->probeTemperatureRegulation());
    mNode->set(0x3303, 2, 0);
    EXPECT_FALSE(mBoard->probeTemperatureRegulation());
    mBoard->setProbeTemperatureRegulation(true);
    mBoard->setProbeTemperatureRegulation(false);
    EXPECT_THAT(calls(), ElementsAre("readUInt8 3303:02", "readUInt8 3303:02", "writeUInt8 3303:02 1",
                                     "writeUInt8 3303:02 0"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "Set probe temperature regulation to enabled = 1"),
                            line(Severity::Info, "Set probe temperature regulation to enabled = 0")));
}

TEST_F(TempBoardQ47Test, SetsTheTargetsOfProbeAndSpiralByDifferentOperations) {
    know(VTMode::PortExpander);
    mBoard->setTargetProbeTemperature(300.0);                 // 26.85
    mBoard->setTargetProbeTemperature(233.0);                 // -40149.99... in double, truncated
    mBoard->setProbeGasHeatingSpiralTargetTemperature(400.0); // 126.85
    mBoard->setProbeGasHeatingSpiralTargetTemperature(273.0); // -149.99..., truncated: 2^32 - 149
    EXPECT_THAT(calls(), ElementsAre("writeInt32 3304:01 26850", "writeInt32 3304:01 -40149",
                                     "writeUInt32 3304:02 126850", "writeUInt32 3304:02 4294967147"));
    EXPECT_THAT(
        lines(),
        ElementsAre(line(Severity::Info, "Setting probe gas heating spiral target temperature to 400"),
                    line(Severity::Info, "Setting probe gas heating spiral target temperature to 273")));
}

TEST_F(TempBoardQ47Test, TruncatesTheTargetOfTheProbe) {
    know(VTMode::Prototype);
    mBoard->setTargetProbeTemperature(292.15); // 19.0 in double, which the hard power-off relies on
    mBoard->setTargetProbeTemperature(310.1239);
    EXPECT_THAT(calls(), ElementsAre("writeInt32 3304:01 19000", "writeInt32 3304:01 36973"));
}

TEST_F(TempBoardQ47Test, SetsATargetOutOfAllRangesToADefinedNumber) {
    know(VTMode::Prototype);
    mBoard->setTargetProbeTemperature(1e300);
    mBoard->setTargetProbeTemperature(-1e300);
    mBoard->setTargetProbeTemperature(std::numeric_limits<double>::quiet_NaN());
    EXPECT_THAT(calls(), ElementsAre("writeInt32 3304:01 2147483647", "writeInt32 3304:01 -2147483648",
                                     "writeInt32 3304:01 0"));
}

TEST_F(TempBoardQ47Test, ReadsTheTargetOfTheSpiral) {
    know(VTMode::Prototype);
    mNode->set(0x3304, 2, 126850);
    EXPECT_DOUBLE_EQ(mBoard->probeGasHeatingSpiralTargetTemperature(), 400.0);
    EXPECT_THAT(calls(), ElementsAre("readInt32 3304:02"));
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TempBoardQ47Test, TellsOfOvercurrentOnlyWhenThereWasAny) {
    mNode->set(0x3303, 4, 0);
    EXPECT_EQ(mBoard->probeGasOvercurrentCountSinceLastRead(), 0U);
    EXPECT_THAT(lines(), IsEmpty());
    mNode->set(0x3303, 4, 255);
    EXPECT_EQ(mBoard->probeGasOvercurrentCountSinceLastRead(), 255U);
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Error, "Over current conditions count = 255")));
}

// ------------------------------------------------------------------------------- prepare, flow and range

TEST_F(TempBoardQ47Test, TakesOverRangeAndFlowWhenItIsPrepared) {
    EXPECT_EQ(mBoard->probeGasRegulatedTemperatureRange(), std::pair(0.0, 0.0));
    mNode->set(0x3304, 4, -50000); // 223.15 K
    mNode->set(0x3304, 6, 126850); // 400 K
    mNode->set(0x3303, 3, 2);
    mBoard->afterPrepare();
    auto const [lower, upper] = mBoard->probeGasRegulatedTemperatureRange();
    EXPECT_DOUBLE_EQ(lower, 223.15);
    EXPECT_DOUBLE_EQ(upper, 400.0);
    EXPECT_THAT(calls(), ElementsAre("readInt32 3304:04", "readInt32 3304:06", "readUInt8 3303:03"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "afterPrepare: reading static values once from the board"),
                            line(Severity::Trace, "probeGasFlow() = 2")));
}

TEST_F(TempBoardQ47Test, IsNotPreparedWhenItsStaticValuesCannotBeRead) {
    mNode->set(0x3304, 4, 0);
    mNode->fail(0x3304, 6, "node 7 does not answer");
    expectThrow<std::runtime_error>([&] { mBoard->afterPrepare(); }, "node 7 does not answer");
}

TEST_F(TempBoardQ47Test, WritesNoFlowThatIsTheCurrentOne) {
    mNode->set(0x3304, 4, 0);
    mNode->set(0x3304, 6, 0);
    mNode->set(0x3303, 3, 0);
    mBoard->afterPrepare();
    calls();
    mBoard->setProbeGasFlow(0);
    EXPECT_THAT(calls(), IsEmpty());
    mBoard->setProbeGasFlow(3);
    mBoard->setProbeGasFlow(3);
    EXPECT_THAT(calls(), ElementsAre("writeUInt8 3303:03 3"));
    mBoard->setProbeGasFlow(0);
    EXPECT_THAT(calls(), ElementsAre("writeUInt8 3303:03 0"));
    EXPECT_EQ(mLog.count(Severity::Debug, "setProbeGasFlow(flowIndex = 3)"), 2U);
}

TEST_F(TempBoardQ47Test, WritesTheFlowAgainAfterAWriteThatFailed) {
    mNode->fail(0x3303, 3, "node 7 does not answer", 1);
    EXPECT_THROW(mBoard->setProbeGasFlow(3), std::runtime_error);
    mBoard->setProbeGasFlow(0); // still the current one
    mBoard->setProbeGasFlow(3);
    EXPECT_THAT(calls(), ElementsAre("writeUInt8 3303:03 3", "writeUInt8 3303:03 3"));
}

TEST_F(TempBoardQ47Test, DoesNotNoticeAFlowThatChangedBehindItsBack) {
    mBoard->setProbeGasFlow(3);
    mNode->set(0x3303, 3, 0);
    EXPECT_EQ(mBoard->probeGasFlow(), 0); // always read, never kept
    mBoard->setProbeGasFlow(3);
    EXPECT_THAT(calls(), ElementsAre("writeUInt8 3303:03 3", "readUInt8 3303:03"));
}

TEST_F(TempBoardQ47Test, ServesManyThreads) {
    mNode->set(0x3001, 1, 30000);
    mNode->set(0x3301, 1, 36850);
    mNode->set(0x3401, 5, 1);
    std::vector<std::thread> threads;
    for (unsigned char thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
            for (int step = 0; step < 50; ++step) {
                EXPECT_DOUBLE_EQ(mBoard->magnetTemperature(), 303.15);
                EXPECT_DOUBLE_EQ(mBoard->probeTemperature(), 310.0);
                mBoard->setProbeGasFlow(thread);
                mBoard->setVTMode(thread % 2 == 0 ? VTMode::Prototype : VTMode::PortExpander);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(mBoard->hasAT());
}

} // namespace
