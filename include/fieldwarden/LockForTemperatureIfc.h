// SPDX-License-Identifier: Apache-2.0
// What the adjustable temperature regulation asks the lock.
#pragma once

#include <fieldwarden/Export.h>

/// The temperature service's narrow view of the lock: probe heating shifts the field, so it may only start
/// while the lock already takes the drift out by way of the shim coil temperature.
class FIELDWARDEN_API LockForTemperatureIfc {
public:
    virtual ~LockForTemperatureIfc() = default;

    /// Whether the regulator of the shim coil target temperature is armed.
    /// @return true from its first sample after about five locked seconds until the lock is stopped; losing
    /// the lock does not disarm it.
    /// Thread: any; does not block.
    virtual bool shimCoilTargetTemperatureRegulationArmed() const = 0;
};
