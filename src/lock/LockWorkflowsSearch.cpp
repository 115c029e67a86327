// SPDX-License-Identifier: Apache-2.0
// The searches of the lock signal: over the field, over the lock frequency, and toward 0 Hz.
#include "lock/LockCICShift.h"
#include "lock/LockFrequencyUtils.h"
#include "lock/LockParametersInterface.h"
#include "lock/LockWorkflows.h"
#include "lock/hardware/LockHardwareHelper.h"
#include "lock/hardware/LockHardwareInterface.h"

#include <fieldwarden/ShimForLockIfc.h>
#include <velmor/kepla/utils/PIDController.h>
#include <velmor/kepla/utils/SaturatedToInt32.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include <fmt/printf.h>

using velmor::kepla::log::Severity;
using velmor::kepla::utils::PIDController;
using velmor::kepla::utils::saturatedToInt32;

namespace {

using namespace std::chrono_literals;

constexpr auto kSynthesiserSettling = 150000ns;
constexpr auto kH0Settling = 100ms;

constexpr double kSliceWidthHz =
    0.51089; // Intended: a number of its own, a little less than the FFT's width.
constexpr double kWorkaroundHz = 75000000.0;
constexpr double kSearchStepHz = 2000.0;
constexpr double kScanStepHz = 1000.0;

constexpr int kLeastH0 = -8388608;
constexpr int kGreatestH0 = 8388607;
constexpr std::uint32_t kH0Bits = 0xFFFFFF;
constexpr std::array kH0Tries{0, 4194304, -4194305};

constexpr std::int16_t kNearZero = 10;
constexpr std::int16_t kRelaxedNearZero = 100;
constexpr auto kRelaxAfter = 60s;
constexpr auto kGiveUpAfter = 120s;

/// Intended: of 16 bits, so that the least position has a negative one.
std::int16_t absoluteIn16Bits(std::int16_t aValue) {
    return static_cast<std::int16_t>(std::abs(static_cast<int>(aValue)));
}

/// How many frequencies a walk tries: two for each offset below the limit.
unsigned int candidates(double aLimit, double aStep) {
    return aLimit > 0.0 ? 2U * static_cast<unsigned int>(saturatedToInt32(std::ceil(aLimit / aStep))) : 0U;
}

/// How near to 0 Hz the software regulator has to bring the FID. The demand loosens after a while.
class NearZero {
public:
    std::int16_t threshold() const { return mThreshold; }
    bool isMet(std::int16_t aPosition) const { return absoluteIn16Bits(aPosition) < mThreshold; }
    bool isRelaxedMost() const { return mThreshold >= kRelaxedNearZero; }
    bool isRelaxing() const { return mRelaxing; }
    void beginToRelax() { mRelaxing = true; }
    void relax() { ++mThreshold; }

private:
    std::int16_t mThreshold = kNearZero;
    bool mRelaxing = false;
};

} // namespace

double LockWorkflows::maxSlicePositionToFrequency(double position) const {
    return position * kSliceWidthHz;
}

double LockWorkflows::searchCenter19F() const {
    return LockFrequencyUtils::freq1Hto19F(mFieldSearchCenter1H, mParameters);
}

double LockWorkflows::searchHalfWidth19F() const {
    return LockFrequencyUtils::freq1Hto19F(mFieldSearchMax1H, mParameters) - searchCenter19F();
}

bool LockWorkflows::setLockFrequency(double frequencyHz) {
    keplaDoLog(Severity::Info, "Setting the lock frequency to %f HZ", {}, frequencyHz);
    mHardware->setTx(frequencyHz + mParameters->intermediateFrequencyInHz(),
                     mParameters->transmitAmplitude_mVpp());
    mClock.sleepFor(kSynthesiserSettling);
    if (mHardware->statusPllDdsUnlocked()->get()) {
        keplaDoLog(Severity::Trace,
                   "Lock PLL DDS unlocked after change of the lock frequency, wait a bit and recheck", {});
        mHardware->statusPllDdsUnlocked()->clear();
        mClock.sleepFor(kSynthesiserSettling);
    }
    if (mHardware->statusPllDdsUnlocked()->get()) {
        keplaDoLog(Severity::Error,
                   "Failed to set the lock frequency to %f Hz, PLL DDS is unlocked after the change", {},
                   frequencyHz);
        return false;
    }
    return true;
}

bool LockWorkflows::searchFid() {
    keplaDoLog(Severity::Info, "Searching for lock FID", {});
    bool found = false;
    unsigned int dumpCounter = 0;
    for (unsigned int index = 0; index < kH0Tries.size() && !found; ++index) {
        checkEnd();
        tell("Searching the lock signal", index, kH0Tries.size());
        found = isFIDAtH0(kH0Tries.at(index), dumpCounter);
    }
    keplaDoLog(Severity::Info, "-searchFid: fidFound = %d", {}, found);
    return found;
}

bool LockWorkflows::isFIDAtH0(int aH0, unsigned int& aDumpCounter) {
    std::uint32_t const word = LockHardwareHelper::intToDAC(aH0);
    keplaDoLog(Severity::Debug, "~searchFid tries value %d that translates to H0 DAC DATA REG = 0x%08X", {},
               aH0, word);
    mHardware->dacData()->set(word);
    mClock.sleepFor(kH0Settling);
    mHardware->statusFidOverflow()->clear();
    if (!mHelper->irqFidDone()->waitFor(LockHardwareHelper::kLongestAcquisition)) {
        keplaDoLog(Severity::Error, "~searchFid: did not get FID done interrupt.", {});
        throw std::runtime_error("Did not get a lock FID.");
    }
    if (mHardware->statusFidOverflow()->get()) {
        keplaDoLog(Severity::Info, "~searchFid: FID overflow, considering we found the FID", {});
        return true;
    }
    bool const found = mHelper->hasFID();
    mStreams->dumpFFTandFID(fmt::sprintf("2__searchFid__%u", aDumpCounter++));
    return found;
}

bool LockWorkflows::searchField_isFIDAtFrequency(double frequency19F) {
    checkEnd();
    keplaDoLog(Severity::Debug, "searchField_isFIDAtFrequency(_19fFreq = %fHz)", {}, frequency19F);
    if (!setLockFrequency(frequency19F)) {
        keplaDoLog(Severity::Warning, "Set lock Frequency workaround", {});
        bool const first = setLockFrequency(kWorkaroundHz);
        bool const second = setLockFrequency(frequency19F);
        keplaDoLog(Severity::Warning, "setLockFrequency workaround: 75MHz = %d, %fHz = %d", {}, first,
                   frequency19F, second); // Intended: neither decides anything.
    }
    std::ostringstream reason;
    if (!mHelper->checkReadyToWork(reason)) {
        keplaDoLog(Severity::Error, "Lock not ready to work after frequency change, reason: %s", {},
                   reason.str());
        throw std::runtime_error("LOCK IS NOT READY ANYMORE");
    }
    for (unsigned int done = 1; done <= 2; ++done) { // both see the new frequency
        checkEnd();
        (void)mHelper->irqFidDone()->waitFor(LockHardwareHelper::kLongestAcquisition);
        keplaDoLog(Severity::Debug, "~searchField_isFIDAtFrequency: %u acquisitions done", {}, done);
    }
    checkEnd();
    bool const found = mHelper->testIfFID();
    keplaDoLog(Severity::Debug, "-searchField_isFIDAtFrequency: %d", {}, found);
    return found;
}

double LockWorkflows::searchField() {
    double const center = searchCenter19F();
    double const limit = searchHalfWidth19F() - kSearchStepHz;
    mHelper->setLockDACToZero();
    unsigned int done = 0;
    for (unsigned int step = 0; limit > step * kSearchStepHz; ++step) {
        double const offset = step * kSearchStepHz;
        keplaDoLog(Severity::Debug, "searchField: offset is %f Hz", {}, offset);
        for (double const candidate : {center + offset, center - offset}) { // at 0 twice, as intended
            tell("Searching the field", done++, candidates(limit, kSearchStepHz));
            if (searchField_isFIDAtFrequency(candidate)) {
                keplaDoLog(Severity::Info, "Got a lock FID using frequency %fHz", {}, candidate);
                // Intended: the upper candidate is the base even when the lower one hit.
                double const frequency1H = lookAtPeak(center + offset).frequency1H;
                keplaDoLog(Severity::Info, "searchField: found signal at 1H frequency %fHz", {}, frequency1H);
                return frequency1H;
            }
        }
    }
    keplaDoLog(Severity::Critical, "searchField: no lock signal has been found", {});
    if (mShim->areAllShimZero()) {
        throw std::runtime_error(
            "No lock signal has been found.\n"
            "It might be due to all shim gradients currently being set to zero.\n\n"
            "Please load a shim file (ldshim) and try to lock again.");
    }
    throw std::runtime_error("No lock signal has been found.\nPlease contact Velmor service.");
}

int LockWorkflows::moveFIDFrequencyToZero() {
    auto const terms = mParameters->getToZeroPID();
    PIDController controller(terms->p(), terms->i(), terms->d(), kLeastH0, kGreatestH0);
    auto const begin = mClock.now();
    // Intended: without the sign, so that the pattern of a negative H0 is a large positive number.
    double pidOut = mHardware->dacData()->get() & kH0Bits;
    keplaDoLog(Severity::Info, "entering soft PID loop to move FID frequency to zero, initial H0 value = %f",
               {}, pidOut);
    NearZero nearZero;
    push(mChannelMaxSlicePosThreshold, nearZero.threshold());
    for (;;) {
        auto const elapsed = mClock.now() - begin;
        if (elapsed > kGiveUpAfter) {
            throw std::runtime_error("Could not move lock FID frequency near to zero");
        }
        tell("Moving the lock signal to 0 Hz",
             static_cast<unsigned int>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()),
             static_cast<unsigned int>(kGiveUpAfter.count()));
        awaitFIDForSoftPid(controller);
        std::int16_t const position = mHardware->maxSlicePosition()->get();
        keplaDoLog(Severity::Debug, "maxSlicePos = %d", {}, position);
        push(mChannelMaxSlicePos, position);
        if (nearZero.isMet(position)) {
            break;
        }
        pidOut = controller.calculate(0.0, position);
        std::uint32_t const word = LockHardwareHelper::intToDAC(static_cast<int>(std::lround(pidOut)));
        keplaDoLog(Severity::Debug, "soft PID out = %f, translates to H0 DAC DATA REG = 0x%08X", {}, pidOut,
                   word);
        mHardware->dacData()->set(word);

        if (nearZero.isRelaxedMost()) {
            continue;
        }
        if (!nearZero.isRelaxing()) {
            if (mClock.now() - begin > kRelaxAfter) {
                keplaDoLog(Severity::Warning, "start RELAXING the maxSlicePosition threshold, which is %d",
                           {}, nearZero.threshold());
                nearZero.beginToRelax();
            }
            continue;
        }
        nearZero.relax();
        if (nearZero.threshold() == kRelaxedNearZero) {
            keplaDoLog(Severity::Warning,
                       "end RELAXING the maxSlicePosition: reached relaxedThreshold that is %d", {},
                       nearZero.threshold());
        }
        keplaDoLog(Severity::Info, "currentThreshold for maxSlicePosition is now %d", {},
                   nearZero.threshold());
        push(mChannelMaxSlicePosThreshold, nearZero.threshold());
    }
    int const h0 = static_cast<int>(pidOut);
    keplaDoLog(Severity::Info, "maxSlicePos is now in the expected range, returning PID offset = %d", {}, h0);
    return h0;
}

/// Waits for the next FID of the software regulator. An overflow is mended by a smaller CIC shift, and the
/// regulator begins anew; no FID at all is taken for one, and the regulator goes on with the last position.
void LockWorkflows::awaitFIDForSoftPid(PIDController& aController) {
    for (;;) { // Intended: without a look at the time.
        checkEnd();
        try {
            mHelper->waitForFID("ensuring frequency of the lock FID is near zero: in the regulator loop");
            return;
        } catch (std::out_of_range const& error) {
            keplaDoLog(Severity::Error,
                       "moveFIDFrequencyToZero: caught and FID overflow, fixing it by running CIC shift "
                       "optimization routine. Error: %s",
                       {}, error.what());
            LockCICShift(mHardware, mHelper, mEnd).optimize();
            aController.reset();
        } catch (std::runtime_error const&) {
            // Intended: both numbers are fixed, nothing is counted.
            keplaDoLog(Severity::Error, "moveFIDFrequencyToZero: did not get an FID. Retry counter %u", {},
                       3);
            keplaDoLog(Severity::Info, "Ignoring this lock FID error, counter = %u", {}, 99);
            return;
        }
    }
}

/// What the last acquisition says, the lock being at a frequency.
LockFieldScanPoint LockWorkflows::lookAtPeak(double aBase19F) const {
    LockFieldScanPoint point;
    point.maxSlicePosition = mHardware->maxSlicePosition()->get();
    point.frequency19F = aBase19F + maxSlicePositionToFrequency(point.maxSlicePosition);
    point.frequency1H = LockFrequencyUtils::freq19Fto1H(point.frequency19F, mParameters);
    return point;
}

std::vector<LockFieldScanPoint> LockWorkflows::scanField() {
    // Ahead of the start, which reads the factor between 1H and 19F anew.
    double const center = searchCenter19F();
    double const limit = searchHalfWidth19F() - kScanStepHz;
    startForTests();
    mHelper->setLockDACToZero();
    keplaDoLog(Severity::Info, "Scanning field", {});
    std::vector<LockFieldScanPoint> points = findScanPoints(center, limit);
    LockCICShift cicShift(mHardware, mHelper, mEnd);
    for (unsigned int index = 0; index < points.size(); ++index) {
        tell("Measuring the signals that were found", index, static_cast<unsigned int>(points.size()));
        completeScanPoint(points[index], cicShift);
    }
    tell("Scanned", 1, 1);
    return points;
}

std::vector<LockFieldScanPoint> LockWorkflows::findScanPoints(double aCenter19F, double aLimit) {
    std::vector<LockFieldScanPoint> points;
    unsigned int done = 0;
    for (unsigned int step = 0; aLimit > step * kScanStepHz; ++step) {
        double const offset = step * kScanStepHz;
        for (double const candidate : {aCenter19F + offset, aCenter19F - offset}) {
            tell("Scanning the field", done++, candidates(aLimit, kScanStepHz));
            keplaDoLog(Severity::Info, "scanField: testing %f Hz", {}, candidate);
            bool const found = searchField_isFIDAtFrequency(candidate);
            if (found) {
                keplaDoLog(Severity::Info, "scanField: got a lock FID using frequency %fHz", {}, candidate);
                points.push_back(lookAtPeak(aCenter19F + offset)); // the upper one's, as in searchField()
                points.back().maxSliceMagnitude = static_cast<double>(mHardware->maxSliceMagnitude()->get());
            }
            keplaDoLog(Severity::Info, "scanField: dumping FFT for %f Hz", {}, candidate);
            mStreams->dumpFFTandFID(fmt::sprintf("scanField_%f_%d", candidate, found));
        }
    }
    return points;
}

void LockWorkflows::completeScanPoint(LockFieldScanPoint& aPoint, LockCICShift& aCicShift) {
    checkEnd();
    mHelper->setLockDACToZero();
    if (!setLockFrequency(aPoint.frequency19F)) {
        throw std::runtime_error("Failed to set the lock frequency");
    }
    aCicShift.setUp();
    aPoint.cicShiftAfterSetUp = mHardware->fidShift()->get();
    aCicShift.optimize();
    aPoint.cicShiftAfterOptimize = mHardware->fidShift()->get();
    // Intended: the 0 in the names is the same for every point.
    mStreams->dumpFFTandFID(fmt::sprintf("scanField_%u_before_moving_to_0", 0U));
    (void)moveFIDFrequencyToZero();
    mStreams->dumpFFTandFID(fmt::sprintf("scanField_%u_after_moving_to_0", 0U));
    aCicShift.optimize();
    aPoint.cicShiftAfterMovingToZero = mHardware->fidShift()->get();
    mStreams->dumpFFTandFID(fmt::sprintf("scanField_%u_after_moving_to_0_and_cic_optimized", 0U));
}
