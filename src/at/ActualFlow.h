// SPDX-License-Identifier: Apache-2.0
// What a flow box does, decoded from the byte that the temperature board reads back.
#pragma once

#include <cstdint>

/// State of a flow box. A value.
struct ActualFlow {
    bool hardwareError = false;         ///< The box reports an error, or a byte that nobody knows.
    bool isKnobSetToRemote = false;     ///< Whether the box obeys the board.
    bool isHoldFlowEnabled = false;     ///< Whether the hold gas flows.
    std::uint8_t softwareFlowIndex = 0; ///< Index of the main flow in the flow table; 0 is off.

    bool operator==(ActualFlow const&) const = default;
};
