// SPDX-License-Identifier: Apache-2.0
// The instruction memory of the simulated sequencer: its instructions, and the check of an image.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace libfieldwarden::sim {

/// A program image, "memory.bin": 32-bit words, little endian. Word 0 is 0x5153 in the upper half ("QS" for
/// whoever looks into the file) and the version of the instruction set in the lower. Each further word is an
/// instruction at the address of its place: op code in the upper 8 bits, operand in the lower 24.
///
/// The sequencer begins at address 1 when its clock is enabled. simulator/data/make-lock-images.py makes the
/// image and knows the same table.
class SequencerProgram {
public:
    static constexpr std::uint32_t kVersionWord = 0x5153'0001;
    static constexpr std::size_t kWords = 4096; ///< That the memory has.

    enum class Op : std::uint8_t {
        Idle = 1,      ///< Waits for as many points as the operand tells.
        Excite = 2,    ///< Sends the transmitter's pulse: the FID begins.
        Acquire = 3,   ///< Takes as many points as the operand tells; 0: as many as data/fft_zeros leaves.
        Transform = 4, ///< Transforms the points, finds the greatest slice, announces that the FID is done.
        Regulate = 5,  ///< Takes one step of FRED and PID.
        Stream = 6,    ///< Feeds the streams, where the sequencer controls them.
        Jump = 7,      ///< Goes on at the address that the operand tells.
        Halt = 8,      ///< Rests until the sequencer is started again.
    };

    struct Instruction {
        Op op;
        std::uint32_t operand;
    };

    /// What the check of an image found; the numbers of status/seq_error_code.
    enum class Error : std::uint8_t { None = 0, Version = 1, OpCode = 2, JumpAddress = 3 };

    SequencerProgram() = default;

    /// Checks an image, word after word up to the first error. A word that is cut off is no instruction. An
    /// image longer than the memory fills it and is overrun().
    explicit SequencerProgram(std::span<std::uint8_t const> aImage);

    Error error() const noexcept { return mError; }
    /// @return The word of the error.
    std::uint16_t errorAddress() const noexcept { return mErrorAddress; }
    /// @return Whether the image does not fit the memory.
    bool overrun() const noexcept { return mOverrun; }
    /// @return Whether there is something that can run.
    bool runnable() const noexcept { return mError == Error::None && !mOverrun && mInstructions.size() > 1; }

    /// @param aAddress  1 or more. @return The instruction; Halt behind the last one.
    Instruction at(std::size_t aAddress) const noexcept {
        return aAddress < mInstructions.size() ? mInstructions[aAddress] : Instruction{Op::Halt, 0};
    }

private:
    void fail(Error aError, std::size_t aAddress) noexcept;

    std::vector<Instruction> mInstructions; ///< By address; the first is none.
    Error mError = Error::None;
    std::uint16_t mErrorAddress = 0;
    bool mOverrun = false;
};

} // namespace libfieldwarden::sim
