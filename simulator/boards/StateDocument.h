// SPDX-License-Identifier: Apache-2.0
// The JSON document in which a simulated board keeps its state, with what all boards have in it.
#pragma once

#include "simulator/boards/BoardState.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace libfieldwarden::sim {

/// @throws std::runtime_error  when the value is no whole number from the lowest to the highest; the words
///                             name it.
std::int64_t wholeNumber(nlohmann::json const& aValue,
                         std::string const& aName,
                         std::int64_t aLowest,
                         std::int64_t aHighest);

/// @return The document's schema number and the members that all boards have. Bytes of the record above 0x7F
///         stand in it as the Unicode characters of their numbers, so that any record survives.
nlohmann::json documentOf(BoardState const& aState, int aSchema);

/// Reads the members that all boards have.
/// @throws std::runtime_error, nlohmann::json::exception  when one is missing or holds what it cannot hold.
void readBoardState(nlohmann::json const& aDocument, int aSchema, BoardState& aState);

/// Reads a file.
/// @param aTake  Gets the document; what it throws counts as damage.
/// @return Whether there is such a file.
/// @throws std::runtime_error  when it is damaged; the words name the path and the reason.
bool loadDocument(std::filesystem::path const& aPath,
                  std::function<void(nlohmann::json const&)> const& aTake);

/// Writes a file, its folder included, so that a reader and a crash find the old document or the new one.
/// @throws std::runtime_error  when it cannot be written; the words name the path.
void saveDocument(nlohmann::json const& aDocument, std::filesystem::path const& aPath);

} // namespace libfieldwarden::sim
