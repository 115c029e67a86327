// SPDX-License-Identifier: Apache-2.0
// The lock's listener of the command: turns each call into an event.
#pragma once

#include "apps/fieldwarden/Event.h"

#include <fieldwarden/LockInterfaceListener.h>

#include <string>

class LockInterface;

namespace libfieldwarden::app {

/// Listens to a lock from construction to destruction.
///
/// A call comes on one of the library's threads, in which no operation of the lock may be called; so the
/// texts of changed warnings are fetched by describe(), on the main thread.
class LockEvents : public LockInterfaceListener {
public:
    /// @param aLock   The lock; outlives this object.
    /// @param aQueue  Takes the events; outlives this object.
    LockEvents(LockInterface& aLock, EventQueue& aQueue);
    ~LockEvents() override;
    LockEvents(LockEvents const&) = delete;
    LockEvents& operator=(LockEvents const&) = delete;

    void error(std::string const& aText) override;
    void warningsChanged() override;
    void doing(std::string const& aText) override;
    void state(int aState) override;
    void updateLockPIDSet(int aSet) override;
    void lost(int aStatus) override;

    /// Completes an event of this source with what the lock says now. Main thread.
    void describe(Event& aEvent) const;

    /// Whether there are warnings now, which were there before anybody listened. Main thread.
    bool hasWarnings() const;

private:
    void push(std::string aName, std::string aText, nlohmann::ordered_json aFields, Tone aTone);

    LockInterface& mLock;
    EventQueue& mQueue;
};

} // namespace libfieldwarden::app
