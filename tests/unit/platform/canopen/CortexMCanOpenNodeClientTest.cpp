// SPDX-License-Identifier: Apache-2.0
// Bringing a board up and replacing its firmware.
#include <velmor/kepla/canopen/CortexMCanOpenNodeClient.h>

#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestNode.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/canopen/SdoAbort.h>
#include <velmor/kepla/deviceid/DeviceIdServiceContributorIfc.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <thread>
#include <utility>

#include <zlib.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::TestNode;
using libfieldwarden::test::writeFile;
using namespace velmor::kepla::canopen;

/// A compressed file of some bytes that do not compress well.
std::string compressed(std::size_t aSize) {
    std::string plain(aSize, '\0');
    std::uint32_t state = 1;
    for (char& each : plain) {
        state = state * 1664525U + 1013904223U; // Numerical Recipes' generator.
        each = static_cast<char>(state >> 24U);
    }
    std::string result(aSize + 1000, '\0');
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(plain.data());
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = reinterpret_cast<Bytef*>(result.data());
    stream.avail_out = static_cast<uInt>(result.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    result.resize(stream.total_out);
    deflateEnd(&stream);
    return result;
}

struct Contributor : velmor::kepla::deviceid::DeviceIdServiceContributorIfc {
    MOCK_METHOD(void, contribute, (std::string const&, std::string const&), (override));
};

/// Tells in which order the hooks were called.
class Board final : private virtual velmor::kepla::log::Logger, public CortexMCanOpenNodeClient {
public:
    Board(std::shared_ptr<CanOpenMaster> const& aMaster,
          std::filesystem::path const& aFolder,
          std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> aContributor)
        : Logger("Board", "Test")
        , CortexMCanOpenNodeClient(aMaster,
                                   8,
                                   (aFolder / "build.info").string(),
                                   (aFolder / "image.bin.gz").string(),
                                   std::move(aContributor)) {}

    void configurePDOs() override { calls.emplace_back("configurePDOs"); }
    void preFirmwareUpdate(bool aProgramRuns) override {
        calls.emplace_back(aProgramRuns ? "preFirmwareUpdate(true)" : "preFirmwareUpdate(false)");
        if (refuse) {
            throw std::runtime_error("the state cannot be read");
        }
    }
    void postFirmwareUpdate() override { calls.emplace_back("postFirmwareUpdate"); }
    void afterPrepare() override { calls.emplace_back("afterPrepare"); }

    std::vector<std::string> calls;
    bool refuse = false;
};

struct CortexMTest : testing::Test {
    CortexMTest() {
        node.set32({0x1000, 0}, 0x00020192);
        node.setText({0x1008, 0}, "Shim board");
        node.setText({0x1009, 0}, "rev 3");
        node.setText({0x100A, 0}, "2.1");
        node.set8({0x1018, 0}, 4);
        node.set32({0x1018, 1}, 0x000003A1);
        node.set32({0x1018, 2}, 0x11);
        node.set32({0x1018, 3}, 0x30001);
        node.set32({0x1018, 4}, 4711);
        node.set8({0x1F51, 1}, 1);
        node.set32({0x1F56, 1}, 123);
        node.set32({0x1F57, 1}, 0);
        node.setText({0x200B, 1}, "Q47-SHIM");
        node.setText({0x2200, 1}, "<record/>");
        node.onWrite({0x1F51, 1}, [this](TestNode::Bytes const& aData) { return control(aData.at(0)); });
        node.onWrite({0x1F50, 1}, [this](TestNode::Bytes const& aData) { return download(aData); });
    }

    /// The program control of the simulated bootloader.
    std::uint32_t control(std::uint8_t aCommand) {
        controls.push_back(aCommand);
        switch (aCommand) {
            case 0:
                node.set8({0x1F51, 1}, 0);
                return 0;
            case 3:
                node.set32({0x1F56, 1}, 0);
                node.set32({0x1F57, 1}, 1U << 1U); // There is no valid program.
                return 0;
            case 1:
                node.set8({0x1F51, 1}, 1);
                node.sendBootUp();
                return 0;
            default:
                return sdoabort::kInvalidValue;
        }
    }

    std::uint32_t download(TestNode::Bytes const& aData) {
        received.assign(aData.begin(), aData.end());
        if (downloadAbort != 0) {
            return downloadAbort;
        }
        node.set32({0x1F57, 1}, flashAfterDownload);
        node.set32({0x1F56, 1}, buildInImage);
        return 0;
    }

    void store(std::string const& aBuildInfo, std::string const& aImage) const {
        writeFile(folder.path() / "build.info", aBuildInfo);
        writeFile(folder.path() / "image.bin.gz", aImage);
    }

    /// Moves the time on, slowly enough for a loaded machine to answer in time, until somebody is done.
    void driveUntilReady(std::future<void> const& aFuture) const {
        while (moveOnSlowly(aFuture)) {
        }
    }

    /// Moves the time on by a step, unless somebody is done.
    bool moveOnSlowly(std::future<void> const& aFuture) const {
        if (aFuture.wait_for(1ms) == std::future_status::ready) {
            return false;
        }
        clock->advance(10ms);
        return true;
    }

    std::string failureOf(std::function<void()> const& aOperation) {
        try {
            aOperation();
        } catch (std::runtime_error const& error) {
            return error.what();
        }
        return "no failure";
    }

    LogCapture log;
    HandClockScope clock;
    TemporaryDirectory folder;
    InProcessBus bus;
    std::shared_ptr<CanOpenMaster> master = std::make_shared<CanOpenMaster>(bus.open("can0"), 1);
    TestNode node{bus, 8};
    std::shared_ptr<testing::StrictMock<Contributor>> contributor =
        std::make_shared<testing::StrictMock<Contributor>>();
    Board board{master, folder.path(), nullptr};

    std::vector<int> controls;
    std::string received;
    std::uint32_t downloadAbort = 0;
    std::uint32_t flashAfterDownload = 0;
    std::uint32_t buildInImage = 124;
    int busyReads = 0;
};

// ----- bringing up

TEST_F(CortexMTest, PreparesABoardWhoseFirmwareIsCurrent) {
    store("jenkins_build_id=123\nplatform=Q47-SHIM\n", compressed(100));
    EXPECT_EQ(board.name(), "node 8");
    board.prepare();
    EXPECT_EQ(board.name(), "Shim board");
    EXPECT_EQ(board.calls, (std::vector<std::string>{"configurePDOs", "afterPrepare"}));
    EXPECT_EQ(node.awaitCommands(1), std::vector{NmtCommand::Start});
    EXPECT_TRUE(controls.empty());
    EXPECT_TRUE(log.has(Severity::Info, "~prepare: firmware build 123 is current"));
    EXPECT_TRUE(
        log.has(Severity::Info,
                "~prepare: 'Shim board', hardware 'rev 3', software '2.1', vendor 0x000003A1, product "
                "0x00000011, revision 0x00030001, serial number 4711"));
}

TEST_F(CortexMTest, ReadsItsIdentity) {
    EXPECT_EQ(board.platformIdentifier(), "Q47-SHIM");
    EXPECT_EQ(board.softwareStatus(), 0U);
    EXPECT_EQ(board.firmwareJenkinsBuildID(), 123U);
    EXPECT_EQ(board.canopenClient()->nodeId(), 8);
    EXPECT_EQ(board.canopenClient(), board.canopenClient());
}

TEST_F(CortexMTest, ToleratesABoardWithoutTheOptionalObjects) {
    store("jenkins_build_id=123\n", compressed(100));
    for (std::uint16_t index = 0x1008; index <= 0x100A; ++index) {
        node.remove({index, 0});
    }
    for (std::uint8_t subindex = 1; subindex <= 4; ++subindex) {
        node.remove({0x1018, subindex});
    }
    board.prepare();
    EXPECT_EQ(board.name(), "node 8");
    EXPECT_TRUE(
        log.has(Severity::Info,
                "~prepare: 'node 8', hardware '', software '', vendor 0x00000000, product 0x00000000, "
                "revision 0x00000000, serial number 0"));
}

TEST_F(CortexMTest, WaitsForABoardThatBootsLate) {
    node.setDeaf(true);
    auto prepared = std::async(std::launch::async, [&] { board.prepare(); });
    while (node.awaitCommands(0).empty()) {
        moveOnSlowly(prepared);
    }
    // It is told to leave the stopped state, in which it would answer no read.
    node.setDeaf(false);
    node.sendBootUp();
    driveUntilReady(prepared);
    prepared.get();
    EXPECT_EQ(node.awaitCommands(2).front(), NmtCommand::PreOperational);
    EXPECT_EQ(node.awaitCommands(2).back(), NmtCommand::Start);
    EXPECT_EQ(board.calls.back(), "afterPrepare");
}

TEST_F(CortexMTest, TellsWhichNodeDidNotComeUpAndWhatWasWaitedFor) {
    node.setDeaf(true);
    auto failure = std::async(std::launch::async, [&] { return failureOf([&] { board.prepare(); }); });
    while (failure.wait_for(0s) != std::future_status::ready) {
        clock->advance(250ms);
        std::this_thread::yield();
    }
    EXPECT_THAT(failure.get(),
                testing::StartsWith(
                    "Node 8: the board did not come up within 30 s: waited for its boot-up, its "
                    "heartbeat, its answer to node guarding, or its answer to a read of 0x1000:00 (node 8, "
                    "object 0x1000:00: "));
    EXPECT_TRUE(board.calls.empty());
}

TEST_F(CortexMTest, FindsABoardThatOnlyAnswersToNodeGuarding) {
    // It has booted before the master came, is stopped, and sends no heartbeat.
    store("jenkins_build_id=123\n", compressed(100));
    node.setDeaf(true);
    node.onGuard([this]() -> std::uint8_t {
        bool const woken = !node.awaitCommands(0).empty();
        node.setDeaf(!woken);
        return woken ? 0x7F : 0x04;
    });
    auto prepared = std::async(std::launch::async, [&] { board.prepare(); });
    auto const begin = clock->now();
    while (node.awaitCommands(0).empty()) {
        moveOnSlowly(prepared);
    }
    auto const told = clock->now();
    driveUntilReady(prepared);
    prepared.get();
    EXPECT_GT(told, begin);
    EXPECT_EQ(master->status(8).state, NmtState::PreOperational);
    EXPECT_EQ(master->status(8).signs, 1U) << "it is asked until it has answered";
    EXPECT_EQ(node.awaitCommands(2), (std::vector{NmtCommand::PreOperational, NmtCommand::Start}));
    EXPECT_EQ(board.calls, (std::vector<std::string>{"configurePDOs", "afterPrepare"}));
}

TEST_F(CortexMTest, GuardsNoBoardThatHasGivenASignOfLife) {
    std::atomic<int> asked = 0;
    node.onGuard([&asked]() -> std::optional<std::uint8_t> {
        ++asked;
        return std::nullopt;
    });
    node.setDeaf(true);
    node.sendState(NmtState::Stopped);
    EXPECT_TRUE(master->awaitStatus(
        8, [](NodeStatus const& aStatus) { return aStatus.signs == 1; }, 1h));
    auto prepared = std::async(std::launch::async, [&] { board.prepare(); });
    while (node.awaitCommands(0).empty()) {
        moveOnSlowly(prepared);
    }
    node.setDeaf(false);
    driveUntilReady(prepared);
    prepared.get();
    EXPECT_EQ(asked, 0);
}

TEST_F(CortexMTest, AsksABoardThatAnswersReadsForNothingElse) {
    auto const watch = bus.open("watch", {{0x708}});
    board.prepare();
    EXPECT_EQ(watch->receive(0ms), std::nullopt);
}

TEST_F(CortexMTest, ReachesABoardThroughALinkThatComesBack) {
    store("jenkins_build_id=123\n", compressed(100));
    bus.failLink(CanLinkError::Reason::InterfaceDown, "can0");
    auto prepared = std::async(std::launch::async, [&] { board.prepare(); });
    while (log.linesUpTo(Severity::Error).empty()) {
        std::this_thread::yield();
    }
    bus.mendLink();
    driveUntilReady(prepared);
    prepared.get();
    EXPECT_EQ(board.calls.back(), "afterPrepare");
}

// ----- record and log

TEST_F(CortexMTest, KeepsARecordInTheBoard) {
    EXPECT_EQ(board.mds(), "<record/>");
    std::string const text(20000, 'r');
    board.setMds(text);
    EXPECT_EQ(board.mds(), text);
}

TEST_F(CortexMTest, HandsItsRecordOn) {
    store("jenkins_build_id=123\n", compressed(100));
    Board contributing(master, folder.path(), contributor);
    EXPECT_CALL(*contributor, contribute("Q47-SHIM-8", "<record/>"));
    contributing.prepare();
}

TEST_F(CortexMTest, GoesOnWhenTheRecordCannotBeHandedOn) {
    store("jenkins_build_id=123\n", compressed(100));
    node.setText({0x200B, 1}, "a b/c");
    Board contributing(master, folder.path(), contributor);
    EXPECT_CALL(*contributor, contribute("a_b_c-8", "<record/>"))
        .WillOnce(testing::Throw(std::runtime_error("the disk is full")));
    contributing.prepare();
    EXPECT_EQ(contributing.calls.back(), "afterPrepare");
    EXPECT_TRUE(log.has(Severity::Warning,
                        "~prepare: the record of the board could not be handed on: the disk is full"));
}

TEST_F(CortexMTest, TakesOverTheLogOfTheBoard) {
    board.downloadLogs();
    EXPECT_TRUE(log.linesUpTo(Severity::Info).empty()) << "a board without a log is none the worse";
    node.setText({0x2201, 1}, "started\nwatchdog reset\n");
    board.downloadLogs();
    EXPECT_EQ(log.linesUpTo(Severity::Info),
              (std::vector<CapturedLine>{{Severity::Info, "~downloadLogs: started", "", ""},
                                         {Severity::Info, "~downloadLogs: watchdog reset", "", ""}}));
}

// ----- firmware

TEST_F(CortexMTest, LeavesTheFirmwareAloneWithoutBuildInformation) {
    board.prepare();
    EXPECT_TRUE(controls.empty());
    EXPECT_TRUE(log.has(Severity::Warning, "~prepare: there is no '" +
                                               (folder.path() / "build.info").string() +
                                               "', so the firmware is not checked"));
    EXPECT_EQ(board.calls.back(), "afterPrepare");
}

TEST_F(CortexMTest, LeavesTheFirmwareOfABoardAloneThatDoesNotTellItsBuild) {
    store("jenkins_build_id=124\n", compressed(100));
    node.remove({0x1F56, 1});
    board.prepare();
    EXPECT_TRUE(controls.empty());
    EXPECT_EQ(log.linesUpTo(Severity::Warning).size(), 1U);
}

TEST_F(CortexMTest, ReplacesFirmwareThatIsNotTheStoredOne) {
    std::string const image = compressed(30000);
    store("# ours\nplatform = Q47-SHIM\njenkins_build_id = 124\n", image);
    board.prepare();
    EXPECT_EQ(received, image) << "the image goes to the board as it is stored";
    EXPECT_EQ(controls, (std::vector{0, 3, 1})); // Stop, clear, start.
    EXPECT_EQ(board.calls, (std::vector<std::string>{"configurePDOs", "preFirmwareUpdate(true)",
                                                     "postFirmwareUpdate", "afterPrepare"}));
    EXPECT_EQ(board.firmwareJenkinsBuildID(), 124U);
    EXPECT_EQ(node.awaitCommands(2), (std::vector{NmtCommand::Start, NmtCommand::Start}));
    EXPECT_TRUE(
        log.has(Severity::Info, "~prepare: the board has firmware build 123, build 124 is stored: updating"));
    EXPECT_TRUE(
        log.has(Severity::Info, "~updateFirmware: transferring " + std::to_string(image.size()) + " bytes"));
    EXPECT_TRUE(log.has(Severity::Info, "~updateFirmware: 50 %"));
    EXPECT_TRUE(log.has(Severity::Info, "~updateFirmware: 100 %"));
    EXPECT_TRUE(log.has(Severity::Info, "~updateFirmware: the board runs firmware build 124"));
}

TEST_F(CortexMTest, UpdatesABoardThatHasNoProgramWithoutStoppingIt) {
    store("jenkins_build_id=124\n", compressed(1000));
    node.set8({0x1F51, 1}, 0);
    node.set32({0x1F56, 1}, 0);
    board.prepare();
    EXPECT_EQ(controls, (std::vector{3, 1}));
    EXPECT_EQ(board.calls.at(1), "preFirmwareUpdate(false)");
}

TEST_F(CortexMTest, StartsACurrentProgramThatDoesNotRun) {
    store("jenkins_build_id=123\n", compressed(1000));
    node.set8({0x1F51, 1}, 0);
    board.prepare();
    EXPECT_EQ(controls, std::vector{1});
    EXPECT_EQ(board.calls, (std::vector<std::string>{"configurePDOs", "afterPrepare"}));
}

TEST_F(CortexMTest, DoesNotTouchTheBoardForAnImageThatCannotBeUsed) {
    std::string const path = (folder.path() / "image.bin.gz").string();
    std::string damaged = compressed(1000);
    damaged[damaged.size() / 2] = static_cast<char>(~damaged[damaged.size() / 2]);
    std::string const good = compressed(1000);
    struct Case {
        std::string image;
        std::string words;
    };
    for (Case const& each : {
             Case{"", "The firmware image '" + path + "' is empty"},
             Case{"not compressed", "The firmware image '" + path + "' is damaged or not compressed"},
             Case{damaged, "The firmware image '" + path + "' is damaged or not compressed"},
             Case{good.substr(0, good.size() - 1),
                  "The firmware image '" + path + "' is damaged or not compressed"},
             Case{good + "x", "The firmware image '" + path + "' is damaged or not compressed"},
         }) {
        store("jenkins_build_id=124\n", each.image);
        EXPECT_EQ(failureOf([&] { board.prepare(); }), each.words);
    }
    std::filesystem::remove(path);
    EXPECT_EQ(failureOf([&] { board.prepare(); }),
              "The firmware image '" + path + "' cannot be read: No such file or directory");
    EXPECT_TRUE(controls.empty());
    EXPECT_THAT(board.calls, testing::Not(testing::Contains(testing::StartsWith("preFirmwareUpdate"))));
}

TEST_F(CortexMTest, DoesNotTouchTheBoardForAnImageOfAnotherPlatform) {
    store("jenkins_build_id=124\nplatform=Q47-VT\n", compressed(1000));
    EXPECT_EQ(failureOf([&] { board.prepare(); }), "Node 8: the firmware image '" +
                                                       (folder.path() / "image.bin.gz").string() +
                                                       "' is for platform 'Q47-VT', the board is 'Q47-SHIM'");
    EXPECT_TRUE(controls.empty());
}

TEST_F(CortexMTest, KeepsTheFirmwareWhenTheStateOfTheBoardCannotBeSaved) {
    store("jenkins_build_id=124\n", compressed(1000));
    board.refuse = true;
    EXPECT_EQ(failureOf([&] { board.prepare(); }), "the state cannot be read");
    EXPECT_TRUE(controls.empty());
}

TEST_F(CortexMTest, StartsTheOldProgramAgainWhenItCannotBeReplaced) {
    store("jenkins_build_id=124\n", compressed(1000));
    node.onWrite({0x1F51, 1}, [this](TestNode::Bytes const& aData) {
        controls.push_back(aData.at(0));
        return aData.at(0) == 0 ? sdoabort::kDeviceState : 0U;
    });
    EXPECT_EQ(
        failureOf([&] { board.prepare(); }),
        "Node 8: the firmware update failed: node 8, object 0x1f51:01: SDO abort 0x08000022: Data cannot "
        "be transferred or stored to the application because of the present device state");
    EXPECT_EQ(controls, (std::vector{0, 1}));
    EXPECT_THAT(board.calls, testing::Not(testing::Contains("postFirmwareUpdate")));
}

TEST_F(CortexMTest, LeavesABoardThatRefusesTheImageToItsBootloader) {
    store("jenkins_build_id=124\n", compressed(1000));
    flashAfterDownload = 3U << 1U;
    EXPECT_EQ(
        failureOf([&] { board.prepare(); }),
        "Node 8: the firmware update failed: Node 8: the board refuses the image: the data are damaged");
    EXPECT_EQ(controls, (std::vector{0, 3})) << "a damaged program must not be started";
    EXPECT_TRUE(log.has(Severity::Error,
                        "~updateFirmware: failed: Node 8: the board refuses the image: the "
                        "data are damaged"));

    flashAfterDownload = 0; // And the next attempt repairs it.
    board.prepare();
    EXPECT_EQ(board.firmwareJenkinsBuildID(), 124U);
}

TEST_F(CortexMTest, TellsThatAnImageDoesNotFit) {
    store("jenkins_build_id=124\n", compressed(1000));
    downloadAbort = sdoabort::kOutOfMemory;
    EXPECT_EQ(
        failureOf([&] { board.prepare(); }),
        "Node 8: the firmware update failed: node 8, object 0x1f50:01: SDO abort 0x05040005: Out of memory");
}

TEST_F(CortexMTest, TellsThatTheBoardReportsAnotherBuildThanTheImageHas) {
    store("jenkins_build_id=125\n", compressed(1000));
    EXPECT_EQ(
        failureOf([&] { board.prepare(); }),
        "Node 8: the firmware update failed: Node 8: the board reports firmware build 124 after the update "
        "to build 125");
}

TEST_F(CortexMTest, WaitsForAFlashThatIsBusy) {
    store("jenkins_build_id=124\n", compressed(1000));
    flashAfterDownload = 1; // Busy.
    node.onRead({0x1F57, 1}, [this] {
        if (!received.empty()) {
            node.set32({0x1F57, 1}, ++busyReads < 3 ? 1U : 0U);
        }
    });
    auto prepared = std::async(std::launch::async, [&] { board.prepare(); });
    driveUntilReady(prepared);
    prepared.get();
    EXPECT_EQ(busyReads, 3);
    EXPECT_EQ(controls, (std::vector{0, 3, 1}));
}

TEST_F(CortexMTest, UpdatesOnDemandWhateverTheBoardRuns) {
    store("jenkins_build_id=124\n", compressed(1000));
    board.updateFirmware(false);
    EXPECT_EQ(board.calls, (std::vector<std::string>{"preFirmwareUpdate(false)", "postFirmwareUpdate"}));
    EXPECT_EQ(controls, (std::vector{3, 1}));
}

} // namespace
