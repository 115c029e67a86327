// SPDX-License-Identifier: Apache-2.0
// Fetches one block of the FFT, the spectrum of the FID.
#pragma once

#include "lock/hardware/LockDumpBase.h"

/// The dump of the FFT, the spectrum of the FID. As LockDumpBase.
class LockFFTDump : private virtual velmor::kepla::log::Logger, public LockDumpBase {
public:
    /// @param aHardware  Triggers the transfer.
    /// @param aDriver    Opens the device.
    explicit LockFFTDump(std::shared_ptr<LockHardwareInterface> aHardware,
                         std::shared_ptr<SeqlockDriver> const& aDriver = SeqlockDriver::current());

protected:
    void trigger() override;
};
