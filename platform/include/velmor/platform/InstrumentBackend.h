// SPDX-License-Identifier: Apache-2.0
// The doors of the real instrument.
#pragma once

#include <velmor/platform/Backend.h>

namespace velmor::platform {

/// Makes the backend that opens the real devices, buses and files. Nothing is touched before a door is asked
/// for.
std::shared_ptr<Backend> makeInstrumentBackend();

} // namespace velmor::platform
