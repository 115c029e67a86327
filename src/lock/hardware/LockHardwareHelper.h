// SPDX-License-Identifier: Apache-2.0
// The sequences on the lock sequencer that the lock needs again and again.
#pragma once

#include "lock/hardware/LockHardwareIRQ.h"
#include "lock/hardware/LockHardwareInterface.h"

#include <velmor/kepla/log/Logger.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace velmor::kepla::datalogger {
class DataLoggerInterface;
}

/// The interrupt sources of the sequencer, in their order: ROW(accessor, accessor of the mask, accessor of
/// the status).
// clang-format off
#define LOCK_INTERRUPTS(ROW) \
    ROW(irqAdcPllUnlocked, irqMaskAdcPllUnlocked, statusAdcPllUnlocked) \
    ROW(irqPllDdsUnlocked, irqMaskPllDdsUnlocked, statusPllDdsUnlocked) \
    ROW(irqPllDdsProfileUpdateBusyError, irqMaskPllDdsProfileUpdateBusyError, statusPllDdsProfileUpdateBusyError) \
    ROW(irqPllDdsIoUpdateError, irqMaskPllDdsIoUpdateBusyError, statusPllDdsIoUpdateBusyError) \
    ROW(irqDcCompOutOfRange, irqMaskDcCompOutOfRange, statusDcCompOutOfRange) \
    ROW(irqSeqInstrMemAccessError, irqMaskSeqInstrMemAccessError, statusSeqInstrMemeAccessError) \
    ROW(irqSeqError, irqMaskSeqError, statusSeqError) \
    ROW(irqPidOverflow, irqMaskPidOveflow, statusPidOverflow) \
    ROW(irqFidOverflow, irqMaskFidOverflow, statusFidOverflow) \
    ROW(irqFidDone, irqMaskFidDone, statusFidDone)
// clang-format on

/// Reset, interrupts, FID presence and checks. Making one touches no hardware.
///
/// Nothing is locked; the lock's state machine is the one regular user. What the registers throw passes
/// through every operation.
class LockHardwareHelper : private virtual velmor::kepla::log::Logger {
public:
    /// How long the end of an acquisition is waited for; it takes some 30 ms.
    static constexpr std::chrono::milliseconds kLongestAcquisition{1000};

    LockHardwareHelper(std::shared_ptr<LockHardwareInterface> aHardware,
                       std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> aDataLogger);

    /// Brings the sequencer to its idle state: clock off, interrupts masked and cleared, transmitter off, H0
    /// output at 0, regulator and streams off. Blocks for the register accesses.
    void reset();

    /// Sets the H0 output to 0 from the data register.
    void setLockDACToZero();

    /// @return Whether the spectrum's largest magnitude reaches the threshold of the present CIC shift.
    bool hasFID() const;

    /// Waits for an acquisition, one second at the most.
    /// @return Whether there is an FID; one that overflows counts.
    bool testIfFID() const;

    /// Waits for an acquisition with an FID, one second at the most.
    /// @param aContext  What it is wanted for, for the words of a failure.
    /// @throws std::runtime_error  when there is no acquisition, or no FID in it.
    /// @throws std::out_of_range   when the FID overflows; callers treat that apart.
    void waitForFID(std::string const& aContext) const;

    /// @param aStream  Takes a line for each status that says that the sequencer cannot work.
    /// @return Whether there is none.
    bool checkReadyToWork(std::ostream& aStream);

    /// Clears and masks all interrupts.
    void maskClearCheckIRQs();

    /// Writes a line for each register.
    void dumpRegisters(std::ostream& aStream);

    /// @return The names of the interrupts whose status is set, with ", " between them.
    std::string activeIRQsAsString() const;

    /// @param aValue  A value of the H0 DAC, -8388608 to 8388607.
    /// @return The word that writes it: the DAC's write command with 24 bits in two's complement.
    static std::uint32_t intToDAC(int aValue);

    std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> datalogger() const { return mDataLogger; }
    /// @return Every register of the sequencer.
    std::vector<std::shared_ptr<LockHardwareRegisterBase>> const& registers() const { return mRegisters; }
    /// @return The ten interrupts.
    std::vector<std::shared_ptr<LockHardwareIRQ>> const& irqs() const { return mIrqs; }
    /// @return The masks of the ten interrupts.
    std::vector<std::shared_ptr<LockHardwareRegister<bool>>> const& irqMaskRegisters() const {
        return mIrqMaskRegisters;
    }

#define LOCK_INTERRUPT_ACCESSOR(accessor, mask, status) \
    std::shared_ptr<LockHardwareIRQ> accessor() const { \
        return m_##accessor;                            \
    }
    LOCK_INTERRUPTS(LOCK_INTERRUPT_ACCESSOR)
#undef LOCK_INTERRUPT_ACCESSOR

private:
    void resetPid();
    void resetFred();
    void takeStreamControl();
    void enforceUntouchedBits();

    std::shared_ptr<LockHardwareInterface> mHardware;
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> mDataLogger;
    // NOLINTBEGIN(readability-identifier-naming): named after their accessors
#define LOCK_INTERRUPT_MEMBER(accessor, mask, status) std::shared_ptr<LockHardwareIRQ> m_##accessor;
    LOCK_INTERRUPTS(LOCK_INTERRUPT_MEMBER)
#undef LOCK_INTERRUPT_MEMBER
    // NOLINTEND(readability-identifier-naming)
    std::vector<std::shared_ptr<LockHardwareIRQ>> mIrqs;
    std::vector<std::shared_ptr<LockHardwareRegisterBase>> mRegisters;
    std::vector<std::shared_ptr<LockHardwareRegister<bool>>> mIrqMaskRegisters;
    std::uint32_t const mDacZero;
};
