// SPDX-License-Identifier: Apache-2.0
// The coding of the prototype of the flow box.
#include "at/AtFlowBoxPrototype.h"

#include <velmor/kepla/log/Logger.h>

#include <stdexcept>

using velmor::kepla::log::Severity;

unsigned char AtFlowBoxPrototype::toHardwareFlowIndex(unsigned char aSwFlowIndex, bool aHoldFlow) {
    if (aSwFlowIndex == 0) {
        return aHoldFlow ? 1 : 0;
    }
    if (!aHoldFlow) {
        velmor::kepla::log::keplaDoLog(
            Severity::Error,
            "requested swFlowIndex %u and holdFlow = %d: unsupported with this flow box, hold flow required",
            {}, aSwFlowIndex, aHoldFlow);
        throw std::invalid_argument("Cannot set AT gas flow without setting hold flow");
    }
    return static_cast<unsigned char>(aSwFlowIndex + 1);
}

ActualFlow AtFlowBoxPrototype::toSoftwareFlowIndex(unsigned char aHwFlowIndex,
                                                   unsigned char /*aExpectedHwFlowIndex*/) {
    return {.hardwareError = false,
            .isKnobSetToRemote = true, // It cannot know.
            .isHoldFlowEnabled = aHwFlowIndex != 0,
            .softwareFlowIndex = toSoftwareFlowIndex(aHwFlowIndex)};
}

unsigned char AtFlowBoxPrototype::toSoftwareFlowIndex(unsigned char aHwFlowIndex) {
    return aHwFlowIndex <= 1 ? 0 : static_cast<unsigned char>(aHwFlowIndex - 1);
}
