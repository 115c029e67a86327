// SPDX-License-Identifier: Apache-2.0
// The one thread on which all D-Bus objects of an owner live, so that none of them is ever shared between
// threads.
#pragma once

#include <velmor/platform/Clock.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <giomm/cancellable.h>
#include <glibmm/main.h>

namespace velmor::platform::dbus {

/// A thread with a main context of its own, which is that thread's default. What is posted runs there, in
/// order, between the events of the bus.
///
/// GLib's own queues are not used to hand work over: their locks are invisible to the thread sanitizer, and a
/// closure would be freed on another thread than the one that made it.
class BusThread {
public:
    using Task = std::function<void()>;
    using CancellableTask = std::function<void(Glib::RefPtr<Gio::Cancellable> const&)>;

    /// @param aName  Name of the thread; Linux keeps its first 15 characters.
    explicit BusThread(std::string aName);

    /// Runs what has been posted, then ends and joins the thread.
    ~BusThread();

    BusThread(BusThread const&) = delete;
    BusThread& operator=(BusThread const&) = delete;

    /// Has a task run on the thread; returns without waiting. Any thread.
    /// @param aTask  The task; must not throw.
    void post(Task aTask);

    /// Runs a task on the thread and waits for its end. Any thread but this one.
    ///
    /// The limit is real time, whatever the process's clock is: the peer on the bus lives in no simulation.
    /// @param aTask   The task; every blocking call in it takes the cancellable, which ends the task at the
    /// limit.
    /// @param aLimit  Longest time for the task, the wait for its turn included.
    /// @throws what the task throws.
    void call(CancellableTask const& aTask, Clock::Duration aLimit);

private:
    void loop(std::string const& aName);
    /// @return Whether the thread goes on.
    bool runTasks();

    Glib::RefPtr<Glib::MainContext> const mContext;
    std::mutex mMutex;
    std::condition_variable mCallEnded;
    std::deque<Task> mTasks;
    bool mStop = false;
    std::thread mThread;
};

} // namespace velmor::platform::dbus
