// SPDX-License-Identifier: Apache-2.0
// The sample rotation as the daemon sees it.
#pragma once

#include <fieldwarden/Export.h>

/// The sample rotation. This family of instruments has no rotation drive, so every answer is zero; the object
/// exists so that the daemon never meets a null pointer. The order of the operations is fixed.
class FIELDWARDEN_API SampleRotationInterface {
public:
    virtual ~SampleRotationInterface() = default;

    /// Whether the sample spins: always 0, it does not.
    /// Thread: any; does not block.
    virtual int getSpin() = 0;

    /// Requested spin rate: always 0.0.
    /// Thread: any; does not block.
    virtual double getTargetSpinRate() = 0;

    /// Measured spin rate: always 0.0.
    /// Thread: any; does not block.
    virtual double getActualSpinRate() = 0;
};
