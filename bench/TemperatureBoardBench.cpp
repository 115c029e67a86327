// SPDX-License-Identifier: Apache-2.0
// What the simulated temperature board costs: its samples, a change of the gas, an access.
#include "simulator/boards/FlowBox.h"
#include "simulator/boards/TemperatureBoard.h"

#include <velmor/platform/HandClock.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using namespace libfieldwarden::sim;
using namespace std::chrono_literals;

constexpr double kSamplesPerSecond = 4.0;

/// A board that has regulated the probe for two hours.
class Board {
public:
    Board() {
        write({0x3401, 5}, {2});
        write({0x3303, 6}, {0});
        write({0x3303, 3}, {3});
        write({0x3304, 1}, {0xF0, 0x8F, 0, 0}); // 36.848 degrees
        write({0x3303, 2}, {1});
        advance(2h);
    }

    void write(TemperatureBoard::SdoObject aObject, std::vector<std::uint8_t> const& aData) {
        mBoard.write(aObject, aData);
    }
    void advance(TemperatureBoard::Duration aTime) {
        mClock.advance(aTime);
        mBoard.advance(mClock.now());
    }
    TemperatureBoard& operator*() { return mBoard; }

private:
    velmor::platform::HandClock mClock;
    TemperatureBoard mBoard{{.gas = std::make_shared<FlowBox>(FlowBox::Options{}, mClock)}, mClock};
};

void samples(benchmark::State& aState) {
    Board board;
    for (auto _ : aState) {
        board.advance(TemperatureControl::kSamplePeriod);
    }
    aState.counters["x_real_time"] = benchmark::Counter(
        static_cast<double>(aState.iterations()) / kSamplesPerSecond, benchmark::Counter::kIsRate);
}
BENCHMARK(samples)->Unit(benchmark::kMicrosecond);

/// Ten seconds with another flow each time: the model's matrix is new for each value on the way.
void changesOfTheGas(benchmark::State& aState) {
    Board board;
    std::uint8_t index = 2;
    for (auto _ : aState) {
        index = index == 4 ? 2 : static_cast<std::uint8_t>(index + 1);
        board.write({0x3303, 3}, {index});
        board.advance(10s + 7ms); // So that the flow is caught at other values on its way.
    }
}
BENCHMARK(changesOfTheGas)->Unit(benchmark::kMicrosecond);

void reads(benchmark::State& aState) {
    Board board;
    std::vector<std::uint8_t> data;
    for (auto _ : aState) {
        data.clear();
        benchmark::DoNotOptimize((*board).read({0x3301, 1}, data));
    }
}
BENCHMARK(reads)->Unit(benchmark::kNanosecond);

/// A board that is switched on: it comes to rest as after days of regulation.
void starts(benchmark::State& aState) {
    velmor::platform::HandClock clock;
    for (auto _ : aState) {
        TemperatureBoard board({}, clock);
        benchmark::DoNotOptimize(&board);
    }
}
BENCHMARK(starts)->Unit(benchmark::kMicrosecond);

} // namespace
