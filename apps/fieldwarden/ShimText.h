// SPDX-License-Identifier: Apache-2.0
// Gradients and currents as people write them: on the command line and in shim files.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace libfieldwarden::app {

/// A gradient's name and its value in units.
using Gradient = std::pair<std::string, int>;

/// Reads "Z=1200".
/// @throws WrongUsage  when it is not a name, "=", and a whole number of 32 bits.
Gradient parseAssignment(std::string const& aText);

/// Reads a current: "0.25", "0.25A", "250mA" or "250000uA".
/// @return The current in A.
/// @throws WrongUsage  when it is not a number with one of these units.
double parseCurrent(std::string const& aText);

/// Reads a shim file: a gradient a line, its name, blanks and its value; empty lines and those that begin
/// with "#" say nothing. A name given twice keeps its last value.
/// @throws std::runtime_error  when the file cannot be read or a line is wrong; the words name file and line.
std::map<std::string, int> readShimFile(std::filesystem::path const& aPath);

/// Writes a shim file, under a temporary name in the same folder first, so that no reader sees half of it.
/// @throws std::runtime_error  when it cannot be written.
void writeShimFile(std::filesystem::path const& aPath, std::vector<Gradient> const& aGradients);

} // namespace libfieldwarden::app
