// SPDX-License-Identifier: Apache-2.0
// What the probe temperature regulator is doing.
#pragma once

#include <cstdint>

/// State of the regulator as reported to the listener. Values that are not named here do not occur.
enum class ProbeTemperatureControlStatus : std::int32_t {
    /// Not regulating.
    Off = 0,
    /// The set point is moving, towards the target or down before switching off.
    Ramping = 1,
    /// The set point has reached the target and is held there.
    Holding = 2,
    /// Regulation is suspended for the exchange of a sample.
    SampleExchange = 6,
};
