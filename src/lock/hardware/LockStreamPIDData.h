// SPDX-License-Identifier: Apache-2.0
// One record of the running lock's PID stream.
#pragma once

#include <velmor/kepla/log/Logger.h>

/// What the hardware's regulator took in and gave out in one cycle of the lock. Never changes; any thread.
class LockStreamPIDData : private velmor::kepla::log::Logger {
public:
    /// @param aMaxSlice    Index of the FFT's strongest slice.
    /// @param aPidDataOut  Output of the regulator, in counts of the H0 DAC.
    /// @param aPidDataIn   Input of the regulator, the error signal, in counts.
    /// @param aPhase       Phase of the lock signal, as the sequencer computes it.
    LockStreamPIDData(unsigned short aMaxSlice, int aPidDataOut, long long aPidDataIn, double aPhase)
        : Logger("LockStreamPIDData", "Lock")
        , mMaxSlice(aMaxSlice)
        , mPidDataOut(aPidDataOut)
        , mPidDataIn(aPidDataIn)
        , mPhase(aPhase) {}

    unsigned short maxSlice() const noexcept { return mMaxSlice; }
    int pidDataOut() const noexcept { return mPidDataOut; }
    long long pidDataIn() const noexcept { return mPidDataIn; }
    double phase() const noexcept { return mPhase; }

private:
    unsigned short mMaxSlice;
    int mPidDataOut;
    long long mPidDataIn;
    double mPhase;
};
