// SPDX-License-Identifier: Apache-2.0
// The lock's sequences on its sequencer.
#include "lock/hardware/LockHardwareHelper.h"

#include <velmor/kepla/utils/Bits.h>

#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>

using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::log::Severity;
using velmor::kepla::utils::Bits;

namespace {

/// What a DAC word must have for the DAC to take it.
constexpr std::uint32_t kDacWrite = 0x40000000U;
constexpr unsigned int kDacBits = 24;
/// The magnitude from which on there is an FID, at the CIC shift that it was taken for.
constexpr long long kFidThreshold = 0x3333333;
constexpr int kFidThresholdShift = 10;
constexpr int kLargestThresholdShift = 37; // the threshold has 26 bits of 63

} // namespace

LockHardwareHelper::LockHardwareHelper(std::shared_ptr<LockHardwareInterface> aHardware,
                                       std::shared_ptr<DataLoggerInterface> aDataLogger)
    : Logger("LockHardwareHelper", "Lock")
    , mHardware(std::move(aHardware))
    , mDataLogger(std::move(aDataLogger))
    , mDacZero(intToDAC(0)) {
#define LOCK_INTERRUPT_MADE(accessor, mask, status)                                                      \
    m_##accessor = std::make_shared<LockHardwareIRQ>(mHardware, mHardware->mask(), mHardware->status()); \
    mIrqs.push_back(m_##accessor);                                                                       \
    mIrqMaskRegisters.push_back(mHardware->mask());
    LOCK_INTERRUPTS(LOCK_INTERRUPT_MADE)
#undef LOCK_INTERRUPT_MADE
#define LOCK_REGISTER_LISTED(accessor, path, access, type) mRegisters.push_back(mHardware->accessor());
    LOCK_REGISTERS(LOCK_REGISTER_LISTED)
#undef LOCK_REGISTER_LISTED
}

std::uint32_t LockHardwareHelper::intToDAC(int aValue) {
    return Bits::two_complement(aValue, kDacBits) | kDacWrite;
}

// --- idle state

void LockHardwareHelper::reset() {
    keplaDoLog(Severity::Debug, "+reset", {});
    keplaDoLog(Severity::Debug, "~reset: ensure sequencer clock are disabled", {});
    mHardware->seqClockEnable()->set(false);

    keplaDoLog(Severity::Debug, "~reset: mask all interrupts sources and clear them", {});
    maskClearCheckIRQs();

    keplaDoLog(Severity::Debug, "~reset: toggle main reset", {});
    mHardware->mainReset()->set(true);
    mHardware->mainReset()->set(false);

    keplaDoLog(Severity::Debug, "~reset: clear status registers after main reset", {});
    mHardware->statusFirReady()->clear();
    mHardware->statusDacConfReady()->clear();
    mHardware->statusErrorAddress()->clear();
    mHardware->statusSeqErrorCode()->clear();
    mHardware->statusFdError()->clear();

    keplaDoLog(Severity::Debug, "~reset: set TX amplitude and frequency to zero", {});
    mHardware->setTx(0.0, 0);

    keplaDoLog(Severity::Debug, "~reset: set H0 output to zero", {});
    setLockDACToZero();

    keplaDoLog(Severity::Debug, "~reset: set triggers (in/out) to low", {});
    mHardware->triggerIn()->set(false);
    mHardware->triggerOut()->set(false);

    keplaDoLog(Severity::Debug, "~reset: set all PIDs parameters to zero and clear it", {});
    resetPid();

    keplaDoLog(Severity::Debug, "~reset: disable and clear FRED output", {});
    resetFred();

    keplaDoLog(Severity::Debug, "~reset: give streaming control to the registers and disable all", {});
    takeStreamControl();

    keplaDoLog(Severity::Debug, "~reset: enforce some control bits that are never touched", {});
    enforceUntouchedBits();
    keplaDoLog(Severity::Debug, "-reset", {});
}

void LockHardwareHelper::resetPid() {
    mHardware->pidDTerm()->set(0);
    mHardware->pidITerm()->set(0);
    mHardware->pidPTerm()->set(0);
    mHardware->pidDerivativeOrder()->set(0);
    mHardware->pidSetPoint()->set(0);
    mHardware->pidInputShift()->set(0);
    mHardware->pidOutputShift()->set(0);
    mHardware->pidEnableScaler()->set(false);
    mHardware->pidOutputOffset()->set(0);
    mHardware->pidControlClear()->set(true);
    mHardware->pidControlClear()->set(false);
}

void LockHardwareHelper::resetFred() {
    mHardware->fredOutputEnable()->set(false);
    mHardware->fredOffset()->set(0);
    mHardware->fredCoefOrder1()->set(0);
    mHardware->fredCoefOrder2()->set(0);
    mHardware->fredShift()->set(0);
    mHardware->fredOutputSelect()->set(LockHardwareFredSource::UseDataReg);
    mHardware->fredOutputClear()->set(true);
    mHardware->fredOutputClear()->set(false);
}

void LockHardwareHelper::takeStreamControl() {
    mHardware->streamControl()->set(LockHardwareStreamControl::Registers);
    mHardware->fftItfEnable()->set(false);
    mHardware->pidItfEnable()->set(false);
    mHardware->timeDomainItf()->set(false);
    mHardware->fidPhaseCorrection()->set(0);
}

void LockHardwareHelper::enforceUntouchedBits() {
    mHardware->meanAverageControlByPass()->set(false);
    mHardware->fixedAverageControlByPass()->set(false);
    mHardware->windowDisable()->set(false);
    mHardware->phaseCorrectionByPass()->set(false);
    mHardware->lockWindowTest()->set(false);
    mHardware->seqIrqTestEnable()->set(false);
    mHardware->tdStreamNoWait()->set(false);
}

void LockHardwareHelper::setLockDACToZero() {
    keplaDoLog(Severity::Info, "+setLockDACToZero", {});
    mHardware->dacConfMode()->set(LockHardwareDacConfMode::UseDataReg);
    mHardware->dacData()->set(mDacZero);
    mHardware->noUseDac()->set(false);
}

void LockHardwareHelper::maskClearCheckIRQs() {
    for (auto const& irq : mIrqs) {
        irq->reset();
    }
}

// --- the FID

bool LockHardwareHelper::hasFID() const {
    std::uint8_t const cicShift = mHardware->fidShift()->get();
    long long threshold = kFidThreshold;
    keplaDoLog(Severity::Trace, "Initial threshold is %lld", {}, threshold);
    int const shift = cicShift - kFidThresholdShift;
    if (shift > kLargestThresholdShift) { // the register may hold more than the hardware can shift
        threshold = std::numeric_limits<long long>::max();
    } else if (shift > 0) {
        threshold <<= shift;
    } else if (shift < 0) {
        threshold >>= -shift;
    }
    keplaDoLog(Severity::Trace,
               "hadFID: CIC shift is %u, shift is %d, threshold for FID detection is now %lld", {}, cicShift,
               shift, threshold);
    long long const magnitude = mHardware->maxSliceMagnitude()->get();
    bool const has = magnitude >= threshold;
    keplaDoLog(Severity::Trace,
               "hasFID: got a maxSliceMagnitude of %lld while threshold for FID presence is %lld. Will "
               "return %d",
               {}, magnitude, threshold, static_cast<int>(has));
    return has;
}

bool LockHardwareHelper::testIfFID() const {
    keplaDoLog(Severity::Trace, "+testIfFID", {});
    mHardware->statusFidOverflow()->clear();
    if (!irqFidDone()->waitFor(kLongestAcquisition)) {
        keplaDoLog(Severity::Error, "~testIfFID: did not get FID done interrupt", {});
        return false;
    }
    if (mHardware->statusFidOverflow()->get()) {
        keplaDoLog(Severity::Error, "~testIfFID: got and FID overflow, considering this is an FID", {});
        return true;
    }
    return hasFID();
}

void LockHardwareHelper::waitForFID(std::string const& aContext) const {
    keplaDoLog(Severity::Trace, "+waitForFID(context = %s)", {}, aContext);
    mHardware->statusFidOverflow()->clear();
    if (!irqFidDone()->waitFor(kLongestAcquisition)) {
        keplaDoLog(Severity::Error, "~waitForFID: did not get FID done interrupt. Context = %s", {},
                   aContext);
        throw std::runtime_error("Did not get a lock FID in time. Context is " + aContext);
    }
    if (mHardware->statusFidOverflow()->get()) {
        keplaDoLog(Severity::Error, "~waitForFID: got and FID overflow. Context = %s", {}, aContext);
        throw std::out_of_range("Lock FID overflow. Context is " + aContext);
    }
    if (!hasFID()) {
        keplaDoLog(Severity::Error,
                   "~waitForFID: got FID done interrupt, but hasFID() is false. Context = %s", {}, aContext);
        throw std::runtime_error("Did not get a lock FID. Context is " + aContext);
    }
}

// --- checks

bool LockHardwareHelper::checkReadyToWork(std::ostream& aStream) {
    bool ready = true;
    auto const check = [&](auto const& aStatus, auto const& aTell) {
        if (aStatus->get()) {
            aTell();
            aStream << '\n';
            ready = false;
        }
    };
    auto const words = [&](char const* aWords) { return [&aStream, aWords] { aStream << aWords; }; };
    check(mHardware->statusAdcPllUnlocked(), words("ADC PLL is UNLOCKED"));
    check(mHardware->statusPllDdsUnlocked(), words("PLL DDS is UNLOCKED"));
    check(mHardware->statusPllDdsProfileUpdateBusyError(), words("PLL DDS profile update busy error"));
    check(mHardware->statusPllDdsIoUpdateBusyError(), words("PLL DDS IO update busy error"));
    check(mHardware->statusDcCompOutOfRange(), words("DC comp out of range"));
    check(mHardware->statusSeqInstrMemeAccessError(), words("sequency instruction memory access error"));
    check(mHardware->statusSeqError(), [&] {
        aStream << "sequencer error is " << static_cast<unsigned int>(mHardware->statusSeqErrorCode()->get());
    });
    return ready;
}

std::string LockHardwareHelper::activeIRQsAsString() const {
    std::string names;
    for (auto const& irq : mIrqs) {
        if (irq->isActive()) {
            names += (names.empty() ? "" : ", ") + irq->name();
        }
    }
    return names;
}

void LockHardwareHelper::dumpRegisters(std::ostream& aStream) {
    keplaDoLog(Severity::Debug, "+dumpRegisters", {});
    for (auto const& each : mRegisters) {
        keplaDoLog(Severity::Debug, "dumping register %s", {}, each->name);
        each->dump(aStream);
        aStream << '\n';
    }
    keplaDoLog(Severity::Debug, "-dumpRegisters", {});
}
