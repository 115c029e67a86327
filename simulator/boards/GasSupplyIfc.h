// SPDX-License-Identifier: Apache-2.0
// What stands behind the byte by which the temperature board sets the probe gas: the valves of a flow box.
#pragma once

#include <velmor/platform/Clock.h>

#include <algorithm>
#include <cstdint>

namespace libfieldwarden::sim {

/// A flow box as the temperature board sees it. The board calls with its own lock held and in the order of
/// time, so that no operation may block or call the board; they may come from any thread, one at a time.
class GasSupplyIfc {
public:
    using TimePoint = velmor::platform::Clock::TimePoint;

    virtual ~GasSupplyIfc() = default;

    /// The board has been told an index.
    virtual void setIndex(std::uint8_t aIndex, TimePoint aNow) = 0;
    /// @return The index as the box reports it back.
    virtual std::uint8_t index(TimePoint aNow) const = 0;
    /// @return The flow to the probe, hold flow included, in l/h.
    virtual double literPerHour(TimePoint aNow) const = 0;
    /// @return Whether the gas is on its way: it flows already or is about to, by valves that are open.
    virtual bool isOpen(TimePoint aNow) const { return literPerHour(aNow) > 0.0; }
    /// @return The engineering change level by which the board takes a box on the port expander for what it
    ///         is: 10 for its first version, 20 and 30 for its second, 99 when none answers.
    virtual std::uint8_t ecl() const = 0;
};

/// Valves without a knob and without delay: 100 l/h an index, up to 400 l/h.
class DirectGasSupply final : public GasSupplyIfc {
public:
    static constexpr double kLiterPerHourAnIndex = 100.0;
    static constexpr std::uint8_t kFullIndex = 4; ///< From this index on all valves are open.
    static constexpr std::uint8_t kEcl = 10;

    void setIndex(std::uint8_t aIndex, TimePoint /*aNow*/) override { mIndex = aIndex; }
    std::uint8_t index(TimePoint /*aNow*/) const override { return mIndex; }
    double literPerHour(TimePoint /*aNow*/) const override {
        return kLiterPerHourAnIndex * std::min(mIndex, kFullIndex);
    }
    std::uint8_t ecl() const override { return kEcl; }

private:
    std::uint8_t mIndex = 0;
};

} // namespace libfieldwarden::sim
