// SPDX-License-Identifier: Apache-2.0
// The loop of the D-Bus thread and the way into it.
#include "dbus/BusThread.h"

#include <velmor/kepla/utils/ThreadName.h>

#include <exception>
#include <locale>
#include <utility>

#include <giomm/init.h>
#include <glibmm/init.h>

namespace velmor::platform::dbus {

namespace {

Glib::RefPtr<Glib::MainContext> makeContext() {
    static std::once_flag sInitialised;
    std::call_once(sInitialised, [] {
        // The locale belongs to the host: a library that changed it would change the host's number formats.
        // glibmm leaves C's alone when told so, but sets that of C++ after it, so a host's own is put back.
        Glib::set_init_to_users_preferred_locale(false);
        std::locale const hosts;
        Gio::init();
        std::locale::global(hosts);
    });
    return Glib::MainContext::create();
}

} // namespace

BusThread::BusThread(std::string aName)
    : mContext(makeContext())
    , mThread([this, name = std::move(aName)] { loop(name); }) {}

BusThread::~BusThread() {
    {
        std::lock_guard const lock(mMutex);
        mStop = true;
    }
    mContext->wakeup();
    mThread.join();
}

void BusThread::post(Task aTask) {
    {
        std::lock_guard const lock(mMutex);
        mTasks.push_back(std::move(aTask));
    }
    mContext->wakeup();
}

void BusThread::call(CancellableTask const& aTask, Clock::Duration aLimit) {
    auto const cancellable = Gio::Cancellable::create();
    std::exception_ptr error;
    bool ended = false;
    post([&] {
        try {
            aTask(cancellable);
        } catch (...) {
            error = std::current_exception();
        }
        // Told under the lock: the caller's frame is gone as soon as it sees the end.
        std::lock_guard const lock(mMutex);
        ended = true;
        mCallEnded.notify_all();
    });

    std::unique_lock lock(mMutex);
    auto const hasEnded = [&] { return ended; };
    if (!Clock::real().waitFor(mCallEnded, lock, aLimit, hasEnded)) {
        lock.unlock();
        cancellable->cancel();
        lock.lock();
        mCallEnded.wait(lock, hasEnded);
    }
    if (error) {
        std::rethrow_exception(error);
    }
}

void BusThread::loop(std::string const& aName) {
    velmor::kepla::utils::nameThisThread(aName);
    mContext->push_thread_default();
    while (runTasks()) {
        // A wakeup that came since the last look at the tasks is kept by the context, so it ends this wait.
        mContext->iteration(true);
    }
    while (mContext->iteration(false)) {
    }
    mContext->pop_thread_default();
}

bool BusThread::runTasks() {
    std::unique_lock lock(mMutex);
    while (!mTasks.empty()) {
        Task const task = std::move(mTasks.front());
        mTasks.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
    return !mStop;
}

} // namespace velmor::platform::dbus
