// SPDX-License-Identifier: Apache-2.0
// A controller of a system with the option on a scripted board whose gas follows, with time moved by hand.
#pragma once

#include "at/ATController.h"
#include "support/Eventually.h"
#include "support/FakeDataLogger.h"
#include "support/FakePeriodicCallers.h"
#include "support/FakeTempBoard.h"
#include "support/FakeTemperatureListener.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "temperature/TemperatureListenerSync.h"

#include <fieldwarden/LockForTemperatureIfc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// The groups of a record of the variable temperature unit, each with its values.
using RecordGroups = std::vector<std::pair<std::string, std::vector<std::string>>>;

inline std::string asRecord(RecordGroups const& aGroups) {
    std::string text = "<record>";
    for (auto const& [name, values] : aGroups) {
        text += "<group name=\"" + name + "\">";
        for (std::string const& value : values) {
            text += "<value>" + value + "</value>";
        }
        text += "</group>";
    }
    return text + "</record>";
}

/// A flow box on the port expander, 283.15 K to 353.15 K, 200 l/h (index 1) up to 313.15 K, then 400 l/h
/// (index 2).
inline RecordGroups recordGroups() {
    return {{"FlowController", {"1", "1"}},
            {"TemperatureRange", {"1", "1", "283.15", "353.15"}},
            {"FlowForTemperature", {"1", "1", "283.15", "313.15", "200"}},
            {"FlowForTemperature", {"2", "1", "313.15", "353.15", "400"}}};
}

inline std::string recordText() {
    return asRecord(recordGroups());
}

/// The same record without a flow controller, as the prototype generation has it.
inline std::string prototypeRecordText() {
    auto groups = recordGroups();
    groups.erase(groups.begin());
    return asRecord(groups);
}

/// A lock that says what the test wants, and counts who asks.
struct ScriptedLock : LockForTemperatureIfc {
    bool shimCoilTargetTemperatureRegulationArmed() const override {
        ++questions;
        return armed;
    }
    std::atomic<bool> armed{false};
    mutable std::atomic<unsigned> questions{0};
};

class ATControllerRig : public ::testing::Test {
protected:
    static constexpr unsigned char kV1 = 10;
    static constexpr unsigned char kV2 = 20;

    // In the order of their making: who polls the flow box comes first.
    static constexpr std::size_t kFlowPoll = 0;
    static constexpr std::size_t kTick = 1;
    static constexpr std::size_t kPoll = 2;

    ATControllerRig() {
        mBoard->set("guessedFlowBoxEcl", kV2);
        for (int flow = 0; flow < 20; ++flow) {
            mBoard->onCall("setProbeGasFlow(" + std::to_string(flow) + ")", [this, flow] {
                mBoard->set("probeGasFlow", flow);
                mGasOff += flow == 0 ? 1 : 0;
            });
        }
        for (bool const on : {false, true}) {
            mBoard->onCall(
                on ? "setProbeTemperatureRegulation(true)" : "setProbeTemperatureRegulation(false)",
                [board = mBoard.get(), on] { board->set("probeTemperatureRegulation", on); });
        }
    }

    std::unique_ptr<ATController> make(std::string const& aVtuMds) {
        return std::make_unique<ATController>(mBoard, mListener, mCallers, aVtuMds, mDataLogger);
    }

    /// One with the option, at rest; what its making left is forgotten.
    std::unique_ptr<ATController> makeQuietly(std::string const& aVtuMds = recordText()) {
        auto controller = make(aVtuMds);
        awaitRest();
        mBoard->takeCalls();
        mLog.clear();
        return controller;
    }

    /// Waits until the state machine is in its first state: gas off once for the start and once for that.
    void awaitRest() {
        EXPECT_TRUE(eventually([&] { return mGasOff >= 2; }));
    }

    /// Waits for a line of the state machine's thread, which works by itself.
    void awaitLine(std::string const& aText) {
        EXPECT_TRUE(eventually([&] { return hasLine(aText); })) << aText;
    }

    bool hasLine(std::string_view aStart) const {
        auto const all = mLog.lines();
        return std::any_of(all.begin(), all.end(),
                           [&](auto const& aLine) { return aLine.text.starts_with(aStart); });
    }

    void call(std::size_t aJob) { mCallers->jobs().at(aJob)->call(); }

    /// One second passes for the state machine.
    void tick() {
        mClock->advance(std::chrono::seconds(1));
        call(kTick);
    }

    std::vector<CapturedLine> lines() const { return mLog.linesOf("ATController"); }

    HandClockScope mClock;
    LogCapture mLog;
    std::shared_ptr<FakeTempBoard> mBoard = makeTempBoard();
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    std::shared_ptr<TemperatureListenerSync> mListener =
        std::make_shared<TemperatureListenerSync>(0.001, 0.1);
    std::atomic<unsigned> mGasOff{0};
};

} // namespace libfieldwarden::test
