// SPDX-License-Identifier: Apache-2.0
// The check of a program image.
#include "simulator/sequencer/SequencerProgram.h"

#include <algorithm>

namespace libfieldwarden::sim {

namespace {

constexpr std::size_t kWordBytes = 4;

std::uint32_t wordAt(std::span<std::uint8_t const> aImage, std::size_t aWord) {
    auto const byte = [&](std::size_t i) { return std::uint32_t{aImage[aWord * kWordBytes + i]}; };
    return byte(0) | byte(1) << 8 | byte(2) << 16 | byte(3) << 24;
}

constexpr bool isOp(std::uint32_t aCode) {
    return aCode >= static_cast<std::uint32_t>(SequencerProgram::Op::Idle) &&
           aCode <= static_cast<std::uint32_t>(SequencerProgram::Op::Halt);
}

} // namespace

SequencerProgram::SequencerProgram(std::span<std::uint8_t const> aImage)
    : mOverrun(aImage.size() > kWords * kWordBytes) {
    auto const image = aImage.first(std::min(aImage.size(), kWords * kWordBytes));
    std::size_t const words = image.size() / kWordBytes;
    if (words == 0 || wordAt(image, 0) != kVersionWord) {
        fail(Error::Version, 0);
        return;
    }
    mInstructions.push_back({Op::Halt, 0});
    for (std::size_t address = 1; address < words; ++address) {
        std::uint32_t const word = wordAt(image, address);
        if (!isOp(word >> 24)) {
            fail(Error::OpCode, address);
            return;
        }
        Instruction const instruction{static_cast<Op>(word >> 24), word & 0xFF'FFFF};
        if (instruction.op == Op::Jump && (instruction.operand == 0 || instruction.operand >= words)) {
            fail(Error::JumpAddress, address);
            return;
        }
        mInstructions.push_back(instruction);
    }
    if (image.size() % kWordBytes != 0) {
        fail(Error::OpCode, words);
    }
}

void SequencerProgram::fail(Error aError, std::size_t aAddress) noexcept {
    mError = aError;
    mErrorAddress = static_cast<std::uint16_t>(aAddress);
}

} // namespace libfieldwarden::sim
