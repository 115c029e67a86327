// SPDX-License-Identifier: Apache-2.0
// What every simulated board keeps between two runs of the program, as hardware does that stays switched on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace libfieldwarden::sim {

/// Identity, program and record of a board.
struct BoardState {
    static constexpr std::size_t kLargestRecord = 8192; ///< In bytes.

    std::uint32_t serial = 0;
    std::uint32_t buildId = 0; ///< Of the program; 0 when there is none.
    std::string version;       ///< Of the program.
    std::uint32_t imageLength = 0;
    std::uint32_t imageCrc = 0;
    std::uint32_t starts = 0;      ///< How often the board has started.
    std::uint32_t flashWrites = 0; ///< How often its program was replaced.
    std::string record;

    friend bool operator==(BoardState const&, BoardState const&) = default;
};

} // namespace libfieldwarden::sim
