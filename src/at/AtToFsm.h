// SPDX-License-Identifier: Apache-2.0
// The rendezvous by which the caller of a sample transfer waits for the verdict of the state machine.
#pragma once

#include "at/AtFsmControlerIfc.h"

#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace velmor::platform {
class Clock;
}

/// See AtFsmControlerIfc.
class AtToFsm : public AtFsmControlerIfc, private virtual velmor::kepla::log::Logger {
public:
    AtToFsm();

    void resetPrepareOrCompleteTransfer() override;
    void resultPrepareOrCompleteTransfer(bool aSuccess) override;
    bool waitForCompleteOrPrepareTransfer() override;

private:
    void waitUntilDone();

    velmor::platform::Clock& mClock;
    std::mutex mMutex; ///< Of the waiters alone: the one who gives the verdict never waits for them.
    std::atomic<bool> mDone{false};
    std::atomic<bool> mSuccess{false};
    std::condition_variable mCondition;
};
