// SPDX-License-Identifier: Apache-2.0
// The lock sequencer as all lock code sees it: transmitter, memories, interrupt, and a register object for
// each register.
#pragma once

#include "lock/hardware/LockHardwareEnums.h"
#include "lock/hardware/LockHardwareRegister.h"
#include "lock/hardware/LockRegisterTable.h"

#include <chrono>
#include <cstdint>
#include <istream>
#include <memory>
#include <string>

namespace libfieldwarden::lock {

/// The register types by the access words of the register table.
template <typename T>
using ReadOnlyRegister = LockHardwareRegisterReadOnly<T>;
template <typename T>
using ReadWriteRegister = LockHardwareRegister<T>;
template <typename T>
using ClearableRegister = LockHardwareRegisterClearable<T>;

} // namespace libfieldwarden::lock

/// The lock sequencer and the lock transmitter. The order of the virtual operations is fixed.
///
/// Any thread may call; nothing is locked, so that pairs of calls that belong together are the caller's to
/// keep together.
class LockHardwareInterface {
public:
    virtual ~LockHardwareInterface() = default;

    /// Sets the transmitter and switches it on.
    /// @param aFreqHz  Frequency in Hz, 0 to below 480 MHz.
    /// @param aMVpp    Amplitude in mV peak to peak.
    /// @throws std::runtime_error  when the main board cannot be reached.
    virtual void setTx(double aFreqHz, unsigned int aMVpp) = 0;

    /// @return The transmitter's frequency in Hz as the hardware has it, so in its steps of about 0.11 Hz.
    /// @throws std::runtime_error  when the main board cannot be reached.
    virtual double getTxFrequency() const = 0;

    /// Loads the sequencer's program.
    /// @param aPath  File with the image of the sequencer's memory.
    /// @throws std::runtime_error  when a file cannot be opened, or the sequencer refuses the program.
    virtual void loadProgram(std::string const& aPath) = 0;

    /// Loads the window that the FID is multiplied with. A failure is not told.
    /// @param aStream  The window's coefficients, binary.
    virtual void loadWindow(std::istream& aStream) = 0;

    /// Waits for the next interrupt of any source that is not masked.
    /// @param aTimeout  The longest wait.
    /// @return Whether one came. Which, the status registers tell.
    /// @throws std::runtime_error  when the notification file cannot be opened or waited for.
    virtual bool waitForIRQ(std::chrono::milliseconds const& aTimeout) = 0;

    // One accessor a register, each returning the register's object, as the register table lists them.
    // NOLINTBEGIN(bugprone-macro-parentheses): types, which cannot stand in parentheses
#define LOCK_REGISTER_ACCESSOR(accessor, path, access, type) \
    virtual std::shared_ptr<libfieldwarden::lock::access##Register<type>> accessor() const = 0;
    LOCK_REGISTERS(LOCK_REGISTER_ACCESSOR)
#undef LOCK_REGISTER_ACCESSOR
    // NOLINTEND(bugprone-macro-parentheses)
};
