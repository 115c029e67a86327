// SPDX-License-Identifier: Apache-2.0
// The temperature service as the daemon sees it: magnet, shim coils, iso box, and the adjustable temperature
// of the probe.
#pragma once

#include <string>

#include <fieldwarden/BoundedValue.h>
#include <fieldwarden/Export.h>
#include <fieldwarden/ProbeTemperatureControlGasFlowStatus.h>
#include <fieldwarden/ProbeTemperatureControlStatus.h>
#include <fieldwarden/ProbeTemperatureGlobalStatus.h>
#include <fieldwarden/TemperatureStability.h>

class TemperatureListenerInterface;

/// The temperature service. Temperatures are in kelvin, except getShimCoilTemperature(); flows are in l/h,
/// powers in watt.
///
/// Operations that read or write the board throw std::runtime_error when it does not answer. The adjustable
/// temperature of the probe ("AT") is an option: without it getProbeDeviceActiveChannel() is 0, probe
/// readings are 0.0 and requests to regulate throw. The order of the operations is fixed.
class FIELDWARDEN_API TemperatureInterface {
public:
    virtual ~TemperatureInterface() = default;

    /// Registers the one listener, in place of a former one. It is not told the present values.
    /// @param aListener not null and not owned. Keep it alive past removeListener(), see there.
    /// @throws std::invalid_argument aListener is null; the former one stays.
    /// Thread: any; does not block.
    virtual void setListener(TemperatureListenerInterface* aListener) = 0;

    /// Forgets the listener. A callback that is already under way may end after this returns, so keep the
    /// listener until the library is closed, or know that none is running.
    /// Thread: any, also a callback's; does not block.
    virtual void removeListener() = 0;

    /// Does nothing: each setting acts at once.
    /// Thread: any; does not block.
    virtual void beginOfOneParameterSet() = 0;

    /// Does nothing: each setting acts at once.
    /// Thread: any; does not block.
    virtual void endOfOneParameterSet() = 0;

    /// Does nothing: there is nothing to take back.
    /// Thread: any; does not block.
    virtual void cancelOfOneParameterSet() = 0;

    /// @return magnet temperature in kelvin, with the target +- 0.02 K as limits, format "1.3".
    /// @throws std::runtime_error the board does not answer.
    /// Thread: any; blocks for a transfer to the board.
    virtual BoundedValue getMagnetTemperature() = 0;

    /// @return target temperature of the magnet in kelvin, that of its first heater.
    /// @throws std::runtime_error the board does not answer.
    /// Thread: any; blocks for a transfer to the board if the target is not known yet.
    virtual double getTargetMagnetTemperature() = 0;

    /// @return whether the magnet is ready: for 500 s the moving averages (1000 s) of all six sensors lay
    /// within 0.02 K of the target. So it is false for at least 500 s after the opening.
    /// Thread: any; does not block.
    virtual bool isMagnetReady() = 0;

    /// @return probe temperature in kelvin, with the allowed range of the target as limits, format "1.1".
    /// @throws std::runtime_error the board does not answer.
    /// Thread: any; blocks for transfers to the board.
    virtual BoundedValue getProbeTemperature() = 0;

    /// @return target temperature of the probe in kelvin as the user set it; at first the lower end of the
    /// range.
    /// Thread: any; does not block.
    virtual double getTargetProbeTemperature() = 0;

    /// Sets the target temperature of the probe. While regulating a ramp towards it begins; while off it is
    /// kept.
    /// @param aTemperature kelvin, within the limits of getProbeTemperature(), both allowed.
    /// @throws std::invalid_argument outside of the range.
    /// @throws std::runtime_error no AT option, or the board does not answer.
    /// Thread: any; queues the request, may block for a transfer to the board. Calls the listener.
    virtual void setTargetProbeTemperature(double aTemperature) = 0;

    /// @return shim coil temperature in degrees Celsius, the one value that is not in kelvin, as it would be
    /// at the nominal target; with 25.0 +- 0.02 as limits, format "1.3".
    /// @throws std::runtime_error the board does not answer.
    /// Thread: any; blocks for transfers to the board.
    virtual BoundedValue getShimCoilTemperature() = 0;

    /// @return iso box temperature in kelvin, with the target +- 0.3 K as limits, format "1.3".
    /// @throws std::runtime_error the board does not answer.
    /// Thread: any; blocks for a transfer to the board.
    virtual BoundedValue getIsoBoxTemperature() = 0;

    /// @return whether the probe regulation is off, on, or gave up.
    /// Thread: any; does not block.
    virtual ProbeTemperatureGlobalStatus getProbeTemperatureStatus() = 0;

    /// Switches the probe regulation on or off. Off ramps the probe down first, which takes minutes; the
    /// listener is told when it is done.
    /// @param aStatus Off or On.
    /// @throws std::invalid_argument another value.
    /// @throws std::runtime_error no AT option; or On while the lock has not yet been locked for some
    /// seconds.
    /// Thread: any; queues the request.
    virtual void setProbeTemperatureStatus(ProbeTemperatureGlobalStatus aStatus) = 0;

    /// @return always 0: no chiller.
    /// Thread: any; does not block.
    virtual int getProbeChillerType() = 0;

    /// @return always empty: no chiller.
    /// Thread: any; does not block.
    virtual std::string getProbeChillerActualPowerParameterName() = 0;

    /// @return always empty: no chiller.
    /// Thread: any; does not block.
    virtual std::string getProbeChillerTargetPowerParameterName() = 0;

    /// @return always 0: no chiller.
    /// Thread: any; does not block.
    virtual int getProbeChillerStatus() = 0;

    /// @return probe gas flow in l/h: the flow that the valves are set for, there is no flow meter.
    /// Thread: any; does not block.
    virtual double getProbeMeasuredGasFlow() = 0;

    /// @return the same flow as getProbeMeasuredGasFlow(), in l/h.
    /// Thread: any; does not block.
    virtual double getProbeTargetGasFlowForOperation() = 0;

    /// Overrides the probe gas flow until the next regulation begins. Only on a system with the AT option.
    /// @param aFlow l/h, one of getProbeGasFlowList() to within 0.0001.
    /// @throws std::out_of_range a flow that the flow box cannot set.
    /// @throws std::runtime_error the board does not answer.
    /// Thread: any; blocks for transfers to the board and 0.3 s for the hold gas where that must flow first.
    virtual void setProbeGasFlowForOperation(double aFlow) = 0;

    /// @return the possible flows as XML, ascending from 0:
    /// `<flows><flow valueLiterPerHour="0" /><flow valueLiterPerHour="250.5" /></flows>`.
    /// Thread: any; does not block.
    virtual std::string getProbeGasFlowList() const = 0;

    /// @return always 0.0: there is no standby flow.
    /// Thread: any; does not block.
    virtual double getProbeTargetGasFlowForStandby() = 0;

    /// @return what the probe gas is doing.
    /// Thread: any; does not block.
    virtual ProbeTemperatureControlGasFlowStatus getProbeGasFlowStatus() = 0;

    /// @return the active sensor with the probe temperature in kelvin as XML; `<temperature />` without AT
    /// option.
    /// @throws std::runtime_error the board does not answer.
    /// Thread: any; blocks for a transfer to the board.
    virtual std::string getProbeTemperatureMeasurements() = 0;

    /// @return always 0.
    /// Thread: any; does not block.
    virtual int getProbeGasMode() = 0;

    /// @return 1 with the AT option, 0 without.
    /// Thread: any; does not block.
    virtual int getProbeDeviceActiveChannel() = 0;

    /// @return always 0.
    /// Thread: any; does not block.
    virtual int getProbeDeviceAccessoryChannel() = 0;

    /// @return always 0.0: no safety sensor.
    /// Thread: any; does not block.
    virtual double getProbeMeasuredSafetyTemperature() = 0;

    /// @return what the regulator is doing, as the number of getProbeTemperatureRegulatorMode().
    /// Thread: any; does not block.
    virtual int getProbeTemperatureRegulatorStatus() = 0;

    /// @return whether the probe temperature is stable: five readings, one a second, within 0.5 K of the
    /// target.
    /// Thread: any; does not block.
    virtual TemperatureStability getProbeTemperatureRegulatorStability() = 0;

    /// @return power of the probe gas heater in watt; 0.0 without AT option.
    /// @throws std::runtime_error the board does not answer.
    /// Thread: any; blocks for a transfer to the board.
    virtual double getProbeActualPower() = 0;

    /// @return what the regulator is doing.
    /// Thread: any; does not block.
    virtual ProbeTemperatureControlStatus getProbeTemperatureRegulatorMode() = 0;

    /// @return what setProbeMaximumSafetyTemperature() stored, in kelvin.
    /// Thread: any; does not block.
    virtual double getProbeMaximumSafetyTemperature() = 0;

    /// Keeps a number for getProbeMaximumSafetyTemperature(). It limits nothing.
    /// @param aTemperature kelvin.
    /// Thread: any; does not block.
    virtual void setProbeMaximumSafetyTemperature(double aTemperature) = 0;

    /// @return full power of the probe gas heater, always 43.0 W.
    /// Thread: any; does not block.
    virtual double getProbeFullPower() = 0;

    /// @return allowed power of the probe gas heater, always 43.0 W.
    /// Thread: any; does not block.
    virtual double getProbeMaximumPower() = 0;

    /// Narrows the range of the probe target from below. A target that falls out of it is moved to the new
    /// limit.
    /// @param aTemperature kelvin, not negative; the limits of board and flow table stay in force.
    /// @throws std::invalid_argument negative, or the new limit leaves no room for a target.
    /// @throws std::runtime_error a target must be moved on a system without AT option, or the board does not
    /// answer.
    /// Thread: any; may block for transfers to the board. Calls the listener with both limits.
    virtual void setProbeTemperatureMin(double aTemperature) = 0;

    /// Narrows the range of the probe target from above. A target that falls out of it is moved to the new
    /// limit.
    /// @param aTemperature kelvin, not negative; the limits of board and flow table stay in force.
    /// @throws std::invalid_argument negative, or the new limit leaves no room for a target.
    /// @throws std::runtime_error a target must be moved on a system without AT option, or the board does not
    /// answer.
    /// Thread: any; may block for transfers to the board. Calls the listener with both limits.
    virtual void setProbeTemperatureMax(double aTemperature) = 0;

    /// Sets how the shim coils are tempered and saves it on the board if it changed.
    /// @param aMode 0 or 1.
    /// @throws std::invalid_argument another mode.
    /// @throws std::runtime_error the board does not answer.
    /// Thread: any; blocks for transfers to the board.
    virtual void setShimCoolingMode(int aMode) = 0;

    /// Takes the probe gas down for the exchange of a sample, or brings it back to where it was. Without AT
    /// option only the mode is kept. Asking twice for the same does nothing.
    /// @param aSampleExchange true before, false after the exchange.
    /// @throws std::runtime_error the gas does not follow within 10 s, or the flow box is a prototype.
    /// Thread: any except the listener's callbacks; blocks for up to 10 s.
    virtual void setAirFlowForSampleExchange(bool aSampleExchange) = 0;

    /// Tells whether a sample is in the magnet, true at first. If there is none, the gas stays off after an
    /// exchange.
    /// @param aSampleInMagnet whether there is one.
    /// Thread: any; does not block.
    virtual void setSampleInMagnetForAirFlow(bool aSampleInMagnet) = 0;

    /// @return whether a sample exchange is under way.
    /// Thread: any; does not block.
    virtual bool getAirFlowForSampleExchange() const = 0;
};
