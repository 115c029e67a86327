// SPDX-License-Identifier: Apache-2.0
// What there was before a sample is exchanged, so that it can be restored.
#pragma once

#include <cstdint>

/// Gas and regulation when the exchange of a sample began.
struct SampleExchangeInfo {
    std::uint8_t flowIndex = 0;     ///< Software index of the main flow.
    bool holdFlow = false;          ///< Whether the hold gas flowed.
    bool RegulationEnabled = false; // NOLINT(readability-identifier-naming): known by this name
    double targetTemperature = 0.0; ///< Of the board, in K.
};
