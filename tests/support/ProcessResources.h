// SPDX-License-Identifier: Apache-2.0
// What this process holds of the kernel, for tests that nothing is left behind.
#pragma once

#include "support/Eventually.h"

#include <cstddef>
#include <filesystem>
#include <iterator>

namespace libfieldwarden::test {

/// Counts of the kernel objects of this process.
struct ProcessResources {
    std::ptrdiff_t descriptors;
    std::ptrdiff_t threads;

    /// @return The counts of now.
    static ProcessResources now() { return {entries("/proc/self/fd"), entries("/proc/self/task")}; }

    /// Gives the kernel time to strike a joined thread off its list, and GLib's thread to close what it has
    /// done with.
    /// @return The counts, as soon as they are not above others, or what they still are after a generous
    /// time.
    static ProcessResources settledTo(ProcessResources const& aBefore) {
        ProcessResources counts = now();
        eventually([&] {
            counts = now();
            return counts.isNotAbove(aBefore);
        });
        return counts;
    }

    /// Whether nothing has been added. The former count may well be higher: GLib's thread may have been about
    /// to close what it had done with. So do what you test several times.
    bool isNotAbove(ProcessResources const& aBefore) const noexcept {
        return descriptors <= aBefore.descriptors && threads <= aBefore.threads;
    }

private:
    static std::ptrdiff_t entries(std::filesystem::path const& aFolder) {
        return std::distance(std::filesystem::directory_iterator(aFolder), {});
    }
};

} // namespace libfieldwarden::test
