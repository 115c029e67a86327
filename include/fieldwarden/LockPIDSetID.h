// SPDX-License-Identifier: Apache-2.0
// The sets of PID terms among which the lock can choose.
#pragma once

#include <cstdint>

/// Number of a PID set, as LockInterface::setLockPIDSet() takes it.
enum class LockPIDSetID : std::int32_t {
    Slow = 0,
    Fast = 1,
    Normal = 2,
};
