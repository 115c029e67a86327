// SPDX-License-Identifier: Apache-2.0
// The shim listener of the command: turns each change into an event.
#pragma once

#include "apps/fieldwarden/Event.h"

#include <fieldwarden/ShimListenerInterface.h>

#include <string>

class ShimInterface;

namespace libfieldwarden::app {

/// Listens to the shim service from construction to destruction. The calls come on the thread that changes a
/// shim.
class ShimEvents : public ShimListenerInterface {
public:
    /// @param aShim   The shim service; outlives this object.
    /// @param aQueue  Takes the events; outlives this object.
    ShimEvents(ShimInterface& aShim, EventQueue& aQueue);
    ~ShimEvents() override;
    ShimEvents(ShimEvents const&) = delete;
    ShimEvents& operator=(ShimEvents const&) = delete;

    void shimGradientChanged(std::string const& aName, int aValue) override;
    void shimCurrentChanged(unsigned int aIndex, double aAmpere) override;

private:
    ShimInterface& mShim;
    EventQueue& mQueue;
};

} // namespace libfieldwarden::app
