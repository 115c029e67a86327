// SPDX-License-Identifier: Apache-2.0
// Asks the backend for a reader of device records.
#include <velmor/kepla/deviceid/DeviceIdClient.h>

#include <velmor/platform/Backend.h>

namespace velmor::kepla::deviceid {

std::shared_ptr<DeviceIdClientIfc> DeviceIdClient::make_client() {
    return velmor::platform::Backend::current()->deviceIdClient();
}

} // namespace velmor::kepla::deviceid
