// SPDX-License-Identifier: Apache-2.0
// The real clock, and the choice of the process's clock.
#include <velmor/platform/Clock.h>

#include <atomic>
#include <thread>
#include <utility>

namespace velmor::platform {

namespace {

class RealClock final : public Clock {
public:
    TimePoint now() const noexcept override { return std::chrono::steady_clock::now(); }
    SystemTimePoint systemNow() const noexcept override { return std::chrono::system_clock::now(); }
    void sleepFor(Duration aDuration) override { std::this_thread::sleep_for(aDuration); }
    std::cv_status waitUntil(std::condition_variable& aCondition,
                             std::unique_lock<std::mutex>& aLock,
                             TimePoint aDeadline) override {
        return aCondition.wait_until(aLock, aDeadline);
    }
};

RealClock sReal;
std::mutex sMutex;
std::shared_ptr<Clock> sOwner;
std::atomic<Clock*> sCurrent{&sReal};

} // namespace

Clock& Clock::current() noexcept {
    return *sCurrent.load(std::memory_order_acquire);
}

Clock& Clock::real() noexcept {
    return sReal;
}

std::shared_ptr<Clock> Clock::use(std::shared_ptr<Clock> aClock) noexcept {
    std::lock_guard const lock(sMutex);
    sCurrent.store(aClock ? aClock.get() : &sReal, std::memory_order_release);
    return std::exchange(sOwner, std::move(aClock));
}

} // namespace velmor::platform
