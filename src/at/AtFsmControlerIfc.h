// SPDX-License-Identifier: Apache-2.0
// Where the caller of a sample transfer meets the state machine of the adjustable temperature.
#pragma once

/// The rendezvous of one caller with the machine. Any thread.
class AtFsmControlerIfc {
public:
    virtual ~AtFsmControlerIfc() = default;

    /// Forgets a former verdict; comes before the request.
    virtual void resetPrepareOrCompleteTransfer() = 0;

    /// Gives the verdict. Never blocks.
    /// @param aSuccess  Whether the request was fulfilled.
    virtual void resultPrepareOrCompleteTransfer(bool aSuccess) = 0;

    /// Waits for the verdict, 10 s at most.
    /// @return The verdict; false when there is none in time.
    virtual bool waitForCompleteOrPrepareTransfer() = 0;
};
