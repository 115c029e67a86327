// SPDX-License-Identifier: Apache-2.0
// A simulated node on the bus: states, signs of life, emergencies, and its faults.
#include "simulator/boards/CanNode.h"

#include "simulator/boards/ShimBoard.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::CanNode;
using libfieldwarden::sim::ShimBoard;
using libfieldwarden::sim::SourceError;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using velmor::kepla::canopen::CanChannel;
using velmor::kepla::canopen::CanFrame;
using velmor::kepla::canopen::CanLinkError;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::InProcessBus;
using velmor::kepla::canopen::NmtCommand;
using velmor::kepla::canopen::NmtState;
using velmor::kepla::canopen::NodeStatus;
using namespace std::chrono_literals;

constexpr CanFrame kBootUp{0x708, 1, {0x00}};

CanFrame heartbeat(NmtState aState) {
    return {0x708, 1, {static_cast<std::uint8_t>(aState)}};
}
CanFrame readRequest(std::uint16_t aIndex, std::uint8_t aSubindex) {
    return {0x608,
            8,
            {0x40, static_cast<std::uint8_t>(aIndex), static_cast<std::uint8_t>(aIndex >> 8U), aSubindex}};
}
constexpr CanFrame kNoHeartbeat{0x608, 8, {0x2B, 0x17, 0x10, 0x00, 0, 0}};
constexpr CanFrame kGuardRequest{.id = 0x708, .length = 1, .remote = true};
CanFrame const kReadCount = readRequest(0x3000, 0);
constexpr CanFrame kCountAnswer{0x588, 8, {0x4F, 0x00, 0x30, 0x00, 17}};

class CanNodeTest : public testing::Test {
protected:
    CanNodeTest() { EXPECT_EQ(next(), kBootUp); }

    /// @return The next frame of the node, however long it takes on the clock, which the test moves.
    CanFrame next() {
        auto const frame = mMaster->receive(24h);
        EXPECT_TRUE(frame.has_value());
        return frame.value_or(CanFrame{});
    }
    /// @return The answer to a request; what the node says beside it is passed over.
    CanFrame ask(CanFrame const& aRequest) {
        mMaster->send(aRequest);
        CanFrame frame = next();
        while (frame.id != 0x588) {
            frame = next();
        }
        return frame;
    }
    void command(std::uint8_t aCommand, std::uint8_t aNode = 8) {
        mMaster->send({0x000, 2, {aCommand, aNode}});
    }
    /// Moves the time on in small steps until the node says something other than that it is alive.
    /// @return How long that took: at least what the node waited, more where the machine is busy.
    std::chrono::nanoseconds untilNext(CanFrame& aFrame) {
        auto const start = mClock->now();
        while (true) {
            if (auto const frame = mMaster->receive(0s);
                frame && *frame != heartbeat(NmtState::PreOperational)) {
                aFrame = *frame;
                return mClock->now() - start;
            }
            mClock->advance(500us);
            std::this_thread::yield();
        }
    }
    /// Waits until the node sleeps, and that it has said nothing.
    void expectSilence() {
        mClock->awaitWaiters(1);
        EXPECT_EQ(mMaster->receive(0s), std::nullopt);
    }
    void awaitState(NmtState aState) {
        while (mNode.state() != aState) {
            std::this_thread::yield();
        }
    }

    HandClockScope mClock;
    InProcessBus mBus;
    std::unique_ptr<CanChannel> mMaster = mBus.open("master");
    std::shared_ptr<ShimBoard> mBoard = std::make_shared<ShimBoard>(ShimBoard::Options{});
    CanNode mNode{mBus.open("node"), 8, mBoard};
};

// ---------------------------------------------------------------------------------------------- states

TEST_F(CanNodeTest, IsPreOperationalAfterItsBootUp) {
    EXPECT_EQ(mNode.nodeId(), 8);
    awaitState(NmtState::PreOperational);
}

TEST_F(CanNodeTest, BeatsOnTimeWithItsState) {
    mClock->awaitWaiters(1);
    mClock->advance(1999ms);
    expectSilence();
    mClock->advance(1ms);
    EXPECT_EQ(next(), heartbeat(NmtState::PreOperational));
    command(0x01);
    awaitState(NmtState::Operational);
    mClock->awaitWaiters(1);
    mClock->advance(1999ms);
    expectSilence();
    mClock->advance(1ms);
    EXPECT_EQ(next(), heartbeat(NmtState::Operational));
}

TEST_F(CanNodeTest, TakesANewHeartbeatPeriodAtOnceAndNoneAtAll) {
    EXPECT_EQ(ask({0x608, 8, {0x2B, 0x17, 0x10, 0x00, 100, 0}}).data[0], 0x60); // 100 ms
    mClock->awaitWaiters(1);
    mClock->advance(99ms);
    expectSilence();
    mClock->advance(1ms);
    EXPECT_EQ(next(), heartbeat(NmtState::PreOperational));
    EXPECT_EQ(ask(kNoHeartbeat).data[0], 0x60);
    ask(kReadCount); // Only so that the node has seen to its period.
    mClock->awaitWaiters(1);
    mClock->advance(1min);
    expectSilence();
}

TEST_F(CanNodeTest, AnswersNodeGuardingWithItsStateAndAnAlternatingBitWhileItDoesNotBeat) {
    EXPECT_EQ(ask(kNoHeartbeat).data[0], 0x60);
    mMaster->send(kGuardRequest);
    EXPECT_EQ(next(), (CanFrame{0x708, 1, {0x7F}}));
    mMaster->send(kGuardRequest);
    EXPECT_EQ(next(), (CanFrame{0x708, 1, {0x80 | 0x7F}}));
    command(0x01);
    mMaster->send(kGuardRequest);
    EXPECT_EQ(next(), (CanFrame{0x708, 1, {0x05}}));
    command(0x02);
    mMaster->send(kGuardRequest);
    EXPECT_EQ(next(), (CanFrame{0x708, 1, {0x80 | 0x04}}));
}

TEST_F(CanNodeTest, BeginsItsAnswersToNodeGuardingAnewAfterABootUp) {
    EXPECT_EQ(ask(kNoHeartbeat).data[0], 0x60);
    mMaster->send(kGuardRequest);
    EXPECT_EQ(next(), (CanFrame{0x708, 1, {0x7F}}));
    command(0x82);
    EXPECT_EQ(next(), kBootUp);
    EXPECT_EQ(ask(kNoHeartbeat).data[0], 0x60);
    mMaster->send(kGuardRequest);
    EXPECT_EQ(next(), (CanFrame{0x708, 1, {0x7F}}));
}

TEST_F(CanNodeTest, IsGuardedByTheMasterThroughItsRestarts) {
    LogCapture const log;
    CanOpenMaster master(mBus.open("can0"), 1);
    std::uint32_t signs = 0;
    auto const awaitSign = [&] {
        ++signs;
        return master.awaitStatus(
            8, [&](NodeStatus const& aStatus) { return aStatus.signs == signs; }, 24h);
    };
    for (int start = 0; start < 3; ++start) {
        EXPECT_EQ(ask(kNoHeartbeat).data[0], 0x60);
        for (int round = 0; round < 3; ++round) {
            master.guard(8);
            ASSERT_TRUE(awaitSign());
            EXPECT_EQ(master.status(8).state, NmtState::PreOperational);
        }
        master.command(NmtCommand::ResetCommunication, 8);
        ASSERT_TRUE(awaitSign());
    }
    EXPECT_EQ(master.status(8).bootUps, 3U);
    EXPECT_TRUE(log.linesUpTo(Severity::Warning).empty());
}

TEST_F(CanNodeTest, DoesNotAnswerNodeGuardingWhileItBeatsNorThatOfOthersNorASilentOne) {
    mMaster->send(kGuardRequest);
    expectSilence();
    EXPECT_EQ(ask(kNoHeartbeat).data[0], 0x60);
    mMaster->send({.id = 0x709, .length = 1, .remote = true});
    mMaster->send({.id = 0x608, .length = 8, .remote = true});
    expectSilence();
    mNode.faults().setSilent(true);
    mMaster->send(kGuardRequest);
    expectSilence();
}

TEST_F(CanNodeTest, ObeysCommandsToItselfAndToAll) {
    for (std::uint8_t const node : {std::uint8_t{8}, std::uint8_t{0}}) {
        command(0x01, node);
        awaitState(NmtState::Operational);
        command(0x80, node);
        awaitState(NmtState::PreOperational);
        command(0x02, node);
        awaitState(NmtState::Stopped);
        command(0x80, node);
        awaitState(NmtState::PreOperational);
    }
}

TEST_F(CanNodeTest, IgnoresCommandsToOthersAndUnknownOnes) {
    command(0x01, 9);
    command(0x55, 8);
    mMaster->send({0x000, 1, {0x01}});
    EXPECT_EQ(ask(kReadCount), kCountAnswer);
    EXPECT_EQ(mNode.state(), NmtState::PreOperational);
}

TEST_F(CanNodeTest, AnswersNoReadWhileItIsStopped) {
    command(0x02);
    mMaster->send(kReadCount);
    command(0x80);
    awaitState(NmtState::PreOperational);
    EXPECT_EQ(ask(readRequest(0x3004, 1)), (CanFrame{0x588, 8, {0x4F, 0x04, 0x30, 0x01, 129}}));
}

TEST_F(CanNodeTest, RestartsOnCommandWithNewPowerOnValues) {
    mBoard->restart(ShimBoard::Start::Fault);
    command(0x81);
    CanFrame frame;
    EXPECT_GE(untilNext(frame), ShimBoard::kStartTime);
    EXPECT_EQ(frame, kBootUp);
    EXPECT_EQ(ask(readRequest(0x2000, 3)), (CanFrame{0x588, 8, {0x43, 0x00, 0x20, 0x03, 1}}));
}

TEST_F(CanNodeTest, HearsNothingWhileItStarts) {
    command(0x81);
    awaitState(NmtState::Unknown);
    mMaster->send(kReadCount);
    CanFrame frame;
    untilNext(frame);
    EXPECT_EQ(frame, kBootUp);
    EXPECT_EQ(ask(readRequest(0x3004, 1)).data[1], 0x04); // Not the answer to the request before.
}

TEST_F(CanNodeTest, BootsUpAtOnceWhenItsCommunicationIsReset) {
    command(0x82);
    EXPECT_EQ(next(), kBootUp);
    EXPECT_EQ(ask(readRequest(0x2000, 2)), (CanFrame{0x588, 8, {0x43, 0x00, 0x20, 0x02, 1}})); // no new start
}

// ---------------------------------------------------------------------------------------------- SDO

TEST_F(CanNodeTest, AnswersReadsAndRefusals) {
    EXPECT_EQ(ask(kReadCount), kCountAnswer);
    EXPECT_EQ(ask(readRequest(0x4000, 0)), (CanFrame{0x588, 8, {0x80, 0x00, 0x40, 0x00, 0, 0, 0x02, 0x06}}));
    EXPECT_EQ(ask(readRequest(0x3000, 18)),
              (CanFrame{0x588, 8, {0x80, 0x00, 0x30, 18, 0x11, 0, 0x09, 0x06}}));
}

TEST_F(CanNodeTest, GivesUpATransferWhoseClientIsGone) {
    EXPECT_EQ(ask({0x608, 8, {0x21, 0x01, 0x30, 0x01, 68}}).data[0], 0x60);
    mClock->awaitWaiters(1);
    CanFrame frame;
    EXPECT_GE(untilNext(frame), 1s);
    EXPECT_EQ(frame, (CanFrame{0x588, 8, {0x80, 0x01, 0x30, 0x01, 0, 0, 0x04, 0x05}})); // timed out
}

TEST_F(CanNodeTest, ConfirmsNewCurrentsWhenTheyHaveSettled) {
    EXPECT_EQ(ask({0x608, 8, {0x21, 0x01, 0x30, 0x01, 68}}).data[0], 0x60);
    CanFrame segment{0x608, 8, {0x00, 0x40, 0x42, 0x0F}}; // 1000000, then zeros
    for (int number = 0; number < 9; ++number) {
        EXPECT_EQ(ask(segment).data[0], number % 2 == 0 ? 0x20 : 0x30);
        segment.data = {static_cast<std::uint8_t>(number % 2 == 0 ? 0x10 : 0x00)};
    }
    segment.data = {0x10 | 0x04 | 0x01}; // The last one: 68 - 63 = 5 bytes, 2 unused.
    mMaster->send(segment);
    CanFrame frame;
    EXPECT_GE(untilNext(frame), 7600us);
    EXPECT_EQ(frame.data[0], 0x30);
    EXPECT_EQ(ask(readRequest(0x3000, 1)),
              (CanFrame{0x588, 8, {0x43, 0x00, 0x30, 0x01, 0x40, 0x42, 0x0F, 0}}));
}

TEST_F(CanNodeTest, ConfirmsTheStopOfItsProgramBeforeItRestarts) {
    EXPECT_EQ(ask({0x608, 8, {0x2F, 0x51, 0x1F, 0x01, 0}}).data[0], 0x60);
    CanFrame frame;
    EXPECT_GE(untilNext(frame), ShimBoard::kStartTime);
    EXPECT_EQ(frame, kBootUp);
    EXPECT_EQ(ask(readRequest(0x1F51, 1)), (CanFrame{0x588, 8, {0x4F, 0x51, 0x1F, 0x01, 0}}));
}

// ---------------------------------------------------------------------------------------------- emergencies

/// A little current through source 1, so that it is on.
void switchOn(ShimBoard& aBoard) {
    std::vector<std::uint8_t> currents(68);
    currents[0] = 2;
    ASSERT_EQ(aBoard.write({0x3001, 1}, currents), 0U);
}

TEST_F(CanNodeTest, SendsEmergenciesAtOnce) {
    switchOn(*mBoard);
    mBoard->failSource(1, SourceError::OpenLoad);
    EXPECT_EQ(next(), (CanFrame{0x088, 8, {0x30, 0x23, 0x03, 1, 1}}));
    mBoard->failSource(1, SourceError::None);
    EXPECT_EQ(next(), (CanFrame{0x088, 8, {0x00, 0x00, 0x00, 1, 0}}));
    mBoard->raiseEmergency({0xFF01, 0x80, {1, 2, 3, 4, 5}});
    EXPECT_EQ(next(), (CanFrame{0x088, 8, {0x01, 0xFF, 0x80, 1, 2, 3, 4, 5}}));
}

TEST_F(CanNodeTest, KeepsItsFaultsToItselfWhileItIsStopped) {
    command(0x02);
    awaitState(NmtState::Stopped);
    mBoard->raiseEmergency({0xFF01, 0x80, {}});
    mClock->awaitWaiters(1);
    mClock->advance(2s);
    EXPECT_EQ(next(), heartbeat(NmtState::Stopped));
}

TEST_F(CanNodeTest, WatchesItsTemperatureWithoutBeingAsked) {
    switchOn(*mBoard);
    mClock->advance(20ms); // until it has settled, for only then the board answers
    mBoard->setAmbient(120.0);
    EXPECT_EQ(ask({0x608, 8, {0x2B, 0x17, 0x10, 0x00, 0, 0}}).data[0], 0x60); // no heartbeat
    ask(kReadCount);
    mClock->awaitWaiters(1);
    // From 27.55 C towards 122.55 C, past 85: 450 s ln(95.00 / 37.55) = 417.7 s
    mClock->advance(410s);
    expectSilence();
    mClock->advance(10s);
    EXPECT_EQ(next(), (CanFrame{0x088, 8, {0x10, 0x42, 0x09}}));
}

// ---------------------------------------------------------------------------------------------- faults

TEST_F(CanNodeTest, NeitherHearsNorSaysAnythingWhenItIsSilent) {
    mNode.faults().setSilent(true);
    mMaster->send(kReadCount);
    mClock->awaitWaiters(1);
    mClock->advance(2s);
    mClock->awaitWaiters(1);
    EXPECT_EQ(mMaster->receive(0s), std::nullopt);
    mNode.faults().setSilent(false);
    EXPECT_EQ(ask(readRequest(0x3004, 1)).data[1], 0x04);
}

TEST_F(CanNodeTest, RefusesAGivenObject) {
    mNode.faults().abortObject({0x3000, 0}, 0x06060000);
    EXPECT_EQ(ask(kReadCount), (CanFrame{0x588, 8, {0x80, 0x00, 0x30, 0x00, 0, 0, 0x06, 0x06}}));
    EXPECT_EQ(ask(readRequest(0x3004, 1)).data[0], 0x4F);
    mNode.faults().abortObject({0x3000, 0}, 0);
    EXPECT_EQ(ask(kReadCount), kCountAnswer);
}

TEST_F(CanNodeTest, AnswersWithAGivenSize) {
    mNode.faults().answerWithSize({0x3000, 0}, 3);
    EXPECT_EQ(ask(kReadCount), (CanFrame{0x588, 8, {0x47, 0x00, 0x30, 0x00, 17}})); // three bytes
    mNode.faults().answerWithSize({0x3000, 0}, 5);
    EXPECT_EQ(ask(kReadCount), (CanFrame{0x588, 8, {0x41, 0x00, 0x30, 0x00, 5}})); // five in segments
    mNode.faults().answerWithSize({0x3000, 0}, std::nullopt);
    EXPECT_EQ(ask(kReadCount), kCountAnswer);
}

TEST_F(CanNodeTest, RestartsInTheMiddleOfATransfer) {
    EXPECT_EQ(ask({0x608, 8, {0x21, 0x01, 0x30, 0x01, 68}}).data[0], 0x60);
    mNode.faults().restartAtFrame(2);
    EXPECT_EQ(ask({0x608, 8, {0x00, 1}}).data[0], 0x20);
    mMaster->send({0x608, 8, {0x10, 1}});
    CanFrame frame;
    EXPECT_GE(untilNext(frame), ShimBoard::kStartTime);
    EXPECT_EQ(frame, kBootUp);
    EXPECT_EQ(ask(readRequest(0x2000, 3)).data[4], 3); // by a fault
}

TEST_F(CanNodeTest, LosesTheNextFrames) {
    mNode.faults().loseFrames(2);
    mMaster->send(kReadCount);
    mMaster->send(kReadCount);
    EXPECT_EQ(ask(readRequest(0x3004, 1)).data[1], 0x04);
}

TEST_F(CanNodeTest, AnswersLate) {
    mNode.faults().delayAnswers(50ms);
    mMaster->send(kReadCount);
    CanFrame frame;
    EXPECT_GE(untilNext(frame), 50ms);
    EXPECT_EQ(frame, kCountAnswer);
    mNode.faults().delayAnswers(0s);
    EXPECT_EQ(ask(kReadCount), kCountAnswer);
}

TEST_F(CanNodeTest, ForgetsItsFaultsTogether) {
    mNode.faults().setSilent(true);
    mNode.faults().abortObject({0x3000, 0}, 0x06060000);
    mNode.faults().answerWithSize({0x3000, 0}, 3);
    mNode.faults().restartAtFrame(1);
    mNode.faults().loseFrames(1);
    mNode.faults().delayAnswers(1h);
    mNode.faults().clear();
    EXPECT_EQ(ask(kReadCount), kCountAnswer);
}

TEST_F(CanNodeTest, GoesOnWhenItsBusIsBack) {
    LogCapture const log;
    mBus.failLink(CanLinkError::Reason::BusOff, "node");
    while (log.linesOf("CanNode(node 8)").empty()) {
        std::this_thread::yield();
    }
    EXPECT_EQ(log.linesOf("CanNode(node 8)").front().severity, Severity::Warning);
    mBus.mendLink("node");
    mMaster->send(kReadCount);
    CanFrame frame;
    untilNext(frame);
    EXPECT_EQ(frame, kCountAnswer);
    EXPECT_EQ(log.linesOf("CanNode(node 8)").size(), 1U);
}

TEST(CanNode, NeedsAChannelAndABoardAndANodeNumber) {
    InProcessBus bus;
    auto const board = std::make_shared<ShimBoard>(ShimBoard::Options{});
    EXPECT_THROW(CanNode(nullptr, 8, board), std::invalid_argument);
    EXPECT_THROW(CanNode(bus.open("node"), 8, nullptr), std::invalid_argument);
    EXPECT_THROW(CanNode(bus.open("node"), 0, board), std::invalid_argument);
    EXPECT_THROW(CanNode(bus.open("node"), 128, board), std::invalid_argument);
}

TEST(CanNode, LeavesItsBoardToAnotherNode) {
    HandClockScope const clock;
    InProcessBus bus;
    auto const master = bus.open("master");
    auto const board = std::make_shared<ShimBoard>(ShimBoard::Options{});
    for (int time = 0; time < 3; ++time) {
        CanNode const node(bus.open("node"), 8, board);
        EXPECT_EQ(master->receive(24h), kBootUp);
    }
    board->raiseEmergency({0x5000, 0x01, {}}); // Nobody is there to be woken.
}

} // namespace
