// SPDX-License-Identifier: Apache-2.0
// What happens to the temperature board around an update of its firmware.
#include "TempBoardFixture.h"

#include "support/TemporaryDirectory.h"
#include "support/TestNode.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::expectThrow;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::line;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::ScriptedTempBoard;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TempBoardTest;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::TestNode;
using libfieldwarden::test::writeFile;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class TempBoardFirmwareTest : public TempBoardTest {};

// ----------------------------------------------------------------------------------------- before an update

TEST_F(TempBoardFirmwareTest, KeepsNothingAndEndsHeatingAndGasBeforeAnUpdate) {
    mNode->set(0x3401, 5, 1);
    mBoard->setProbeGasFlow(2);
    calls();
    mLog.clear();
    mBoard->preFirmwareUpdate(true);
    EXPECT_THAT(calls(), ElementsAre("readUInt8 3401:05",
                                     "writeInt32 3304:01 19000", // 292.15 K are 19 degrees Celsius
                                     "writeUInt8 3303:02 0", "writeUInt8 3301:02 0", "writeUInt16 3302:01 0",
                                     "writeUInt8 3303:03 0"));
    EXPECT_THAT(
        mLog.lines(),
        ElementsAre(line(Severity::Trace, "Saving values for index 0x3010 before firmware upgrade"),
                    line(Severity::Trace, "Saving values for index 0x3110 before firmware upgrade"),
                    line(Severity::Trace, "Saving values for index 0x3210 before firmware upgrade"),
                    line(Severity::Debug, "Reading VT mode from hardware"),
                    line(Severity::Info, "VT mode is currently: 1"), line(Severity::Error, "+ATHardPowerOff"),
                    line(Severity::Info, "Set probe temperature regulation to enabled = 0"),
                    line(Severity::Info, "Set probe gas heating spiral regulation enabled to 0"),
                    line(Severity::Info, "Set probe gas heating spiral power to 0 Watt"),
                    line(Severity::Debug, "setProbeGasFlow(flowIndex = 0)")));
}

TEST_F(TempBoardFirmwareTest, HasNothingToEndWithoutTheATOption) {
    mNode->set(0x3401, 5, 0);
    mBoard->preFirmwareUpdate(true);
    EXPECT_THAT(calls(), ElementsAre("readUInt8 3401:05"));
    EXPECT_THAT(mLog.linesUpTo(Severity::Error), IsEmpty());
}

TEST_F(TempBoardFirmwareTest, LeavesAStoppedBoardAlone) {
    mBoard->preFirmwareUpdate(false);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(mLog.lines(), IsEmpty());
}

constexpr char const* kStillContinue =
    "Failed to check if hasAT or to perform the ATHardPowerOff, still continue with firmware update";

TEST_F(TempBoardFirmwareTest, GoesOnWhenTheVTModeCannotBeRead) {
    mNode->fail(0x3401, 5, "node 7 does not answer");
    mBoard->preFirmwareUpdate(true);
    EXPECT_THAT(mLog.linesUpTo(Severity::Error), ElementsAre(line(Severity::Error, kStillContinue)));
}

TEST_F(TempBoardFirmwareTest, GoesOnWhenTheBoardReportsAVTModeThatNobodyKnows) {
    mNode->set(0x3401, 5, 77);
    mBoard->preFirmwareUpdate(true);
    EXPECT_THAT(mLog.linesUpTo(Severity::Error),
                ElementsAre(line(Severity::Error, "Unknown value for the VT mode (0x3401, 0x05): 0x4D"),
                            line(Severity::Error, kStillContinue)));
}

TEST_F(TempBoardFirmwareTest, GoesOnWhenHeatingAndGasCannotBeEnded) {
    know(VTMode::PortExpander);
    mNode->fail(0x3302, 1, "node 7 does not answer");
    mBoard->setProbeGasFlow(2);
    calls();
    mLog.clear();
    mBoard->preFirmwareUpdate(true);
    EXPECT_THAT(calls(), ElementsAre("writeInt32 3304:01 19000", "writeUInt8 3303:02 0",
                                     "writeUInt8 3301:02 0", "writeUInt16 3302:01 0"));
    EXPECT_THAT(mLog.linesUpTo(Severity::Error),
                ElementsAre(line(Severity::Error, "+ATHardPowerOff"), line(Severity::Error, kStillContinue)));
}

TEST_F(TempBoardFirmwareTest, GoesOnWhateverIsThrown) {
    know(VTMode::PortExpander);
    mNode->onAccess(0x3304, 1, [] { throw 42; });
    mBoard->preFirmwareUpdate(true);
    EXPECT_TRUE(mLog.has(Severity::Error, kStillContinue));
}

TEST_F(TempBoardFirmwareTest, GoesOnWhenItDoesNotLiveInASharedPointer) {
    ScriptedTempBoard board(mNode, mMaster);
    board.setVTMode(VTMode::Prototype);
    calls();
    board.preFirmwareUpdate(true);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_TRUE(mLog.has(Severity::Error, kStillContinue));
}

// ------------------------------------------------------------------------------------------ after an update

TEST_F(TempBoardFirmwareTest, RestoresNothingAndLooksAtTheParametersWhenTheDataAreThere) {
    mNode->set(0x3201, 6, 128);
    mNode->set(0x3401, 1, 3);
    mBoard->postFirmwareUpdate();
    EXPECT_THAT(calls(), ElementsAre("readUInt16 3201:06", "readUInt8 3401:01"));
    EXPECT_THAT(
        lines(),
        ElementsAre(line(Severity::Trace, "Restoring values for index 0x3010 after firmware upgrade"),
                    line(Severity::Trace, "Restoring values for index 0x3110 after firmware upgrade"),
                    line(Severity::Trace, "Restoring values for index 0x3210 after firmware upgrade"),
                    line(Severity::Debug, "checking/waiting for data from interface board to be ready"),
                    line(Severity::Trace, "IF board data read status (0x3201/0x06) is 128"),
                    line(Severity::Info, "data from interface board ready is 1")));
}

TEST_F(TempBoardFirmwareTest, WarnsOfParametersThatAreNotTheDefaultOnes) {
    mNode->set(0x3201, 6, 65535);
    mNode->set(0x3401, 1, 4);
    mBoard->postFirmwareUpdate();
    EXPECT_THAT(
        mLog.linesUpTo(Severity::Warning),
        ElementsAre(line(Severity::Warning,
                         "Default PID parameters status is 4 but 3 was expected: but doing nothing")));
}

TEST_F(TempBoardFirmwareTest, PassesOnThatTheNewFirmwareDoesNotAnswer) {
    mNode->fail(0x3201, 6, "node 7 does not answer");
    expectThrow<std::runtime_error>([&] { mBoard->postFirmwareUpdate(); }, "node 7 does not answer");
}

TEST_F(TempBoardFirmwareTest, GivesTheDataTheirTimeAndSkipsTheParametersWithoutThem) {
    mNode->set(0x3201, 6, 127);
    auto const begin = mClock->now();
    auto updated = std::async(std::launch::async, [&] { mBoard->postFirmwareUpdate(); });
    // 80 pauses of 0.25 s end at 20 s, which is not beyond them; the 81st does.
    for (int pause = 1; pause <= 81; ++pause) {
        EXPECT_EQ(mClock->advanceToNextDeadline(), 250ms) << pause;
    }
    updated.get();
    EXPECT_EQ(mClock->now() - begin, 20250ms);
    auto const accesses = calls();
    EXPECT_THAT(accesses, SizeIs(82));
    EXPECT_THAT(accesses, Each("readUInt16 3201:06"));
    EXPECT_THAT(
        mLog.linesUpTo(Severity::Info),
        ElementsAre(line(Severity::Critical,
                         "After 20s the data from the Interface Board have not been read, status is still "
                         "0x007F"),
                    line(Severity::Info, "data from interface board ready is 0")));
}

TEST_F(TempBoardFirmwareTest, WaitsUntilTheDataAreThere) {
    mNode->set(0x3201, 6, 0);
    auto ready = std::async(std::launch::async, [&] { return mBoard->waitForDataFromInterfaceBoard(); });
    mClock->awaitWaiters(1);
    mNode->set(0x3201, 6, 200);
    mClock->advance(250ms);
    EXPECT_TRUE(ready.get());
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug,
                                          "checking/waiting for data from interface board to be ready"),
                                     line(Severity::Trace, "IF board data read status (0x3201/0x06) is 0"),
                                     line(Severity::Trace, "IF board data read status (0x3201/0x06) is 200"),
                                     line(Severity::Info, "data from interface board ready is 1")));
}

// --------------------------------------------------------------------------------------------- on the bus

/// A board that answers on a bus, with a bootloader.
class TempBoardOnTheBus : public testing::Test {
protected:
    TempBoardOnTheBus() {
        mNode.set32({0x1000, 0}, 0x00020192);
        mNode.set8({0x1F51, 1}, 1);
        mNode.set32({0x1F56, 1}, 123);
        mNode.set32({0x1F57, 1}, 0);
        mNode.setText({0x200B, 1}, "Q47-VT");
        mNode.setText({0x2200, 1}, "<record/>");
        mNode.set16({0x3201, 6}, 128);
        mNode.set16({0x3302, 1}, 0);
        mNode.set8({0x3301, 2}, 1);
        mNode.set8({0x3303, 2}, 1);
        mNode.set8({0x3303, 3}, 2);
        mNode.set32({0x3304, 1}, 0);
        mNode.set32({0x3304, 4}, 5000);   // 278.15 K
        mNode.set32({0x3304, 6}, 126850); // 400 K
        mNode.set8({0x3401, 1}, 3);
        mNode.set8({0x3401, 5}, 2);
        mNode.onWrite({0x1F51, 1}, [this](TestNode::Bytes const& aData) {
            mNode.set8({0x1F51, 1}, aData.at(0) == 1 ? 1 : 0);
            if (aData.at(0) == 1) {
                mNode.sendBootUp();
            }
            return std::uint32_t{0};
        });
        mNode.onWrite({0x1F50, 1}, [this](TestNode::Bytes const&) {
            mNode.set32({0x1F56, 1}, 124);
            return std::uint32_t{0};
        });
    }

    std::string path(std::string const& aFile) const { return (mFolder.path() / aFile).string(); }

    LogCapture mLog;
    HandClockScope mClock;
    TemporaryDirectory mFolder;
    velmor::kepla::canopen::InProcessBus mBus;
    std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> mMaster =
        std::make_shared<velmor::kepla::canopen::CanOpenMaster>(mBus.open("can0"), std::uint8_t{1});
    TestNode mNode{mBus, 7};
    std::shared_ptr<TempBoardQ47> mBoard = std::make_shared<TempBoardQ47>(
        mMaster, nullptr, mFolder.path().string(), static_cast<unsigned char>(7));
};

TEST_F(TempBoardOnTheBus, IsPreparedWithItsStaticValues) {
    mBoard->prepare();
    auto const [lower, upper] = mBoard->probeGasRegulatedTemperatureRange();
    EXPECT_DOUBLE_EQ(lower, 278.15);
    EXPECT_DOUBLE_EQ(upper, 400.0);
    EXPECT_EQ(mBoard->mds(), "<record/>");
    mBoard->setProbeGasFlow(2); // the one that the board has
    EXPECT_THAT(mNode.writes(), IsEmpty());
}

TEST_F(TempBoardOnTheBus, LooksForItsFirmwareInTheFolderOfTheFirmware) {
    writeFile(path("build.info"), "jenkins_build_id=124\n");
    try {
        mBoard->prepare();
        ADD_FAILURE() << "nothing was thrown";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("'" + path("Q47_VT_CAN_update.bin.gz") + "'"));
    }
}

TEST_F(TempBoardOnTheBus, EndsHeatingAndGasBeforeItsProgramIsStopped) {
    // "temperature board", compressed.
    constexpr std::array<unsigned char, 37> kImage{0x1F, 0x8B, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x03,
                                                   0x2B, 0x49, 0xCD, 0x2D, 0x48, 0x2D, 0x4A, 0x2C, 0x29, 0x2D,
                                                   0x4A, 0x55, 0x48, 0xCA, 0x4F, 0x2C, 0x4A, 0x01, 0x00, 0x5F,
                                                   0x7C, 0x56, 0x68, 0x11, 0x00, 0x00, 0x00};
    writeFile(path("build.info"), "jenkins_build_id=124\n");
    writeFile(path("Q47_VT_CAN_update.bin.gz"), std::string(kImage.begin(), kImage.end()));
    mBoard->setProbeGasFlow(2);
    mBoard->prepare();

    std::vector<std::string> written;
    for (auto const& object : mNode.writes()) {
        written.push_back(fmt::format("{:04X}:{}", object.index, object.subindex));
    }
    EXPECT_THAT(written, ElementsAre("3303:3",                                         // before prepare()
                                     "3304:1", "3303:2", "3301:2", "3302:1", "3303:3", // made safe
                                     "1F51:1", "1F51:1", "1F50:1", "1F51:1")); // stop, clear, image, start
    EXPECT_EQ(mBoard->firmwareJenkinsBuildID(), 124U);
    EXPECT_TRUE(mLog.has(Severity::Info, "data from interface board ready is 1"));
    EXPECT_TRUE(mLog.has(Severity::Info, "afterPrepare: reading static values once from the board"));
}

} // namespace
