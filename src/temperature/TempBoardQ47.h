// SPDX-License-Identifier: Apache-2.0
// The temperature board on the CAN bus: each operation is one object of its dictionary.
#pragma once

#include "temperature/TempBoardQ47Ifc.h"

#include <velmor/kepla/canopen/CortexMCanOpenNodeClient.h>
#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// The temperature board. Objects of its dictionary; "temperature" is in thousandths of a degree Celsius,
/// "AT" what needs the adjustable temperature option:
///
/// | Index  | Subindex | Access     | Type            | Meaning                                     |
/// |--------|----------|------------|-----------------|---------------------------------------------|
/// | 0x3001 | 1        | read       | U16 temperature | magnet                                      |
/// | 0x3001 | 2 to 7   | read       | U16 temperature | magnet sensors 1 to 6                       |
/// | 0x3002 | 1 to 6   | read       | U16 in mV       | magnet heaters                              |
/// | 0x3004 | 1        | write      | U16 temperature | magnet target, not converted from kelvin    |
/// | 0x3004 | 2 to 8   | read       | U16 temperature | magnet targets 1 to 7                       |
/// | 0x3101 | 1        | read       | U16 temperature | shim coils                                  |
/// | 0x3101 | 2, 3     | read       | U16 temperature | shim sensors 1 and 2                        |
/// | 0x3104 | 1 to 3   | read write | U16 temperature | shim targets                                |
/// | 0x3201 | 1 to 6   | read       | U16 temperature | iso box sensors; 1 stands for the iso box   |
/// | 0x3201 | 6        | read       | U16             | above 127: interface board's data are there |
/// | 0x3202 | 1        | read       | U16             | Peltier current, 10000 is all               |
/// | 0x3204 | 1        | read       | U16 temperature | iso box target                              |
/// | 0x3205 | 1        | read       | U8              | iso box fan                                 |
/// | 0x3301 | 1 to 3   | read       | I32 temperature | probe, heating spiral, exhaust (AT)         |
/// | 0x3301 | 2        | write      | U8              | heating spiral regulation (AT)              |
/// | 0x3302 | 1        | read write | U16 in mW       | heating spiral power (AT)                   |
/// | 0x3303 | 1        | read       | U8              | heating spiral regulation (AT)              |
/// | 0x3303 | 2        | read write | U8              | probe regulation (AT)                       |
/// | 0x3303 | 3        | read write | U8              | flow index                                  |
/// | 0x3303 | 4        | read       | U8              | over-currents since the last read           |
/// | 0x3303 | 6        | read write | U8              | heating time-out in s                       |
/// | 0x3303 | 7        | read       | U8              | guessed ECL of the flow box                 |
/// | 0x3304 | 1        | read write | I32 temperature | probe target (AT for writing)               |
/// | 0x3304 | 2        | read       | I32 temperature | heating spiral target (AT)                  |
/// | 0x3304 | 2        | write      | U32 temperature | heating spiral target (AT)                  |
/// | 0x3304 | 4, 6     | read       | I32 temperature | lower and upper end of regulated range      |
/// | 0x3401 | 1        | read       | U8              | status of default PID parameters, 3 is good |
/// | 0x3401 | 3        | read write | U8              | iso box tempering mode                      |
/// | 0x3401 | 4        | read write | U8              | shim tempering mode                         |
/// | 0x3401 | 5        | read write | U8              | VT mode                                     |
/// | 0x3401 | 6        | read write | U8              | read 1: as in the EEPROM; write 1: save     |
///
/// What goes to the board in 16 bits keeps the low 16 bits of the whole number; a negative one goes as 0, as
/// the instrument's processor converts it.
///
/// Lives in a shared pointer. The operations may be called from any thread unless they tell otherwise, and
/// block while the board answers; nothing here locks, transfers take their turns in the client. Only the VT
/// mode, the regulated range and the flow index are kept, all others are asked for at each call.
class TempBoardQ47 : private virtual velmor::kepla::log::Logger,
                     public velmor::kepla::canopen::CortexMCanOpenNodeClient,
                     public TempBoardQ47Ifc,
                     public std::enable_shared_from_this<TempBoardQ47> {
public:
    /// Does not talk to the board.
    /// @param aMaster        The master of the bus; not null.
    /// @param aContributor   Who gets the board's record; may be null.
    /// @param aFirmwareRoot  Folder of "build.info" and of the firmware image.
    /// @param aCanId         The board, 1 to 127.
    /// @throws std::invalid_argument  when the node number is out of range or there is no master.
    TempBoardQ47(std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> const& aMaster,
                 std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> aContributor,
                 std::string const& aFirmwareRoot,
                 unsigned char aCanId);

    std::string mds() override;
    /// @throws std::runtime_error  always: the board offers no way to it.
    std::string mdsOfATFlowBox() override;

    double magnetTemperature() const override;
    double targetMagnetTemperature(unsigned char aId) const override;
    void setTargetMagnetTemperature(double aTemperature) override;
    double isoBoxTemperature() const override;
    double isoBoxTargetTemperature() const override;
    double shimTemperature() const override;
    double shimTemperatureSensor(unsigned char aId) const override;
    double shimTargetTemperature(unsigned char aId, bool aFromHardware) const override;
    void setShimTargetTemperature(unsigned char aId, double aKelvin) override;
    double probeTemperature() override;
    double probeGasHeatingSpiralTemperature() override;
    double probeGasExhaustTemperature() override;
    double targetProbeTemperature() const override;
    void setTargetProbeTemperature(double aKelvin) override;
    double magnetTemperatureSensor(unsigned char aId) const override;
    double isoBoxTemperatureSensor(unsigned char aId) const override;
    double magnetHeaterVoltage(unsigned char aId) const override;
    unsigned char isoBoxFanSpeed() const override;
    double isoBoxPeltierCurrentPercent() const override;
    double probeGasHeatingSpiralPower() override;
    void setProbeGasHeatingSpiralPower(double aWatt) override;
    bool probeGasHeatingSpiralRegulation() override;
    void setProbeGasHeatingSpiralRegulation(bool aEnabled) override;
    bool probeTemperatureRegulation() override;
    void setProbeTemperatureRegulation(bool aEnabled) override;
    unsigned probeGasOvercurrentCountSinceLastRead() override;
    double probeGasHeatingSpiralTargetTemperature() override;
    void setProbeGasHeatingSpiralTargetTemperature(double aKelvin) override;

    unsigned char probeGasFlow() override;
    /// Writes nothing when the flow index is the one that was last written, or read by afterPrepare().
    void setProbeGasFlow(unsigned char aFlowIndex) override;

    ShimTemperingMode shimTemperingMode() const override;
    void setShimTemperingMode(ShimTemperingMode aMode) override;
    /// Asks the board only until it has once told a mode that is known.
    VTMode vtMode() override;
    void setVTMode(VTMode aMode) override;
    IsoBoxTemperingMode isoBoxTemperingMode() const override;
    void setIsoBoxTemperingMode(IsoBoxTemperingMode aMode) override;
    bool setupSavedOnEEPROM() const override;
    void saveSetupToEEPROM() const override;
    std::pair<double, double> probeGasRegulatedTemperatureRange() const override;
    unsigned char probeGasHeatingTimeout() const override;
    void setProbeGasHeatingTimeout(unsigned char aSeconds) override;
    unsigned char guessedFlowBoxEcl() override;
    void dumpCANopenValues(std::string const& aDirectory) override;

    /// Makes the probe gas safe.
    /// @param aProgramRuns  Whether the board can be asked and told anything; otherwise nothing is done.
    void preFirmwareUpdate(bool aProgramRuns) override;

    /// Waits until the new firmware has the interface board's data and looks at its PID parameters.
    void postFirmwareUpdate() override;

    /// Takes over the regulated range and the flow index from the board. Not while the board is in use.
    void afterPrepare() override;

    /// @return The temperature that an object of 16 bits without sign holds, in K.
    double temperature(std::uint16_t aIndex, std::uint8_t aSubindex) const;

    /// @return The temperature that an object of 32 bits with sign holds, in K.
    double temperatureInt32(std::uint16_t aIndex, std::uint8_t aSubindex) const;

    /// @return Whether the system has the AT option.
    /// @throws std::runtime_error  when the board reports a VT mode that nobody knows.
    bool hasAT();

    /// @throws std::runtime_error  when the system does not have the AT option.
    void checkForATMode();

    /// Waits until the interface board's data are there, at most a little over 20 s.
    /// @return Whether they are.
    bool waitForDataFromInterfaceBoard();

private:
    /// The values of one index that an update of the firmware shall not touch.
    struct SavedValues {
        std::uint16_t index;
        std::vector<unsigned short> values;
    };

    void save(SavedValues& aSaved);
    void restore(SavedValues const& aSaved);

    /// Intended: one element each, so that the walks over all but the last do nothing, and the parameters are
    /// not carried over an update.
    SavedValues mSavedMagnet{0x3010, {6}};
    SavedValues mSavedShim{0x3110, {2}};
    SavedValues mSavedIsoBox{0x3210, {3}};

    static constexpr int kVTModeUnknown = -1;
    std::atomic<int> mVTMode{kVTModeUnknown}; ///< A VTMode once it is known.

    std::pair<double, double> mRegulatedRange{0.0, 0.0}; ///< Lower and upper end in K.
    std::mutex mFlowMutex;                               ///< Around the write and what is remembered of it.
    unsigned char mFlowIndex = 0;                        ///< What was written last.
};
