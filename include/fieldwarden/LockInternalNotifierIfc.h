// SPDX-License-Identifier: Apache-2.0
// How the lock's data streams report that the hardware has failed.
#pragma once

#include <fieldwarden/Export.h>

/// The stream's narrow view of the lock state machine.
class FIELDWARDEN_API LockInternalNotifierIfc {
public:
    virtual ~LockInternalNotifierIfc() = default;

    /// Reports that the lock hardware no longer delivers data. The state machine goes to its error state.
    /// Thread: any; queues an event and returns.
    virtual void notifyHardwareError() = 0;
};
