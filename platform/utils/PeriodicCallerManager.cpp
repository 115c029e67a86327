// SPDX-License-Identifier: Apache-2.0
// The schedule of the periodic calls and the worker that walks it.
#include <velmor/kepla/utils/PeriodicCallerManager.h>

#include <velmor/kepla/log/Logger.h>
#include <velmor/kepla/utils/ThreadName.h>
#include <velmor/platform/Clock.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace velmor::kepla::utils {

using velmor::kepla::log::Severity;
using velmor::platform::Clock;

namespace {

struct Job {
    Clock::TimePoint next;
    Clock::Duration period;
    std::function<void()> callback;
};

} // namespace

/// The jobs, shared by the worker and the handles, so that either side may go first.
class PeriodicCallerManager::Schedule : private velmor::kepla::log::Logger {
public:
    explicit Schedule(std::string const& aName)
        : Logger("PeriodicCallerManager", aName)
        , mClock(Clock::current()) {}

    std::shared_ptr<Job> add(Clock::Duration aPeriod, std::function<void()> aCallback) {
        auto job = std::make_shared<Job>(Job{mClock.now() + aPeriod, aPeriod, std::move(aCallback)});
        std::lock_guard const lock(mMutex);
        mJobs.push_back(job);
        mChanged.notify_all();
        return job;
    }

    void remove(std::shared_ptr<Job> const& aJob) {
        std::unique_lock lock(mMutex);
        std::erase(mJobs, aJob);
        if (std::this_thread::get_id() != mWorkerId) {
            mFinished.wait(lock, [&] { return mRunning != aJob; });
        }
    }

    void stop() {
        std::lock_guard const lock(mMutex);
        mStop = true;
        mChanged.notify_all();
    }

    void work() {
        std::unique_lock lock(mMutex);
        mWorkerId = std::this_thread::get_id();
        while (!mStop) {
            auto const earliest = std::min_element(
                mJobs.begin(), mJobs.end(), [](auto const& a, auto const& b) { return a->next < b->next; });
            if (earliest == mJobs.end()) {
                mChanged.wait(lock);
            } else if ((*earliest)->next > mClock.now()) {
                mClock.waitUntil(mChanged, lock, (*earliest)->next);
            } else {
                run(*earliest, lock);
            }
        }
    }

private:
    void run(std::shared_ptr<Job> aJob, std::unique_lock<std::mutex>& aLock) {
        mRunning = aJob;
        aLock.unlock();
        try {
            aJob->callback();
        } catch (std::exception const& error) {
            keplaDoLog(Severity::Error, "A periodic call threw an exception: %s", {}, error.what());
        } catch (...) {
            keplaDoLog(Severity::Error, "A periodic call threw an unknown exception", {});
        }
        aLock.lock();
        auto const passed = (mClock.now() - aJob->next) / aJob->period;
        aJob->next += (passed + 1) * aJob->period;
        mRunning.reset();
        mFinished.notify_all();
        // What the callback owns goes without the lock: it may own a handle, whose destructor takes it.
        aLock.unlock();
        aJob.reset();
        aLock.lock();
    }

    Clock& mClock;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::condition_variable mFinished;
    std::vector<std::shared_ptr<Job>> mJobs;
    std::shared_ptr<Job> mRunning;
    std::thread::id mWorkerId;
    bool mStop = false;
};

/// The handle of one job.
class PeriodicCallerManager::Caller final : public PeriodicCallerIfc {
public:
    Caller(std::shared_ptr<Schedule> aSchedule, std::shared_ptr<Job> aJob)
        : mSchedule(std::move(aSchedule))
        , mJob(std::move(aJob)) {}
    ~Caller() override { mSchedule->remove(mJob); }
    Caller(Caller const&) = delete;
    Caller& operator=(Caller const&) = delete;

private:
    std::shared_ptr<Schedule> mSchedule;
    std::shared_ptr<Job> mJob;
};

PeriodicCallerManager::PeriodicCallerManager(ExecutionStrategy /*aStrategy: there is one*/,
                                             std::string const& aName)
    : mSchedule(std::make_shared<Schedule>(aName)) {
    mWorker = std::thread([schedule = mSchedule, name = aName.empty() ? "periodic" : aName] {
        nameThisThread(name);
        schedule->work();
    });
}

PeriodicCallerManager::~PeriodicCallerManager() {
    mSchedule->stop();
    mWorker.join();
}

std::unique_ptr<PeriodicCallerIfc> PeriodicCallerManager::createPeriodicCaller(
    double aPeriodSeconds, std::function<void()> aCallback) {
    // Asked before the conversion, which knows nothing of infinities.
    constexpr double kLongest = 1e9;
    if (!(aPeriodSeconds >= 1e-9)) {
        throw std::invalid_argument("A periodic call needs a period above 0 s");
    }
    auto const period = std::chrono::duration_cast<Clock::Duration>(
        std::chrono::duration<double>(std::min(aPeriodSeconds, kLongest)));
    if (!aCallback) {
        throw std::invalid_argument("A periodic call needs something to call");
    }
    return std::make_unique<Caller>(mSchedule, mSchedule->add(period, std::move(aCallback)));
}

} // namespace velmor::kepla::utils
