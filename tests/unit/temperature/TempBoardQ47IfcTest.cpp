// SPDX-License-Identifier: Apache-2.0
// The operations of the temperature board's interface, each in its place and with its signature, and the
// numbers that its modes have on the bus.
#include "temperature/TempBoardQ47Ifc.h"

#include "support/VirtualOrder.h"

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::expectOrder;
using libfieldwarden::test::row;
using Range = std::pair<double, double>;

TEST(TempBoardQ47Ifc, KeepsItsOperationsInPlace) {
    using I = TempBoardQ47Ifc;
    expectOrder<I>(
        45,
        {
            row<std::string()>("mds", &I::mds),
            row<std::string()>("mdsOfATFlowBox", &I::mdsOfATFlowBox),
            row<double() const>("magnetTemperature", &I::magnetTemperature),
            row<double(unsigned char) const>("targetMagnetTemperature", &I::targetMagnetTemperature),
            row<void(double)>("setTargetMagnetTemperature", &I::setTargetMagnetTemperature),
            row<double() const>("isoBoxTemperature", &I::isoBoxTemperature),
            row<double() const>("isoBoxTargetTemperature", &I::isoBoxTargetTemperature),
            row<double() const>("shimTemperature", &I::shimTemperature),
            row<double(unsigned char) const>("shimTemperatureSensor", &I::shimTemperatureSensor),
            row<double(unsigned char, bool) const>("shimTargetTemperature", &I::shimTargetTemperature),
            row<void(unsigned char, double)>("setShimTargetTemperature", &I::setShimTargetTemperature),
            row<double()>("probeTemperature", &I::probeTemperature),
            row<double()>("probeGasHeatingSpiralTemperature", &I::probeGasHeatingSpiralTemperature),
            row<double()>("probeGasExhaustTemperature", &I::probeGasExhaustTemperature),
            row<double() const>("targetProbeTemperature", &I::targetProbeTemperature),
            row<void(double)>("setTargetProbeTemperature", &I::setTargetProbeTemperature),
            row<double(unsigned char) const>("magnetTemperatureSensor", &I::magnetTemperatureSensor),
            row<double(unsigned char) const>("isoBoxTemperatureSensor", &I::isoBoxTemperatureSensor),
            row<double(unsigned char) const>("magnetHeaterVoltage", &I::magnetHeaterVoltage),
            row<unsigned char() const>("isoBoxFanSpeed", &I::isoBoxFanSpeed),
            row<double() const>("isoBoxPeltierCurrentPercent", &I::isoBoxPeltierCurrentPercent),
            row<double()>("probeGasHeatingSpiralPower", &I::probeGasHeatingSpiralPower),
            row<void(double)>("setProbeGasHeatingSpiralPower", &I::setProbeGasHeatingSpiralPower),
            row<bool()>("probeGasHeatingSpiralRegulation", &I::probeGasHeatingSpiralRegulation),
            row<void(bool)>("setProbeGasHeatingSpiralRegulation", &I::setProbeGasHeatingSpiralRegulation),
            row<bool()>("probeTemperatureRegulation", &I::probeTemperatureRegulation),
            row<void(bool)>("setProbeTemperatureRegulation", &I::setProbeTemperatureRegulation),
            row<unsigned()>("probeGasOvercurrentCountSinceLastRead",
                            &I::probeGasOvercurrentCountSinceLastRead),
            row<double()>("probeGasHeatingSpiralTargetTemperature",
                          &I::probeGasHeatingSpiralTargetTemperature),
            row<void(double)>("setProbeGasHeatingSpiralTargetTemperature",
                              &I::setProbeGasHeatingSpiralTargetTemperature),
            row<unsigned char()>("probeGasFlow", &I::probeGasFlow),
            row<void(unsigned char)>("setProbeGasFlow", &I::setProbeGasFlow),
            row<ShimTemperingMode() const>("shimTemperingMode", &I::shimTemperingMode),
            row<void(ShimTemperingMode)>("setShimTemperingMode", &I::setShimTemperingMode),
            row<VTMode()>("vtMode", &I::vtMode),
            row<void(VTMode)>("setVTMode", &I::setVTMode),
            row<IsoBoxTemperingMode() const>("isoBoxTemperingMode", &I::isoBoxTemperingMode),
            row<void(IsoBoxTemperingMode)>("setIsoBoxTemperingMode", &I::setIsoBoxTemperingMode),
            row<bool() const>("setupSavedOnEEPROM", &I::setupSavedOnEEPROM),
            row<void() const>("saveSetupToEEPROM", &I::saveSetupToEEPROM),
            row<Range() const>("probeGasRegulatedTemperatureRange", &I::probeGasRegulatedTemperatureRange),
            row<unsigned char() const>("probeGasHeatingTimeout", &I::probeGasHeatingTimeout),
            row<void(unsigned char)>("setProbeGasHeatingTimeout", &I::setProbeGasHeatingTimeout),
            row<unsigned char()>("guessedFlowBoxEcl", &I::guessedFlowBoxEcl),
            row<void(std::string const&)>("dumpCANopenValues", &I::dumpCANopenValues),
        });
}

TEST(TempBoardQ47Ifc, KnowsModesOfOneByteByTheNumbersOfTheBoard) {
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<VTMode>, std::uint8_t>));
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<ShimTemperingMode>, std::uint8_t>));
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<IsoBoxTemperingMode>, std::uint8_t>));
    EXPECT_EQ(static_cast<int>(VTMode::None), 0);
    EXPECT_EQ(static_cast<int>(VTMode::Prototype), 1);
    EXPECT_EQ(static_cast<int>(VTMode::PortExpander), 2);
    EXPECT_EQ(static_cast<int>(ShimTemperingMode::Mode0), 0);
    EXPECT_EQ(static_cast<int>(ShimTemperingMode::Mode1), 1);
    EXPECT_EQ(static_cast<int>(IsoBoxTemperingMode::SmallPeltier), 0);
    EXPECT_EQ(static_cast<int>(IsoBoxTemperingMode::BigPeltier), 1);
}

} // namespace
