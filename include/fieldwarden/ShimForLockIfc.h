// SPDX-License-Identifier: Apache-2.0
// What the lock asks the shim service.
#pragma once

#include <fieldwarden/Export.h>

/// The lock's narrow view of the shim service: without any shim current a search for the field is pointless.
class FIELDWARDEN_API ShimForLockIfc {
public:
    virtual ~ShimForLockIfc() = default;

    /// Whether no current flows in any of the 34 sources. Reads both boards afresh.
    /// @return true if every current is 0 uA.
    /// @throws std::runtime_error a shim board does not answer.
    /// Thread: any; blocks for the transfers to both boards.
    virtual bool areAllShimZero() = 0;
};
