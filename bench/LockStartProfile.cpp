// SPDX-License-Identifier: Apache-2.0
// Where a cold start of the lock spends its time, step by step in simulated seconds, and what CPU time the
// library's threads took for it. Prints both; `lock_start_profile [TIME-SCALE]`.
#include "simulator/instrument/Instrument.h"
#include "simulator/instrument/SimulatedBackend.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/LockDiagnosticsInterface.h>
#include <fieldwarden/LockInterface.h>
#include <fieldwarden/LockInterfaceListener.h>
#include <fieldwarden/ShimInterface.h>
#include <velmor/kepla/log/Configuration.h>
#include <velmor/platform/Backend.h>
#include <velmor/platform/Clock.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace {

using velmor::platform::Clock;

/// When each step of the start began.
class Steps {
public:
    void begin(std::string const& aStep) {
        std::lock_guard const lock(mMutex);
        if (mSteps.empty() || mSteps.back().first != aStep) {
            mSteps.emplace_back(aStep, Clock::current().now());
        }
    }
    void print() const {
        std::lock_guard const lock(mMutex);
        for (std::size_t i = 0; i + 1 < mSteps.size(); ++i) {
            std::chrono::duration<double> const took = mSteps[i + 1].second - mSteps[i].second;
            std::printf("  %-40s %7.3f s\n", mSteps[i].first.c_str(), took.count());
        }
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::pair<std::string, Clock::TimePoint>> mSteps;
};

class Listener final : public LockInterfaceListener {
public:
    explicit Listener(Steps& aSteps)
        : mSteps(aSteps) {}
    void error(std::string const& aText) override { end("failed: " + aText); }
    void warningsChanged() override {}
    void doing(std::string const& aText) override { mSteps.begin(aText); }
    void state(int aStatus) override {
        if (aStatus == 1) {
            end("locked");
        }
    }
    void updateLockPIDSet(int /*aPIDSet*/) override {}
    void lost(int /*aStatus*/) override {}

    std::string await() { return mEnd.get_future().get(); }

private:
    void end(std::string const& aHow) {
        mSteps.begin(aHow);
        std::call_once(mOnce, [&] { mEnd.set_value(aHow); });
    }

    Steps& mSteps;
    std::once_flag mOnce;
    std::promise<std::string> mEnd;
};

/// CPU time in ms of all threads by name, as the kernel counts it.
std::map<std::string, double> threadMilliseconds() {
    std::map<std::string, double> times;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        double nanoseconds = 0.0;
        std::ifstream(task.path() / "schedstat") >> nanoseconds;
        times[name] += nanoseconds * 1e-6;
    }
    return times;
}

} // namespace

int main(int aCount, char** aArguments) {
    double const scale = aCount > 1 ? std::strtod(aArguments[1], nullptr) : 5.0;
    libfieldwarden::test::TemporaryDirectory const directory;
    auto const instrument = std::make_shared<libfieldwarden::sim::Instrument>(
        libfieldwarden::sim::Instrument::Options{.folder = directory.path(), .timeScale = scale});
    velmor::platform::Backend::use(libfieldwarden::sim::makeSimulatedBackend(instrument));
    velmor::kepla::log::Configuration::redirectFiles(directory.path());
    auto const& folders = instrument->folders();
    FieldwardenInterface::openInterface("can0", folders.config.string(), folders.factory.string(),
                                        folders.shimFirmware.string(), folders.spectrometer.string(),
                                        folders.tempFirmware.string(), folders.data.string());
    auto& library = *FieldwardenInterface::getInstance();
    library.getShim()->setShimSystem(ShimSysType::Wmxs1a);
    LockInterface& lock = *library.getLock();
    Steps steps;
    Listener listener(steps);
    lock.setListener(&listener);
    dynamic_cast<libfieldwarden::LockDiagnosticsInterface&>(lock).setProgressListener(
        [&](libfieldwarden::LockStepProgress const& aProgress) { steps.begin(aProgress.step); });

    auto const before = threadMilliseconds();
    lock.setBasic1HFrequency(80'123'400.0);
    std::string const end = listener.await();
    auto const after = threadMilliseconds();

    std::printf("a cold start, in simulated seconds:\n");
    steps.print();
    std::printf("CPU time by thread until '%s', in real ms:\n", end.c_str());
    for (auto const& [name, milliseconds] : after) {
        auto const found = before.find(name);
        std::printf("  %-16s %8.1f\n", name.c_str(),
                    milliseconds - (found == before.end() ? 0.0 : found->second));
    }
    lock.removeListener();
    FieldwardenInterface::closeInterface();
    velmor::platform::Backend::use(nullptr);
}
