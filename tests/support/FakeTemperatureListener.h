// SPDX-License-Identifier: Apache-2.0
// A daemon that remembers what it is told of temperatures.
#pragma once

#include <fieldwarden/TemperatureListenerInterface.h>

#include <functional>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace libfieldwarden::test {

/// Remembers each call as "magnetTemperatureChanged(298.15)", "magnetReadyChanged(true)" or
/// "probeTemperatureStatusChanged(1)". Any thread.
class FakeTemperatureListener : public TemperatureListenerInterface {
public:
    /// What happens at each call, behind its remembrance; may throw. Runs on the caller's thread with nothing
    /// locked.
    void onCall(std::function<void()> aWhat) {
        std::lock_guard const lock(mMutex);
        mOnCall = std::move(aWhat);
    }

    /// The calls since the last question, in order.
    std::vector<std::string> takeCalls() {
        std::lock_guard const lock(mMutex);
        return std::exchange(mCalls, {});
    }

    void magnetTemperatureChanged(double aTemperature) override { note(__func__, aTemperature); }
    void magnetReadyChanged(bool aReady) override { note(__func__, aReady); }
    void coilTemperatureChanged(double aTemperature) override { note(__func__, aTemperature); }
    void probeTargetTemperatureChanged(double aTemperature) override { note(__func__, aTemperature); }
    void probeTemperatureChanged(double aTemperature) override { note(__func__, aTemperature); }
    void probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus aStatus) override {
        note(__func__, aStatus);
    }
    void probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus aStatus) override {
        note(__func__, aStatus);
    }
    void probeTemperatureStabilityChanged(TemperatureStability aStability) override {
        note(__func__, aStability);
    }
    void probeMeasuredGasFlowChanged(double aFlow) override { note(__func__, aFlow); }
    void probeTargetGasFlowForOperationChanged(double aFlow) override { note(__func__, aFlow); }
    void probeTargetGasFlowForStandbyChanged(double aFlow) override { note(__func__, aFlow); }
    void probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus aStatus) override {
        note(__func__, aStatus);
    }
    void probeActualPowerChanged(double aPower) override { note(__func__, aPower); }
    void probeTargetTemperatureMinimumChanged(double aTemperature) override { note(__func__, aTemperature); }
    void probeTargetTemperatureMaximumChanged(double aTemperature) override { note(__func__, aTemperature); }
    void probePowerMaximumChanged(double aPower) override { note(__func__, aPower); }

private:
    template <typename Value>
    void note(char const* aName, Value aValue) {
        std::function<void()> happening;
        {
            std::lock_guard const lock(mMutex);
            if constexpr (std::is_enum_v<Value>) {
                mCalls.push_back(fmt::format("{}({})", aName, static_cast<int>(aValue)));
            } else {
                mCalls.push_back(fmt::format("{}({})", aName, aValue));
            }
            happening = mOnCall;
        }
        if (happening) {
            happening();
        }
    }

    std::mutex mMutex; ///< Guards all below.
    std::function<void()> mOnCall;
    std::vector<std::string> mCalls;
};

} // namespace libfieldwarden::test
