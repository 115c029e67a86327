// SPDX-License-Identifier: Apache-2.0
// What the daemon implements to hear of shim changes.
#pragma once

#include <string>

#include <fieldwarden/Export.h>

/// Implemented by the daemon, called by the shim service for each value that changed. The calls come on the
/// thread that made the change, with the lock of the service held: do not call back into ShimInterface's
/// setters, its parameter set operations, setListener() or removeListener(). Getters are allowed. The order
/// of the operations is fixed.
class FIELDWARDEN_API ShimListenerInterface {
public:
    virtual ~ShimListenerInterface() = default;

    /// A gradient has a new value.
    /// @param aName name of the gradient, one of the 39 TOSK names.
    /// @param aValue new value in units.
    /// Thread: that of the setter, or of endOfOneParameterSet().
    virtual void shimGradientChanged(std::string const& aName, int aValue) = 0;

    /// A current has a new value.
    /// @param aIndex 0 to 16 on the first board, 17 to 33 on the second.
    /// @param aAmpere new current in ampere.
    /// Thread: that of the setter, or of endOfOneParameterSet(); after the gradients.
    virtual void shimCurrentChanged(unsigned int aIndex, double aAmpere) = 0;
};
