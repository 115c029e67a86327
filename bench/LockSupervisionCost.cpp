// SPDX-License-Identifier: Apache-2.0
// What a record of the running lock costs the library: supervision, regulator of the shim coils, listener and
// data logger, at the lock's cycle on a clock moved by hand. A plain program, so that callgrind can count:
//
//   valgrind --tool=callgrind --callgrind-out-file=/dev/null lock_supervision_cost 20000
//   valgrind --tool=callgrind --callgrind-out-file=/dev/null lock_supervision_cost 120000
//
// The difference of the two, by 100,000, are the instructions a record.
#include "lock/LockListenerSync.h"
#include "lock/LockParameters.h"
#include "lock/LockShimTargetTemperatureRegulator.h"
#include "lock/LockStreams.h"
#include "lock/hardware/LockPIDStreamIfc.h"
#include "lock/hardware/LockStreamPIDData.h"
#include "support/AllocationCount.h"
#include "support/FakeBackend.h"
#include "support/FakeLockHardware.h"
#include "support/FakePeriodicCallers.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/ShimTargetTemperatureIfc.h>
#include <velmor/kepla/datalogger/SqliteDataLogger.h>
#include <velmor/platform/HandClock.h>
#include <velmor/q47/seqlock/PosixSeqlockDriver.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include <time.h>

namespace {

using libfieldwarden::test::FakeBackendScope;
using velmor::platform::HandClock;

constexpr std::chrono::microseconds kCycle{30'075};

/// A stream with as many records as were asked for, each a cycle after the one before.
class Records final : public LockPIDStreamIfc {
public:
    Records(std::shared_ptr<HandClock> aClock, long aCount)
        : mClock(std::move(aClock))
        , mLeft(aCount) {}
    void start() override {}
    void stop() override {}
    bool dequeueWait(std::unique_ptr<LockStreamPIDData>& aOut,
                     std::chrono::duration<double> /*aTimeout*/) override {
        if (mLeft == 0) {
            if (!done) {
                allocations = libfieldwarden::test::allocationsOfThisThread() - mAllocationsBefore;
            }
            done = true;
            std::this_thread::yield();
            return false;
        }
        if (mAllocationsBefore == 0) {
            mAllocationsBefore = libfieldwarden::test::allocationsOfThisThread();
        }
        --mLeft;
        mClock->advance(kCycle);
        aOut =
            std::make_unique<LockStreamPIDData>(static_cast<unsigned short>(0), 123'456, mLeft % 1000, 0.25);
        return true;
    }

    std::atomic<bool> done{false};
    std::atomic<std::size_t> allocations{
        0}; ///< Of the supervision's thread, the records themselves included.

private:
    std::shared_ptr<HandClock> mClock;
    long mLeft;
    std::size_t mAllocationsBefore = 0;
};

struct Target final : ShimTargetTemperatureIfc {
    void setShimTargetTemperature(double /*aTemperature*/) override {}
    double shimTargetTemperature(bool /*aFromBoard*/) const override { return 298.15; }
    double probeTemperature() const override { return 298.15; }
};

struct Listener final : LockInterfaceListener {
    void error(std::string const& /*aText*/) override {}
    void warningsChanged() override {}
    void doing(std::string const& /*aText*/) override {}
    void state(int /*aStatus*/) override {}
    void updateLockPIDSet(int /*aPIDSet*/) override {}
    void lost(int /*aStatus*/) override {}
};

double cpuSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void run(long aCount) {
    libfieldwarden::test::TemporaryDirectory const directory;
    FakeBackendScope const backend;
    backend->seqlockDriverDoor = [&] {
        return std::make_shared<velmor::q47::seqlock::PosixSeqlockDriver>(
            directory.path()); // no device: no dumps
    };
    backend->instrumentPathDoor = [&](std::filesystem::path const& aPath) {
        return directory.path() / aPath.relative_path();
    };
    auto const clock = std::make_shared<HandClock>();
    auto const former = velmor::platform::Clock::use(clock);
    {
        auto const parameters = std::make_shared<LockParameters>((directory.path() / "lock.config").string());
        auto const logger =
            std::make_shared<velmor::kepla::datalogger::SqliteDataLogger>(directory.path() / "log.sqlite");
        auto const listener = std::make_shared<LockListenerSync>();
        Listener daemon;
        listener->setListener(&daemon);
        auto const records = std::make_shared<Records>(clock, aCount);
        LockStreams streams(std::make_shared<libfieldwarden::test::FakeLockHardware>(), records, listener,
                            parameters,
                            std::make_shared<LockShimTargetTemperatureRegulator>(
                                parameters, std::make_shared<Target>(), logger),
                            logger, std::make_shared<libfieldwarden::test::FakePeriodicCallers>());
        double const before = cpuSeconds();
        streams.start();
        while (!records->done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        double const spent = cpuSeconds() - before;
        streams.stop();
        listener->removeListener();
        std::printf("%ld records: %.3f us of CPU and %.3f allocations a record\n", aCount,
                    spent / static_cast<double>(aCount) * 1e6,
                    static_cast<double>(records->allocations) / static_cast<double>(aCount));
    }
    velmor::platform::Clock::use(former);
}

} // namespace

int main(int aCount, char** aArguments) {
    run(aCount > 1 ? std::strtol(aArguments[1], nullptr, 10) : 1'000'000);
}
