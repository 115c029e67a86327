// SPDX-License-Identifier: Apache-2.0
// The passive SDO protocol, client and server together, without a bus and without threads; and the bus within
// the process beside it.
#include "support/AllocationCount.h"

#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/canopen/SdoClientCore.h>
#include <velmor/kepla/canopen/SdoServerCore.h>

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace velmor::kepla::canopen;
using velmor::platform::Clock;

namespace {

/// The two boards' shape: 17 currents of 4 bytes, and one large object.
class BoardDictionary final : public ObjectDictionaryIfc {
public:
    BoardDictionary() {
        std::mt19937 random(1); // of any bits, since the number of stuff bits depends on them
        for (std::uint32_t& current : currents) {
            current = static_cast<std::uint32_t>(random());
        }
    }

    std::uint32_t read(SdoObject aObject, std::vector<std::uint8_t>& aData) override {
        if (aObject.index == 0x1F50) {
            aData.assign(large.begin(), large.end());
            return 0;
        }
        if (aObject.index != 0x3000 || aObject.subindex > 17) {
            return sdoabort::kNoSuchObject;
        }
        std::uint32_t const value = currents[aObject.subindex];
        aData = {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8U),
                 static_cast<std::uint8_t>(value >> 16U), static_cast<std::uint8_t>(value >> 24U)};
        return 0;
    }

    std::uint32_t write(SdoObject aObject, std::span<std::uint8_t const> aData) override {
        if (aObject.index == 0x1F50) {
            large.assign(aData.begin(), aData.end());
            return 0;
        }
        if (aObject.index != 0x3000 || aObject.subindex > 17 || aData.size() != 4) {
            return sdoabort::kNoSuchObject;
        }
        currents[aObject.subindex] = aData[0] | (static_cast<std::uint32_t>(aData[1]) << 8U) |
                                     (static_cast<std::uint32_t>(aData[2]) << 16U) |
                                     (static_cast<std::uint32_t>(aData[3]) << 24U);
        return 0;
    }

    std::array<std::uint32_t, 18> currents{};
    std::vector<std::uint8_t> large;
};

/// Holds the frames of one side until the other side takes them; room for a whole block.
class FrameBox final : public SdoFrameSink {
public:
    virtual ~FrameBox() = default;
    void sendFrame(CanFrame const& aFrame) override { mFrames[mCount++] = aFrame; }

    template <typename Take>
    void empty(Take aTake) {
        std::size_t const count = std::exchange(mCount, 0);
        for (std::size_t i = 0; i < count; ++i) {
            aTake(mFrames[i]);
        }
    }

    bool isEmpty() const noexcept { return mCount == 0; }

private:
    std::array<CanFrame, 256> mFrames;
    std::size_t mCount = 0;
};

struct Cores {
    void run() {
        while (!requests.isEmpty() || !answers.isEmpty()) {
            requests.empty([this](CanFrame const& aFrame) { server.onFrame(aFrame, now); });
            answers.empty([this](CanFrame const& aFrame) { client.onFrame(aFrame, now); });
        }
        if (client.result().outcome != SdoOutcome::Done) {
            throw std::runtime_error(client.result().words);
        }
    }

    BoardDictionary dictionary;
    FrameBox requests;
    FrameBox answers;
    SdoClientCore client{8, requests};
    SdoServerCore server{8, dictionary, answers};
    Clock::TimePoint now{std::chrono::hours(1)};
};

std::uint8_t sourceOf(std::int64_t aTrip) {
    return static_cast<std::uint8_t>(1 + aTrip % 17);
}

void reportAllocations(benchmark::State& aState, std::size_t aBefore) {
    std::size_t const made = libfieldwarden::test::allocationsOfThisThread() - aBefore;
    aState.counters["allocations"] = static_cast<double>(made);
}

void BM_ExpeditedRead(benchmark::State& aState) {
    Cores cores;
    std::int64_t trip = 0;
    std::size_t const before = libfieldwarden::test::allocationsOfThisThread();
    for (auto _ : aState) {
        cores.client.startUpload({0x3000, sourceOf(trip++)}, 4, cores.now);
        cores.run();
        benchmark::DoNotOptimize(cores.client.data().data());
    }
    reportAllocations(aState, before);
    aState.SetItemsProcessed(aState.iterations());
}
BENCHMARK(BM_ExpeditedRead);

void BM_ExpeditedWrite(benchmark::State& aState) {
    Cores cores;
    std::int64_t trip = 0;
    std::array<std::uint8_t, 4> const value{1, 2, 3, 4};
    std::size_t const before = libfieldwarden::test::allocationsOfThisThread();
    for (auto _ : aState) {
        cores.client.startDownload({0x3000, sourceOf(trip++)}, value, SdoMode::Segmented, cores.now);
        cores.run();
    }
    reportAllocations(aState, before);
    aState.SetItemsProcessed(aState.iterations());
}
BENCHMARK(BM_ExpeditedWrite);

/// The same object over and over within the time in which a frame may be repeated by the bus: two round
/// trips.
void BM_ExpeditedReadOfTheSameObject(benchmark::State& aState) {
    Cores cores;
    for (auto _ : aState) {
        cores.client.startUpload({0x3000, 1}, 4, cores.now);
        cores.run();
    }
    aState.SetItemsProcessed(aState.iterations());
}
BENCHMARK(BM_ExpeditedReadOfTheSameObject);

void download(benchmark::State& aState, SdoMode aMode) {
    Cores cores;
    std::vector<std::uint8_t> const data(static_cast<std::size_t>(aState.range(0)), 0x5A);
    for (auto _ : aState) {
        cores.client.startDownload({0x1F50, 1}, data, aMode, cores.now);
        cores.run();
    }
    aState.SetBytesProcessed(aState.iterations() * aState.range(0));
}

void upload(benchmark::State& aState, SdoMode aMode) {
    Cores cores;
    cores.dictionary.large.assign(static_cast<std::size_t>(aState.range(0)), 0x5A);
    for (auto _ : aState) {
        cores.client.startUpload({0x1F50, 1}, 1'000'000, cores.now, aMode);
        cores.run();
    }
    aState.SetBytesProcessed(aState.iterations() * aState.range(0));
}

void BM_BlockDownload(benchmark::State& aState) {
    download(aState, SdoMode::Block);
}
BENCHMARK(BM_BlockDownload)->Arg(889)->Arg(65536);

void BM_BlockUpload(benchmark::State& aState) {
    upload(aState, SdoMode::Block);
}
BENCHMARK(BM_BlockUpload)->Arg(889)->Arg(65536);

void BM_SegmentedDownload(benchmark::State& aState) {
    download(aState, SdoMode::Segmented);
}
BENCHMARK(BM_SegmentedDownload)->Arg(65536);

void BM_SegmentedUpload(benchmark::State& aState) {
    upload(aState, SdoMode::Segmented);
}
BENCHMARK(BM_SegmentedUpload)->Arg(65536);

/// Sends through a channel.
class ChannelSink final : public SdoFrameSink {
public:
    explicit ChannelSink(CanChannel& aChannel)
        : mChannel(aChannel) {}
    virtual ~ChannelSink() = default;
    void sendFrame(CanFrame const& aFrame) override { mChannel.send(aFrame); }

private:
    CanChannel& mChannel;
};

/// A board in a thread of its own on the bus.
class BoardThread {
public:
    explicit BoardThread(InProcessBus& aBus)
        : mChannel(aBus.open("board", {{0x608}}))
        , mThread([this] { work(); }) {}
    ~BoardThread() {
        mStop = true;
        mChannel->interrupt();
        mThread.join();
    }
    BoardThread(BoardThread const&) = delete;
    BoardThread& operator=(BoardThread const&) = delete;

private:
    void work() {
        pthread_setname_np(pthread_self(), "board");
        BoardDictionary dictionary;
        ChannelSink sink(*mChannel);
        SdoServerCore server(8, dictionary, sink);
        while (!mStop) {
            if (auto const frame = mChannel->receive(std::chrono::hours(1))) {
                server.onFrame(*frame, Clock::current().now());
            }
        }
    }

    std::unique_ptr<CanChannel> mChannel;
    std::atomic<bool> mStop = false;
    std::thread mThread;
};

/// A client that receives on the thread that asks.
class ClientOnBus {
public:
    explicit ClientOnBus(InProcessBus& aBus)
        : mChannel(aBus.open("can0", {{0x588}})) {}

    void finish() {
        while (mClient.busy()) {
            Clock::TimePoint const now = Clock::current().now();
            if (auto const frame = mChannel->receive(mClient.deadline() - now)) {
                mClient.onFrame(*frame, Clock::current().now());
            } else {
                mClient.onTime(Clock::current().now());
            }
        }
        if (mClient.result().outcome != SdoOutcome::Done) {
            throw std::runtime_error(mClient.result().words);
        }
    }

    SdoClientCore& core() { return mClient; }

private:
    std::unique_ptr<CanChannel> mChannel;
    ChannelSink mSink{*mChannel};
    SdoClientCore mClient{8, mSink};
};

/// Two threads; the argument is the bit rate, 0 for none. With a bit rate the counters tell the share of the
/// limit that the bits on the bus set.
void BM_BusRoundTrip(benchmark::State& aState) {
    InProcessBusSettings settings;
    settings.bitRate = static_cast<std::uint32_t>(aState.range(0));
    InProcessBus bus(settings);
    BoardThread const board(bus);
    ClientOnBus client(bus);
    std::int64_t trip = 0;
    auto const start = Clock::current().now();
    for (auto _ : aState) {
        client.core().startUpload({0x3000, sourceOf(trip++)}, 4, Clock::current().now());
        client.finish();
    }
    aState.SetItemsProcessed(aState.iterations());
    if (settings.bitRate != 0) {
        double const seconds = std::chrono::duration<double>(Clock::current().now() - start).count();
        double const bits = static_cast<double>(bus.counters().bits);
        aState.counters["bits_a_trip"] = bits / static_cast<double>(aState.iterations());
        aState.counters["of_limit"] = bits / settings.bitRate / seconds;
    }
}
BENCHMARK(BM_BusRoundTrip)->Arg(0)->Arg(125'000)->Arg(500'000)->Arg(1'000'000)->UseRealTime();

/// 64 KB by block transfer; the data are random, since the number of stuff bits depends on them.
void BM_BusBlockDownload(benchmark::State& aState) {
    InProcessBusSettings settings;
    settings.bitRate = static_cast<std::uint32_t>(aState.range(0));
    InProcessBus bus(settings);
    BoardThread const board(bus);
    ClientOnBus client(bus);
    std::vector<std::uint8_t> data(65536);
    std::mt19937 random(1);
    for (std::uint8_t& byte : data) {
        byte = static_cast<std::uint8_t>(random());
    }
    auto const start = Clock::current().now();
    for (auto _ : aState) {
        client.core().startDownload({0x1F50, 1}, data, SdoMode::Block, Clock::current().now());
        client.finish();
    }
    aState.SetBytesProcessed(aState.iterations() * static_cast<std::int64_t>(data.size()));
    if (settings.bitRate != 0) {
        double const seconds = std::chrono::duration<double>(Clock::current().now() - start).count();
        aState.counters["of_limit"] = static_cast<double>(bus.counters().bits) / settings.bitRate / seconds;
    }
}
BENCHMARK(BM_BusBlockDownload)->Arg(0)->Arg(1'000'000)->UseRealTime();

} // namespace
