// SPDX-License-Identifier: Apache-2.0
// The check of a program image.
#include "simulator/sequencer/SequencerProgram.h"
#include "support/TemporaryDirectory.h"

#include <random>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::SequencerProgram;
using Bytes = std::vector<std::uint8_t>;
using Error = SequencerProgram::Error;

Bytes image(std::vector<std::uint32_t> const& aInstructions, std::uint32_t aVersion = 0x5153'0001) {
    Bytes bytes;
    auto const put = [&](std::uint32_t aWord) {
        for (unsigned shift = 0; shift < 32; shift += 8) {
            bytes.push_back(static_cast<std::uint8_t>(aWord >> shift));
        }
    };
    put(aVersion);
    for (std::uint32_t const instruction : aInstructions) {
        put(instruction);
    }
    return bytes;
}

TEST(SequencerProgram, TakesTheImageThatIsDelivered) {
    std::string const file = libfieldwarden::test::readFile(LOCK_IMAGES "/memory.bin");
    SequencerProgram const program(Bytes(file.begin(), file.end()));
    EXPECT_TRUE(program.runnable());
    EXPECT_EQ(program.at(1).op, SequencerProgram::Op::Excite);
    EXPECT_EQ(program.at(2).op, SequencerProgram::Op::Acquire);
    EXPECT_EQ(program.at(6).op, SequencerProgram::Op::Jump);
    EXPECT_EQ(program.at(6).operand, 1U);
    EXPECT_EQ(program.at(7).op, SequencerProgram::Op::Halt);
}

TEST(SequencerProgram, RefusesAnotherVersion) {
    SequencerProgram const program(image({0x0800'0000}, 0x5153'0002));
    EXPECT_EQ(program.error(), Error::Version);
    EXPECT_EQ(program.errorAddress(), 0);
    EXPECT_FALSE(program.runnable());
    EXPECT_EQ(SequencerProgram(Bytes{}).error(), Error::Version);
    EXPECT_EQ(SequencerProgram(Bytes{0x01, 0x00, 0x53}).error(), Error::Version);
}

TEST(SequencerProgram, RefusesAnUnknownInstruction) {
    SequencerProgram const program(image({0x0200'0000, 0x0900'0000}));
    EXPECT_EQ(program.error(), Error::OpCode);
    EXPECT_EQ(program.errorAddress(), 2);
    EXPECT_EQ(SequencerProgram(image({0x0000'0001})).error(), Error::OpCode);
}

TEST(SequencerProgram, RefusesAJumpOutOfTheImage) {
    SequencerProgram const program(image({0x0200'0000, 0x0700'0003}));
    EXPECT_EQ(program.error(), Error::JumpAddress);
    EXPECT_EQ(program.errorAddress(), 2);
    EXPECT_EQ(SequencerProgram(image({0x0700'0000})).error(), Error::JumpAddress);
    EXPECT_EQ(SequencerProgram(image({0x0700'0001})).error(), Error::None);
}

TEST(SequencerProgram, RefusesAnInstructionThatIsCutOff) {
    Bytes bytes = image({0x0200'0000});
    bytes.push_back(0x07);
    SequencerProgram const program(bytes);
    EXPECT_EQ(program.error(), Error::OpCode);
    EXPECT_EQ(program.errorAddress(), 2);
}

TEST(SequencerProgram, OverrunsItsMemory) {
    std::vector<std::uint32_t> const halts(4095, 0x0800'0000);
    EXPECT_FALSE(SequencerProgram(image(halts)).overrun());
    Bytes bytes = image(halts);
    bytes.push_back(0);
    SequencerProgram const program(bytes);
    EXPECT_TRUE(program.overrun());
    EXPECT_EQ(program.error(), Error::None);
    EXPECT_FALSE(program.runnable());
}

TEST(SequencerProgram, BearsAnyBytes) {
    std::mt19937 random(5);
    std::uniform_int_distribution<int> byte(0, 9);
    for (int round = 0; round < 2000; ++round) {
        Bytes bytes = image({});
        for (int i = round % 40; i > 0; --i) {
            bytes.push_back(static_cast<std::uint8_t>(byte(random)));
        }
        SequencerProgram const program(bytes);
        std::size_t const words = bytes.size() / 4;
        for (std::size_t address = 1; program.runnable() && address < words; ++address) {
            auto const instruction = program.at(address);
            ASSERT_TRUE(instruction.op != SequencerProgram::Op::Jump || instruction.operand < words);
        }
        ASSERT_LE(program.errorAddress(), words);
    }
}

} // namespace
