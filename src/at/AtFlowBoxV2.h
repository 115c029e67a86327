// SPDX-License-Identifier: Apache-2.0
// The third generation of the flow box: hold flow and knob have their places in the byte.
#pragma once

#include "at/AtFlowBoxIfc.h"

/// Version 2. The byte is a base (0 off, 1 hold flow only, 2 to 4 main flow 1 to 3), plus 10 when a main flow
/// goes without hold flow, plus 100 when the box reports that its knob is not at remote; 0xFF is an error of
/// the box.
class AtFlowBoxV2 : public AtFlowBoxIfc {
public:
    bool isHoldFlowIndependent() const override { return true; }
    bool canReadBackValves() const override { return true; }
    unsigned char toHardwareFlowIndex(unsigned char aSwFlowIndex, bool aHoldFlow) override;
    ActualFlow toSoftwareFlowIndex(unsigned char aHwFlowIndex, unsigned char aExpectedHwFlowIndex) override;
};
