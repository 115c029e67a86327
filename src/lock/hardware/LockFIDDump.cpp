// SPDX-License-Identifier: Apache-2.0
// Where a block of the FID comes from.
#include "lock/hardware/LockFIDDump.h"

#include "lock/hardware/LockHardwareInterface.h"

#include <utility>

LockFIDDump::LockFIDDump(std::shared_ptr<LockHardwareInterface> aHardware,
                         std::shared_ptr<SeqlockDriver> const& aDriver)
    : Logger("LockFIDDump", "Lock")
    , LockDumpBase(std::move(aHardware), "/dev/lock_dma_td", "fid", 0x80000, aDriver) {}

void LockFIDDump::trigger() {
    hardware()->singleTdTransfer()->set(true);
}
