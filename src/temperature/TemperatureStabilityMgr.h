// SPDX-License-Identifier: Apache-2.0
// Turns the yes or no of a look at the probe temperature into the status that the daemon sees.
#pragma once

#include <fieldwarden/TemperatureStability.h>
#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <memory>
#include <mutex>

class TemperatureListenerSync;

/// The stability of the probe temperature since the last reset:
///
/// ```
/// NotYetStable --stable--> Stable --not stable--> LeftBand     reset() leads back from everywhere
/// ```
///
/// LeftBand is a latch: only reset() leaves it. Any thread may call; the listener is told while the mutex is
/// held, so that it hears the changes in their order, and must not push or reset from its call.
class TemperatureStabilityMgr : private virtual velmor::kepla::log::Logger {
public:
    /// Tells the listener NotYetStable.
    /// @param aListener  Not null.
    explicit TemperatureStabilityMgr(std::shared_ptr<TemperatureListenerSync> aListener);

    /// Takes a look into account; tells the listener when the status changes.
    /// @param aStable  Whether the temperature is in its band.
    /// Thread: any; blocks while the listener runs.
    void push(bool aStable);

    /// Goes back to NotYetStable and tells the listener, whatever the status was.
    /// Thread: any; blocks while the listener runs.
    void reset();

    /// @return The present status.
    /// Thread: any; does not block.
    TemperatureStability current() const;

private:
    void become(TemperatureStability aStability);

    std::mutex mMutex; ///< Held through each change and the news of it.
    std::atomic<TemperatureStability> mCurrent{TemperatureStability::NotYetStable};
    std::shared_ptr<TemperatureListenerSync> const mListener;
};
