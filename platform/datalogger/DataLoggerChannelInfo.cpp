// SPDX-License-Identifier: Apache-2.0
// Checks of what describes a channel.
#include <velmor/kepla/datalogger/DataLoggerChannelInfo.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace velmor::kepla::datalogger {

DataLoggerChannelInfo::DataLoggerChannelInfo(std::vector<std::string> aPath,
                                             DataLoggerUnit aUnit,
                                             DataLoggerStats const& aStats,
                                             DataLoggerStorageType aStorageType,
                                             std::string aDescription,
                                             std::chrono::microseconds const& aPeriod,
                                             double const& aLowerLimit,
                                             double const& aUpperLimit,
                                             double const& aLowerExpected,
                                             double const& aUpperExpected,
                                             std::map<int, std::string> aLabels,
                                             bool aEnabled,
                                             double const& aResolution,
                                             double const& aOffset,
                                             double const& aFactor,
                                             bool aHidden)
    : path(std::move(aPath))
    , unit(aUnit)
    , stats(aStats)
    , storageType(aStorageType)
    , description(std::move(aDescription))
    , period(aPeriod)
    , lowerLimit(aLowerLimit)
    , upperLimit(aUpperLimit)
    , lowerExpected(aLowerExpected)
    , upperExpected(aUpperExpected)
    , labels(std::move(aLabels))
    , enabled(aEnabled)
    , resolution(aResolution)
    , offset(aOffset)
    , factor(aFactor)
    , hidden(aHidden) {
    if (path.empty()) {
        throw std::invalid_argument("A data logger channel needs a path");
    }
    if (std::any_of(path.begin(), path.end(), [](std::string const& aPart) { return aPart.empty(); })) {
        throw std::invalid_argument("The data logger channel path \"" + name() + "\" has an empty part");
    }
}

std::string DataLoggerChannelInfo::name() const {
    std::string joined = path.front();
    for (std::size_t part = 1; part < path.size(); ++part) {
        joined += "/" + path[part];
    }
    return joined;
}

} // namespace velmor::kepla::datalogger
