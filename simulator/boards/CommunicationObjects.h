// SPDX-License-Identifier: Apache-2.0
// The communication objects that both kinds of boards have, after CiA 301.
#pragma once

#include "simulator/boards/BoardState.h"
#include "simulator/boards/ObjectDictionary.h"

#include <array>

namespace libfieldwarden::sim {

/// Vendor number of the boards in their identity object.
inline constexpr std::int64_t kVendorId = 0x0000'0447;

/// Heartbeat period after power-on, in ms.
inline constexpr std::int64_t kHeartbeatMs = 2000;

/// Number of emergencies that a board remembers.
inline constexpr std::uint8_t kErrorHistory = 8;

/// Identifiers and identity differ from board to board: the model sets them.
inline constexpr std::array kCommunicationObjects{
    ObjectRow{0x1000, 0, 0, ObjectType::U32, ObjectAccess::ReadOnly, "device type: no device profile", 0},
    ObjectRow{0x1001, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly,
              "error register: bit 0 any, 1 current, 3 temperature"},
    ObjectRow{0x1003, 0, 0, ObjectType::U8, ObjectAccess::ReadWrite,
              "number of remembered errors; 0 clears them", 0, ObjectRange{0, 0}},
    ObjectRow{0x1003, 1, kErrorHistory, ObjectType::U32, ObjectAccess::ReadOnly,
              "remembered errors, the latest first: error code"},
    ObjectRow{0x1008, 0, 0, ObjectType::Text, ObjectAccess::ReadOnly, "device name"},
    ObjectRow{0x1009, 0, 0, ObjectType::Text, ObjectAccess::ReadOnly, "hardware version"},
    ObjectRow{0x100A, 0, 0, ObjectType::Text, ObjectAccess::ReadOnly, "software version"},
    ObjectRow{0x1014, 0, 0, ObjectType::U32, ObjectAccess::ReadOnly, "identifier of the emergency message"},
    ObjectRow{0x1017, 0, 0, ObjectType::U16, ObjectAccess::ReadWrite, "heartbeat period in ms, 0 for none",
              kHeartbeatMs},
    ObjectRow{0x1018, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "identity: highest subindex", 4},
    ObjectRow{0x1018, 1, 1, ObjectType::U32, ObjectAccess::ReadOnly, "vendor", kVendorId},
    ObjectRow{0x1018, 2, 2, ObjectType::U32, ObjectAccess::ReadOnly, "product"},
    ObjectRow{0x1018, 3, 3, ObjectType::U32, ObjectAccess::ReadOnly, "revision"},
    ObjectRow{0x1018, 4, 4, ObjectType::U32, ObjectAccess::ReadOnly, "serial number"},
    ObjectRow{0x1200, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "SDO server: highest subindex", 2},
    ObjectRow{0x1200, 1, 1, ObjectType::U32, ObjectAccess::ReadOnly, "identifier of the requests"},
    ObjectRow{0x1200, 2, 2, ObjectType::U32, ObjectAccess::ReadOnly, "identifier of the answers"},
    ObjectRow{0x1800, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "process data: highest subindex", 2},
    ObjectRow{0x1800, 1, 1, ObjectType::U32, ObjectAccess::ReadOnly, "identifier; bit 31: not sent"},
    ObjectRow{0x1800, 2, 2, ObjectType::U8, ObjectAccess::ReadOnly, "transmission type", 255},
    ObjectRow{0x1A00, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "process data: number of mapped objects",
              1},
    ObjectRow{0x1A00, 1, 1, ObjectType::U32, ObjectAccess::ReadOnly, "mapped object: index, subindex, bits"},
};

/// Program download (CiA 302-3) and what the manufacturer's bootloader adds to it.
inline constexpr std::array kProgramObjects{
    ObjectRow{0x1F50, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "program data: number of programs", 1},
    ObjectRow{0x1F50, 1, 1, ObjectType::Domain, ObjectAccess::WriteOnly, "the compressed program image"},
    ObjectRow{0x1F51, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "program control: number of programs", 1},
    ObjectRow{0x1F51, 1, 1, ObjectType::U8, ObjectAccess::ReadWrite,
              "write 0 stop, 1 start, 2 restart, 3 clear; read 0 stopped, 1 running", 0, ObjectRange{0, 3}},
    ObjectRow{0x1F55, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "expected build: number of programs", 1},
    ObjectRow{0x1F55, 1, 1, ObjectType::U32, ObjectAccess::ReadWrite, "expected build id, 0 for none", 0},
    ObjectRow{0x1F56, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "present build: number of programs", 1},
    ObjectRow{0x1F56, 1, 1, ObjectType::U32, ObjectAccess::ReadOnly, "build id of the program, 0 for none"},
    ObjectRow{0x1F57, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "flash status: number of programs", 1},
    ObjectRow{0x1F57, 1, 1, ObjectType::U32, ObjectAccess::ReadOnly, "bit 0 busy, bits 1 to 7 the error"},
    ObjectRow{0x2000, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "operation: highest subindex", 5},
    ObjectRow{0x2000, 1, 1, ObjectType::U32, ObjectAccess::ReadOnly, "time since the last start in s"},
    ObjectRow{0x2000, 2, 2, ObjectType::U32, ObjectAccess::ReadOnly, "number of starts"},
    ObjectRow{0x2000, 3, 3, ObjectType::U32, ObjectAccess::ReadOnly,
              "reason of the last start: 0 power, 1 network, 2 program control, 3 fault"},
    ObjectRow{0x2000, 4, 4, ObjectType::U32, ObjectAccess::ReadOnly, "number of emergencies since the start"},
    ObjectRow{0x2000, 5, 5, ObjectType::U32, ObjectAccess::ReadOnly, "number of replaced programs"},
    ObjectRow{0x200A, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "bootloader: highest subindex", 1},
    ObjectRow{0x200A, 1, 1, ObjectType::U32, ObjectAccess::ReadOnly, "build id of the bootloader", 117},
    ObjectRow{0x200B, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "platform: highest subindex", 1},
    ObjectRow{0x200B, 1, 1, ObjectType::Text, ObjectAccess::ReadOnly, "platform identifier"},
    ObjectRow{0x200C, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "flash: highest subindex", 4},
    ObjectRow{0x200C, 1, 1, ObjectType::U32, ObjectAccess::ReadOnly, "first address of the program",
              0x0800'8000},
    ObjectRow{0x200C, 2, 2, ObjectType::U32, ObjectAccess::ReadOnly, "room for the program in bytes"},
    ObjectRow{0x200C, 3, 3, ObjectType::U32, ObjectAccess::ReadOnly, "length of the program in bytes"},
    ObjectRow{0x200C, 4, 4, ObjectType::U32, ObjectAccess::ReadOnly, "CRC-32 of the program"},
    ObjectRow{0x200D, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "versions: highest subindex", 2},
    ObjectRow{
        0x200D, 1, 1, ObjectType::Text, ObjectAccess::ReadOnly, "version of the bootloader", 0, {}, "1.4.0"},
    ObjectRow{0x200D, 2, 2, ObjectType::Text, ObjectAccess::ReadOnly, "version of the program"},
};

/// Record and log.
inline constexpr std::array kServiceObjects{
    ObjectRow{0x2200, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "record: highest subindex", 1},
    ObjectRow{0x2200, 1, 1, ObjectType::Domain, ObjectAccess::ReadWrite, "record text", 0,
              ObjectRange{0, BoardState::kLargestRecord}},
    ObjectRow{0x2201, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "log: highest subindex", 1},
    ObjectRow{0x2201, 1, 1, ObjectType::Domain, ObjectAccess::ReadOnly, "log, one message a line"},
};

} // namespace libfieldwarden::sim
