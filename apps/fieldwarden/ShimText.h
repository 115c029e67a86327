// SPDX-License-Identifier: Apache-2.0
// Gradients and currents as people write them: on the command line and in shim files.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace libfieldwarden::app {

/// A gradient's name and its value in units.
using Gradient = std::pair<std::string, int>;

/// A gradient in a shim file.
struct ShimFileLine {
    unsigned int number; ///< Of the line, from 1.
    Gradient gradient;
};

/// Reads "Z=1200".
/// @throws WrongUsage  when it is not a name, "=", and a whole number of 32 bits.
Gradient parseAssignment(std::string const& aText);

/// Reads a current: "0.25", "0.25A", "250mA" or "250000uA".
/// @return The current in A.
/// @throws WrongUsage  when it is not a number with one of these units.
double parseCurrent(std::string const& aText);

/// Reads a line of a shim file, by the library's own grammar: a name, blanks, a whole number of 32 bits.
/// Nothing is trimmed: what stands before the first blank is the name. Text behind the digits is ignored, as
/// is a CR.
/// @param aLine  Without its LF.
/// @return Nothing for an empty line and one that begins with "#".
/// @throws std::invalid_argument  when it is neither of these; the words say what is missing.
std::optional<Gradient> parseShimFileLine(std::string_view aLine);

/// Reads a shim file. Whether there are such gradients is not looked at.
/// @return The gradients in the order of the lines; of a name given twice the last one holds.
/// @throws std::runtime_error  when the file cannot be read, is no text, has more than 1 MiB, or has a wrong
/// line; the words name
///                             the file and the line.
std::vector<ShimFileLine> readShimFile(std::filesystem::path const& aPath);

/// Writes a shim file, under a temporary name in the same folder first, so that no reader sees half of it. A
/// pipe or a device, as "/dev/stdout", is written directly.
/// @throws std::runtime_error  when it cannot be written; what stood there is still there then.
void writeShimFile(std::filesystem::path const& aPath, std::vector<Gradient> const& aGradients);

} // namespace libfieldwarden::app
