// SPDX-License-Identifier: Apache-2.0
// What the lock asks the temperature service.
#pragma once

#include <fieldwarden/Export.h>

/// The lock's narrow view of the temperature service: the lock must not stop while the probe is heated.
class FIELDWARDEN_API TemperatureForLockIfc {
public:
    virtual ~TemperatureForLockIfc() = default;

    /// Whether the adjustable temperature regulation is on.
    /// @return true if it was requested, or is still reported as on while it ramps down.
    /// Thread: any; does not block.
    virtual bool atEnabled() const = 0;
};
