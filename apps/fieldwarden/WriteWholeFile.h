// SPDX-License-Identifier: Apache-2.0
// Files that the command makes, each of which is to stand there whole or not at all.
#pragma once

#include <filesystem>
#include <string>

namespace libfieldwarden::app {

/// Writes a file, under a temporary name in the same folder first, so that no reader sees half of it. Behind
/// a link, the file is replaced and the link stays. A pipe or a device, as "/dev/stdout", is written
/// directly.
/// @param aBytes  All that is to stand in the file.
/// @param aWhat   What the file is, for the words of the error, such as "shim file".
/// @throws std::runtime_error  when it cannot be written; what stood there is still there then.
void writeWholeFile(std::filesystem::path const& aPath, std::string const& aBytes, std::string const& aWhat);

/// Looks whether writeWholeFile() could write there now, so that nobody waits minutes for what then has no
/// place.
/// @throws std::runtime_error  when it could not, in the words of writeWholeFile().
void checkPlaceOf(std::filesystem::path const& aPath, std::string const& aWhat);

} // namespace libfieldwarden::app
