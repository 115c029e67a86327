// SPDX-License-Identifier: Apache-2.0
// A file's whole contents as a text.
#pragma once

#include <filesystem>
#include <string>

namespace velmor::kepla::utils {

/// Reads a file from its beginning to its end, unchanged. Any thread; blocks while it reads.
/// @param aPath  The file.
/// @return Its bytes; empty when it cannot be opened, as when it is missing.
/// @throws std::ios_base::failure  when it was opened but cannot be read, as a folder.
std::string readWholeFile(std::filesystem::path const& aPath);

} // namespace velmor::kepla::utils
