// SPDX-License-Identifier: Apache-2.0
// A temperature that is remembered once it is known.
#pragma once

#include <atomic>
#include <optional>

namespace libfieldwarden::temperature {

/// Nothing at first, then the latest temperature that it was given. Any thread, without a lock: who finds it
/// known sees a value that was stored.
class KnownTemperature {
public:
    /// @return The temperature in K, if it is known.
    std::optional<double> get() const noexcept {
        return mKnown.load(std::memory_order_acquire) ? std::optional(mKelvin.load(std::memory_order_relaxed))
                                                      : std::nullopt;
    }

    /// @param aKelvin  The temperature, known from now on.
    void set(double aKelvin) noexcept {
        mKelvin.store(aKelvin, std::memory_order_relaxed);
        mKnown.store(true, std::memory_order_release);
    }

private:
    std::atomic<double> mKelvin{0.0};
    std::atomic<bool> mKnown{false};
};

} // namespace libfieldwarden::temperature
