// SPDX-License-Identifier: Apache-2.0
// What the readings of the temperature service cost every ten seconds: the proxy's poll and the judgement of
// the magnet, from the service down to the frames on the bus within this process.
#include "support/FakePeriodicCallers.h"
#include "support/TestNode.h"
#include "temperature/TempBoardQ47.h"
#include "temperature/TemperatureHardwareQ47.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/datalogger/NullDataLogger.h>
#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::TestNode;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::InProcessBus;
using velmor::kepla::canopen::InProcessBusSettings;
using velmor::kepla::datalogger::NullDataLogger;

constexpr std::uint8_t kNode = 7;

class NoRecords : public velmor::kepla::deviceid::DeviceIdClientIfc {
public:
    std::string mainMds() override { return "<record/>"; }
};

/// All that the board is asked for; temperatures are 25 degrees Celsius.
void fill(TestNode& aNode) {
    struct Row {
        std::uint16_t index;
        std::uint8_t first;
        std::uint8_t last;
        int bytes;
    };
    for (Row const& row : std::vector<Row>{{0x3001, 1, 7, 2},
                                           {0x3002, 1, 6, 2},
                                           {0x3004, 2, 8, 2},
                                           {0x3101, 1, 3, 2},
                                           {0x3104, 1, 3, 2},
                                           {0x3201, 1, 6, 2},
                                           {0x3202, 1, 1, 2},
                                           {0x3204, 1, 1, 2},
                                           {0x3205, 1, 1, 1},
                                           {0x3301, 1, 3, 4},
                                           {0x3302, 1, 1, 2},
                                           {0x3303, 1, 7, 1},
                                           {0x3304, 1, 2, 4},
                                           {0x3401, 3, 6, 1}}) {
        for (std::uint8_t subindex = row.first; subindex <= row.last; ++subindex) {
            if (row.bytes == 1) {
                aNode.set8({row.index, subindex}, 1);
            } else if (row.bytes == 2) {
                aNode.set16({row.index, subindex}, 25000);
            } else {
                aNode.set32({row.index, subindex}, 25000);
            }
        }
    }
}

/// Argument: bit rate of the bus; 0 for frames that take no time. The CPU time is that of the polling thread,
/// which does all of the library's work; the board answers from a thread of its own.
void BM_AllReadings(benchmark::State& aState) {
    InProcessBusSettings settings;
    settings.bitRate = static_cast<std::uint32_t>(aState.range(0));
    InProcessBus bus(settings);
    TestNode node(bus, kNode);
    fill(node);
    auto const master = std::make_shared<CanOpenMaster>(bus.open("can0"), std::uint8_t{1});
    auto const board = std::make_shared<TempBoardQ47>(master, nullptr, "/firmware", kNode);
    auto const callers = std::make_shared<FakePeriodicCallers>();
    TemperatureHardwareQ47 service(board, std::make_shared<NullDataLogger>(), callers,
                                   std::make_shared<NoRecords>(), "/no/such/file");
    board->setVTMode(VTMode::PortExpander); // so that the probe's readings go to the bus, too
    auto const jobs = callers->jobs();
    std::uint64_t const bitsBefore = bus.counters().bits;
    std::size_t const requestsBefore = node.requests();
    auto const start = std::chrono::steady_clock::now();
    for (auto _ : aState) {
        for (auto const& job : jobs) {
            job->call();
        }
    }
    double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    auto const polls = static_cast<double>(aState.iterations());
    aState.counters["transfers"] = static_cast<double>(node.requests() - requestsBefore) / polls;
    if (settings.bitRate != 0) {
        double const busSeconds = static_cast<double>(bus.counters().bits - bitsBefore) / settings.bitRate;
        aState.counters["of_limit"] = busSeconds / seconds;
    }
}
BENCHMARK(BM_AllReadings)->Arg(0)->Arg(1'000'000)->UseRealTime();

} // namespace
