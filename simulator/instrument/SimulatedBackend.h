// SPDX-License-Identifier: Apache-2.0
// The doors of the simulated instrument.
#pragma once

#include <velmor/platform/Backend.h>

#include <memory>

namespace libfieldwarden::sim {

class Instrument;

/// Makes the backend whose doors lead to a simulated instrument. It keeps the instrument alive.
///
/// Needs no root, no D-Bus and no device: there is no bus for the device log, and the CAN interface is a bus
/// in this process, whatever its name.
std::shared_ptr<velmor::platform::Backend> makeSimulatedBackend(std::shared_ptr<Instrument> aInstrument);

} // namespace libfieldwarden::sim
