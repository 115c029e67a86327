// SPDX-License-Identifier: Apache-2.0
// How a clock that stands still wakes threads that wait on condition variables of their own.
#include <velmor/platform/HandClock.h>

#include <algorithm>

namespace velmor::platform {

Clock::TimePoint HandClock::now() const noexcept {
    std::lock_guard const lock(mMutex);
    return mNow;
}

Clock::SystemTimePoint HandClock::systemNow() const noexcept {
    std::lock_guard const lock(mMutex);
    return mSystemNow;
}

void HandClock::sleepFor(Duration aDuration) {
    std::condition_variable nobodyNotifies;
    std::mutex mutex;
    std::unique_lock lock(mutex);
    TimePoint const deadline = now() + aDuration;
    while (waitUntil(nobodyNotifies, lock, deadline) != std::cv_status::timeout) {
    }
}

// The waiter's mutex is held from its entry into the list until it sleeps on its condition variable, and
// wakeExpired() takes that mutex before it notifies: so no wake-up can fall between the two. The waiter in
// turn leaves the list without its own mutex, and only when nobody is about to notify it, so the two never
// wait for each other.
std::cv_status HandClock::waitUntil(std::condition_variable& aCondition,
                                    std::unique_lock<std::mutex>& aLock,
                                    TimePoint aDeadline) {
    std::list<Waiter>::iterator self;
    {
        std::lock_guard const lock(mMutex);
        if (mNow >= aDeadline) {
            return std::cv_status::timeout;
        }
        self = mWaiters.insert(mWaiters.end(), Waiter{aDeadline, &aCondition, aLock.mutex()});
        mChanged.notify_all();
    }
    aCondition.wait(aLock);
    aLock.unlock();
    bool timedOut = false;
    {
        std::unique_lock lock(mMutex);
        mChanged.wait(lock, [&] { return !self->pinned; });
        mWaiters.erase(self);
        timedOut = mNow >= aDeadline;
    }
    aLock.lock();
    return timedOut ? std::cv_status::timeout : std::cv_status::no_timeout;
}

void HandClock::advance(Duration aDuration) {
    std::unique_lock lock(mMutex);
    TimePoint const target = mNow + aDuration;
    while (true) {
        TimePoint next = target;
        for (Waiter const& waiter : mWaiters) {
            if (!waiter.woken) {
                next = std::min(next, std::max(waiter.deadline, mNow));
            }
        }
        mSystemNow += std::chrono::duration_cast<SystemTimePoint::duration>(next - mNow);
        mNow = next;
        wakeExpired(lock);
        if (mNow >= target) {
            return;
        }
    }
}

void HandClock::wakeExpired(std::unique_lock<std::mutex>& aLock) {
    for (auto waiter = mWaiters.begin(); waiter != mWaiters.end();) {
        if (waiter->woken || waiter->deadline > mNow) {
            ++waiter;
            continue;
        }
        waiter->woken = true;
        waiter->pinned = true;
        aLock.unlock();
        {
            std::lock_guard const waiterSleeps(*waiter->mutex);
            waiter->condition->notify_all();
        }
        aLock.lock();
        waiter->pinned = false;
        mChanged.notify_all();
        waiter = mWaiters.begin(); // Others may have come or gone meanwhile.
    }
}

std::size_t HandClock::waiting() const {
    return static_cast<std::size_t>(std::count_if(mWaiters.begin(), mWaiters.end(),
                                                  [](Waiter const& aWaiter) { return !aWaiter.woken; }));
}

void HandClock::awaitWaiters(std::size_t aCount) {
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [&] { return waiting() >= aCount; });
}

Clock::Duration HandClock::advanceToNextDeadline(std::size_t aCount) {
    Duration step{};
    {
        std::unique_lock lock(mMutex);
        mChanged.wait(lock, [&] { return waiting() >= aCount; });
        TimePoint earliest = TimePoint::max();
        for (Waiter const& waiter : mWaiters) {
            if (!waiter.woken) {
                earliest = std::min(earliest, waiter.deadline);
            }
        }
        step = earliest - mNow;
    }
    advance(step);
    return step;
}

} // namespace velmor::platform
