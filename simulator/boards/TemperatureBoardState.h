// SPDX-License-Identifier: Apache-2.0
// What a simulated temperature board keeps between two runs of the program: its EEPROM, and what it was set
// to.
#pragma once

#include "simulator/boards/BoardState.h"
#include "simulator/boards/TemperatureBoardObjects.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>

namespace libfieldwarden::sim {

/// A JSON document with one key for each member and `schema`, 1; a setup in it has one key for each object,
/// as "3010:01".
struct TemperatureBoardState : BoardState {
    /// The values of kTemperatureSetup, in its order.
    using Setup = std::array<std::int32_t, kTemperatureSetup.size()>;

    /// @return The setup of a new board.
    static Setup factorySetup();

    Setup setup = factorySetup();                             ///< In effect.
    Setup storedSetup = setup;                                ///< In the EEPROM: in effect after a restart.
    std::uint32_t eepromWrites = 0;                           ///< How often it was stored.
    std::array<std::uint16_t, 2> shimTargets{25'000, 25'000}; ///< In milli degrees Celsius.

    friend bool operator==(TemperatureBoardState const&, TemperatureBoardState const&) = default;

    /// Reads a file. Blocks on the disk.
    /// @return None when there is no such file.
    /// @throws std::runtime_error  when it cannot be read or does not hold a whole and sensible state; the
    ///                             words name the path and the reason.
    static std::optional<TemperatureBoardState> load(std::filesystem::path const& aPath);

    /// Writes a file, its folder included, so that a reader and a crash find the old state or the new one.
    /// Blocks on the disk.
    /// @throws std::runtime_error  when it cannot be written; the words name the path.
    void save(std::filesystem::path const& aPath) const;
};

} // namespace libfieldwarden::sim
