// SPDX-License-Identifier: Apache-2.0
// The words for changed shims.
#include "apps/fieldwarden/ShimEvents.h"

#include <fieldwarden/ShimInterface.h>

#include <fmt/format.h>

namespace libfieldwarden::app {

ShimEvents::ShimEvents(ShimInterface& aShim, EventQueue& aQueue)
    : mShim(aShim)
    , mQueue(aQueue) {
    mShim.setListener(this);
}

ShimEvents::~ShimEvents() {
    mShim.removeListener();
}

void ShimEvents::shimGradientChanged(std::string const& aName, int aValue) {
    mQueue.push({{},
                 "shim",
                 "shimGradientChanged",
                 fmt::format("gradient {}: {}", aName, aValue),
                 {{"gradient", aName}, {"value", aValue}}});
}

void ShimEvents::shimCurrentChanged(unsigned int aIndex, double aAmpere) {
    mQueue.push({{},
                 "shim",
                 "shimCurrentChanged",
                 fmt::format("current {}: {:.6f} A", aIndex, aAmpere),
                 {{"index", aIndex}, {"ampere", aAmpere}}});
}

} // namespace libfieldwarden::app
