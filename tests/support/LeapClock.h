// SPDX-License-Identifier: Apache-2.0
// A clock for code of one thread: every wait is over at once, and the time has moved by it.
#pragma once

#include <velmor/platform/Clock.h>

#include <algorithm>

#include <mutex>

namespace libfieldwarden::test {

/// Time moves only by the waits themselves.
class LeapClock final : public velmor::platform::Clock {
public:
    TimePoint now() const noexcept override {
        std::lock_guard const lock(mMutex);
        return mNow;
    }
    SystemTimePoint systemNow() const noexcept override {
        return SystemTimePoint{
            std::chrono::duration_cast<SystemTimePoint::duration>(now().time_since_epoch())};
    }
    void sleepFor(Duration aDuration) override {
        std::lock_guard const lock(mMutex);
        mNow += aDuration;
    }
    std::cv_status waitUntil(std::condition_variable& /*aCondition*/,
                             std::unique_lock<std::mutex>& /*aLock*/,
                             TimePoint aDeadline) override {
        std::lock_guard const lock(mMutex);
        mNow = std::max(mNow, aDeadline);
        return std::cv_status::timeout;
    }

private:
    mutable std::mutex mMutex;
    TimePoint mNow{std::chrono::hours(1)};
};

} // namespace libfieldwarden::test
