// SPDX-License-Identifier: Apache-2.0
// What the whole CANopen stack costs beside a bare exchange of the same frames between two threads.
#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/CanOpenNodeClient.h>
#include <velmor/kepla/canopen/CanSocketApi.h>
#include <velmor/kepla/canopen/SocketCanChannel.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

#include <linux/can.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::CanOpenNodeClient;
using velmor::kepla::canopen::CanSocketApi;
using velmor::kepla::canopen::SocketCanChannel;

constexpr unsigned char kNode = 8;

/// Two ends of a socket that keeps frames apart, as a CAN socket does.
struct SocketPair {
    SocketPair() {
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::runtime_error("socketpair");
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

/// Answers each request of its end with a function's frame, until the other end is shut down.
template <typename Answer>
class Responder {
public:
    Responder(int aSocket, Answer aAnswer)
        : mThread([aSocket, aAnswer] {
            can_frame frame{};
            while (::recv(aSocket, &frame, sizeof(frame), 0) == static_cast<ssize_t>(sizeof(frame))) {
                can_frame const answer = aAnswer(frame);
                if (::send(aSocket, &answer, sizeof(answer), MSG_NOSIGNAL) < 0) {
                    return;
                }
            }
        }) {}
    ~Responder() { mThread.join(); }
    Responder(Responder const&) = delete;
    Responder& operator=(Responder const&) = delete;

private:
    std::thread mThread;
};

/// The system calls of the CAN channel on one end of a socket pair.
class PairSockets final : public CanSocketApi {
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
    std::shared_ptr<CanSocketApi> mKernel = CanSocketApi::posix();
};

/// The least that a node can do: every read gets four bytes, every write its acknowledgement.
can_frame expeditedAnswer(can_frame const& aRequest) {
    can_frame answer = aRequest;
    answer.can_id = 0x580U + kNode;
    bool const upload = (aRequest.data[0] >> 5U) == 2;
    answer.data[0] = upload ? 0x43 : 0x60;
    std::uint32_t const value = upload ? 0x01020304U : 0U;
    std::memcpy(answer.data + 4, &value, sizeof(value));
    return answer;
}

void BM_BarePingPong(benchmark::State& aState) {
    SocketPair sockets;
    Responder const responder(sockets.ends[1], expeditedAnswer);
    can_frame frame{};
    frame.len = 8;
    frame.data[0] = 0x40;
    for (auto _ : aState) {
        can_frame answer{};
        if (::send(sockets.ends[0], &frame, sizeof(frame), MSG_NOSIGNAL) < 0 ||
            ::recv(sockets.ends[0], &answer, sizeof(answer), 0) < 0) {
            aState.SkipWithError("the socket pair broke");
        }
        benchmark::DoNotOptimize(answer);
    }
    aState.SetItemsProcessed(aState.iterations());
    ::shutdown(sockets.ends[0], SHUT_RDWR);
}
BENCHMARK(BM_BarePingPong)->UseRealTime();

void BM_FullStackExpeditedRead(benchmark::State& aState) {
    SocketPair sockets;
    Responder const responder(sockets.ends[1], expeditedAnswer);
    {
        auto const master = std::make_shared<CanOpenMaster>(
            std::make_unique<SocketCanChannel>("pair", std::make_shared<PairSockets>(sockets.ends[0])), 1);
        CanOpenNodeClient client(master, kNode);
        // Two objects in turn: reading one object again within milliseconds costs a second round trip, by
        // which a repeated answer is told from a new one.
        std::uint8_t subindex = 1;
        for (auto _ : aState) {
            benchmark::DoNotOptimize(client.readInt32(0x3000, subindex));
            subindex = subindex == 17 ? 1 : static_cast<std::uint8_t>(subindex + 1);
        }
        aState.SetItemsProcessed(aState.iterations());
    }
    ::shutdown(sockets.ends[0], SHUT_RDWR);
}
BENCHMARK(BM_FullStackExpeditedRead)->UseRealTime();

} // namespace
