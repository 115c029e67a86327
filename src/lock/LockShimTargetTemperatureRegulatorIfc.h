// SPDX-License-Identifier: Apache-2.0
// The regulator of the shim coil target temperature as the streams of the lock see it.
#pragma once

/// Fed with every output of the lock's PID, from the thread of the PID stream. The order of the virtual
/// operations is fixed.
class LockShimTargetTemperatureRegulatorIfc {
public:
    virtual ~LockShimTargetTemperatureRegulatorIfc() = default;

    /// Starts, or goes on where it was paused.
    virtual void start() = 0;
    /// Ends; the next start begins afresh.
    virtual void stop() = 0;
    /// The lock has been lost for a while.
    virtual void pause() = 0;
    /// @param aPidDataOut  Output of the lock's PID in counts of the H0 DAC.
    virtual void pushLockPIDDataOut(int aPidDataOut) = 0;
    /// @return Whether it regulates. Any thread.
    virtual bool armed() const = 0;
};
