// SPDX-License-Identifier: Apache-2.0
// A test in which time moves only by hand.
#pragma once

#include <velmor/platform/Clock.h>
#include <velmor/platform/HandClock.h>

#include <memory>

namespace libfieldwarden::test {

/// Makes a hand-driven clock the process's clock, from construction to destruction.
class HandClockScope {
public:
    HandClockScope()
        : mFormer(velmor::platform::Clock::use(mClock)) {}
    ~HandClockScope() { velmor::platform::Clock::use(mFormer); }
    HandClockScope(HandClockScope const&) = delete;
    HandClockScope& operator=(HandClockScope const&) = delete;

    velmor::platform::HandClock* operator->() const noexcept { return mClock.get(); }

private:
    std::shared_ptr<velmor::platform::HandClock> mClock = std::make_shared<velmor::platform::HandClock>();
    std::shared_ptr<velmor::platform::Clock> mFormer;
};

} // namespace libfieldwarden::test
