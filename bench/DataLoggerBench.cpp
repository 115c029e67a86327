// SPDX-License-Identifier: Apache-2.0
// What a push to the data logger costs its caller, how fast the writer brings samples to the disk, and how
// fast they are read; beside plain inserts into a SQLite table of the same key.
#include "support/AllocationCount.h"

#include <velmor/kepla/datalogger/DataLoggerReader.h>
#include <velmor/kepla/datalogger/SqliteDataLogger.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using velmor::kepla::datalogger::DataLoggerChannelIfc;
using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerReader;
using velmor::kepla::datalogger::DataLoggerSample;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::datalogger::SqliteDataLogger;

using Channel = std::shared_ptr<DataLoggerChannelIfc>;

/// Channels of an instrument in full work.
constexpr int kChannels = 64;

DataLoggerChannelInfo info(int aNumber) {
    return {{"bench", std::to_string(aNumber)},
            DataLoggerUnit::Kelvin,
            DataLoggerStats::none(),
            DataLoggerStorageType::ShortTerm,
            "A channel of the benchmark"};
}

/// A file that goes with all that belongs to it.
class File {
public:
    File()
        : mFolder(std::filesystem::temp_directory_path() / ("datalogger-bench-" + std::to_string(getpid()))) {
        std::filesystem::create_directories(mFolder);
    }
    ~File() { std::filesystem::remove_all(mFolder); }
    File(File const&) = delete;
    File& operator=(File const&) = delete;

    std::filesystem::path path() const { return mFolder / "datalogger.sqlite"; }

private:
    std::filesystem::path mFolder;
};

std::vector<Channel> makeChannels(SqliteDataLogger& aLogger) {
    std::vector<Channel> channels;
    channels.reserve(kChannels);
    for (int number = 0; number < kChannels; ++number) {
        channels.push_back(aLogger.createChannel(info(number)));
    }
    return channels;
}

/// Pushes into a queue that the writer has to empty at the same time; what does not fit is dropped.
void push(benchmark::State& aState) {
    File const file;
    SqliteDataLogger logger(file.path());
    auto const channels = makeChannels(logger);
    auto time = std::chrono::system_clock::now();
    std::size_t next = 0;
    auto const before = libfieldwarden::test::allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        channels[next++ % kChannels]->push(298.15, time += 1us);
    }
    aState.counters["allocations"] =
        static_cast<double>(libfieldwarden::test::allocationsOfThisThread() - before);
}
BENCHMARK(push);

/// Pushes from several threads to one logger.
void pushFromThreads(benchmark::State& aState) {
    static std::unique_ptr<File> sFile;
    static std::unique_ptr<SqliteDataLogger> sLogger;
    if (aState.thread_index() == 0) {
        sFile = std::make_unique<File>();
        sLogger = std::make_unique<SqliteDataLogger>(sFile->path());
    }
    Channel channel;
    auto time = std::chrono::system_clock::now();
    for ([[maybe_unused]] auto _ : aState) {
        if (!channel) {
            channel = sLogger->createChannel(info(aState.thread_index()));
        }
        channel->push(298.15, time += 1us);
    }
    channel.reset();
    if (aState.thread_index() == 0) {
        sLogger.reset();
        sFile.reset();
    }
}
BENCHMARK(pushFromThreads)->Threads(2)->Threads(4)->UseRealTime();

constexpr int kBatch = 30'000;

/// Opens, pushes a batch over all channels and closes: all samples are in the file then.
void writeBatch(benchmark::State& aState) {
    double perSample = 0.0;
    for ([[maybe_unused]] auto _ : aState) {
        File const file;
        {
            SqliteDataLogger logger(file.path(), {.queueCapacity = 2 * kBatch + 1});
            auto const channels = makeChannels(logger);
            auto time = std::chrono::system_clock::now();
            for (std::size_t i = 0; i < kBatch; ++i) {
                channels[i % kChannels]->push(298.15 + static_cast<double>(i) * 1e-3, time += 1us);
            }
        }
        perSample = static_cast<double>(std::filesystem::file_size(file.path())) / kBatch;
    }
    aState.SetItemsProcessed(aState.iterations() * kBatch);
    aState.counters["bytes_per_sample"] = perSample;
}
BENCHMARK(writeBatch)->Name("write/fieldwarden")->UseRealTime()->Unit(benchmark::kMillisecond);

/// The same rows by plain inserts in one transaction.
void writePlain(benchmark::State& aState) {
    for ([[maybe_unused]] auto _ : aState) {
        File const file;
        sqlite3* database = nullptr;
        sqlite3_open(file.path().c_str(), &database);
        sqlite3_exec(
            database,
            "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
            "CREATE TABLE sample (channel INTEGER, time INTEGER, seq INTEGER, value REAL, status INTEGER, "
            "PRIMARY KEY (channel, time, seq)) WITHOUT ROWID; BEGIN",
            nullptr, nullptr, nullptr);
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(database, "INSERT INTO sample VALUES (?1, ?2, 0, ?3, 0)", -1, &insert, nullptr);
        std::int64_t time = 1'684'886'400'000'000; // 2023-05-24 in microseconds
        for (int i = 0; i < kBatch; ++i) {
            sqlite3_bind_int64(insert, 1, i % kChannels);
            sqlite3_bind_int64(insert, 2, ++time);
            sqlite3_bind_double(insert, 3, 298.15 + i * 1e-3);
            sqlite3_step(insert);
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        sqlite3_exec(database, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(database);
    }
    aState.SetItemsProcessed(aState.iterations() * kBatch);
}
BENCHMARK(writePlain)->Name("write/plain sqlite")->UseRealTime()->Unit(benchmark::kMillisecond);

/// A file with so many samples in each channel.
void fill(std::filesystem::path const& aFile, int aEach) {
    SqliteDataLogger logger(aFile, {.queueCapacity = static_cast<std::size_t>(2 * aEach * kChannels + 1)});
    auto const channels = makeChannels(logger);
    auto const begin = std::chrono::system_clock::now();
    for (int i = 0; i < aEach; ++i) {
        for (Channel const& channel : channels) {
            channel->push(298.15 + i, begin + i * 1ms);
        }
    }
}

void readSamples(benchmark::State& aState) {
    File const file;
    fill(file.path(), 10'000);
    DataLoggerReader const reader(file.path());
    double sum = 0.0;
    for ([[maybe_unused]] auto _ : aState) {
        reader.samples("bench/7", {}, [&](DataLoggerSample const& aSample) {
            sum += aSample.value;
            return true;
        });
    }
    benchmark::DoNotOptimize(sum);
    aState.SetItemsProcessed(aState.iterations() * 10'000);
}
BENCHMARK(readSamples)->Name("read the samples of a channel")->Unit(benchmark::kMillisecond);

void listChannels(benchmark::State& aState) {
    File const file;
    fill(file.path(), static_cast<int>(aState.range(0)));
    DataLoggerReader const reader(file.path());
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(reader.channels());
    }
}
BENCHMARK(listChannels)->Name("list 64 channels")->Arg(100)->Arg(10'000)->Unit(benchmark::kMicrosecond);

} // namespace
