// SPDX-License-Identifier: Apache-2.0
// What the probe measures, as the XML that the spectrometer application reads.
#pragma once

#include <string>

namespace libfieldwarden::temperature {

/// What is told where nothing is measured.
inline constexpr char const* kNoProbeMeasurements = "<temperature />";

/// The one sensor of the probe as XML, without document start, line breaks or indentation.
/// @param aProbeTemperature  Temperature of the probe in K.
/// @return `<temperature><active><sensor channel="CH1" type="CPR" name="probe"
/// temperature="298.150000"/></active></temperature>`
/// @throws std::runtime_error  when a step fails, with words that name it.
/// Thread: any; does not block.
std::string probeMeasurementsAsXml(double aProbeTemperature);

} // namespace libfieldwarden::temperature
