// SPDX-License-Identifier: Apache-2.0
// The way of the lock's news to the daemon.
#include "lock/LockListenerSync.h"

#include <exception>
#include <stdexcept>

using velmor::kepla::log::Severity;

LockListenerSync::LockListenerSync()
    : Logger("LockListenerSync", "Lock") {}

/// Calls the listener, if there is one; the mutex is held by the caller.
template <typename Call>
void LockListenerSync::forward(char const* aOperation, Call aCall) {
    if (mListener == nullptr) {
        return;
    }
    try {
        aCall(*mListener);
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "The lock's listener failed in %s: %s", {}, aOperation, failure.what());
    } catch (...) {
        keplaDoLog(Severity::Error, "The lock's listener failed in %s", {}, aOperation);
    }
}

void LockListenerSync::error(std::string const& aText) {
    keplaDoLog(Severity::Error, "+error(what = %s)", {}, aText);
    std::lock_guard const lock(mMutex);
    forward("error", [&](LockInterfaceListener& aListener) { aListener.error(aText); });
}

void LockListenerSync::warningsChanged() {
    keplaDoLog(Severity::Warning, "+warningsChanged()", {});
    std::lock_guard const lock(mMutex);
    forward("warningsChanged", [](LockInterfaceListener& aListener) { aListener.warningsChanged(); });
}

void LockListenerSync::doing(std::string const& aText) {
    keplaDoLog(Severity::Info, "+doing(what = %s)", {}, aText);
    std::lock_guard const lock(mMutex);
    forward("doing", [&](LockInterfaceListener& aListener) { aListener.doing(aText); });
}

void LockListenerSync::state(int aStatus) {
    keplaDoLog(Severity::Info, "+state(status = %d)", {}, aStatus);
    std::lock_guard const lock(mMutex);
    mLastState = aStatus; // also when nobody listens
    forward("state", [&](LockInterfaceListener& aListener) { aListener.state(aStatus); });
}

void LockListenerSync::updateLockPIDSet(int aPIDSet) {
    keplaDoLog(Severity::Info, "+updateLockPIDSet(status = %d)", {}, aPIDSet);
    std::lock_guard const lock(mMutex);
    forward("updateLockPIDSet",
            [&](LockInterfaceListener& aListener) { aListener.updateLockPIDSet(aPIDSet); });
}

void LockListenerSync::lost(int aStatus) {
    keplaDoLog(Severity::Info, "+lost(status = %d)", {}, aStatus);
    std::lock_guard const lock(mMutex);
    forward("lost", [&](LockInterfaceListener& aListener) { aListener.lost(aStatus); });
}

void LockListenerSync::setListener(LockInterfaceListener* aListener) {
    std::lock_guard const lock(mMutex);
    if (aListener == nullptr) {
        keplaDoLog(Severity::Critical, "LockQ47::setListener: got nullptr, use removeListener instead", {});
        throw std::invalid_argument("setListener(nullptr): please use removeListener instead");
    }
    mListener = aListener;
    keplaDoLog(Severity::Debug, "LockQ47::setListener", {});
}

void LockListenerSync::removeListener() {
    std::lock_guard const lock(mMutex);
    mListener = nullptr;
    keplaDoLog(Severity::Debug, "-LockQ47::removeListener", {});
}

int LockListenerSync::lastState() const {
    return mLastState;
}
