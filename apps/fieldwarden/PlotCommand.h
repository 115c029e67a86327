// SPDX-License-Identifier: Apache-2.0
// `fieldwarden plot`: a picture of a dump of the lock's signal.
#pragma once

#include "apps/fieldwarden/LockSignal.h"
#include "apps/fieldwarden/Output.h"

#include <filesystem>
#include <optional>

namespace libfieldwarden::app {

/// Which dump is drawn, and where.
struct PlotOptions {
    std::filesystem::path dump;
    std::optional<std::filesystem::path> picture; ///< Beside the dump, as PNG, when not given.
    std::optional<LockSignalKind> kind;           ///< By the dump's name when not given.
    Form form = Form::Text;
};

/// Draws the dump and tells what was drawn.
/// @throws WrongUsage          when name or options do not tell what the dump holds, or the picture's ending
/// is
///                             unknown.
/// @throws std::runtime_error  when the dump cannot be read, or the picture cannot be drawn or written.
int plotCommand(PlotOptions const& aOptions);

} // namespace libfieldwarden::app
