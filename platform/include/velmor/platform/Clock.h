// SPDX-License-Identifier: Apache-2.0
// The one way to read the time and to wait for it. Real on the instrument, faster or moved by hand where
// nothing is real.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace velmor::platform {

/// Source of time and of timed waits. Nothing above the platform layer waits or reads the time in another
/// way; that is what lets a two-minute time-out be tested in a millisecond.
///
/// All operations may be called from any thread.
class Clock {
public:
    using Duration = std::chrono::nanoseconds;
    using TimePoint = std::chrono::steady_clock::time_point;
    using SystemTimePoint = std::chrono::system_clock::time_point;

    virtual ~Clock() = default;

    /// The process's clock: the real one unless use() put another in place. Objects take it once, when they
    /// are made.
    static Clock& current() noexcept;

    /// Puts a clock in the place of the current one.
    /// @param aClock  The new clock; null for the real one.
    /// @return The former one; null where it was the real one.
    static std::shared_ptr<Clock> use(std::shared_ptr<Clock> aClock) noexcept;

    /// The real clock of the machine.
    static Clock& real() noexcept;

    /// Monotonic time.
    virtual TimePoint now() const noexcept = 0;

    /// Time of day.
    virtual SystemTimePoint systemNow() const noexcept = 0;

    /// Blocks the calling thread for a time.
    virtual void sleepFor(Duration aDuration) = 0;

    /// Waits on a condition variable until it is notified or a time has come; may wake for no reason, as
    /// condition variables do.
    /// @param aCondition  The condition variable; outlives the call.
    /// @param aLock       Lock on the mutex that guards the condition; held at call and return.
    /// @param aDeadline   The time at which the wait ends.
    /// @return timeout when the time has come.
    virtual std::cv_status waitUntil(std::condition_variable& aCondition,
                                     std::unique_lock<std::mutex>& aLock,
                                     TimePoint aDeadline) = 0;

    /// @param aDuration  How long one would wait for the answer of somebody who needs real time for it.
    /// @return How long to wait on this clock: longer where the other one could not answer in time, as on a
    ///         clock that runs faster than the machine's.
    virtual Duration patience(Duration aDuration) const noexcept { return aDuration; }

    /// Waits until a condition holds, at most for a time.
    /// @param aDuration   The longest wait.
    /// @param aPredicate  The condition; called with the lock held.
    /// @return Whether the condition held at the end.
    template <typename Predicate>
    bool waitFor(std::condition_variable& aCondition,
                 std::unique_lock<std::mutex>& aLock,
                 Duration aDuration,
                 Predicate aPredicate) {
        TimePoint const deadline = now() + aDuration;
        while (!aPredicate()) {
            if (waitUntil(aCondition, aLock, deadline) == std::cv_status::timeout) {
                return aPredicate();
            }
        }
        return true;
    }
};

} // namespace velmor::platform
