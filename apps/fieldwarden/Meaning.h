// SPDX-License-Identifier: Apache-2.0
// What a number that the library reports means to people.
#pragma once

#include "apps/fieldwarden/Event.h"

#include <string_view>

namespace libfieldwarden::app {

/// What a number of a listener means, and how much it wants to be seen.
struct Meaning {
    std::string_view words;
    Tone tone = Tone::Plain;
};

} // namespace libfieldwarden::app
