// SPDX-License-Identifier: Apache-2.0
// What a service holds of one of its data-logger channels.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerStatusCode.h>

#include <chrono>

namespace velmor::kepla::datalogger {

/// One channel to push samples to. Any thread may push; nothing blocks on a disk, allocates or throws.
class DataLoggerChannelIfc {
public:
    virtual ~DataLoggerChannelIfc() = default;

    /// Keeps a sample.
    /// @param aValue   The value in the channel's unit; NaN and infinities are kept as they are.
    /// @param aTime    Time of the sample; kept to the microsecond.
    /// @param aStatus  What is known of the value.
    virtual void push(double aValue,
                      std::chrono::system_clock::time_point aTime,
                      DataLoggerStatusCode aStatus) noexcept = 0;

    /// Keeps a good sample.
    void push(double aValue, std::chrono::system_clock::time_point aTime) noexcept {
        push(aValue, aTime, DataLoggerStatusCode::Good);
    }
};

} // namespace velmor::kepla::datalogger
