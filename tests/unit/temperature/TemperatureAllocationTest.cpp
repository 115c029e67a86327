// SPDX-License-Identifier: Apache-2.0
// What the way of temperature news takes from the heap: nothing.
#include "temperature/TemperatureListenerSync.h"
#include "temperature/TemperatureStabilityMgr.h"

#include "support/AllocationCount.h"

#include <chrono>
#include <memory>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::allocationsOfThisThread;

/// Counts what it is told.
class Counter : public TemperatureListenerInterface {
public:
    void magnetTemperatureChanged(double /*aTemperature*/) override { ++count; }
    void magnetReadyChanged(bool /*aReady*/) override { ++count; }
    void coilTemperatureChanged(double /*aTemperature*/) override { ++count; }
    void probeTargetTemperatureChanged(double /*aTemperature*/) override { ++count; }
    void probeTemperatureChanged(double /*aTemperature*/) override { ++count; }
    void probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus /*aStatus*/) override { ++count; }
    void probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus /*aStatus*/) override {
        ++count;
    }
    void probeTemperatureStabilityChanged(TemperatureStability /*aStability*/) override { ++count; }
    void probeMeasuredGasFlowChanged(double /*aFlow*/) override { ++count; }
    void probeTargetGasFlowForOperationChanged(double /*aFlow*/) override { ++count; }
    void probeTargetGasFlowForStandbyChanged(double /*aFlow*/) override { ++count; }
    void probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus /*aStatus*/) override { ++count; }
    void probeActualPowerChanged(double /*aPower*/) override { ++count; }
    void probeTargetTemperatureMinimumChanged(double /*aTemperature*/) override { ++count; }
    void probeTargetTemperatureMaximumChanged(double /*aTemperature*/) override { ++count; }
    void probePowerMaximumChanged(double /*aPower*/) override { ++count; }

    unsigned count = 0;
};

TEST(TemperatureAllocation, TakesNothingForNewsThatAreHandedOn) {
    Counter listener;
    auto const sync = std::make_shared<TemperatureListenerSync>(0.001, 0.1);
    TemperatureStabilityMgr stability(sync);
    sync->setListener(&listener);
    auto const before = allocationsOfThisThread();
    for (int step = 1; step <= 100; ++step) {
        double const value = step;
        bool const odd = step % 2 == 1;
        sync->magnetTemperatureChanged(value);
        sync->magnetReadyChanged(odd);
        sync->coilTemperatureChanged(value);
        sync->probeTargetTemperatureChanged(value);
        sync->probeTemperatureChanged(value);
        sync->probeTemperatureStatusChanged(odd ? ProbeTemperatureGlobalStatus::On
                                                : ProbeTemperatureGlobalStatus::Off);
        sync->probeTemperatureGasStatusChanged(odd ? ProbeTemperatureControlGasFlowStatus::On
                                                   : ProbeTemperatureControlGasFlowStatus::Off);
        sync->probeMeasuredGasFlowChanged(value);
        sync->probeTargetGasFlowForOperationChanged(value);
        sync->probeTargetGasFlowForStandbyChanged(value);
        sync->probeTemperatureControlStatusChanged(odd ? ProbeTemperatureControlStatus::Holding
                                                       : ProbeTemperatureControlStatus::Off);
        sync->probeActualPowerChanged(value);
        sync->probeTargetTemperatureMinimumChanged(value);
        sync->probeTargetTemperatureMaximumChanged(value);
        sync->probePowerMaximumChanged(value);
        stability.push(true);
        stability.reset();
        sync->waitForTemperatureControlStatusNOT(ProbeTemperatureControlStatus::SampleExchange,
                                                 std::chrono::milliseconds(1));
    }
    EXPECT_EQ(allocationsOfThisThread() - before, 0U);
    EXPECT_EQ(listener.count, 100U * 17U); // 15 of the quantities and 2 of the stability, each time
}

TEST(TemperatureAllocation, TakesNothingForValuesThatAreNoNews) {
    TemperatureListenerSync sync(0.001, 0.1);
    auto const before = allocationsOfThisThread();
    for (int step = 0; step < 1000; ++step) {
        sync.magnetTemperatureChanged(0.0);
        sync.probeTemperatureChanged(0.05);
    }
    EXPECT_EQ(allocationsOfThisThread() - before, 0U);
}

} // namespace
