// SPDX-License-Identifier: Apache-2.0
// How the instrument is put together, in the order that its parts need, and what its getters answer.
#include "interface/FieldwardenInterfaceQ47.h"

#include "interface/SampleRotationQ47.h"
#include "lock/LockMock.h"
#include "lock/LockParameters.h"
#include "lock/LockQ47.h"
#include "lock/hardware/LockHardwareHelper.h"
#include "lock/hardware/LockQ47Hardware.h"
#include "shim/ShimHardwareQ47.h"
#include "temperature/TempBoardQ47.h"
#include "temperature/TemperatureHardwareQ47.h"

#include <fieldwarden/LockForTemperatureIfc.h>
#include <velmor/DeviceLogContributor.h>
#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/datalogger/DataLoggerFactory.h>
#include <velmor/kepla/deviceid/DeviceIdClient.h>
#include <velmor/kepla/deviceid/DeviceIdServiceFactory.h>
#include <velmor/kepla/utils/PeriodicCallerManager.h>
#include <velmor/kepla/utils/WholeFile.h>
#include <velmor/q47/mainboarddaemon/MainboardClientFactory.h>
#include <velmor/q47/mainboarddaemon/MainboardInterface.h>

#include <exception>
#include <system_error>
#include <utility>

using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::datalogger::DataLoggerFactory;
using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::deviceid::DeviceIdClient;
using velmor::kepla::deviceid::DeviceIdServiceFactory;
using velmor::kepla::log::LoggerImpl;
using velmor::kepla::log::Severity;
using velmor::kepla::utils::ExecutionStrategy;
using velmor::kepla::utils::PeriodicCallerManager;
using velmor::kepla::utils::readWholeFile;
using velmor::q47::mainboarddaemon::MainboardClientFactory;
using velmor::q47::mainboarddaemon::MainboardInterface;

namespace {

constexpr char const* kLockMockDirectory = "/tmp/lockmock";
constexpr unsigned char kMasterNodeId = 1;
constexpr unsigned char kTemperatureBoardNodeId = 7;
constexpr int kNoRouterAddress = 0xff;

} // namespace

FieldwardenInterfaceQ47::FieldwardenInterfaceQ47(std::string aCanIfc,
                                                 std::string aConfigRoot,
                                                 std::string const& aFactoryRoot,
                                                 std::string const& aShimFirmwareRoot,
                                                 std::string aTsConfigRoot,
                                                 std::string const& aTempFirmwareRoot,
                                                 std::string const& aDataRoot)
    : Logger("FieldwardenInterfaceQ47", "", std::make_shared<LoggerImpl>())
    , mCanIfc(std::move(aCanIfc))
    , mConfigRoot(std::move(aConfigRoot))
    , mTsConfigRoot(std::move(aTsConfigRoot))
    , mLockMockDirectory(kLockMockDirectory)
    , mDeviceIdsDirectory(std::filesystem::path(aDataRoot) / "deviceids")
    , mCanOpenMaster(CanOpenMaster::make(mCanIfc, kMasterNodeId))
    , mLoggingTransferEnable(false)
    , mPeriodicCallerManager(std::make_shared<PeriodicCallerManager>(ExecutionStrategy::OneWorker, "")) {
    keplaDoLog(Severity::Debug,
               "FieldwardenInterfaceQ47 constructor, canIfc='%s', configRoot='%s', factoryRoot='%s', "
               "tsConfigRoot='%s', dataRoot='%s'",
               {}, mCanIfc, mConfigRoot, aFactoryRoot, mTsConfigRoot, aDataRoot);
    keplaDoLog(Severity::Info, "FieldwardenInterfaceQ47: compiled on %s at %s", {}, __DATE__, __TIME__);

    keplaDoLog(Severity::Info, "Initializing data logger...", {});
    auto const channelCreator = DataLoggerFactory(false).channelCreator();
    mDeviceIdServiceFactory = std::make_unique<DeviceIdServiceFactory>("fieldwarden");

    keplaDoLog(Severity::Info, "initializing shim...", {});
    mShim = std::make_shared<ShimHardwareQ47>(
        mCanOpenMaster, mConfigRoot + "/matrices", aDataRoot + "/libfieldwarden/matrices/enforced.dat",
        aFactoryRoot + "/shims.factory", aShimFirmwareRoot, (mDeviceIdsDirectory / "shimsys.mds").string(),
        channelCreator, mPeriodicCallerManager, mDeviceIdServiceFactory->deviceIdServiceContributor());

    keplaDoLog(Severity::Info, "initializing MainBoard daemon client...", {});
    auto const mainboard = MainboardClientFactory().mainboardClient();

    keplaDoLog(Severity::Info, "initializing temperature...", {});
    initializeTemperature(aTempFirmwareRoot, channelCreator);

    keplaDoLog(Severity::Info, "initializing lock...", {});
    initializeLock(mainboard, channelCreator);
    mTemperature->setLock(mLockForTemperature); // None with the mock lock.
    mHolderOfLock.reset(mTemperature.get());

    keplaDoLog(Severity::Info, "initializing sample rotation...", {});
    mSampleRotation = std::make_unique<SampleRotationQ47>();

    keplaDoLog(Severity::Info, "setting status LED to blue...", {});
    mainboard->setStatusLed(velmor::q47::mainboarddaemon::StatusLedColour::blue);

    // Last, so that the endpoint is visible only when everything behind it exists.
    mDeviceLogContributor = std::make_unique<DeviceLogContributor>(
        [this](std::string const& aPath, int aType, int aId) { createLog(aPath, aType, aId); },
        "FieldwardenInterfaceQ47", Gio::DBus::BusType::SYSTEM);
}

FieldwardenInterfaceQ47::~FieldwardenInterfaceQ47() {
    keplaDoLog(Severity::Debug, "FieldwardenInterfaceQ47 destructor", {});
    // A dump or a poll under way is waited for; of a silent board it would read on for minutes.
    mCanOpenMaster->hasten();
}

void FieldwardenInterfaceQ47::LockTaker::operator()(TemperatureHardwareQ47* aTemperature) const {
    aTemperature->setLock(nullptr);
}

void FieldwardenInterfaceQ47::initializeTemperature(
    std::string const& aFirmwareRoot, std::shared_ptr<DataLoggerInterface> const& aChannelCreator) {
    auto const board =
        std::make_shared<TempBoardQ47>(mCanOpenMaster, mDeviceIdServiceFactory->deviceIdServiceContributor(),
                                       aFirmwareRoot, kTemperatureBoardNodeId);
    board->prepare();
    mTemperature = std::make_shared<TemperatureHardwareQ47>(board, aChannelCreator, mPeriodicCallerManager,
                                                            DeviceIdClient::make_client(),
                                                            (mDeviceIdsDirectory / "vtu.mds").string());
}

void FieldwardenInterfaceQ47::initializeLock(std::shared_ptr<MainboardInterface> const& aMainboard,
                                             std::shared_ptr<DataLoggerInterface> const& aChannelCreator) {
    // Whatever stands there counts, a plain file too.
    std::error_code unreadable;
    if (std::filesystem::exists(mLockMockDirectory, unreadable)) {
        // No error, but it must stand out in the persistent log.
        keplaDoLog(Severity::Critical,
                   "Directory '%s' exists and thus will create a MOCK version of the lock", {},
                   mLockMockDirectory.string());
        mLock = std::make_shared<LockMock>(mLockMockDirectory, mPeriodicCallerManager);
        return;
    }
    auto const parameters = std::make_shared<LockParameters>(mTsConfigRoot + "/lock.config");
    parameters->reload();
    auto const hardware = std::make_shared<LockQ47Hardware>(aMainboard);
    LockHardwareHelper const helper(hardware, aChannelCreator);
    auto const lock = std::make_shared<LockQ47>(hardware, parameters, mTemperature, mTemperature, mShim,
                                                aChannelCreator, mPeriodicCallerManager, true);
    mLock = lock;
    mLockForTemperature = lock;
}

ShimInterface* FieldwardenInterfaceQ47::getShim() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::getShim", {});
    return mShim.get();
}

LockInterface* FieldwardenInterfaceQ47::getLock() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::getLock", {});
    return mLock.get();
}

TemperatureInterface* FieldwardenInterfaceQ47::getTemperature() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::getTemperature", {});
    return mTemperature.get();
}

SampleRotationInterface* FieldwardenInterfaceQ47::getSampleRotation() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::getSampleRotation", {});
    return mSampleRotation.get();
}

SampleTransferInterface* FieldwardenInterfaceQ47::getSampleTransfer() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::getSampleTransfer", {});
    return nullptr;
}

std::string FieldwardenInterfaceQ47::getFirmwareVersion() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::getFirmwareVersion", {});
    return "q47_fieldwarden_20230227.gz";
}

std::string FieldwardenInterfaceQ47::getKLRBConfiguration() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::getKLRBConfiguration", {});
    return "0";
}

std::string FieldwardenInterfaceQ47::getDWAConfiguration() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::getDWAConfiguration", {});
    return "0";
}

int FieldwardenInterfaceQ47::get2HTXRouterAddress() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::get2HTXRouterAddress", {});
    return kNoRouterAddress;
}

std::string FieldwardenInterfaceQ47::getMdsFromVariablePowerSupplyBoard() {
    keplaDoLog(Severity::Trace, "FieldwardenInterfaceQ47::getMdsFromVariablePowerSupplyBoard", {});
    return {};
}

std::string FieldwardenInterfaceQ47::getMdsFromSensorAndPneumaticBoard() {
    return {}; // Intended: the one getter of its kind without a trace line.
}

std::string FieldwardenInterfaceQ47::getMdsFromTheMagnet() {
    keplaDoLog(Severity::Trace, "getMdsFromTheMagnet", {});
    try {
        std::string mds = readWholeFile(mDeviceIdsDirectory / "magnet.mds");
        keplaDoLog(Severity::Info, "Read magnet MDS is '%s'", {}, mds);
        return mds;
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to read MDS from magnet. Exception '%s'", {}, error.what());
        return {};
    }
}

std::string FieldwardenInterfaceQ47::getVTUMDS() {
    keplaDoLog(Severity::Trace, "getHVUMDS", {}); // Intended: the unit's former name.
    try {
        std::string mds = readWholeFile(mDeviceIdsDirectory / "vtu.mds");
        keplaDoLog(Severity::Info, "Read VTU MDS is '%s'", {}, mds);
        return mds;
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to read MDS from HVU. Exception '%s'", {}, error.what());
        return {};
    }
}

bool FieldwardenInterfaceQ47::getLoggingTransferEnable() {
    return mLoggingTransferEnable;
}

void FieldwardenInterfaceQ47::setLoggingTransferEnable(bool aEnable) {
    mLoggingTransferEnable = aEnable;
}

void FieldwardenInterfaceQ47::createLog(std::string const& aPath, int /*aType*/, int /*aId*/) {
    mTemperature->board()->dumpCANopenValues(aPath);
    mShim->dumpCANopenValues(aPath);
}
