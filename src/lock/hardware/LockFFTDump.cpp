// SPDX-License-Identifier: Apache-2.0
// Where a block of the FFT comes from.
#include "lock/hardware/LockFFTDump.h"

#include "lock/hardware/LockHardwareInterface.h"

#include <utility>

LockFFTDump::LockFFTDump(std::shared_ptr<LockHardwareInterface> aHardware,
                         std::shared_ptr<SeqlockDriver> const& aDriver)
    : Logger("LockFFTDump", "Lock")
    , LockDumpBase(std::move(aHardware), "/dev/lock_dma_fd", "fft", 0x80000, aDriver) {}

void LockFFTDump::trigger() {
    hardware()->singleFdTransfer()->set(true);
}
