// SPDX-License-Identifier: Apache-2.0
// What a simulated shim board keeps between two runs of the program, as the hardware does that stays switched
// on.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace libfieldwarden::sim {

/// A JSON document with one key for each member and `schema`, 1. Bytes of the record above 0x7F stand in it
/// as the Unicode characters of their numbers, so that any record survives.
struct ShimBoardState {
    static constexpr std::size_t kSources = 17;
    static constexpr std::int32_t kLargestCurrentUA = 1'048'574; ///< 2^19 - 1 steps of 2 uA.
    static constexpr std::size_t kLargestRecord = 8192;          ///< In bytes.

    std::uint32_t serial = 0;
    std::uint32_t buildId = 0; ///< Of the program; 0 when there is none.
    std::string version;       ///< Of the program.
    std::uint32_t imageLength = 0;
    std::uint32_t imageCrc = 0;
    std::uint32_t starts = 0;      ///< How often the board has started.
    std::uint32_t flashWrites = 0; ///< How often its program was replaced.
    std::array<std::int32_t, kSources> currentsUA{};
    std::string record;

    friend bool operator==(ShimBoardState const&, ShimBoardState const&) = default;

    /// Reads a file. Blocks on the disk.
    /// @return None when there is no such file.
    /// @throws std::runtime_error  when it cannot be read or does not hold a whole and sensible state; the
    /// words name
    ///                             the path and the reason.
    static std::optional<ShimBoardState> load(std::filesystem::path const& aPath);

    /// Writes a file, its folder included, so that a reader and a crash find the old state or the new one.
    /// Blocks on the disk.
    /// @throws std::runtime_error  when it cannot be written; the words name the path.
    void save(std::filesystem::path const& aPath) const;
};

} // namespace libfieldwarden::sim
