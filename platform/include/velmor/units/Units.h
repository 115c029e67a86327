// SPDX-License-Identifier: Apache-2.0
// Conversions between the temperature units of the library (kelvin), of its users and of the buses.
#pragma once

namespace velmor::units {

/// The zero of the Celsius scale in kelvin (ITS-90).
inline constexpr double kZeroCelsiusInKelvin = 273.15;

/// @param aKelvin  Temperature in K.
/// @return The same temperature in degrees Celsius.
constexpr double kelvinToCelsius(double aKelvin) noexcept {
    return aKelvin - kZeroCelsiusInKelvin;
}

/// @param aMilliCelsius  Temperature in thousandths of a degree Celsius, as the boards send it.
/// @return The same temperature in K.
constexpr double milliCelsiusToKelvin(int aMilliCelsius) noexcept {
    return static_cast<double>(aMilliCelsius) / 1000.0 + kZeroCelsiusInKelvin;
}

} // namespace velmor::units
