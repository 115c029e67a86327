// SPDX-License-Identifier: Apache-2.0
// What version 1 of the flow box reports beyond the prototype.
#include "at/AtFlowBoxV1.h"

namespace {

constexpr unsigned char kHardwareError = 0xFF;

} // namespace

ActualFlow AtFlowBoxV1::toSoftwareFlowIndex(unsigned char aHwFlowIndex, unsigned char aExpectedHwFlowIndex) {
    return {.hardwareError = aHwFlowIndex == kHardwareError,
            .isKnobSetToRemote = aHwFlowIndex == aExpectedHwFlowIndex,
            .isHoldFlowEnabled = aHwFlowIndex != 0,
            .softwareFlowIndex = toSoftwareFlowIndex(aHwFlowIndex)};
}
