// SPDX-License-Identifier: Apache-2.0
// The mock lock: stored values, fixed answers and two control files.
#include "lock/LockMock.h"

#include <fieldwarden/LockInterfaceListener.h>
#include <velmor/kepla/utils/ThreadName.h>
#include <velmor/kepla/utils/WholeFile.h>

#include <chrono>
#include <cstddef>
#include <limits>
#include <system_error>

using velmor::kepla::log::Severity;

namespace {

constexpr std::chrono::seconds kPollPeriod{1};

/// The whole file as it stands, a trailing newline included; empty when it cannot be read. What is not a
/// regular file cannot: a folder has no text, and a pipe would hold the polling up until somebody writes.
std::string readControlFile(std::filesystem::path const& aPath) {
    std::error_code unreadable;
    if (!std::filesystem::is_regular_file(aPath, unreadable)) {
        return {};
    }
    return velmor::kepla::utils::readWholeFile(aPath, std::numeric_limits<std::size_t>::max());
}

} // namespace

LockMock::LockMock(
    std::filesystem::path const& aMockDirectory,
    std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const& /*aPeriodicCallers*/)
    : Logger("LockMock", "Lock")
    , mWarningsPath(aMockDirectory / "warnings")
    , mCriticalWarningsPath(aMockDirectory / "critical_warnings")
    , mClock(velmor::platform::Clock::current()) {
    keplaDoLog(Severity::Critical, "USING MOCK VERSION OF THE LOCK", {});
    mPollThread = std::thread([this] { poll(); });
}

LockMock::~LockMock() {
    {
        std::lock_guard const lock(mStopMutex);
        mStop = true;
    }
    mStopCondition.notify_all();
    mPollThread.join();
}

void LockMock::poll() {
    velmor::kepla::utils::nameThisThread("lock-mock");
    while (!mStop) {
        try {
            pollCtrlFiles();
        } catch (...) {
            keplaDoLog(Severity::Error, "Some error while polling control files", {});
        }
        std::unique_lock lock(mStopMutex);
        mClock.waitFor(mStopCondition, lock, kPollPeriod, [&] { return mStop.load(); });
    }
}

void LockMock::pollCtrlFiles() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    LockInterfaceListener* const listener = mListener;

    // The text is stored before the listener is called, so that a listener that throws is not called again
    // for it.
    std::string const warningsNow = readControlFile(mWarningsPath);
    if (warningsNow != mWarnings) {
        keplaDoLog(Severity::Info, "Warnings changing to '%s'", {}, warningsNow);
        store(mWarnings, warningsNow);
        if (listener != nullptr) {
            keplaDoLog(Severity::Info, "Listener warningsChanged()", {});
            listener->warningsChanged();
        }
    }

    std::string const criticalWarningsNow = readControlFile(mCriticalWarningsPath);
    if (criticalWarningsNow != mCriticalWarnings) {
        keplaDoLog(Severity::Info, "Critical warnings chaning to '%s'", {}, criticalWarningsNow);
        store(mCriticalWarnings, criticalWarningsNow);
        if (listener != nullptr) {
            keplaDoLog(Severity::Info, "Listener warningsChanged()", {});
            listener->warningsChanged();
        }
    }
    keplaDoLog(Severity::Info, "-%s", {}, __func__);
}

void LockMock::store(std::string& aMember, std::string const& aText) {
    std::lock_guard const lock(mTextMutex);
    aMember = aText;
}

// The operations in the order of the boundary.

bool LockMock::getLock() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return true;
}

void LockMock::startLock() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
}

void LockMock::stopLock() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
}

void LockMock::holdLock() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
}

void LockMock::setBasic1HFrequency(double aFrequency) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mBasic1HFrequency = aFrequency;
}

double LockMock::getBasic1HFrequency() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mBasic1HFrequency;
}

float LockMock::getMagnetField() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return 42.0F;
}

void LockMock::beginOfOneParameterSet() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
}

void LockMock::endOfOneParameterSet() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
}

void LockMock::cancelOfOneParameterSet() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
}

std::string LockMock::getLockConfiguration() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return "1L";
}

bool LockMock::get19FOptionAvailable() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return true;
}

int LockMock::getLockSubstance() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLockSubstance;
}

void LockMock::setLockSubstance(int aSubstance) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLockSubstance = aSubstance;
}

double LockMock::getLockInPowerStep() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLockInPowerStep;
}

void LockMock::setLockInPowerStep(double aStep) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLockInPowerStep = aStep;
}

double LockMock::getEffectiveField() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return 0.0;
}

std::string LockMock::getSubstanceValueRange() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return "19F=0";
}

bool LockMock::getH0PolarityInverse() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return false;
}

bool LockMock::getLockMute() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLockMute;
}

void LockMock::setLockMute(bool aMute) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLockMute = aMute;
}

double LockMock::getLockField() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLockField;
}

void LockMock::setLockField(double aField) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLockField = aField;
}

double LockMock::getLockDC() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return 0.0;
}

double LockMock::getLockShift() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLockShift;
}

void LockMock::setLockShift(double aShift) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLockShift = aShift;
}

double LockMock::getLoopGain() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLoopGain;
}

void LockMock::setLoopGain(double aGain) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLoopGain = aGain;
}

double LockMock::getLoopTime() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLoopTime;
}

void LockMock::setLoopTime(double aTime) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLoopTime = aTime;
}

double LockMock::getLoopFilter() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLoopFilter;
}

void LockMock::setLoopFilter(double aFilter) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLoopFilter = aFilter;
}

bool LockMock::getLockLost() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return false;
}

double LockMock::getLockPhase() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLockPhase;
}

void LockMock::setLockPhase(double aPhase) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLockPhase = aPhase;
}

double LockMock::getLockPower() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLockPower;
}

void LockMock::setLockPower(double aPower) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLockPower = aPower;
}

double LockMock::getLockGain() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLockGain;
}

void LockMock::setLockGain(double aGain) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLockGain = aGain;
}

int LockMock::getLockPIDSet() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mLockPIDSet;
}

void LockMock::setLockPIDSet(int aPIDSet) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mLockPIDSet = aPIDSet;
}

double LockMock::getLockLevel() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return 0.0;
}

int LockMock::getAutoLockBehavior() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return 0;
}

int LockMock::getAdditionalLockPeaks() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    return mAdditionalLockPeaks;
}

void LockMock::setAdditionalLockPeaks(int aPeaks) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mAdditionalLockPeaks = aPeaks;
}

void LockMock::setListener(LockInterfaceListener* aListener) {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mListener = aListener;
}

void LockMock::removeListener() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    mListener = nullptr;
}

std::string LockMock::warnings() const {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    std::lock_guard const lock(mTextMutex);
    return mWarnings;
}

std::string LockMock::criticalWarnings() const {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
    std::lock_guard const lock(mTextMutex);
    return mCriticalWarnings;
}

void LockMock::resetLockLost() {
    keplaDoLog(Severity::Info, "+%s", {}, __func__);
}
