// SPDX-License-Identifier: Apache-2.0
// The side of the device-id service that a reader of records speaks to.
#pragma once

#include <string>

namespace velmor::kepla::deviceid {

/// Reads the records of the instrument. All operations may be called from any thread.
class DeviceIdClientIfc {
public:
    virtual ~DeviceIdClientIfc() = default;

    /// Blocks while the record is read.
    /// @return The text of the instrument's main record.
    /// @throws std::runtime_error  when there is none or it cannot be read; the words name the place.
    virtual std::string mainMds() = 0;
};

} // namespace velmor::kepla::deviceid
