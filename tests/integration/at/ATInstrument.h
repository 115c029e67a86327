// SPDX-License-Identifier: Apache-2.0
// The temperature service on the simulated temperature board and flow box, over the bus within the process,
// second by second. All of the library is real, its threads too; the lock is a flag, the data logger keeps
// nothing, and the time moves by hand as fast as all have done what was due.
#pragma once

#include "simulator/boards/CanNode.h"
#include "simulator/boards/FlowBox.h"
#include "simulator/boards/TemperatureBoard.h"
#include "support/Eventually.h"
#include "support/FakeTemperatureListener.h"
#include "support/HandClockScope.h"
#include "support/TemporaryDirectory.h"
#include "support/ThreadAtRest.h"
#include "temperature/TempBoardQ47.h"
#include "temperature/TemperatureHardwareQ47.h"

#include <fieldwarden/LockForTemperatureIfc.h>
#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/datalogger/NullDataLogger.h>
#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>
#include <velmor/kepla/utils/PeriodicCallerManager.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// A board on the bus whose writes of heating and gas are remembered, each with its time.
class WatchedBoard final : public sim::BoardModelIfc {
public:
    using SdoObject = velmor::kepla::canopen::SdoObject;

    enum class What : std::uint8_t { Target, Regulation, Flow };

    struct Write {
        TimePoint time;
        What what;
        int value; ///< Target in milli degrees Celsius, regulation 0 or 1, or the flow's byte.
    };

    WatchedBoard(std::shared_ptr<sim::BoardModelIfc> aBoard, velmor::platform::Clock& aClock)
        : mBoard(std::move(aBoard))
        , mClock(aClock) {}

    std::vector<Write> takeWrites() {
        std::lock_guard const lock(mMutex);
        return std::exchange(mWrites, {});
    }

    /// Refuses writes of one kind from now on, or of none. Switching off is never refused.
    void refuse(std::optional<What> aWhat) {
        std::lock_guard const lock(mMutex);
        mRefused = aWhat;
    }

    std::uint32_t write(SdoObject aObject, std::span<std::uint8_t const> aData) override {
        static constexpr std::array<std::pair<SdoObject, What>, 3> kWatched{
            {{{0x3304, 1}, What::Target}, {{0x3303, 2}, What::Regulation}, {{0x3303, 3}, What::Flow}}};
        for (auto const& [object, what] : kWatched) {
            if (aObject == object && !note(what, aData)) {
                return kRefusal;
            }
        }
        return mBoard->write(aObject, aData);
    }
    std::uint32_t read(SdoObject aObject, std::vector<std::uint8_t>& aData) override {
        return mBoard->read(aObject, aData);
    }
    std::unique_ptr<velmor::kepla::canopen::ObjectWriteStream> openStream(
        SdoObject aObject, std::optional<std::uint32_t> aSize) override {
        return mBoard->openStream(aObject, aSize);
    }
    void restart(Start aWhy) override { mBoard->restart(aWhy); }
    void resetCommunication() override { mBoard->resetCommunication(); }
    TimePoint advance(TimePoint aNow) override { return mBoard->advance(aNow); }
    TimePoint answerTime() const override { return mBoard->answerTime(); }
    bool takeRestartRequest() override { return mBoard->takeRestartRequest(); }
    std::vector<sim::Emergency> takeEmergencies() override { return mBoard->takeEmergencies(); }
    Duration heartbeatPeriod() const override { return mBoard->heartbeatPeriod(); }
    Duration startTime() const override { return mBoard->startTime(); }
    void setWaker(std::function<void()> aWake) override { mBoard->setWaker(std::move(aWake)); }

private:
    static constexpr std::uint32_t kRefusal = 0x0800'0021; ///< CiA 301: because of local control.
    static constexpr int kColdTarget = 19000;              ///< What switching off sets.

    /// @return Whether the board may have it.
    bool note(What aWhat, std::span<std::uint8_t const> aData) {
        std::uint32_t bits = 0;
        for (std::size_t byte = 0; byte < aData.size(); ++byte) {
            bits |= static_cast<std::uint32_t>(aData[byte]) << (8 * byte);
        }
        auto const value = static_cast<int>(bits);
        std::lock_guard const lock(mMutex);
        if (mRefused == aWhat && value != 0 && value != kColdTarget) {
            return false;
        }
        mWrites.push_back({mClock.now(), aWhat, value});
        return true;
    }

    std::shared_ptr<sim::BoardModelIfc> mBoard;
    velmor::platform::Clock& mClock;
    std::mutex mMutex; ///< Guards all below.
    std::vector<Write> mWrites;
    std::optional<What> mRefused;
};

/// The values that were written of one kind, in order.
inline std::vector<int> valuesOf(std::vector<WatchedBoard::Write> const& aWrites, WatchedBoard::What aWhat) {
    std::vector<int> values;
    for (WatchedBoard::Write const& write : aWrites) {
        if (write.what == aWhat) {
            values.push_back(write.value);
        }
    }
    return values;
}

/// A lock that is armed or not.
struct LockFlag : LockForTemperatureIfc {
    bool shimCoilTargetTemperatureRegulationArmed() const override { return armed; }
    std::atomic<bool> armed{true};
};

/// The instrument, switched on and up, the adjustable temperature off. Flows: 200 l/h (index 1) up to 308 K,
/// 300 l/h (index 2) up to 330 K, 400 l/h (index 3) above; targets from 298.15 K, where the board begins to
/// regulate, to 353.15 K.
class ATInstrument {
public:
    using Generation = sim::FlowBox::Generation;
    using Knob = sim::FlowBox::Knob;
    using What = WatchedBoard::What;

    explicit ATInstrument(Generation aGeneration)
        : mGeneration(aGeneration)
        , flowBox(std::make_shared<sim::FlowBox>(sim::FlowBox::Options{.generation = aGeneration}))
        , board(std::make_shared<sim::TemperatureBoard>(sim::TemperatureBoard::Options{.gas = flowBox})) {
        clock->advance(std::chrono::milliseconds(500));
        EXPECT_TRUE(
            eventually([&] { return mNode.state() == velmor::kepla::canopen::NmtState::PreOperational; }));
        writeRecord();
        auto const client = std::make_shared<TempBoardQ47>(
            mMaster, nullptr, (mDirectory.path() / "firmware").string(), static_cast<unsigned char>(7));
        client->prepare();
        mService = std::make_shared<TemperatureHardwareQ47>(
            client, std::make_shared<velmor::kepla::datalogger::NullDataLogger>(), mCallers,
            std::make_shared<NoRecord>(), recordPath());
        mService->setLock(lock);
        mService->setListener(&daemon);
        // Registered last, so it is called when all the others of that second have been.
        mMarker = mCallers->createPeriodicCaller(1.0, [this] { ++mSecondsDone; });
        settle();
        watched->takeWrites();
        daemon.takeCalls();
    }

    ~ATInstrument() {
        mMarker.reset();
        if (mService) {
            mService->removeListener();
        }
    }
    ATInstrument(ATInstrument const&) = delete;
    ATInstrument& operator=(ATInstrument const&) = delete;

    TemperatureHardwareQ47& service() { return *mService; }

    /// The library lets go of the board.
    void close() {
        mMarker.reset();
        mService->removeListener();
        mService.reset();
    }

    /// A second passes, and all that was due in it is done.
    void second() {
        unsigned const before = mSecondsDone;
        clock->advance(std::chrono::seconds(1));
        EXPECT_TRUE(eventually([&] {
            return doneWithin(std::chrono::milliseconds(100), before) ||
                   // Somebody waits for the hold gas to be there, 0.3 s.
                   (clock->advance(std::chrono::milliseconds(50)), false);
        }));
        settle();
    }

    void seconds(int aCount) {
        for (int passed = 0; passed < aCount; ++passed) {
            second();
        }
    }

    /// Time passes for the board, whether or not the library can follow.
    void pass(std::chrono::seconds aTime) const {
        for (auto left = aTime; left > std::chrono::seconds(0); left -= std::chrono::seconds(1)) {
            clock->advance(std::chrono::seconds(1));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    /// No frame of the board's node comes through any more, nor to it; or they do again.
    void cutBus(bool aCut) {
        if (aCut) {
            mBus.inject({.action = velmor::kepla::canopen::BusFault::Action::Drop,
                         .count = velmor::kepla::canopen::BusFault::kAlways});
        } else {
            mBus.healAll();
        }
    }

    /// Lets seconds pass until a condition holds.
    /// @return How many, or -1 when they were not enough.
    template <typename Condition>
    int secondsUntil(Condition aCondition, int aAtMost) {
        for (int passed = 0; passed <= aAtMost; ++passed) {
            if (aCondition()) {
                return passed;
            }
            second();
        }
        return -1;
    }

    /// Runs what waits for the state machine; seconds pass meanwhile.
    /// @return The words of what was thrown; empty for nothing.
    std::string transfer(std::function<void()> const& aTransfer) {
        auto done = std::async(std::launch::async, aTransfer);
        int passed = 0;
        while (done.wait_for(std::chrono::milliseconds(passed < 9 ? 20 : 250)) != std::future_status::ready) {
            ++passed < 9 ? second() : clock->advance(std::chrono::milliseconds(100));
        }
        try {
            done.get();
            return {};
        } catch (std::exception const& failure) {
            return failure.what();
        }
    }

    /// Waits until the state machine has nothing to do but to wait for time.
    void settle() {
        std::optional<std::string> last;
        EXPECT_TRUE(eventually([&] {
            // While it has a transfer under way, this one waits for it.
            mService->board()->probeGasFlow();
            auto const now = mMachine.sleepCount();
            bool const slept = now && now == last;
            last = now;
            return slept;
        }));
    }

    double probeKelvin() { return mService->getProbeTemperature().value; }

    std::string recordPath() const { return (mDirectory.path() / "vtu.mds").string(); }

private:
    using Clock = velmor::platform::Clock;

    class NoRecord final : public velmor::kepla::deviceid::DeviceIdClientIfc {
    public:
        std::string mainMds() override { return "<record/>"; }
    };

    bool doneWithin(std::chrono::milliseconds aRealTime, unsigned aBefore) const {
        auto const deadline = std::chrono::steady_clock::now() + aRealTime;
        while (mSecondsDone <= aBefore && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        return mSecondsDone > aBefore;
    }

    void writeRecord() const {
        std::ofstream file(recordPath());
        file << "<record>";
        if (mGeneration != Generation::Prototype) {
            file << R"(<group name="FlowController"><value>1</value><value>1</value></group>)";
        }
        file << R"(<group name="TemperatureRange"><value>1</value><value>1</value><value>283.15</value>)"
             << R"(<value>353.15</value></group>)";
        for (char const* const flow : {"<value>283.15</value><value>308</value><value>200</value>",
                                       "<value>308</value><value>330</value><value>300</value>",
                                       "<value>330</value><value>353.15</value><value>400</value>"}) {
            file << R"(<group name="FlowForTemperature"><value>1</value><value>1</value>)" << flow
                 << "</group>";
        }
        file << "</record>";
    }

    Generation const mGeneration;

public:
    HandClockScope clock;
    std::shared_ptr<sim::FlowBox> flowBox;
    std::shared_ptr<sim::TemperatureBoard> board;
    std::shared_ptr<WatchedBoard> watched = std::make_shared<WatchedBoard>(board, Clock::current());
    std::shared_ptr<LockFlag> lock = std::make_shared<LockFlag>();
    FakeTemperatureListener daemon;

private:
    TemporaryDirectory mDirectory;
    velmor::kepla::canopen::InProcessBus mBus;
    sim::CanNode mNode{mBus.open("node 7"), 7, watched};
    std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> mMaster =
        std::make_shared<velmor::kepla::canopen::CanOpenMaster>(mBus.open("can0"), 1);
    std::shared_ptr<velmor::kepla::utils::PeriodicCallerManager> mCallers =
        std::make_shared<velmor::kepla::utils::PeriodicCallerManager>(
            velmor::kepla::utils::ExecutionStrategy::OneWorker, "");
    std::shared_ptr<TemperatureHardwareQ47> mService;
    std::atomic<unsigned> mSecondsDone{0};
    ThreadAtRest mMachine{"at-fsm"};
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> mMarker;
};

/// One instrument, its flow box of each generation that the suite names.
class ATOnInstrument : public ::testing::TestWithParam<sim::FlowBox::Generation> {
protected:
    using Control = ProbeTemperatureControlStatus;

    Control control() { return service().getProbeTemperatureRegulatorMode(); }
    bool holds() { return control() == Control::Holding; }
    bool isOff() { return control() == Control::Off; }
    TemperatureHardwareQ47& service() { return mInstrument.service(); }

    void setOn(bool aOn) {
        service().setProbeTemperatureStatus(aOn ? ProbeTemperatureGlobalStatus::On
                                                : ProbeTemperatureGlobalStatus::Off);
        mInstrument.settle();
    }

    /// Enables at a target and waits until it has been reached.
    void ramp(double aKelvin) {
        service().setTargetProbeTemperature(aKelvin);
        setOn(true);
        ASSERT_GT(mInstrument.secondsUntil([&] { return holds(); }, 40 * 60), 0);
    }

    ATInstrument mInstrument{GetParam()};
};

inline std::string nameOf(::testing::TestParamInfo<sim::FlowBox::Generation> const& aInfo) {
    switch (aInfo.param) {
        case sim::FlowBox::Generation::Prototype:
            return "Prototype";
        case sim::FlowBox::Generation::V1:
            return "V1";
        default:
            return "V2";
    }
}

} // namespace libfieldwarden::test
