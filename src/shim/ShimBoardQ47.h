// SPDX-License-Identifier: Apache-2.0
// One shim current board on the CAN bus: its sources are set as a whole, checked by reading back, and saved
// over a firmware update.
#pragma once

#include <velmor/kepla/canopen/CortexMCanOpenNodeClient.h>
#include <velmor/kepla/datalogger/DataLoggerInterface.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

/// A shim current board. Objects of its dictionary:
///
/// | Index  | Subindex   | Access | Type                 | Meaning                                    |
/// |--------|------------|--------|----------------------|--------------------------------------------|
/// | 0x3000 | 0          | read   | U16, low 8 bits kept | number of sources                          |
/// | 0x3000 | 1 to count | read   | I32                  | actual current in uA; above 9999999 it is  |
/// |        |            |        |                      | 10000000 plus an error code                |
/// | 0x3001 | 1          | write  | block of count I32   | currents to set in uA, source 1 first      |
/// | 0x3002 | 1 to 5     | read   | I32                  | temperature in thousandths of a degree C   |
/// | 0x3004 | 1          | read   | U8                   | calibration status                         |
///
/// Sources are counted from 1, the elements of current vectors from 0. All operations may be called from any
/// thread unless they tell otherwise, and block while the board answers; a failure of the bus passes through
/// as CanOpenNodeClientIfc tells. Nothing here locks: transfers take their turns in the client.
class ShimBoardQ47 : private virtual velmor::kepla::log::Logger,
                     public velmor::kepla::canopen::CortexMCanOpenNodeClient {
public:
    /// Does not talk to the board.
    /// @param aMaster           The master of the bus; not null.
    /// @param aCanId            The board, 1 to 127.
    /// @param aFirmwareRoot     Folder of "build.info" and of the firmware image.
    /// @param aDataLogger       Makes the channels of temperatures and calibration; not null.
    /// @param aPeriodicCallers  Runs the temperature readings; not null.
    /// @param aContributor      Who gets the board's record; may be null.
    ShimBoardQ47(std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> const& aMaster,
                 unsigned char aCanId,
                 std::string const& aFirmwareRoot,
                 std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger,
                 std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> aPeriodicCallers,
                 std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> aContributor);
    /// Ends the temperature readings; one that is under way is waited for.
    ~ShimBoardQ47() override;

    /// @return The number of current sources, 0 to 255. Asks the board only once.
    unsigned getCurrentSourcesCount();

    /// @param aSourceIndex  The source, 1 to the number of sources.
    /// @return Its actual current in uA, or 10000000 plus an error code.
    /// @throws std::invalid_argument  when there is no such source.
    int getShimCurrent(int aSourceIndex);

    /// Reads the actual currents of all sources.
    /// @param aCurrents  Takes the currents in uA, one for each source. A source that reports an error keeps
    ///                   10000000 plus its code, and the one behind it reads 0.
    void getShimCurrents(std::vector<int>& aCurrents);

    /// Sets the currents of all sources in one transfer and checks them by reading back. When it throws, some
    /// of them may have been set.
    /// @param aCurrents  In uA, one for each source.
    /// @throws std::invalid_argument  when it is not one for each source; the board keeps its currents.
    /// @throws std::runtime_error     as readBackShimCurrents().
    void setShimCurrents(std::vector<int> const& aCurrents);

    /// Compares the actual currents with those that were asked for; a difference of 1 uA is none.
    /// @param aRequested  In uA, one for each source.
    /// @throws std::runtime_error  when it is not one for each source; or with a line, ended by LF, for each
    ///                             source that reports an error or differs.
    void readBackShimCurrents(std::vector<int> const& aRequested);

    /// @param aId  The sensor, 1 to 5: DACs upper, DACs lower, heatsink lower, middle, upper.
    /// @return Its temperature in K.
    /// @throws std::invalid_argument  when there is no such sensor.
    double temperature(unsigned char aId);

    /// Pushes the temperatures of all sensors to the data logger. A sensor that cannot be read is logged and
    /// left out.
    void readTemperatures();

    /// @return The calibration status: below 128 not calibrated or the EEPROM cannot be read, above 128
    /// calibrated.
    unsigned calibrationOffset() const;

    /// Makes the channels in the data logger, in place of former ones. Not while the board is in use.
    /// @param aDataLogger  Makes the channels; not null.
    void initializeDataLogger(
        std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger);

    /// Writes the object dictionary to the file "canopen_shim_", the board's CAN id, ".dump". Throws nothing:
    /// what goes wrong is logged.
    /// @param aDirectory  Folder of the file; must exist.
    void dumpCANopenValues(std::string const& aDirectory);

    /// Keeps the currents for postFirmwareUpdate().
    /// @param aProgramRuns  Whether the board can be asked for its currents; otherwise nothing is kept.
    void preFirmwareUpdate(bool aProgramRuns) override;

    /// Sets the currents that preFirmwareUpdate() has kept. Throws nothing: what goes wrong is logged.
    void postFirmwareUpdate() override;

    /// Begins the temperature readings, one a minute, and pushes the calibration status to the data logger.
    void afterPrepare() override;

    /// Ends the temperature readings; one that is under way is waited for.
    void beforeShutdown() override;

private:
    using Channel = std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc>;

    void writeShimCurrents(std::vector<int> const& aCurrents);

    unsigned char const mCanId;
    std::atomic<bool> mSourceCountKnown{false};
    std::atomic<unsigned char> mSourceCount{0};
    std::vector<int> mSavedCurrents;           ///< In uA, from before a firmware update.
    std::vector<Channel> mTemperatureChannels; ///< By sensor, sensor 1 first.
    Channel mCalibrationChannel;
    std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const mPeriodicCallers;
    /// Last, since its calls use all others.
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> mPeriodicJob;
};
