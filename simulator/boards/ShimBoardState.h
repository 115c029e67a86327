// SPDX-License-Identifier: Apache-2.0
// What a simulated shim board keeps between two runs of the program, as the hardware does that stays switched
// on.
#pragma once

#include "simulator/boards/BoardState.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>

namespace libfieldwarden::sim {

/// A JSON document with one key for each member and `schema`, 1.
struct ShimBoardState : BoardState {
    static constexpr std::size_t kSources = 17;
    static constexpr std::int32_t kLargestCurrentUA = 1'048'574; ///< 2^19 - 1 steps of 2 uA.

    std::array<std::int32_t, kSources> currentsUA{};

    friend bool operator==(ShimBoardState const&, ShimBoardState const&) = default;

    /// Reads a file. Blocks on the disk.
    /// @return None when there is no such file.
    /// @throws std::runtime_error  when it cannot be read or does not hold a whole and sensible state; the
    ///                             words name the path and the reason.
    static std::optional<ShimBoardState> load(std::filesystem::path const& aPath);

    /// Writes a file, its folder included, so that a reader and a crash find the old state or the new one.
    /// Blocks on the disk.
    /// @throws std::runtime_error  when it cannot be written; the words name the path.
    void save(std::filesystem::path const& aPath) const;
};

} // namespace libfieldwarden::sim
