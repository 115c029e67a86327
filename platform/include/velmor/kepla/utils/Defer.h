// SPDX-License-Identifier: Apache-2.0
// A worker that keeps slow jobs off the threads that must not wait.
#pragma once

#include <velmor/kepla/log/Logger.h>
#include <velmor/kepla/utils/ThreadName.h>
#include <velmor/platform/Clock.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace velmor::kepla::utils {

/// Runs a callback once for every item triggered, in order, on a thread of its own. The destructor lets the
/// running item finish and drops those that wait.
template <typename Item>
class Defer : private virtual velmor::kepla::log::Logger {
public:
    /// @param aCallback  The job; an exception that leaves it is logged, and the next item comes all the
    /// same.
    /// @param aName      Name for the log and, shortened to 15 characters, for the thread.
    Defer(std::function<void(Item)> aCallback, std::string aName)
        : Logger("Defer", "")
        , mCallback(std::move(aCallback))
        , mName(std::move(aName))
        , mShared(std::make_shared<Shared>())
        , mThread([this] { process(); }) {}

    ~Defer() {
        keplaDoLog(Severity::Debug, "Defer %s: +dtor", {}, mName);
        {
            // Under the mutex, so that the worker cannot miss it between its look at the flag and its wait.
            std::lock_guard const lock(mShared->mutex);
            mShared->stop = true;
        }
        mShared->condition.notify_all();
        mThread.join();
        mStopped = true;
        keplaDoLog(Severity::Debug, "Defer %s: -dtor", {}, mName);
    }

    Defer(Defer const&) = delete;
    Defer& operator=(Defer const&) = delete;

    /// Has the callback run with an item; returns without waiting. Nothing is dropped or merged. Any thread.
    void trigger(Item aItem) {
        keplaDoLog(Severity::Trace, "Defer %s triggerred", {}, mName);
        {
            std::lock_guard const lock(mShared->mutex);
            mShared->items.push_back(std::move(aItem));
        }
        mShared->condition.notify_one();
    }

private:
    using Severity = velmor::kepla::log::Severity;

    struct Shared {
        std::atomic<bool> stop{false};
        std::deque<Item> items;
        std::mutex mutex;
        std::condition_variable condition;
    };

    void process() {
        nameThisThread(mName);
        keplaDoLog(Severity::Debug, "+processor for defer %s", {}, mName);
        auto& clock = velmor::platform::Clock::current();
        while (!mShared->stop) {
            std::unique_lock lock(mShared->mutex);
            clock.waitFor(mShared->condition, lock, std::chrono::seconds(1),
                          [&] { return mShared->stop || !mShared->items.empty(); });
            if (mShared->stop || mShared->items.empty()) {
                continue;
            }
            Item item = std::move(mShared->items.front());
            mShared->items.pop_front();
            lock.unlock();
            execute(std::move(item));
        }
        keplaDoLog(Severity::Debug, "-processor for defer %s", {}, mName);
    }

    void execute(Item aItem) {
        keplaDoLog(Severity::Trace, "Defer %s: executing one item", {}, mName);
        try {
            mCallback(std::move(aItem));
        } catch (std::exception const& error) {
            keplaDoLog(Severity::Error, "Defer %s threw an exception: %s", {}, mName, error.what());
        } catch (...) {
            keplaDoLog(Severity::Error, "Defer %s threw an unknown exception", {}, mName);
        }
    }

    std::function<void(Item)> mCallback;
    std::string mName;
    std::shared_ptr<Shared> mShared;
    bool mStopped = false;
    std::thread mThread;
};

} // namespace velmor::kepla::utils
