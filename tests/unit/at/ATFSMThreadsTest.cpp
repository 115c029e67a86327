// SPDX-License-Identifier: Apache-2.0
// The state machine on its own thread, asked by several at once, with the time of those who wait moved by
// hand.
#include "at/ATFSM.h"

#include "support/Eventually.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "unit/at/ATFSMRig.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::ATMachine;
using libfieldwarden::test::eventually;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::Happenings;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using libfieldwarden::test::SimulatedATBoard;
using libfieldwarden::test::SimulatedGas;
using namespace std::chrono_literals;

constexpr char const* kTimeOut = "-waitPrepareOrCompleteTransfer: time out waiting for transfer to be done";

std::shared_ptr<ATFlowTable> makeTable() {
    auto table = std::make_shared<ATFlowTable>();
    table->setTableFromMDS(velmor::kepla::mds::Mds::parse(ATMachine::kRecord));
    return table;
}

/// Board and gas belong to the machine's thread as long as there is one.
class ATFSMThreads : public ::testing::Test {
protected:
    ATFSMThreads() {
        mHappenings.isQuiet = true;
        mBoard->probe = 310.0;
        mMachine = std::make_unique<ATFSM>(mBoard, makeTable(), mListener,
                                           std::make_shared<TemperatureStabilityMgr>(mListener), mGas);
    }

    /// Waits for a state by the status that it tells.
    void await(ProbeTemperatureControlStatus aStatus) {
        ASSERT_TRUE(eventually([&] { return mListener->temperatureControlStatus() == aStatus; }));
    }

    void reachOn() {
        mMachine->setTarget(310.0);
        mMachine->enable();
        mMachine->timerTick(300ms);
        await(ProbeTemperatureControlStatus::Holding);
    }

    /// Who waits begins to, so that the time may be moved.
    static void awaitWaiters(LogCapture const& aLog, std::size_t aCount) {
        EXPECT_TRUE(eventually([&] {
            return aLog.count(Severity::Trace, "~waitPrepareOrCompleteTransfer: waiting") >= aCount;
        }));
    }

    /// Ticks until so many transfers have succeeded. The time of those who wait stands still meanwhile.
    void tickUntilVerdict(LogCapture const& aLog, std::size_t aCount) {
        EXPECT_TRUE(eventually([&] {
            mMachine->timerTick(501ms);
            return aLog.count(Severity::Trace, "+resultPrepareOrCompleteTransfer(aSuccess = 1)") >= aCount;
        }));
    }

    /// Moves the time until nobody waits any more.
    template <typename Result>
    void passTimeUntil(std::future<Result> const& aDone) {
        EXPECT_TRUE(eventually([&] {
            mClock->advance(100ms);
            return aDone.wait_for(0s) == std::future_status::ready;
        }));
    }

    std::future<bool> prepare() {
        return std::async(std::launch::async, [this] {
            mMachine->prepareTransfer();
            return mMachine->waitPrepareOrCompleteTransfer();
        });
    }
    std::future<bool> complete() {
        return std::async(std::launch::async, [this] {
            mMachine->completeTransfer(true);
            return mMachine->waitPrepareOrCompleteTransfer();
        });
    }

    HandClockScope mClock;
    Happenings mHappenings;
    std::shared_ptr<SimulatedATBoard> mBoard = std::make_shared<SimulatedATBoard>(mHappenings);
    std::shared_ptr<SimulatedGas> mGas = std::make_shared<SimulatedGas>(mBoard, mHappenings);
    std::shared_ptr<TemperatureListenerSync> mListener =
        std::make_shared<TemperatureListenerSync>(0.001, 0.1);
    std::unique_ptr<ATFSM> mMachine;
};

TEST_F(ATFSMThreads, ExchangeASampleAndComeBack) {
    reachOn();
    LogCapture log;
    auto prepared = prepare();
    tickUntilVerdict(log, 1);
    passTimeUntil(prepared);
    EXPECT_TRUE(prepared.get());
    await(ProbeTemperatureControlStatus::SampleExchange);
    auto completed = complete();
    tickUntilVerdict(log, 2);
    passTimeUntil(completed);
    EXPECT_TRUE(completed.get());
    await(ProbeTemperatureControlStatus::Holding);
}

TEST_F(ATFSMThreads, WaitNoLongerThanTenSecondsForAnExchangeThatNobodyTicks) {
    reachOn();
    LogCapture log;
    auto prepared = prepare();
    awaitWaiters(log, 1);
    auto const begin = mClock->now();
    passTimeUntil(prepared);
    EXPECT_FALSE(prepared.get());
    EXPECT_GE(mClock->now() - begin, 10s);
    EXPECT_EQ(log.count(Severity::Error, kTimeOut), 1U);
}

TEST_F(ATFSMThreads, RefuseAnExchangeWhoseGasStays) {
    reachOn();
    mGas->ignores = true;
    LogCapture log;
    auto prepared = prepare();
    awaitWaiters(log, 1);
    mMachine->timerTick(10001ms);
    EXPECT_TRUE(eventually(
        [&] { return log.has(Severity::Trace, "+resultPrepareOrCompleteTransfer(aSuccess = 0)"); }));
    passTimeUntil(prepared);
    EXPECT_FALSE(prepared.get());
    EXPECT_EQ(log.count(Severity::Error, kTimeOut), 0U);
    EXPECT_TRUE(
        eventually([&] { return mListener->temperatureStatus() == ProbeTemperatureGlobalStatus::Error; }));
}

/// The verdict of the completion is for both, as there is one rendezvous.
TEST_F(ATFSMThreads, GiveAPrepareThatIsCompletedOnItsWayTheVerdictOfTheCompletion) {
    reachOn();
    LogCapture log;
    auto prepared = prepare();
    awaitWaiters(log, 1);
    auto completed = complete();
    awaitWaiters(log, 2);
    tickUntilVerdict(log, 1);
    passTimeUntil(completed);
    passTimeUntil(prepared);
    EXPECT_TRUE(completed.get());
    EXPECT_TRUE(prepared.get());
    EXPECT_EQ(log.count(Severity::Error, kTimeOut), 0U);
}

TEST_F(ATFSMThreads, LeaveNobodyWaitingWhoPreparesAndCompletesAtOnce) {
    constexpr int kRounds = 15;
    reachOn();
    std::atomic<int> answers{0};
    auto const repeat = [&](auto aTransfer) {
        return std::thread([&answers, aTransfer] {
            for (int round = 0; round < kRounds; ++round) {
                aTransfer();
                ++answers;
            }
        });
    };
    std::vector<std::thread> callers;
    for (int pair = 0; pair < 2; ++pair) {
        callers.push_back(repeat([this] {
            mMachine->prepareTransfer();
            mMachine->waitPrepareOrCompleteTransfer();
        }));
        callers.push_back(repeat([this, pair] {
            mMachine->completeTransfer(pair == 0);
            mMachine->waitPrepareOrCompleteTransfer();
        }));
    }
    EXPECT_TRUE(eventually([&] {
        mMachine->timerTick(501ms);
        mClock->advance(100ms);
        return answers == 4 * kRounds;
    }));
    for (std::thread& caller : callers) {
        caller.join();
    }
    mMachine.reset();
    EXPECT_FALSE(mBoard->regulates);
    EXPECT_EQ(mBoard->index, 0);
    EXPECT_FALSE(mBoard->hold);
}

TEST_F(ATFSMThreads, EndWithWhatIsQueuedAndSomebodyWaiting) {
    reachOn();
    LogCapture log;
    auto prepared = prepare();
    awaitWaiters(log, 1);
    for (int event = 0; event < 1000; ++event) {
        mMachine->enable();
        mMachine->disable();
    }
    passTimeUntil(prepared);
    EXPECT_FALSE(prepared.get());
    mMachine.reset();
    EXPECT_FALSE(mBoard->regulates);
    EXPECT_EQ(mBoard->index, 0);
}

TEST_F(ATFSMThreads, LiveOnWithABoardThatFailsAndComesBack) {
    reachOn();
    mMachine.reset();
    mHappenings.failing = "regulation ";
    LogCapture log;
    mMachine = std::make_unique<ATFSM>(mBoard, makeTable(), mListener,
                                       std::make_shared<TemperatureStabilityMgr>(mListener), mGas);
    auto prepared = prepare();
    EXPECT_TRUE(eventually([&] {
        mClock->advance(100ms);
        return prepared.wait_for(0s) == std::future_status::ready;
    }));
    EXPECT_FALSE(prepared.get());
    EXPECT_TRUE(eventually([&] {
        return log.has(Severity::Critical, "The AT state machine stands still, 1 events are lost so far");
    }));
    EXPECT_EQ(mListener->temperatureStatus(), ProbeTemperatureGlobalStatus::Error);
    mHappenings.failing.clear(); // The machine does nothing until the next event.
    reachOn();
}

} // namespace
