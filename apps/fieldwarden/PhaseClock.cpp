// SPDX-License-Identifier: Apache-2.0
// The two clocks of a run.
#include "apps/fieldwarden/PhaseClock.h"

#include <utility>

namespace libfieldwarden::app {

PhaseClock::PhaseClock(std::string aFirst)
    : mName(std::move(aFirst)) {}

void PhaseClock::begin(std::string aName) {
    end();
    mName = std::move(aName);
}

void PhaseClock::end() {
    if (mName.empty()) {
        return;
    }
    auto const real = std::chrono::steady_clock::now();
    auto const instrument = velmor::platform::Clock::current().now();
    mPhases.push_back({std::exchange(mName, {}), std::chrono::duration<double>(real - mReal).count(),
                       std::chrono::duration<double>(instrument - mInstrument).count()});
    mReal = real;
    mInstrument = instrument;
}

} // namespace libfieldwarden::app
