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
    std::optional<std::string> at; ///< Target of the probe, as text; see temperatureFromText(). Without, off.
    bool untilStable = false;      ///< Goes down and closes once the probe is stable at its target.
};

/// Opens, listens, prints each thing heard as it happens, brings the probe down, and closes in order.
/// @return The exit code.
/// @throws WrongUsage, std::exception  as Session.
int runCommand(RunOptions const& aOptions);

} // namespace libfieldwarden::app
