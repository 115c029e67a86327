// SPDX-License-Identifier: Apache-2.0
// The supervision of the running lock, record by record, and the dumps.
#include "lock/LockStreams.h"

#include "lock/LockListenerSync.h"
#include "lock/LockParametersInterface.h"
#include "lock/LockShimTargetTemperatureRegulatorIfc.h"
#include "lock/LockSlope0Crossing.h"
#include "lock/LockStatus.h"
#include "lock/hardware/LockHardwareInterface.h"
#include "lock/hardware/LockPIDStreamIfc.h"
#include "lock/hardware/LockStreamPIDData.h"

#include <fieldwarden/LockInternalNotifierIfc.h>
#include <velmor/kepla/datalogger/DataLoggerChannelIfc.h>
#include <velmor/kepla/datalogger/DataLoggerInterface.h>
#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>
#include <velmor/kepla/utils/ThreadName.h>
#include <velmor/platform/Backend.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <numeric>
#include <utility>

using libfieldwarden::lock::LockStatus;
using libfieldwarden::lock::OutputRangeWarning;
using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::log::Severity;

namespace {

constexpr int kRetries = 60; ///< Seconds without a record until that is a hardware error.
constexpr std::chrono::duration<double> kRecordTimeout{1.0};
constexpr std::chrono::seconds kPushInterval{1};
constexpr std::chrono::nanoseconds kLockedBeforeRegulation{5'000'000'000};
constexpr double kDumpIntervalSeconds = 5.0;
constexpr int kNoWarning = static_cast<int>(OutputRangeWarning::None);
constexpr int kWarning = static_cast<int>(OutputRangeWarning::NearItsEnd);

} // namespace

LockStreams::LockStreams(std::shared_ptr<LockHardwareInterface> aHardware,
                         std::shared_ptr<LockPIDStreamIfc> aPIDStream,
                         std::shared_ptr<LockListenerSync> aListener,
                         std::shared_ptr<LockParametersInterface> const& aParameters,
                         std::shared_ptr<LockShimTargetTemperatureRegulatorIfc> aRegulator,
                         std::shared_ptr<DataLoggerInterface> const& aDataLogger,
                         std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> aPeriodicManager)
    : Logger("LockStreams", "Lock")
    , mHardware(std::move(aHardware))
    , mPIDStream(std::move(aPIDStream))
    , mListener(std::move(aListener))
    , mParameters(aParameters)
    , mComparator([this](double aMean) { return thresholdComparator(aMean); })
    , mFFTDump(mHardware)
    , mFIDDump(mHardware)
    , mWarningThreshold(static_cast<int>(mParameters->dacOutOfRangeWarningThreshold() * mDacFullScale))
    , mRearmThreshold(static_cast<int>(mParameters->dacOutOfRangeWarningRearmThreshold() * mDacFullScale))
    , mLost(std::make_shared<LockLost>(mListener))
    , mRegulator(std::move(aRegulator))
    , mDumpDirectory(velmor::platform::Backend::current()->instrumentPath(mParameters->pathRootLogs()) /
                     "fft_td_dumps")
    , mPeriodicManager(std::move(aPeriodicManager))
    , mDeferFFT([this](std::string const& aName) { doDumpFFT(aName); }, "LockStreams FFT Dump")
    , mDeferFID([this](std::string const& aName) { doDumpFID(aName); }, "LockStreams FID Dump") {
    initializeDataLogger(*aDataLogger);
    std::filesystem::create_directories(mDumpDirectory);
    keplaDoLog(Severity::Info, "FFT and TD dumps will be stored in %s", {},
               (std::filesystem::path(mParameters->pathRootLogs()) / "fft_td_dumps").string());
}

LockStreams::~LockStreams() {
    requestEnd();
    mPeriodicDump.reset();
    mStopThread = true;
    mHalted = true;
    if (mThread.joinable()) {
        try {
            mPIDStream->stop(); // wakes the thread
        } catch (std::exception const& failure) {
            keplaDoLog(Severity::Error, "Failed to stop the PID stream: %s", {}, failure.what());
        }
        mThread.join();
    }
}

void LockStreams::initializeDataLogger(DataLoggerInterface& aDataLogger) {
    auto const channel = [&aDataLogger](std::vector<std::string> aPath, DataLoggerUnit aUnit,
                                        char const* aDescription) {
        return aDataLogger.createChannel({std::move(aPath), aUnit, DataLoggerStats::none(),
                                          DataLoggerStorageType::ShortTerm, aDescription});
    };
    mChannelPhase =
        channel({"lock", "pid", "phase"}, DataLoggerUnit::Dimensionless, "Computed phase of the lock FID");
    mChannelMaxSlice = channel({"lock", "pid", "max_slice"}, DataLoggerUnit::Dimensionless,
                               "Position of the max slice in the FFT");
    mChannelDataIn = channel({"lock", "pid", "data_in"}, DataLoggerUnit::Dimensionless,
                             "Value entering the hardware PID regulator");
    mChannelDataOut = channel({"lock", "pid", "data_out"}, DataLoggerUnit::Dimensionless,
                              "Value going out of the PID regulator, to the DAC");
    mChannelLocked =
        channel({"lock", "locked"}, DataLoggerUnit::Boolean, "Locked state: 0 = not locked, 1 = locked");
}

// ------------------------------------------------------------------------------------------ start and stop

void LockStreams::start() {
    keplaDoLog(Severity::Info, "starting the lock data streams", {});
    if (mStartedFlag) {
        keplaDoLog(Severity::Warning, "already started, cannot restart it, consider everything is fine?!",
                   {});
        return;
    }
    mStartedFlag = true;
    mDataInMean = 0.0;
    mDataInWindow.clear();
    mWithinThreshold = false;
    mMeanWindow.clear();
    try {
        startPIDStream();
    } catch (...) {
        mStartedFlag = false; // or else the next start would take it for running
        throw;
    }
    try {
        startDumps();
    } catch (...) {
        mStartedFlag = false;
        abandonPIDStream();
        throw;
    }
}

void LockStreams::startDumps() {
    mHardware->timeDomainSrc()->set(true);
    mDeferFFT.trigger("onstart");
    mDeferFID.trigger("onstart");
    mPeriodicDump =
        mPeriodicManager->createPeriodicCaller(kDumpIntervalSeconds, [this] { dumpFFTandFID("regular"); });
}

void LockStreams::startPIDStream() {
    keplaDoLog(Severity::Debug, "+startPIDStream", {});
    mPIDStream->start();
    mPidDataTimedOut = false;
    mStopThread = false;
    mHalted = false;
    try {
        mThread = std::thread([this] { pidStreamThread(); });
    } catch (...) {
        abandonPIDStream();
        throw;
    }
}

/// Ends what a start has begun that cannot go on.
void LockStreams::abandonPIDStream() {
    try {
        haltPIDStream();
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "Failed to stop the PID stream: %s", {}, failure.what());
    }
}

void LockStreams::stop() {
    keplaDoLog(Severity::Info, "stopping the lock data streams", {});
    mStartedFlag = false;
    mRegulator->stop();
    mPeriodicDump.reset();
    stopPIDStream();
}

void LockStreams::stopPIDStream() {
    keplaDoLog(Severity::Debug, "+stopPIDStream", {});
    mRegulator->stop();
    haltPIDStream();
    mListener->state(static_cast<int>(LockStatus::Stopped));
    mListener->doing("stopped");
}

/// Ends the supervision, whether or not the stream can be switched off.
void LockStreams::haltPIDStream() {
    mStopThread = true;
    mHalted = true;
    std::exception_ptr failure;
    try {
        mPIDStream->stop(); // wakes the thread
    } catch (...) {
        failure = std::current_exception();
    }
    // Before the rest, so that a record under way cannot undo it.
    if (mThread.joinable()) {
        mThread.join();
    }
    mMeanWindow.clear();
    mWithinThreshold = false;
    mLocked = false;
    mChannelLocked->push(0.0, mClock.systemNow());
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void LockStreams::requestEnd() noexcept {
    mFFTDump.requestStop();
    mFIDDump.requestStop();
}

// ----------------------------------------------------------------------------------------------- the thread

void LockStreams::pidStreamThread() {
    velmor::kepla::utils::nameThisThread("lock PID stream");
    keplaDoLog(Severity::Info, "pidStreamThread started", {});
    try {
        superviseStream();
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Critical, "pidStreamThread failed with %s", {}, failure.what());
    } catch (...) {
        keplaDoLog(Severity::Critical, "pidStreamThread failed with %s", {}, "an unknown exception");
    }
    keplaDoLog(Severity::Info, "pidStreamThread stopped", {});
    discardUntilHalted();
}

/// The stream may go on behind a supervision that has ended by itself: its records must not pile up until
/// somebody stops it.
void LockStreams::discardUntilHalted() {
    std::unique_ptr<LockStreamPIDData> sample;
    while (!mHalted) {
        mPIDStream->dequeueWait(sample, kRecordTimeout);
    }
}

void LockStreams::superviseStream() {
    int retries = kRetries;
    std::unique_ptr<LockStreamPIDData> sample;
    while (!mStopThread) {
        if (mPIDStream->dequeueWait(sample, kRecordTimeout)) {
            keplaDoLog(Severity::Trace, "pidStreamThread: got data", {});
            handleSample(*sample);
            retries = kRetries;
        } else if (!mStopThread) { // or else a stop has ended the wait
            handleTimeout(retries);
        }
    }
}

void LockStreams::handleTimeout(int& aRetries) {
    --aRetries;
    if (aRetries >= 1) {
        keplaDoLog(Severity::Warning, "pidStreamThread: data in timeout, retry counter = %d", {}, aRetries);
        return;
    }
    keplaDoLog(Severity::Error, "pidStreamThread: data in timeout, no more retries", {});
    mPidDataTimedOut = true;
    notifyHardwareError();
    mListener->warningsChanged();
    mStopThread = true;
}

void LockStreams::handleSample(LockStreamPIDData const& aSample) {
    bool const locked = lockedWith(aSample.pidDataIn());
    mDacSign = aSample.pidDataOut() < 0 ? -1 : 1;
    checkH0DacRange(aSample.pidDataOut());
    if (mClock.now() - mLastPush >= kPushInterval) {
        pushToDataLogger(aSample);
    }
    updateLocked(locked);
    mLost->push(locked ? 1 : 0);
    mRegulator->pushLockPIDDataOut(aSample.pidDataOut());
}

/// Takes an input of the hardware regulator.
/// @return Whether the last 50 means of up to 100 inputs are all within the threshold.
bool LockStreams::lockedWith(long long aPidDataIn) {
    mDataInWindow.push_back(static_cast<int>(aPidDataIn)); // Intended: the window holds 32 bits.
    double const sum = std::accumulate(mDataInWindow.begin(), mDataInWindow.end(), 0.0);
    mDataInMean = sum / static_cast<double>(mDataInWindow.size());
    mMeanWindow.push_front(mDataInMean);
    if (mMeanWindow.size() < mMeanCount) {
        return false;
    }
    mWithinThreshold = std::all_of(mMeanWindow.begin(), mMeanWindow.end(), std::cref(mComparator));
    return mWithinThreshold;
}

bool LockStreams::thresholdComparator(double aMean) const {
    return std::abs(aMean) < mParameters->lockedThreshold();
}

void LockStreams::checkH0DacRange(int aOutput) {
    long long const absolute = std::llabs(aOutput);
    keplaDoLog(Severity::Trace, "checkH0DacRange: pidDataOut is %d, absolute is %d, warning threshold is %d",
               {}, aOutput, absolute, mWarningThreshold);
    int const present = mWarningState;
    int const wanted = absolute >= mWarningThreshold ? kWarning : kNoWarning;
    bool const notRearmed = present == kWarning && absolute >= mRearmThreshold;
    if (wanted == present || notRearmed) {
        return;
    }
    keplaDoLog(Severity::Info, "H0 output warning changes from %d to: %d", {}, present, wanted);
    mWarningState = wanted;
    mListener->warningsChanged();
}

void LockStreams::pushToDataLogger(LockStreamPIDData const& aSample) {
    auto const time = mClock.systemNow();
    mChannelDataIn->push(static_cast<double>(aSample.pidDataIn()), time);
    mChannelDataOut->push(aSample.pidDataOut(), time);
    mChannelPhase->push(aSample.phase(), time);
    mChannelMaxSlice->push(aSample.maxSlice(), time);
    mLastPush = mClock.now();
    keplaDoLog(Severity::Trace,
               "pushed lock point to datalogger: PID data in %d, PID data out %d, max slice %u, phase %f", {},
               aSample.pidDataIn(), aSample.pidDataOut(), aSample.maxSlice(), aSample.phase());
}

void LockStreams::updateLocked(bool aLocked) {
    if (aLocked != mLocked) {
        changeLocked(aLocked);
    } else if (mLocked && mStartRegulator && mClock.now() - mLockedSince >= kLockedBeforeRegulation) {
        keplaDoLog(Severity::Info,
                   "locked for more than 5 seconds: starting shim target temperature regulator", {});
        mRegulator->start();
        mStartRegulator = false;
    }
}

void LockStreams::changeLocked(bool aLocked) {
    mLocked = aLocked;
    mChannelLocked->push(aLocked ? 1.0 : 0.0, mClock.systemNow());
    if (aLocked) {
        keplaDoLog(Severity::Info, "Locked state changed to TRUE", {});
        mListener->state(static_cast<int>(LockStatus::Locked));
        mListener->doing("locked");
        mDeferFFT.trigger("lastlocked");
        mStartRegulator = true;
        mLockedSince = mClock.now();
    } else {
        keplaDoLog(Severity::Info, "Locked state changed to FALSE", {});
        mListener->state(static_cast<int>(LockStatus::Running));
        mListener->doing("trying to lock");
        mDeferFFT.trigger("lastloss");
        mRegulator->pause();
    }
}

// --------------------------------------------------------------------------------------------- the notifier

void LockStreams::setInternalNotifier(std::shared_ptr<LockInternalNotifierIfc>&& aNotifier) {
    std::shared_ptr<LockInternalNotifierIfc> former = std::move(aNotifier);
    std::unique_lock lock(mNotifierMutex);
    mNotified.wait(lock, [this] { return !mNotifying; });
    mNotifier.swap(former);
}

// The notifier knows these streams, and its last owner must not be this thread: so the pointer is not copied
// but kept from changing while it is called.
void LockStreams::notifyHardwareError() {
    {
        std::lock_guard const lock(mNotifierMutex);
        if (!mNotifier) {
            return;
        }
        mNotifying = true;
    }
    struct Done {
        LockStreams& streams;
        ~Done() {
            {
                std::lock_guard const lock(streams.mNotifierMutex);
                streams.mNotifying = false;
            }
            streams.mNotified.notify_all();
        }
    } const done{*this};
    mNotifier->notifyHardwareError();
}

// ------------------------------------------------------------------------------------------ what is asked

bool LockStreams::locked() const {
    return mLocked;
}

std::shared_ptr<LockLost> LockStreams::lostMgr() const {
    return mLost;
}

int LockStreams::outputDACSign() const {
    return mDacSign;
}

int LockStreams::outputRangeWarning() const {
    return mWarningState;
}

bool LockStreams::pidDataTimedOut() const {
    return mPidDataTimedOut;
}

// ------------------------------------------------------------------------------------------------- dumping

void LockStreams::requestDumpFID(std::string const& aName) {
    keplaDoLog(Severity::Info, "+requestDumpFID(Name = '%s')", {}, aName);
    mDeferFID.trigger(aName);
}

void LockStreams::requestDumpFFT(std::string const& aName) {
    keplaDoLog(Severity::Info, "+requestDumpFFT(name = '%s')", {}, aName);
    mDeferFFT.trigger(aName);
}

void LockStreams::dumpFFTandFID(std::string const& aName) {
    doDumpFFT(aName);
    doDumpFID(aName);
}

void LockStreams::doDumpFFT(std::string const& aName) {
    std::lock_guard const lock(mDumpMutex);
    keplaDoLog(Severity::Info, "+dumpFFT(name = '%s'):", {}, aName);
    mFFTDump.acquireAndDump((mDumpDirectory / ("lock_fft_" + aName + ".h5")).string());
}

void LockStreams::doDumpFID(std::string const& aName) {
    std::lock_guard const lock(mDumpMutex);
    keplaDoLog(Severity::Info, "+dumpFID(name = '%s'):", {}, aName);
    mFIDDump.acquireAndDump((mDumpDirectory / ("lock_fid_" + aName + ".h5")).string());
}

double LockStreams::fftSlopeAt0Crossing() {
    std::lock_guard const lock(mDumpMutex);
    return LockSlope0Crossing().slopeAt0Crossing(mFFTDump.acquireAndGet().imag);
}
