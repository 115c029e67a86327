// SPDX-License-Identifier: Apache-2.0
// `fieldwarden run`: the library, open, with everything that it says.
#pragma once

#include "apps/fieldwarden/Session.h"

#include <optional>
#include <string>

namespace libfieldwarden::app {

/// The options of `run`.
struct RunOptions {
    SessionOptions session;
    std::optional<double> seconds; ///< Real time after which to close; without, on Ctrl-C only.
    bool json = false;
    std::optional<std::string> frequency; ///< Of the magnet, as text; see frequencyFor().
};

/// Opens, listens, prints each thing heard as it happens, and closes in order.
/// @return The exit code.
/// @throws WrongUsage, std::exception  as Session.
int runCommand(RunOptions const& aOptions);

} // namespace libfieldwarden::app
