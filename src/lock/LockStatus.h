// SPDX-License-Identifier: Apache-2.0
// Numbers that the lock tells of itself.
#pragma once

namespace libfieldwarden::lock {

/// What LockInterfaceListener::state() is told.
enum class LockStatus : int { Stopped = 0, Locked = 1, Running = 2, Error = 6 };

/// What LockStreams::outputRangeWarning() says.
enum class OutputRangeWarning : int { None = 0, NearItsEnd = 2 };

} // namespace libfieldwarden::lock
