// SPDX-License-Identifier: Apache-2.0
// The listener that the temperature's objects always have, whether or not the daemon listens.
#pragma once

#include <fieldwarden/TemperatureListenerInterface.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

/// Keeps the last value of every quantity, so that nobody needs the hardware to know it, and hands it on to
/// the one listener that may be registered, if it is news: a temperature, flow or power that moved far
/// enough, a status that is another. The limits of the probe's target and the target itself are handed on at
/// each call. Values are kept whether or not a listener is registered. NaN is never news.
///
/// Any thread may call. No lock is held while the listener runs, so it may call back, two of its calls may
/// run at once, and one that is under way may end after removeListener() has returned. It is called with the
/// value that is kept when its call begins. A listener that throws is logged and harms nobody. Nothing here
/// allocates.
class TemperatureListenerSync : public TemperatureListenerInterface,
                                private virtual velmor::kepla::log::Logger {
public:
    /// @param aTemperatureThreshold  From which change on a temperature of magnet and shim coils is news, in
    /// K.
    /// @param aOtherThreshold        The same for probe temperature (K), flows (l/h) and power (W).
    TemperatureListenerSync(double aTemperatureThreshold, double aOtherThreshold);

    void magnetTemperatureChanged(double aTemperature) override;
    void magnetReadyChanged(bool aReady) override;
    void coilTemperatureChanged(double aTemperature) override;
    void probeTargetTemperatureChanged(double aTemperature) override;
    void probeTemperatureChanged(double aTemperature) override;
    void probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus aStatus) override;
    void probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus aStatus) override;
    void probeTemperatureStabilityChanged(TemperatureStability aStability) override;
    void probeMeasuredGasFlowChanged(double aFlow) override;
    void probeTargetGasFlowForOperationChanged(double aFlow) override;
    void probeTargetGasFlowForStandbyChanged(double aFlow) override;
    /// Also wakes those who wait for a status.
    void probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus aStatus) override;
    void probeActualPowerChanged(double aPower) override;
    void probeTargetTemperatureMinimumChanged(double aTemperature) override;
    void probeTargetTemperatureMaximumChanged(double aTemperature) override;
    void probePowerMaximumChanged(double aPower) override;

    /// Registers the listener in place of a former one. It hears nothing before the next news.
    /// @param aListener  Not null, not owned.
    /// @throws std::invalid_argument  when it is null; the former one stays.
    void setListener(TemperatureListenerInterface* aListener);

    /// Forgets the listener.
    void removeListener();

    /// @return The last one told; Off at first. Never blocks.
    ProbeTemperatureGlobalStatus temperatureStatus() const;

    /// @return The last one told; Off at first. Never blocks.
    ProbeTemperatureControlGasFlowStatus gasStatus() const;

    /// @return The last one told; Off at first. Never blocks.
    ProbeTemperatureControlStatus temperatureControlStatus() const;

    /// @return The last one told; NotYetStable at first. Never blocks.
    TemperatureStability temperatureStability() const;

    /// @return The measured flow of the probe gas that was kept last, in l/h; 0.0 at first. Never blocks.
    double gasFlow() const;

    /// Blocks until the control status is the given one.
    /// @param aStatus   The status to wait for.
    /// @param aTimeout  How long at most.
    /// @return Whether it is; false when the time is over.
    bool waitForTemperatureControlStatus(ProbeTemperatureControlStatus aStatus,
                                         std::chrono::milliseconds aTimeout);

    /// Blocks until the control status is another than the given one.
    /// @param aStatus   The status to leave.
    /// @param aTimeout  How long at most.
    /// @return Whether it is another; false when the time is over.
    bool waitForTemperatureControlStatusNOT(ProbeTemperatureControlStatus aStatus,
                                            std::chrono::milliseconds aTimeout);

    /// @return Whether the values are at least the threshold apart. Never blocks.
    bool isSignificant(double aNewValue, double aOldValue, double aThreshold) const;

private:
    bool storeSignificant(double& aKept, double aNewValue, double aThreshold);
    template <typename Value>
    bool storeDifferent(Value& aKept, Value aNewValue);
    void store(double& aKept, double aNewValue);
    template <typename Value>
    void tell(char const* aName, void (TemperatureListenerInterface::*aOperation)(Value), Value const& aKept);
    template <typename Value>
    Value kept(Value const& aKept) const;
    template <typename Condition>
    bool waitFor(std::chrono::milliseconds aTimeout, Condition aCondition);

    double const mTemperatureThreshold;
    double const mOtherThreshold;
    velmor::platform::Clock& mClock;
    mutable std::mutex mMutex; ///< Guards all below.
    std::condition_variable mControlStatusChanged;
    TemperatureListenerInterface* mListener = nullptr;
    ProbeTemperatureGlobalStatus mTemperatureStatus = ProbeTemperatureGlobalStatus::Off;
    ProbeTemperatureControlGasFlowStatus mGasStatus = ProbeTemperatureControlGasFlowStatus::Off;
    ProbeTemperatureControlStatus mTemperatureControlStatus = ProbeTemperatureControlStatus::Off;
    TemperatureStability mTemperatureStability = TemperatureStability::NotYetStable;
    bool mMagnetReady = false;
    double mGasFlow = 0.0;
    double mTargetGasFlowForOperation = 0.0;
    double mTargetGasFlowForStandby = 0.0;
    double mMagnetTemperature = 0.0;
    double mCoilTemperature = 0.0;
    double mProbeTargetTemperature = 0.0;
    double mProbeTemperature = 0.0;
    double mProbeActualPower = 0.0;
    double mProbeTargetTemperatureMinimum = 0.0;
    double mProbeTargetTemperatureMaximum = 0.0;
    double mProbePowerMaximum = 0.0;
};
