// SPDX-License-Identifier: Apache-2.0
// What a register costs over its file, beside a bare open, transfer and close of the same file, and the heap
// allocations of each.
#include "fuzz/MemoryFile.h"
#include "lock/hardware/LockQ47HardwareRegister.h"
#include "support/AllocationCount.h"

#include <velmor/q47/seqlock/PosixSeqlockDriver.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

using libfieldwarden::test::allocationsOfThisThread;
using velmor::q47::seqlock::PosixSeqlockDriver;

/// A register file with the largest word in it, in memory as those of the driver are: a disk would write each
/// cut file anew.
class File {
public:
    File() {
        static std::string const kText = "4294967295\n";
        mFile.fill(reinterpret_cast<std::uint8_t const*>(kText.data()), kText.size());
    }

private:
    libfieldwarden::test::MemoryFile mFile;

public:
    std::string const path = mFile.path();
};

std::shared_ptr<PosixSeqlockDriver> driver() {
    static auto const kDriver = std::make_shared<PosixSeqlockDriver>();
    return kDriver;
}

void countAllocations(benchmark::State& aState, std::size_t aBefore) {
    aState.counters["allocations"] = benchmark::Counter(
        static_cast<double>(allocationsOfThisThread() - aBefore), benchmark::Counter::kAvgIterations);
}

// --- reading

void getRegister(benchmark::State& aState) {
    File const file;
    LockQ47HardwareRegister<std::uint32_t> const word("data/dac_data", file.path, driver());
    std::size_t const before = allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(word.get());
    }
    countAllocations(aState, before);
}
BENCHMARK(getRegister)->Name("get/fieldwarden");

void bareRead(benchmark::State& aState) {
    File const file;
    std::array<char, 4096> text{};
    std::size_t const before = allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        int const number = ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
        benchmark::DoNotOptimize(::read(number, text.data(), text.size()));
        benchmark::DoNotOptimize(
            ::read(number, text.data(), text.size())); // to the end, as a whole read does
        ::close(number);
        benchmark::DoNotOptimize(text);
    }
    countAllocations(aState, before);
}
BENCHMARK(bareRead)->Name("get/open, read, close");

void getPair(benchmark::State& aState) {
    File const high;
    File const low;
    LockQ47HardwareRegister<long long> const pair("pid/setpoint", high.path, low.path, driver());
    std::size_t const before = allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(pair.get());
    }
    countAllocations(aState, before);
}
BENCHMARK(getPair)->Name("get 64 bits/fieldwarden");

// --- writing

void setRegister(benchmark::State& aState) {
    File const file;
    LockQ47HardwareRegister<std::uint32_t> word("data/dac_data", file.path, driver());
    std::size_t const before = allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        word.set(4294967295U);
    }
    countAllocations(aState, before);
}
BENCHMARK(setRegister)->Name("set/fieldwarden");

void bareWrite(benchmark::State& aState) {
    File const file;
    std::string const text = "4294967295";
    std::size_t const before = allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        int const number = ::open(file.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        benchmark::DoNotOptimize(::write(number, text.data(), text.size()));
        ::close(number);
    }
    countAllocations(aState, before);
}
BENCHMARK(bareWrite)->Name("set/open, write, close");

void setPair(benchmark::State& aState) {
    File const high;
    File const low;
    LockQ47HardwareRegister<long long> pair("pid/setpoint", high.path, low.path, driver());
    std::size_t const before = allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        pair.set(-1);
    }
    countAllocations(aState, before);
}
BENCHMARK(setPair)->Name("set 64 bits/fieldwarden");

} // namespace
