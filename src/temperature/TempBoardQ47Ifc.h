// SPDX-License-Identifier: Apache-2.0
// What the temperature side of the library needs of the temperature board, and the modes that the board
// knows.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

/// Which adjustable temperature option (AT) the system has; one byte on the bus.
enum class VTMode : std::uint8_t {
    /// No AT: no probe gas to heat.
    None = 0,
    /// AT with the prototype of the flow box.
    Prototype = 1,
    /// AT with a flow box on the board's I2C port expander.
    PortExpander = 2,
};

/// How the board tempers the shim coils, by the board's own numbers; one byte on the bus.
enum class ShimTemperingMode : std::uint8_t {
    Mode0 = 0,
    Mode1 = 1,
};

/// Which Peltier element tempers the iso box; one byte on the bus. A board may report any other byte, and it
/// is passed on as it comes.
enum class IsoBoxTemperingMode : std::uint8_t {
    SmallPeltier = 0,
    BigPeltier = 1,
};

/// Typed access to the temperature board: sensors, heaters and regulators of magnet, shim coils and iso box,
/// and of the probe gas where the system has the AT option. Temperatures are in kelvin but for
/// setTargetMagnetTemperature().
///
/// The operations may be called from any thread and block while the board answers, unless they tell
/// otherwise. All throw what the bus throws (std::runtime_error) when the board does not answer or refuses.
/// An operation that needs the AT option or asks for the VT mode also throws std::runtime_error when the
/// board reports a mode that nobody knows. The order of the operations is part of the interface.
class TempBoardQ47Ifc {
public:
    virtual ~TempBoardQ47Ifc() = default;

    /// @return The board's record text.
    virtual std::string mds() = 0;

    /// @return The record text of the AT flow box.
    /// @throws std::runtime_error  where the board cannot read it.
    virtual std::string mdsOfATFlowBox() = 0;

    /// @return Temperature of the magnet, the mean of its sensors, in K.
    virtual double magnetTemperature() const = 0;

    /// @param aId  1 to 7.
    /// @return Target temperature of the magnet at that place, in K; 1 is the one that the magnet is judged
    /// by.
    /// @throws std::invalid_argument  when there is no such id.
    virtual double targetMagnetTemperature(unsigned char aId) const = 0;

    /// Sets the target temperature of the whole magnet.
    /// @param aTemperature  In degrees Celsius, as the only temperature of this interface: it goes to the
    ///                      board as given. The board has room for 0 to 65.535.
    virtual void setTargetMagnetTemperature(double aTemperature) = 0;

    /// @return Temperature of the iso box, in K.
    virtual double isoBoxTemperature() const = 0;

    /// @return Target temperature of the iso box, in K.
    virtual double isoBoxTargetTemperature() const = 0;

    /// @return Temperature of the shim coils, the mean of their sensors, in K.
    virtual double shimTemperature() const = 0;

    /// @param aId  1 or 2.
    /// @return Temperature at that sensor of the shim coils, in K.
    /// @throws std::runtime_error  when there is no such sensor.
    virtual double shimTemperatureSensor(unsigned char aId) const = 0;

    /// @param aId            1 to 3; 1 is the one that the lock moves.
    /// @param aFromHardware  Whether a value that is known already is not enough.
    /// @return Target temperature of the shim coils, in K.
    /// @throws std::invalid_argument  when there is no such id.
    virtual double shimTargetTemperature(unsigned char aId, bool aFromHardware) const = 0;

    /// @param aId      1 to 3.
    /// @param aKelvin  Target temperature of the shim coils in K.
    /// @throws std::invalid_argument  when there is no such id.
    virtual void setShimTargetTemperature(unsigned char aId, double aKelvin) = 0;

    /// @return Temperature of the probe in K; 0.0 without AT.
    virtual double probeTemperature() = 0;

    /// @return Temperature of the spiral that heats the probe gas, in K; 0.0 without AT.
    virtual double probeGasHeatingSpiralTemperature() = 0;

    /// @return Temperature of the probe gas at its exhaust, in K; 0.0 without AT.
    virtual double probeGasExhaustTemperature() = 0;

    /// @return Target temperature of the probe in K.
    virtual double targetProbeTemperature() const = 0;

    /// @param aKelvin  Target temperature of the probe in K.
    /// @throws std::runtime_error  without AT.
    virtual void setTargetProbeTemperature(double aKelvin) = 0;

    /// @param aId  1 to 6.
    /// @return Temperature at that sensor of the magnet, in K.
    /// @throws std::runtime_error  when there is no such sensor.
    virtual double magnetTemperatureSensor(unsigned char aId) const = 0;

    /// @param aId  1 to 6.
    /// @return Temperature at that sensor of the iso box, in K.
    /// @throws std::runtime_error  when there is no such sensor.
    virtual double isoBoxTemperatureSensor(unsigned char aId) const = 0;

    /// @param aId  1 to 6.
    /// @return Voltage at that heater of the magnet, in V.
    /// @throws std::invalid_argument  when there is no such heater.
    virtual double magnetHeaterVoltage(unsigned char aId) const = 0;

    /// @return 0 off, 1 at 12 V, 2 at 16 V.
    virtual unsigned char isoBoxFanSpeed() const = 0;

    /// @return Current through the Peltier element of the iso box as a share of its maximum.
    virtual double isoBoxPeltierCurrentPercent() const = 0;

    /// @return Power of the spiral that heats the probe gas, in W; 0.0 without AT.
    virtual double probeGasHeatingSpiralPower() = 0;

    /// @param aWatt  Power of the spiral that heats the probe gas, in W; the board has room for 0 to 65.535.
    /// @throws std::runtime_error  without AT.
    virtual void setProbeGasHeatingSpiralPower(double aWatt) = 0;

    /// @return Whether the temperature of the heating spiral is regulated; false without AT.
    virtual bool probeGasHeatingSpiralRegulation() = 0;

    /// @param aEnabled  Whether the temperature of the heating spiral shall be regulated.
    /// @throws std::runtime_error  without AT.
    virtual void setProbeGasHeatingSpiralRegulation(bool aEnabled) = 0;

    /// @return Whether the temperature of the probe is regulated; false without AT.
    virtual bool probeTemperatureRegulation() = 0;

    /// @param aEnabled  Whether the temperature of the probe shall be regulated.
    /// @throws std::runtime_error  without AT.
    virtual void setProbeTemperatureRegulation(bool aEnabled) = 0;

    /// @return How often the heating drew too much current since the last call.
    virtual unsigned probeGasOvercurrentCountSinceLastRead() = 0;

    /// @return Target temperature of the heating spiral in K.
    /// @throws std::runtime_error  without AT.
    virtual double probeGasHeatingSpiralTargetTemperature() = 0;

    /// @param aKelvin  Target temperature of the heating spiral in K.
    /// @throws std::runtime_error  without AT.
    virtual void setProbeGasHeatingSpiralTargetTemperature(double aKelvin) = 0;

    /// @return Index of the probe gas flow that the board is set to; 0 is off.
    virtual unsigned char probeGasFlow() = 0;

    /// @param aFlowIndex  Index of the probe gas flow; 0 is off.
    virtual void setProbeGasFlow(unsigned char aFlowIndex) = 0;

    /// @return How the shim coils are tempered.
    /// @throws std::runtime_error  when the board reports a mode that nobody knows.
    virtual ShimTemperingMode shimTemperingMode() const = 0;

    /// @param aMode  How the shim coils shall be tempered.
    virtual void setShimTemperingMode(ShimTemperingMode aMode) = 0;

    /// @return Which AT option the board is set to.
    /// @throws std::runtime_error  when the board reports a mode that nobody knows.
    virtual VTMode vtMode() = 0;

    /// @param aMode  Which AT option the system has.
    virtual void setVTMode(VTMode aMode) = 0;

    /// @return Which Peltier element the board is set to; any byte.
    virtual IsoBoxTemperingMode isoBoxTemperingMode() const = 0;

    /// @param aMode  Which Peltier element the iso box has.
    virtual void setIsoBoxTemperingMode(IsoBoxTemperingMode aMode) = 0;

    /// @return Whether the modes that the board is set to are those in its EEPROM.
    virtual bool setupSavedOnEEPROM() const = 0;

    /// Saves the modes that the board is set to in its EEPROM.
    virtual void saveSetupToEEPROM() const = 0;

    /// @return Lower and upper end of the range that the board can regulate the probe in, in K; 0.0 and 0.0
    /// before the board is prepared. Never blocks.
    virtual std::pair<double, double> probeGasRegulatedTemperatureRange() const = 0;

    /// @return After how many seconds without a word from the library the board ends the heating.
    virtual unsigned char probeGasHeatingTimeout() const = 0;

    /// @param aSeconds  After how long without a word from the library the board shall end the heating.
    virtual void setProbeGasHeatingTimeout(unsigned char aSeconds) = 0;

    /// @return The ECL of the flow box as the board guesses it.
    virtual unsigned char guessedFlowBoxEcl() = 0;

    /// Writes the board's object dictionary to the file "canopen_temperature.dump". Throws nothing.
    /// @param aDirectory  Folder of the file; must exist.
    virtual void dumpCANopenValues(std::string const& aDirectory) = 0;
};
