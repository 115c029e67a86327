// SPDX-License-Identifier: Apache-2.0
// The master and its node clients against scripted nodes on the in-process bus.
#include <velmor/kepla/canopen/CanOpenMaster.h>

#include "support/FakeBackend.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/ProcessResources.h"
#include "support/TestNode.h"

#include <velmor/kepla/canopen/CanOpenNodeClient.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/canopen/SdoAbort.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <numeric>
#include <thread>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::FakeBackendScope;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::ProcessResources;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TestNode;
using namespace velmor::kepla::canopen;

struct MasterTest : testing::Test {
    LogCapture log;
    HandClockScope clock;
    InProcessBus bus;
    std::shared_ptr<CanOpenMaster> master = std::make_shared<CanOpenMaster>(bus.open("can0"), 1);
    TestNode node{bus, 8};
    CanOpenNodeClient client{master, 8};

    /// Waits for a line that the master's thread writes.
    void awaitLine(Severity aSeverity, std::string const& aText) const {
        while (!log.has(aSeverity, aText)) {
            std::this_thread::yield();
        }
    }
};

template <typename Error, typename Operation>
Error errorOf(Operation aOperation) {
    try {
        aOperation();
    } catch (Error const& error) {
        return error;
    }
    throw std::logic_error("the expected error did not come");
}

// ----- making

TEST(CanOpenMaster, IsMadeOnTheChannelOfTheBackend) {
    InProcessBus bus;
    FakeBackendScope backend;
    std::string asked;
    backend->openCanChannelDoor = [&](std::string const& aInterface) {
        asked = aInterface;
        return bus.open(aInterface);
    };
    auto const master = CanOpenMaster::make("can7", 1);
    EXPECT_EQ(asked, "can7");
    EXPECT_EQ(master->interfaceName(), "can7");
    EXPECT_EQ(master->nodeId(), 1);
}

TEST(CanOpenMaster, PassesOnThatTheInterfaceCannotBeOpened) {
    FakeBackendScope backend;
    backend->openCanChannelDoor = [](std::string const& aInterface) -> std::unique_ptr<CanChannel> {
        throw CanLinkError(CanLinkError::Reason::InterfaceMissing,
                           "Cannot open CAN interface '" + aInterface + "': No such device");
    };
    EXPECT_STREQ(errorOf<CanLinkError>([] { CanOpenMaster::make("can0", 1); }).what(),
                 "Cannot open CAN interface 'can0': No such device");
}

TEST(CanOpenMaster, RefusesImpossibleNodesAndNoChannel) {
    InProcessBus bus;
    EXPECT_THROW(CanOpenMaster(bus.open("can0"), 0), std::invalid_argument);
    EXPECT_THROW(CanOpenMaster(bus.open("can0"), 128), std::invalid_argument);
    EXPECT_THROW(CanOpenMaster(nullptr, 1), std::invalid_argument);
    auto const master = std::make_shared<CanOpenMaster>(bus.open("can0"), 1);
    EXPECT_THROW(CanOpenNodeClient(master, 0), std::invalid_argument);
    EXPECT_THROW(CanOpenNodeClient(master, 200), std::invalid_argument);
    EXPECT_THROW(CanOpenNodeClient(nullptr, 8), std::invalid_argument);
    EXPECT_THROW(master->command(NmtCommand::Start, 128), std::invalid_argument);
}

TEST(CanOpenMaster, LeavesNoThreadAndNoDescriptorBehind) {
    auto const comeAndGo = [] {
        InProcessBus bus;
        CanOpenMaster const master(bus.open("can0"), 1);
    };
    comeAndGo(); // The first thread of a process may bring one of the thread sanitizer's own.
    ProcessResources const before = ProcessResources::now();
    for (int i = 0; i < 20; ++i) {
        comeAndGo();
    }
    ProcessResources const after = ProcessResources::settledTo(before);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.descriptors, before.descriptors);
}

// ----- reading and writing

TEST_F(MasterTest, ReadsNumbersOfAllSizes) {
    node.set32({0x3000, 1}, 0xFFFFFFFE);
    node.set16({0x3000, 2}, 0xABCD);
    node.set8({0x3000, 3}, 0xEF);
    EXPECT_EQ(client.nodeId(), 8);
    EXPECT_EQ(client.readUInt32(0x3000, 1), 0xFFFFFFFEU);
    EXPECT_EQ(client.readInt32(0x3000, 1), -2);
    EXPECT_EQ(client.readUInt16(0x3000, 2), 0xABCD);
    EXPECT_EQ(client.readUInt8(0x3000, 3), 0xEF);
}

TEST_F(MasterTest, FillsUpNumbersThatAreShorterThanAskedFor) {
    node.set8({0x3000, 0}, 0x91);
    node.set16({0x3000, 1}, 0x8001);
    EXPECT_EQ(client.readUInt16(0x3000, 0), 0x91);
    EXPECT_EQ(client.readUInt32(0x3000, 1), 0x8001U);
    EXPECT_EQ(client.readInt32(0x3000, 1), -32767); // 0x8001 as a signed 16-bit number.
}

TEST_F(MasterTest, RefusesNumbersThatAreLongerThanAskedFor) {
    node.set32({0x3000, 1}, 7);
    node.set({0x3000, 2}, {1, 2, 3, 4, 5});
    node.set({0x3000, 3}, {});
    auto const error = errorOf<SdoProtocolError>([&] { client.readUInt16(0x3000, 1); });
    EXPECT_STREQ(error.what(), "node 8, object 0x3000:01: The answer has 4 bytes instead of 2");
    EXPECT_EQ(error.node(), 8);
    EXPECT_EQ(error.index(), 0x3000);
    EXPECT_EQ(error.subindex(), 1);
    EXPECT_STREQ(errorOf<SdoProtocolError>([&] { client.readUInt32(0x3000, 2); }).what(),
                 "node 8, object 0x3000:02: The answer has 5 bytes instead of 4");
    EXPECT_THROW(client.readUInt8(0x3000, 3), SdoProtocolError);
    EXPECT_EQ(client.readUInt32(0x3000, 1), 7U) << "the client stays usable";
}

/// Answers reads with all four bytes and without their size (command 0x42), as CiA 301 allows.
class SizelessNode {
public:
    explicit SizelessNode(InProcessBus& aBus)
        : mChannel(aBus.open("node9", {{0x609}}))
        , mThread([this] { work(); }) {}
    ~SizelessNode() {
        mStop = true;
        mChannel->interrupt();
        mThread.join();
    }
    SizelessNode(SizelessNode const&) = delete;
    SizelessNode& operator=(SizelessNode const&) = delete;

private:
    void work() {
        while (!mStop) {
            if (auto const request = mChannel->receive(1h)) {
                auto const& data = request->data;
                mChannel->send({0x589, 8, {0x42, data[1], data[2], data[3], 0xFE, 0xCA, 0xAD, 0xDE}});
            }
        }
    }

    std::unique_ptr<CanChannel> mChannel;
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

TEST_F(MasterTest, TakesTheLowBytesOfANumberWhoseSizeTheNodeLeavesOpen) {
    SizelessNode const sizeless(bus);
    CanOpenNodeClient other(master, 9);
    EXPECT_EQ(other.readUInt8(0x3000, 1), 0xFE);
    EXPECT_EQ(other.readUInt16(0x3000, 2), 0xCAFE);
    EXPECT_EQ(other.readUInt32(0x3000, 3), 0xDEADCAFEU);
    EXPECT_EQ(other.readInt32(0x3000, 4), static_cast<std::int32_t>(0xDEADCAFEU));
    EXPECT_EQ(other.readString(0x1008, 0), "\xFE\xCA\xAD\xDE"); // a text's length has no other source
}

TEST_F(MasterTest, ReadsTextsOfAnyLength) {
    std::string const longText(5000, 'x');
    node.setText({0x1008, 0}, "Shim board");
    node.setText({0x1009, 0}, "");
    node.setText({0x100A, 0}, longText);
    node.set({0x200B, 1}, {'A', 0, 'B', 0, 0});
    EXPECT_EQ(client.readString(0x1008, 0), "Shim board");
    EXPECT_EQ(client.readString(0x1009, 0), "");
    EXPECT_EQ(client.readString(0x100A, 0), longText);
    EXPECT_EQ(client.readString(0x200B, 1), std::string("A\0B", 3));
}

TEST_F(MasterTest, WritesNumbersInTheirSizes) {
    for (std::uint8_t subindex = 1; subindex <= 4; ++subindex) {
        node.set({0x3401, subindex}, {});
    }
    client.writeUInt32(0x3401, 1, 0x01020304);
    client.writeUInt16(0x3401, 2, 0x0506);
    client.writeUInt8(0x3401, 3, 7);
    client.writeInt32(0x3401, 4, -2);
    EXPECT_EQ(node.get({0x3401, 1}), (TestNode::Bytes{4, 3, 2, 1}));
    EXPECT_EQ(node.get({0x3401, 2}), (TestNode::Bytes{6, 5}));
    EXPECT_EQ(node.get({0x3401, 3}), (TestNode::Bytes{7}));
    EXPECT_EQ(node.get({0x3401, 4}), (TestNode::Bytes{0xFE, 0xFF, 0xFF, 0xFF}));
}

TEST_F(MasterTest, WritesBlocksOfAllSizes) {
    node.set({0x3001, 1}, {});
    for (std::size_t const size : {0U, 1U, 4U, 5U, 7U, 68U, 889U, 890U, 65536U}) {
        TestNode::Bytes data(size);
        std::iota(data.begin(), data.end(), std::uint8_t{1});
        client.writeBlock(0x3001, 1, data.data(), data.size());
        EXPECT_EQ(node.get({0x3001, 1}), data) << size;
    }
}

TEST(CanOpenNodeClient, WritesBlocksInSegmentsToANodeThatKnowsNoBlockTransfer) {
    InProcessBus bus;
    auto const master = std::make_shared<CanOpenMaster>(bus.open("can0"), 1);
    SdoServerSettings settings;
    settings.blockTransfers = false;
    TestNode node(bus, 8, settings);
    node.set({0x3001, 1}, {});
    CanOpenNodeClient client(master, 8);
    auto const watch = bus.open("watch", {{0x608, 0x7FF}});
    TestNode::Bytes const data(68, 0x5A);
    client.writeBlock(0x3001, 1, data.data(), data.size());
    EXPECT_EQ(node.get({0x3001, 1}), data);
    client.writeBlock(0x3001, 1, data.data(), data.size());
    int blockRequests = 0;
    while (auto const frame = watch->receive(0ms)) {
        blockRequests += (frame->data[0] >> 5U) == 6 ? 1 : 0;
    }
    EXPECT_EQ(blockRequests, 1) << "the node is not asked for block transfers again";
}

TEST_F(MasterTest, DoesNotRepeatABlockThatTheNodeGivesUpInTheMiddleForAnUnknownCommand) {
    int taken = 0;
    node.onWrite({0x1F50, 1}, [&](TestNode::Bytes const&) { // the data have all been transferred by then
        return ++taken == 1 ? sdoabort::kCommandSpecifier : 0U;
    });
    auto const watch = bus.open("watch", {{0x608, 0x7FF}});
    TestNode::Bytes const image(68, 0x5A);
    auto const error =
        errorOf<SdoAbortError>([&] { client.writeBlock(0x1F50, 1, image.data(), image.size()); });
    EXPECT_EQ(error.code(), sdoabort::kCommandSpecifier);
    EXPECT_FALSE(error.refused());
    EXPECT_EQ(taken, 1);
    client.writeBlock(0x1F50, 1, image.data(), image.size());
    EXPECT_EQ(taken, 2);
    int blocks = 0;
    while (auto const frame = watch->receive(0ms)) {
        blocks += frame->data[0] == 0xC6 ? 1 : 0; // Requests to open a block download.
    }
    EXPECT_EQ(blocks, 2) << "the node knows block transfers all the same";
}

TEST_F(MasterTest, TellsTheWordsOfTheNode) {
    node.refuseReads({0x3000, 5}, sdoabort::kHardware);
    auto const error = errorOf<SdoAbortError>([&] { client.readInt32(0x3000, 5); });
    EXPECT_STREQ(error.what(),
                 "node 8, object 0x3000:05: SDO abort 0x06060000: Access failed due to a hardware error");
    EXPECT_EQ(error.code(), sdoabort::kHardware);
    EXPECT_TRUE(error.refused());
    EXPECT_THROW(client.writeUInt8(0x4000, 1, 1), SdoAbortError);
    EXPECT_EQ(node.writes().size(), 1U) << "a refused write is not repeated";
}

// ----- time-outs

TEST_F(MasterTest, AsksOnceMoreForAnAnswerThatWasLost) {
    node.set32({0x3000, 1}, 42);
    node.ignoreRequests(1);
    auto answer = std::async(std::launch::async, [&] { return client.readUInt32(0x3000, 1); });
    node.awaitRequests(1);
    clock->advance(1s);
    EXPECT_EQ(answer.get(), 42U);
}

TEST_F(MasterTest, GivesUpAReadThatIsNotAnsweredTwice) {
    node.setDeaf(true);
    auto answer = std::async(std::launch::async, [&] { return client.readUInt32(0x3000, 1); });
    node.awaitRequests(1);
    while (answer.wait_for(0s) != std::future_status::ready) {
        clock->advance(500ms);
        std::this_thread::yield();
    }
    auto const error = errorOf<SdoTimeoutError>([&] { answer.get(); });
    EXPECT_THAT(error.what(), testing::StartsWith("node 8, object 0x3000:01: "));
}

TEST_F(MasterTest, NeverRepeatsAWriteThatTheNodeMayHaveSeen) {
    node.set32({0x3001, 1}, 0);
    node.setDeaf(true);
    int seen = 0;
    auto const watch = bus.open("watch", {{0x608, 0x7FF}});
    auto result = std::async(std::launch::async, [&] { client.writeUInt32(0x3001, 1, 5); });
    node.awaitRequests(1);
    while (result.wait_for(0s) != std::future_status::ready) {
        clock->advance(500ms);
        std::this_thread::yield();
    }
    EXPECT_THROW(result.get(), SdoTimeoutError);
    while (auto const frame = watch->receive(0ms)) {
        seen += (frame->data[0] >> 5U) == 1 ? 1 : 0; // Requests to open a download.
    }
    EXPECT_EQ(seen, 1);
}

TEST_F(MasterTest, IsUsableAfterATimeOutAndHandsNoLateAnswerToTheNextRequest) {
    node.set32({0x3000, 1}, 111);
    node.set32({0x3000, 2}, 222);
    node.setDeaf(true);
    auto first = std::async(std::launch::async, [&] { return client.readUInt32(0x3000, 1); });
    node.awaitRequests(1);
    while (first.wait_for(0s) != std::future_status::ready) {
        clock->advance(500ms);
        std::this_thread::yield();
    }
    EXPECT_THROW(first.get(), SdoTimeoutError);
    node.setDeaf(false);
    node.set32({0x1000, 0}, 0);
    node.set8({0x1001, 0}, 0);
    node.sendRaw({0x588, 8, {0x43, 0x00, 0x30, 0x01, 99, 0, 0, 0}}); // The late answer.
    EXPECT_EQ(client.readUInt32(0x3000, 2), 222U);
    EXPECT_EQ(client.readUInt32(0x3000, 1), 111U);
}

TEST_F(MasterTest, WaitsOnceForASilentNodeOnItsWayDown) {
    node.set32({0x3000, 1}, 1);
    node.set32({0x3000, 2}, 2);
    node.set8({0x4000, 1}, 0);
    node.set32({0x1000, 0}, 0);
    node.set8({0x1001, 0}, 0);
    node.setDeaf(true);
    master->hasten();
    auto first = std::async(std::launch::async, [&] { return client.readUInt32(0x3000, 1); });
    node.awaitRequests(1);
    clock->advance(1s); // Its time is up, and it is not asked once more.
    EXPECT_STREQ(errorOf<SdoTimeoutError>([&] { first.get(); }).what(),
                 "node 8, object 0x3000:01: it left another request without an answer");
    // The clock stands: these must not wait.
    for (std::uint8_t subindex = 1; subindex <= 200; ++subindex) {
        EXPECT_THROW(client.readUInt32(0x3000, subindex), SdoTimeoutError);
    }
    node.setDeaf(false);
    client.writeUInt8(0x4000, 1, 0); // A write is tried, and its answer is a sign of life.
    EXPECT_EQ(client.readUInt32(0x3000, 2), 2U);
}

TEST_F(MasterTest, ReadsOnOnItsWayDownWhatAnswers) {
    node.set32({0x3000, 1}, 42);
    master->hasten();
    EXPECT_EQ(client.readUInt32(0x3000, 1), 42U);
    EXPECT_EQ(client.readUInt32(0x3000, 1), 42U);
}

// ----- several at a time

TEST_F(MasterTest, ServesManyThreadsAndNodesAtTheSameTime) {
    TestNode second(bus, 9);
    TestNode third(bus, 7);
    CanOpenNodeClient secondClient(master, 9);
    CanOpenNodeClient thirdClient(master, 7);
    node.set32({0x3000, 1}, 8001);
    node.set32({0x3000, 2}, 8002);
    second.set32({0x3000, 1}, 9001);
    second.set32({0x3000, 2}, 9002);
    third.set32({0x3000, 1}, 7001);
    third.set32({0x3000, 2}, 7002);
    auto const hammer = [](CanOpenNodeClient& aClient, std::uint32_t aBase) {
        int wrong = 0;
        for (int i = 0; i < 300; ++i) {
            wrong += aClient.readUInt32(0x3000, 1) == aBase + 1 ? 0 : 1;
            wrong += aClient.readUInt32(0x3000, 2) == aBase + 2 ? 0 : 1;
        }
        return wrong;
    };
    std::vector<std::future<int>> threads;
    for (int i = 0; i < 2; ++i) {
        threads.push_back(std::async(std::launch::async, [&] { return hammer(client, 8000); }));
        threads.push_back(std::async(std::launch::async, [&] { return hammer(secondClient, 9000); }));
        threads.push_back(std::async(std::launch::async, [&] { return hammer(thirdClient, 7000); }));
    }
    for (auto& thread : threads) {
        EXPECT_EQ(thread.get(), 0);
    }
}

TEST_F(MasterTest, ASilentNodeDoesNotHoldUpAnother) {
    TestNode second(bus, 9);
    CanOpenNodeClient secondClient(master, 9);
    second.set32({0x3000, 1}, 9001);
    second.set32({0x3000, 2}, 9002);
    node.setDeaf(true);
    auto silent = std::async(std::launch::async, [&] { return client.readUInt32(0x3000, 1); });
    node.awaitRequests(1);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(secondClient.readUInt32(0x3000, 1), 9001U);
        EXPECT_EQ(secondClient.readUInt32(0x3000, 2), 9002U);
    }
    while (silent.wait_for(0s) != std::future_status::ready) {
        clock->advance(500ms);
        std::this_thread::yield();
    }
    EXPECT_THROW(silent.get(), SdoTimeoutError);
}

// ----- network management

TEST_F(MasterTest, SendsTheCommandsOfNetworkManagement) {
    for (NmtCommand const command : {NmtCommand::Start, NmtCommand::Stop, NmtCommand::PreOperational,
                                     NmtCommand::ResetNode, NmtCommand::ResetCommunication}) {
        master->command(command, 8);
    }
    master->command(NmtCommand::Start, 9);
    master->command(NmtCommand::Stop, 0);
    EXPECT_EQ(node.awaitCommands(6),
              (std::vector{NmtCommand::Start, NmtCommand::Stop, NmtCommand::PreOperational,
                           NmtCommand::ResetNode, NmtCommand::ResetCommunication, NmtCommand::Stop}));
}

TEST_F(MasterTest, HearsBootUpAndHeartbeat) {
    EXPECT_EQ(master->status(8).state, NmtState::Unknown);
    EXPECT_FALSE(master->status(8).lastSign);
    node.sendBootUp();
    node.sendState(NmtState::Operational);
    EXPECT_TRUE(master->awaitStatus(
        8, [](NodeStatus const& aStatus) { return aStatus.state == NmtState::Operational; }, 1h));
    EXPECT_EQ(master->status(8).bootUps, 1U);
    EXPECT_EQ(master->status(8).signs, 2U);
    EXPECT_TRUE(master->status(8).lastSign);
    EXPECT_TRUE(log.has(Severity::Info, "Node 8 has booted"));
    EXPECT_TRUE(log.has(Severity::Debug, "Node 8 is in state 0x05"));
}

TEST_F(MasterTest, WaitsInVainForASignThatDoesNotCome) {
    auto sign = std::async(std::launch::async, [&] {
        return master->awaitStatus(
            8, [](NodeStatus const& aStatus) { return aStatus.bootUps > 0; }, 10s);
    });
    while (sign.wait_for(0s) != std::future_status::ready) {
        clock->advance(1s);
        std::this_thread::yield();
    }
    EXPECT_FALSE(sign.get());
}

TEST_F(MasterTest, TellsOnceThatAHeartbeatIsMissingAndThatItIsBack) {
    master->superviseHeartbeat(8, 300ms);
    node.sendState(NmtState::Operational);
    EXPECT_TRUE(master->awaitStatus(
        8, [](NodeStatus const& aStatus) { return aStatus.signs == 1; }, 1h));
    while (!log.has(Severity::Warning, "Node 8: no heartbeat for 300 ms")) {
        clock->advance(100ms);
        std::this_thread::yield();
    }
    EXPECT_EQ(master->status(8).state, NmtState::Unknown);
    clock->advance(10s);
    node.sendState(NmtState::Operational);
    awaitLine(Severity::Info, "Node 8: the heartbeat is back");
    EXPECT_EQ(log.count(Severity::Warning, "Node 8: no heartbeat for 300 ms"), 1U);
    EXPECT_EQ(master->status(8).state, NmtState::Operational);
}

// ----- node guarding

/// The master guards node 8, whose answers are given one by one.
struct GuardingTest : MasterTest {
    static constexpr char const* kRepeated = "Node 8: an answer to node guarding repeats the toggle bit";

    /// The master asks; the node's answer is this byte.
    void guard(std::uint8_t aAnswer) {
        node.onGuard([aAnswer] { return aAnswer; });
        master->guard(8);
    }
    void expectSigns(std::uint32_t aCount) {
        EXPECT_TRUE(master->awaitStatus(
            8, [&](NodeStatus const& aStatus) { return aStatus.signs >= aCount; }, 1h));
        EXPECT_EQ(master->status(8).signs, aCount);
    }
};

TEST_F(GuardingTest, AsksWithARemoteFrameOfOneByte) {
    auto const watch = bus.open("watch");
    master->guard(8);
    EXPECT_EQ(watch->receive(0ms), (CanFrame{.id = 0x708, .length = 1, .remote = true}));
    EXPECT_THROW(master->guard(0), std::invalid_argument);
    EXPECT_THROW(master->guard(128), std::invalid_argument);
    bus.failLink(CanLinkError::Reason::BusOff, "can0");
    EXPECT_THROW(master->guard(8), CanLinkError);
}

TEST_F(GuardingTest, TakesTheStateFromAnswersWhoseToggleBitAlternates) {
    guard(0x7F);
    expectSigns(1);
    EXPECT_EQ(master->status(8).state, NmtState::PreOperational);
    guard(0x80 | 0x05);
    expectSigns(2);
    EXPECT_EQ(master->status(8).state, NmtState::Operational);
    guard(0x04);
    expectSigns(3);
    EXPECT_EQ(master->status(8).state, NmtState::Stopped);
    EXPECT_EQ(master->status(8).bootUps, 0U);
    EXPECT_TRUE(log.linesUpTo(Severity::Warning).empty());
}

TEST_F(GuardingTest, TakesAFirstAnswerWithEitherToggleBitOfANodeThatRanBefore) {
    guard(0x80 | 0x7F);
    expectSigns(1);
    guard(0x7F);
    expectSigns(2);
}

TEST_F(GuardingTest, PassesOverAnAnswerThatRepeatsTheToggleBit) {
    guard(0x80 | 0x7F);
    expectSigns(1);
    guard(0x80 | 0x04); // As if it had not been received.
    awaitLine(Severity::Warning, kRepeated);
    EXPECT_EQ(master->status(8).signs, 1U);
    EXPECT_EQ(master->status(8).state, NmtState::PreOperational);
    guard(0x05);
    expectSigns(2);
    guard(0x04);
    while (log.count(Severity::Warning, kRepeated) < 2) {
        std::this_thread::yield();
    }
    EXPECT_EQ(master->status(8).signs, 2U);
    EXPECT_EQ(master->status(8).state, NmtState::Operational);
}

TEST_F(GuardingTest, WantsAZeroToggleBitAfterABootUp) {
    guard(0x80 | 0x7F);
    expectSigns(1);
    node.sendBootUp();
    expectSigns(2);
    guard(0x80 | 0x05);
    awaitLine(Severity::Warning, kRepeated);
    guard(0x05);
    expectSigns(3);
    EXPECT_EQ(master->status(8).state, NmtState::Operational);
}

TEST_F(GuardingTest, TakesEveryHeartbeatOfANodeThatDoesNotAnswer) {
    for (std::uint32_t beat = 1; beat <= 4; ++beat) {
        master->guard(8);
        node.sendState(NmtState::Operational);
        expectSigns(beat);
    }
    EXPECT_TRUE(log.linesUpTo(Severity::Warning).empty());
}

TEST_F(GuardingTest, TakesTheHeartbeatsOfANodeThatWasGuardedBefore) {
    guard(0x80 | 0x7F);
    expectSigns(1);
    for (std::uint32_t beat = 2; beat <= 5; ++beat) {
        node.sendState(NmtState::PreOperational);
        expectSigns(beat);
    }
    EXPECT_TRUE(log.linesUpTo(Severity::Warning).empty());
}

TEST_F(GuardingTest, FollowsTheToggleBitOfAnswersThatAnotherMasterAskedFor) {
    auto const other = bus.open("other master");
    node.onGuard([toggle = std::uint8_t{0}]() mutable {
        std::uint8_t const state = toggle | 0x05;
        toggle ^= 0x80;
        return state;
    });
    CanFrame const request{.id = 0x708, .length = 1, .remote = true};
    for (std::uint32_t round = 0; round < 3; ++round) {
        other->send(request);
        expectSigns(3 * round + 1);
        master->guard(8);
        expectSigns(3 * round + 2);
        other->send(request);
        expectSigns(3 * round + 3);
    }
    EXPECT_TRUE(log.linesUpTo(Severity::Warning).empty());
}

TEST_F(GuardingTest, DoesNotTakeTheAnswerOfAnotherNodeForThatOfTheOneAsked) {
    TestNode second(bus, 9);
    second.onGuard([] { return 0x05; });
    master->guard(8);
    master->guard(9);
    EXPECT_TRUE(master->awaitStatus(
        9, [](NodeStatus const& aStatus) { return aStatus.signs == 1; }, 1h));
    EXPECT_EQ(master->status(8).signs, 0U);
    EXPECT_EQ(master->status(8).state, NmtState::Unknown);
}

TEST_F(GuardingTest, ANodeThatDoesNotAnswerStaysUnknown) {
    master->guard(8);
    auto sign = std::async(std::launch::async, [&] {
        return master->awaitStatus(
            8, [](NodeStatus const& aStatus) { return aStatus.signs > 0; }, 10s);
    });
    while (sign.wait_for(0s) != std::future_status::ready) {
        clock->advance(1s);
        std::this_thread::yield();
    }
    EXPECT_FALSE(sign.get());
    EXPECT_EQ(master->status(8).state, NmtState::Unknown);
}

TEST_F(GuardingTest, AnAnswerEndsTheSilenceOfASupervisedNode) {
    master->superviseHeartbeat(8, 300ms);
    while (!log.has(Severity::Warning, "Node 8: no heartbeat for 300 ms")) {
        clock->advance(100ms);
        std::this_thread::yield();
    }
    guard(0x05);
    expectSigns(1);
    EXPECT_EQ(master->status(8).state, NmtState::Operational);
}

TEST_F(GuardingTest, RemoteFramesOfOtherIdentifiersMeanNothing) {
    node.set32({0x3000, 1}, 42);
    for (std::uint32_t const id : {0x088U, 0x588U, 0x700U, 0x188U}) {
        node.sendRaw({.id = id, .length = 8, .remote = true});
    }
    EXPECT_EQ(client.readUInt32(0x3000, 1), 42U);
    EXPECT_EQ(master->status(8).signs, 0U);
    EXPECT_TRUE(log.linesUpTo(Severity::Warning).empty());
}

// ----- emergencies

TEST_F(MasterTest, LogsEmergencies) {
    node.sendEmergency({0x10, 0x42, 0x09, 1, 2, 3, 4, 5}); // Code 0x4210, register generic and temperature.
    node.sendEmergency({0x00, 0x00, 0x00, 0, 0, 0, 0, 0});
    node.sendEmergency({0x10, 0x42}); // Too short to mean anything.
    awaitLine(Severity::Info, "Node 8: the emergency is over, error register 0x00 (none)");
    EXPECT_TRUE(log.has(Severity::Error,
                        "Node 8: emergency 0x4210 (temperature of the device), error register 0x09 (generic, "
                        "temperature), data 01 02 03 04 05"));
}

TEST_F(MasterTest, SurvivesFramesThatMeanNothing) {
    node.set32({0x3000, 1}, 42);
    node.sendRaw({0x708, 0, {}});
    node.sendRaw({0x580, 8, {}});
    node.sendRaw({0x700, 1, {0}});
    node.sendRaw({0x1FF, 3, {1, 2, 3}});
    node.sendRaw({0x5FF, 8, {0x43}});
    node.sendRaw({0x588, 3, {0x43}});
    EXPECT_EQ(client.readUInt32(0x3000, 1), 42U);
    EXPECT_EQ(master->status(8).signs, 0U);
}

// ----- the link

TEST_F(MasterTest, ABrokenLinkIsALinkErrorAtOnceAndLoggedOnce) {
    node.set32({0x3000, 1}, 42);
    node.set32({0x3000, 2}, 43);
    EXPECT_EQ(client.readUInt32(0x3000, 1), 42U);
    bus.failLink(CanLinkError::Reason::InterfaceDown, "can0");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(errorOf<CanLinkError>([&] { client.readUInt32(0x3000, 1); }).reason(),
                  CanLinkError::Reason::InterfaceDown);
        EXPECT_THROW(client.writeUInt32(0x3000, 1, 7), CanLinkError);
        EXPECT_THROW(master->command(NmtCommand::Start, 8), CanLinkError);
    }
    EXPECT_EQ(log.linesUpTo(Severity::Error).size(), 1U);
    EXPECT_THAT(log.linesUpTo(Severity::Error).at(0).text, testing::StartsWith("The CAN link is lost: "));

    bus.mendLink();
    EXPECT_EQ(client.readUInt32(0x3000, 2), 43U);
    EXPECT_EQ(log.count(Severity::Warning, "The CAN link is back: 'can0'"), 1U);
    EXPECT_EQ(node.get({0x3000, 1}), (TestNode::Bytes{42, 0, 0, 0})) << "nothing from before comes late";
}

TEST_F(MasterTest, ALinkThatBreaksWhileAnAnswerIsAwaitedEndsTheWait) {
    node.setDeaf(true);
    auto answer = std::async(std::launch::async, [&] { return client.readUInt32(0x3000, 1); });
    node.awaitRequests(1);
    bus.failLink(CanLinkError::Reason::BusOff, "can0");
    EXPECT_EQ(errorOf<CanLinkError>([&] { answer.get(); }).reason(), CanLinkError::Reason::BusOff);
}

TEST_F(MasterTest, AWaitForASignOutlastsABrokenLink) {
    bus.failLink(CanLinkError::Reason::InterfaceDown, "can0");
    auto sign = std::async(std::launch::async, [&] {
        return master->awaitStatus(
            8, [](NodeStatus const& aStatus) { return aStatus.bootUps > 0; }, 1h);
    });
    while (log.linesUpTo(Severity::Error).empty()) {
        std::this_thread::yield();
    }
    bus.mendLink();
    node.sendBootUp();
    while (sign.wait_for(0s) != std::future_status::ready) {
        clock->advance(50ms);
        std::this_thread::yield();
    }
    EXPECT_TRUE(sign.get());
}

} // namespace
