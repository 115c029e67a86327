// SPDX-License-Identifier: Apache-2.0
// How fast the simulated lock sequencer runs beside the real one, and what its zero-padded transform costs
// beside the plain one of the same length.
#include "simulator/sequencer/SequencerDriver.h"

#include <velmor/platform/HandClock.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace {

using namespace libfieldwarden::sim;

constexpr std::size_t kPoints = 1007;
constexpr double kCycleSeconds = kPoints / LockReceiver::kSamplesPerSecond;

std::vector<std::complex<double>> decay() {
    std::vector<std::complex<double>> points(kPoints);
    for (std::size_t n = 0; n < kPoints; ++n) {
        auto const time = static_cast<double>(n);
        points[n] = std::polar(std::exp(-time / 670.0), 0.01 * time);
    }
    return points;
}

/// Cycle with pulse, FID, spectrum, regulator and a PID record, on an uneven field.
class Lock {
public:
    Lock() {
        mMainboard->setTxEnable(1, true);
        mMainboard->setTxAmplitudeWord(1638);
        mMainboard->setTxFrequencyWord(1, 827'877'000);
        write("data/fft_zeros", 65'536 - kPoints);
        write("data/window_disable", 1);
        write("data/fid_shift", 15);
        auto const program = mDriver->openMemory("/dev/seqlock");
        for (std::uint32_t const word : {SequencerProgram::kVersionWord, 0x0200'0000U, 0x0300'0000U,
                                         0x0400'0000U, 0x0500'0000U, 0x0600'0000U, 0x0700'0001U}) {
            for (unsigned shift = 0; shift < 32; shift += 8) {
                program->put(static_cast<char>(word >> shift));
            }
        }
        program->flush();
        write("log/pid_itf_enable", 1);
        write("control/seq_clock_enable", 1);
    }

    void write(std::string const& aRegister, long long aValue) {
        mDriver->writeRegister("/sys/class/misc/seqlock/" + aRegister, std::to_string(aValue));
    }

    void cycle() { mDriver->step(); }

private:
    std::shared_ptr<velmor::platform::HandClock> mClock = std::make_shared<velmor::platform::HandClock>();
    std::shared_ptr<Magnet> mMagnet = std::make_shared<Magnet>(Magnet::Options{}, mClock->now());
    std::shared_ptr<Mainboard> mMainboard = std::make_shared<Mainboard>();
    std::shared_ptr<SequencerDriver> mDriver = std::make_shared<SequencerDriver>(
        mClock, mMagnet, mMainboard, Sequencer::Options{}, SequencerDriver::Pace::Hand);
};

/// "x_real_time": instrument seconds in a second of one core.
void cycles(benchmark::State& aState) {
    Lock lock;
    for (auto _ : aState) {
        lock.cycle();
    }
    aState.counters["x_real_time"] = benchmark::Counter(
        static_cast<double>(aState.iterations()) * kCycleSeconds, benchmark::Counter::kIsRate);
}
BENCHMARK(cycles)->Unit(benchmark::kMicrosecond);

/// The same with both blocks streamed in every cycle.
void cyclesWithBlocks(benchmark::State& aState) {
    Lock lock;
    lock.write("log/time_domain_itf", 1);
    lock.write("log/fft_itf_enable", 1);
    for (auto _ : aState) {
        lock.cycle();
    }
    aState.counters["x_real_time"] = benchmark::Counter(
        static_cast<double>(aState.iterations()) * kCycleSeconds, benchmark::Counter::kIsRate);
}
BENCHMARK(cyclesWithBlocks)->Unit(benchmark::kMicrosecond);

void paddedTransform(benchmark::State& aState) {
    auto const points = decay();
    PaddedTransform transform;
    for (auto _ : aState) {
        transform.transform(points);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(paddedTransform)->Unit(benchmark::kMicrosecond);

void plainTransform(benchmark::State& aState) {
    auto const points = decay();
    PaddedTransform transform;
    for (auto _ : aState) {
        transform.transformPlainly(points);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(plainTransform)->Unit(benchmark::kMicrosecond);

} // namespace
