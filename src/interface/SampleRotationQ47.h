// SPDX-License-Identifier: Apache-2.0
// The sample rotation of an instrument that has no rotation drive.
#pragma once

#include <fieldwarden/SampleRotationInterface.h>

/// Stands still, always. It exists so that the daemon never gets a null sample rotation.
class SampleRotationQ47 : public SampleRotationInterface {
public:
    int getSpin() override { return 0; }
    double getTargetSpinRate() override { return 0.0; }
    double getActualSpinRate() override { return 0.0; }
};
