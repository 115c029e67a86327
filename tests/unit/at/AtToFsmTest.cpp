// SPDX-License-Identifier: Apache-2.0
// The rendezvous with the state machine, and the machine on its own thread.
#include "at/AtToFsm.h"

#include "at/ATFSM.h"
#include "support/Eventually.h"
#include "support/FakeTempBoard.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "unit/at/ATFSMRig.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::eventually;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::Happenings;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::makeTempBoard;
using libfieldwarden::test::Severity;
using libfieldwarden::test::SimulatedATBoard;
using libfieldwarden::test::SimulatedGas;
using namespace std::chrono_literals;

constexpr char const* kTimeOut = "-waitPrepareOrCompleteTransfer: time out waiting for transfer to be done";

TEST(AtToFsm, ReturnsAVerdictThatIsThere) {
    HandClockScope const clock;
    LogCapture log;
    AtToFsm transfer;
    transfer.resultPrepareOrCompleteTransfer(true);
    EXPECT_TRUE(transfer.waitForCompleteOrPrepareTransfer());
    EXPECT_TRUE(log.has(Severity::Trace, "+resultPrepareOrCompleteTransfer(aSuccess = 1)"));
    EXPECT_TRUE(log.has(Severity::Trace, "-waitPrepareOrCompleteTransfer: returns 1"));
    EXPECT_FALSE(log.has(Severity::Trace, "~waitPrepareOrCompleteTransfer: waiting"));
    transfer.resultPrepareOrCompleteTransfer(false);
    EXPECT_FALSE(transfer.waitForCompleteOrPrepareTransfer());
}

TEST(AtToFsm, WaitsTenSecondsAtMost) {
    HandClockScope const clock;
    LogCapture log;
    AtToFsm transfer;
    transfer.resultPrepareOrCompleteTransfer(true);
    transfer.resetPrepareOrCompleteTransfer();
    std::atomic<bool> isBack{false};
    bool verdict = true;
    std::thread waiter([&] {
        verdict = transfer.waitForCompleteOrPrepareTransfer();
        isBack = true;
    });
    EXPECT_TRUE(
        eventually([&] { return log.has(Severity::Trace, "~waitPrepareOrCompleteTransfer: waiting"); }));
    EXPECT_TRUE(eventually([&] {
        clock->advance(100ms);
        return isBack.load();
    }));
    waiter.join();
    EXPECT_FALSE(verdict);
    EXPECT_TRUE(log.has(Severity::Error, kTimeOut));
}

TEST(AtToFsm, WakesWithTheVerdict) {
    HandClockScope const clock;
    LogCapture log;
    AtToFsm transfer;
    std::atomic<bool> isBack{false};
    bool verdict = false;
    std::thread waiter([&] {
        verdict = transfer.waitForCompleteOrPrepareTransfer();
        isBack = true;
    });
    EXPECT_TRUE(
        eventually([&] { return log.has(Severity::Trace, "~waitPrepareOrCompleteTransfer: waiting"); }));
    transfer.resultPrepareOrCompleteTransfer(true);
    EXPECT_TRUE(eventually([&] {
        clock->advance(100ms); // for a verdict that came ahead of the sleep
        return isBack.load();
    }));
    waiter.join();
    EXPECT_TRUE(verdict);
    EXPECT_FALSE(log.has(Severity::Error, kTimeOut));
}

TEST(ATFSM, QueuesWhatItIsAskedAndLeavesAllOff) {
    LogCapture log;
    Happenings happenings;
    auto const board = std::make_shared<SimulatedATBoard>(happenings);
    auto const gas = std::make_shared<SimulatedGas>(board, happenings);
    auto const listener = std::make_shared<TemperatureListenerSync>(0.001, 0.1);
    {
        ATFSM machine(board, std::make_shared<ATFlowTable>(), listener,
                      std::make_shared<TemperatureStabilityMgr>(listener), gas);
        machine.setTarget(310.0);
        machine.hardPowerOff();
        machine.disable();
        machine.timerTick(1000ms);
        machine.prepareTransfer();
        EXPECT_TRUE(
            eventually([&] { return log.has(Severity::Info, "Flow is already off, nothing to do"); }));
        machine.timerTick(1ms);
        EXPECT_TRUE(machine.waitPrepareOrCompleteTransfer());
        machine.completeTransfer(false);
        EXPECT_TRUE(machine.waitPrepareOrCompleteTransfer());
        EXPECT_EQ(listener->temperatureControlStatus(), ProbeTemperatureControlStatus::SampleExchange);
    }
    EXPECT_TRUE(log.has(Severity::Info, "+setTarget(target = 310.000000)"));
    EXPECT_TRUE(log.has(Severity::Warning, "+hardPowerOff"));
    EXPECT_TRUE(log.has(Severity::Info, "+disable"));
    EXPECT_TRUE(log.has(Severity::Trace, "+timerTick(elapsedMs = 1000)"));
    EXPECT_TRUE(log.has(Severity::Trace, "+prepareTransfer"));
    EXPECT_TRUE(log.has(Severity::Trace, "+completeTransfer(sample_in_magnet = 0)"));
    EXPECT_TRUE(log.has(Severity::Info, "Waiting for ATFSM thread to finish"));
    EXPECT_TRUE(log.has(Severity::Debug, "FSM ctor"));
    EXPECT_TRUE(log.has(Severity::Debug, "FSM destructor: calling hardPowerOff"));
    EXPECT_EQ(happenings.journal.back(), "gas 0");
}

} // namespace
