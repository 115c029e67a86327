// SPDX-License-Identifier: Apache-2.0
// The lock's streams beside what they are made of: PID records beside memcpy, packets, and dumps beside zlib.
#include "lock/hardware/LockFFTDump.h"
#include "lock/hardware/LockPIDDataStream.h"
#include "lock/hardware/PidRecord.h"
#include "support/AllocationCount.h"
#include "support/FakeLockHardware.h"
#include "support/FakeStreamDevice.h"
#include "support/TemporaryDirectory.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <time.h>

#include <H5Cpp.h>
#include <benchmark/benchmark.h>
#include <libdeflate.h>
#include <zlib.h>

namespace {

using libfieldwarden::lock::decodePidRecord;
using libfieldwarden::lock::PidRecord;
using libfieldwarden::test::allocationsOfThisThread;
using libfieldwarden::test::FakeLockHardware;
using libfieldwarden::test::FakeSeqlockDriver;
using libfieldwarden::test::TemporaryDirectory;
using Bytes = std::vector<unsigned char>;

// --------------------------------------------------------------------------------------- PID records: bytes

Bytes recordBytes(std::size_t aBytes) {
    Bytes bytes(aBytes);
    for (std::size_t index = 0; index < aBytes; ++index) {
        bytes[index] = static_cast<unsigned char>(index * 131U);
    }
    return bytes;
}

void decodeRecords(benchmark::State& aState) {
    Bytes const bytes = recordBytes(static_cast<std::size_t>(aState.range(0)));
    for ([[maybe_unused]] auto _ : aState) {
        for (std::size_t offset = 0; offset < bytes.size(); offset += PidRecord::kSize) {
            PidRecord record = decodePidRecord(bytes.data() + offset);
            benchmark::DoNotOptimize(record.phase);
            benchmark::DoNotOptimize(record.pidDataIn);
            benchmark::DoNotOptimize(record.pidDataOut);
            benchmark::DoNotOptimize(record.maxSlice);
        }
    }
    aState.SetBytesProcessed(static_cast<std::int64_t>(aState.iterations()) * aState.range(0));
}
BENCHMARK(decodeRecords)->Name("PID bytes/to fields")->Arg(64 << 20)->Unit(benchmark::kMillisecond);

void copyRecords(benchmark::State& aState) {
    Bytes const bytes = recordBytes(static_cast<std::size_t>(aState.range(0)));
    Bytes copy(bytes.size());
    for ([[maybe_unused]] auto _ : aState) {
        std::memcpy(copy.data(), bytes.data(), bytes.size());
        benchmark::ClobberMemory();
    }
    aState.SetBytesProcessed(static_cast<std::int64_t>(aState.iterations()) * aState.range(0));
}
BENCHMARK(copyRecords)->Name("PID bytes/memcpy")->Arg(64 << 20)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------------- PID records: the path

/// Records that are due, and what their reader has spent on them.
struct Due {
    std::mutex mutex;
    std::condition_variable news;
    std::int64_t records = 0;
    std::atomic<std::size_t> packets{0};
    std::atomic<std::size_t> allocations{0}; ///< Of the reader's thread.
    std::atomic<double> cpuSeconds{0.0};     ///< Of the reader's thread.

    void add(std::int64_t aRecords) {
        {
            std::lock_guard const lock(mutex);
            records += aRecords;
        }
        news.notify_all();
    }
};

double cpuSecondsOfThisThread() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// A device that has the records that are due, at most seven a packet, as the hardware sends them.
class RecordDevice final : public velmor::q47::seqlock::StreamDevice {
public:
    explicit RecordDevice(Due& aDue)
        : mDue(aDue) {}

    int ioctl(unsigned long /*aRequest*/, unsigned long /*aArgument*/) override {
        mEnd = false;
        return 0;
    }
    ssize_t read(unsigned char* aBuffer, std::size_t aSize) override {
        if (mEnd) {
            return 0;
        }
        std::lock_guard const lock(mDue.mutex);
        if (mDue.records == 0) {
            errno = EAGAIN;
            return -1;
        }
        auto const records = std::min<std::int64_t>(mDue.records, 7);
        std::size_t const size = std::min(aSize, static_cast<std::size_t>(records) * PidRecord::kSize);
        std::memset(aBuffer, 1, size);
        mDue.records -= records;
        ++mDue.packets;
        mEnd = true;
        return static_cast<ssize_t>(size);
    }
    int waitReadable(std::chrono::seconds aTimeout) override {
        // Here it is the reader's thread for sure.
        mDue.allocations = allocationsOfThisThread();
        mDue.cpuSeconds = cpuSecondsOfThisThread();
        std::unique_lock lock(mDue.mutex);
        return mDue.news.wait_for(lock, aTimeout, [this] { return mDue.records > 0; }) ? 1 : 0;
    }

private:
    Due& mDue;
    bool mEnd = false;
};

class RecordDriver final : public velmor::q47::seqlock::SeqlockDriver {
public:
    std::unique_ptr<velmor::q47::seqlock::StreamDevice> openStream(std::string const& /*aPath*/) override {
        return std::make_unique<RecordDevice>(due);
    }
    bool canRead(std::string const& /*aPath*/) override { return false; }
    bool canWrite(std::string const& /*aPath*/) override { return false; }
    std::string readRegister(std::string const& /*aPath*/) override { return {}; }
    void writeRegister(std::string const& /*aPath*/, std::string const& /*aText*/) override {}
    std::unique_ptr<velmor::q47::seqlock::Notification> openNotification(
        std::string const& /*aPath*/) override {
        return nullptr;
    }
    std::unique_ptr<std::ostream> openMemory(std::string const& /*aPath*/) override { return nullptr; }

    Due due;
};

/// Packets in, records out of the queue, on the reader's thread and this one, as fast as they go.
void recordPath(benchmark::State& aState) {
    auto const driver = std::make_shared<RecordDriver>();
    LockPIDDataStream stream(std::make_shared<FakeLockHardware>(), driver);
    stream.start();
    std::unique_ptr<LockStreamPIDData> record;
    constexpr std::int64_t kBatch = 70000;
    Due& due = driver->due;
    for ([[maybe_unused]] auto _ : aState) {
        due.add(kBatch);
        for (std::int64_t taken = 0; taken < kBatch; ++taken) {
            if (!stream.dequeueWait(record, std::chrono::seconds(10))) {
                aState.SkipWithError("a record is missing");
                break;
            }
        }
    }
    auto const records = static_cast<double>(aState.iterations()) * kBatch;
    auto const packetsRead = static_cast<double>(due.packets);
    aState.SetItemsProcessed(static_cast<std::int64_t>(records));
    // A packet is two: the vector and its bytes.
    aState.counters["allocations/record"] =
        (static_cast<double>(due.allocations) - 2.0 * packetsRead) / records;
    stream.stop();
}
BENCHMARK(recordPath)
    ->Name("PID records/device to queue's end")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// The same at a rate for a second: what a record costs both threads, wake-ups included.
void recordPathAtRate(benchmark::State& aState) {
    auto const driver = std::make_shared<RecordDriver>();
    LockPIDDataStream stream(std::make_shared<FakeLockHardware>(), driver);
    stream.start();
    std::unique_ptr<LockStreamPIDData> record;
    std::int64_t const rate = aState.range(0);
    std::int64_t const ticks = std::min<std::int64_t>(rate, 1000);
    double const cpu = cpuSecondsOfThisThread();
    std::int64_t taken = 0;
    for ([[maybe_unused]] auto _ : aState) {
        std::thread clock([&] {
            auto const begin = std::chrono::steady_clock::now();
            for (std::int64_t tick = 1; tick <= ticks; ++tick) {
                std::this_thread::sleep_until(begin + tick * std::chrono::nanoseconds(1'000'000'000 / ticks));
                driver->due.add(rate / ticks);
            }
        });
        while (taken < rate && stream.dequeueWait(record, std::chrono::seconds(1))) {
            ++taken;
        }
        clock.join();
    }
    aState.counters["records"] = static_cast<double>(taken);
    aState.counters["cpu_us/record"] =
        (cpuSecondsOfThisThread() + driver->due.cpuSeconds - cpu) * 1e6 / static_cast<double>(taken);
    stream.stop();
}
BENCHMARK(recordPathAtRate)
    ->Name("PID records/at a rate")
    ->Arg(30)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// --------------------------------------------------------------------------------------------------- packets

/// Packets of a size, one read each.
void packets(benchmark::State& aState) {
    auto const size = static_cast<std::size_t>(aState.range(0));
    auto const driver = std::make_shared<FakeSeqlockDriver>();
    auto const stream = driver->stream("/dev/lock_dma_td");
    LockStreamPacketReader reader("/dev/lock_dma_td", static_cast<unsigned int>(size), driver);
    Bytes const bytes = recordBytes(size);
    for ([[maybe_unused]] auto _ : aState) {
        stream->add(bytes);
        benchmark::DoNotOptimize(reader.readSingle(std::chrono::seconds(30)));
    }
    aState.SetBytesProcessed(static_cast<std::int64_t>(aState.iterations() * size));
}
BENCHMARK(packets)->Name("packet/through a fake device")->Arg(124)->Arg(524288);

// ------------------------------------------------------------------------------------------------------
// dumps

constexpr std::size_t kPoints = 65536;

/// A spectrum's line with a little noise: smooth, as the dumps are.
std::vector<int> smooth(double aPhase) {
    std::vector<int> values(kPoints);
    std::uint32_t noise = 1;
    for (std::size_t point = 0; point < kPoints; ++point) {
        noise = noise * 1664525U + 1013904223U;
        double const x = (static_cast<double>(point) - 30000.0) / 130.0;
        double const line = 5.0e8 * std::cos(aPhase + x) / (1.0 + x * x);
        values[point] = static_cast<int>(line) + static_cast<int>(noise >> 26U);
    }
    return values;
}

Bytes packetOf(std::vector<int> const& aReal, std::vector<int> const& aImag) {
    Bytes packet(8 * kPoints);
    for (std::size_t point = 0; point < kPoints; ++point) {
        std::uint32_t const imag = __builtin_bswap32(static_cast<std::uint32_t>(aImag[point]));
        std::uint32_t const real = __builtin_bswap32(static_cast<std::uint32_t>(aReal[point]));
        std::memcpy(&packet[8 * point], &imag, 4);
        std::memcpy(&packet[8 * point + 4], &real, 4);
    }
    return packet;
}

void dump(benchmark::State& aState) {
    TemporaryDirectory const folder;
    auto const driver = std::make_shared<FakeSeqlockDriver>();
    auto const hardware = std::make_shared<FakeLockHardware>();
    auto const stream = driver->stream("/dev/lock_dma_fd");
    Bytes const packet = packetOf(smooth(0.0), smooth(1.5));
    hardware->registers.singleFdTransfer->onWrite([&](bool /*aOn*/) { stream->add(packet); });
    LockFFTDump fft(hardware, driver);
    std::string const file = (folder.path() / "dump.h5").string();
    for ([[maybe_unused]] auto _ : aState) {
        fft.acquireAndDump(file);
    }
    aState.counters["file_bytes"] = static_cast<double>(std::filesystem::file_size(file));
}
BENCHMARK(dump)->Name("dump of 65,536 points/whole")->Unit(benchmark::kMillisecond);

/// The chunks of both parts through bare zlib.
void zlibAlone(benchmark::State& aState) {
    auto const parts = {smooth(0.0), smooth(1.5)};
    Bytes output(compressBound(kPoints));
    for ([[maybe_unused]] auto _ : aState) {
        for (auto const& part : parts) {
            for (std::size_t begin = 0; begin < kPoints; begin += kPoints / 4) {
                uLongf size = output.size();
                compress2(output.data(), &size, reinterpret_cast<Bytef const*>(&part[begin]), kPoints, 6);
                benchmark::DoNotOptimize(size);
            }
        }
    }
}
BENCHMARK(zlibAlone)->Name("dump of 65,536 points/bare zlib level 6")->Unit(benchmark::kMillisecond);

/// The same through libdeflate.
void libdeflateAlone(benchmark::State& aState) {
    auto const parts = {smooth(0.0), smooth(1.5)};
    std::unique_ptr<libdeflate_compressor, void (*)(libdeflate_compressor*)> const compressor(
        libdeflate_alloc_compressor(6), libdeflate_free_compressor);
    Bytes output(libdeflate_zlib_compress_bound(compressor.get(), kPoints));
    for ([[maybe_unused]] auto _ : aState) {
        for (auto const& part : parts) {
            for (std::size_t begin = 0; begin < kPoints; begin += kPoints / 4) {
                benchmark::DoNotOptimize(libdeflate_zlib_compress(compressor.get(), &part[begin], kPoints,
                                                                  output.data(), output.size()));
            }
        }
    }
}
BENCHMARK(libdeflateAlone)
    ->Name("dump of 65,536 points/bare libdeflate level 6")
    ->Unit(benchmark::kMillisecond);

/// The same file by HDF5's own deflate filter.
void hdf5Filter(benchmark::State& aState) {
    TemporaryDirectory const folder;
    auto const parts = {smooth(0.0), smooth(1.5)};
    std::string const name = (folder.path() / "dump.h5").string();
    for ([[maybe_unused]] auto _ : aState) {
        H5::H5File const file(name, H5F_ACC_TRUNC);
        int number = 0;
        for (auto const& part : parts) {
            hsize_t const points = kPoints;
            hsize_t const chunk = points / 4;
            H5::DSetCreatPropList properties;
            properties.setChunk(1, &chunk);
            properties.setDeflate(6);
            file.createDataSet(number++ == 0 ? "/Real" : "/Imag", H5::PredType::NATIVE_INT32,
                               H5::DataSpace(1, &points), properties)
                .write(part.data(), H5::PredType::NATIVE_INT32);
        }
    }
    aState.counters["file_bytes"] = static_cast<double>(std::filesystem::file_size(name));
}
BENCHMARK(hdf5Filter)->Name("dump of 65,536 points/HDF5's own filter")->Unit(benchmark::kMillisecond);

/// Many dumps, good and bad: what they leave behind.
void leftBehind(benchmark::State& aState) {
    TemporaryDirectory const folder;
    auto const driver = std::make_shared<FakeSeqlockDriver>();
    auto const hardware = std::make_shared<FakeLockHardware>();
    auto const stream = driver->stream("/dev/lock_dma_fd");
    Bytes const packet(static_cast<std::size_t>(aState.range(1)) * 8);
    hardware->registers.singleFdTransfer->onWrite([&](bool /*aOn*/) { stream->add(packet); });
    LockFFTDump fft(hardware, driver);
    std::string const file = (folder.path() / "dump.h5").string();
    auto const residentKiB = [] {
        long size = 0;
        long resident = 0;
        std::ifstream("/proc/self/statm") >> size >> resident;
        return static_cast<double>(resident * 4);
    };
    auto const handles = [] { return H5Fget_obj_count(static_cast<hid_t>(H5F_OBJ_ALL), H5F_OBJ_ALL); };
    auto const run = [&](std::int64_t aTimes) {
        for (std::int64_t time = 0; time < aTimes; ++time) {
            fft.acquireAndDump(file);
            hardware->takeJournal();
        }
    };
    run(1000);
    for ([[maybe_unused]] auto _ : aState) {
        auto const before = handles();
        double const resident = residentKiB();
        run(aState.range(0));
        aState.counters["handles"] = static_cast<double>(handles() - before);
        aState.counters["resident_KiB"] = residentKiB() - resident;
    }
}
BENCHMARK(leftBehind)
    ->Name("left behind (dumps/points)")
    ->Args({3000, 1024})
    ->Args({20000, 3})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

} // namespace
