// SPDX-License-Identifier: Apache-2.0
// The kernel's CAN interface and all that can happen to it.
#include <velmor/kepla/canopen/SocketCanChannel.h>

#include "support/FakeCanSockets.h"
#include "support/LeapClock.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include <linux/can/error.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::FakeCanSockets;
using libfieldwarden::test::LeapClock;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using velmor::kepla::canopen::CanFrame;
using velmor::kepla::canopen::CanLinkError;
using velmor::kepla::canopen::SocketCanChannel;
using velmor::platform::Clock;
using Call = FakeCanSockets::Call;
using Reason = CanLinkError::Reason;

struct SocketCanChannelTest : testing::Test {
    SocketCanChannelTest() { Clock::use(clock); }
    ~SocketCanChannelTest() override { Clock::use(nullptr); }

    LogCapture log;
    std::shared_ptr<LeapClock> clock = std::make_shared<LeapClock>();
    std::shared_ptr<FakeCanSockets> sockets = std::make_shared<FakeCanSockets>();
    CanFrame const request{0x608, 8, {0x40, 0x00, 0x10, 0x00, 0, 0, 0, 0}};
};

template <typename Operation>
CanLinkError linkErrorOf(Operation aOperation) {
    try {
        aOperation();
    } catch (CanLinkError const& error) {
        return error;
    }
    throw std::logic_error("there was no CanLinkError");
}

// ----- opening

TEST(SocketCanChannel, NamesAMissingInterfaceOrAKernelWithoutCan) {
    // On the real kernel: which of the two it is depends on the machine.
    CanLinkError const error = linkErrorOf([] { SocketCanChannel("nocan0"); });
    EXPECT_EQ(error.reason(), Reason::InterfaceMissing);
    EXPECT_THAT(
        error.what(),
        testing::AnyOf(testing::StrEq("Cannot open CAN interface 'nocan0': No such device"),
                       testing::StrEq("Cannot open CAN interface 'nocan0': Address family not supported "
                                      "by protocol")));
}

struct OpenFault {
    Call call;
    int error;
    Reason reason;
    char const* words;
};

struct OpenFaults : SocketCanChannelTest, testing::WithParamInterface<OpenFault> {};

TEST_P(OpenFaults, RefuseWithTheInterfaceAndTheReason) {
    sockets->failNext(GetParam().call, {GetParam().error});
    CanLinkError const error = linkErrorOf([&] { SocketCanChannel("can0", sockets); });
    EXPECT_EQ(error.reason(), GetParam().reason);
    EXPECT_STREQ(error.what(), GetParam().words);
    EXPECT_EQ(sockets->openSockets, 0);
}

INSTANTIATE_TEST_SUITE_P(
    SocketCanChannel,
    OpenFaults,
    testing::Values(OpenFault{Call::Open, EAFNOSUPPORT, Reason::InterfaceMissing,
                              "Cannot open CAN interface 'can0': Address family not supported by protocol"},
                    OpenFault{Call::Open, EPROTONOSUPPORT, Reason::InterfaceMissing,
                              "Cannot open CAN interface 'can0': Protocol not supported"},
                    OpenFault{Call::Open, EMFILE, Reason::Io,
                              "Cannot open CAN interface 'can0': Too many open files"},
                    OpenFault{Call::Index, ENODEV, Reason::InterfaceMissing,
                              "Cannot open CAN interface 'can0': No such device"},
                    OpenFault{Call::Flags, ENODEV, Reason::InterfaceMissing,
                              "Cannot open CAN interface 'can0': No such device"},
                    OpenFault{Call::Option, ENOPROTOOPT, Reason::Io,
                              "Cannot open CAN interface 'can0': Protocol not available"},
                    OpenFault{Call::Bind, ENODEV, Reason::InterfaceMissing,
                              "Cannot open CAN interface 'can0': No such device"},
                    OpenFault{Call::Bind, EPERM, Reason::Io,
                              "Cannot open CAN interface 'can0': Operation not permitted"}));

TEST_F(SocketCanChannelTest, RefusesAnInterfaceThatIsDown) {
    sockets->setInterface(true, false, false);
    CanLinkError const error = linkErrorOf([&] { SocketCanChannel("can0", sockets); });
    EXPECT_EQ(error.reason(), Reason::InterfaceDown);
    EXPECT_STREQ(error.what(), "Cannot open CAN interface 'can0': Network is down");
}

TEST_F(SocketCanChannelTest, RefusesAnInterfaceThatIsBusOff) {
    sockets->setInterface(true, true, false);
    CanLinkError const error = linkErrorOf([&] { SocketCanChannel("can0", sockets); });
    EXPECT_EQ(error.reason(), Reason::BusOff);
    EXPECT_STREQ(error.what(), "Cannot open CAN interface 'can0': The controller is bus-off");
}

TEST_F(SocketCanChannelTest, AsksForAnswersHeartbeatsEmergenciesErrorFramesAndDropCounts) {
    SocketCanChannel const channel("can0", sockets);
    EXPECT_EQ(channel.name(), "can0");
    ASSERT_EQ(sockets->filters.size(), 3U);
    auto const passes = [&](canid_t aId) {
        for (can_filter const& filter : sockets->filters) {
            if ((aId & filter.can_mask) == (filter.can_id & filter.can_mask)) {
                return true;
            }
        }
        return false;
    };
    for (canid_t const wanted : {0x081U, 0x0FFU, 0x581U, 0x5FFU, 0x701U, 0x77FU, 0x708U | CAN_RTR_FLAG}) {
        EXPECT_TRUE(passes(wanted)) << std::hex << wanted;
    }
    for (canid_t const other : {0x000U, 0x100U, 0x181U, 0x57FU, 0x601U, 0x67FU, 0x6FFU, 0x780U, 0x7FFU,
                                0x581U | CAN_RTR_FLAG, 0x081U | CAN_RTR_FLAG, 0x581U | CAN_EFF_FLAG}) {
        EXPECT_FALSE(passes(other)) << std::hex << other;
    }
    EXPECT_EQ(sockets->errorMask & CAN_ERR_BUSOFF, CAN_ERR_BUSOFF);
    EXPECT_EQ(sockets->errorMask & CAN_ERR_CRTL, CAN_ERR_CRTL);
    EXPECT_TRUE(sockets->tellsDrops);
}

// ----- traffic

TEST_F(SocketCanChannelTest, SendsAFrameAsItIs) {
    SocketCanChannel channel("can0", sockets);
    channel.send(request);
    ASSERT_EQ(sockets->sent.size(), 1U);
    EXPECT_EQ(sockets->sent[0].can_id, 0x608U);
    EXPECT_EQ(sockets->sent[0].len, 8);
    EXPECT_EQ(sockets->sent[0].data[0], 0x40);
    EXPECT_EQ(sockets->sent[0].data[2], 0x10);
}

TEST_F(SocketCanChannelTest, SendsARemoteFrameWithItsFlagAndWithoutBytes) {
    SocketCanChannel channel("can0", sockets);
    channel.send(CanFrame{.id = 0x708, .length = 1, .remote = true});
    ASSERT_EQ(sockets->sent.size(), 1U);
    EXPECT_EQ(sockets->sent[0].can_id, 0x708U | CAN_RTR_FLAG);
    EXPECT_EQ(sockets->sent[0].len, 1);
    EXPECT_EQ(sockets->sent[0].data[0], 0);
}

TEST_F(SocketCanChannelTest, ReceivesARemoteFrameWithoutBytes) {
    SocketCanChannel channel("can0", sockets);
    sockets->arrive(0x708U | CAN_RTR_FLAG, {0x7F}); // The kernel leaves in the bytes what was there.
    EXPECT_EQ(channel.receive(1s), (CanFrame{.id = 0x708, .length = 1, .remote = true}));
}

TEST_F(SocketCanChannelTest, RefusesFramesThatNoBusCanCarry) {
    SocketCanChannel channel("can0", sockets);
    EXPECT_THROW(channel.send(CanFrame{0x800, 0, {}}), std::invalid_argument);
    EXPECT_THROW(channel.send(CanFrame{0x600, 9, {}}), std::invalid_argument);
    EXPECT_TRUE(sockets->sent.empty());
}

TEST_F(SocketCanChannelTest, ReceivesWhatArrives) {
    SocketCanChannel channel("can0", sockets);
    sockets->arrive(0x588, {0x43, 0x00, 0x10, 0x00, 1, 2, 3, 4});
    auto const frame = channel.receive(1s);
    ASSERT_TRUE(frame);
    EXPECT_EQ(*frame, (CanFrame{0x588, 8, {0x43, 0x00, 0x10, 0x00, 1, 2, 3, 4}}));
}

TEST_F(SocketCanChannelTest, ReturnsWithNothingWhenTheTimeIsOver) {
    SocketCanChannel channel("can0", sockets);
    auto const begin = clock->now();
    EXPECT_FALSE(channel.receive(250ms));
    EXPECT_EQ(clock->now() - begin, 250ms);
    EXPECT_FALSE(channel.receive(0ms));
}

TEST_F(SocketCanChannelTest, SkipsFramesOfNodeZeroAndBrokenOnes) {
    SocketCanChannel channel("can0", sockets);
    sockets->arrive(0x080, {});                 // SYNC has the emergency's function code.
    sockets->arrive(0x580, {0x60, 0, 0x30, 0}); // There is no node 0.
    can_frame tooLong{};
    tooLong.can_id = 0x588;
    tooLong.len = 9;
    sockets->arrive(tooLong);
    sockets->arrive(0x708, {0x05});
    EXPECT_EQ(channel.receive(1s), (CanFrame{0x708, 1, {0x05}}));
}

TEST_F(SocketCanChannelTest, AnInterruptEndsTheNextReceiveOnce) {
    SocketCanChannel channel("can0", sockets);
    channel.interrupt();
    channel.interrupt();
    sockets->arrive(0x708, {0x05});
    EXPECT_FALSE(channel.receive(1h));
    EXPECT_TRUE(channel.receive(1h));
}

TEST(SocketCanChannelInterrupt, EndsABlockedReceive) {
    auto const api = std::make_shared<FakeCanSockets>();
    SocketCanChannel channel("can0", api);
    // Whether the other thread waits already or not: it returns.
    std::thread other([&] { EXPECT_FALSE(channel.receive(0ms)); });
    channel.interrupt();
    other.join();
}

// ----- faults of sending

TEST_F(SocketCanChannelTest, WaitsForRoomInTheTransmitQueue) {
    for (int const full : {EAGAIN, ENOBUFS}) {
        SocketCanChannel channel("can0", sockets);
        sockets->sent.clear();
        sockets->failNext(Call::Write, {full, full, full});
        auto const begin = clock->now();
        channel.send(request);
        EXPECT_EQ(sockets->sent.size(), 1U);
        EXPECT_EQ(clock->now() - begin, 3ms); // One millisecond a refusal.
    }
}

TEST_F(SocketCanChannelTest, RepeatsAnInterruptedWriteAtOnce) {
    SocketCanChannel channel("can0", sockets);
    sockets->failNext(Call::Write, {EINTR, EINTR});
    auto const begin = clock->now();
    channel.send(request);
    EXPECT_EQ(sockets->sent.size(), 1U);
    EXPECT_EQ(clock->now(), begin);
}

struct LinkFault {
    int error;
    Reason reason;
    char const* words;
};

LinkFault const kLinkFaults[] = {
    {ENETDOWN, Reason::InterfaceDown, "CAN interface 'can0' failed: Network is down"},
    {ENODEV, Reason::InterfaceMissing, "CAN interface 'can0' failed: No such device"},
    {ENXIO, Reason::InterfaceMissing, "CAN interface 'can0' failed: No such device or address"},
    {EIO, Reason::Io, "CAN interface 'can0' failed: Input/output error"},
    {EBADF, Reason::Io, "CAN interface 'can0' failed: Bad file descriptor"},
};

struct WriteFaults : SocketCanChannelTest, testing::WithParamInterface<LinkFault> {};

TEST_P(WriteFaults, GiveUpTheSocketAndAreOverWithTheNextOne) {
    SocketCanChannel channel("can0", sockets);
    sockets->failNext(Call::Write, {GetParam().error});
    CanLinkError const error = linkErrorOf([&] { channel.send(request); });
    EXPECT_EQ(error.reason(), GetParam().reason);
    EXPECT_STREQ(error.what(), GetParam().words);
    EXPECT_EQ(sockets->openSockets, 0) << "what the kernel still holds goes with the socket";
    EXPECT_TRUE(sockets->sent.empty());

    channel.send(CanFrame{0x608, 1, {0x80}});
    EXPECT_EQ(sockets->socketsMade, 2);
    ASSERT_EQ(sockets->sent.size(), 1U) << "the frame from before the outage must not come late";
    EXPECT_EQ(sockets->sent[0].data[0], 0x80);
}

INSTANTIATE_TEST_SUITE_P(SocketCanChannel, WriteFaults, testing::ValuesIn(kLinkFaults));

TEST_F(SocketCanChannelTest, AQueueThatStaysFullIsAnErrorWithinATenthOfASecond) {
    for (int const full : {EAGAIN, ENOBUFS}) {
        SocketCanChannel channel("can0", sockets);
        sockets->failAlways(Call::Write, full);
        auto const begin = clock->now();
        CanLinkError const error = linkErrorOf([&] { channel.send(request); });
        EXPECT_EQ(error.reason(), Reason::TransmitQueueFull);
        EXPECT_STREQ(error.what(), "CAN interface 'can0' failed: The transmit queue is full");
        EXPECT_EQ(clock->now() - begin, 100ms);
        EXPECT_EQ(sockets->openSockets, 0);
        sockets->failAlways(Call::Write, 0);
        channel.send(request);
        EXPECT_EQ(sockets->openSockets, 1);
    }
}

// ----- faults of receiving

struct ReadFaults : SocketCanChannelTest, testing::WithParamInterface<LinkFault> {};

TEST_P(ReadFaults, GiveUpTheSocketAndAreOverWithTheNextOne) {
    SocketCanChannel channel("can0", sockets);
    sockets->failNext(Call::Read, {GetParam().error});
    CanLinkError const error = linkErrorOf([&] { channel.receive(1s); });
    EXPECT_EQ(error.reason(), GetParam().reason);
    EXPECT_STREQ(error.what(), GetParam().words);
    EXPECT_EQ(sockets->openSockets, 0);

    sockets->arrive(0x708, {0x05});
    EXPECT_TRUE(channel.receive(1s));
    EXPECT_EQ(sockets->socketsMade, 2);
}

INSTANTIATE_TEST_SUITE_P(SocketCanChannel, ReadFaults, testing::ValuesIn(kLinkFaults));

TEST_F(SocketCanChannelTest, GoesOnReceivingAfterAnInterruptedOrVainCall) {
    SocketCanChannel channel("can0", sockets);
    sockets->failNext(Call::Poll, {EINTR, EINTR});
    sockets->failNext(Call::Read, {EAGAIN, EINTR, EAGAIN});
    sockets->arrive(0x708, {0x05});
    EXPECT_TRUE(channel.receive(1s));
    EXPECT_EQ(sockets->socketsMade, 1);
}

TEST_F(SocketCanChannelTest, AFailedWaitIsALinkError) {
    SocketCanChannel channel("can0", sockets);
    sockets->failNext(Call::Poll, {ENOMEM});
    EXPECT_EQ(linkErrorOf([&] { channel.receive(1s); }).reason(), Reason::Io);
}

TEST_F(SocketCanChannelTest, TellsHowManyReceivedFramesTheKernelHasDropped) {
    SocketCanChannel channel("can0", sockets);
    sockets->dropped = 7;
    sockets->arrive(0x708, {0x05});
    sockets->arrive(0x709, {0x05});
    EXPECT_TRUE(channel.receive(1s)) << "the frame that brings the news is as good as any";
    EXPECT_TRUE(channel.receive(1s));
    EXPECT_EQ(log.count(Severity::Warning, "CAN interface 'can0' has lost 7 received frames"), 1U);
}

// ----- error frames

TEST_F(SocketCanChannelTest, BusOffIsAnErrorAndNothingGoesOutUntilTheControllerIsBack) {
    SocketCanChannel channel("can0", sockets);
    sockets->arrive(CAN_ERR_FLAG | CAN_ERR_BUSOFF, {0, 0, 0, 0, 0, 0, 0, 0});
    CanLinkError const error = linkErrorOf([&] { channel.receive(1s); });
    EXPECT_EQ(error.reason(), Reason::BusOff);
    EXPECT_STREQ(error.what(), "CAN interface 'can0' failed: The controller is bus-off");
    EXPECT_EQ(sockets->openSockets, 0);

    sockets->setInterface(true, true, false);
    EXPECT_EQ(linkErrorOf([&] { channel.send(request); }).reason(), Reason::BusOff);
    EXPECT_EQ(linkErrorOf([&] { channel.receive(1s); }).reason(), Reason::BusOff);
    EXPECT_TRUE(sockets->sent.empty());

    sockets->setInterface(true, true, true);
    channel.send(request);
    EXPECT_EQ(sockets->sent.size(), 1U);
}

TEST_F(SocketCanChannelTest, ATransmitTimeOutOfTheControllerIsAnError) {
    SocketCanChannel channel("can0", sockets);
    sockets->arrive(CAN_ERR_FLAG | CAN_ERR_TX_TIMEOUT, {0, 0, 0, 0, 0, 0, 0, 0});
    CanLinkError const error = linkErrorOf([&] { channel.receive(1s); });
    EXPECT_EQ(error.reason(), Reason::TransmitQueueFull);
    EXPECT_STREQ(error.what(), "CAN interface 'can0' failed: The controller could not send in time");
}

TEST_F(SocketCanChannelTest, TellsOnceThatTheControllerIsErrorPassive) {
    SocketCanChannel channel("can0", sockets);
    for (int i = 0; i < 3; ++i) {
        sockets->arrive(CAN_ERR_FLAG | CAN_ERR_CRTL, {0, CAN_ERR_CRTL_TX_PASSIVE, 0, 0, 0, 0, 0, 0});
    }
    sockets->arrive(CAN_ERR_FLAG | CAN_ERR_CRTL, {0, CAN_ERR_CRTL_ACTIVE, 0, 0, 0, 0, 0, 0});
    sockets->arrive(CAN_ERR_FLAG | CAN_ERR_CRTL, {0, CAN_ERR_CRTL_RX_OVERFLOW, 0, 0, 0, 0, 0, 0});
    sockets->arrive(CAN_ERR_FLAG | CAN_ERR_RESTARTED, {0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_FALSE(channel.receive(1s));
    EXPECT_EQ(
        log.linesOf("SocketCanChannel"),
        (std::vector<libfieldwarden::test::CapturedLine>{
            {Severity::Warning, "CAN interface 'can0' is error passive: is the bus connected?", "", ""},
            {Severity::Info, "CAN interface 'can0' is error active again", "", ""},
            {Severity::Warning, "CAN interface 'can0': the controller has lost received frames", "", ""},
        }));
}

// ----- the link's return

TEST_F(SocketCanChannelTest, TellsWhyTheLinkIsNotBackYet) {
    SocketCanChannel channel("can0", sockets);
    sockets->failNext(Call::Read, {ENODEV});
    EXPECT_THROW(channel.receive(1s), CanLinkError);
    sockets->setInterface(false, false, false);
    EXPECT_STREQ(linkErrorOf([&] { channel.send(request); }).what(),
                 "Cannot open CAN interface 'can0': No such device");
    sockets->setInterface(true, false, false);
    EXPECT_STREQ(linkErrorOf([&] { channel.receive(1s); }).what(),
                 "Cannot open CAN interface 'can0': Network is down");
    sockets->setInterface(true, true, true);
    sockets->arrive(0x708, {0x05});
    EXPECT_TRUE(channel.receive(1s));
}

} // namespace
