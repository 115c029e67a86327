// SPDX-License-Identifier: Apache-2.0
// The air of the room that the instrument stands in, over the day.
#pragma once

#include <chrono>

namespace libfieldwarden::sim {

/// mean + swing sin(2 pi t / day): slow and smooth, as in a room with neither sun nor air conditioning. Any
/// thread; nothing blocks.
struct DailyAmbient {
    double meanCelsius = 23.0;
    double swingKelvin = 1.5;                 ///< From the mean to the warmest hour.
    std::chrono::duration<double> phase{0.0}; ///< How long after the mean of the morning the time begins.

    /// @param aTime  Since the beginning.
    /// @return In degrees Celsius.
    double celsius(std::chrono::duration<double> aTime) const;
};

} // namespace libfieldwarden::sim
