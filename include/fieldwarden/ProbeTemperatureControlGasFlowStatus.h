// SPDX-License-Identifier: Apache-2.0
// What the probe gas is doing.
#pragma once

#include <cstdint>

/// State of the probe gas as reported to the listener. Values that are not named here do not occur.
enum class ProbeTemperatureControlGasFlowStatus : std::int32_t {
    /// No gas flows.
    Off = 0,
    /// The flow is being changed step by step, during a ramp up or down.
    Ramping = 1,
    /// Gas flows.
    On = 2,
    /// The flow box reports a hardware error.
    Error = 7,
    /// The gas is off so that a sample can be exchanged.
    SampleExchange = 8,
};
