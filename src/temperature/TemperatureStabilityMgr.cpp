// SPDX-License-Identifier: Apache-2.0
// The three states of the probe's stability.
#include "temperature/TemperatureStabilityMgr.h"

#include "temperature/TemperatureListenerSync.h"

#include <utility>

TemperatureStabilityMgr::TemperatureStabilityMgr(std::shared_ptr<TemperatureListenerSync> aListener)
    : Logger("TemperatureStabilityMgr", "Temperature")
    , mListener(std::move(aListener)) {
    reset();
}

void TemperatureStabilityMgr::push(bool aStable) {
    std::lock_guard const lock(mMutex);
    if (mCurrent == TemperatureStability::NotYetStable && aStable) {
        become(TemperatureStability::Stable);
    } else if (mCurrent == TemperatureStability::Stable && !aStable) {
        become(TemperatureStability::LeftBand);
    }
}

void TemperatureStabilityMgr::reset() {
    std::lock_guard const lock(mMutex);
    become(TemperatureStability::NotYetStable);
}

TemperatureStability TemperatureStabilityMgr::current() const {
    return mCurrent;
}

/// The mutex is held by the caller.
void TemperatureStabilityMgr::become(TemperatureStability aStability) {
    mCurrent = aStability;
    mListener->probeTemperatureStabilityChanged(aStability);
}
