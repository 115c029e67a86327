// SPDX-License-Identifier: Apache-2.0
// The composition root: builds all services of the instrument, wires them to each other and owns them.
#pragma once

#include <fieldwarden/DeviceLogInterface.h>
#include <fieldwarden/FieldwardenInterface.h>
#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>

class DeviceLogContributor;
class LockForTemperatureIfc;
class ShimHardwareQ47;
class TemperatureHardwareQ47;
namespace velmor::kepla::canopen {
class CanOpenMaster;
}
namespace velmor::kepla::datalogger {
class DataLoggerInterface;
}
namespace velmor::kepla::deviceid {
class DeviceIdServiceFactory;
}
namespace velmor::kepla::utils {
class PeriodicCallerManager;
}
namespace velmor::q47::mainboarddaemon {
class MainboardInterface;
}

/// The one concrete FieldwardenInterface. Everything runs from the end of the constructor to the destructor,
/// in which each service ends its own threads; there is no start and no stop.
class FieldwardenInterfaceQ47 : private virtual velmor::kepla::log::Logger,
                                public FieldwardenInterface,
                                public libfieldwarden::DeviceLogInterface {
public:
    /// Brings the instrument up. The parameters are those of FieldwardenInterface::openInterface().
    /// @throws std::exception  what any part of the instrument throws on its way up; what was built so far is
    /// gone then.
    FieldwardenInterfaceQ47(std::string aCanIfc,
                            std::string aConfigRoot,
                            std::string const& aFactoryRoot,
                            std::string const& aShimFirmwareRoot,
                            std::string aTsConfigRoot,
                            std::string const& aTempFirmwareRoot,
                            std::string const& aDataRoot);
    ~FieldwardenInterfaceQ47() override;

    ShimInterface* getShim() override;
    LockInterface* getLock() override;
    TemperatureInterface* getTemperature() override;
    SampleRotationInterface* getSampleRotation() override;
    SampleTransferInterface* getSampleTransfer() override;
    std::string getFirmwareVersion() override;
    std::string getKLRBConfiguration() override;
    std::string getDWAConfiguration() override;
    int get2HTXRouterAddress() override;
    std::string getMdsFromVariablePowerSupplyBoard() override;
    std::string getMdsFromSensorAndPneumaticBoard() override;
    std::string getMdsFromTheMagnet() override;
    std::string getVTUMDS() override;
    bool getLoggingTransferEnable() override;
    void setLoggingTransferEnable(bool aEnable) override;

    /// @return The name of the CAN interface in use.
    std::string canInterface() const { return mCanIfc; }
    /// @return The configuration root in use.
    std::string configRoot() const { return mConfigRoot; }

    /// Also the handler of the device log's calls over D-Bus.
    /// @throws std::exception  what the boards throw; the device log reports it.
    void createLog(std::string const& aPath, int aType, int aId) override;

private:
    void initializeTemperature(
        std::string const& aFirmwareRoot,
        std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aChannelCreator);
    void initializeLock(
        std::shared_ptr<velmor::q47::mainboarddaemon::MainboardInterface> const& aMainboard,
        std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aChannelCreator);

    /// Takes the lock away from the temperature service.
    struct LockTaker {
        void operator()(TemperatureHardwareQ47* aTemperature) const;
    };

    std::string mCanIfc;
    std::string mConfigRoot;
    std::string mTsConfigRoot;
    std::filesystem::path mLockMockDirectory;
    std::filesystem::path mDeviceIdsDirectory;
    std::shared_ptr<ShimHardwareQ47> mShim;
    std::shared_ptr<LockInterface> mLock;
    std::shared_ptr<LockForTemperatureIfc> mLockForTemperature; ///< Stays null with the mock lock.
    std::shared_ptr<TemperatureHardwareQ47> mTemperature;
    std::unique_ptr<SampleRotationInterface> mSampleRotation;
    std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> mCanOpenMaster;
    std::atomic<bool> mLoggingTransferEnable;
    std::shared_ptr<velmor::kepla::utils::PeriodicCallerManager> mPeriodicCallerManager;
    std::unique_ptr<DeviceLogContributor> mDeviceLogContributor;
    std::unique_ptr<velmor::kepla::deviceid::DeviceIdServiceFactory> mDeviceIdServiceFactory;
    /// The service that holds the lock; owns nothing. The lock holds the service, too: without this the two
    /// would keep each other for good. Last, so that the ring is open before anything goes, also where the
    /// instrument fails on its way up.
    std::unique_ptr<TemperatureHardwareQ47, LockTaker> mHolderOfLock;
};
