// SPDX-License-Identifier: Apache-2.0
// What the whole CANopen stack costs beside a bare exchange of the same frames between two threads, and how
// many round trips a second it makes beside a stack that others wrote in JavaScript, with the same server
// behind the same kind of socket.
#include "support/ChildProcess.h"
#include "support/PairSockets.h"
#include "support/SdoLoopback.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/CanOpenNodeClient.h>
#include <velmor/kepla/canopen/SocketCanChannel.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include <fcntl.h>
#include <linux/can.h>
#include <sys/socket.h>

namespace {

using libfieldwarden::test::ByteDictionary;
using libfieldwarden::test::ChildProcess;
using libfieldwarden::test::PairSockets;
using libfieldwarden::test::SocketPair;
using velmor::kepla::canopen::CanFrame;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::CanOpenNodeClient;
using velmor::kepla::canopen::SdoFrameSink;
using velmor::kepla::canopen::SdoServerCore;
using velmor::kepla::canopen::SocketCanChannel;
using velmor::platform::Clock;

constexpr unsigned char kNode = 8;
constexpr std::uint16_t kObject = 0x3000;
constexpr std::uint8_t kSubindices = 17; ///< Numbers of that object, read in turn from 1 on.

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

/// Reads through the whole stack from whoever answers at the other end.
void readExpedited(benchmark::State& aState, SocketPair const& aSockets) {
    {
        auto const master = std::make_shared<CanOpenMaster>(
            std::make_unique<SocketCanChannel>("pair", std::make_shared<PairSockets>(aSockets.ends[0])), 1);
        CanOpenNodeClient client(master, kNode);
        // Several objects in turn: reading one object again within milliseconds costs a second round trip, by
        // which a repeated answer is told from a new one.
        std::uint8_t subindex = 1;
        for (auto _ : aState) {
            benchmark::DoNotOptimize(client.readInt32(kObject, subindex));
            subindex = subindex == kSubindices ? 1 : static_cast<std::uint8_t>(subindex + 1);
        }
        aState.SetItemsProcessed(aState.iterations());
    }
    ::shutdown(aSockets.ends[0], SHUT_RDWR);
}

void BM_FullStackExpeditedRead(benchmark::State& aState) {
    SocketPair const sockets;
    Responder const responder(sockets.ends[1], expeditedAnswer);
    readExpedited(aState, sockets);
}
BENCHMARK(BM_FullStackExpeditedRead)->UseRealTime();

/// Our SDO server at one end of a socket.
class Server final : private SdoFrameSink {
public:
    explicit Server(int aSocket)
        : mSocket(aSocket) {
        for (std::uint8_t subindex = 1; subindex <= kSubindices; ++subindex) {
            mObjects.at({kObject, subindex}) = {subindex, 2, 3, 4};
        }
    }
    virtual ~Server() = default;
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;

    /// Waits for a request and answers it.
    /// @return Whether one came.
    bool serve() {
        can_frame raw{};
        if (::recv(mSocket, &raw, sizeof(raw), 0) != static_cast<ssize_t>(sizeof(raw))) {
            return false;
        }
        CanFrame request{.id = raw.can_id, .length = raw.len};
        std::memcpy(request.data.data(), raw.data, request.data.size());
        mCore.onFrame(request, Clock::current().now());
        return true;
    }

private:
    void sendFrame(CanFrame const& aFrame) override {
        can_frame raw{};
        raw.can_id = aFrame.id;
        raw.len = aFrame.length;
        std::memcpy(raw.data, aFrame.data.data(), aFrame.data.size());
        static_cast<void>(
            ::send(mSocket, &raw, sizeof(raw), MSG_NOSIGNAL)); // A client that has gone is no fault.
    }

    int mSocket;
    ByteDictionary mObjects;
    SdoServerCore mCore{kNode, mObjects, *this};
};

void BM_ReadFromOurServer(benchmark::State& aState) {
    SocketPair const sockets;
    Server server(sockets.ends[1]);
    std::thread thread([&server] {
        while (server.serve()) {
        }
    });
    readExpedited(aState, sockets);
    thread.join();
}
BENCHMARK(BM_ReadFromOurServer)->UseRealTime();

#ifdef FIELDWARDEN_PEER_SCRIPT
/// The same reads by the JavaScript stack, in a process of its own that reads as fast as it is answered.
void BM_JavaScriptReadsFromOurServer(benchmark::State& aState) {
    constexpr int kWarmUp = 20'000; // Until its code has been compiled.
    SocketPair const sockets;
    Server server(sockets.ends[1]);
    ::fcntl(sockets.ends[0], F_SETFD, 0);
    ChildProcess const peer(
        {"node", FIELDWARDEN_PEER_SCRIPT, std::to_string(sockets.ends[0]), FIELDWARDEN_PEER_MODULES});
    bool served = true;
    for (int i = 0; i < kWarmUp && served; ++i) {
        served = server.serve();
    }
    for (auto _ : aState) {
        served = served && server.serve();
    }
    if (!served) {
        aState.SkipWithError("the JavaScript stack does not ask any more");
    }
    aState.SetItemsProcessed(aState.iterations());
}
BENCHMARK(BM_JavaScriptReadsFromOurServer)->UseRealTime();
#endif

} // namespace
