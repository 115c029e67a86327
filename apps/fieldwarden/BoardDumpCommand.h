// SPDX-License-Identifier: Apache-2.0
// `fieldwarden dump canopen`: the object dictionaries of the boards, as the device log keeps them.
#pragma once

#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/Session.h"

#include <filesystem>

namespace libfieldwarden::app {

/// Opens the library, has it write its dumps, and closes it again.
/// @param aFolder  Takes the dumps; made when it is not there. Former dumps in it are replaced.
/// @return The exit code.
/// @throws WrongUsage, std::exception  as Session; also when the folder cannot be made or a dump is missing.
int boardDump(SessionOptions const& aOptions, Form aForm, std::filesystem::path const& aFolder);

} // namespace libfieldwarden::app
