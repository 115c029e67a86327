// SPDX-License-Identifier: Apache-2.0
// The side of the device-id service that a board's client speaks to.
#pragma once

#include <string>

namespace velmor::kepla::deviceid {

/// Takes the records that boards contribute about themselves. All operations may be called from any thread.
class DeviceIdServiceContributorIfc {
public:
    virtual ~DeviceIdServiceContributorIfc() = default;

    /// Publishes a board's record. Blocks until the record is kept.
    /// @param aDevice      Name of the board: at least one of the characters A-Z, a-z, 0-9, '.', '_', '-'.
    /// @param aRecordText  The record, at most 1 MiB.
    /// @throws std::invalid_argument  for another name or a longer record.
    /// @throws std::runtime_error     when the record cannot be kept; the words name the place.
    virtual void contribute(std::string const& aDevice, std::string const& aRecordText) = 0;
};

} // namespace velmor::kepla::deviceid
