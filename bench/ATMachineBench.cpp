// SPDX-License-Identifier: Apache-2.0
// What the state machine of the adjustable temperature costs each second: a tick in every state, from the
// machine down to the frames on the bus within this process. And what the table of gas flows costs it.
#include "at/ATFSMStates.h"
#include "at/ATFlowTable.h"
#include "at/AtFlowBoxV2.h"
#include "at/AtToFsm.h"
#include "at/FlowController.h"
#include "support/FakePeriodicCallers.h"
#include "support/TestNode.h"
#include "temperature/TempBoardQ47.h"
#include "temperature/TemperatureListenerSync.h"
#include "temperature/TemperatureStabilityMgr.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/datalogger/NullDataLogger.h>
#include <velmor/kepla/mds/Mds.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace {

using libfieldwarden::at::ATFSMParts;
using libfieldwarden::at::made;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::TestNode;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::InProcessBus;
using velmor::kepla::canopen::InProcessBusSettings;
using velmor::kepla::datalogger::NullDataLogger;
using velmor::kepla::mds::Mds;

constexpr std::uint8_t kNode = 7;
constexpr double kHighestKelvin = 1e6; // so that a ramp outlasts the benchmark

std::string group(char const* aName, double aMin, double aMax, std::string const& aFlow) {
    return fmt::format(
               R"(<group name="{}"><value>1</value><value>1</value><value>{}</value><value>{}</value>)",
               aName, aMin, aMax) +
           aFlow + "</group>";
}

std::string flowEntry(double aMin, double aMax, double aFlow) {
    return group("FlowForTemperature", aMin, aMax, fmt::format("<value>{}</value>", aFlow));
}

/// The machine on a board on the bus, its gas through a box of version 2.
class MachineOnBus {
public:
    MachineOnBus() {
        for (std::uint8_t subindex = 1; subindex <= 3; ++subindex) {
            mNode.set32({0x3301, subindex}, 36850); // 310 K
        }
        mNode.set16({0x3302, 1}, 0);
        for (std::uint8_t subindex = 1; subindex <= 7; ++subindex) {
            mNode.set8({0x3303, subindex}, 0);
        }
        mNode.set32({0x3304, 1}, 25000);
        mNode.set32({0x3304, 2}, 25000);
        mNode.set8({0x3401, 5}, 0);
        mBoard->setVTMode(VTMode::PortExpander);
        mFlows->setTableFromMDS(Mds::parse("<record>" + group("TemperatureRange", 1.0, kHighestKelvin, "") +
                                           flowEntry(1.0, kHighestKelvin, 200.0) + "</record>"));
        auto const listener = std::make_shared<TemperatureListenerSync>(0.001, 0.1);
        auto const gas = std::make_shared<FlowController>(
            mBoard, mFlows, listener, std::make_unique<AtFlowBoxV2>(),
            std::make_shared<FakePeriodicCallers>(), std::make_shared<NullDataLogger>());
        mParameters->setTargetTemperature(310.0);
        mProcessor = mScheduler.create_processor<FSMAT>(ATFSMParts{
            mBoard, mFlows, mParameters, listener, std::make_shared<TemperatureStabilityMgr>(listener), gas,
            nullptr, std::make_shared<AtToFsm>()});
        mScheduler.initiate_processor(mProcessor);
        mScheduler();
    }

    template <typename Event, typename... Arguments>
    void handle(Arguments... aArguments) {
        mScheduler.queue_event(mProcessor, made<Event>(aArguments...));
        mScheduler();
    }
    void tick(int aMilliseconds) { handle<EvTimerTick>(std::chrono::milliseconds(aMilliseconds)); }
    void setTarget(double aKelvin) { mParameters->setTargetTemperature(aKelvin); }
    void setProbe(std::uint32_t aMilliCelsius) { mNode.set32({0x3301, 1}, aMilliCelsius); }
    std::size_t transfers() const { return mNode.requests(); }

    template <typename State>
    bool in() {
        return dynamic_cast<FSMAT&>(**mProcessor.lock()).state_cast<State const*>() != nullptr;
    }

private:
    InProcessBus mBus{InProcessBusSettings{}};
    TestNode mNode{mBus, kNode};
    std::shared_ptr<CanOpenMaster> mMaster =
        std::make_shared<CanOpenMaster>(mBus.open("can0"), std::uint8_t{1});
    std::shared_ptr<TempBoardQ47> mBoard =
        std::make_shared<TempBoardQ47>(mMaster, nullptr, "/firmware", kNode);
    std::shared_ptr<ATFlowTable> mFlows = std::make_shared<ATFlowTable>();
    std::shared_ptr<ATFSMParameters> mParameters = std::make_shared<ATFSMParameters>();
    boost::statechart::fifo_scheduler<> mScheduler{false};
    boost::statechart::fifo_scheduler<>::processor_handle mProcessor;
};

void off(MachineOnBus& /*aMachine*/) {}
void tooLow(MachineOnBus& aMachine) {
    aMachine.setTarget(0.0);
    aMachine.handle<EvEnable>();
}
void holdBeforeRamp(MachineOnBus& aMachine) {
    aMachine.handle<EvEnable>();
}
void ramp(MachineOnBus& aMachine) {
    aMachine.setTarget(kHighestKelvin);
    holdBeforeRamp(aMachine);
    aMachine.tick(300);
}
void on(MachineOnBus& aMachine) {
    holdBeforeRamp(aMachine);
    aMachine.tick(300);
}
void rampToOff(MachineOnBus& aMachine) {
    on(aMachine);
    aMachine.setProbe(60000);
    aMachine.handle<EvDisable>();
}
void flush(MachineOnBus& aMachine) {
    holdBeforeRamp(aMachine);
    aMachine.handle<EvDisable>();
}
void holdBeforeOff(MachineOnBus& aMachine) {
    flush(aMachine);
    aMachine.tick(5001);
}
void hardPowerOff(MachineOnBus& aMachine) {
    aMachine.handle<EvHardPowerOff>();
}
void exchangeEnter(MachineOnBus& aMachine) {
    on(aMachine);
    aMachine.handle<EvPrepareTransfer>();
}
void exchange(MachineOnBus& aMachine) {
    exchangeEnter(aMachine);
    for (int step = 0; step < 3; ++step) {
        aMachine.tick(501);
    }
}
void exchangeExit(MachineOnBus& aMachine) {
    exchange(aMachine);
    aMachine.handle<EvCompleteTransfer>();
}

template <typename State>
bool isIn(MachineOnBus& aMachine) {
    return aMachine.in<State>();
}

/// The CPU time is that of the machine's thread, which does all of the library's work; the board answers from
/// a thread of its own. A tick of no time is looked at in full, and leaves the machine where it is.
void BM_Tick(benchmark::State& aState,
             void (*aReach)(MachineOnBus&),
             bool (*aIsThere)(MachineOnBus&),
             int aMilliseconds) {
    MachineOnBus machine;
    aReach(machine);
    if (!aIsThere(machine)) {
        aState.SkipWithError("not the state that was wanted");
        return;
    }
    std::size_t const before = machine.transfers();
    for (auto _ : aState) {
        machine.tick(aMilliseconds);
    }
    if (!aIsThere(machine)) {
        aState.SkipWithError("left the state");
    }
    aState.counters["transfers"] =
        static_cast<double>(machine.transfers() - before) / static_cast<double>(aState.iterations());
}
BENCHMARK_CAPTURE(BM_Tick, Off, off, isIn<Off>, 0);
BENCHMARK_CAPTURE(BM_Tick, OnButTargetTooLow, tooLow, isIn<OnButTargetTooLow>, 0);
BENCHMARK_CAPTURE(BM_Tick, BeginRamp_SetHoldFlow, holdBeforeRamp, isIn<BeginRamp_SetHoldFlow>, 0);
BENCHMARK_CAPTURE(BM_Tick, RampTemperatureAndFlow, ramp, isIn<RampTemperatureAndFlow>, 0);
BENCHMARK_CAPTURE(BM_Tick, RampTemperatureAndFlow_a_step_each, ramp, isIn<RampTemperatureAndFlow>, 61000);
BENCHMARK_CAPTURE(BM_Tick, On, on, isIn<On>, 0);
BENCHMARK_CAPTURE(BM_Tick, RampToOffTemperatureAndFlow, rampToOff, isIn<RampToOffTemperatureAndFlow>, 0);
BENCHMARK_CAPTURE(BM_Tick, FlushBeforePowerOff, flush, isIn<FlushBeforePowerOff>, 0);
BENCHMARK_CAPTURE(BM_Tick, HoldBeforePowerOff, holdBeforeOff, isIn<HoldBeforePowerOff>, 0);
BENCHMARK_CAPTURE(BM_Tick, HardPowerOff, hardPowerOff, isIn<HardPowerOff>, 0);
BENCHMARK_CAPTURE(BM_Tick, SampleExchangeEnter, exchangeEnter, isIn<SampleExchangeEnter>, 0);
BENCHMARK_CAPTURE(BM_Tick, SampleExchange, exchange, isIn<SampleExchange>, 0);
BENCHMARK_CAPTURE(BM_Tick, SampleExchangeExit, exchangeExit, isIn<SampleExchangeExit>, 0);

constexpr double kFromKelvin = 200.0;

/// Ranges of 1 K, each with its own flow.
Mds makeRecord(std::int64_t aEntries) {
    std::string text =
        group("TemperatureRange", kFromKelvin, kFromKelvin + static_cast<double>(aEntries), "");
    for (std::int64_t entry = 0; entry < aEntries; ++entry) {
        double const kelvin = kFromKelvin + static_cast<double>(entry);
        text += flowEntry(kelvin, kelvin + 1.0, 10.0 + static_cast<double>(entry));
    }
    return Mds::parse("<record>" + text + "</record>");
}

/// A table, and temperatures to ask it for.
class FlowTable {
public:
    explicit FlowTable(std::int64_t aEntries) {
        table.setTableFromMDS(makeRecord(aEntries));
        std::mt19937 random(20240617); // NOLINT: the same each time
        std::uniform_real_distribution<double> kelvin(kFromKelvin,
                                                      kFromKelvin + static_cast<double>(aEntries));
        for (int question = 0; question < 1024; ++question) {
            kelvins.push_back(kelvin(random));
        }
    }

    ATFlowTable table;
    std::vector<double> kelvins;
};

void BM_FlowForTemperature(benchmark::State& aState) {
    FlowTable const flows(aState.range(0));
    std::size_t question = 0;
    for (auto _ : aState) {
        benchmark::DoNotOptimize(flows.table.flowForTemperature(flows.kelvins[question++ % 1024]));
    }
}
BENCHMARK(BM_FlowForTemperature)->Arg(10)->Arg(1'000);

void BM_FlowByIndex(benchmark::State& aState) {
    FlowTable const flows(aState.range(0));
    unsigned char index = 0;
    for (auto _ : aState) {
        benchmark::DoNotOptimize(flows.table.flowByIndex(index));
        index = static_cast<unsigned char>((index + 1) % 10);
    }
}
BENCHMARK(BM_FlowByIndex)->Arg(10)->Arg(1'000);

/// The last flow, which takes longest.
void BM_IndexForFlow(benchmark::State& aState) {
    FlowTable const flows(aState.range(0));
    double const last = 10.0 + static_cast<double>(aState.range(0) - 1);
    for (auto _ : aState) {
        benchmark::DoNotOptimize(flows.table.indexForFlow(last));
    }
}
BENCHMARK(BM_IndexForFlow)->Arg(10)->Arg(1'000);

void BM_LowestTemperatureWithFlow(benchmark::State& aState) {
    FlowTable const flows(aState.range(0));
    for (auto _ : aState) {
        benchmark::DoNotOptimize(flows.table.lowestTemperatureWithFlow());
    }
}
BENCHMARK(BM_LowestTemperatureWithFlow)->Arg(10)->Arg(1'000);

void BM_Fill(benchmark::State& aState) {
    auto const mds = makeRecord(aState.range(0));
    ATFlowTable table;
    for (auto _ : aState) {
        table.setTableFromMDS(mds);
    }
}
BENCHMARK(BM_Fill)->Arg(10)->Arg(1'000);

} // namespace
