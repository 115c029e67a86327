// SPDX-License-Identifier: Apache-2.0
// How the long steps of the lock start learn that nobody waits for them any more.
#pragma once

#include <atomic>
#include <exception>

namespace libfieldwarden::lock {

/// Thrown by a step that was asked to end. Neither a runtime error nor an error of range: the steps take
/// those for answers of the hardware.
class LockEndRequested : public std::exception {
public:
    char const* what() const noexcept override { return "The lock start was asked to end."; }
};

/// A wish that can be made once and is looked at between two waits. Any thread; nothing blocks.
class LockEndRequest {
public:
    void request() noexcept { mRequested.store(true, std::memory_order_relaxed); }

    /// @throws LockEndRequested  when the end was asked for.
    void check() const {
        if (mRequested.load(std::memory_order_relaxed)) {
            throw LockEndRequested();
        }
    }

private:
    std::atomic<bool> mRequested{false};
};

} // namespace libfieldwarden::lock
