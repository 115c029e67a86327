// SPDX-License-Identifier: Apache-2.0
// A simulated flow box: valves for the probe's gas, a knob for the operator, and the byte that codes both.
#pragma once

#include "simulator/boards/FirstOrderLag.h"
#include "simulator/boards/GasSupplyIfc.h"

#include <velmor/platform/Clock.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace libfieldwarden::sim {

/// A box with a hold valve and three main flows, of which one at most is open. The temperature board writes
/// it one byte:
///
/// | Byte     | Prototype, V1            | V2                                |
/// |----------|--------------------------|-----------------------------------|
/// | 0        | all valves closed        | all valves closed                 |
/// | 1        | hold flow                | hold flow                         |
/// | 2 to 4   | hold flow, main 1 to 3   | hold flow, main 1 to 3            |
/// | 10       | not of its code          | all valves closed                 |
/// | 11       | not of its code          | hold flow                         |
/// | 12 to 14 | not of its code          | main 1 to 3 without hold flow     |
///
/// A byte that is not of its code closes all valves and is read back as it was written.
///
/// While the knob is away from remote, the valves stand as the knob says, whatever the board writes; what it
/// wrote last takes effect when the knob comes back. Read back is:
///
/// | Generation | Knob at remote    | Knob away                                      | Without power     |
/// |------------|-------------------|------------------------------------------------|-------------------|
/// | Prototype  | the written byte  | the written byte                               | the written byte  |
/// | V1         | the written byte  | the byte of what is open                       | 255               |
/// | V2         | the written byte  | the byte of what is open, and 100              | 255               |
///
/// All operations may be called from any thread and do not block. Those without a time act at once, by the
/// box's clock.
class FlowBox final : public GasSupplyIfc {
public:
    using Clock = velmor::platform::Clock;

    static constexpr std::size_t kMainFlows = 3;
    /// Read back from a box that does not answer.
    static constexpr std::uint8_t kErrorIndex = 0xFF;
    /// The change level by which the board tells that no port expander answers.
    static constexpr std::uint8_t kNoBoxEcl = 99;

    enum class Generation : std::uint8_t { Prototype, V1, V2 };

    /// What the operator has chosen. Each main flow has the hold flow beside it.
    enum class Knob : std::uint8_t { Remote, Off, Hold, Main1, Main2, Main3 };

    struct Options {
        Generation generation = Generation::V2;
        double holdLiterPerHour = 50.0;                                 ///< Above 0.
        std::array<double, kMainFlows> mainLiterPerHour{200, 300, 400}; ///< Beside the hold flow; above 0.
        Clock::Duration lag = std::chrono::milliseconds(200); ///< Time constant of the flow; above 0.
        /// By which the board tells its generation. 0 for the generation's own one: 10 for V1, 20 for V2.
        /// The prototype has no port expander and never tells one.
        std::uint8_t ecl = 0;
    };

    /// What is open.
    struct Valves {
        bool hold = false;
        std::uint8_t main = 0; ///< 1 to 3; 0 for none.

        friend bool operator==(Valves const&, Valves const&) = default;
    };

    /// Has power and gas, its knob is at remote, and all valves are closed.
    /// @param aClock  The time; outlives the box.
    /// @throws std::invalid_argument  when a flow or the lag is not above 0.
    explicit FlowBox(Options const& aOptions, Clock& aClock = Clock::current());
    /// A box of the third generation with the usual flows.
    FlowBox();

    // The temperature board.
    void setIndex(std::uint8_t aIndex, TimePoint aNow) override;
    std::uint8_t index(TimePoint aNow) const override;
    double literPerHour(TimePoint aNow) const override;
    bool isOpen(TimePoint aNow) const override;
    std::uint8_t ecl() const override;

    // The operator.
    void turnKnob(Knob aPosition);
    Knob knob() const;

    // What goes wrong.
    /// Takes the box its power, or gives it back. Without power all valves are closed and what the board
    /// writes is lost; with it again they stay closed until the board writes or the knob says otherwise. The
    /// prototype's valves are the board's own: they follow what it wrote last as soon as they have power.
    void fail(bool aFails);
    bool fails() const;
    /// Opens or closes the tap behind the box. Without gas nothing flows, and the box does not know.
    void setGas(bool aThere);

    // The truth.
    Valves valves() const;
    /// @return The flow to the probe now, hold flow included, in l/h.
    double flow() const;

private:
    Valves coded(std::uint8_t aIndex) const;
    Valves valvesNow() const;
    double target() const;
    void change(TimePoint aNow);

    Options const mOptions;
    Clock& mClock;
    mutable std::mutex mMutex; ///< Guards all below.
    std::uint8_t mWritten = 0;
    Knob mKnob = Knob::Remote;
    bool mFails = false;
    bool mGas = true;
    FirstOrderLag mFlow;
    TimePoint mChangedAt;  ///< When the valves were last moved.
    bool mWasOpen = false; ///< Before that.
};

} // namespace libfieldwarden::sim
