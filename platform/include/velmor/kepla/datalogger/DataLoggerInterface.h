// SPDX-License-Identifier: Apache-2.0
// What the services know of the data logger: it makes channels.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerChannelIfc.h>
#include <velmor/kepla/datalogger/DataLoggerChannelInfo.h>

#include <memory>

namespace velmor::kepla::datalogger {

/// Makes channels. Any thread.
class DataLoggerInterface {
public:
    virtual ~DataLoggerInterface() = default;

    /// Makes a channel, or finds the one of the same path; the latest description holds. Does not block on a
    /// disk.
    /// @param aInfo  The channel's description.
    /// @return The channel. It stays good when the data logger is let go.
    virtual std::shared_ptr<DataLoggerChannelIfc> createChannel(DataLoggerChannelInfo const& aInfo) = 0;
};

} // namespace velmor::kepla::datalogger
