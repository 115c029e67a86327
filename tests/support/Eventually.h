// SPDX-License-Identifier: Apache-2.0
// Waiting for what another thread or process does, where it offers nothing to wait on.
#pragma once

#include <chrono>
#include <thread>

namespace libfieldwarden::test {

/// Looks at a condition again and again. The deadline is far beyond what a loaded machine needs, so it passes
/// only where the condition never comes true.
/// @return Whether the condition came true.
template <typename Condition>
bool eventually(Condition aCondition) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!aCondition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

} // namespace libfieldwarden::test
