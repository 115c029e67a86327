// SPDX-License-Identifier: Apache-2.0
// The enumerations that registers of the lock sequencer carry, a byte each, and their words.
#pragma once

#include <cstdint>
#include <ostream>

/// Who switches the data streams.
enum class LockHardwareStreamControl : std::uint8_t { Registers = 0, Sequencer = 1 };

/// Where the output of FRED comes from.
enum class LockHardwareFredSource : std::uint8_t { UseDataReg = 0, UsePolynom = 1 };

/// Where the value of the H0 DAC comes from.
enum class LockHardwareDacConfMode : std::uint8_t { UseDataReg = 0, UsePIDOutput = 1 };

/// What the sequencer found wrong with its program.
enum class LockHardwareSeqErrorCode : std::uint8_t {
    NoError = 0,
    InstructionSetVersionMismatch = 1,
    InvalidOpCode = 2,
    JumpAddressOutOfRange = 3,
    AllForClear = 255, ///< Written to acknowledge.
};

/// Each writes the value's word with its number in brackets, and nothing for a number that has no word.
std::ostream& operator<<(std::ostream& aStream, LockHardwareStreamControl aValue);
std::ostream& operator<<(std::ostream& aStream, LockHardwareFredSource aValue);
std::ostream& operator<<(std::ostream& aStream, LockHardwareDacConfMode aValue);
std::ostream& operator<<(std::ostream& aStream, LockHardwareSeqErrorCode aValue);
