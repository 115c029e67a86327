// SPDX-License-Identifier: Apache-2.0
// Whether the adjustable temperature regulation of the probe is switched on.
#pragma once

#include <cstdint>

/// The main switch of the adjustable temperature regulation. Off and On can be requested, Error is only
/// reported.
enum class ProbeTemperatureGlobalStatus : std::int32_t {
    /// Regulation off: no heating, no gas.
    Off = 0,
    /// Regulation on: ramping towards the target or holding it.
    On = 1,
    /// The regulation gave up: a ramp step failed, or heating and gas were cut off to be safe.
    Error = 7,
};
