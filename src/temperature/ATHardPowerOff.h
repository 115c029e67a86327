// SPDX-License-Identifier: Apache-2.0
// The one way to make probe heating and probe gas safe.
#pragma once

#include <memory>

class TempBoardQ47Ifc;

namespace libfieldwarden::temperature {

/// Ends the heating of the probe gas and the gas itself, at once: target to 292.15 K, both regulations off,
/// no power, no flow, in this order. A step that fails ends the sequence.
/// @param aBoard  The temperature board of a system with the AT option; not null.
/// @throws std::runtime_error  without AT option, or when the board does not answer.
/// Thread: any; blocks for five transfers to the board.
void ATHardPowerOff( // NOLINT(readability-identifier-naming): its name begins with that of the option
    std::shared_ptr<TempBoardQ47Ifc> const& aBoard);

} // namespace libfieldwarden::temperature
