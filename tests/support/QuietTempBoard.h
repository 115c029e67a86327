// SPDX-License-Identifier: Apache-2.0
// A temperature board on which all is well and nothing ever changes, for programs without a test framework.
#pragma once

#include "temperature/TempBoardQ47Ifc.h"

#include <string>
#include <utility>

namespace libfieldwarden::test {

/// Gives the same answers always, and keeps the modes that it is set to. One thread.
class QuietTempBoard : public TempBoardQ47Ifc {
public:
    std::string mds() override { return {}; }
    std::string mdsOfATFlowBox() override { return {}; }
    double magnetTemperature() const override { return kKelvin; }
    double targetMagnetTemperature(unsigned char /*aId*/) const override { return kKelvin; }
    void setTargetMagnetTemperature(double /*aTemperature*/) override {}
    double isoBoxTemperature() const override { return kKelvin; }
    double isoBoxTargetTemperature() const override { return kKelvin; }
    double shimTemperature() const override { return kKelvin; }
    double shimTemperatureSensor(unsigned char /*aId*/) const override { return kKelvin; }
    double shimTargetTemperature(unsigned char /*aId*/, bool /*aFromHardware*/) const override {
        return kKelvin;
    }
    void setShimTargetTemperature(unsigned char /*aId*/, double /*aKelvin*/) override {}
    double probeTemperature() override { return kKelvin; }
    double probeGasHeatingSpiralTemperature() override { return kKelvin; }
    double probeGasExhaustTemperature() override { return kKelvin; }
    double targetProbeTemperature() const override { return kKelvin; }
    void setTargetProbeTemperature(double /*aKelvin*/) override {}
    double magnetTemperatureSensor(unsigned char /*aId*/) const override { return kKelvin; }
    double isoBoxTemperatureSensor(unsigned char /*aId*/) const override { return kKelvin; }
    double magnetHeaterVoltage(unsigned char /*aId*/) const override { return 12.0; }
    unsigned char isoBoxFanSpeed() const override { return 1; }
    double isoBoxPeltierCurrentPercent() const override { return 0.25; }
    double probeGasHeatingSpiralPower() override { return 0.0; }
    void setProbeGasHeatingSpiralPower(double /*aWatt*/) override {}
    bool probeGasHeatingSpiralRegulation() override { return false; }
    void setProbeGasHeatingSpiralRegulation(bool /*aEnabled*/) override {}
    bool probeTemperatureRegulation() override { return false; }
    void setProbeTemperatureRegulation(bool /*aEnabled*/) override {}
    unsigned probeGasOvercurrentCountSinceLastRead() override { return 0; }
    double probeGasHeatingSpiralTargetTemperature() override { return kKelvin; }
    void setProbeGasHeatingSpiralTargetTemperature(double /*aKelvin*/) override {}
    unsigned char probeGasFlow() override { return 0; }
    void setProbeGasFlow(unsigned char /*aFlowIndex*/) override {}
    ShimTemperingMode shimTemperingMode() const override { return mShimTemperingMode; }
    void setShimTemperingMode(ShimTemperingMode aMode) override { mShimTemperingMode = aMode; }
    VTMode vtMode() override { return mVTMode; }
    void setVTMode(VTMode aMode) override { mVTMode = aMode; }
    IsoBoxTemperingMode isoBoxTemperingMode() const override { return mIsoBoxTemperingMode; }
    void setIsoBoxTemperingMode(IsoBoxTemperingMode aMode) override { mIsoBoxTemperingMode = aMode; }
    bool setupSavedOnEEPROM() const override { return true; }
    void saveSetupToEEPROM() const override {}
    std::pair<double, double> probeGasRegulatedTemperatureRange() const override { return {273.15, 373.15}; }
    unsigned char probeGasHeatingTimeout() const override { return 60; }
    void setProbeGasHeatingTimeout(unsigned char /*aSeconds*/) override {}
    unsigned char guessedFlowBoxEcl() override { return 0; }
    void dumpCANopenValues(std::string const& /*aDirectory*/) override {}

private:
    static constexpr double kKelvin = 298.15;

    ShimTemperingMode mShimTemperingMode = ShimTemperingMode::Mode0;
    VTMode mVTMode = VTMode::None;
    IsoBoxTemperingMode mIsoBoxTemperingMode = IsoBoxTemperingMode::SmallPeltier;
};

} // namespace libfieldwarden::test
