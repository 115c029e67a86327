// SPDX-License-Identifier: Apache-2.0
// What the boards can tell for the device log, without the bus on which the device log asks for it.
#pragma once

#include <string>

#include <fieldwarden/Export.h>

namespace libfieldwarden {

/// The writer of the device log's dumps. The FieldwardenInterface of an open library can be cast to it; the
/// daemon itself asks over D-Bus.
class FIELDWARDEN_API DeviceLogInterface {
public:
    virtual ~DeviceLogInterface() = default;

    /// Writes the object dictionaries of the temperature board and the shim boards into a folder, as
    /// "canopen_temperature.dump" and "canopen_shim_8.dump" for each shim board. A dump that fails is told in
    /// the library's log, and its file is not there or not whole.
    /// @param aPath  The folder.
    /// @param aType  Full or minimal; not used, the dumps are always whole.
    /// @param aId    Number of the request; not used.
    /// Thread: any; blocks for some hundred transfers to the boards.
    virtual void createLog(std::string const& aPath, int aType, int aId) = 0;
};

} // namespace libfieldwarden
