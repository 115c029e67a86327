// SPDX-License-Identifier: Apache-2.0
// Asks the backend for a writer of device records.
#include <velmor/kepla/deviceid/DeviceIdServiceFactory.h>

#include <velmor/platform/Backend.h>

#include <utility>

namespace velmor::kepla::deviceid {

DeviceIdServiceFactory::DeviceIdServiceFactory(std::string aName)
    : mName(std::move(aName)) {}

DeviceIdServiceFactory::~DeviceIdServiceFactory() = default;

std::shared_ptr<DeviceIdServiceContributorIfc> DeviceIdServiceFactory::deviceIdServiceContributor() const {
    return velmor::platform::Backend::current()->deviceIdContributor(mName);
}

} // namespace velmor::kepla::deviceid
