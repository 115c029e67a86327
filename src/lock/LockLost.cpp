// SPDX-License-Identifier: Apache-2.0
// How a lost lock is latched.
#include "lock/LockLost.h"

#include "lock/LockListenerSync.h"

#include <utility>

namespace {

constexpr int kNotLocked = 0; ///< Since the last reset.
constexpr int kLost = 1;
constexpr int kLocked = 2;

} // namespace

LockLost::LockLost(std::shared_ptr<LockListenerSync> aListener)
    : mListener(std::move(aListener)) {}

void LockLost::push(int aValue) {
    std::lock_guard const lock(mMutex);
    mLast = aValue;
    bool const locked = aValue == 1;
    if (mState == kNotLocked && locked) {
        change(kLocked);
    } else if (mState == kLocked && !locked) {
        change(kLost);
    }
}

void LockLost::reset() {
    std::lock_guard const lock(mMutex);
    change(mLast == 1 ? kLocked : kNotLocked);
}

int LockLost::state() const {
    return mState;
}

void LockLost::change(int aState) {
    if (mState.exchange(aState) != aState) {
        notify();
    }
}

// Under the mutex, so that the listener hears the changes in their order.
void LockLost::notify() {
    mListener->lost(mState);
}
