// SPDX-License-Identifier: Apache-2.0
// A month of the adjustable temperature on a clock moved by hand: switched on and off each day, a sample
// exchanged each hour, ticked and polled each second. Prints what it costs and whether anything grows.
//
//   at_month [DAYS]
#include "at/ATController.h"
#include "support/Eventually.h"
#include "support/FakePeriodicCallers.h"
#include "support/HandClockScope.h"
#include "support/ProcessResources.h"
#include "support/QuietTempBoard.h"
#include "temperature/TemperatureListenerSync.h"

#include <velmor/kepla/datalogger/NullDataLogger.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>

#include <malloc.h>
#include <time.h>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::test::eventually;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::ProcessResources;
using velmor::kepla::datalogger::NullDataLogger;

constexpr int kSecondsAnHour = 3600;
constexpr int kHoursADay = 24;
constexpr double kOnKelvin = 310.0;
constexpr double kRoomKelvin = 298.15;

constexpr char const* kRecord =
    R"(<record><group name="FlowController"><value>1</value><value>1</value></group>)"
    R"(<group name="TemperatureRange"><value>1</value><value>1</value><value>283.15</value>)"
    R"(<value>353.15</value></group>)"
    R"(<group name="FlowForTemperature"><value>1</value><value>1</value><value>283.15</value>)"
    R"(<value>353.15</value><value>200</value></group></record>)";

/// Gas follows at once, the probe is where it is regulated to. Several threads.
class FollowingBoard final : public libfieldwarden::test::QuietTempBoard {
public:
    unsigned char guessedFlowBoxEcl() override { return 20; }
    double probeTemperature() override { return mRegulates ? mTarget.load() : kRoomKelvin; }
    double targetProbeTemperature() const override { return mTarget; }
    void setTargetProbeTemperature(double aKelvin) override { mTarget = aKelvin; }
    bool probeTemperatureRegulation() override {
        ++questions;
        return mRegulates;
    }
    void setProbeTemperatureRegulation(bool aEnabled) override { mRegulates = aEnabled; }
    unsigned char probeGasFlow() override {
        ++flowReads;
        return mFlow;
    }
    void setProbeGasFlow(unsigned char aFlow) override { mFlow = aFlow; }

    std::atomic<unsigned> questions{0}; ///< One for each exchange that begins.
    std::atomic<unsigned> flowReads{0};

private:
    std::atomic<double> mTarget{kRoomKelvin};
    std::atomic<bool> mRegulates{false};
    std::atomic<unsigned char> mFlow{0};
};

double cpuSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// The month's instrument.
class Month {
public:
    void hour() {
        for (int second = 0; second < kSecondsAnHour; ++second) {
            passSecond();
        }
        exchange();
    }

    void setOn(bool aOn) {
        if (aOn) {
            mController.setTargetTemperature(kOnKelvin);
        }
        mController.setEnabled(aOn);
    }

    ATController& controller() { return mController; }

private:
    void passSecond() {
        mClock->advance(1s);
        for (auto const& job : mJobs) {
            job->call();
        }
    }

    /// The state machine has worked off an hour's ticks when it begins.
    void exchange() {
        whileTicking([this] { mController.prepareTransfer(); }, mBoard->questions);
        whileTicking([this] { mController.completeTransfer(true); }, mBoard->flowReads);
        for (int second = 0; second < 5; ++second) { // What it takes to be stable again.
            passSecond();
        }
    }

    /// @param aReads  The machine's next read tells that it has begun.
    template <typename Transfer>
    void whileTicking(Transfer aTransfer, std::atomic<unsigned> const& aReads) {
        unsigned const before = aReads;
        auto done = std::async(std::launch::async, aTransfer);
        if (!eventually([&] { return aReads > before; })) {
            throw std::runtime_error("the state machine stands still");
        }
        for (int second = 0; second < 5; ++second) { // It waits ten at most.
            passSecond();
        }
        while (done.wait_for(250ms) != std::future_status::ready) {
            mClock->advance(100ms); // The waiter looks again.
        }
        done.get();
    }

    HandClockScope mClock;
    std::shared_ptr<FollowingBoard> mBoard = std::make_shared<FollowingBoard>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    ATController mController{mBoard, std::make_shared<TemperatureListenerSync>(0.001, 0.1), mCallers, kRecord,
                             std::make_shared<NullDataLogger>()};
    std::vector<std::shared_ptr<FakePeriodicCallers::Job>> mJobs = mCallers->jobs();
};

} // namespace

int main(int aCount, char** aArguments) {
    int const days = aCount > 1 ? std::atoi(aArguments[1]) : 30;
    Month month;
    std::size_t heapAfterFirst = 0;
    ProcessResources first{};
    double const begin = cpuSeconds();
    for (int day = 1; day <= days; ++day) {
        for (int hour = 0; hour < kHoursADay; ++hour) {
            if (hour == 8 || hour == 20) {
                month.setOn(hour == 8);
            }
            month.hour();
            if (hour == 19 && !month.controller().isStable()) {
                std::fprintf(stderr, "not stable after a day's work\n");
                return EXIT_FAILURE;
            }
        }
        if (day == 1) {
            heapAfterFirst = mallinfo2().uordblks;
            first = ProcessResources::now();
        }
    }
    double const seconds = static_cast<double>(days) * kHoursADay * kSecondsAnHour;
    auto const last = ProcessResources::now();
    std::printf(
        "%d days, %d exchanges: %.2f us of CPU a second of the instrument, heap %+td bytes, "
        "threads %+td, descriptors %+td since the first day\n",
        days, days * kHoursADay, 1e6 * (cpuSeconds() - begin) / seconds,
        static_cast<std::ptrdiff_t>(mallinfo2().uordblks) - static_cast<std::ptrdiff_t>(heapAfterFirst),
        last.threads - first.threads, last.descriptors - first.descriptors);
    return EXIT_SUCCESS;
}
