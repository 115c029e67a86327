// SPDX-License-Identifier: Apache-2.0
// A file's whole contents as a text.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace velmor::kepla::utils {

/// What readWholeFile() takes at the most unless it is told otherwise: many times a record or a state.
inline constexpr std::size_t kWholeFileLimit = std::size_t{16} * 1024 * 1024;

/// Reads a file from its beginning to its end, unchanged. Any thread; blocks while it reads.
/// @param aPath   The file.
/// @param aLimit  The most bytes to take.
/// @return Its bytes; empty when it cannot be opened, as when it is missing.
/// @throws std::ios_base::failure  when it was opened but cannot be read, as a folder; when it is a pipe or a
/// device, whose end might never come; and when it has more than aLimit bytes.
std::string readWholeFile(std::filesystem::path const& aPath, std::size_t aLimit = kWholeFileLimit);

} // namespace velmor::kepla::utils
