// SPDX-License-Identifier: Apache-2.0
// Remembers that the lock was lost until somebody has taken note.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

class LockListenerSync;

/// The latched state of a lost lock: 0 not locked since the last reset, 2 locked ever since, 1 locked and
/// lost. Changes are told to the listener, in their order. Any thread.
class LockLost {
public:
    /// @param aListener  Hears every change.
    explicit LockLost(std::shared_ptr<LockListenerSync> aListener);

    /// Takes the present state of the lock.
    /// @param aValue  1 when locked.
    void push(int aValue);

    /// Takes note: begins anew with the present state of the lock.
    void reset();

    /// @return The latched state.
    int state() const;

private:
    void change(int aState);
    void notify();

    std::mutex mMutex;
    std::shared_ptr<LockListenerSync> const mListener;
    std::atomic<int> mState{0};
    int mLast = 0;
};
