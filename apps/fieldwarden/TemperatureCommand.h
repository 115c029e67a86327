// SPDX-License-Identifier: Apache-2.0
// `fieldwarden temperature`: the temperatures of the instrument and what is done about them.
#pragma once

#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/Session.h"

namespace libfieldwarden::app {

/// Opens the library, reads each temperature once, closes it again, and shows them.
/// @return The exit code.
/// @throws WrongUsage, std::exception  as Session; also what the board throws.
int temperatureCommand(SessionOptions const& aOptions, Form aForm);

} // namespace libfieldwarden::app
