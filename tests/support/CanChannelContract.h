// SPDX-License-Identifier: Apache-2.0
// What every channel to a CAN bus must do, real or in this process. A rig brings the channel and its other
// end:
//
//   INSTANTIATE_TYPED_TEST_SUITE_P(InProcess, CanChannelContract, InProcessRig);
#pragma once

#include <velmor/kepla/canopen/CanChannel.h>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace libfieldwarden::test {

/// A channel named "can0" with what is behind it. The rig of each kind of channel derives from this.
class CanChannelRig {
public:
    virtual ~CanChannelRig() = default;

    virtual velmor::kepla::canopen::CanChannel& channel() = 0;

    /// Another participant sends a frame; identifiers 0x588 and 0x708 are used.
    virtual void peerSends(velmor::kepla::canopen::CanFrame const& aFrame) = 0;

    /// @return The frames that have reached the other participant since the last call.
    virtual std::vector<velmor::kepla::canopen::CanFrame> peerReceived() = 0;

    /// Breaks the link as seen by the channel. TransmitQueueFull must not take real time.
    virtual void breakLink(velmor::kepla::canopen::CanLinkError::Reason aReason) = 0;

    /// Ends breakLink().
    virtual void mendLink() = 0;
};

template <typename Rig>
class CanChannelContract : public testing::Test {
protected:
    using CanFrame = velmor::kepla::canopen::CanFrame;
    using Reason = velmor::kepla::canopen::CanLinkError::Reason;

    static constexpr std::chrono::nanoseconds kNoWait{0};
    static constexpr std::chrono::hours kLong{1};

    velmor::kepla::canopen::CanChannel& channel() { return mRig.channel(); }

    /// The reason with which an operation fails; none when it does not.
    template <typename Operation>
    static std::optional<Reason> failureOf(Operation aOperation) {
        try {
            aOperation();
        } catch (velmor::kepla::canopen::CanLinkError const& error) {
            EXPECT_NE(std::string(error.what()).find("can0"), std::string::npos) << error.what();
            return error.reason();
        }
        return std::nullopt;
    }

    std::optional<Reason> failureOfSend() {
        return failureOf([this] { channel().send({0x608, 8, {0xDD}}); });
    }

    std::optional<Reason> failureOfReceive() {
        return failureOf([this] { channel().receive(kNoWait); });
    }

    Rig mRig;
};

TYPED_TEST_SUITE_P(CanChannelContract);

TYPED_TEST_P(CanChannelContract, IsCalledAsItsInterface) {
    EXPECT_EQ(this->channel().name(), "can0");
}

TYPED_TEST_P(CanChannelContract, CarriesIdentifierLengthAndBytesBothWays) {
    using Frame = velmor::kepla::canopen::CanFrame;
    for (std::uint8_t length = 0; length <= 8; ++length) {
        Frame frame{0x588, length, {}};
        for (std::uint8_t i = 0; i < length; ++i) {
            frame.data[i] = static_cast<std::uint8_t>(0xA0 + i);
        }
        this->mRig.peerSends(frame);
        EXPECT_EQ(this->channel().receive(this->kLong), frame);
        frame.id = 0x608;
        this->channel().send(frame);
        EXPECT_EQ(this->mRig.peerReceived(), std::vector{frame});
    }
    this->channel().send({0x000, 2, {0x01, 0x08}});
    this->channel().send({0x7FF, 0, {}});
    EXPECT_EQ(this->mRig.peerReceived(), (std::vector<Frame>{{0x000, 2, {0x01, 0x08}}, {0x7FF, 0, {}}}));
}

TYPED_TEST_P(CanChannelContract, CarriesRemoteFramesBothWays) {
    using Frame = velmor::kepla::canopen::CanFrame;
    for (std::uint8_t length = 0; length <= 8; ++length) {
        Frame const frame{.id = 0x708, .length = length, .remote = true};
        this->mRig.peerSends(frame);
        EXPECT_EQ(this->channel().receive(this->kLong), frame);
        this->channel().send(frame);
        EXPECT_EQ(this->mRig.peerReceived(), std::vector{frame});
    }
    Frame const impossible{.id = 0x708, .length = 9, .remote = true};
    EXPECT_THROW(this->channel().send(impossible), std::invalid_argument);
}

TYPED_TEST_P(CanChannelContract, KeepsTheOrderOfFramesOfOneIdentifier) {
    for (std::uint8_t i = 0; i < 20; ++i) {
        this->mRig.peerSends({0x588, 1, {i}});
        this->channel().send({0x608, 1, {i}});
    }
    auto const received = this->mRig.peerReceived();
    ASSERT_EQ(received.size(), 20U);
    for (std::uint8_t i = 0; i < 20; ++i) {
        auto const frame = this->channel().receive(this->kNoWait);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->data[0], i);
        EXPECT_EQ(received[i].data[0], i);
    }
}

TYPED_TEST_P(CanChannelContract, DoesNotReceiveItsOwnFrames) {
    this->channel().send({0x588, 0, {}});
    EXPECT_EQ(this->channel().receive(this->kNoWait), std::nullopt);
}

TYPED_TEST_P(CanChannelContract, OnlyLooksWhenThereIsNoTimeToWait) {
    EXPECT_EQ(this->channel().receive(this->kNoWait), std::nullopt);
    this->mRig.peerSends({0x708, 1, {5}});
    EXPECT_TRUE(this->channel().receive(this->kNoWait));
    EXPECT_EQ(this->channel().receive(this->kNoWait), std::nullopt);
}

TYPED_TEST_P(CanChannelContract, RefusesFramesThatCannotBe) {
    EXPECT_THROW(this->channel().send({0x800, 0, {}}), std::invalid_argument);
    EXPECT_THROW(this->channel().send({0x608, 9, {}}), std::invalid_argument);
    EXPECT_TRUE(this->mRig.peerReceived().empty());
}

TYPED_TEST_P(CanChannelContract, AnInterruptEndsTheNextReceiveOnceHoweverOftenItWasGiven) {
    this->channel().interrupt();
    this->channel().interrupt();
    EXPECT_EQ(this->channel().receive(this->kLong), std::nullopt);
    this->mRig.peerSends({0x588, 1, {1}});
    EXPECT_TRUE(this->channel().receive(this->kLong));
}

TYPED_TEST_P(CanChannelContract, AnInterruptEndsAReceiveOfAnotherThread) {
    std::optional frame = velmor::kepla::canopen::CanFrame{};
    std::thread receiver([&] { frame = this->channel().receive(this->kLong); });
    this->channel().interrupt();
    receiver.join();
    EXPECT_EQ(frame, std::nullopt);
}

TYPED_TEST_P(CanChannelContract, AFrameEndsAReceiveOfAnotherThread) {
    std::optional<velmor::kepla::canopen::CanFrame> frame;
    std::thread receiver([&] { frame = this->channel().receive(this->kLong); });
    this->mRig.peerSends({0x588, 1, {1}});
    receiver.join();
    EXPECT_EQ(frame, (velmor::kepla::canopen::CanFrame{0x588, 1, {1}}));
}

TYPED_TEST_P(CanChannelContract, NamesWhatIsWrongWithTheLinkAndGoesOnWhenItIsMended) {
    using Fault = velmor::kepla::canopen::CanLinkError::Reason;
    for (Fault const reason : {Fault::InterfaceMissing, Fault::InterfaceDown, Fault::BusOff}) {
        SCOPED_TRACE(static_cast<int>(reason));
        this->mRig.breakLink(reason);
        EXPECT_EQ(this->failureOfReceive(), reason);
        EXPECT_EQ(this->failureOfSend(), reason);
        this->mRig.mendLink();
        this->channel().send({0x608, 1, {7}});
        EXPECT_EQ(this->mRig.peerReceived(), (std::vector<velmor::kepla::canopen::CanFrame>{{0x608, 1, {7}}}))
            << "and nothing of the outage";
        this->mRig.peerSends({0x588, 1, {8}});
        EXPECT_TRUE(this->channel().receive(this->kLong));
    }
}

TYPED_TEST_P(CanChannelContract, AFullTransmitQueueIsAnErrorOfSendingOnly) {
    using Fault = velmor::kepla::canopen::CanLinkError::Reason;
    this->mRig.breakLink(Fault::TransmitQueueFull);
    EXPECT_EQ(this->failureOfSend(), Fault::TransmitQueueFull);
    this->mRig.mendLink();
    this->channel().send({0x608, 1, {7}});
    EXPECT_EQ(this->mRig.peerReceived(), (std::vector<velmor::kepla::canopen::CanFrame>{{0x608, 1, {7}}}))
        << "and nothing of the outage";
}

REGISTER_TYPED_TEST_SUITE_P(CanChannelContract,
                            IsCalledAsItsInterface,
                            CarriesIdentifierLengthAndBytesBothWays,
                            CarriesRemoteFramesBothWays,
                            KeepsTheOrderOfFramesOfOneIdentifier,
                            DoesNotReceiveItsOwnFrames,
                            OnlyLooksWhenThereIsNoTimeToWait,
                            RefusesFramesThatCannotBe,
                            AnInterruptEndsTheNextReceiveOnceHoweverOftenItWasGiven,
                            AnInterruptEndsAReceiveOfAnotherThread,
                            AFrameEndsAReceiveOfAnotherThread,
                            NamesWhatIsWrongWithTheLinkAndGoesOnWhenItIsMended,
                            AFullTransmitQueueIsAnErrorOfSendingOnly);

} // namespace libfieldwarden::test
