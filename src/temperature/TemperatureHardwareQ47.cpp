// SPDX-License-Identifier: Apache-2.0
// The operations of the temperature service, and the judgement of the magnet.
#include "temperature/TemperatureHardwareQ47.h"

#include "at/ATController.h"
#include "temperature/ProbeMeasurements.h"
#include "temperature/TempBoardProxy.h"
#include "temperature/TemperatureListenerSync.h"

#include <velmor/kepla/datalogger/DataLoggerInterface.h>
#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>
#include <velmor/kepla/mds/Mds.h>
#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>
#include <velmor/units/Units.h>

#include <cmath>
#include <exception>
#include <stdexcept>
#include <utility>

#include <glibmm/error.h>
#include <glibmm/fileutils.h>
#include <libxml/xmlversion.h>

using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::deviceid::DeviceIdClientIfc;
using velmor::kepla::log::Severity;
using velmor::kepla::mds::Mds;
using velmor::kepla::utils::PeriodicCallerManagerIfc;
using velmor::platform::Clock;
using velmor::units::kelvinToCelsius;

namespace {

constexpr std::size_t kMagnetSensors = 6;
constexpr double kStabilityPeriodSeconds = 10.0;
/// From which on a new temperature has its line in the log, in K.
constexpr double kWorthALine = 0.001;
/// From which on the listener hears of temperatures of magnet and shim coils, in K, and of all else.
constexpr double kTemperatureThreshold = 0.001;
constexpr double kOtherThreshold = 0.1;

} // namespace

TemperatureHardwareQ47::TemperatureHardwareQ47(
    std::shared_ptr<TempBoardQ47Ifc> aBoard,
    std::shared_ptr<DataLoggerInterface> const& aDataLogger,
    std::shared_ptr<PeriodicCallerManagerIfc> const& aPeriodicCallers,
    std::shared_ptr<DeviceIdClientIfc> const& aDeviceId,
    std::string const& aVtuMdsPath)
    : Logger("TemperatureHardwareQ47", "Temperature")
    , mClock(Clock::current())
    , mBoard(std::move(aBoard))
    , mMagnetAverages(kMagnetSensors)
    , mMagnetComparators(kMagnetSensors, AverageComparator([this](double aMean) {
                             return std::abs(mBoard->targetMagnetTemperature(1) - aMean) < mMagnetTolerance;
                         }))
    , mShimComparator([this](double aMean) {
        return std::abs(mBoard->shimTargetTemperature(1, false) - aMean) < mShimTolerance;
    })
    , mListener(std::make_shared<TemperatureListenerSync>(kTemperatureThreshold, kOtherThreshold)) {
    try {
        keplaDoLog(Severity::Trace, "creating temperature board proxy...", {});
        auto const proxy = std::make_shared<TempBoardProxy>(mBoard, mListener, aDataLogger, aPeriodicCallers);
        proxy->init();
        mBoard = proxy;
        keplaDoLog(Severity::Trace, "configuring IsoBox Peltier...", {});
        configureIsoBoxPeltier(*aDeviceId);
        keplaDoLog(Severity::Trace, "creating AT controller...", {});
        mATController = std::make_shared<ATController>(mBoard, mListener, aPeriodicCallers,
                                                       readFileSafe(aVtuMdsPath), aDataLogger);
        keplaDoLog(Severity::Trace, "initializing datalogger...", {});
        initializeDataLogger(*aDataLogger);
        mPeriodicCaller = aPeriodicCallers->createPeriodicCaller(kStabilityPeriodSeconds,
                                                                 [this] { readAndUpdateStability(); });
        LIBXML_TEST_VERSION
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to initialize the temperature hardware control, error was %s", {},
                   error.what());
        throw;
    }
}

TemperatureHardwareQ47::~TemperatureHardwareQ47() {
    mPeriodicCaller.reset();
}

// -------------------------------------------------------------------------------------- what start-up needs

std::string TemperatureHardwareQ47::readFileSafe(std::string const& aPath) const {
    try {
        return Glib::file_get_contents(aPath);
    } catch (Glib::Error const& error) {
        keplaDoLog(Severity::Error, "Failed to read content of file at path '%s' with error '%s'", {}, aPath,
                   error.what());
        return {};
    }
}

void TemperatureHardwareQ47::configureIsoBoxPeltier(DeviceIdClientIfc& aDeviceId) {
    constexpr unsigned kPeltierType = 2;
    constexpr unsigned kSmall = 1;
    constexpr unsigned kBig = 2;
    try {
        std::string const text = aDeviceId.mainMds();
        keplaDoLog(Severity::Debug, "configureIsoBoxPeltier: got main MDS: '%s'", {}, text);
        auto const groups = Mds::parse(text).groups().getByName("IsoBoxTempering");
        auto mode = IsoBoxTemperingMode::SmallPeltier;
        if (groups.empty()) {
            keplaDoLog(Severity::Info, "No IsoBoxTempering group found in MDS, defaults to small peltier",
                       {});
        } else if (groups.size() > 1) {
            keplaDoLog(
                Severity::Error,
                "configureIsoBoxPeltier: %u IsoBoxTempering groups found, when max 1 expected. MDS is '%s'",
                {}, groups.size(), text);
            throw std::runtime_error("Invalid MDS for IsoBoxTempering");
        } else {
            unsigned const type = groups.front().asUnsignedInt(kPeltierType);
            keplaDoLog(Severity::Info,
                       "configureIsoBoxPeltier: isobox tempering peltier type %u specified in MDS", {}, type);
            if (type == kSmall) {
                keplaDoLog(Severity::Info, "configureIsoBoxPeltier: small peltier", {});
            } else if (type == kBig) {
                keplaDoLog(Severity::Info, "configureIsoBoxPeltier: big peltier", {});
                mode = IsoBoxTemperingMode::BigPeltier;
            } else {
                keplaDoLog(Severity::Error, "configureIsoBoxPeltier: unknown peltier type", {});
                throw std::runtime_error("Invalid MDS for IsoBoxTempering");
            }
        }
        mBoard->setIsoBoxTemperingMode(mode);
        saveSetupIfNeeded();
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to configure the iso box peltier, error is %s", {}, error.what());
    } catch (...) {
        keplaDoLog(Severity::Error, "Failed to configure the iso box peltier. No details available.", {});
    }
}

void TemperatureHardwareQ47::saveSetupIfNeeded() {
    if (!mBoard->setupSavedOnEEPROM()) {
        mBoard->saveSetupToEEPROM();
    }
}

void TemperatureHardwareQ47::initializeDataLogger(DataLoggerInterface& aDataLogger) {
    auto const create = [&](std::vector<std::string> aPath, DataLoggerUnit aUnit, std::string aDescription) {
        return aDataLogger.createChannel({std::move(aPath), aUnit, DataLoggerStats::none(),
                                          DataLoggerStorageType::ShortTerm, std::move(aDescription)});
    };
    mMagnetStableChannel =
        create({"temperatureBoard", "magnet", "stable"}, DataLoggerUnit::Boolean,
               "Computed value. Is the magnet considered stable. Value also sent to Panorin.");
    mSampleInMagnetChannel =
        create({"sample", "in_magnet", "from_basicsamplechangerserver"}, DataLoggerUnit::Boolean,
               "Indicates if we expect a sample to be in the magnet or not. This is NOT a sensor but a "
               "computed value.");
    mExchangeModeChannel =
        create({"sample", "exchange_mode"}, DataLoggerUnit::Boolean,
               "Indicates if we are in sample exchange mode, i.e. we are within a sample transfer.");
    mShimAverageChannel = create({"temperatureBoard", "shim", "globalMovingAverage"}, DataLoggerUnit::Kelvin,
                                 "Moving average of the shim global temperature");
    mShimInSpecChannel = create({"temperatureBoard", "shim", "globalInSpec"}, DataLoggerUnit::Boolean,
                                "Is the global temperature of the shim in spec?");
    mIsoBoxAverageChannel = create({"temperatureBoard", "isobox", "globalMovingAverage"},
                                   DataLoggerUnit::Kelvin, "Moving average of the isobox global temperature");
    for (std::size_t sensor = 1; sensor <= kMagnetSensors; ++sensor) {
        std::string const number = std::to_string(sensor);
        mMagnetAverageChannels.push_back(
            create({"temperatureBoard", "magnet", "temperatureMovingAverage", number}, DataLoggerUnit::Kelvin,
                   "Moving average of the magnet sensor " + number));
    }
    for (std::size_t sensor = 1; sensor <= kMagnetSensors; ++sensor) {
        std::string const number = std::to_string(sensor);
        mMagnetInSpecChannels.push_back(
            create({"temperatureBoard", "magnet", "temperatureInSpecs", number}, DataLoggerUnit::Boolean,
                   "Is the temperature measured by sensor " + number + " from magnet in spec?"));
    }
}

void TemperatureHardwareQ47::push(Channel const& aChannel, double aValue) const {
    aChannel->push(aValue, mClock.systemNow());
}

// ------------------------------------------------------------------------ listener, lock, and board's record

void TemperatureHardwareQ47::setListener(TemperatureListenerInterface* aListener) {
    mListener->setListener(aListener);
}

void TemperatureHardwareQ47::removeListener() {
    mListener->removeListener();
}

void TemperatureHardwareQ47::setLock(std::shared_ptr<LockForTemperatureIfc> aLock) {
    mATController->setLock(std::move(aLock));
}

bool TemperatureHardwareQ47::atEnabled() const {
    // Still on while it ramps down, though nobody wants it any more.
    return mATController->enabled() || mListener->temperatureStatus() == ProbeTemperatureGlobalStatus::On;
}

std::string TemperatureHardwareQ47::tempBoardMDS() {
    try {
        return mBoard->mds();
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to get the MDS of the temperature board. Error %s", {},
                   error.what());
    } catch (...) {
        keplaDoLog(Severity::Error, "Failed to get the MDS of the temperature board. Unknown error", {});
    }
    return {};
}

// -------------------------------------------------------------------------------------- magnet and iso box

BoundedValue TemperatureHardwareQ47::getMagnetTemperature() {
    keplaDoLog(Severity::Trace, "TemperatureHardwareQ47::getMagnetTemperature()", {});
    double const value = mBoard->magnetTemperature();
    double const target = mBoard->targetMagnetTemperature(1);
    return {value, target + mMagnetTolerance, target - mMagnetTolerance, mMagnetFormat};
}

double TemperatureHardwareQ47::getTargetMagnetTemperature() {
    keplaDoLog(Severity::Trace, "TemperatureHardwareQ47::getTargetMagnetTemperature()", {});
    return mBoard->targetMagnetTemperature(1);
}

bool TemperatureHardwareQ47::isMagnetReady() {
    keplaDoLog(Severity::Trace, "TemperatureHardwareQ47::isMagnetReady()", {});
    return mMagnetReady;
}

BoundedValue TemperatureHardwareQ47::getIsoBoxTemperature() {
    keplaDoLog(Severity::Trace, "TemperatureHardwareQ47::getIsoBoxTemperature()", {});
    double const value = mBoard->isoBoxTemperature();
    double const target = mBoard->isoBoxTargetTemperature();
    return {value, target + mIsoBoxTolerance, target - mIsoBoxTolerance, mIsoBoxFormat};
}

// ---------------------------------------------------------------------------------------------- shim coils

BoundedValue TemperatureHardwareQ47::getShimCoilTemperature() {
    keplaDoLog(Severity::Trace, "TemperatureHardwareQ47::getShimCoilTemperature()", {});
    return {kelvinToCelsius(mBoard->shimTemperature()), mShimTargetCelsius + mShimTolerance,
            mShimTargetCelsius - mShimTolerance, mShimFormat};
}

void TemperatureHardwareQ47::setShimTargetTemperature(double aTemperature) {
    mBoard->setShimTargetTemperature(1, aTemperature);
}

double TemperatureHardwareQ47::shimTargetTemperature(bool aFromBoard) const {
    return mBoard->shimTargetTemperature(1, aFromBoard);
}

void TemperatureHardwareQ47::setShimCoolingMode(int aMode) {
    if (static_cast<unsigned>(aMode) > static_cast<unsigned>(ShimTemperingMode::Mode1)) {
        keplaDoLog(Severity::Error, "setShimCoolingMode: unsupported mode requested %d", {}, aMode);
        throw std::invalid_argument("The requested shim cooling mode is not supported on this hardware.");
    }
    keplaDoLog(Severity::Debug, "Setting the shim cooling mode to %d", {}, aMode);
    auto const mode = static_cast<ShimTemperingMode>(aMode);
    auto const former = mBoard->shimTemperingMode();
    if (former != mode) {
        keplaDoLog(Severity::Warning, "Changing shim cooling mode from %d to %d", {},
                   static_cast<int>(former), aMode);
        mBoard->setShimTemperingMode(mode);
        saveSetupIfNeeded();
    }
}

// --------------------------------------------------------------------------------------------------- probe

BoundedValue TemperatureHardwareQ47::getProbeTemperature() {
    keplaDoLog(Severity::Trace, "TemperatureHardwareQ47::getProbeTemperature()", {});
    double const value = mBoard->probeTemperature();
    auto const range = mATController->temperatureRange();
    return {value, range.second, range.first, mProbeFormat};
}

double TemperatureHardwareQ47::probeTemperature() const {
    return mBoard->probeTemperature();
}

double TemperatureHardwareQ47::getTargetProbeTemperature() {
    keplaDoLog(Severity::Trace, "TemperatureHardwareQ47::getTargetProbeTemperature()", {});
    return mATController->targetTemperature();
}

void TemperatureHardwareQ47::setTargetProbeTemperature(double aTemperature) {
    keplaDoLog(Severity::Info, "TemperatureHardwareQ47::setTargetProbeTemperature(temperature = %f)", {},
               aTemperature);
    mATController->setTargetTemperature(aTemperature);
}

void TemperatureHardwareQ47::setProbeTemperatureMin(double aTemperature) {
    mATController->setProbeTemperatureMin(aTemperature);
    notifyProbeTemperatureMinMaxChanged();
}

void TemperatureHardwareQ47::setProbeTemperatureMax(double aTemperature) {
    mATController->setProbeTemperatureMax(aTemperature);
    notifyProbeTemperatureMinMaxChanged();
}

void TemperatureHardwareQ47::notifyProbeTemperatureMinMaxChanged() {
    auto const range = mATController->temperatureRange();
    mListener->probeTargetTemperatureMinimumChanged(range.first);
    mListener->probeTargetTemperatureMaximumChanged(range.second);
}

ProbeTemperatureGlobalStatus TemperatureHardwareQ47::getProbeTemperatureStatus() {
    return mListener->temperatureStatus();
}

void TemperatureHardwareQ47::setProbeTemperatureStatus(ProbeTemperatureGlobalStatus aStatus) {
    keplaDoLog(Severity::Info, "setProbeTemperatureStatus(status = %d)", {}, static_cast<int>(aStatus));
    if (aStatus != ProbeTemperatureGlobalStatus::Off && aStatus != ProbeTemperatureGlobalStatus::On) {
        keplaDoLog(Severity::Error, "setProbeTemperatureStatus(requested = %d): invalid status", {},
                   static_cast<int>(aStatus));
        throw std::invalid_argument("Invalid probe temperature status requested");
    }
    mATController->setEnabled(aStatus == ProbeTemperatureGlobalStatus::On);
}

int TemperatureHardwareQ47::getProbeTemperatureRegulatorStatus() {
    return static_cast<int>(mListener->temperatureControlStatus());
}

ProbeTemperatureControlStatus TemperatureHardwareQ47::getProbeTemperatureRegulatorMode() {
    return mListener->temperatureControlStatus();
}

TemperatureStability TemperatureHardwareQ47::getProbeTemperatureRegulatorStability() {
    return mListener->temperatureStability();
}

double TemperatureHardwareQ47::getProbeActualPower() {
    return mBoard->probeGasHeatingSpiralPower();
}

int TemperatureHardwareQ47::getProbeDeviceActiveChannel() {
    return mATController->hasAT() ? 1 : 0;
}

std::string TemperatureHardwareQ47::getProbeTemperatureMeasurements() {
    using namespace libfieldwarden::temperature;
    if (!mATController->hasAT()) {
        return kNoProbeMeasurements;
    }
    double const kelvin = mBoard->probeTemperature();
    try {
        return probeMeasurementsAsXml(kelvin);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "%s", {}, error.what());
        return kNoProbeMeasurements;
    }
}

// ----------------------------------------------------------------------------- probe gas and sample exchange

double TemperatureHardwareQ47::getProbeMeasuredGasFlow() {
    return mListener->gasFlow();
}

double TemperatureHardwareQ47::getProbeTargetGasFlowForOperation() {
    return mListener->gasFlow();
}

void TemperatureHardwareQ47::setProbeGasFlowForOperation(double aFlow) {
    mATController->setFlowOverrideByUser(aFlow);
}

std::string TemperatureHardwareQ47::getProbeGasFlowList() const {
    return mATController->flowsAsXmlForPanorin();
}

ProbeTemperatureControlGasFlowStatus TemperatureHardwareQ47::getProbeGasFlowStatus() {
    return mListener->gasStatus();
}

void TemperatureHardwareQ47::setAirFlowForSampleExchange(bool aSampleExchange) {
    bool const sampleInMagnet = mSampleInMagnet;
    keplaDoLog(Severity::Info, "+setAirFlowForSampleExchange(sampleExchange = %d, mSampleInMagnet = %d)", {},
               aSampleExchange, sampleInMagnet);
    push(mExchangeModeChannel, aSampleExchange ? 1.0 : 0.0);
    if (aSampleExchange) {
        mATController->prepareTransfer();
    } else {
        mATController->completeTransfer(sampleInMagnet);
    }
}

void TemperatureHardwareQ47::setSampleInMagnetForAirFlow(bool aSampleInMagnet) {
    keplaDoLog(Severity::Debug, "setSampleInMagnetForAirFlow(sampleInMagnet = %d)", {}, aSampleInMagnet);
    mSampleInMagnet = aSampleInMagnet;
    push(mSampleInMagnetChannel, aSampleInMagnet ? 1.0 : 0.0);
}

bool TemperatureHardwareQ47::getAirFlowForSampleExchange() const {
    return mATController->isInSampleTransferMode();
}

// ------------------------------------------------------------------------------------------ magnet readiness

/// A read that fails is logged and loses its signal only.
void TemperatureHardwareQ47::guarded(char const* aSignal, std::function<void()> const& aUpdate) const {
    try {
        aUpdate();
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "readAndUpdateStability: %s failed with error %s", {}, aSignal,
                   error.what());
    } catch (...) {
        keplaDoLog(Severity::Error, "readAndUpdateStability: %s failed with unknown error", {}, aSignal);
    }
}

void TemperatureHardwareQ47::readAndUpdateStability() {
    std::lock_guard const lock(mStabilityMutex);
    keplaDoLog(Severity::Trace, "+readAndUpdateStability()", {});
    for (std::size_t sensor = 0; sensor < kMagnetSensors; ++sensor) {
        guarded("magnetTemperatureSensor(id)", [&] { updateMagnetSensor(sensor); });
    }
    guarded("magnetTemperature()", [this] { updateMagnetTemperature(); });
    guarded("shimTemperature()", [this] { updateShim(); });
    guarded("isoBoxTemperature()", [this] { updateIsoBox(); });
    updateMagnetReady();
    keplaDoLog(Severity::Trace, "-readAndUpdateStability", {});
}

void TemperatureHardwareQ47::updateMagnetSensor(std::size_t aSensor) {
    double const kelvin = mBoard->magnetTemperatureSensor(static_cast<unsigned char>(aSensor + 1));
    double const mean = mMagnetAverages[aSensor].push(kelvin);
    push(mMagnetAverageChannels[aSensor], mean);
    bool const inSpec = mMagnetComparators[aSensor].push(mean);
    push(mMagnetInSpecChannels[aSensor], inSpec ? 1.0 : 0.0);
}

void TemperatureHardwareQ47::updateMagnetTemperature() {
    double const kelvin = mBoard->magnetTemperature();
    if (std::abs(mLastMagnetTemperature - kelvin) >= kWorthALine) {
        keplaDoLog(Severity::Trace, "Magnet temperature changed from %g to %g", {}, mLastMagnetTemperature,
                   kelvin);
        mLastMagnetTemperature = kelvin;
    }
}

void TemperatureHardwareQ47::updateShim() {
    double const kelvin = mBoard->shimTemperature();
    double const mean = mShimAverage.push(kelvin);
    push(mShimAverageChannel, mean);
    bool const inSpec = mShimComparator.push(mean);
    push(mShimInSpecChannel, inSpec ? 1.0 : 0.0);
    if (std::abs(mLastShimTemperature - kelvin) >= kWorthALine) {
        keplaDoLog(Severity::Trace, "Shim coil temperature changed from %g to %g", {}, mLastShimTemperature,
                   kelvin);
        mLastShimTemperature = kelvin;
    }
}

void TemperatureHardwareQ47::updateIsoBox() {
    double const kelvin = mBoard->isoBoxTemperature();
    mIsoBoxAverage.push(kelvin);
    push(mIsoBoxAverageChannel, kelvin); // Intended: the reading; its mean is only kept.
}

void TemperatureHardwareQ47::updateMagnetReady() {
    bool const ready = computeMagnetReadyState();
    push(mMagnetStableChannel, ready ? 1.0 : 0.0);
    bool const former = mMagnetReady.exchange(ready);
    if (former != ready) {
        keplaDoLog(Severity::Info, "Magnet ready state changed from %d to %d", {}, former, ready);
        mListener->magnetReadyChanged(ready);
    }
}

bool TemperatureHardwareQ47::computeMagnetReadyState() const {
    keplaDoLog(Severity::Trace, "TemperatureHardwareQ47::computeMagnetReadyState", {});
    for (std::size_t index = 0; index < mMagnetComparators.size(); ++index) {
        if (!mMagnetComparators[index].result()) {
            keplaDoLog(Severity::Trace,
                       "Magnet is not ready: temperature average comparator index %u is out of range", {},
                       index);
            return false;
        }
    }
    return true;
}
