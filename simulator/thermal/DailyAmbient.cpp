// SPDX-License-Identifier: Apache-2.0
// The sine of the day.
#include "simulator/thermal/DailyAmbient.h"

#include <cmath>
#include <numbers>

namespace libfieldwarden::sim {

double DailyAmbient::celsius(std::chrono::duration<double> aTime) const {
    constexpr std::chrono::duration<double> kDay = std::chrono::hours(24);
    return meanCelsius + swingKelvin * std::sin(2.0 * std::numbers::pi * ((aTime + phase) / kDay));
}

} // namespace libfieldwarden::sim
