// SPDX-License-Identifier: Apache-2.0
// A temperature service whose values a test sets by hand, and which remembers what it was asked to do.
#pragma once

#include <fieldwarden/TemperatureInterface.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace libfieldwarden::test {

/// All values are plain members. One thread.
class StandInTemperature : public TemperatureInterface {
public:
    double magnetKelvin = 298.15;
    bool magnetReady = false;
    double coilCelsius = 25.0;
    double isoBoxKelvin = 294.15;
    double probeKelvin = 297.8;
    double flow = 0.0;
    int channel = 1; ///< 0 without the option.
    bool silent = false;
    TemperatureListenerInterface* listener = nullptr;
    std::vector<std::string> asked; ///< Such as "target 310.0", "on", "off".

    void setListener(TemperatureListenerInterface* aListener) override { listener = aListener; }
    void removeListener() override { listener = nullptr; }
    void beginOfOneParameterSet() override {}
    void endOfOneParameterSet() override {}
    void cancelOfOneParameterSet() override {}
    BoundedValue getMagnetTemperature() override {
        if (silent) {
            throw std::runtime_error("the board is silent");
        }
        return {magnetKelvin, 298.17, 298.13, "1.3"};
    }
    double getTargetMagnetTemperature() override { return 298.15; }
    bool isMagnetReady() override { return magnetReady; }
    BoundedValue getProbeTemperature() override { return {probeKelvin, 353.15, 298.15, "1.1"}; }
    double getTargetProbeTemperature() override { return 0.0; }
    void setTargetProbeTemperature(double aTemperature) override {
        asked.push_back("target " + std::to_string(aTemperature).substr(0, 5));
    }
    BoundedValue getShimCoilTemperature() override { return {coilCelsius, 25.02, 24.98, "1.3"}; }
    BoundedValue getIsoBoxTemperature() override { return {isoBoxKelvin, 294.45, 293.85, "1.3"}; }
    ProbeTemperatureGlobalStatus getProbeTemperatureStatus() override { return {}; }
    void setProbeTemperatureStatus(ProbeTemperatureGlobalStatus aStatus) override {
        asked.emplace_back(aStatus == ProbeTemperatureGlobalStatus::On ? "on" : "off");
    }
    int getProbeChillerType() override { return 0; }
    std::string getProbeChillerActualPowerParameterName() override { return {}; }
    std::string getProbeChillerTargetPowerParameterName() override { return {}; }
    int getProbeChillerStatus() override { return 0; }
    double getProbeMeasuredGasFlow() override { return flow; }
    double getProbeTargetGasFlowForOperation() override { return flow; }
    void setProbeGasFlowForOperation(double /*aFlow*/) override {}
    std::string getProbeGasFlowList() const override { return "<flows />"; }
    double getProbeTargetGasFlowForStandby() override { return 0.0; }
    ProbeTemperatureControlGasFlowStatus getProbeGasFlowStatus() override { return {}; }
    std::string getProbeTemperatureMeasurements() override { return {}; }
    int getProbeGasMode() override { return 0; }
    int getProbeDeviceActiveChannel() override { return channel; }
    int getProbeDeviceAccessoryChannel() override { return 0; }
    double getProbeMeasuredSafetyTemperature() override { return 0.0; }
    int getProbeTemperatureRegulatorStatus() override { return 0; }
    TemperatureStability getProbeTemperatureRegulatorStability() override { return {}; }
    double getProbeActualPower() override { return 0.0; }
    ProbeTemperatureControlStatus getProbeTemperatureRegulatorMode() override { return {}; }
    double getProbeMaximumSafetyTemperature() override { return 0.0; }
    void setProbeMaximumSafetyTemperature(double /*aTemperature*/) override {}
    double getProbeFullPower() override { return 43.0; }
    double getProbeMaximumPower() override { return 43.0; }
    void setProbeTemperatureMin(double /*aTemperature*/) override {}
    void setProbeTemperatureMax(double /*aTemperature*/) override {}
    void setShimCoolingMode(int /*aMode*/) override {}
    void setAirFlowForSampleExchange(bool /*aSampleExchange*/) override {}
    void setSampleInMagnetForAirFlow(bool /*aSampleInMagnet*/) override {}
    bool getAirFlowForSampleExchange() const override { return false; }
};

} // namespace libfieldwarden::test
