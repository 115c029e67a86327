// SPDX-License-Identifier: Apache-2.0
// The operations of the lock service.
#include "lock/LockQ47.h"

#include "lock/LockFSM.h"
#include "lock/LockListenerSync.h"
#include "lock/LockParametersInterface.h"
#include "lock/LockShimTargetTemperatureRegulator.h"
#include "lock/LockStatus.h"
#include "lock/LockStreams.h"
#include "lock/LockWorkflows.h"
#include "lock/hardware/LockHardwareHelper.h"
#include "lock/hardware/LockPIDDataStream.h"

#include <fieldwarden/TemperatureForLockIfc.h>
#include <velmor/kepla/datalogger/DataLoggerChannelIfc.h>
#include <velmor/kepla/datalogger/DataLoggerInterface.h>
#include <velmor/platform/Clock.h>

#include <array>
#include <cmath>
#include <cstring>
#include <exception>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

using libfieldwarden::LockProgressListener;
using libfieldwarden::LockRegisterText;
using libfieldwarden::LockScanPoint;
using libfieldwarden::lock::LockProgress;
using libfieldwarden::lock::LockProgressObserver;
using libfieldwarden::lock::OutputRangeWarning;
using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::log::Severity;
using velmor::kepla::utils::PeriodicCallerManagerIfc;
using velmor::platform::Clock;

namespace {

/// A smaller change of the magnet's frequency does not restart the lock.
constexpr double kRestartChangeHz = 900.0;
/// The step of the spectrometer frequency that brings the H0 output back into its range.
constexpr double kAdvisedStepHz = 4000.0;

/// The workflows' news of progress in the boundary's words.
LockProgressObserver observer(LockProgressListener aListener) {
    if (!aListener) {
        return {};
    }
    return [listener = std::move(aListener)](LockProgress const& aProgress) {
        listener({std::string(aProgress.step), aProgress.done, aProgress.total});
    };
}

} // namespace

LockQ47::LockQ47(std::shared_ptr<LockHardwareInterface> aHardware,
                 std::shared_ptr<LockParametersInterface> aParameters,
                 std::shared_ptr<ShimTargetTemperatureIfc> aShimTarget,
                 std::shared_ptr<TemperatureForLockIfc> aTemperature,
                 std::shared_ptr<ShimForLockIfc> aShim,
                 std::shared_ptr<DataLoggerInterface> const& aDataLogger,
                 std::shared_ptr<PeriodicCallerManagerIfc> aPeriodicCallers,
                 bool aStartNow)
    : Logger("LockQ47", "Lock")
    , mListener(std::make_shared<LockListenerSync>())
    , mHardware(std::move(aHardware))
    , mParameters(std::move(aParameters))
    , mRegulator(std::make_shared<LockShimTargetTemperatureRegulator>(
          mParameters, std::move(aShimTarget), aDataLogger))
    , mTemperature(std::move(aTemperature))
    , mHelper(std::make_shared<LockHardwareHelper>(mHardware, aDataLogger))
    , mPIDStream(std::make_shared<LockPIDDataStream>(mHardware))
    , mStreams(std::make_shared<LockStreams>(mHardware,
                                             mPIDStream,
                                             mListener,
                                             mParameters,
                                             mRegulator,
                                             aDataLogger,
                                             std::move(aPeriodicCallers)))
    , mShim(std::move(aShim))
    , mFSM(
          std::make_shared<LockFSM>(mHardware, mHelper, mParameters, mListener, mStreams, mShim, aStartNow)) {
    mStreams->setInternalNotifier(mFSM);
    mNotifying.reset(mStreams.get());
    initializeDataLogger(*aDataLogger);
}

LockQ47::~LockQ47() {
    // A dump that waits for the hardware would hold up the running step of a start.
    mStreams->requestEnd();
}

void LockQ47::NotifierTaker::operator()(LockStreams* aStreams) const {
    aStreams->setInternalNotifier(nullptr);
}

void LockQ47::initializeDataLogger(DataLoggerInterface& aDataLogger) {
    mChannelEnabled = aDataLogger.createChannel({{"lock", "enabled"},
                                                 DataLoggerUnit::Boolean,
                                                 DataLoggerStats::none(),
                                                 DataLoggerStorageType::LongTerm,
                                                 "Is the lock enabled (1) or not (0)"});
    mChannelPidSetIndex =
        aDataLogger.createChannel({{"lock", "pidset_index"},
                                   DataLoggerUnit::Dimensionless,
                                   DataLoggerStats::none(),
                                   DataLoggerStorageType::LongTerm,
                                   "Which lock PID set is used: 0 = slow, 1 = fast, 2 = normal"});
}

// ------------------------------------------------------------------------------------------ start and stop

bool LockQ47::getLock() {
    return mStreams->locked();
}

void LockQ47::startLock() {
    keplaDoLog(Severity::Info, "+startLock", {});
    mStreams->lostMgr()->reset();
    mFSM->start();
    mChannelEnabled->push(1.0, Clock::current().systemNow());
}

void LockQ47::stopLock() {
    keplaDoLog(Severity::Info, "+stopLock", {});
    if (mTemperature->atEnabled()) {
        keplaDoLog(Severity::Error, "User requested to stop the lock but AT is enabled: denied", {});
        throw std::runtime_error(
            "The lock must remain enabled while the adjustable temperature option is enabled.");
    }
    mChannelEnabled->push(0.0, Clock::current().systemNow());
    mFSM->stop();
}

void LockQ47::holdLock() {
    keplaDoLog(Severity::Info, "+holdLock: not yet implemented", {});
}

void LockQ47::setBasic1HFrequency(double aFrequency) {
    keplaDoLog(Severity::Info, "setBasic1HFrequency(%f Hz)", {}, aFrequency);
    double const former = mParameters->magnet1HFrequency();
    mParameters->setMagnet1HFrequency(aFrequency);
    if (std::abs(former - aFrequency) > kRestartChangeHz) {
        keplaDoLog(Severity::Info, "restarting the lock", {});
        mFSM->notifyMagnetFrequencyHasBeenSet();
    } else {
        // Intended: the new value is kept for the next start, the hardware stays at the old one.
        keplaDoLog(Severity::Info,
                   "basic 1H frequency didn't change enough to require a lock restart. New %f, previous %f",
                   {}, aFrequency, former);
    }
}

double LockQ47::getBasic1HFrequency() {
    return mParameters->magnet1HFrequency();
}

int LockQ47::getLockPIDSet() {
    return static_cast<int>(mParameters->pidSetID());
}

void LockQ47::setLockPIDSet(int aPIDSet) {
    keplaDoLog(Severity::Info, "+setLockPIDSet(pidSet = %d)", {}, aPIDSet);
    mParameters->setPIDSetID(static_cast<LockPIDSetID>(aPIDSet));
    mFSM->notifyPIDSetChanged();
    mListener->updateLockPIDSet(aPIDSet);
    mChannelPidSetIndex->push(aPIDSet, Clock::current().systemNow());
}

// ------------------------------------------------------------------------------------------ parameter sets

void LockQ47::beginOfOneParameterSet() {
    keplaDoLog(Severity::Debug, "beginOfOneParameterSet", {});
    std::lock_guard const lock(mParameterSetMutex);
    if (mInParameterSet) {
        keplaDoLog(Severity::Error,
                   "beginOfOneParameterSet: already in a parameter set, cannot begin another one", {});
        throw std::runtime_error("Already in a parameter set, cannot begin another one");
    }
    mInParameterSet = true;
}

void LockQ47::endOfOneParameterSet() {
    keplaDoLog(Severity::Debug, "endOfOneParameterSet", {});
    std::lock_guard const lock(mParameterSetMutex);
    if (!mInParameterSet) {
        keplaDoLog(Severity::Error, "endOfOneParameterSet: not in a parameter set, cannot end one", {});
        throw std::runtime_error("Not in a parameter set, cannot end one.");
    }
    mInParameterSet = false;
}

void LockQ47::cancelOfOneParameterSet() {
    keplaDoLog(Severity::Info, "cancelOfOneParameterSet: not yet implemented", {});
}

// ----------------------------------------------------------------------------------- listener and warnings

void LockQ47::setListener(LockInterfaceListener* aListener) {
    mListener->setListener(aListener);
}

void LockQ47::removeListener() {
    mListener->removeListener();
}

bool LockQ47::getLockLost() {
    return mStreams->lostMgr()->state() != 0;
}

void LockQ47::resetLockLost() {
    mStreams->lostMgr()->reset();
}

std::string LockQ47::warnings() const {
    return {};
}

std::string LockQ47::criticalWarnings() const {
    std::string text;
    if (mStreams->outputRangeWarning() == static_cast<int>(OutputRangeWarning::NearItsEnd)) {
        text = lockDACRangeWarningMessage();
    }
    if (mStreams->pidDataTimedOut()) {
        if (!text.empty()) {
            text += "\n\n";
        }
        text +=
            "The lock has stopped because of an internal error.\nPlease try to restart it.\n"
            "Should that not help, please power cycle the device and try again.";
    }
    return text;
}

std::string LockQ47::lockDACRangeWarningMessage() const {
    int const sign = mStreams->outputDACSign();
    double const newFrequencyMHz = (-kAdvisedStepHz * sign + mParameters->magnet1HFrequency()) / 1000000.0;
    return fmt::format(
        "The lock field exceeds 90% of the maximum range.\n"
        "The system stability will degrade if the lock field reaches 100%.\n"
        "To prevent this, please change the spectrometer frequency by {}4 kHz, to {:.3f} MHz.",
        sign < 0 ? "+" : "-", newFrequencyMHz);
}

// ------------------------------------------------------------------------------------- for the temperature

bool LockQ47::shimCoilTargetTemperatureRegulationArmed() const {
    return mRegulator->armed();
}

// ------------------------------------------------------------------------------------------ diagnosis

std::shared_ptr<LockHardwareHelper> LockQ47::hwHelper() const {
    return mHelper;
}

std::shared_ptr<LockWorkflows> LockQ47::workflows() const {
    return std::make_shared<LockWorkflows>(mHardware, mHelper, mParameters, mStreams, mShim);
}

void LockQ47::startForTests() const {
    workflows()->startForTests();
}

std::vector<LockFieldScanPoint> LockQ47::scanField() const {
    return workflows()->scanField();
}

double LockQ47::fftSlopeAt0Crossing() {
    return mStreams->fftSlopeAt0Crossing();
}

void LockQ47::dumpFID(std::string const& aName) {
    mStreams->requestDumpFID(aName);
}

void LockQ47::dumpFFT(std::string const& aName) {
    mStreams->requestDumpFFT(aName);
}

std::vector<LockRegisterText> LockQ47::readRegisters() {
    std::vector<LockRegisterText> all;
    for (auto const& each : mHelper->registers()) {
        std::ostringstream text;
        try {
            each->dump(text);
            all.push_back({each->name, text.str().substr(each->name.size() + std::strlen(" = ")), true});
        } catch (std::exception const& failure) {
            all.push_back({each->name, failure.what(), false});
        }
    }
    return all;
}

std::string LockQ47::dumpSignal(std::string const& aName) {
    if (aName.find('/') != std::string::npos) {
        throw std::invalid_argument("The name of a dump cannot have a '/' in it: '" + aName + "'");
    }
    auto const& folder = mStreams->dumpDirectory();
    std::array const files{folder / ("lock_fft_" + aName + ".h5"), folder / ("lock_fid_" + aName + ".h5")};
    for (auto const& file : files) {
        std::filesystem::remove(file); // A former one is not to be taken for the new one.
    }
    mStreams->dumpFFTandFID(aName);
    for (auto const& file : files) {
        if (!std::filesystem::exists(file)) {
            throw std::runtime_error("The lock signal could not be dumped to '" + file.string() +
                                     "'; the log says why");
        }
    }
    return folder.string();
}

std::vector<LockScanPoint> LockQ47::scanFrequencies(LockProgressListener aListener) {
    auto const scan = workflows();
    scan->setProgressObserver(observer(std::move(aListener)));
    std::vector<LockScanPoint> points;
    for (LockFieldScanPoint const& point : scan->scanField()) {
        points.push_back({point.frequency19F, point.frequency1H, point.maxSlicePosition,
                          point.maxSliceMagnitude, point.cicShiftAfterSetUp, point.cicShiftAfterOptimize,
                          point.cicShiftAfterMovingToZero});
    }
    return points;
}

void LockQ47::setProgressListener(LockProgressListener aListener) {
    mFSM->setProgressObserver(observer(std::move(aListener)));
}

// ----------------------------------------------------------------------------------- fixed and kept values

float LockQ47::getMagnetField() {
    return 3.1415F;
}

std::string LockQ47::getLockConfiguration() {
    return "1L";
}

bool LockQ47::get19FOptionAvailable() {
    return true;
}

double LockQ47::getEffectiveField() {
    return 0.0;
}

std::string LockQ47::getSubstanceValueRange() {
    return "19F=0";
}

bool LockQ47::getH0PolarityInverse() {
    return false;
}

bool LockQ47::getLockMute() {
    return false;
}

void LockQ47::setLockMute(bool aMute) {
    keplaDoLog(Severity::Info, "+setLockMute(lockMute = %d)", {}, static_cast<int>(aMute));
    keplaDoLog(Severity::Info, "setLockMute not implemented yet", {});
}

double LockQ47::getLockDC() {
    return 0.0;
}

double LockQ47::getLockLevel() {
    return 0.0;
}

int LockQ47::getAutoLockBehavior() {
    return 0;
}

int LockQ47::getLockSubstance() {
    return mLockSubstance;
}

void LockQ47::setLockSubstance(int aSubstance) {
    mLockSubstance = aSubstance;
}

double LockQ47::getLockInPowerStep() {
    return mLockInPowerStep;
}

void LockQ47::setLockInPowerStep(double aStep) {
    mLockInPowerStep = aStep;
}

double LockQ47::getLockField() {
    return mLockField;
}

void LockQ47::setLockField(double aField) {
    mLockField = aField;
}

double LockQ47::getLockShift() {
    return mLockShift;
}

void LockQ47::setLockShift(double aShift) {
    mLockShift = aShift;
}

double LockQ47::getLoopGain() {
    return mLoopGain;
}

void LockQ47::setLoopGain(double aGain) {
    mLoopGain = aGain;
}

double LockQ47::getLoopTime() {
    return mLoopTime;
}

void LockQ47::setLoopTime(double aTime) {
    mLoopTime = aTime;
}

double LockQ47::getLoopFilter() {
    return mLoopFilter;
}

void LockQ47::setLoopFilter(double aFilter) {
    mLoopFilter = aFilter;
}

double LockQ47::getLockPhase() {
    return mLockPhase;
}

void LockQ47::setLockPhase(double aPhase) {
    mLockPhase = aPhase;
}

double LockQ47::getLockPower() {
    return mLockPower;
}

void LockQ47::setLockPower(double aPower) {
    mLockPower = aPower;
}

double LockQ47::getLockGain() {
    return mLockGain;
}

void LockQ47::setLockGain(double aGain) {
    mLockGain = aGain;
}

int LockQ47::getAdditionalLockPeaks() {
    return mAdditionalLockPeaks;
}

void LockQ47::setAdditionalLockPeaks(int aPeaks) {
    mAdditionalLockPeaks = aPeaks;
}
