// SPDX-License-Identifier: Apache-2.0
// What a log call costs, beside the same call of spdlog: one that nobody wants, and one that goes to a file.
#include "support/AllocationCount.h"

#include <velmor/kepla/log/Configuration.h>
#include <velmor/kepla/log/FileSink.h>
#include <velmor/kepla/log/Logger.h>

#include <filesystem>
#include <memory>

#include <benchmark/benchmark.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

namespace {

using velmor::kepla::log::Configuration;
using velmor::kepla::log::FileSink;
using velmor::kepla::log::Severity;

constexpr unsigned int kRotateKiB = 64 * 1024;

class Speaker : private virtual velmor::kepla::log::Logger {
public:
    Speaker()
        : Logger("LockShimTargetTemperatureRegulator", "Lock") {}
    using Logger::keplaDoLog;
};

std::filesystem::path logFile(char const* aName) {
    return std::filesystem::temp_directory_path() / (std::to_string(getpid()) + aName);
}

/// The process's logging with one sink, for the time of a benchmark.
class SetUp {
public:
    SetUp(char const* aFile, Severity aLevel)
        : mFile(logFile(aFile)) {
        Configuration::initWith({{std::make_shared<FileSink>(mFile, kRotateKiB), aLevel}});
    }
    ~SetUp() {
        Configuration::shutdown();
        std::filesystem::remove(mFile);
    }
    SetUp(SetUp const&) = delete;
    SetUp& operator=(SetUp const&) = delete;

private:
    std::filesystem::path mFile;
};

std::shared_ptr<spdlog::logger> spdlogLogger(std::filesystem::path const& aFile,
                                             spdlog::level::level_enum aLevel) {
    auto logger = std::make_shared<spdlog::logger>(
        "Lock/LockShimTargetTemperatureRegulator",
        std::make_shared<spdlog::sinks::rotating_file_sink_mt>(aFile.string(), kRotateKiB * 1024UL, 3));
    logger->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%l] [%t] [%n] %v");
    logger->set_level(aLevel);
    return logger;
}

void disabledOurs(benchmark::State& aState) {
    SetUp const setUp("ours", Severity::Info);
    Speaker const speaker;
    int value = 1;
    auto const before = libfieldwarden::test::allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(value);
        speaker.keplaDoLog(Severity::Trace, "PID out = %d, data in = %f", {}, value, 2.5);
    }
    aState.counters["allocations"] =
        static_cast<double>(libfieldwarden::test::allocationsOfThisThread() - before);
}
BENCHMARK(disabledOurs)->Name("disabled/fieldwarden");

void disabledSpdlog(benchmark::State& aState) {
    auto const file = logFile("spdlog");
    auto const logger = spdlogLogger(file, spdlog::level::info);
    int value = 1;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(value);
        logger->trace("PID out = {}, data in = {}", value, 2.5);
    }
    std::filesystem::remove(file);
}
BENCHMARK(disabledSpdlog)->Name("disabled/spdlog");

void fileOurs(benchmark::State& aState) {
    SetUp const setUp("ours", Severity::Debug);
    Speaker const speaker;
    int value = 1;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(value);
        speaker.keplaDoLog(Severity::Debug, "PID out = %d, data in = %f", {}, value, 2.5);
    }
}
BENCHMARK(fileOurs)->Name("file/fieldwarden");

void fileSpdlog(benchmark::State& aState) {
    auto const file = logFile("spdlog");
    auto const logger = spdlogLogger(file, spdlog::level::debug);
    int value = 1;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(value);
        logger->debug("PID out = {}, data in = {}", value, 2.5);
    }
    std::filesystem::remove(file);
}
BENCHMARK(fileSpdlog)->Name("file/spdlog");

void makeLogger(benchmark::State& aState) {
    Speaker const first;
    auto const before = libfieldwarden::test::allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        Speaker speaker;
        benchmark::DoNotOptimize(&speaker);
    }
    aState.counters["allocations"] =
        static_cast<double>(libfieldwarden::test::allocationsOfThisThread() - before);
}
BENCHMARK(makeLogger)->Name("make and destroy a logger");

} // namespace
