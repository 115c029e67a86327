// SPDX-License-Identifier: Apache-2.0
// The objects of the shim board that are its own.
#pragma once

#include "simulator/boards/ObjectDictionary.h"
#include "simulator/boards/ShimBoardState.h"

#include <array>

namespace libfieldwarden::sim {

/// Sensors: 1 and 2 at the DACs, 3 to 5 on the heatsink from its lower to its upper part.
inline constexpr std::array kShimBoardObjects{
    ObjectRow{0x2100, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "self test: highest subindex", 4},
    ObjectRow{0x2100, 1, 1, ObjectType::U8, ObjectAccess::ReadOnly, "DACs: 1 passed", 1},
    ObjectRow{0x2100, 2, 2, ObjectType::U8, ObjectAccess::ReadOnly, "ADCs: 1 passed", 1},
    ObjectRow{0x2100, 3, 3, ObjectType::U8, ObjectAccess::ReadOnly, "supply: 1 passed", 1},
    ObjectRow{0x2100, 4, 4, ObjectType::U8, ObjectAccess::ReadOnly, "EEPROM: 1 passed, 0 failed"},
    ObjectRow{0x3000, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "number of current sources",
              ShimBoardState::kSources},
    ObjectRow{0x3000, 1, ShimBoardState::kSources, ObjectType::I32, ObjectAccess::ReadOnly,
              "actual current in uA, or 10000000 plus an error code"},
    ObjectRow{0x3001, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "set currents: highest subindex", 1},
    ObjectRow{0x3001, 1, 1, ObjectType::Domain, ObjectAccess::ReadWrite,
              "write the currents of all sources in uA, 32 bits each, source 1 first; read that of source 1",
              0, ObjectRange{4 * ShimBoardState::kSources, 4 * ShimBoardState::kSources}},
    ObjectRow{0x3002, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "number of temperature sensors", 5},
    ObjectRow{0x3002, 1, 5, ObjectType::I32, ObjectAccess::ReadOnly, "temperature in milli degrees Celsius"},
    ObjectRow{0x3003, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "supply: highest subindex", 1},
    ObjectRow{0x3003, 1, 1, ObjectType::U16, ObjectAccess::ReadOnly, "supply voltage in mV"},
    ObjectRow{0x3004, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "calibration: highest subindex", 1},
    ObjectRow{0x3004, 1, 1, ObjectType::U8, ObjectAccess::ReadOnly,
              "below 128: not calibrated or EEPROM read error; above: calibrated"},
};

} // namespace libfieldwarden::sim
