// SPDX-License-Identifier: Apache-2.0
// What the command tells the shell.
#pragma once

namespace libfieldwarden::app {

/// Exit codes of every subcommand; the man page lists them.
enum ExitCode : int {
    kDone = 0,         ///< Done.
    kLibraryError = 1, ///< The library reported an error.
    kWrongUsage = 2,   ///< The arguments, or something in their way, are wrong.
    kTimedOut = 3,     ///< Waited for longer than was allowed.
    kLost = 4,         ///< The instrument lost what was asked for on the way, or a signal ended it there.
};

} // namespace libfieldwarden::app
