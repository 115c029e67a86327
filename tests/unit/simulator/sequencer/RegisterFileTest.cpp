// SPDX-License-Identifier: Apache-2.0
// The texts of the sequencer's registers.
#include "simulator/sequencer/RegisterFile.h"

#include <set>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::RegisterFile;
using Reg = libfieldwarden::sim::SequencerRegister;
using testing::Optional;

TEST(RegisterFile, HasEachPathOnce) {
    std::set<std::string_view> paths;
    for (auto const& row : RegisterFile::kRows) {
        paths.insert(row.path);
    }
    EXPECT_EQ(paths.size(), RegisterFile::kRows.size());
    EXPECT_EQ(RegisterFile::find("pid/p_term"), Reg::PidPTerm);
    EXPECT_EQ(RegisterFile::find("control/enable_test_dac"), Reg::EnableTestDac);
    EXPECT_EQ(RegisterFile::find("pid/setpoint"), std::nullopt);
    EXPECT_EQ(RegisterFile::find(""), std::nullopt);
}

TEST(RegisterFile, StartsAsAfterPowerOn) {
    RegisterFile const registers;
    EXPECT_EQ(registers.text(Reg::FidShift), "0\n");
    EXPECT_EQ(registers.text(Reg::StreamPacketSize), "1\n");
    EXPECT_EQ(registers.text(Reg::DacData), "0x00000000\n");
}

TEST(RegisterFile, PrintsWordsInHexadecimalAndTheRestInDecimal) {
    RegisterFile registers;
    registers.set(Reg::DacData, 0x40FF'FFFF);
    registers.set(Reg::PidITerm, 0xFFFF'FFFF);
    registers.set(Reg::MaxSlicePosition, 0xFFFF);
    registers.set(Reg::FidShift, 15);
    registers.set(Reg::FidDone, 1);
    EXPECT_EQ(registers.text(Reg::DacData), "0x40ffffff\n");
    EXPECT_EQ(registers.text(Reg::PidITerm), "-1\n");
    EXPECT_EQ(registers.text(Reg::MaxSlicePosition), "65535\n");
    EXPECT_EQ(registers.text(Reg::FidShift), "15\n");
    EXPECT_EQ(registers.text(Reg::FidDone), "1\n");
}

TEST(RegisterFile, TakesNumbersInEveryBase) {
    EXPECT_THAT(RegisterFile::parse(Reg::FftZeros, "64529"), Optional(64'529U));
    EXPECT_THAT(RegisterFile::parse(Reg::FftZeros, "0xFC11\n"), Optional(64'529U));
    EXPECT_THAT(RegisterFile::parse(Reg::FidShift, "017"), Optional(15U));
}

TEST(RegisterFile, TakesTheBitPatternOfASignedWord) {
    EXPECT_THAT(RegisterFile::parse(Reg::PidITerm, "4294967295"), Optional(0xFFFF'FFFFU));
    EXPECT_THAT(RegisterFile::parse(Reg::PidITerm, "-1"), Optional(0xFFFF'FFFFU));
    EXPECT_EQ(RegisterFile::parse(Reg::PidITerm, "4294967296"), std::nullopt);
    EXPECT_EQ(RegisterFile::parse(Reg::FidShift, "-1"), std::nullopt);
}

TEST(RegisterFile, KeepsTheBitsThatExist) {
    EXPECT_THAT(RegisterFile::parse(Reg::FidShift, "255"), Optional(31U));
    EXPECT_THAT(RegisterFile::parse(Reg::PidSetPointHigh, "0xFFFFFFFF"), Optional(0xFFFFU));
    EXPECT_EQ(RegisterFile::parse(Reg::FidShift, "256"), std::nullopt);
    EXPECT_EQ(RegisterFile::parse(Reg::MainReset, "2"), std::nullopt);
}

TEST(RegisterFile, RefusesWhatIsNoNumber) {
    for (char const* text : {"", "\n", "x", "1x", "1 2", "0x", "99999999999999999999"}) {
        EXPECT_EQ(RegisterFile::parse(Reg::DacData, text), std::nullopt) << text;
    }
    EXPECT_EQ(RegisterFile::parse(Reg::DacData, std::string_view("1\0", 2)), std::nullopt);
}

TEST(RegisterFile, PutsTwoWordsTogether) {
    RegisterFile registers;
    registers.set(Reg::PidSetPointHigh, 0xFFFF);
    registers.set(Reg::PidSetPointLow, 0xFFFF'FFFE);
    EXPECT_EQ(registers.getSigned48(Reg::PidSetPointHigh, Reg::PidSetPointLow), -2);
    registers.set(Reg::PidSetPointHigh, 1);
    registers.set(Reg::PidSetPointLow, 2);
    EXPECT_EQ(registers.getSigned48(Reg::PidSetPointHigh, Reg::PidSetPointLow), 4'294'967'298);
    registers.set(Reg::PidOutputOffset, 0xC0'0000);
    EXPECT_EQ(registers.getSigned(Reg::PidOutputOffset), -4'194'304);
}

} // namespace
