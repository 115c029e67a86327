// SPDX-License-Identifier: Apache-2.0
// The verdict whether the probe temperature is stable.
#pragma once

#include <cstdint>

/// Stability of the probe temperature since the last ramp began. LeftBand stays until the next ramp.
enum class TemperatureStability : std::int32_t {
    /// Not yet stable since the last ramp began.
    NotYetStable = 0,
    /// Was stable and has left its band since.
    LeftBand = 1,
    /// Stable.
    Stable = 2,
};
