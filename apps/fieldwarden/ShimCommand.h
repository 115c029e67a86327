// SPDX-License-Identifier: Apache-2.0
// `fieldwarden shim …`: gradients and currents from the command line.
#pragma once

#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/Session.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace libfieldwarden::app {

/// What every `shim` subcommand may be told.
struct ShimOptions {
    SessionOptions session;
    Form form = Form::Text;
};

/// Each opens the library, does its work, closes it again, and returns the exit code.
/// @throws WrongUsage, std::exception  as Session, and what the shim service throws.
int shimList(ShimOptions const& aOptions);
int shimGet(ShimOptions const& aOptions, std::vector<std::string> const& aNames);
/// All assignments are one parameter set: either all reach the boards, or none is kept.
int shimSet(ShimOptions const& aOptions, std::vector<std::string> const& aAssignments);
int shimCurrent(ShimOptions const& aOptions, unsigned int aIndex, std::optional<std::string> const& aValue);
/// Gradients that the file does not name become 0.
int shimLoad(ShimOptions const& aOptions, std::filesystem::path const& aFile);
int shimSave(ShimOptions const& aOptions, std::filesystem::path const& aFile);
int shimRelations(ShimOptions const& aOptions);
/// Also chooses the system for later runs.
int shimSystem(ShimOptions const& aOptions, int aSystem);

} // namespace libfieldwarden::app
