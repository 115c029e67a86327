// SPDX-License-Identifier: Apache-2.0
// A socket pair in place of a CAN bus: the channel's system calls on one end, whatever plays the bus on the
// other.
#pragma once

#include <velmor/kepla/canopen/CanSocketApi.h>

#include <array>
#include <memory>
#include <stdexcept>

#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

namespace libfieldwarden::test {

/// Two ends of a socket that keeps frames apart, as a CAN socket does.
struct SocketPair {
    SocketPair() {
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::runtime_error("no socket pair");
        }
    }
    ~SocketPair() {
        ::close(ends[0]);
        ::close(ends[1]);
    }
    SocketPair(SocketPair const&) = delete;
    SocketPair& operator=(SocketPair const&) = delete;

    std::array<int, 2> ends{};
};

/// The system calls of the CAN channel on one end of a socket pair, which outlives it.
class PairSockets : public velmor::kepla::canopen::CanSocketApi {
public:
    explicit PairSockets(int aSocket)
        : mSocket(aSocket) {}

    int open() override { return ::dup(mSocket); }
    int interfaceIndex(int /*aSocket*/, char const* /*aName*/) override { return 1; }
    int interfaceFlags(int /*aSocket*/, char const* /*aName*/) override { return IFF_UP | IFF_RUNNING; }
    int setOption(int aSocket, int aLevel, int aOption, void const* aValue, unsigned aSize) override {
        return aLevel == SOL_SOCKET ? mKernel->setOption(aSocket, aLevel, aOption, aValue, aSize) : 0;
    }
    int bind(int /*aSocket*/, int /*aInterfaceIndex*/) override { return 0; }
    ssize_t read(int aSocket, bool aWait, can_frame& aFrame, unsigned& aDropped) override {
        return mKernel->read(aSocket, aWait, aFrame, aDropped);
    }
    ssize_t write(int aSocket, can_frame const& aFrame) override { return mKernel->write(aSocket, aFrame); }
    int poll(pollfd* aEntries, nfds_t aCount, int aTimeoutMs) override {
        return mKernel->poll(aEntries, aCount, aTimeoutMs);
    }
    int close(int aSocket) override { return mKernel->close(aSocket); }

private:
    int mSocket;
    std::shared_ptr<velmor::kepla::canopen::CanSocketApi> mKernel =
        velmor::kepla::canopen::CanSocketApi::posix();
};

} // namespace libfieldwarden::test
