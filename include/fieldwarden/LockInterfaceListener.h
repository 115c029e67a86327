// SPDX-License-Identifier: Apache-2.0
// What the daemon implements to hear of the lock.
#pragma once

#include <string>

#include <fieldwarden/Export.h>

/// Implemented by the daemon, called by the lock. Calls come one at a time, from the state machine's thread,
/// the data stream's thread or a caller of LockInterface, and with a lock held: be quick, hand the news on,
/// and never call LockInterface operations that notify (start, stop, PID set, listener) from in here, since
/// they would wait for this very call. The order of the operations is fixed.
class FIELDWARDEN_API LockInterfaceListener {
public:
    virtual ~LockInterfaceListener() = default;

    /// An operation of the lock failed.
    /// @param aText what happened, in words for the user.
    /// Thread: state machine.
    virtual void error(std::string const& aText) = 0;

    /// LockInterface::warnings() or criticalWarnings() now read differently; ask them, from another thread.
    /// Thread: data stream; with the mock lock its poll thread.
    virtual void warningsChanged() = 0;

    /// Progress of the running lock operation.
    /// @param aText what the lock is doing, in words for the user, "locked" for example.
    /// Thread: state machine, data stream, or a caller of startLock() or stopLock().
    virtual void doing(std::string const& aText) = 0;

    /// The status of the lock changed. A new listener is not told the present one.
    /// @param aStatus 0 stopped, 1 locked, 2 running and not locked, 6 error.
    /// Thread: state machine or data stream.
    virtual void state(int aStatus) = 0;

    /// Another PID set was chosen.
    /// @param aPIDSet number of the set, see LockPIDSetID.
    /// Thread: the caller of LockInterface::setLockPIDSet().
    virtual void updateLockPIDSet(int aPIDSet) = 0;

    /// The lock-lost indication changed.
    /// @param aStatus 0 not locked since the last reset, 1 was locked and lost it, 2 locked ever since.
    /// Thread: data stream, or the caller of startLock() or resetLockLost().
    virtual void lost(int aStatus) = 0;
};
