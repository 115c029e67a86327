// SPDX-License-Identifier: Apache-2.0
// Waiting for one interrupt source among all.
#include "lock/hardware/LockHardwareIRQ.h"

#include <velmor/platform/Clock.h>

#include <utility>

using std::chrono::milliseconds;
using velmor::kepla::log::Severity;
using velmor::platform::Clock;

LockHardwareIRQ::LockHardwareIRQ(std::shared_ptr<LockHardwareInterface> aHardware,
                                 std::shared_ptr<LockHardwareRegister<bool>> aMask,
                                 std::shared_ptr<LockHardwareRegisterClearable<bool>> aStatus)
    : Logger("LockHardwareIRQ " + aStatus->name, "Lock")
    , mHardware(std::move(aHardware))
    , mMask(std::move(aMask))
    , mStatus(std::move(aStatus)) {}

std::string LockHardwareIRQ::name() const {
    return mStatus->name;
}

bool LockHardwareIRQ::isActive() const {
    return mStatus->get();
}

void LockHardwareIRQ::reset() {
    mStatus->clear();
    mMask->set(false);
}

bool LockHardwareIRQ::waitFor(milliseconds const& aTimeout) {
    keplaDoLog(Severity::Trace, "+waitFor", {});
    mStatus->clear();
    mMask->set(true);
    bool const came = waitForOwn(aTimeout);
    mMask->set(false);
    keplaDoLog(Severity::Trace, "-waitFor: returns %d", {}, static_cast<int>(came));
    return came;
}

bool LockHardwareIRQ::waitForOwn(milliseconds const& aTimeout) {
    milliseconds remaining = aTimeout;
    while (true) {
        auto const begin = Clock::current().now();
        // Intended: each wait is as long as the whole, only the loop is bound by what remains.
        if (!mHardware->waitForIRQ(aTimeout)) {
            keplaDoLog(Severity::Warning, "-waitFor: timeout #2", {});
            return false;
        }
        if (mStatus->get()) {
            keplaDoLog(Severity::Trace, "~waitFor: got an IRQ and it is ours :)", {});
            return true;
        }
        auto const elapsed = std::chrono::duration_cast<milliseconds>(Clock::current().now() - begin);
        if (elapsed >= remaining) {
            keplaDoLog(Severity::Warning, "-waitFor: timeout #1", {});
            return false;
        }
        remaining -= elapsed;
        keplaDoLog(Severity::Trace,
                   "-waitFor: irq came but wasn't the one we where waiting for...waiting again", {});
    }
}
