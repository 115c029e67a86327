// SPDX-License-Identifier: Apache-2.0
// The channel on the kernel's sockets keeps the contract of all channels. A socket pair stands for the bus.
#include "support/CanChannelContract.h"
#include "support/LeapClock.h"
#include "support/PairSockets.h"

#include <velmor/kepla/canopen/SocketCanChannel.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>

#include <linux/can/error.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

namespace libfieldwarden::test {

namespace {

using velmor::kepla::canopen::CanChannel;
using velmor::kepla::canopen::CanFrame;
using velmor::kepla::canopen::CanLinkError;
using velmor::kepla::canopen::SocketCanChannel;
using velmor::platform::Clock;

/// A socket pair whose link can be broken.
class BreakableSockets final : private SocketPair, public PairSockets {
public:
    BreakableSockets()
        : PairSockets(ends[0]) {}

    int peer() const noexcept { return ends[1]; }

    int interfaceIndex(int aSocket, char const* aName) override {
        return failing(ENODEV) ? -1 : PairSockets::interfaceIndex(aSocket, aName);
    }
    int interfaceFlags(int /*aSocket*/, char const* /*aName*/) override {
        return (broken == ENETDOWN ? 0 : IFF_UP) | (broken == kBusOff ? 0 : IFF_RUNNING);
    }
    ssize_t read(int aSocket, bool aWait, can_frame& aFrame, unsigned& aDropped) override {
        if (broken == kBusOff) {
            aFrame = {};
            aFrame.can_id = CAN_ERR_FLAG | CAN_ERR_BUSOFF;
            return sizeof(aFrame);
        }
        return failing(ENODEV) || failing(ENETDOWN) ? -1
                                                    : PairSockets::read(aSocket, aWait, aFrame, aDropped);
    }
    ssize_t write(int aSocket, can_frame const& aFrame) override {
        return failing(ENOBUFS) || failing(ENODEV) || failing(ENETDOWN) ? -1
                                                                        : PairSockets::write(aSocket, aFrame);
    }
    int poll(pollfd* aEntries, nfds_t aCount, int aTimeoutMs) override {
        if (broken != 0 && broken != ENOBUFS) {
            aEntries[0].revents = POLLERR;
            return 1;
        }
        return PairSockets::poll(aEntries, aCount, aTimeoutMs);
    }

    static constexpr int kBusOff = -1;
    std::atomic<int> broken{0}; ///< The error number of the fault; 0 none.

private:
    bool failing(int aError) {
        errno = aError;
        return broken == aError;
    }
};

class SocketCanRig final : public CanChannelRig {
public:
    SocketCanRig() { mChannel = std::make_unique<SocketCanChannel>("can0", mSockets); }
    ~SocketCanRig() override { Clock::use(mFormer); }
    SocketCanRig(SocketCanRig const&) = delete;
    SocketCanRig& operator=(SocketCanRig const&) = delete;

    CanChannel& channel() override { return *mChannel; }
    void peerSends(CanFrame const& aFrame) override {
        can_frame frame{};
        frame.can_id = aFrame.id | (aFrame.remote ? CAN_RTR_FLAG : 0U);
        frame.len = aFrame.length;
        std::copy_n(aFrame.data.begin(), aFrame.length, frame.data);
        EXPECT_EQ(::send(mSockets->peer(), &frame, sizeof(frame), 0), static_cast<ssize_t>(sizeof(frame)));
    }
    std::vector<CanFrame> peerReceived() override {
        std::vector<CanFrame> result;
        can_frame frame{};
        while (::recv(mSockets->peer(), &frame, sizeof(frame), MSG_DONTWAIT) > 0) {
            CanFrame each{.id = frame.can_id & ~CAN_RTR_FLAG,
                          .length = frame.len,
                          .remote = (frame.can_id & CAN_RTR_FLAG) != 0};
            std::copy_n(frame.data, frame.len, each.data.begin());
            result.push_back(each);
        }
        return result;
    }
    void breakLink(CanLinkError::Reason aReason) override {
        switch (aReason) {
            case CanLinkError::Reason::InterfaceMissing:
                mSockets->broken = ENODEV;
                break;
            case CanLinkError::Reason::InterfaceDown:
                mSockets->broken = ENETDOWN;
                break;
            case CanLinkError::Reason::BusOff:
                mSockets->broken = BreakableSockets::kBusOff;
                break;
            default:
                mSockets->broken = ENOBUFS;
                break;
        }
    }
    void mendLink() override { mSockets->broken = 0; }

private:
    std::shared_ptr<Clock> mFormer = Clock::use(std::make_shared<LeapClock>());
    std::shared_ptr<BreakableSockets> mSockets = std::make_shared<BreakableSockets>();
    std::unique_ptr<SocketCanChannel> mChannel;
};

} // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(SocketCan, CanChannelContract, SocketCanRig);

} // namespace libfieldwarden::test
