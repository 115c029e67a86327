// SPDX-License-Identifier: Apache-2.0
// The queue of PID records as the supervision of the lock sees it.
#pragma once

#include <chrono>
#include <memory>

class LockStreamPIDData;

/// The stream of PID records, one for each cycle of the running lock. start() and stop() come from one
/// thread, dequeueWait() from any.
class LockPIDStreamIfc {
public:
    /// Switches the stream on.
    /// @throws std::runtime_error  when it is on, or its device cannot be opened or flushed; but for the
    ///                             first, it is off then and can be started again.
    virtual void start() = 0;

    /// Switches the stream off; records that wait stay in the queue. Harmless when it is off.
    virtual void stop() = 0;

    /// Takes the oldest record.
    /// @param aOut      Where it goes; left alone when the time runs out.
    /// @param aTimeout  The longest wait.
    /// @return Whether there was one.
    virtual bool dequeueWait(std::unique_ptr<LockStreamPIDData>& aOut,
                             std::chrono::duration<double> aTimeout) = 0;

    virtual ~LockPIDStreamIfc() = default;
};
