// SPDX-License-Identifier: Apache-2.0
// What the lock is told of temperature while no temperature service is built.
#pragma once

#include <fieldwarden/ShimTargetTemperatureIfc.h>
#include <fieldwarden/TemperatureForLockIfc.h>

#include <atomic>

namespace libfieldwarden {

/// Keeps the shim coils' target and moves nothing; the adjustable temperature is off. Any thread.
class NoTemperature final : public ShimTargetTemperatureIfc, public TemperatureForLockIfc {
public:
    void setShimTargetTemperature(double aTemperature) override { mTarget = aTemperature; }
    double shimTargetTemperature(bool /*aFromBoard*/) const override { return mTarget; }
    double probeTemperature() const override { return kRoom; }
    bool atEnabled() const override { return false; }

private:
    static constexpr double kRoom = 298.15; ///< K.
    std::atomic<double> mTarget{kRoom};
};

} // namespace libfieldwarden
