// SPDX-License-Identifier: Apache-2.0
// Fetches one block of the FID, the signal in time.
#pragma once

#include "lock/hardware/LockDumpBase.h"

/// The dump of the FID, the signal in time. As LockDumpBase.
class LockFIDDump : private virtual velmor::kepla::log::Logger, public LockDumpBase {
public:
    /// @param aHardware  Triggers the transfer.
    /// @param aDriver    Opens the device.
    explicit LockFIDDump(std::shared_ptr<LockHardwareInterface> aHardware,
                         std::shared_ptr<SeqlockDriver> const& aDriver = SeqlockDriver::current());

protected:
    void trigger() override;
};
