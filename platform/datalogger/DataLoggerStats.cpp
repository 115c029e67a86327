// SPDX-License-Identifier: Apache-2.0
// Checks of what describes a channel's statistics.
#include <velmor/kepla/datalogger/DataLoggerStats.h>

#include <stdexcept>
#include <string>

namespace velmor::kepla::datalogger {

DataLoggerStats::DataLoggerStats(DataLoggerStorageType const& aStorageType,
                                 std::chrono::seconds const& aPeriod)
    : mStorageType(aStorageType)
    , mPeriod(aPeriod) {
    if (isNone() ? mPeriod.count() != 0 : mPeriod.count() <= 0) {
        throw std::invalid_argument("Data logger statistics cannot have a period of " +
                                    std::to_string(mPeriod.count()) + " s");
    }
}

DataLoggerStats DataLoggerStats::none() {
    return {DataLoggerStorageType::None, std::chrono::seconds{0}};
}

} // namespace velmor::kepla::datalogger
