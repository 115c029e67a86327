// SPDX-License-Identifier: Apache-2.0
// One interrupt source of the lock sequencer: its mask and its status.
#pragma once

#include "lock/hardware/LockHardwareInterface.h"

#include <velmor/kepla/log/Logger.h>

#include <chrono>
#include <memory>
#include <string>

/// A source of interrupts. It raises the interrupt line while its mask is 1; its status stays set until it is
/// cleared.
///
/// Not locked: two waits on one source at once would race for the mask.
class LockHardwareIRQ : private virtual velmor::kepla::log::Logger {
public:
    LockHardwareIRQ(std::shared_ptr<LockHardwareInterface> aHardware,
                    std::shared_ptr<LockHardwareRegister<bool>> aMask,
                    std::shared_ptr<LockHardwareRegisterClearable<bool>> aStatus);

    /// @return The name of the status register.
    std::string name() const;

    /// @return Whether the status is set.
    /// @throws std::invalid_argument  when the register cannot be read.
    bool isActive() const;

    /// Clears the status, then holds the source off the line.
    void reset();

    /// Clears the status, lets the source raise the line, and waits for it.
    /// @param aTimeout  The longest wait for each interrupt; a foreign one begins it anew until the time is
    /// up.
    /// @return Whether this source's interrupt came.
    /// @throws std::runtime_error  as LockHardwareInterface::waitForIRQ(); the mask is left as it is then.
    bool waitFor(std::chrono::milliseconds const& aTimeout);

private:
    bool waitForOwn(std::chrono::milliseconds const& aTimeout);

    std::shared_ptr<LockHardwareInterface> mHardware;
    std::shared_ptr<LockHardwareRegister<bool>> mMask;
    std::shared_ptr<LockHardwareRegisterClearable<bool>> mStatus;
};
