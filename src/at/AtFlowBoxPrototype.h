// SPDX-License-Identifier: Apache-2.0
// The first generation of the flow box: its byte counts hold flow and main flows, and nothing comes back.
#pragma once

#include "at/AtFlowBoxIfc.h"

/// The prototype. Codes 0 off, 1 hold flow only, n + 1 main flow n with hold flow; a main flow without hold
/// flow does not exist. What is read from the board is what was written: knob and errors stay unseen.
class AtFlowBoxPrototype : public AtFlowBoxIfc {
public:
    bool isHoldFlowIndependent() const override { return false; }
    bool canReadBackValves() const override { return false; }
    unsigned char toHardwareFlowIndex(unsigned char aSwFlowIndex, bool aHoldFlow) override;
    ActualFlow toSoftwareFlowIndex(unsigned char aHwFlowIndex, unsigned char aExpectedHwFlowIndex) override;

    /// @param aHwFlowIndex  A byte of this coding.
    /// @return The software index of its main flow.
    static unsigned char toSoftwareFlowIndex(unsigned char aHwFlowIndex);
};
