// SPDX-License-Identifier: Apache-2.0
// The lock hardware on files in memory: what is opened in which order, the transmitter's words, the wait for
// an interrupt, and what a program's loading may end with.
#include "lock/hardware/LockQ47Hardware.h"
#include "support/ExpectThrow.h"
#include "support/FakeBackend.h"
#include "support/FakeRegisterTree.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <velmor/q47/mainboarddaemon/MainboardInterface.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace libfieldwarden::test {

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using velmor::q47::mainboarddaemon::MainboardInterface;

/// A main board that writes down what it is asked.
class RecordingMainboard final : public MainboardInterface {
public:
    void setStatusLed(int /*aColour*/) override { add("setStatusLed"); }
    void setTxEnable(unsigned int aChannel, bool aOn) override {
        add(fmt::format("setTxEnable({}, {})", aChannel, aOn));
    }
    std::uint32_t txFrequencyWord(unsigned int aChannel) override {
        add(fmt::format("txFrequencyWord({})", aChannel));
        return frequencyWord;
    }
    void setTxFrequencyWord(unsigned int aChannel, std::uint32_t aWord) override {
        add(fmt::format("setTxFrequencyWord({}, {})", aChannel, aWord));
        frequencyWord = aWord;
    }
    void setTxAmplitudeWord(std::uint32_t aWord) override {
        add(fmt::format("setTxAmplitudeWord({})", aWord));
    }

    std::vector<std::string> calls;
    std::uint32_t frequencyWord = 0;
    std::string failing; ///< A call that begins so fails.

private:
    void add(std::string aCall) {
        calls.push_back(aCall);
        if (!failing.empty() && aCall.starts_with(failing)) {
            throw std::runtime_error("no main board");
        }
    }
};

std::string at(std::string_view aRegister) {
    return std::string(kLockRegisterRoot).append(aRegister);
}

class LockQ47HardwareTest : public testing::Test {
protected:
    LockQ47HardwareTest() {
        mBackend->instrumentPathDoor = [this](std::filesystem::path const& aPath) {
            return aPath.is_absolute() ? mDirectory.path() / aPath.relative_path() : aPath;
        };
        mTree->takeJournal();
        mLog.clear();
    }

    std::unique_ptr<LockQ47Hardware> make() { return std::make_unique<LockQ47Hardware>(mBoard, mTree); }
    std::vector<CapturedLine> ownLines() const { return mLog.linesOf("LockQ47Hardware"); }

    /// Loads a program of 12 bytes.
    void load() {
        writeFile(mDirectory.path() / "lock/memory.bin", std::string("twelve bytes", 12));
        mHardware.loadProgram("/lock/memory.bin");
    }

    /// Has the sequencer refuse every program.
    void refuseWith(int aCode) {
        mTree->put(at("status/seq_error"), "1\n");
        mTree->put(at("status/seq_error_code"), std::to_string(aCode) + "\n");
    }

    TemporaryDirectory mDirectory;
    FakeBackendScope mBackend;
    std::shared_ptr<RecordingMainboard> mBoard = std::make_shared<RecordingMainboard>();
    std::shared_ptr<FakeRegisterTree> mTree = FakeRegisterTree::whole();
    LogCapture mLog;
    LockQ47Hardware mHardware{mBoard, mTree};
};

/// The groups in which registers are made.
int groupOf(std::string_view aRegister) {
    static constexpr std::array<std::string_view, 5> kGroups{"status/", "data/", "pid/", "log/", "control/"};
    if (aRegister == "pid/enable_scaler") {
        return 5;
    }
    if (aRegister == "data/fid_max_slice") {
        return 6;
    }
    for (std::size_t group = 0; group < kGroups.size(); ++group) {
        if (aRegister.starts_with(kGroups[group])) {
            return static_cast<int>(group);
        }
    }
    return 7; // the masks
}

} // namespace

// --- making it

TEST_F(LockQ47HardwareTest, TestsItsFilesGroupAfterGroupAndTouchesNothing) {
    std::vector<std::string> expected;
    for (int group = 0; group <= 7; ++group) {
        for (auto const& each : kLockRegisterFiles) {
            if (groupOf(each.path) == group) {
                for (std::string const& path : pathsOf(each)) {
                    expected.push_back("test " + path);
                }
            }
        }
    }
    ASSERT_EQ(expected.size(), 81U); // 78 registers, 3 of them in two files
    auto const made = make();
    std::vector<std::string> tested;
    for (std::string const& each : mTree->takeJournal()) {
        ASSERT_THAT(each, testing::StartsWith("test "));
        if (!each.starts_with("test writing") &&
            std::find(tested.begin(), tested.end(), each) == tested.end()) {
            tested.push_back(each);
        }
    }
    EXPECT_EQ(tested, expected);
    EXPECT_THAT(mBoard->calls, IsEmpty());
}

TEST_F(LockQ47HardwareTest, NeedsEveryFile) {
    for (auto const& each : kLockRegisterFiles) {
        for (std::string const& path : pathsOf(each)) {
            mTree->remove(path);
            expectThrow<std::invalid_argument>([&] { make(); },
                                               "Cannot open register file at path '" + path + "'");
            mTree->put(path, "0\n");
        }
    }
    EXPECT_NO_THROW(make());
}

TEST_F(LockQ47HardwareTest, NeedsToWriteAllButFourRegisters) {
    std::vector<std::string_view> readOnly;
    for (auto const& each : kLockRegisterFiles) {
        if (!each.writable) {
            readOnly.push_back(each.path);
            continue;
        }
        for (std::string const& path : pathsOf(each)) {
            auto const tree = FakeRegisterTree::whole();
            tree->protect(path);
            expectThrow<std::invalid_argument>([&] { LockQ47Hardware(mBoard, tree); },
                                               "Register file at path '" + path + "' is not writtable.");
        }
    }
    EXPECT_THAT(readOnly, ElementsAre("data/max_slice_position", "data/max_slice_magnitude",
                                      "data/fid_max_slice", "data/phase_correction"));
}

TEST_F(LockQ47HardwareTest, ItsRegistersReachTheirFiles) {
    mTree->put(at("data/max_slice_position"), "65535\n");
    EXPECT_EQ(mHardware.maxSlicePosition()->get(), -1);
    mTree->put(at("data/max_slice_magnitude_high"), "1\n");
    mTree->put(at("data/max_slice_magnitude_low"), "2\n");
    EXPECT_EQ(mHardware.maxSliceMagnitude()->get(), 4294967298);
    mHardware.pidSetPoint()->set(-1);
    EXPECT_EQ(mTree->text(at("pid/setpoint_high")), "4294967295");
    mHardware.dacConfMode()->set(LockHardwareDacConfMode::UsePIDOutput);
    EXPECT_EQ(mTree->text(at("control/dac_conf_mode")), "1");
    mHardware.statusErrorAddress()->clear();
    EXPECT_EQ(mTree->text(at("status/error_address")), "65535");
    mHardware.statusSeqErrorCode()->clear();
    EXPECT_EQ(mTree->text(at("status/seq_error_code")), "255");
    mHardware.irqMaskPidOveflow()->set(true);
    EXPECT_EQ(mTree->text(at("irq/pid_overflow_mask")), "1");
}

TEST_F(LockQ47HardwareTest, WritesNothingWhenItGoes) {
    auto made = make();
    mTree->takeJournal();
    made.reset();
    EXPECT_THAT(mTree->takeJournal(), IsEmpty());
    EXPECT_THAT(mBoard->calls, IsEmpty());
}

// --- transmitter

TEST_F(LockQ47HardwareTest, SetsEnableAmplitudeAndFrequencyInThisOrder) {
    mHardware.setTx(1.0, 1000);
    // 1 Hz is 2^32 / 480 MHz = 8.947848533 words; 1000 mVpp are 16384
    EXPECT_THAT(mBoard->calls,
                ElementsAre("setTxEnable(1, true)", "setTxAmplitudeWord(16384)", "setTxFrequencyWord(1, 9)"));
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Info, "+setTx(freqHz = 1.000000, mVpp = 1000)"),
                                        line(Severity::Debug, "~setTx: freqWord = 0x00000009"),
                                        line(Severity::Debug, "~setTx: ampWord = 0x00004000"),
                                        line(Severity::Debug, "-setTX")));
}

TEST_F(LockQ47HardwareTest, NothingIsSetAsNothingButTheChannelIsOn) {
    mHardware.setTx(0.0, 0);
    EXPECT_THAT(mBoard->calls,
                ElementsAre("setTxEnable(1, true)", "setTxAmplitudeWord(0)", "setTxFrequencyWord(1, 0)"));
}

TEST_F(LockQ47HardwareTest, TruncatesTheAmplitude) {
    mHardware.setTx(0.0, 1); // 16.384
    EXPECT_EQ(mBoard->calls.at(1), "setTxAmplitudeWord(16)");
    mBoard->calls.clear();
    mHardware.setTx(0.0, 100); // 1638.4
    EXPECT_EQ(mBoard->calls.at(1), "setTxAmplitudeWord(1638)");
}

TEST_F(LockQ47HardwareTest, RoundsHalvesOfTheFrequencyAwayFromZero) {
    mHardware.setTx(720e6 / 4294967296.0, 0); // 1.5 words
    EXPECT_EQ(mBoard->frequencyWord, 2U);
    mHardware.setTx(1200e6 / 4294967296.0, 0); // 2.5 words
    EXPECT_EQ(mBoard->frequencyWord, 3U);
    mHardware.setTx(240e6, 0);
    EXPECT_EQ(mBoard->frequencyWord, 0x80000000U);
}

TEST_F(LockQ47HardwareTest, AnAbsurdAmplitudeHarmsNothing) {
    mHardware.setTx(0.0, 4294967295U); // 4294967.295 * 16384 = 70368744161.28, of which the low 32 bits
    EXPECT_EQ(mBoard->calls.at(1), "setTxAmplitudeWord(1649267425)"); // 70368744161 - 16 * 2^32
}

TEST_F(LockQ47HardwareTest, GivesTheFrequencyThatTheHardwareHas) {
    mBoard->frequencyWord = 9;
    EXPECT_DOUBLE_EQ(mHardware.getTxFrequency(), 1.0058283805847168); // 9 * 480 MHz / 2^32
    EXPECT_THAT(mBoard->calls, ElementsAre("txFrequencyWord(1)"));
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Debug, "+getTxFrequency"),
                                        line(Severity::Debug, "~getTxFrequency: freqWord = 0x00000009"),
                                        line(Severity::Debug, "-getTxFrequency: 1.005828 Hz")));
}

TEST_F(LockQ47HardwareTest, AMainBoardThatFailsIsTold) {
    mBoard->failing = "setTxAmplitudeWord";
    expectThrow<std::runtime_error>([&] { mHardware.setTx(1.0, 1); }, "no main board");
    EXPECT_EQ(mBoard->calls.size(), 2U); // the frequency is not reached
    mBoard->failing = "txFrequencyWord";
    expectThrow<std::runtime_error>([&] { mHardware.getTxFrequency(); }, "no main board");
}

// --- interrupt

TEST_F(LockQ47HardwareTest, ArmsTheNotificationFileAndWaits) {
    EXPECT_TRUE(mHardware.waitForIRQ(milliseconds(1500)));
    EXPECT_THAT(mTree->takeJournal(), ElementsAre("open /sys/class/misc/seqlock/irq/irq_notification",
                                                  "arm 100", "wait 1 s 500000 us", "close notification"));
    EXPECT_THAT(ownLines(),
                ElementsAre(line(Severity::Trace, "+waitForIRQ"),
                            line(Severity::Trace, "~waitForIRQ: reading from file before being able to wait"),
                            line(Severity::Trace, "~waitForIRQ: select"),
                            line(Severity::Trace, "~waitForIRQ: gotIt = 1")));
}

TEST_F(LockQ47HardwareTest, SplitsTheTimeIntoSecondsAndMicroseconds) {
    for (auto const& [time, wait] : std::vector<std::pair<int, std::string>>{{0, "wait 0 s 0 us"},
                                                                             {1, "wait 0 s 1000 us"},
                                                                             {999, "wait 0 s 999000 us"},
                                                                             {1000, "wait 1 s 0 us"},
                                                                             {30'001, "wait 30 s 1000 us"}}) {
        mHardware.waitForIRQ(milliseconds(time));
        EXPECT_EQ(mTree->takeJournal().at(2), wait);
    }
}

TEST_F(LockQ47HardwareTest, SilenceIsNoInterrupt) {
    mTree->onWait([] { return FakeRegisterTree::Wait{0, 0}; });
    EXPECT_FALSE(mHardware.waitForIRQ(milliseconds(0)));
    EXPECT_TRUE(mLog.has(Severity::Trace, "~waitForIRQ: gotIt = 0"));
}

TEST_F(LockQ47HardwareTest, AFailedWaitIsToldAndClosesTheFile) {
    for (int const number : {EINTR, EBADF}) { // a signal, too
        mLog.clear();
        mTree->onWait([number] { return FakeRegisterTree::Wait{-1, number}; });
        expectThrow<std::runtime_error>([&] { mHardware.waitForIRQ(milliseconds(10)); },
                                        "Failed to wait for IRQ");
        EXPECT_THAT(mTree->takeJournal(),
                    ElementsAre(testing::_, "arm 100", "wait 0 s 10000 us", "close notification"));
        EXPECT_TRUE(mLog.has(Severity::Error,
                             "~waitForIRQ: select call failed with errno is " + std::to_string(number)));
    }
}

TEST_F(LockQ47HardwareTest, AMissingNotificationFileIsTold) {
    mTree->remove(at("irq/irq_notification"));
    expectThrow<std::runtime_error>([&] { mHardware.waitForIRQ(milliseconds(10)); },
                                    "Cannot wait for IRQ: could not open the irq_notification file");
    EXPECT_THAT(ownLines(),
                ElementsAre(line(Severity::Trace, "+waitForIRQ"),
                            line(Severity::Error, "-waitForIRQ: failed to open thte irq_notification file")));
}

// --- memories

TEST_F(LockQ47HardwareTest, CopiesTheProgramToTheDeviceAndAsksForErrors) {
    load();
    EXPECT_THAT(mTree->takeJournal(), ElementsAre("open /dev/seqlock", "load /dev/seqlock 12 bytes",
                                                  "read /sys/class/misc/seqlock/status/seq_instr_mem_error",
                                                  "read /sys/class/misc/seqlock/status/seq_error"));
    EXPECT_EQ(mTree->text("/dev/seqlock"), "twelve bytes");
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Debug, "+loadProgram(path='/lock/memory.bin')")));
}

TEST_F(LockQ47HardwareTest, TakesAnyContentAsAProgram) {
    std::string image;
    for (int i = 0; i < 70'000; ++i) {
        image += static_cast<char>(i);
    }
    writeFile(mDirectory.path() / "lock/memory.bin", image);
    mHardware.loadProgram("/lock/memory.bin");
    EXPECT_TRUE(mTree->text("/dev/seqlock") == image); // too long to be shown
    writeFile(mDirectory.path() / "lock/memory.bin", "");
    EXPECT_NO_THROW(mHardware.loadProgram("/lock/memory.bin"));
}

TEST_F(LockQ47HardwareTest, NamesAProgramThatIsMissingAsItWasAskedFor) {
    expectThrow<std::runtime_error>([&] { mHardware.loadProgram("/lock/memory.bin"); },
                                    "Could not open input file '/lock/memory.bin'");
    expectThrow<std::runtime_error>([&] { mHardware.loadProgram(""); }, "Could not open input file ''");
    EXPECT_THAT(mTree->takeJournal(), IsEmpty());
}

TEST_F(LockQ47HardwareTest, NeedsTheDeviceOfThePrograms) {
    mTree->remove("/dev/seqlock");
    expectThrow<std::runtime_error>([&] { load(); }, "Could not open output file /dev/seqlock");
    EXPECT_THAT(mTree->takeJournal(), ElementsAre("open /dev/seqlock"));
}

TEST_F(LockQ47HardwareTest, TellsOfAnIllegalAccessToTheMemory) {
    mTree->put(at("status/seq_instr_mem_error"), "1\n");
    refuseWith(1); // not asked for any more
    expectThrow<std::runtime_error>([&] { load(); },
                                    "Failed to load the lock program: illegal memory instruction access");
    EXPECT_EQ(ownLines().back(),
              line(Severity::Error,
                   "-loadProgram: failed, seqinstrmemaccesserror is set after loading the program"));
    EXPECT_FALSE(mLog.has(Severity::Warning, "Sequencer Error bit is set"));
}

TEST_F(LockQ47HardwareTest, TellsOfAnErrorWithoutACode) {
    refuseWith(0);
    expectThrow<std::runtime_error>([&] { load(); }, "Failed to load the lock program.");
    EXPECT_THAT(ownLines(),
                ElementsAre(line(Severity::Debug, "+loadProgram(path='/lock/memory.bin')"),
                            line(Severity::Warning, "Sequencer Error bit is set"),
                            line(Severity::Trace, "Status seq error code is now NO ERROR (0)"),
                            line(Severity::Error, "Sequencer Error bit is set but error code is NO_ERROR")));
}

TEST_F(LockQ47HardwareTest, TellsTheSequencersError) {
    for (auto const& [code, words] :
         std::vector<std::pair<int, std::string>>{{1, "INSTRUCTION SET VERSION MISMATCH (1)"},
                                                  {2, "INVALID OP CODE (2)"},
                                                  {3, "JUMP ADDRESS OUT OF RANGE (3)"}}) {
        mLog.clear();
        refuseWith(code);
        expectThrow<std::runtime_error>([&] { load(); }, "Failed to load the lock program: " + words);
        EXPECT_THAT(
            ownLines(),
            ElementsAre(
                line(Severity::Debug, "+loadProgram(path='/lock/memory.bin')"),
                line(Severity::Warning, "Sequencer Error bit is set"),
                line(Severity::Trace, "Status seq error code is now " + words),
                line(Severity::Error,
                     "-loadProgram: sequencer is in error after having loaded the program. Error is " +
                         words)));
    }
}

TEST_F(LockQ47HardwareTest, TellsAnErrorThatItDoesNotKnow) {
    for (auto const& [code, rendered, hexadecimal] : std::vector<std::tuple<int, std::string, std::string>>{
             {4, "", "0x04"}, {171, "", "0xAB"}, {255, "ALL_FOR_CLEAR", "0xFF"}}) {
        mLog.clear();
        refuseWith(code);
        expectThrow<std::runtime_error>([&] { load(); },
                                        "Failed to load the lock program: unknown error has been reported");
        EXPECT_TRUE(mLog.has(Severity::Trace, "Status seq error code is now " + rendered));
        EXPECT_EQ(ownLines().back(),
                  line(Severity::Error, "-loadProgram: unknown sequencer error code (" + hexadecimal + ")"));
    }
}

TEST_F(LockQ47HardwareTest, AStatusThatCannotBeReadEndsTheLoading) {
    mTree->put(at("status/seq_error"), "\n");
    expectThrow<std::invalid_argument>([&] { load(); }, "Cannot convert value '' to boolean");
}

TEST_F(LockQ47HardwareTest, CopiesTheWindowToItsDevice) {
    std::istringstream window(std::string("\x01\0\xFF", 3));
    mHardware.loadWindow(window);
    EXPECT_EQ(mTree->text("/dev/seqlock-window"), std::string("\x01\0\xFF", 3));
    EXPECT_THAT(mTree->takeJournal(),
                ElementsAre("open /dev/seqlock-window", "load /dev/seqlock-window 3 bytes"));
    EXPECT_THAT(ownLines(), ElementsAre(line(Severity::Debug, "+loadWindow")));
}

TEST_F(LockQ47HardwareTest, AWindowThatNobodyTakesIsNotTold) {
    mTree->remove("/dev/seqlock-window");
    std::istringstream window("coefficients");
    EXPECT_NO_THROW(mHardware.loadWindow(window));
    std::istringstream nothing;
    mTree->put("/dev/seqlock-window", "");
    EXPECT_NO_THROW(mHardware.loadWindow(nothing));
}

} // namespace libfieldwarden::test
