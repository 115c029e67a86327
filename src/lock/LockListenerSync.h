// SPDX-License-Identifier: Apache-2.0
// The listener that the lock's objects always have, whether or not the daemon listens.
#pragma once

#include <fieldwarden/LockInterfaceListener.h>
#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <mutex>
#include <string>

/// Hands the lock's news on to the one listener that may be registered, one call at a time. Nothing is queued
/// or merged. The last status is kept.
///
/// Any thread may call. The mutex is held while the listener runs, so that no call is under way once
/// removeListener() has returned; a listener that calls back into an operation of this class waits for
/// itself. A listener that throws is logged and harms nobody.
class LockListenerSync : public LockInterfaceListener, private virtual velmor::kepla::log::Logger {
public:
    LockListenerSync();

    void error(std::string const& aText) override;
    void warningsChanged() override;
    void doing(std::string const& aText) override;
    void state(int aStatus) override;
    void updateLockPIDSet(int aPIDSet) override;
    void lost(int aStatus) override;

    /// Registers the listener in place of a former one. It hears nothing before the next news.
    /// @param aListener  Not null, not owned.
    /// @throws std::invalid_argument  when it is null; the former one stays.
    void setListener(LockInterfaceListener* aListener);

    /// Forgets the listener; waits for a call that is under way.
    void removeListener();

    /// @return The status that was told last, 0 at first.
    int lastState() const;

private:
    template <typename Call>
    void forward(char const* aOperation, Call aCall);

    std::mutex mMutex;
    LockInterfaceListener* mListener = nullptr;
    std::atomic<int> mLastState{0}; ///< Read without the mutex, so that a listener may ask, too.
};
