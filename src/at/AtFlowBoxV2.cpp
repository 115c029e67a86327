// SPDX-License-Identifier: Apache-2.0
// The coding of version 2 of the flow box.
#include "at/AtFlowBoxV2.h"

#include <velmor/kepla/log/Logger.h>

using velmor::kepla::log::Severity;

namespace {

constexpr unsigned char kHardwareError = 0xFF;
constexpr unsigned char kHoldOnly = 1;        ///< Base of the hold flow alone; a main flow adds its index.
constexpr unsigned char kHighestBase = 4;     ///< Main flow 3.
constexpr unsigned char kHoldClosed = 10;     ///< Is added where a main flow goes without hold flow.
constexpr unsigned char kKnobNotRemote = 100; ///< Is added by the box.

/// Intended: behind a knob that is not at remote the hold flow counts as on also where it is closed (110 to
/// 114), but not for the plain 100.
constexpr bool isHoldFlowEnabled(unsigned char aHwFlowIndex) {
    if (aHwFlowIndex == 0) {
        return false;
    }
    return aHwFlowIndex == kHoldClosed + kHoldOnly || aHwFlowIndex <= kHighestBase ||
           aHwFlowIndex > kKnobNotRemote;
}

constexpr unsigned char baseOf(unsigned char aHwFlowIndex) {
    unsigned base = aHwFlowIndex;
    if (base >= kKnobNotRemote) {
        base -= kKnobNotRemote;
    }
    if (base >= kHoldClosed) {
        base -= kHoldClosed;
    }
    return static_cast<unsigned char>(base);
}

} // namespace

unsigned char AtFlowBoxV2::toHardwareFlowIndex(unsigned char aSwFlowIndex, bool aHoldFlow) {
    if (aSwFlowIndex == 0) {
        return aHoldFlow ? kHoldOnly : 0;
    }
    return static_cast<unsigned char>(aSwFlowIndex + kHoldOnly + (aHoldFlow ? 0 : kHoldClosed));
}

ActualFlow AtFlowBoxV2::toSoftwareFlowIndex(unsigned char aHwFlowIndex,
                                            unsigned char /*aExpectedHwFlowIndex*/) {
    using velmor::kepla::log::keplaDoLog;
    ActualFlow actual{.hardwareError = aHwFlowIndex == kHardwareError,
                      .isKnobSetToRemote = aHwFlowIndex < kKnobNotRemote,
                      .isHoldFlowEnabled = isHoldFlowEnabled(aHwFlowIndex),
                      .softwareFlowIndex = 0};
    unsigned char const base = baseOf(aHwFlowIndex);
    keplaDoLog(Severity::Trace, "hwFlowIndex after removed offset is %u", {}, base);
    if (base > kHighestBase) {
        keplaDoLog(Severity::Error, "Invalid hardware flow index: %u", {}, aHwFlowIndex);
        actual.hardwareError = true;
    } else if (base > kHoldOnly) {
        actual.softwareFlowIndex = static_cast<unsigned char>(base - kHoldOnly);
    }
    return actual;
}
