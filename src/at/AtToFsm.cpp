// SPDX-License-Identifier: Apache-2.0
// Waits for the verdict and gives it.
#include "at/AtToFsm.h"

#include <velmor/platform/Clock.h>

#include <algorithm>
#include <chrono>

using velmor::kepla::log::Severity;
using velmor::platform::Clock;

namespace {

constexpr std::chrono::seconds kLongestWait{10};

/// A verdict that comes between a waiter's look and its sleep wakes nobody, as it is given without the mutex.
/// The waiter looks again that soon.
constexpr std::chrono::milliseconds kLookAgain{100};

} // namespace

AtToFsm::AtToFsm()
    : Logger("AtToFsm", "Temperature")
    , mClock(Clock::current()) {}

void AtToFsm::resetPrepareOrCompleteTransfer() {
    keplaDoLog(Severity::Trace, "+resetPrepareOrCompleteTransfer", {});
    mDone = false;
    mSuccess = false;
}

void AtToFsm::resultPrepareOrCompleteTransfer(bool aSuccess) {
    keplaDoLog(Severity::Trace, "+resultPrepareOrCompleteTransfer(aSuccess = %d)", {}, aSuccess);
    mSuccess = aSuccess;
    mDone = true;
    mCondition.notify_all();
}

bool AtToFsm::waitForCompleteOrPrepareTransfer() {
    keplaDoLog(Severity::Trace, "+waitPrepareOrCompleteTransfer", {});
    if (!mDone) {
        keplaDoLog(Severity::Trace, "~waitPrepareOrCompleteTransfer: waiting", {});
        waitUntilDone();
    }
    bool const success = mSuccess;
    keplaDoLog(Severity::Trace, "-waitPrepareOrCompleteTransfer: returns %d", {}, success);
    return success;
}

void AtToFsm::waitUntilDone() {
    std::unique_lock lock(mMutex);
    Clock::TimePoint const deadline = mClock.now() + kLongestWait;
    for (Clock::TimePoint now = mClock.now(); !mDone && now < deadline; now = mClock.now()) {
        mClock.waitUntil(mCondition, lock, std::min<Clock::TimePoint>(deadline, now + kLookAgain));
    }
    if (!mDone) {
        keplaDoLog(Severity::Error,
                   "-waitPrepareOrCompleteTransfer: time out waiting for transfer to be done", {});
    }
}
