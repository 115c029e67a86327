// SPDX-License-Identifier: Apache-2.0
// Start and stop of the lock.
#include "lock/LockWorkflows.h"

#include "lock/LockCICShift.h"
#include "lock/LockFrequencyUtils.h"
#include "lock/LockParametersHelper.h"
#include "lock/LockParametersInterface.h"
#include "lock/LockParametersPIDStaticSet.h"
#include "lock/LockWindow.h"
#include "lock/hardware/LockHardwareHelper.h"
#include "lock/hardware/LockHardwareInterface.h"

#include <fieldwarden/ShimForLockIfc.h>
#include <velmor/kepla/datalogger/DataLoggerInterface.h>
#include <velmor/kepla/utils/SaturatedToInt32.h>
#include <velmor/platform/Backend.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fmt/printf.h>

using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::log::Severity;
using velmor::kepla::utils::saturatedToInt32;

namespace {

using namespace std::chrono_literals;

constexpr unsigned int kAcquisitionsToWait = 16;
constexpr std::uint8_t kGroupDelay = 6;
constexpr std::uint8_t kPidOutputShift = 30;
constexpr std::uint8_t kPidInputShift = 7;
constexpr double kHertzInMegahertz = 1000000.0;
constexpr char const* kInstalledConfiguration = "/opt/panorin/conf/instr/spect/lock.config";

bool installedConfigurationExists() {
    std::error_code unreadable;
    return std::filesystem::exists(
        velmor::platform::Backend::current()->instrumentPath(kInstalledConfiguration), unreadable);
}

} // namespace

LockWorkflows::LockWorkflows(std::shared_ptr<LockHardwareInterface> aHardware,
                             std::shared_ptr<LockHardwareHelper> aHelper,
                             std::shared_ptr<LockParametersInterface> aParameters,
                             std::shared_ptr<libfieldwarden::lock::LockAcquisitionsIfc> aStreams,
                             std::shared_ptr<ShimForLockIfc> aShim)
    : Logger("LockWorkflows", "Lock")
    , mHardware(std::move(aHardware))
    , mHelper(std::move(aHelper))
    , mParameters(std::move(aParameters))
    , mStreams(std::move(aStreams))
    , mShim(std::move(aShim))
    , mChannelMaxSlicePos(
          makeChannel({"lock", "softpid", "MaxSlicePos"},
                      "MaxSlicePos value while trying to regulate it towards 0 using a software PID."))
    , mChannelMaxSlicePosThreshold(
          makeChannel({"lock", "softpid", "MaxSlicePosThreshold"},
                      "Value below which the lock FID is considered near enough to 0 "
                      "to start the hardware regulation."))
    , mChannelSlope0Crossing(makeChannel({"lock", "fftImgSlope0Crossing"},
                                         "Slope at 0 crossing of the imaginary part of the FFT"))
    , mChannelPTerm(makeChannel({"lock", "pid", "current", "p_term"}, "P term for the lock PID"))
    , mChannelITerm(makeChannel({"lock", "pid", "current", "i_term"}, "I term for the lock PID"))
    , mChannelDTerm(makeChannel({"lock", "pid", "current", "d_term"}, "D term for the lock PID"))
    , mClock(velmor::platform::Clock::current()) {}

LockWorkflows::ChannelPointer LockWorkflows::makeChannel(std::vector<std::string> aPath,
                                                         char const* aDescription) const {
    return mHelper->datalogger()->createChannel(
        DataLoggerChannelInfo(std::move(aPath), DataLoggerUnit::Dimensionless, DataLoggerStats::none(),
                              DataLoggerStorageType::LongTerm, aDescription));
}

void LockWorkflows::start() {
    startHardware();
    letSettle();
    if (!searchFid()) {
        searchFieldAndTellUser();
    }
    LockCICShift cicShift(mHardware, mHelper, mEnd);
    tell("Setting the CIC shift", 0, 1);
    cicShift.setUp();
    mStreams->dumpFFTandFID("3__start__cic__setUp");

    keplaDoLog(Severity::Debug, "~startLock: ensure FID frequency is around 0 Hz", {});
    int const h0Offset = moveFIDFrequencyToZero();
    mStreams->dumpFFTandFID("4__start__movedtozero");

    keplaDoLog(Severity::Debug, "~startLock: set output phase correction to time domain phase correction",
               {});
    mHardware->fidPhaseCorrection()->set(mHardware->phaseCorrection()->get());
    keplaDoLog(Severity::Debug, "~startLock: compute PID and locked threshold from slope at 0 crossing", {});
    awaitPhaseCorrection();

    keplaDoLog(Severity::Debug, "~startLock: optimize CIC shift", {});
    tell("Optimizing the CIC shift", 0, 1);
    cicShift.optimize();
    mStreams->dumpFFTandFID("5__start__cic__optimized");
    checkEnd();

    computePidFromSlope();
    LockParametersHelper(mParameters, mHelper->datalogger()).pushLockParametersToDataLogger();
    enableFred();
    startHardwarePid(h0Offset);
    mStreams->dumpFFTandFID("6__start__end");
    tell("Started", 1, 1);
}

void LockWorkflows::startForTests() {
    startHardware();
}

void LockWorkflows::startHardware() {
    checkEnd();
    tell("Setting the lock hardware up", 0, 1);
    keplaDoLog(Severity::Debug, "~startLock: reloading the override parameters file", {});
    mParameters->reload();
    keplaDoLog(Severity::Debug, "~startLock: reset the hardware to ensure we have a known state", {});
    mHelper->reset();

    double const frequency1H = mParameters->magnet1HFrequency();
    keplaDoLog(Severity::Debug, "~startLock: configure TX frequency and amplitude. Magnet 1H freq = %f Hz",
               {}, frequency1H);
    if (!setLockFrequency(LockFrequencyUtils::freq1Hto19F(frequency1H, mParameters))) {
        throw std::runtime_error("Failed to configure the lock's frequency");
    }
    keplaDoLog(Severity::Debug, "~startLock: set lock DAC to zero", {});
    mHelper->setLockDACToZero();
    keplaDoLog(Severity::Debug, "~startLock: load the window function", {});
    LockWindow(mHardware, mParameters).load(mParameters->fftZerosPadding());
    keplaDoLog(Severity::Debug, "~startLock: load the sequencer", {});
    mHardware->loadProgram(mParameters->firmwareRootPath() + "/memory.bin");
    mHardware->seqClockEnable()->set(true);
    mHardware->timeDomainSrc()->set(true);
    mHardware->streamControl()->set(LockHardwareStreamControl::Sequencer);

    keplaDoLog(Severity::Debug, "~startLock: set up group delay and initial CIC, then verify presence of FID",
               {});
    mHardware->fidGroupDelay()->set(kGroupDelay);
    LockCICShift(mHardware, mHelper, mEnd).setInitial();
    mStreams->dumpFFTandFID("start_1__cic_setInitial");
}

void LockWorkflows::stop() {
    keplaDoLog(Severity::Debug, "+stop", {});
    mHardware->seqClockEnable()->set(false);
    keplaDoLog(Severity::Debug, "-stopped", {});
}

void LockWorkflows::letSettle() {
    // Intended: the line says 8 acquisitions, and 16 are waited for.
    keplaDoLog(Severity::Info, "~start: waiting for 8 lock acquisitions to happen...", {});
    for (unsigned int done = 0; done < kAcquisitionsToWait; ++done) {
        checkEnd();
        tell("Letting the lock signal settle", done, kAcquisitionsToWait);
        keplaDoLog(Severity::Trace, "~start: %u lock acquisitions done", {}, done);
        if (!mHelper->irqFidDone()->waitFor(LockHardwareHelper::kLongestAcquisition)) {
            keplaDoLog(Severity::Error, "irqFidDone not raised within 1 second", {});
        }
    }
    keplaDoLog(Severity::Info, "~start: ...done waiting", {});
}

/// Looks for the frequency that would do, since there is no FID at the present one. It always ends with words
/// for the user.
void LockWorkflows::searchFieldAndTellUser() {
    if (mShim->areAllShimZero()) {
        keplaDoLog(Severity::Error,
                   "No lock FID found but all shim gradients are set to 0 --> user must load a shim file.\n"
                   "Won't search for the field because without shim being set we might find the wrong "
                   "frequency.",
                   {});
        throw std::runtime_error(
            "The lock signal could not be found.\n"
            "It might be due to all shim gradients currently being set to zero.\n\n"
            "Please load a shim file (ldshim) and try to lock again.");
    }
    keplaDoLog(Severity::Error, "No lock FID found: will now swipe through the frequency range to find it",
               {});
    std::string const message = adviceFor(searchField() / kHertzInMegahertz);
    mHelper->setLockDACToZero();
    keplaDoLog(Severity::Error, "User informed: %s", {}, message);
    throw std::runtime_error(message);
}

std::string LockWorkflows::adviceFor(double aFoundMHz) const {
    double const configured = mParameters->magnet1HFrequency();
    // Intended: MHz less Hz, so that a running system never comes in here.
    if (std::abs(aFoundMHz - configured) < 1000.0) {
        bool const exists = installedConfigurationExists();
        keplaDoLog(Severity::Warning,
                   "Found 1H frequency (%f Hz) is almost the same as configured frequency (%f Hz)."
                   "This typically means that the 1H to 19F conversion factor is wrong or missing."
                   "File /opt/panorin/conf/instr/spect/lock.config exists = %d",
                   {}, aFoundMHz, configured, exists);
        return fmt::sprintf(
            "The lock could not be started using the spectrometer frequency %.3f.\n\n%s"
            "Please try an cfgrevive of your spectrometer configuration and try again.",
            configured, exists ? "" : "A configuration file is missing.\n");
    }
    return fmt::sprintf("Please change your spectrometer frequency to %.3fMHz and try again", aFoundMHz);
}

void LockWorkflows::awaitPhaseCorrection() {
    for (unsigned int done = 0; done < kAcquisitionsToWait; ++done) {
        checkEnd();
        tell("Letting the phase correction settle", done, kAcquisitionsToWait);
        mHelper->waitForFID("awaiting few acquisitions to ensure phase correction is enabled");
    }
}

/// The steeper the error signal, the smaller the gain that the loop needs.
void LockWorkflows::computePidFromSlope() {
    tell("Measuring the slope at 0 Hz", 0, 1);
    double const slope = mStreams->fftSlopeAt0Crossing();
    double const iTerm = -5000000.0 / std::abs(slope); // a slope of 0 gives an infinite term
    double const lockedThreshold = 3000000.0 + 100.0 * std::abs(slope);
    keplaDoLog(Severity::Info,
               "~startLock: slope at FFT 0 crossing is %f, i_term = %f and locked_threshold = %f", {}, slope,
               iTerm, lockedThreshold);
    push(mChannelSlope0Crossing, slope);
    mParameters->setComputedPIDThreshold(lockedThreshold,
                                         std::make_shared<LockParametersPIDStaticSet>(0.0, 1.5 * iTerm, 0.0),
                                         std::make_shared<LockParametersPIDStaticSet>(0.0, 2.25 * iTerm, 0.0),
                                         std::make_shared<LockParametersPIDStaticSet>(0.0, iTerm, 0.0));
}

void LockWorkflows::enableFred() {
    keplaDoLog(Severity::Debug, "~startLock: enabling FRED", {});
    mHardware->fredOutputSelect()->set(LockHardwareFredSource::UsePolynom);
    mHardware->fredOutputClear()->set(false);
    mHardware->fredCoefOrder1()->set(static_cast<std::uint32_t>(
        LockFrequencyUtils::doubleToFredCoef(mParameters->fredCoefficientOrder1())));
    mHardware->fredCoefOrder2()->set(static_cast<std::uint32_t>(
        LockFrequencyUtils::doubleToFredCoef(mParameters->fredCoefficientOrder2())));
    mHardware->fredShift()->set(mParameters->fredOutputShift());
    mHardware->fredOutputEnable()->set(true);
}

void LockWorkflows::startHardwarePid(int aH0Offset) {
    keplaDoLog(Severity::Debug, "~startLock: starting PID", {});
    mHardware->pidOutputShift()->set(kPidOutputShift);
    mHardware->pidInputShift()->set(kPidInputShift);
    mHardware->pidOutputOffset()->set(aH0Offset);
    mHardware->dacConfMode()->set(LockHardwareDacConfMode::UsePIDOutput);

    std::int32_t const p = saturatedToInt32(mParameters->currentPID()->p());
    std::int32_t const i = saturatedToInt32(mParameters->currentPID()->i());
    std::int32_t const d = saturatedToInt32(mParameters->currentPID()->d());
    mHardware->pidDTerm()->set(d);
    mHardware->pidITerm()->set(i);
    mHardware->pidPTerm()->set(p);
    keplaDoLog(Severity::Debug, "~startLock: set P = %d, I = %d and D = %d", {}, p, i, d);
    push(mChannelPTerm, p);
    push(mChannelITerm, i);
    push(mChannelDTerm, d);
}

void LockWorkflows::requestEnd() noexcept {
    mEnd->request();
}

void LockWorkflows::setProgressObserver(libfieldwarden::lock::LockProgressObserver aObserver) {
    mProgress = std::move(aObserver);
}

void LockWorkflows::push(ChannelPointer const& aChannel, double aValue) const {
    aChannel->push(aValue, mClock.systemNow());
}

void LockWorkflows::checkEnd() const {
    mEnd->check();
}

void LockWorkflows::tell(std::string_view aStep, unsigned int aDone, unsigned int aTotal) const {
    if (mProgress) {
        mProgress({aStep, aDone, aTotal});
    }
}
