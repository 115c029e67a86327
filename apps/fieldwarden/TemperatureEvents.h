// SPDX-License-Identifier: Apache-2.0
// The temperature listener of the command: turns what the probe's regulation says into events.
#pragma once

#include "apps/fieldwarden/Event.h"

#include <fieldwarden/TemperatureListenerInterface.h>

class TemperatureInterface;

namespace libfieldwarden::app {

/// Listens to the temperature service from construction to the library's end, and outlives it. The calls come
/// on several of the library's threads. Temperatures and power move all the time: whoever wants them reads
/// them at leisure, so their news makes no events.
class TemperatureEvents : public TemperatureListenerInterface {
public:
    /// The names of the events, all of the source "probe", but "ready" of the source "magnet".
    static constexpr char const* kStatus = "status";
    static constexpr char const* kControl = "control";
    static constexpr char const* kGas = "gas";
    static constexpr char const* kFlow = "flow";
    static constexpr char const* kStability = "stability";
    static constexpr char const* kTarget = "target";
    static constexpr char const* kReady = "ready";

    /// @param aTemperature  The temperature service, still open.
    /// @param aQueue        Takes the events; outlives this object, and the library's last call.
    TemperatureEvents(TemperatureInterface& aTemperature, EventQueue& aQueue);
    ~TemperatureEvents() override = default;
    TemperatureEvents(TemperatureEvents const&) = delete;
    TemperatureEvents& operator=(TemperatureEvents const&) = delete;

    void magnetTemperatureChanged(double /*aTemperature*/) override {}
    void magnetReadyChanged(bool aReady) override;
    void coilTemperatureChanged(double /*aTemperature*/) override {}
    void probeTargetTemperatureChanged(double aTemperature) override;
    void probeTemperatureChanged(double /*aTemperature*/) override {}
    void probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus aStatus) override;
    void probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus aStatus) override;
    void probeTemperatureStabilityChanged(TemperatureStability aStability) override;
    void probeMeasuredGasFlowChanged(double aFlow) override;
    void probeTargetGasFlowForOperationChanged(double /*aFlow*/) override {} // The same flow again.
    void probeTargetGasFlowForStandbyChanged(double /*aFlow*/) override {}
    void probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus aStatus) override;
    void probeActualPowerChanged(double /*aPower*/) override {}
    void probeTargetTemperatureMinimumChanged(double /*aTemperature*/) override {}
    void probeTargetTemperatureMaximumChanged(double /*aTemperature*/) override {}
    void probePowerMaximumChanged(double /*aPower*/) override {}

private:
    /// A status as an event, with its number and what it means.
    template <typename Status>
    void push(char const* aName, char const* aWords, Status aStatus);

    EventQueue& mQueue;
};

} // namespace libfieldwarden::app
