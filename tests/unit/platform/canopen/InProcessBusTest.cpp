// SPDX-License-Identifier: Apache-2.0
// The bus within the process: arbitration, speed to the bit, faults.
#include "support/CanChannelContract.h"
#include "support/HandClockScope.h"
#include "support/SdoLoopback.h"

#include <velmor/kepla/canopen/CanFrameBits.h>
#include <velmor/kepla/canopen/InProcessBus.h>

#include <gtest/gtest.h>

#include <atomic>
#include <random>

using namespace velmor::kepla::canopen;
using libfieldwarden::test::ByteDictionary;
using libfieldwarden::test::CanChannelContract;
using libfieldwarden::test::CanChannelRig;
using libfieldwarden::test::HandClockScope;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

namespace {

class InProcessRig : public CanChannelRig {
public:
    CanChannel& channel() override { return *mChannel; }
    void peerSends(CanFrame const& aFrame) override { mPeer->send(aFrame); }
    std::vector<CanFrame> peerReceived() override {
        std::vector<CanFrame> frames;
        while (auto const frame = mPeer->receive(nanoseconds(0))) {
            frames.push_back(*frame);
        }
        return frames;
    }
    void breakLink(CanLinkError::Reason aReason) override { mBus.failLink(aReason, "can0"); }
    void mendLink() override { mBus.mendLink("can0"); }

private:
    InProcessBus mBus;
    std::unique_ptr<CanChannel> mChannel = mBus.open("can0");
    std::unique_ptr<CanChannel> mPeer = mBus.open("board");
};

} // namespace

namespace libfieldwarden::test {
INSTANTIATE_TYPED_TEST_SUITE_P(InProcess, CanChannelContract, InProcessRig);
} // namespace libfieldwarden::test

namespace {

/// The identifiers that a channel has received.
std::vector<std::uint32_t> idsOf(CanChannel& aChannel) {
    std::vector<std::uint32_t> ids;
    while (auto const frame = aChannel.receive(nanoseconds(0))) {
        ids.push_back(frame->id);
    }
    return ids;
}

using Ids = std::vector<std::uint32_t>;

TEST(CanFrameBits, AreThoseWorkedOutByHand) {
    // All 34 bits from the start of frame to the check sum are 0: a 1 is stuffed behind each five, that is 6.
    // 34 + 6 + 10 = 50.
    EXPECT_EQ(canFrameCrc({0x000, 0, {}}), 0U);
    EXPECT_EQ(canFrameBits({0x000, 0, {}}), 50U);
    // 0 11111 (0) 11111 (0) 1 00000 (1) 00 and the check sum 010011100101111: 34 + 3 + 10 = 47.
    EXPECT_EQ(canFrameCrc({0x7FF, 0, {}}), 0x272FU);
    EXPECT_EQ(canFrameBits({0x7FF, 0, {}}), 47U);
    // 0 10101010101 0000 0 (1) 00 and 110011101001100, where no five are alike: 34 + 1 + 10 = 45.
    EXPECT_EQ(canFrameCrc({0x555, 0, {}}), 0x674CU);
    EXPECT_EQ(canFrameBits({0x555, 0, {}}), 45U);
    // 00000 (1) 010100 000 (1) 0001 00000 (1) 001 and 111011101010011: 42 + 3 + 10 = 55.
    EXPECT_EQ(canFrameCrc({0x014, 1, {0x01}}), 0x7753U);
    EXPECT_EQ(canFrameBits({0x014, 1, {0x01}}), 55U);
}

TEST(CanFrameBits, OfARemoteFrameCountNoDataWhateverItAsksFor) {
    // 0 11100001000 1 00 000 (1) 1 and 00001 0111 00000 (1) 0, the check sum 000010111000000: 34 + 2 + 10
    // = 46.
    CanFrame const guardRequest{.id = 0x708, .length = 1, .remote = true};
    EXPECT_EQ(canFrameCrc(guardRequest), 0x05C0U);
    EXPECT_EQ(canFrameBits(guardRequest), 46U);
    // 0 11111 (0) 11111 (0) 1 1 00000 (1) 0 and 101010011101010, where no five are alike: 34 + 3 + 10 = 47.
    CanFrame const last{.id = 0x7FF, .length = 0, .remote = true};
    EXPECT_EQ(canFrameCrc(last), 0x54EAU);
    EXPECT_EQ(canFrameBits(last), 47U);
}

TEST(CanFrameBits, StayWithinTheBoundsOfStuffing) {
    // 44 bits and the data, and at the worst a stuff bit behind the first five and every four that follow.
    std::mt19937 random(1);
    for (int i = 0; i < 20'000; ++i) {
        CanFrame frame{
            static_cast<std::uint32_t>(random() % 0x800), static_cast<std::uint8_t>(random() % 9), {}};
        frame.remote = i % 4 == 0;
        unsigned const dataBits = frame.remote ? 0U : 8U * frame.length;
        for (std::uint8_t byte = 0; byte < dataBits / 8U; ++byte) {
            frame.data[byte] = static_cast<std::uint8_t>(random() % 3 == 0 ? 0x00 : random());
        }
        unsigned const least = 44U + dataBits;
        ASSERT_GE(canFrameBits(frame), least);
        ASSERT_LE(canFrameBits(frame), least + (34U + dataBits - 1U) / 4U);
    }
}

TEST(InProcessBus, DeliversToAllOthersBeforeSendReturns) {
    InProcessBus bus;
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    auto const c = bus.open("c");
    a->send({0x123, 1, {9}});
    EXPECT_EQ(b->receive(nanoseconds(0)), (CanFrame{0x123, 1, {9}}));
    EXPECT_EQ(c->receive(nanoseconds(0)), (CanFrame{0x123, 1, {9}}));
    EXPECT_EQ(a->receive(nanoseconds(0)), std::nullopt);
    EXPECT_EQ(bus.counters().sent, 1U);
    EXPECT_EQ(bus.counters().delivered, 2U);
}

TEST(InProcessBus, LetsTheLowestIdentifierGoFirst) {
    InProcessBus bus;
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    auto const listener = bus.open("listener");
    bus.hold();
    a->send({0x708, 0, {}});
    a->send({0x588, 1, {1}});
    b->send({0x588, 1, {2}});
    b->send({0x088, 0, {}});
    a->send({0x588, 1, {3}});
    b->send({0x000, 0, {}});
    EXPECT_EQ(listener->receive(nanoseconds(0)), std::nullopt);
    bus.release();
    EXPECT_EQ(listener->receive(nanoseconds(0))->id, 0x000U);
    EXPECT_EQ(listener->receive(nanoseconds(0))->id, 0x088U);
    for (std::uint8_t const order : {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{3}}) {
        EXPECT_EQ(listener->receive(nanoseconds(0)),
                  (CanFrame{0x588, 1, {order}})); // equal ones as they were sent
    }
    EXPECT_EQ(listener->receive(nanoseconds(0))->id, 0x708U);
    EXPECT_EQ(idsOf(*a), (Ids{0x000, 0x088, 0x588})); // b's
}

TEST(InProcessBus, LetsADataFrameGoBeforeARemoteFrameOfItsIdentifier) {
    InProcessBus bus;
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    auto const listener = bus.open("listener");
    CanFrame const request{.id = 0x708, .length = 1, .remote = true};
    bus.hold();
    a->send(request);
    b->send({0x708, 1, {0x05}});
    b->send({0x709, 1, {0x05}});
    bus.release();
    EXPECT_EQ(listener->receive(nanoseconds(0)), (CanFrame{0x708, 1, {0x05}}));
    EXPECT_EQ(listener->receive(nanoseconds(0)), request);
    EXPECT_EQ(listener->receive(nanoseconds(0)), (CanFrame{0x709, 1, {0x05}}));
}

TEST(InProcessBus, ASilentNodeIsAskedButDoesNotAnswer) {
    InProcessBus bus;
    auto const master = bus.open("can0");
    auto const board = bus.open("board");
    CanFrame const request{.id = 0x708, .length = 1, .remote = true};
    bus.silence(8);
    master->send(request);
    EXPECT_EQ(board->receive(nanoseconds(0)), request);
    board->send({0x708, 1, {0x05}});
    EXPECT_EQ(master->receive(nanoseconds(0)), std::nullopt);
}

TEST(InProcessBus, ARemoteFrameHasNoBytesThatCouldBeDamaged) {
    InProcessBus bus;
    auto const master = bus.open("can0");
    auto const board = bus.open("board");
    CanFrame const request{.id = 0x708, .length = 1, .remote = true};
    bus.inject({.action = BusFault::Action::Corrupt, .corruption = {0xFF}});
    master->send(request);
    EXPECT_EQ(board->receive(nanoseconds(0)), request);
}

TEST(InProcessBus, DeliversOnlyWhatAChannelWants) {
    InProcessBus bus;
    auto const master = bus.open("can0");
    auto const board = bus.open("board", {{0x608}, {0x000}, {0x180, 0x780}});
    for (std::uint32_t const id : {0x608U, 0x609U, 0x000U, 0x188U, 0x1FFU, 0x208U}) {
        master->send({id, 0, {}});
    }
    EXPECT_EQ(idsOf(*board), (Ids{0x608, 0x000, 0x188, 0x1FF}));
}

TEST(InProcessBus, OutlivesItselfInItsChannels) {
    auto bus = std::make_unique<InProcessBus>();
    auto const a = bus->open("a");
    auto const b = bus->open("b");
    bus.reset();
    a->send({0x100, 0, {}});
    EXPECT_EQ(idsOf(*b), (Ids{0x100}));
}

TEST(InProcessBus, AFrameTakesItsBitsOnTheBus) {
    HandClockScope clock;
    InProcessBus bus({.bitRate = 125'000});
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    // 50 bits at 8 us each are 400 us, and the second frame starts after 3 bits more, at 424 us: it ends at
    // 824 us.
    a->send({0x000, 0, {}});
    a->send({0x000, 0, {}});
    clock->advance(microseconds(400) - nanoseconds(1));
    EXPECT_EQ(b->receive(nanoseconds(0)), std::nullopt);
    clock->advance(nanoseconds(1));
    EXPECT_TRUE(b->receive(nanoseconds(0)));
    clock->advance(microseconds(424) - nanoseconds(1));
    EXPECT_EQ(b->receive(nanoseconds(0)), std::nullopt);
    clock->advance(nanoseconds(1));
    EXPECT_TRUE(b->receive(nanoseconds(0)));
    EXPECT_EQ(bus.counters().bits, 106U);
}

TEST(InProcessBus, AnUrgentFrameWaitsForTheOneOnTheBusButForNoOther) {
    HandClockScope clock;
    InProcessBus bus({.bitRate = 1'000'000});
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    a->send({0x700, 0, {}});
    a->send({0x701, 0, {}});
    a->send({0x702, 0, {}});
    clock->advance(microseconds(10)); // 0x700 is on the bus
    b->send({0x001, 0, {}});
    auto const listener = bus.open("listener");
    clock->advance(milliseconds(1));
    EXPECT_EQ(idsOf(*listener), (Ids{0x700, 0x001, 0x701, 0x702}));
}

TEST(InProcessBus, WakesAReceiverAtTheFramesEnd) {
    HandClockScope clock;
    InProcessBus bus({.bitRate = 125'000});
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    std::atomic<bool> received = false;
    std::thread receiver([&] {
        EXPECT_EQ(b->receive(seconds(10)), (CanFrame{0x000, 0, {}}));
        received = true;
    });
    clock->awaitWaiters(1); // until its time-out
    a->send({0x000, 0, {}});
    clock->advance(microseconds(399));
    EXPECT_FALSE(received);
    // The receiver reckons anew when the frame starts, and then waits for its end.
    while (!received) {
        clock->advance(microseconds(1));
        std::this_thread::yield();
    }
    receiver.join();
}

TEST(InProcessBus, ReceivesNothingWhenTheTimeIsOver) {
    HandClockScope clock;
    InProcessBus bus;
    auto const a = bus.open("a");
    std::thread receiver([&] { EXPECT_EQ(a->receive(seconds(1)), std::nullopt); });
    clock->awaitWaiters(1);
    EXPECT_EQ(clock->advanceToNextDeadline(), seconds(1));
    receiver.join();
}

TEST(InProcessBus, ASenderWaitsForRoomInItsQueueButNotForEver) {
    HandClockScope clock;
    InProcessBus bus({.transmitQueue = 2});
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    bus.hold();
    a->send({0x100, 0, {}});
    a->send({0x101, 0, {}});
    std::thread sender([&] {
        try {
            a->send({0x102, 0, {}});
            ADD_FAILURE() << "no exception";
        } catch (CanLinkError const& error) {
            EXPECT_EQ(error.reason(), CanLinkError::Reason::TransmitQueueFull);
            EXPECT_STREQ(error.what(), "CAN interface 'a' failed: The transmit queue is full");
        }
    });
    clock->awaitWaiters(1);
    EXPECT_EQ(clock->advanceToNextDeadline(), milliseconds(100));
    sender.join();
    bus.release();
    EXPECT_EQ(idsOf(*b), (Ids{0x100, 0x101})); // not the one that failed
}

TEST(InProcessBus, ASlowReaderLosesFramesAndTheyAreCounted) {
    InProcessBus bus({.receiveQueue = 3});
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    for (std::uint32_t id = 1; id <= 5; ++id) {
        a->send({id, 0, {}});
    }
    EXPECT_EQ(idsOf(*b), (Ids{1, 2, 3}));
    EXPECT_EQ(bus.counters().overflowed, 2U);
}

TEST(InProcessBus, DropsTheFramesThatItIsToldTo) {
    InProcessBus bus;
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    // The second and third of the frames with an even identifier.
    BusFault fault;
    fault.matches = [](CanFrame const& aFrame) { return aFrame.id % 2 == 0; };
    fault.skip = 1;
    fault.count = 2;
    bus.inject(fault);
    for (std::uint32_t id = 1; id <= 9; ++id) {
        a->send({id, 0, {}});
    }
    EXPECT_EQ(idsOf(*b), (Ids{1, 2, 3, 5, 7, 8, 9}));
    EXPECT_EQ(bus.counters().dropped, 2U);
}

TEST(InProcessBus, RepeatsAndCorruptsFrames) {
    InProcessBus bus;
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    BusFault twice;
    twice.action = BusFault::Action::Duplicate;
    bus.inject(twice);
    a->send({0x588, 2, {0x0F, 0x01}});
    EXPECT_EQ(idsOf(*b), (Ids{0x588, 0x588}));
    BusFault corrupt;
    corrupt.action = BusFault::Action::Corrupt;
    corrupt.count = BusFault::kAlways;
    corrupt.corruption = {0xFF, 0x80, 0xFF};
    auto const id = bus.inject(corrupt);
    a->send({0x588, 2, {0x0F, 0x01}});
    EXPECT_EQ(b->receive(nanoseconds(0)), (CanFrame{0x588, 2, {0xF0, 0x81}})); // nothing behind its length
    bus.heal(id);
    a->send({0x588, 2, {0x0F, 0x01}});
    EXPECT_EQ(b->receive(nanoseconds(0)), (CanFrame{0x588, 2, {0x0F, 0x01}}));
    EXPECT_EQ(bus.counters().duplicated, 1U);
    EXPECT_EQ(bus.counters().corrupted, 1U);
}

TEST(InProcessBus, ADelayedFrameIsOvertaken) {
    HandClockScope clock;
    InProcessBus bus;
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    BusFault late;
    late.action = BusFault::Action::Delay;
    late.delay = milliseconds(50);
    bus.inject(late);
    a->send({0x100, 0, {}});
    a->send({0x200, 0, {}});
    EXPECT_EQ(idsOf(*b), (Ids{0x200}));
    clock->advance(milliseconds(50));
    EXPECT_EQ(idsOf(*b), (Ids{0x100}));
    EXPECT_EQ(bus.counters().delayed, 1U);
}

TEST(InProcessBus, ASilentNodeHearsButIsNotHeard) {
    InProcessBus bus;
    auto const master = bus.open("can0");
    auto const board = bus.open("board");
    bus.silence(8);
    for (std::uint32_t const id : {0x088U, 0x188U, 0x588U, 0x708U}) {
        board->send({id, 0, {}});
    }
    board->send({0x589, 0, {}}); // another node's
    master->send({0x608, 0, {}});
    EXPECT_EQ(idsOf(*master), (Ids{0x589}));
    EXPECT_EQ(idsOf(*board), (Ids{0x608}));
    bus.silence(8, false);
    board->send({0x588, 0, {}});
    EXPECT_EQ(idsOf(*master), (Ids{0x588}));
}

TEST(InProcessBus, ABrokenLinkWakesItsReceiverAndLosesWhatWaits) {
    InProcessBus bus;
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    std::thread receiver([&] { EXPECT_THROW(b->receive(std::chrono::hours(1)), CanLinkError); });
    bus.failLink(CanLinkError::Reason::BusOff, "b");
    receiver.join();
    a->send({0x100, 0, {}}); // a is well, b does not hear it
    bus.mendLink("b");
    EXPECT_EQ(idsOf(*b), Ids{});
    bus.hold();
    a->send({0x101, 0, {}});
    bus.failLink(CanLinkError::Reason::BusOff);
    bus.mendLink();
    bus.release();
    EXPECT_EQ(idsOf(*b), Ids{});
    a->send({0x102, 0, {}});
    EXPECT_EQ(idsOf(*b), (Ids{0x102}));
}

TEST(InProcessBus, AMissingInterfaceCannotBeOpened) {
    InProcessBus bus;
    bus.failLink(CanLinkError::Reason::InterfaceMissing, "can1");
    try {
        bus.open("can1");
        FAIL() << "no exception";
    } catch (CanLinkError const& error) {
        EXPECT_EQ(error.reason(), CanLinkError::Reason::InterfaceMissing);
        EXPECT_STREQ(error.what(), "Cannot open CAN interface 'can1': No such device");
    }
    EXPECT_NO_THROW(bus.open("can0"));
    bus.mendLink();
    EXPECT_NO_THROW(bus.open("can1"));
}

TEST(InProcessBus, ThreadsMaySendAndReceiveAtTheSameTime) {
    InProcessBus bus({.receiveQueue = 100'000});
    auto const sink = bus.open("sink");
    constexpr unsigned kFrames = 5000;
    auto const sendAll = [&](std::uint32_t aId) {
        auto const channel = bus.open("sender");
        for (unsigned i = 0; i < kFrames; ++i) {
            channel->send({aId, 2, {static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8U)}});
        }
    };
    std::thread first(sendAll, 1);
    std::thread second(sendAll, 2);
    std::array<unsigned, 3> next{};
    for (unsigned i = 0; i < 2 * kFrames; ++i) {
        auto const frame = sink->receive(seconds(60));
        ASSERT_TRUE(frame);
        ASSERT_EQ(frame->data[0] | (frame->data[1] << 8), static_cast<int>(next.at(frame->id)++));
    }
    first.join();
    second.join();
}

/// Wakes every sleeper 60 us too late, as a busy machine does.
class LateClock final : public velmor::platform::Clock {
public:
    TimePoint now() const noexcept override { return mNow; }
    SystemTimePoint systemNow() const noexcept override { return {}; }
    void sleepFor(Duration aDuration) override { mNow += aDuration; }
    std::cv_status waitUntil(std::condition_variable& /*aCondition*/,
                             std::unique_lock<std::mutex>& /*aLock*/,
                             TimePoint aDeadline) override {
        mNow = std::max(mNow, aDeadline + microseconds(60));
        return std::cv_status::timeout;
    }

private:
    TimePoint mNow{std::chrono::hours(1)};
};

class BusOnALateClock : public testing::Test {
protected:
    BusOnALateClock() { velmor::platform::Clock::use(mClock); }
    ~BusOnALateClock() override { velmor::platform::Clock::use(nullptr); }

    std::shared_ptr<LateClock> mClock = std::make_shared<LateClock>();
};

TEST_F(BusOnALateClock, KeepsItsSpeedAlthoughEveryReaderWakesLate) {
    InProcessBus bus({.bitRate = 1'000'000});
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    CanFrame const frame{0x608, 8, {0x40, 0x00, 0x30, 0x01}};
    ASSERT_EQ(canFrameBits(frame), 121U);
    auto const start = mClock->now();
    for (int i = 0; i < 100; ++i) {
        a->send(frame);
        ASSERT_TRUE(b->receive(seconds(1)));
        b->send(frame);
        ASSERT_TRUE(a->receive(seconds(1)));
    }
    // 200 frames of 121 bits and 3 of silence at 1 us a bit are 24,800 us; 200 late wakings would add 12,000
    // us. The silence behind the last frame is not waited for, but its reader wakes late.
    EXPECT_EQ(mClock->now() - start, microseconds(24'800 - 3 + 60));
}

TEST_F(BusOnALateClock, DoesNotExcuseAReaderThatDidNotWait) {
    InProcessBus bus({.bitRate = 1'000'000});
    auto const a = bus.open("a");
    auto const b = bus.open("b");
    a->send({0x000, 0, {}});
    mClock->sleepFor(milliseconds(5));
    ASSERT_TRUE(b->receive(nanoseconds(0)));
    b->send({0x000, 0, {}}); // 50 us from now
    mClock->sleepFor(microseconds(49));
    EXPECT_FALSE(a->receive(nanoseconds(0)));
    mClock->sleepFor(microseconds(1));
    EXPECT_TRUE(a->receive(nanoseconds(0)));
}

/// A client and a board on a bus with a speed, time moved by hand bit by bit.
class BusSpeed : public testing::TestWithParam<std::uint32_t> {
protected:
    struct ChannelSink final : SdoFrameSink {
        explicit ChannelSink(CanChannel& aChannel)
            : channel(aChannel) {}
        void sendFrame(CanFrame const& aFrame) override { channel.send(aFrame); }
        CanChannel& channel;
    };

    void runTransfer() {
        while (mClient.busy()) {
            mClock->advance(nanoseconds(1'000'000'000 / GetParam()));
            while (auto const frame = mBoardChannel->receive(nanoseconds(0))) {
                mServer.onFrame(*frame, mClock->now());
            }
            while (auto const frame = mMasterChannel->receive(nanoseconds(0))) {
                mClient.onFrame(*frame, mClock->now());
            }
        }
        ASSERT_EQ(static_cast<int>(mClient.result().outcome), static_cast<int>(SdoOutcome::Done));
    }

    HandClockScope mClock;
    InProcessBus mBus{{.bitRate = GetParam()}};
    std::unique_ptr<CanChannel> mMasterChannel = mBus.open("can0");
    std::unique_ptr<CanChannel> mBoardChannel = mBus.open("board");
    ChannelSink mMasterSink{*mMasterChannel};
    ChannelSink mBoardSink{*mBoardChannel};
    ByteDictionary mDictionary;
    SdoClientCore mClient{8, mMasterSink};
    SdoServerCore mServer{8, mDictionary, mBoardSink};
};

TEST_P(BusSpeed, ExpeditedRoundTripsReachTheLimitOfTheBits) {
    std::mt19937 random(1);
    constexpr unsigned kTrips = 300;
    auto const start = mClock->now();
    for (unsigned i = 0; i < kTrips; ++i) {
        SdoObject const object{static_cast<std::uint16_t>(random()), static_cast<std::uint8_t>(random())};
        std::uint32_t const value = static_cast<std::uint32_t>(random());
        mDictionary.at(object) = {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8U),
                                  static_cast<std::uint8_t>(value >> 16U),
                                  static_cast<std::uint8_t>(value >> 24U)};
        mClient.startUpload(object, 4, mClock->now());
        runTransfer();
    }
    double const time = std::chrono::duration<double>(mClock->now() - start).count();
    double const bits = static_cast<double>(mBus.counters().bits) / kTrips;
    // Twice 8 bytes are twice 108 bits and 3 of silence, 222 together, and 6 to 9 stuff bits a frame.
    EXPECT_GT(bits, 234.0);
    EXPECT_LT(bits, 240.0);
    double const limit = GetParam() / bits;
    EXPECT_GT(kTrips / time, 0.97 * limit);
    EXPECT_LE(kTrips / time, 1.001 * limit); // the last one is over before its interframe space is
}

TEST_P(BusSpeed, ABlockTransferReachesTheLimitOfTheBits) {
    std::vector<std::uint8_t> data(10'000);
    std::mt19937 random(1);
    for (std::uint8_t& byte : data) {
        byte = static_cast<std::uint8_t>(random());
    }
    mDictionary.at({0x1F50, 1});
    auto const start = mClock->now();
    mClient.startDownload({0x1F50, 1}, data, SdoMode::Block, mClock->now());
    runTransfer();
    double const time = std::chrono::duration<double>(mClock->now() - start).count();
    double const occupied = static_cast<double>(mBus.counters().bits) / GetParam();
    EXPECT_EQ(mDictionary.at({0x1F50, 1}), data);
    EXPECT_GT(occupied / time, 0.99); // the bus is hardly ever idle
    EXPECT_LT(occupied / time, 1.001);
}

INSTANTIATE_TEST_SUITE_P(BitRates, BusSpeed, testing::Values(125'000U, 500'000U, 1'000'000U));

} // namespace
