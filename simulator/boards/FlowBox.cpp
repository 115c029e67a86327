// SPDX-License-Identifier: Apache-2.0
// The codes of the three generations, and the flow that follows the valves.
#include "simulator/boards/FlowBox.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace libfieldwarden::sim {

namespace {

constexpr std::uint8_t kHoldIndex = 1;
constexpr std::uint8_t kLastWithHold = 4;
constexpr std::uint8_t kHoldClosed = 10; ///< Added by V2.
constexpr std::uint8_t kKnobAway = 100;  ///< Added by V2.
constexpr std::uint8_t kEclV1 = 10;
constexpr std::uint8_t kEclV2 = 20;

/// So near to what the valves come to, the flow is there: what asks for it sees few different ones.
constexpr double kThereLiterPerHour = 0.5;

/// @return The byte of a knob's position, without the mark of V2.
constexpr std::uint8_t indexOf(FlowBox::Knob aPosition) {
    return static_cast<std::uint8_t>(static_cast<unsigned>(aPosition) - 1U);
}
static_assert(indexOf(FlowBox::Knob::Off) == 0 && indexOf(FlowBox::Knob::Main3) == kLastWithHold);

FlowBox::Options checked(FlowBox::Options const& aOptions) {
    bool const flows = std::all_of(aOptions.mainLiterPerHour.begin(), aOptions.mainLiterPerHour.end(),
                                   [](double aFlow) { return aFlow > 0.0; });
    if (!flows || !(aOptions.holdLiterPerHour > 0.0)) {
        throw std::invalid_argument("The flows of a flow box are above 0");
    }
    return aOptions;
}

} // namespace

FlowBox::FlowBox(Options const& aOptions, Clock& aClock)
    : mOptions(checked(aOptions))
    , mClock(aClock)
    , mFlow(aOptions.lag, 0.0)
    , mChangedAt(aClock.now()) {}

FlowBox::FlowBox()
    : FlowBox(Options{}) {}

// ---------------------------------------------------------------------------------------------- valves

/// @return What a written byte opens.
FlowBox::Valves FlowBox::coded(std::uint8_t aIndex) const {
    bool const isV2 = mOptions.generation == Generation::V2;
    std::uint8_t index = aIndex;
    bool hold = true;
    if (isV2 && aIndex >= kHoldClosed && aIndex <= kHoldClosed + kLastWithHold) {
        index = static_cast<std::uint8_t>(aIndex - kHoldClosed);
        hold = index == kHoldIndex; // Intended: 11 is the hold flow as 1 is.
    }
    if (index == 0 || index > kLastWithHold) {
        return {};
    }
    return {hold, static_cast<std::uint8_t>(index - kHoldIndex)};
}

FlowBox::Valves FlowBox::valvesNow() const {
    if (mFails) {
        return {};
    }
    return coded(mKnob == Knob::Remote ? mWritten : indexOf(mKnob));
}

/// @return The flow that the present valves come to.
double FlowBox::target() const {
    if (!mGas) {
        return 0.0;
    }
    Valves const open = valvesNow();
    return (open.hold ? mOptions.holdLiterPerHour : 0.0) +
           (open.main != 0 ? mOptions.mainLiterPerHour.at(open.main - 1U) : 0.0);
}

/// Lets the flow follow the valves. The board carries its samples on after the fact, so that the operator's
/// time may be ahead of the board's: time does not run backwards here.
void FlowBox::change(TimePoint aNow) {
    double const flow = target();
    if (flow == mFlow.target()) {
        return;
    }
    TimePoint const now = std::max(aNow, mChangedAt);
    mWasOpen = mFlow.target() > 0.0;
    mFlow.setTarget(flow, now);
    mChangedAt = now;
}

// ---------------------------------------------------------------------------------------------- the board

void FlowBox::setIndex(std::uint8_t aIndex, TimePoint aNow) {
    std::lock_guard const lock(mMutex);
    if (mFails && mOptions.generation != Generation::Prototype) {
        return;
    }
    mWritten = aIndex;
    change(aNow);
}

std::uint8_t FlowBox::index(TimePoint /*aNow*/) const {
    std::lock_guard const lock(mMutex);
    if (mOptions.generation == Generation::Prototype) {
        return mWritten;
    }
    if (mFails) {
        return kErrorIndex;
    }
    if (mKnob == Knob::Remote) {
        return mWritten;
    }
    std::uint8_t const open = indexOf(mKnob);
    return mOptions.generation == Generation::V2 ? static_cast<std::uint8_t>(open + kKnobAway) : open;
}

double FlowBox::literPerHour(TimePoint aNow) const {
    std::lock_guard const lock(mMutex);
    double const flow = mFlow.value(std::max(aNow, mChangedAt));
    return std::abs(flow - mFlow.target()) < kThereLiterPerHour ? mFlow.target() : flow;
}

bool FlowBox::isOpen(TimePoint aNow) const {
    std::lock_guard const lock(mMutex);
    return aNow < mChangedAt ? mWasOpen : mFlow.target() > 0.0;
}

std::uint8_t FlowBox::ecl() const {
    std::lock_guard const lock(mMutex);
    if (mFails || mOptions.generation == Generation::Prototype) {
        return kNoBoxEcl;
    }
    if (mOptions.ecl != 0) {
        return mOptions.ecl;
    }
    return mOptions.generation == Generation::V1 ? kEclV1 : kEclV2;
}

// ---------------------------------------------------------------------------------------------- operator

void FlowBox::turnKnob(Knob aPosition) {
    std::lock_guard const lock(mMutex);
    mKnob = aPosition;
    change(mClock.now());
}

FlowBox::Knob FlowBox::knob() const {
    std::lock_guard const lock(mMutex);
    return mKnob;
}

void FlowBox::fail(bool aFails) {
    std::lock_guard const lock(mMutex);
    mFails = aFails;
    if (aFails && mOptions.generation != Generation::Prototype) {
        mWritten = 0; // The port expander forgets; the prototype's lines come from the board itself.
    }
    change(mClock.now());
}

bool FlowBox::fails() const {
    std::lock_guard const lock(mMutex);
    return mFails;
}

void FlowBox::setGas(bool aThere) {
    std::lock_guard const lock(mMutex);
    mGas = aThere;
    change(mClock.now());
}

FlowBox::Valves FlowBox::valves() const {
    std::lock_guard const lock(mMutex);
    return valvesNow();
}

double FlowBox::flow() const {
    return literPerHour(mClock.now());
}

} // namespace libfieldwarden::sim
