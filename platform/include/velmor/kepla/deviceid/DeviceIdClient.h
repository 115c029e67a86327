// SPDX-License-Identifier: Apache-2.0
// The way to a reader of device records.
#pragma once

#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>

#include <memory>

namespace velmor::kepla::deviceid {

/// Makes clients of the device-id service.
class DeviceIdClient {
public:
    /// Any thread.
    /// @return The client that the process's backend offers.
    static std::shared_ptr<DeviceIdClientIfc> make_client();
};

} // namespace velmor::kepla::deviceid
