// SPDX-License-Identifier: Apache-2.0
// The words of the register enumerations.
#include "lock/hardware/LockHardwareEnums.h"

std::ostream& operator<<(std::ostream& aStream, LockHardwareStreamControl aValue) {
    switch (aValue) {
        case LockHardwareStreamControl::Registers:
            return aStream << "Registers (0)";
        case LockHardwareStreamControl::Sequencer:
            return aStream << "Sequencer (1)";
    }
    return aStream;
}

std::ostream& operator<<(std::ostream& aStream, LockHardwareFredSource aValue) {
    switch (aValue) {
        case LockHardwareFredSource::UseDataReg:
            return aStream << "UseDataReg (0)";
        case LockHardwareFredSource::UsePolynom:
            return aStream << "UsePolynom (1)";
    }
    return aStream;
}

std::ostream& operator<<(std::ostream& aStream, LockHardwareDacConfMode aValue) {
    switch (aValue) {
        case LockHardwareDacConfMode::UseDataReg:
            return aStream << "UseDataReg (0)";
        case LockHardwareDacConfMode::UsePIDOutput:
            return aStream << "UsePIDOutput (1)";
    }
    return aStream;
}

std::ostream& operator<<(std::ostream& aStream, LockHardwareSeqErrorCode aValue) {
    switch (aValue) {
        case LockHardwareSeqErrorCode::NoError:
            return aStream << "NO ERROR (0)";
        case LockHardwareSeqErrorCode::InstructionSetVersionMismatch:
            return aStream << "INSTRUCTION SET VERSION MISMATCH (1)";
        case LockHardwareSeqErrorCode::InvalidOpCode:
            return aStream << "INVALID OP CODE (2)";
        case LockHardwareSeqErrorCode::JumpAddressOutOfRange:
            return aStream << "JUMP ADDRESS OUT OF RANGE (3)";
        case LockHardwareSeqErrorCode::AllForClear:
            return aStream << "ALL_FOR_CLEAR";
    }
    return aStream;
}
