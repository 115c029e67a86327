// SPDX-License-Identifier: Apache-2.0
// The six urgencies of a log line. docs/logging.md says what each is for.
#pragma once

namespace velmor::kepla::log {

/// Urgency of a log line, in falling order. A sink at level L takes the lines of the values 0 to L.
enum class Severity : int {
    Critical = 0, ///< Must stand out in the persistent log, be it an error or not.
    Error = 1,    ///< An error or a failed operation.
    Warning = 2,  ///< Something that the operator should look at.
    Info = 3,     ///< Information and progress.
    Debug = 4,    ///< Debugging and entry lines.
    Trace = 5,    ///< Getters and polls.
};

} // namespace velmor::kepla::log
