// SPDX-License-Identifier: Apache-2.0
// How the lock moves the temperature of the shim coils.
#pragma once

#include <fieldwarden/Export.h>

/// The view of the temperature service that the regulator of the shim coil target temperature works on.
class FIELDWARDEN_API ShimTargetTemperatureIfc {
public:
    virtual ~ShimTargetTemperatureIfc() = default;

    /// Sets the target temperature of the shim coils.
    /// @param aTemperature kelvin; the caller keeps it within 298.15 K +- 0.5 K, plus its feed forward.
    /// @throws std::runtime_error the temperature board does not answer.
    /// Thread: any; blocks for a transfer to the board.
    virtual void setShimTargetTemperature(double aTemperature) = 0;

    /// Target temperature of the shim coils, in kelvin.
    /// @param aFromBoard true asks the board, false is content with the value that was last read or written.
    /// @throws std::runtime_error the temperature board does not answer.
    /// Thread: any; blocks for a transfer when the board is asked.
    virtual double shimTargetTemperature(bool aFromBoard) const = 0;

    /// Temperature of the probe, in kelvin; 0.0 on a system without the adjustable temperature option.
    /// @throws std::runtime_error the temperature board does not answer.
    /// Thread: any; blocks for a transfer to the board.
    virtual double probeTemperature() const = 0;
};
