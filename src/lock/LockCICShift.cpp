// SPDX-License-Identifier: Apache-2.0
// Finds the largest gain of the sequencer's decimation filter at which the lock's FID does not overflow.
#include "lock/LockCICShift.h"

#include "lock/hardware/LockHardwareHelper.h"
#include "lock/hardware/LockHardwareInterface.h"

#include <velmor/kepla/datalogger/DataLoggerInterface.h>
#include <velmor/platform/Clock.h>

#include <bit>
#include <chrono>
#include <stdexcept>
#include <utility>

using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::log::Severity;

namespace {

using namespace std::chrono_literals;

constexpr std::uint8_t kInitialShift = 6;
constexpr int kWantedBitOfPeak = 29; ///< Two bits of headroom under the sign of a 32-bit word.
constexpr unsigned int kGreatestShift = 31;
constexpr unsigned int kCleanAcquisitions = 10;

} // namespace

LockCICShift::LockCICShift(std::shared_ptr<LockHardwareInterface> aHardware,
                           std::shared_ptr<LockHardwareHelper> aHelper,
                           std::shared_ptr<libfieldwarden::lock::LockEndRequest const> aEnd)
    : Logger("LockCICShift", "Lock")
    , mHardware(std::move(aHardware))
    , mHelper(std::move(aHelper))
    , mChannelCicShift(mHelper->datalogger()->createChannel(
          DataLoggerChannelInfo({"lock", "cic_shift"},
                                DataLoggerUnit::Dimensionless,
                                DataLoggerStats::none(),
                                DataLoggerStorageType::LongTerm,
                                "CIC shift used to have maximal ADC resolution on the lock FID.")))
    , mEnd(std::move(aEnd)) {}

void LockCICShift::setInitial() {
    keplaDoLog(Severity::Info, "+setInitial", {});
    mHardware->fidShift()->set(kInitialShift);
}

void LockCICShift::setUp() {
    keplaDoLog(Severity::Info, "+setUp", {});
    // Intended: 0 is never tried, in spite of the words at the end.
    for (std::uint8_t shift = kInitialShift; shift != 0; --shift) {
        keplaDoLog(Severity::Debug, "~setUp: setting CIC shift to %d", {}, shift);
        mHardware->fidShift()->set(shift);
        mHardware->statusFidOverflow()->clear();
        for (unsigned int counter = 0; counter < 2; ++counter) {
            checkEnd();
            if (!mHelper->irqFidDone()->waitFor(LockHardwareHelper::kLongestAcquisition)) {
                keplaDoLog(Severity::Error, "~setUp: did not get FID done interrupt, counter = %u", {},
                           counter);
                throw std::runtime_error(
                    "Failed to start the lock. Please try again.\n"
                    "If the problem persists, contact Velmor Service");
            }
        }
        if (!mHelper->hasFID()) {
            keplaDoLog(Severity::Error, "~setUp: got FID interrupt but no FID has been detected", {});
            failWithoutFID();
        }
        if (!mHardware->statusFidOverflow()->get()) {
            keplaDoLog(Severity::Info, "~setUp: CIC shift %u got us an FID without overflow, set up DONE", {},
                       shift);
            push(shift);
            keplaDoLog(Severity::Info, "-setUp: using CIC shift %u", {}, shift);
            return;
        }
        keplaDoLog(Severity::Info,
                   "~setUp: FID overflow detected with CIC shift %u, reducing it and trying again", {},
                   shift);
    }
    push(0.0);
    keplaDoLog(Severity::Error, "Could not get rid of FID overflow even with CIC shift set to 0", {});
    throw std::out_of_range("Lock FID overflow even with lowest possible CIC shift");
}

void LockCICShift::optimize() {
    keplaDoLog(Severity::Info, "+optimize", {});
    std::uint8_t const start = mHardware->fidShift()->get();
    keplaDoLog(Severity::Debug, "~optimize: will start with a CIC shift of %u", {}, start);
    for (auto shift = static_cast<std::uint8_t>(shiftFromPeak(start)); shift != 0; --shift) {
        keplaDoLog(Severity::Info, "~optimize: using a CIC shift value of %u", {}, shift);
        mHardware->fidShift()->set(shift);
        if (cleanAcquisitions(shift) == kCleanAcquisitions) {
            // Intended: a success at the severity of a warning.
            keplaDoLog(Severity::Warning, "-optimize: CIC shift is now set to %u and no overflow detected.",
                       {}, shift);
            push(shift);
            return;
        }
    }
    push(0.0);
    keplaDoLog(Severity::Error, "-optimize: could not get rid of FID overflow even with lowest CIC shift",
               {});
    throw std::out_of_range("Failed to find a suitable CIC shift: FID always overflows");
}

/// The shift that brings the peak of the next acquisition to the wanted bit; the start's where that one
/// overflows.
unsigned int LockCICShift::shiftFromPeak(std::uint8_t aStart) {
    checkEnd();
    try {
        mHelper->waitForFID("lock CIC shift optimization");
    } catch (std::out_of_range const& error) {
        keplaDoLog(Severity::Error,
                   "Caught out of range exception: already in overflow, try to reduce it. Exception was: %s",
                   {}, error.what());
        return aStart;
    }
    std::int32_t const peak = mHardware->fidMaxSlice()->get();
    keplaDoLog(Severity::Info, "~optimize: got an FID max slice of %d", {}, peak);
    unsigned int const highestBit = fls(peak);
    keplaDoLog(Severity::Debug, "~optimize: which means mostSignificantBitIndex is %u", {}, highestBit);
    int const computed = kWantedBitOfPeak - static_cast<int>(highestBit) + aStart;
    if (static_cast<unsigned int>(computed) > kGreatestShift) {
        // Intended: it is told, and its low 8 bits are used all the same.
        keplaDoLog(Severity::Error,
                   "~optimize: computed shift is %d and this is out of [0..31] range. "
                   "mostSignificantBitIndex = %u, original shift is %u",
                   {}, computed, highestBit, aStart);
    }
    return static_cast<std::uint8_t>(computed);
}

/// Waits for acquisitions until one overflows or enough are clean.
/// @return How many were clean.
unsigned int LockCICShift::cleanAcquisitions(std::uint8_t aShift) {
    for (unsigned int good = 0; good < kCleanAcquisitions; ++good) {
        checkEnd();
        if (!mHelper->irqFidDone()->waitFor(LockHardwareHelper::kLongestAcquisition)) {
            keplaDoLog(Severity::Error, "~optimize: did not get FID done interrupt, counter = %u", {}, good);
            throw std::runtime_error("Lock set up: did not receive the FID done interrupt");
        }
        if (!mHelper->hasFID()) {
            keplaDoLog(Severity::Error, "~optimize: got FID interrupt but no FID has been detected", {});
            failWithoutFID();
        }
        if (mHardware->statusFidOverflow()->get()) { // Intended: it is not cleared here.
            keplaDoLog(Severity::Info,
                       "~optimize: FID overflow detected with CIC shift %u, reducing it and trying again", {},
                       aShift);
            return good;
        }
    }
    return kCleanAcquisitions;
}

void LockCICShift::failWithoutFID() {
    throw std::runtime_error("Lock set up: no FID found while setting the CIC shift up");
}

unsigned int LockCICShift::fls(int aValue) {
    auto const width = static_cast<unsigned int>(std::bit_width(static_cast<unsigned int>(aValue)));
    return width == 0 ? 0 : width - 1;
}

void LockCICShift::push(double aShift) {
    mChannelCicShift->push(aShift, velmor::platform::Clock::current().systemNow());
}

void LockCICShift::checkEnd() const {
    if (mEnd) {
        mEnd->check();
    }
}
