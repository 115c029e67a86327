// SPDX-License-Identifier: Apache-2.0
// Keeps the worst that was done to the heating spiral: how long it was heated without gas, how hot it became.
#pragma once

#include <velmor/platform/Clock.h>

#include <cstddef>
#include <vector>

namespace libfieldwarden::sim {

/// Told of each change of heating and gas, it remembers each time that the one was on without the other. Not
/// for several threads at a time; nothing blocks.
class HeatingWatch {
public:
    using Duration = velmor::platform::Clock::Duration;
    using TimePoint = velmor::platform::Clock::TimePoint;

    /// A time with heating and without gas.
    struct Episode {
        TimePoint begin;
        Duration length{};
        double hottestCelsius = 0.0; ///< Of the spiral, in it.
    };

    /// Only so many episodes are kept, the first ones; all are counted.
    static constexpr std::size_t kKept = 100;

    /// @param aHeats    Whether the spiral is heated or regulated from now on.
    /// @param aGas      Whether gas flows from now on.
    /// @param aCelsius  The spiral's temperature now.
    void update(TimePoint aNow, bool aHeats, bool aGas, double aCelsius);

    /// Forgets all; an episode that lasts begins anew.
    void reset();

    /// @return How many episodes there were, the present one included.
    std::size_t count() const noexcept { return mCount; }
    /// @return The longest one; 0 when there was none. One that lasts counts until the last update().
    Duration longest() const noexcept { return mLongest; }
    /// @return The hottest that the spiral was at any update(); -273.15 when there was none.
    double hottestCelsius() const noexcept { return mHottest; }
    std::vector<Episode> const& episodes() const noexcept { return mEpisodes; }

private:
    static constexpr double kAbsoluteZero = -273.15;

    bool mLasts = false;
    Episode mPresent;
    std::size_t mCount = 0;
    Duration mLongest{};
    double mHottest = kAbsoluteZero;
    std::vector<Episode> mEpisodes;
};

} // namespace libfieldwarden::sim
