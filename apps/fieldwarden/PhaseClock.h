// SPDX-License-Identifier: Apache-2.0
// Where the time of a run goes.
#pragma once

#include "apps/fieldwarden/TemperatureText.h"

#include <velmor/platform/Clock.h>

#include <chrono>
#include <string>
#include <vector>

namespace libfieldwarden::app {

/// Measures one phase after the other, by the wall clock and by the instrument's. One thread.
class PhaseClock {
public:
    /// Begins the first phase.
    explicit PhaseClock(std::string aFirst);

    /// Ends the present phase and begins another.
    void begin(std::string aName);

    /// Ends the present phase.
    void end();

    /// @return All phases that have ended.
    std::vector<Phase> const& phases() const noexcept { return mPhases; }

private:
    std::string mName;
    std::chrono::steady_clock::time_point mReal = std::chrono::steady_clock::now();
    velmor::platform::Clock::TimePoint mInstrument = velmor::platform::Clock::current().now();
    std::vector<Phase> mPhases;
};

} // namespace libfieldwarden::app
