// SPDX-License-Identifier: Apache-2.0
// Writes a board's object dictionary as text, for the service log: the walk that the dumps of all boards
// share.
#pragma once

#include <velmor/kepla/canopen/CanOpenNodeClientIfc.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <span>

namespace libfieldwarden::dump {

/// How an object is read, named like the read operations of the node's client.
enum class ObjectType : std::uint8_t { U8, U16, U32, I32, STR };

/// Neighbouring objects of one index that are read in the same way. Ranges of one index that follow each
/// other form a group.
struct ObjectRange {
    std::uint16_t index;
    std::uint8_t first; ///< Subindex of the first object.
    std::uint8_t last;  ///< Subindex of the last object, included.
    ObjectType type;
};

/// Reads the objects one after the other and writes a line for each: index, TAB, subindex, TAB and the value,
/// or why there is none. An empty line ends each group. An object that cannot be read does not end the dump.
/// @param aClient   The board; not null.
/// @param aStream   Where to write.
/// @param aObjects  The objects, in the order of the lines.
/// @return aStream.
/// @throws std::ios_base::failure  where aStream throws; nothing else.
/// Thread: any; blocks while the board answers.
std::ostream& writeDictionary(std::shared_ptr<velmor::kepla::canopen::CanOpenNodeClientIfc> const& aClient,
                              std::ostream& aStream,
                              std::span<ObjectRange const> aObjects);

/// Writes a whole file, in place of a former one.
/// @param aPath   The file; its folder must exist.
/// @param aWrite  What writes its text.
/// @throws std::system_error       with the path and the reason when the file cannot be opened.
/// @throws std::ios_base::failure  when it cannot be written whole.
/// Thread: any; blocks while aWrite does.
void writeFile(std::filesystem::path const& aPath, std::function<void(std::ostream&)> const& aWrite);

} // namespace libfieldwarden::dump
