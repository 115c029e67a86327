// SPDX-License-Identifier: Apache-2.0
// The way to a writer of device records.
#pragma once

#include <velmor/kepla/deviceid/DeviceIdServiceContributorIfc.h>

#include <memory>
#include <string>

namespace velmor::kepla::deviceid {

/// Makes contributors to the device-id service in the name of one service.
class DeviceIdServiceFactory {
public:
    /// @param aName  Name of the contributing service, such as "fieldwarden".
    explicit DeviceIdServiceFactory(std::string aName);
    ~DeviceIdServiceFactory();

    /// Any thread.
    /// @return The contributor that the process's backend offers.
    std::shared_ptr<DeviceIdServiceContributorIfc> deviceIdServiceContributor() const;

private:
    std::string mName;
};

} // namespace velmor::kepla::deviceid
