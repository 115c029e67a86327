// SPDX-License-Identifier: Apache-2.0
// Which statistics the data logger keeps of a channel beside its samples.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerStorageType.h>

#include <chrono>

namespace velmor::kepla::datalogger {

/// Statistics of a channel: count, least, greatest and mean value of each period. A value.
class DataLoggerStats {
public:
    /// @param aStorageType  How long the statistics are kept; None for no statistics.
    /// @param aPeriod       Length of the periods; they begin at its multiples since 1970-01-01 UTC. More
    ///                      than 0 s, or 0 s without statistics.
    /// @throws std::invalid_argument  for a period that is no such length.
    DataLoggerStats(DataLoggerStorageType const& aStorageType, std::chrono::seconds const& aPeriod);

    /// @return No statistics.
    static DataLoggerStats none();

    DataLoggerStorageType storageType() const noexcept { return mStorageType; }
    std::chrono::seconds period() const noexcept { return mPeriod; }
    bool isNone() const noexcept { return mStorageType == DataLoggerStorageType::None; }

    bool operator==(DataLoggerStats const&) const = default;

private:
    DataLoggerStorageType mStorageType;
    std::chrono::seconds mPeriod;
};

} // namespace velmor::kepla::datalogger
