// SPDX-License-Identifier: Apache-2.0
// Registers on real files: every form of text that is taken, every one that is refused with its words, and
// what is written.
#include "lock/hardware/LockQ47HardwareRegister.h"
#include "support/ExpectThrow.h"
#include "support/FakeRegisterTree.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/WithoutPrivilege.h"

#include <velmor/q47/seqlock/PosixSeqlockDriver.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <rapidcheck/gtest.h>

namespace libfieldwarden::test {

namespace {

using testing::ElementsAre;
using velmor::q47::seqlock::PosixSeqlockDriver;

/// Beyond what any parser of numbers takes.
constexpr char const* kHuge = "99999999999999999999999";

std::string dumpOf(LockHardwareRegisterBase const& aRegister) {
    std::ostringstream stream;
    aRegister.dump(stream);
    return stream.str();
}

/// A folder of register files.
class RegisterTest : public testing::Test {
protected:
    void put(std::string const& aText, std::string const& aFile = "reg") const {
        writeFile(mTree.path() / aFile, aText);
    }
    std::string text(std::string const& aFile = "reg") const { return readFile(mTree.path() / aFile); }

    template <typename Register>
    Register make() const {
        return Register("data/reg", "/reg", mDriver);
    }

    /// What a register of the type makes of a file.
    template <typename Register>
    auto valueOf(std::string const& aText) const {
        put(aText);
        return make<Register>().get();
    }

    /// Holds the refusal of a file to its type and words.
    template <typename Register, typename Exception = std::invalid_argument>
    void expectRefused(std::string const& aText, std::string const& aWords) const {
        SCOPED_TRACE(aText);
        put(aText);
        auto const refused = make<Register>();
        expectThrow<Exception>([&] { refused.get(); }, aWords);
    }

    TemporaryDirectory mTree;
    std::shared_ptr<PosixSeqlockDriver> mDriver = std::make_shared<PosixSeqlockDriver>(mTree.path());
};

using Bool = LockQ47HardwareRegister<bool>;
using Uint8 = LockQ47HardwareRegister<std::uint8_t>;
using Uint16 = LockQ47HardwareRegisterClearable<std::uint16_t>;
using Int16 = LockQ47HardwareRegisterClearable<std::int16_t>;
using Uint32 = LockQ47HardwareRegister<std::uint32_t>;
using Int32 = LockQ47HardwareRegister<std::int32_t>;

template <typename Register>
class NumberRegister : public RegisterTest {};
using NumberRegisters = testing::Types<Uint8, Uint16, Int16, Uint32, Int32>;
TYPED_TEST_SUITE(NumberRegister, NumberRegisters, );

} // namespace

// --- text into value

TYPED_TEST(NumberRegister, TakesDecimalHexadecimalAndOctalNumbers) {
    EXPECT_EQ(this->template valueOf<TypeParam>("0\n"), 0);
    EXPECT_EQ(this->template valueOf<TypeParam>("16\n"), 16);
    EXPECT_EQ(this->template valueOf<TypeParam>("0x10\n"), 16);
    EXPECT_EQ(this->template valueOf<TypeParam>("0X1f"), 31);
    EXPECT_EQ(this->template valueOf<TypeParam>("010\n"), 8);
    EXPECT_EQ(this->template valueOf<TypeParam>("+7"), 7);
}

TYPED_TEST(NumberRegister, IgnoresWhatStandsBehindTheNumber) {
    EXPECT_EQ(this->template valueOf<TypeParam>("7\n\n"), 7);
    EXPECT_EQ(this->template valueOf<TypeParam>("7 volts"), 7);
    EXPECT_EQ(this->template valueOf<TypeParam>("12x"), 12);
    EXPECT_EQ(this->template valueOf<TypeParam>("08"), 0); // no octal digit
    EXPECT_EQ(this->template valueOf<TypeParam>("0x"), 0);
    EXPECT_EQ(this->template valueOf<TypeParam>(std::string("5\0\xFF", 3)), 5);
}

TEST_F(RegisterTest, ABoolTakesFourTexts) {
    EXPECT_TRUE(valueOf<Bool>("1\n"));
    EXPECT_TRUE(valueOf<Bool>("0x1"));
    EXPECT_FALSE(valueOf<Bool>("0"));
    EXPECT_FALSE(valueOf<Bool>("0x0\n"));
}

TEST_F(RegisterTest, ABoolRefusesAllElse) {
    for (char const* const text : {"2", "00", "01", "0x01", "true", " 1", "1 ", "-1", kHuge}) {
        expectRefused<Bool>(text, std::string("Cannot convert value '") + text + "' to boolean");
    }
    expectRefused<Bool>("", "Cannot convert value '' to boolean");
    expectRefused<Bool>("\n", "Cannot convert value '' to boolean");
}

TEST_F(RegisterTest, OneNewlineIsRemovedAndNoMore) {
    expectRefused<Bool>("1\n\n", "Cannot convert value '1\n' to boolean");
    expectRefused<Bool>("1\r\n", "Cannot convert value '1\r' to boolean");
}

TEST_F(RegisterTest, AByteEndsBelow256) {
    EXPECT_EQ(valueOf<Uint8>("255"), 255);
    EXPECT_EQ(valueOf<Uint8>("0xFF"), 255);
    expectRefused<Uint8>("256", "Cannot convert value '256' to uint8_t");
    expectRefused<Uint8>("4294967295", "Cannot convert value '4294967295' to uint8_t");
    expectRefused<Uint8>("-1", "Cannot convert value '-1' to uint8_t"); // wraps to a large number
    expectRefused<Uint8>(kHuge, "Cannot convert value '99999999999999999999999' to uint8_t: overflow");
    expectRefused<Uint8>("abc", "Cannot convert value 'abc' to uint8_t: stoul");
    expectRefused<Uint8>("", "Cannot convert value '' to uint8_t: stoul");
}

TEST_F(RegisterTest, SixteenBitsEndBelow65536AndLetTheParsersOwnWordsOut) {
    EXPECT_EQ(valueOf<Uint16>("65535"), 65535);
    expectRefused<Uint16>("65536", "Cannot convert value '65536' to uint16_t");
    expectRefused<Uint16>("-1", "Cannot convert value '-1' to uint16_t");
    expectRefused<Uint16>("abc", "stoul");
    expectRefused<Uint16>("", "stoul");
    expectRefused<Uint16, std::out_of_range>(kHuge, "stoul");
}

TEST_F(RegisterTest, SignedSixteenBitsAreReadAsTheirPattern) {
    EXPECT_EQ(valueOf<Int16>("32767"), 32767);
    EXPECT_EQ(valueOf<Int16>("32768"), -32768);
    EXPECT_EQ(valueOf<Int16>("65535"), -1);
    expectRefused<Int16>("65536", "Cannot convert value '65536' to int16_t");
    expectRefused<Int16>("-1", "Cannot convert value '-1' to int16_t");
    expectRefused<Int16>("abc", "stoul");
    expectRefused<Int16>("", "stoul");
    expectRefused<Int16, std::out_of_range>(kHuge, "stoul");
}

TEST_F(RegisterTest, ThirtyTwoBitsRefuseASignFirst) {
    EXPECT_EQ(valueOf<Uint32>("4294967295"), 4294967295U);
    EXPECT_EQ(valueOf<Uint32>("0xFFFFFFFF"), 4294967295U);
    expectRefused<Uint32>("-1", "Cannot convert value '-1' to uint32_t: negative number");
    expectRefused<Uint32>("-abc", "Cannot convert value '-abc' to uint32_t: negative number");
    expectRefused<Uint32>("4294967296", "Cannot convert value '4294967296' to uint32_t: overflow");
    expectRefused<Uint32>(kHuge, "Cannot convert value '99999999999999999999999' to uint32_t: overflow");
    expectRefused<Uint32>("abc", "Cannot convert value 'abc' to uint32_t: stoul");
    expectRefused<Uint32>("", "Cannot convert value '' to uint32_t: stoul");
}

TEST_F(RegisterTest, SignedThirtyTwoBitsAreReadWithTheirSign) {
    EXPECT_EQ(valueOf<Int32>("-1\n"), -1);
    EXPECT_EQ(valueOf<Int32>("-0x10"), -16);
    EXPECT_EQ(valueOf<Int32>("2147483647"), 2147483647);
    EXPECT_EQ(valueOf<Int32>("-2147483648"), -2147483647 - 1);
    expectRefused<Int32>("2147483648", "Cannot convert value '2147483648' to int32_t: overflow");
    expectRefused<Int32>("0xFFFFFFFF", "Cannot convert value '0xFFFFFFFF' to int32_t: overflow");
    expectRefused<Int32>(kHuge, "Cannot convert value '99999999999999999999999' to int32_t: overflow");
    expectRefused<Int32>("abc", "Cannot convert value 'abc' to int32_t: stoi");
    expectRefused<Int32>("", "Cannot convert value '' to int32_t: stoi");
}

TEST_F(RegisterTest, AReadOnlyRegisterTakesTheSameTexts) {
    EXPECT_EQ(valueOf<LockQ47HardwareRegisterReadOnly<std::int16_t>>("65535\n"), -1);
    EXPECT_EQ(valueOf<LockQ47HardwareRegisterReadOnly<std::int32_t>>("-5\n"), -5);
    EXPECT_EQ(valueOf<LockQ47HardwareRegisterReadOnly<std::uint32_t>>("0x10\n"), 16U);
}

// --- value into text

TEST_F(RegisterTest, ABoolIsWrittenAsADigit) {
    put("anything");
    auto written = make<Bool>();
    written.set(true);
    EXPECT_EQ(text(), "1");
    written.set(false);
    EXPECT_EQ(text(), "0");
}

TEST_F(RegisterTest, NumbersAreWrittenUnsignedInDecimalWithoutANewline) {
    put("0");
    make<Uint8>().set(255);
    EXPECT_EQ(text(), "255");
    make<Uint16>().set(65535);
    EXPECT_EQ(text(), "65535");
    make<Uint32>().set(4294967295U);
    EXPECT_EQ(text(), "4294967295");
    make<Int32>().set(2147483647);
    EXPECT_EQ(text(), "2147483647");
    make<Int32>().set(-1);
    EXPECT_EQ(text(), "4294967295"); // the bit pattern
    make<Int16>().set(-1);
    EXPECT_EQ(text(), "4294967295"); // widened with its sign, then taken as a pattern
    make<Int16>().set(32767);
    EXPECT_EQ(text(), "32767");
}

TEST_F(RegisterTest, ANegativeNumberCannotBeReadBackFromAPlainFile) {
    put("0");
    auto asymmetric = make<Int32>();
    asymmetric.set(-1);
    expectThrow<std::invalid_argument>([&] { asymmetric.get(); },
                                       "Cannot convert value '4294967295' to int32_t: overflow");
}

RC_GTEST_FIXTURE_PROP(RegisterTest, UnsignedNumbersComeBackAsTheyWereWritten, (std::uint32_t aValue)) {
    put("0");
    auto both = make<Uint32>();
    both.set(aValue);
    RC_ASSERT(both.get() == aValue);
}

TEST_F(RegisterTest, AFailureToWriteIsNotTold) {
    put("0");
    auto lost = make<Uint8>();
    std::filesystem::remove(mTree.path() / "reg");
    std::filesystem::create_directory(mTree.path() / "reg"); // nothing can be written here
    EXPECT_NO_THROW(lost.set(1));
    expectThrow<std::invalid_argument>([&] { lost.get(); }, "Cannot convert value '' to uint8_t: stoul");
}

TEST_F(RegisterTest, ClearingWritesAllOnes) {
    put("0");
    LockQ47HardwareRegisterClearable<bool> flag("data/reg", "/reg", mDriver);
    EXPECT_TRUE(flag.value4clear());
    flag.clear();
    EXPECT_EQ(text(), "1");
    Uint16 word("data/reg", "/reg", mDriver);
    EXPECT_EQ(word.value4clear(), 65535);
    word.clear();
    EXPECT_EQ(text(), "65535");
    Int16 position("data/reg", "/reg", mDriver);
    EXPECT_EQ(position.value4clear(), -1);
    position.clear();
    EXPECT_EQ(text(), "4294967295");
    LockQ47HardwareRegisterCastClearable<LockHardwareSeqErrorCode, std::uint8_t> code("data/reg", "/reg",
                                                                                      mDriver);
    EXPECT_EQ(static_cast<int>(code.value4clear()), 255);
    code.clear();
    EXPECT_EQ(text(), "255");
}

// --- files

TEST_F(RegisterTest, NothingIsKeptBetweenTwoReads) {
    put("1\n");
    auto fresh = make<Uint8>();
    EXPECT_EQ(fresh.get(), 1);
    put("2\n");
    EXPECT_EQ(fresh.get(), 2);
}

TEST_F(RegisterTest, MakingOneTestsTheFileAndLeavesItsText) {
    put("a text\n");
    LockQ47HardwareRegisterClearable<bool> const made("data/reg", "/reg", mDriver);
    EXPECT_EQ(text(), "a text\n");
    EXPECT_EQ(made.name, "data/reg");
    EXPECT_EQ(made.path, "/reg");
}

TEST_F(RegisterTest, AMissingFileIsRefusedWithItsPath) {
    std::string const words = "Cannot open register file at path '/reg'";
    expectThrow<std::invalid_argument>([&] { make<LockQ47HardwareRegisterReadOnly<std::int32_t>>(); }, words);
    expectThrow<std::invalid_argument>([&] { make<Bool>(); }, words);
    expectThrow<std::invalid_argument>([&] { make<Uint16>(); }, words);
    using Cast = LockQ47HardwareRegisterCast<LockHardwareDacConfMode, std::uint8_t>;
    expectThrow<std::invalid_argument>([&] { make<Cast>(); }, words);
}

TEST_F(RegisterTest, AFileThatCannotBeWrittenIsRefusedWithItsPath) {
    put("0\n");
    std::filesystem::permissions(mTree.path(), std::filesystem::perms(0755));
    std::filesystem::permissions(mTree.path() / "reg", std::filesystem::perms(0444));
    WithoutPrivilege const user;
    if (!user.works()) {
        GTEST_SKIP() << "permissions mean nothing here";
    }
    std::string const words = "Register file at path '/reg' is not writtable.";
    expectThrow<std::invalid_argument>([&] { make<Bool>(); }, words);
    expectThrow<std::invalid_argument>([&] { make<Uint16>(); }, words);
    EXPECT_EQ(make<LockQ47HardwareRegisterReadOnly<std::uint32_t>>().get(), 0U);
}

TEST_F(RegisterTest, AFolderInItsPlaceIsNotWritable) {
    std::filesystem::create_directory(mTree.path() / "reg");
    expectThrow<std::invalid_argument>([&] { make<Bool>(); },
                                       "Register file at path '/reg' is not writtable.");
}

// --- log

TEST_F(RegisterTest, TracesEachAccess) {
    put("0x10\n");
    auto traced = make<Uint8>();
    LogCapture const log;
    traced.get();
    traced.set(7);
    EXPECT_THAT(log.lines(),
                ElementsAre(line(Severity::Trace, "get() reg data/reg"),
                            line(Severity::Trace, "~get() reg data/reg, got '0x10' as string to parse"),
                            line(Severity::Trace, "setting reg data/reg to 7")));
}

TEST_F(RegisterTest, SpeaksUnderTheNameOfItsClass) {
    put("0\n");
    LogCapture const log;
    make<LockQ47HardwareRegisterReadOnly<std::uint32_t>>().get();
    make<Uint32>().get();
    make<Uint16>().get();
    auto const lines = log.lines();
    ASSERT_EQ(lines.size(), 6U); // two a read
    EXPECT_EQ(lines[0].name, "LockQ47HardwareRegisterReadOnly");
    EXPECT_EQ(lines[2].name, "LockQ47HardwareRegister");
    EXPECT_EQ(lines[4].name, "LockQ47HardwareReigsterClearable");
    for (auto const& each : lines) {
        EXPECT_EQ(each.category, "Lock");
    }
}

// --- dump

TEST_F(RegisterTest, DumpsNameAndValue) {
    put("1\n");
    EXPECT_EQ(dumpOf(make<Bool>()), "data/reg = 1");
    put("65\n");
    EXPECT_EQ(dumpOf(make<Uint8>()), "data/reg = 65"); // not the letter
    put("65535\n");
    EXPECT_EQ(dumpOf(make<Uint16>()), "data/reg = 65535");
    EXPECT_EQ(dumpOf(make<LockQ47HardwareRegisterReadOnly<std::int16_t>>()), "data/reg = -1");
    put("-12\n");
    EXPECT_EQ(dumpOf(make<Int32>()), "data/reg = -12");
    put("0xFFFFFFFF\n");
    EXPECT_EQ(dumpOf(make<Uint32>()), "data/reg = 4294967295");
}

TEST_F(RegisterTest, AFailingReadEndsADump) {
    put("x\n");
    expectThrow<std::invalid_argument>([&] { dumpOf(make<Bool>()); }, "Cannot convert value 'x' to boolean");
}

// --- enumerations

TEST_F(RegisterTest, AnEnumerationTravelsAsItsNumber) {
    put("1\n");
    LockQ47HardwareRegisterCast<LockHardwareFredSource, std::uint8_t> source("data/reg", "/reg", mDriver);
    EXPECT_EQ(source.get(), LockHardwareFredSource::UsePolynom);
    EXPECT_EQ(dumpOf(source), "data/reg = UsePolynom (1)");
    source.set(LockHardwareFredSource::UseDataReg);
    EXPECT_EQ(text(), "0");
    put("7\n");
    EXPECT_EQ(static_cast<int>(source.get()), 7); // taken as it is
    EXPECT_EQ(dumpOf(source), "data/reg = ");
    put("256\n");
    expectThrow<std::invalid_argument>([&] { source.get(); }, "Cannot convert value '256' to uint8_t");
}

// --- 64 bits

class WideRegisterTest : public testing::Test {
protected:
    WideRegisterTest() {
        mTree->put("/w_high", "1\n");
        mTree->put("/w_low", "2\n");
    }
    LockQ47HardwareRegisterReadOnly<long long> readOnly() const {
        return {"data/w", "/w_high", "/w_low", mTree};
    }
    LockQ47HardwareRegister<long long> readWrite() const { return {"data/w", "/w_high", "/w_low", mTree}; }

    std::shared_ptr<FakeRegisterTree> mTree = std::make_shared<FakeRegisterTree>();
};

TEST_F(WideRegisterTest, JoinsTheHighAndTheLowWordInThisOrder) {
    auto const wide = readOnly();
    mTree->takeJournal();
    EXPECT_EQ(wide.get(), 4294967298); // 1 * 2^32 + 2
    EXPECT_THAT(mTree->takeJournal(), ElementsAre("read /w_high", "read /w_low"));
    EXPECT_EQ(readWrite().get(), 4294967298);
}

TEST_F(WideRegisterTest, ExtendsNoSign) {
    mTree->put("/w_high", "0xFFFF\n");
    mTree->put("/w_low", "0xFFFFFFFF\n");
    EXPECT_EQ(readOnly().get(), 281474976710655); // 2^48 - 1
    mTree->put("/w_high", "0xFFFFFFFF\n");
    EXPECT_EQ(readOnly().get(), -1);
}

TEST_F(WideRegisterTest, WritesTheHighAndTheLowWordInThisOrder) {
    auto wide = readWrite();
    mTree->takeJournal();
    wide.set(4294967298);
    wide.set(-1);
    wide.set(-4294967296); // high word of ones, low word of zeros
    EXPECT_THAT(mTree->takeJournal(),
                ElementsAre("write /w_high 1", "write /w_low 2", "write /w_high 4294967295",
                            "write /w_low 4294967295", "write /w_high 4294967295", "write /w_low 0"));
}

TEST_F(WideRegisterTest, DumpsInDecimal) {
    EXPECT_EQ(dumpOf(readOnly()), "data/w = 4294967298");
    mTree->put("/w_high", "0xFFFFFFFF\n");
    EXPECT_EQ(dumpOf(readWrite()), "data/w = -4294967294"); // -2^32 + 2
}

TEST_F(WideRegisterTest, SpeaksOfItsTwoWords) {
    auto wide = readWrite();
    LogCapture const log;
    wide.get();
    wide.set(3);
    EXPECT_THAT(log.lines(),
                ElementsAre(line(Severity::Trace, "get() reg data/w_high"),
                            line(Severity::Trace, "~get() reg data/w_high, got '1' as string to parse"),
                            line(Severity::Trace, "get() reg data/w_low"),
                            line(Severity::Trace, "~get() reg data/w_low, got '2' as string to parse"),
                            line(Severity::Trace, "setting reg data/w_high to 0"),
                            line(Severity::Trace, "setting reg data/w_low to 3")));
}

TEST_F(WideRegisterTest, NeedsBothFiles) {
    mTree->remove("/w_low");
    expectThrow<std::invalid_argument>([&] { readOnly(); }, "Cannot open register file at path '/w_low'");
    mTree->put("/w_low", "0\n");
    mTree->protect("/w_low");
    EXPECT_NO_THROW(readOnly());
    expectThrow<std::invalid_argument>([&] { readWrite(); },
                                       "Register file at path '/w_low' is not writtable.");
    mTree->remove("/w_high");
    expectThrow<std::invalid_argument>([&] { readWrite(); }, "Cannot open register file at path '/w_high'");
}

TEST_F(WideRegisterTest, ItsWordsAreUnsigned) {
    mTree->put("/w_high", "-1\n");
    auto const wide = readOnly();
    expectThrow<std::invalid_argument>([&] { wide.get(); },
                                       "Cannot convert value '-1' to uint32_t: negative number");
}

RC_GTEST_FIXTURE_PROP(WideRegisterTest, NumbersComeBackAsTheyWereWritten, (long long aValue)) {
    auto wide = readWrite();
    wide.set(aValue);
    RC_ASSERT(wide.get() == aValue);
}

// --- words of the enumerations

namespace {

template <typename Enumeration>
std::string words(Enumeration aValue) {
    std::ostringstream stream;
    stream << aValue;
    return stream.str();
}

template <typename Enumeration>
std::string words(int aNumber) {
    return words(static_cast<Enumeration>(aNumber));
}

} // namespace

TEST(LockHardwareEnums, HaveTheirWords) {
    EXPECT_EQ(words<LockHardwareStreamControl>(0), "Registers (0)");
    EXPECT_EQ(words<LockHardwareStreamControl>(1), "Sequencer (1)");
    EXPECT_EQ(words<LockHardwareFredSource>(0), "UseDataReg (0)");
    EXPECT_EQ(words<LockHardwareFredSource>(1), "UsePolynom (1)");
    EXPECT_EQ(words<LockHardwareDacConfMode>(0), "UseDataReg (0)");
    EXPECT_EQ(words<LockHardwareDacConfMode>(1), "UsePIDOutput (1)");
    EXPECT_EQ(words<LockHardwareSeqErrorCode>(0), "NO ERROR (0)");
    EXPECT_EQ(words<LockHardwareSeqErrorCode>(1), "INSTRUCTION SET VERSION MISMATCH (1)");
    EXPECT_EQ(words<LockHardwareSeqErrorCode>(2), "INVALID OP CODE (2)");
    EXPECT_EQ(words<LockHardwareSeqErrorCode>(3), "JUMP ADDRESS OUT OF RANGE (3)");
    EXPECT_EQ(words<LockHardwareSeqErrorCode>(255), "ALL_FOR_CLEAR");
}

TEST(LockHardwareEnums, AnUndefinedNumberHasNone) {
    EXPECT_EQ(words<LockHardwareStreamControl>(2), "");
    EXPECT_EQ(words<LockHardwareFredSource>(255), "");
    EXPECT_EQ(words<LockHardwareDacConfMode>(2), "");
    EXPECT_EQ(words<LockHardwareSeqErrorCode>(4), "");
}

} // namespace libfieldwarden::test
