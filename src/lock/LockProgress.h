// SPDX-License-Identifier: Apache-2.0
// How far a long step of the lock has come, for those who show it to a person.
#pragma once

#include <functional>
#include <string_view>

namespace libfieldwarden::lock {

/// One look at a running step.
struct LockProgress {
    std::string_view step; ///< What is being done, in words; lives as long as the program.
    unsigned int done = 0; ///< Parts of the step that are behind.
    unsigned int total =
        0; ///< Parts of the whole step, at most: a step ends early when it has what it seeks.
};

/// Hears of progress, on the thread that works, which it must not hold up. What it throws ends the step.
using LockProgressObserver = std::function<void(LockProgress const&)>;

} // namespace libfieldwarden::lock
