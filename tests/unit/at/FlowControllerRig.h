// SPDX-License-Identifier: Apache-2.0
// A flow controller of any box on a scripted board, in one thread, on a clock whose waits are over at once.
#pragma once

#include "at/ATFlowTable.h"
#include "at/AtFlowBoxPrototype.h"
#include "at/AtFlowBoxV1.h"
#include "at/AtFlowBoxV2.h"
#include "at/FlowController.h"
#include "support/FakeDataLogger.h"
#include "support/FakeFlowBoxBoard.h"
#include "support/FakePeriodicCallers.h"
#include "support/FakeTemperatureListener.h"
#include "support/LeapClock.h"
#include "support/LogCapture.h"

#include <velmor/kepla/mds/Mds.h>

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// Flows: 200, 400 and 600 l/h with the indexes 1, 2 and 3.
class FlowControllerRig : public ::testing::Test {
protected:
    using Calls = std::vector<std::string>;

    FlowControllerRig() {
        mTable->setTableFromMDS(velmor::kepla::mds::Mds::parse(
            R"(<record><group name="TemperatureRange"><value>0</value><value>0</value><value>280</value>)"
            R"(<value>400</value></group><group name="FlowForTemperature"><value>0</value><value>0</value>)"
            R"(<value>280</value><value>300</value><value>200</value></group>)"
            R"(<group name="FlowForTemperature"><value>0</value><value>0</value><value>300</value>)"
            R"(<value>350</value><value>400</value></group>)"
            R"(<group name="FlowForTemperature"><value>0</value><value>0</value><value>350</value>)"
            R"(<value>400</value><value>600</value></group></record>)"));
        mFormer = velmor::platform::Clock::use(mClock);
        mBoard->set("probeTemperatureRegulation", false);
    }
    ~FlowControllerRig() override { velmor::platform::Clock::use(mFormer); }

    /// A controller, with what its making left forgotten.
    template <typename Box>
    std::unique_ptr<FlowController> make() {
        auto controller = std::make_unique<FlowController>(mBoard, mTable, mListener, std::make_unique<Box>(),
                                                           mCallers, mDataLogger);
        forget();
        return controller;
    }

    /// One whose first poll has seen the knob at remote.
    template <typename Box>
    std::unique_ptr<FlowController> makePolled() {
        auto controller = make<Box>();
        controller->pollATFlowBox();
        forget();
        return controller;
    }

    void forget() {
        mBoard->takeCalls();
        mListener->takeCalls();
        mLog.clear();
    }

    /// What was written to the board, in order.
    Calls writes() const {
        Calls calls = mBoard->takeCalls();
        std::erase(calls, "probeGasFlow()");
        return calls;
    }

    /// The lines of the controller at a severity or more urgent.
    std::vector<CapturedLine> lines(Severity aUpTo = Severity::Trace) const {
        auto all = mLog.linesOf("FlowController");
        std::erase_if(all, [aUpTo](CapturedLine const& aLine) { return aLine.severity > aUpTo; });
        return all;
    }

    std::vector<double> pushed(std::string const& aChannel) const {
        std::vector<double> values;
        for (auto const& push : mDataLogger->pushes("temperatureBoard/probe/" + aChannel)) {
            EXPECT_EQ(push.status, FakeDataLogger::Status::Good);
            values.push_back(push.value);
        }
        return values;
    }

    /// How long the library has waited so far.
    velmor::platform::Clock::Duration waited() const { return mClock->now() - mBegin; }

    std::shared_ptr<LeapClock> mClock = std::make_shared<LeapClock>();
    velmor::platform::Clock::TimePoint mBegin = mClock->now();
    LogCapture mLog;
    std::shared_ptr<FakeFlowBoxBoard> mBoard = std::make_shared<FakeFlowBoxBoard>();
    std::shared_ptr<FakeTemperatureListener> mListener = std::make_shared<FakeTemperatureListener>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<ATFlowTable> mTable = std::make_shared<ATFlowTable>();

private:
    std::shared_ptr<velmor::platform::Clock> mFormer;
};

} // namespace libfieldwarden::test
