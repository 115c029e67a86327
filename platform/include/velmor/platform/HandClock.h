// SPDX-License-Identifier: Apache-2.0
// A clock that moves only when it is told to, for tests and for simulations that are stepped.
#pragma once

#include <velmor/platform/Clock.h>

#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>

namespace velmor::platform {

/// Time stands still until advance() moves it. A thread that waits on this clock wakes when the time that it
/// waits for has come, or when its condition variable is notified.
class HandClock final : public Clock {
public:
    HandClock() = default;

    TimePoint now() const noexcept override;
    SystemTimePoint systemNow() const noexcept override;
    void sleepFor(Duration aDuration) override;
    std::cv_status waitUntil(std::condition_variable& aCondition,
                             std::unique_lock<std::mutex>& aLock,
                             TimePoint aDeadline) override;

    /// Moves the time on and wakes every thread whose time has come, in the order of their times: the clock
    /// halts at each of them, but does not wait for what the woken threads do.
    void advance(Duration aDuration);

    /// Blocks until at least so many threads wait on this clock: what a test calls before it moves the time.
    void awaitWaiters(std::size_t aCount);

    /// Blocks until so many threads wait on this clock, moves the time to the earliest end of their waits,
    /// and wakes those that waited for it.
    /// @return How far the time moved.
    Duration advanceToNextDeadline(std::size_t aCount = 1);

private:
    struct Waiter {
        TimePoint deadline;
        std::condition_variable* condition = nullptr;
        std::mutex* mutex = nullptr;
        bool woken = false;  ///< Its time has come; it no longer counts as waiting.
        bool pinned = false; ///< advance() is about to notify it, so it must not go away.
    };

    void wakeExpired(std::unique_lock<std::mutex>& aLock);
    std::size_t waiting() const;

    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    TimePoint mNow{std::chrono::hours(1)};
    SystemTimePoint mSystemNow{std::chrono::sys_days(std::chrono::year(2023) / 5 / 24)};
    std::list<Waiter> mWaiters;
};

} // namespace velmor::platform
