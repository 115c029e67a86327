// SPDX-License-Identifier: Apache-2.0
// What of the temperature's news is kept, and the way of the rest to the daemon.
#include "temperature/TemperatureListenerSync.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <stdexcept>

using velmor::kepla::log::Severity;

namespace {
/// No wait is longer; beyond it, adding to the time could overflow.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24 * 365);
} // namespace

TemperatureListenerSync::TemperatureListenerSync(double aTemperatureThreshold, double aOtherThreshold)
    : Logger("TemperatureListenerSync", "Temperature")
    , mTemperatureThreshold(aTemperatureThreshold)
    , mOtherThreshold(aOtherThreshold)
    , mClock(velmor::platform::Clock::current()) {}

// ------------------------------------------------------------------------------------ keeping and telling

bool TemperatureListenerSync::isSignificant(double aNewValue, double aOldValue, double aThreshold) const {
    return std::abs(aNewValue - aOldValue) >= aThreshold;
}

/// @return Whether the value is news; only then it is kept, so that small steps add up.
bool TemperatureListenerSync::storeSignificant(double& aKept, double aNewValue, double aThreshold) {
    std::lock_guard const lock(mMutex);
    if (!isSignificant(aNewValue, aKept, aThreshold)) {
        return false;
    }
    aKept = aNewValue;
    return true;
}

/// @return Whether the value is news.
template <typename Value>
bool TemperatureListenerSync::storeDifferent(Value& aKept, Value aNewValue) {
    std::lock_guard const lock(mMutex);
    if (aNewValue == aKept) {
        return false;
    }
    aKept = aNewValue;
    return true;
}

void TemperatureListenerSync::store(double& aKept, double aNewValue) {
    std::lock_guard const lock(mMutex);
    aKept = aNewValue;
}

/// Calls the listener, if there is one, with the value that is kept now.
template <typename Value>
void TemperatureListenerSync::tell(char const* aName,
                                   void (TemperatureListenerInterface::*aOperation)(Value),
                                   Value const& aKept) {
    std::unique_lock lock(mMutex);
    TemperatureListenerInterface* const listener = mListener;
    Value const value = aKept;
    lock.unlock();
    if (listener == nullptr) {
        return;
    }
    try {
        (listener->*aOperation)(value);
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "The temperature's listener failed in %s: %s", {}, aName, failure.what());
    } catch (...) {
        keplaDoLog(Severity::Error, "The temperature's listener failed in %s", {}, aName);
    }
}

template <typename Value>
Value TemperatureListenerSync::kept(Value const& aKept) const {
    std::lock_guard const lock(mMutex);
    return aKept;
}

// ----------------------------------------------------------------------------------- news if significant

void TemperatureListenerSync::magnetTemperatureChanged(double aTemperature) {
    if (!storeSignificant(mMagnetTemperature, aTemperature, mTemperatureThreshold)) {
        return;
    }
    keplaDoLog(Severity::Trace, "magnetTemperatureChanged(temperature = %fK)", {}, aTemperature);
    tell(__func__, &TemperatureListenerInterface::magnetTemperatureChanged, mMagnetTemperature);
}

void TemperatureListenerSync::coilTemperatureChanged(double aTemperature) {
    if (!storeSignificant(mCoilTemperature, aTemperature, mTemperatureThreshold)) {
        return;
    }
    keplaDoLog(Severity::Trace, "coilTemperatureChanged(temperature = %fK)", {}, aTemperature);
    tell(__func__, &TemperatureListenerInterface::coilTemperatureChanged, mCoilTemperature);
}

void TemperatureListenerSync::probeTemperatureChanged(double aTemperature) {
    // Intended: the other threshold, though it is a temperature.
    if (!storeSignificant(mProbeTemperature, aTemperature, mOtherThreshold)) {
        return;
    }
    keplaDoLog(Severity::Trace, "probeTemperatureChanged(currentTemperature =%fK)", {}, aTemperature);
    tell(__func__, &TemperatureListenerInterface::probeTemperatureChanged, mProbeTemperature);
}

void TemperatureListenerSync::probeMeasuredGasFlowChanged(double aFlow) {
    if (!storeSignificant(mGasFlow, aFlow, mOtherThreshold)) {
        return;
    }
    keplaDoLog(Severity::Trace, "probeMeasuredGasFlowChanged(literPerHour = %f)", {}, aFlow);
    tell(__func__, &TemperatureListenerInterface::probeMeasuredGasFlowChanged, mGasFlow);
}

void TemperatureListenerSync::probeTargetGasFlowForOperationChanged(double aFlow) {
    if (!storeSignificant(mTargetGasFlowForOperation, aFlow, mOtherThreshold)) {
        return;
    }
    keplaDoLog(Severity::Trace, "probeTargetGasFlowForOperationChanged(flowInLiterPerHour = %f)", {}, aFlow);
    tell(__func__, &TemperatureListenerInterface::probeTargetGasFlowForOperationChanged,
         mTargetGasFlowForOperation);
}

void TemperatureListenerSync::probeTargetGasFlowForStandbyChanged(double aFlow) {
    if (!storeSignificant(mTargetGasFlowForStandby, aFlow, mOtherThreshold)) {
        return;
    }
    keplaDoLog(Severity::Trace, "probeTargetGasFlowForStandbyChanged(flowInLiterPerHour = %f)", {}, aFlow);
    tell(__func__, &TemperatureListenerInterface::probeTargetGasFlowForStandbyChanged,
         mTargetGasFlowForStandby);
}

void TemperatureListenerSync::probeActualPowerChanged(double aPower) {
    if (!storeSignificant(mProbeActualPower, aPower, mOtherThreshold)) {
        return;
    }
    keplaDoLog(Severity::Trace, "probeActualPowerChanged(power = %f)", {}, aPower);
    tell(__func__, &TemperatureListenerInterface::probeActualPowerChanged, mProbeActualPower);
}

// ------------------------------------------------------------------------------------------- always news

void TemperatureListenerSync::probeTargetTemperatureChanged(double aTemperature) {
    store(mProbeTargetTemperature, aTemperature);
    keplaDoLog(Severity::Info, "probeTargetTemperatureChanged(targetTemperature = %fK)", {}, aTemperature);
    tell(__func__, &TemperatureListenerInterface::probeTargetTemperatureChanged, mProbeTargetTemperature);
}

void TemperatureListenerSync::probeTargetTemperatureMinimumChanged(double aTemperature) {
    store(mProbeTargetTemperatureMinimum, aTemperature);
    tell(__func__, &TemperatureListenerInterface::probeTargetTemperatureMinimumChanged,
         mProbeTargetTemperatureMinimum);
}

void TemperatureListenerSync::probeTargetTemperatureMaximumChanged(double aTemperature) {
    store(mProbeTargetTemperatureMaximum, aTemperature);
    tell(__func__, &TemperatureListenerInterface::probeTargetTemperatureMaximumChanged,
         mProbeTargetTemperatureMaximum);
}

void TemperatureListenerSync::probePowerMaximumChanged(double aPower) {
    store(mProbePowerMaximum, aPower);
    keplaDoLog(Severity::Trace, "probePowerMaximumChanged(max = %f)", {}, aPower);
    tell(__func__, &TemperatureListenerInterface::probePowerMaximumChanged, mProbePowerMaximum);
}

// -------------------------------------------------------------------------------------- news if different

void TemperatureListenerSync::magnetReadyChanged(bool aReady) {
    if (!storeDifferent(mMagnetReady, aReady)) {
        return;
    }
    keplaDoLog(Severity::Info, "magnetReadyChanged(stated = %d)", {}, aReady);
    tell(__func__, &TemperatureListenerInterface::magnetReadyChanged, mMagnetReady);
}

void TemperatureListenerSync::probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus aStatus) {
    if (!storeDifferent(mTemperatureStatus, aStatus)) {
        return;
    }
    keplaDoLog(Severity::Info, "probeTemperatureStatus(status = %d)", {}, static_cast<int>(aStatus));
    tell(__func__, &TemperatureListenerInterface::probeTemperatureStatusChanged, mTemperatureStatus);
}

void TemperatureListenerSync::probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus aStatus) {
    if (!storeDifferent(mGasStatus, aStatus)) {
        return;
    }
    keplaDoLog(Severity::Info, "probeTemperatureGasStatus(gasStatus = %d)", {}, static_cast<int>(aStatus));
    tell(__func__, &TemperatureListenerInterface::probeTemperatureGasStatusChanged, mGasStatus);
}

void TemperatureListenerSync::probeTemperatureStabilityChanged(TemperatureStability aStability) {
    if (!storeDifferent(mTemperatureStability, aStability)) {
        return;
    }
    keplaDoLog(Severity::Info, "probeTemperatureStabilityChanged(stability = %d)", {},
               static_cast<int>(aStability));
    tell(__func__, &TemperatureListenerInterface::probeTemperatureStabilityChanged, mTemperatureStability);
}

void TemperatureListenerSync::probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus aStatus) {
    if (!storeDifferent(mTemperatureControlStatus, aStatus)) {
        return;
    }
    mControlStatusChanged.notify_all();
    keplaDoLog(Severity::Info, "probeTemperatureControlStatusChanged(status = %d)", {},
               static_cast<int>(aStatus));
    tell(__func__, &TemperatureListenerInterface::probeTemperatureControlStatusChanged,
         mTemperatureControlStatus);
}

// ------------------------------------------------------------------------------------------ the listener

void TemperatureListenerSync::setListener(TemperatureListenerInterface* aListener) {
    keplaDoLog(Severity::Trace, "setListener", {});
    if (aListener == nullptr) {
        keplaDoLog(Severity::Error, "Cannot set temperature listener to nullptr, used removeListener instead",
                   {});
        throw std::invalid_argument("Invalid temperature listener");
    }
    std::lock_guard const lock(mMutex);
    mListener = aListener;
}

void TemperatureListenerSync::removeListener() {
    keplaDoLog(Severity::Trace, "removeListener", {});
    std::lock_guard const lock(mMutex);
    mListener = nullptr;
}

// ---------------------------------------------------------------------------------------- what is known

ProbeTemperatureGlobalStatus TemperatureListenerSync::temperatureStatus() const {
    return kept(mTemperatureStatus);
}

ProbeTemperatureControlGasFlowStatus TemperatureListenerSync::gasStatus() const {
    return kept(mGasStatus);
}

ProbeTemperatureControlStatus TemperatureListenerSync::temperatureControlStatus() const {
    return kept(mTemperatureControlStatus);
}

TemperatureStability TemperatureListenerSync::temperatureStability() const {
    return kept(mTemperatureStability);
}

double TemperatureListenerSync::gasFlow() const {
    return kept(mGasFlow);
}

/// Blocks until a condition on the control status holds.
template <typename Condition>
bool TemperatureListenerSync::waitFor(std::chrono::milliseconds aTimeout, Condition aCondition) {
    std::unique_lock lock(mMutex);
    return mClock.waitFor(mControlStatusChanged, lock, std::min(aTimeout, kLongestWait), aCondition);
}

bool TemperatureListenerSync::waitForTemperatureControlStatus(ProbeTemperatureControlStatus aStatus,
                                                              std::chrono::milliseconds aTimeout) {
    return waitFor(aTimeout, [&] { return mTemperatureControlStatus == aStatus; });
}

bool TemperatureListenerSync::waitForTemperatureControlStatusNOT(ProbeTemperatureControlStatus aStatus,
                                                                 std::chrono::milliseconds aTimeout) {
    return waitFor(aTimeout, [&] { return mTemperatureControlStatus != aStatus; });
}
