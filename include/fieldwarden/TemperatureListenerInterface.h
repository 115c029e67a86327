// SPDX-License-Identifier: Apache-2.0
// What the daemon implements to hear of temperatures and of the probe gas.
#pragma once

#include <fieldwarden/Export.h>
#include <fieldwarden/ProbeTemperatureControlGasFlowStatus.h>
#include <fieldwarden/ProbeTemperatureControlStatus.h>
#include <fieldwarden/ProbeTemperatureGlobalStatus.h>
#include <fieldwarden/TemperatureStability.h>

/// Implemented by the daemon, called by the temperature service. Calls come from whichever thread learned the
/// news: the periodic worker, the state machine of the probe regulation, or a caller of TemperatureInterface.
/// Two callbacks may run at once. A callback may ask the service's getters. What it must not do is to set what
/// it is told of: the news of the target comes while the probe's regulation is locked, that of gas, flow and
/// stability while the flow controller is, and a setter of targets, ranges, regulation, gas or sample exchange
/// would wait for itself for ever. A call that is already under way may end after
/// TemperatureInterface::removeListener() has returned. The order of the operations is fixed.
class FIELDWARDEN_API TemperatureListenerInterface {
public:
    virtual ~TemperatureListenerInterface() = default;

    /// The magnet temperature moved.
    /// @param aTemperature kelvin; reported from changes of 0.001 K.
    /// Thread: whichever read the sensor.
    virtual void magnetTemperatureChanged(double aTemperature) = 0;

    /// The magnet became ready or is no longer ready.
    /// @param aReady see TemperatureInterface::isMagnetReady().
    /// Thread: periodic worker.
    virtual void magnetReadyChanged(bool aReady) = 0;

    /// The shim coil temperature moved.
    /// @param aTemperature kelvin, referred to the nominal target of 298.15 K; reported from changes of 0.001
    /// K.
    /// Thread: whichever read the sensor.
    virtual void coilTemperatureChanged(double aTemperature) = 0;

    /// The target temperature of the probe was set, by the user or by a narrowed range.
    /// @param aTemperature kelvin; reported each time, changed or not.
    /// Thread: the caller of the setter.
    virtual void probeTargetTemperatureChanged(double aTemperature) = 0;

    /// The probe temperature moved.
    /// @param aTemperature kelvin; reported from changes of 0.1 K.
    /// Thread: whichever read the sensor.
    virtual void probeTemperatureChanged(double aTemperature) = 0;

    /// The probe regulation was switched on or off, or gave up.
    /// @param aStatus the new status.
    /// Thread: state machine.
    virtual void probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus aStatus) = 0;

    /// The probe gas changed its state.
    /// @param aStatus the new status.
    /// Thread: state machine, periodic worker, or a caller that sets the flow.
    virtual void probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus aStatus) = 0;

    /// The verdict on the stability of the probe changed.
    /// @param aStability the new verdict.
    /// Thread: state machine or periodic worker.
    virtual void probeTemperatureStabilityChanged(TemperatureStability aStability) = 0;

    /// The probe gas flow changed.
    /// @param aFlow l/h; the flow that the valves are set for, reported from changes of 0.1 l/h.
    /// Thread: state machine, periodic worker, or a caller that sets the flow.
    virtual void probeMeasuredGasFlowChanged(double aFlow) = 0;

    /// The probe gas flow wanted during operation changed.
    /// @param aFlow l/h; reported from changes of 0.1 l/h.
    /// Thread: state machine, periodic worker, or a caller that sets the flow.
    virtual void probeTargetGasFlowForOperationChanged(double aFlow) = 0;

    /// The probe gas flow wanted during standby changed; the instrument knows none but 0.0.
    /// @param aFlow l/h; reported from changes of 0.1 l/h.
    /// Thread: state machine.
    virtual void probeTargetGasFlowForStandbyChanged(double aFlow) = 0;

    /// The probe regulator changed its state.
    /// @param aStatus the new status.
    /// Thread: state machine.
    virtual void probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus aStatus) = 0;

    /// The power of the probe gas heater moved.
    /// @param aPower watt; reported from changes of 0.1 W.
    /// Thread: whichever read the power.
    virtual void probeActualPowerChanged(double aPower) = 0;

    /// The lowest probe target was set.
    /// @param aTemperature kelvin, lower end of the range that now holds; reported each time, changed or not.
    /// Thread: the caller of setProbeTemperatureMin() or setProbeTemperatureMax().
    virtual void probeTargetTemperatureMinimumChanged(double aTemperature) = 0;

    /// The highest probe target was set.
    /// @param aTemperature kelvin, upper end of the range that now holds; reported each time, changed or not.
    /// Thread: the caller of setProbeTemperatureMin() or setProbeTemperatureMax().
    virtual void probeTargetTemperatureMaximumChanged(double aTemperature) = 0;

    /// The highest heater power changed. This instrument's is fixed, so the call does not come today.
    /// @param aPower watt.
    /// Thread: any.
    virtual void probePowerMaximumChanged(double aPower) = 0;
};
