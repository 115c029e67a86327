// SPDX-License-Identifier: Apache-2.0
// The second generation of the flow box: codes as the prototype, and reports what its valves do.
#pragma once

#include "at/AtFlowBoxPrototype.h"

/// Version 1. Reports 0xFF for an error of its own. A knob that is turned away from remote shows only as a
/// byte other than the one that was expected.
class AtFlowBoxV1 : public AtFlowBoxPrototype {
public:
    using AtFlowBoxPrototype::toSoftwareFlowIndex;

    bool canReadBackValves() const override { return true; }
    ActualFlow toSoftwareFlowIndex(unsigned char aHwFlowIndex, unsigned char aExpectedHwFlowIndex) override;
};
