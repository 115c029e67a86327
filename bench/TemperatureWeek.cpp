// SPDX-License-Identifier: Apache-2.0
// A week of the temperature service on a clock moved by hand: the real service, the data logger's file and
// the simulated board on the bus within this process, read every ten seconds. Prints what it costs, how the
// file grows, and whether anything of the process does.
//
//   temperature_week [DAYS [RETENTION_DAYS]]
#include "simulator/boards/CanNode.h"
#include "simulator/boards/TemperatureBoard.h"
#include "support/Eventually.h"
#include "support/FakePeriodicCallers.h"
#include "support/HandClockScope.h"
#include "support/ProcessResources.h"
#include "support/TemporaryDirectory.h"
#include "temperature/TempBoardQ47.h"
#include "temperature/TemperatureHardwareQ47.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/datalogger/DataLoggerReader.h>
#include <velmor/kepla/datalogger/SqliteDataLogger.h>
#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <malloc.h>
#include <time.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::sim::CanNode;
using libfieldwarden::sim::TemperatureBoard;
using libfieldwarden::test::eventually;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::ProcessResources;
using libfieldwarden::test::TemporaryDirectory;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::InProcessBus;
using velmor::kepla::datalogger::DataLoggerReader;
using velmor::kepla::datalogger::SqliteDataLogger;

constexpr int kHoursADay = 24;
constexpr int kPollsAnHour = 360;
constexpr std::uint8_t kNode = 7;
/// A channel that gets one value with each round of readings.
constexpr char const* kOneAPoll = "temperatureBoard/magnet/stable";

class NoRecords : public velmor::kepla::deviceid::DeviceIdClientIfc {
public:
    std::string mainMds() override { return "<record/>"; }
};

double cpuSeconds(clockid_t aClock) {
    timespec time{};
    clock_gettime(aClock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// @return What of this process is in memory, in bytes.
std::int64_t residentBytes() {
    std::int64_t size = 0;
    std::int64_t resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident * 4096;
}

/// The week's instrument.
class Week {
public:
    explicit Week(int aRetentionDays)
        : mDataLogger(std::make_shared<SqliteDataLogger>(mFile, options(aRetentionDays))) {
        mBoard->setVTMode(VTMode::PortExpander); // so that the probe's readings go to the bus, too
    }

    void day() {
        for (int hour = 0; hour < kHoursADay; ++hour) {
            for (int poll = 0; poll < kPollsAnHour; ++poll) {
                mClock->advance(10s);
                double const before = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
                for (auto const& job : mJobs) {
                    job->call();
                }
                pollingSeconds += cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - before;
            }
            awaitWriter();
        }
        report();
    }

    std::uint64_t lostSamples() const { return mDataLogger->lostSamples(); }

    double pollingSeconds = 0.0;

private:
    static SqliteDataLogger::Options options(int aRetentionDays) {
        SqliteDataLogger::Options options;
        options.shortTermRetention = std::chrono::hours(kHoursADay * aRetentionDays);
        return options;
    }

    /// An hour's values do not fit into the queue of the data logger, which has a second for each poll.
    void awaitWriter() {
        auto const now = std::chrono::floor<std::chrono::microseconds>(mClock->systemNow());
        bool const written = eventually([&] {
            mClock->advance(10ms); // The writer looks at the time.
            auto const last = DataLoggerReader(mFile).channel(kOneAPoll).last;
            return last && last->time >= now;
        });
        if (!written) {
            throw std::runtime_error("the data logger stands still");
        }
    }

    void report() {
        DataLoggerReader const reader(mFile);
        auto const bytes = reader.bytes();
        auto const channel = reader.channel(kOneAPoll);
        std::printf(
            "day %d: %.1f MB in the data logger's file (%+.1f MB), %.1f MB on the disk, %ju rounds kept, "
            "heap "
            "%zu bytes\n",
            ++mDay, 1e-6 * static_cast<double>(bytes),
            1e-6 * (static_cast<double>(bytes) - static_cast<double>(mBytes)),
            1e-6 * static_cast<double>(std::filesystem::file_size(mFile)),
            static_cast<std::uintmax_t>(channel.count), mallinfo2().uordblks);
        std::fflush(stdout);
        mBytes = bytes;
    }

    HandClockScope mClock;
    TemporaryDirectory mDirectory;
    std::filesystem::path mFile = mDirectory.path() / "datalogger.sqlite";
    InProcessBus mBus{{}};
    CanNode mNode{mBus.open("board"), kNode, std::make_shared<TemperatureBoard>(TemperatureBoard::Options{})};
    std::shared_ptr<CanOpenMaster> mMaster =
        std::make_shared<CanOpenMaster>(mBus.open("can0"), std::uint8_t{1});
    std::shared_ptr<TempBoardQ47> mBoard =
        std::make_shared<TempBoardQ47>(mMaster, nullptr, "/firmware", kNode);
    std::shared_ptr<SqliteDataLogger> mDataLogger;
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    TemperatureHardwareQ47 mService{mBoard, mDataLogger, mCallers, std::make_shared<NoRecords>(),
                                    "/no/such/file"};
    std::vector<std::shared_ptr<FakePeriodicCallers::Job>> mJobs = mCallers->jobs();
    int mDay = 0;
    std::uint64_t mBytes = 0;
};

/// What the process holds.
struct Holdings {
    std::int64_t heap = static_cast<std::int64_t>(mallinfo2().uordblks);
    std::int64_t resident = residentBytes();
    ProcessResources kernel = ProcessResources::now();
};

void print(char const* aWhen, Holdings const& aHoldings) {
    std::printf("%s: heap %jd bytes, resident %.1f MB, %td threads, %td descriptors\n", aWhen,
                static_cast<std::intmax_t>(aHoldings.heap), 1e-6 * static_cast<double>(aHoldings.resident),
                aHoldings.kernel.threads, aHoldings.kernel.descriptors);
}

int run(int aDays, int aRetentionDays) {
    Week week(aRetentionDays);
    Holdings const begin;
    print("at the begin", begin);
    week.day();
    Holdings const first;
    print("after the first day", first);
    for (int day = 2; day <= aDays; ++day) {
        week.day();
    }
    Holdings const last;
    print("at the end", last);
    double const polls = static_cast<double>(aDays) * kHoursADay * kPollsAnHour;
    std::printf(
        "%d days, %.0f rounds of readings: %.1f us of CPU each, %ju samples lost; since the first day heap "
        "%+jd "
        "bytes, threads %+td, descriptors %+td\n",
        aDays, polls, 1e6 * week.pollingSeconds / polls, static_cast<std::uintmax_t>(week.lostSamples()),
        static_cast<std::intmax_t>(last.heap - first.heap), last.kernel.threads - first.kernel.threads,
        last.kernel.descriptors - first.kernel.descriptors);
    return last.kernel.isNotAbove(first.kernel) && week.lostSamples() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int aCount, char** aArguments) {
    try {
        return run(aCount > 1 ? std::atoi(aArguments[1]) : 7, aCount > 2 ? std::atoi(aArguments[2]) : 30);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
