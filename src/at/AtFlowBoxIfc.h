// SPDX-License-Identifier: Apache-2.0
// What every generation of the flow box has in common: one byte on the temperature board that codes its
// valves, the hardware flow index.
#pragma once

#include "at/ActualFlow.h"

/// Hides how a generation of flow boxes codes its valves. A software flow index counts the flows of the flow
/// table, from 0 for none; the hold flow is a small one beside the main flow.
///
/// The boxes have no state: any thread may call, nothing blocks. The order of the operations is part of the
/// interface.
class AtFlowBoxIfc {
public:
    virtual ~AtFlowBoxIfc() = default;

    /// @return Whether the main flow can be set while the hold flow is off.
    virtual bool isHoldFlowIndependent() const = 0;

    /// @return Whether the board reports what the valves really do.
    virtual bool canReadBackValves() const = 0;

    /// @param aSwFlowIndex  Software index of the main flow; 0 is off.
    /// @param aHoldFlow     Whether the hold gas shall flow.
    /// @return The byte to write to the board.
    /// @throws std::invalid_argument  when the box cannot have this main flow without hold flow.
    virtual unsigned char toHardwareFlowIndex(unsigned char aSwFlowIndex, bool aHoldFlow) = 0;

    /// @param aHwFlowIndex          The byte read from the board; any.
    /// @param aExpectedHwFlowIndex  The byte that was to be expected, such as the last one written.
    /// @return What the box does.
    virtual ActualFlow toSoftwareFlowIndex(unsigned char aHwFlowIndex,
                                           unsigned char aExpectedHwFlowIndex) = 0;
};
