// SPDX-License-Identifier: Apache-2.0
// The steps that make probe heating and probe gas safe.
#include "temperature/ATHardPowerOff.h"

#include "temperature/TempBoardQ47Ifc.h"

#include <velmor/kepla/log/Logger.h>

namespace libfieldwarden::temperature {

namespace {
constexpr double kColdKelvin = 292.15; ///< 19 degrees Celsius: below it nothing is heated.
}

void ATHardPowerOff(std::shared_ptr<TempBoardQ47Ifc> const& aBoard) {
    velmor::kepla::log::keplaDoLog(velmor::kepla::log::Severity::Error, "+ATHardPowerOff", {});
    aBoard->setTargetProbeTemperature(kColdKelvin);
    aBoard->setProbeTemperatureRegulation(false);
    aBoard->setProbeGasHeatingSpiralRegulation(false);
    aBoard->setProbeGasHeatingSpiralPower(0.0);
    aBoard->setProbeGasFlow(0);
}

} // namespace libfieldwarden::temperature
