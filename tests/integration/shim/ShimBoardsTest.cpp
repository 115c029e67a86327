// SPDX-License-Identifier: Apache-2.0
// Two simulated shim boards and the master that the instrument has, all on the bus within the process, ten
// times faster than real.
#include "simulator/boards/CanNode.h"
#include "simulator/boards/ShimBoard.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "unit/simulator/boards/PackedImage.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/CanOpenNodeClient.h>
#include <velmor/kepla/canopen/CortexMCanOpenNodeClient.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/canopen/SdoError.h>
#include <velmor/platform/ScaledClock.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::CanNode;
using libfieldwarden::sim::ObjectAccess;
using libfieldwarden::sim::ObjectType;
using libfieldwarden::sim::ShimBoard;
using libfieldwarden::sim::SourceError;
using libfieldwarden::test::eventually;
using libfieldwarden::test::ImageBytes;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::PlainImage;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::HasSubstr;
using testing::ThrowsMessage;
using namespace std::chrono_literals;
using namespace velmor::kepla::canopen;

/// Makes a clock the process's, which all that is made later takes.
class ClockScope {
public:
    explicit ClockScope(double aScale)
        : mFormer(velmor::platform::Clock::use(std::make_shared<velmor::platform::ScaledClock>(aScale))) {}
    ~ClockScope() { velmor::platform::Clock::use(mFormer); }
    ClockScope(ClockScope const&) = delete;
    ClockScope& operator=(ClockScope const&) = delete;

private:
    std::shared_ptr<velmor::platform::Clock> mFormer;
};

using Currents = std::array<std::int32_t, ShimBoard::kSources>;

/// Keeps the currents over an update of the firmware.
class ShimClient final : private virtual velmor::kepla::log::Logger, public CortexMCanOpenNodeClient {
public:
    ShimClient(std::shared_ptr<CanOpenMaster> const& aMaster,
               unsigned char aNode,
               std::filesystem::path const& aFirmware)
        : Logger("ShimClient", "Test")
        , CortexMCanOpenNodeClient(aMaster,
                                   aNode,
                                   (aFirmware / "build.info").string(),
                                   (aFirmware / "image.bin.gz").string(),
                                   nullptr) {}

    void preFirmwareUpdate(bool aProgramRuns) override {
        if (aProgramRuns) {
            mKept = currents();
        }
    }
    void postFirmwareUpdate() override { set(mKept); }
    void afterPrepare() override { mPrepared = true; }

    Currents currents() const {
        Currents result{};
        for (std::size_t source = 0; source < result.size(); ++source) {
            result[source] = canopenClient()->readInt32(0x3000, static_cast<std::uint8_t>(source + 1));
        }
        return result;
    }
    void set(Currents const& aCurrents) const {
        canopenClient()->writeBlock(0x3001, 1, aCurrents.data(), sizeof(aCurrents));
    }
    bool prepared() const { return mPrepared; }

private:
    Currents mKept{};
    bool mPrepared = false;
};

class ShimBoardsTest : public testing::Test {
protected:
    void storeFirmware(ImageBytes const& aImage, unsigned aBuildId) {
        writeFile(mFirmware / "image.bin.gz", {aImage.begin(), aImage.end()});
        writeFile(mFirmware / "build.info",
                  "platform=Q47-SHIM\njenkins_build_id=" + std::to_string(aBuildId) + "\n");
    }
    ClockScope const mClock{10.0};
    TemporaryDirectory mDirectory;
    std::filesystem::path const mFirmware = mDirectory.path() / "firmware";
    InProcessBus mBus;
    std::shared_ptr<CanOpenMaster> mMaster = std::make_shared<CanOpenMaster>(mBus.open("can0"), 1);
    std::shared_ptr<ShimBoard> mBoard1 =
        std::make_shared<ShimBoard>(ShimBoard::Options{.node = 8, .stateFile = mDirectory.path() / "8.json"});
    std::shared_ptr<ShimBoard> mBoard2 = std::make_shared<ShimBoard>(ShimBoard::Options{.node = 9});
    CanNode mNode1{mBus.open("node 8"), 8, mBoard1};
    CanNode mNode2{mBus.open("node 9"), 9, mBoard2};
    ShimClient mClient1{mMaster, 8, mFirmware};
    ShimClient mClient2{mMaster, 9, mFirmware};
    CanOpenNodeClientIfc& mObjects = *mClient1.canopenClient();
};

Currents ramp(std::int32_t aStep) {
    Currents result{};
    for (std::size_t source = 0; source < result.size(); ++source) {
        result[source] = aStep * (static_cast<std::int32_t>(source) - 8);
    }
    return result;
}

// ---------------------------------------------------------------------------------------------- objects

TEST_F(ShimBoardsTest, ReadAndWriteObjectsOfAllTypes) {
    EXPECT_EQ(mObjects.readUInt8(0x3004, 1), 129);
    EXPECT_EQ(mObjects.readUInt16(0x3000, 0), 17);
    EXPECT_EQ(mObjects.readUInt16(0x3003, 1), 24000);
    EXPECT_EQ(mObjects.readUInt32(0x1018, 4), 470008U);
    EXPECT_NEAR(mObjects.readInt32(0x3002, 5), 27'550, 60);
    EXPECT_EQ(mObjects.readString(0x1008, 0), "Q47 shim board");
    mObjects.writeUInt32(0x1F55, 1, 0xFFFF'FFFE);
    EXPECT_EQ(mObjects.readUInt32(0x1F55, 1), 0xFFFF'FFFEU);
    mObjects.writeUInt16(0x1017, 0, 500);
    EXPECT_EQ(mObjects.readUInt16(0x1017, 0), 500);
    mObjects.writeUInt8(0x1003, 0, 0);
    EXPECT_THROW(mObjects.writeInt32(0x3000, 1, 5), SdoAbortError);
    EXPECT_THROW(mObjects.writeUInt32(0x1017, 0, 5), SdoAbortError);
    EXPECT_THROW(mObjects.readUInt8(0x1F50, 1), SdoAbortError);
}

TEST_F(ShimBoardsTest, GiveEveryObjectToTheReaderOfItsType) {
    for (auto const object : mBoard1->dictionary().objects()) {
        if (mBoard1->dictionary().row(object).access == ObjectAccess::WriteOnly) {
            continue;
        }
        SCOPED_TRACE(std::to_string(object.index) + ":" + std::to_string(object.subindex));
        switch (mBoard1->dictionary().row(object).type) {
            case ObjectType::U8:
                EXPECT_NO_THROW(mObjects.readUInt8(object.index, object.subindex));
                break;
            case ObjectType::U16:
                EXPECT_NO_THROW(mObjects.readUInt16(object.index, object.subindex));
                break;
            case ObjectType::U32:
                EXPECT_NO_THROW(mObjects.readUInt32(object.index, object.subindex));
                break;
            case ObjectType::I32:
                EXPECT_NO_THROW(mObjects.readInt32(object.index, object.subindex));
                break;
            case ObjectType::Text:
            case ObjectType::Domain:
                EXPECT_NO_THROW(mObjects.readString(object.index, object.subindex));
                break;
        }
    }
}

TEST_F(ShimBoardsTest, DriveTheCurrentsThatAreWrittenByTheTimeTheyConfirm) {
    mClient1.set(ramp(100'000));
    mClient2.set(ramp(-2));
    EXPECT_EQ(mClient1.currents(), ramp(100'000));
    EXPECT_EQ(mClient2.currents(), ramp(-2));
    EXPECT_NEAR(mBoard1->currentsAmpere()[16], 0.8, 1e-6);
}

TEST_F(ShimBoardsTest, TakeRecordsAndTellTheirLog) {
    LogCapture const log;
    std::string const record = "<record>" + std::string(3000, 'x') + "</record>";
    mClient1.setMds(record);
    EXPECT_EQ(mClient1.mds(), record);
    EXPECT_THAT(mClient2.mds(), HasSubstr("SIM-S-0009"));
    EXPECT_NO_THROW(mClient1.downloadLogs());
}

TEST_F(ShimBoardsTest, AreAskedAtTheSameTime) {
    auto const ask = [](ShimClient const& aClient, int aSign) {
        for (int round = 1; round <= 50; ++round) {
            Currents const wanted = ramp(2 * aSign * round);
            aClient.set(wanted);
            ASSERT_EQ(aClient.currents(), wanted);
        }
    };
    std::thread other([&] { ask(mClient2, -1); });
    ask(mClient1, 1);
    other.join();
}

// ---------------------------------------------------------------------------------------------- firmware

TEST_F(ShimBoardsTest, KeepFirmwareThatIsCurrent) {
    storeFirmware(PlainImage{}.packed(), ShimBoard::kFactoryBuildId);
    mClient1.prepare();
    EXPECT_TRUE(mClient1.prepared());
    EXPECT_EQ(mClient1.name(), "Q47 shim board");
    EXPECT_EQ(mClient1.platformIdentifier(), "Q47-SHIM");
    EXPECT_EQ(mObjects.readUInt32(0x2000, 5), 0U);
    EXPECT_TRUE(eventually([&] { return mNode1.state() == NmtState::Operational; }));
}

TEST_F(ShimBoardsTest, TakeNewFirmwareAndGetTheirCurrentsBack) {
    mClient1.set(ramp(1000));
    storeFirmware(PlainImage{.programSize = 40'000}.packed(), 2000);
    mClient1.prepare();
    EXPECT_EQ(mClient1.firmwareJenkinsBuildID(), 2000U);
    EXPECT_EQ(mClient1.softwareStatus(), 0U);
    EXPECT_EQ(mObjects.readString(0x100A, 0), "2.0.0");
    EXPECT_EQ(mClient1.currents(), ramp(1000));
    EXPECT_TRUE(eventually([&] { return mNode1.state() == NmtState::Operational; }));
    EXPECT_EQ(mClient2.firmwareJenkinsBuildID(), ShimBoard::kFactoryBuildId);
}

TEST_F(ShimBoardsTest, RefuseDamagedFirmwareInWordsAndCanBeUpdatedAgain) {
    storeFirmware(PlainImage{.crcError = 1}.packed(), 2000);
    EXPECT_THAT([&] { mClient1.prepare(); },
                ThrowsMessage<std::runtime_error>(HasSubstr("the data are damaged")));
    EXPECT_EQ(mClient1.firmwareJenkinsBuildID(), 0U);
    storeFirmware(PlainImage{}.packed(), 2000);
    mClient1.prepare();
    EXPECT_EQ(mClient1.firmwareJenkinsBuildID(), 2000U);
    EXPECT_TRUE(mBoard1->programRuns());
}

TEST_F(ShimBoardsTest, SurviveARestartInTheMiddleOfTheTransfer) {
    storeFirmware(PlainImage{.programSize = 40'000}.packed(), 2000);
    std::thread spoiler([&] {
        EXPECT_TRUE(eventually([&] { return !mBoard1->programRuns(); }));
        mNode1.faults().restartAtFrame(200); // The image has more frames than that.
    });
    EXPECT_THROW(mClient1.prepare(), std::runtime_error);
    spoiler.join();
    mNode1.faults().clear();
    mClient1.prepare();
    EXPECT_EQ(mClient1.firmwareJenkinsBuildID(), 2000U);
}

// ---------------------------------------------------------------------------------------------- faults

TEST_F(ShimBoardsTest, LeaveAReaderWithoutAnAnswerWhenTheyAreSilent) {
    mNode1.faults().setSilent(true);
    EXPECT_THROW(mObjects.readUInt8(0x3000, 0), SdoTimeoutError);
    EXPECT_EQ(mClient2.canopenClient()->readUInt8(0x3000, 0), 17);
    mNode1.faults().setSilent(false);
    EXPECT_EQ(mObjects.readUInt8(0x3000, 0), 17);
}

TEST_F(ShimBoardsTest, RefuseAGivenObject) {
    mNode1.faults().abortObject({0x3001, 1}, 0x06060000);
    EXPECT_THAT([&] { mClient1.set(ramp(10)); },
                ThrowsMessage<SdoAbortError>(HasSubstr("node 8, object 0x3001:01: SDO abort 0x06060000")));
    EXPECT_EQ(mClient1.currents(), Currents{});
    mNode1.faults().clear();
    mClient1.set(ramp(10));
    EXPECT_EQ(mClient1.currents(), ramp(10));
}

TEST_F(ShimBoardsTest, AnswerWithAWrongSize) {
    mNode1.faults().answerWithSize({0x3000, 1}, 5);
    EXPECT_THROW(mObjects.readInt32(0x3000, 1), SdoProtocolError);
    mNode1.faults().clear();
    EXPECT_EQ(mObjects.readInt32(0x3000, 1), 0);
}

TEST_F(ShimBoardsTest, AreAskedAgainWhenAnAnswerIsLost) {
    mNode1.faults().loseFrames(1);
    EXPECT_EQ(mObjects.readUInt8(0x3000, 0), 17);
}

TEST_F(ShimBoardsTest, NeverPassALateAnswerForThatOfAnotherObject) {
    mNode1.faults().delayAnswers(velmor::platform::Clock::current().patience(1s) +
                                 500ms); // The reader waits for less.
    EXPECT_THROW(mObjects.readUInt8(0x3000, 0), SdoTimeoutError);
    mNode1.faults().clear();
    EXPECT_EQ(mObjects.readUInt8(0x3004, 1), 129);
    EXPECT_EQ(mObjects.readUInt8(0x3000, 0), 17);
}

TEST_F(ShimBoardsTest, TellOfAFailedSource) {
    mClient1.set(ramp(1000));
    LogCapture const log;
    mBoard1->failSource(3, SourceError::OpenLoad);
    EXPECT_EQ(mObjects.readInt32(0x3000, 3), 10'000'001);
    EXPECT_TRUE(eventually([&] { return !log.linesOf("CanOpenMaster").empty(); }));
    EXPECT_THAT(log.linesOf("CanOpenMaster").front().text, HasSubstr("0x2330"));
}

// ---------------------------------------------------------------------------------------------- between runs

TEST_F(ShimBoardsTest, GoOnFromTheirStateInTheNextRun) {
    mClient1.set(ramp(100));
    ShimBoard const next({.node = 8, .stateFile = mDirectory.path() / "8.json"});
    EXPECT_EQ(next.setpointsUA(), ramp(100));
}

} // namespace
