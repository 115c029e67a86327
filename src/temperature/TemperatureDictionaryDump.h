// SPDX-License-Identifier: Apache-2.0
// The readable copy of the temperature board's object dictionary, for the service log.
#pragma once

#include <velmor/kepla/canopen/CanOpenNodeClientIfc.h>

#include <memory>
#include <ostream>

namespace libfieldwarden::tempboardq47 {

/// Writes every object of the temperature board's dictionary, 242 in 53 groups, as lines of index, TAB,
/// subindex, TAB and the value or why it could not be read, with an empty line after each group.
/// @param aClient  The board; not null.
/// @param aStream  Where to write.
/// @return aStream.
/// @throws std::ios_base::failure  where aStream throws; nothing else.
/// Thread: any; blocks while the board answers.
std::basic_ostream<char>& dumpCANopenDicOjbForLog(
    std::shared_ptr<velmor::kepla::canopen::CanOpenNodeClientIfc> const& aClient,
    std::basic_ostream<char>& aStream);

} // namespace libfieldwarden::tempboardq47
