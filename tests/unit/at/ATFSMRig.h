// SPDX-License-Identifier: Apache-2.0
// The state machine of the adjustable temperature on a simulated board, driven by hand in one thread.
#pragma once

#include "at/ATFSMStates.h"
#include "at/ATFlowTable.h"
#include "support/FakeTempBoard.h"
#include "temperature/TemperatureListenerSync.h"
#include "temperature/TemperatureStabilityMgr.h"

#include <fieldwarden/TemperatureListenerInterface.h>
#include <velmor/kepla/mds/Mds.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace libfieldwarden::test {

using Journal = std::vector<std::string>;

/// Writes down what is done, and lets one kind of it fail, or one call.
struct Happenings {
    Journal journal;
    std::string failing;              ///< The start of the happening that throws; empty for none.
    unsigned calls = 0;               ///< So far, questions to the board among them.
    unsigned failingCall = 0;         ///< The one that throws; 0 for none.
    bool throwsSomethingElse = false; ///< What is thrown is no std::exception.
    bool isQuiet = false;

    void note(char const* aWhat) {
        note(aWhat, [] { return std::string(); });
    }
    template <typename Text>
    void note(char const* aWhat, Text const& aArguments) {
        if (!isQuiet) {
            journal.push_back(aWhat + aArguments());
        }
        call(aWhat);
    }
    void call(char const* aWhat) {
        if (++calls == failingCall || (!failing.empty() && failing == aWhat)) {
            if (throwsSomethingElse) {
                throw 42; // NOLINT(hicpp-exception-baseclass): that is the point
            }
            throw std::runtime_error("no answer");
        }
    }
};

/// Board and flow box in one: heating, gas and probe are numbers.
class SimulatedATBoard : public FakeTempBoard {
public:
    explicit SimulatedATBoard(Happenings& aHappenings)
        : mHappenings(aHappenings) {}

    double probeTemperature() override {
        read("probeTemperature");
        return probe;
    }
    double targetProbeTemperature() const override {
        read("targetProbeTemperature");
        return target;
    }
    void setTargetProbeTemperature(double aKelvin) override {
        mHappenings.note("target ", [&] { return fmt::format("{:.2f}", aKelvin); });
        target = aKelvin;
    }
    bool probeTemperatureRegulation() override {
        read("probeTemperatureRegulation");
        return regulates;
    }
    void setProbeTemperatureRegulation(bool aEnabled) override {
        mHappenings.note("regulation ", [&] { return std::to_string(aEnabled ? 1 : 0); });
        regulates = aEnabled;
        check();
    }
    void setProbeGasHeatingSpiralRegulation(bool aEnabled) override {
        mHappenings.note("spiral regulation ", [&] { return std::to_string(aEnabled ? 1 : 0); });
    }
    void setProbeGasHeatingSpiralPower(double aWatt) override {
        mHappenings.note("spiral power ", [&] { return fmt::format("{:.0f}", aWatt); });
    }
    unsigned char probeGasFlow() override {
        read("probeGasFlow");
        return index == 0 ? static_cast<unsigned char>(hold ? 1 : 0)
                          : static_cast<unsigned char>(hold ? index + 1 : index + 11);
    }
    void setProbeGasFlow(unsigned char aFlow) override {
        mHappenings.note("gas ", [&] { return std::to_string(aFlow); });
        EXPECT_EQ(aFlow, 0) << "only the flow controller sets another";
        index = 0;
        hold = false;
        check();
    }
    Range probeGasRegulatedTemperatureRange() const override {
        read("range");
        return regulated;
    }

    /// Heating without gas is what all the rules are there to prevent.
    void check() {
        if (regulates && index == 0 && !hold) {
            ++heatedWithoutGas;
        }
    }

    double probe = 300.0;
    Range regulated{280.0, 400.0};
    double target = 292.15;
    bool regulates = false;
    unsigned char index = 0;
    bool hold = false;
    unsigned heatedWithoutGas = 0;

private:
    void read(char const* aWhat) const { mHappenings.call(aWhat); }

    Happenings& mHappenings;
};

/// A flow controller without valves.
class SimulatedGas : public libfieldwarden::at::FlowForATFSMIfc {
public:
    SimulatedGas(std::shared_ptr<SimulatedATBoard> aBoard, Happenings& aHappenings)
        : mBoard(std::move(aBoard))
        , mHappenings(aHappenings) {}

    bool setFlowFromSM(unsigned char aIndex, bool aHold) override { return set("flow ", aIndex, aHold); }
    bool setFlowFromSMSampleExchange(unsigned char aIndex, bool aHold) override {
        return set("exchange flow ", aIndex, aHold);
    }
    void resetFlowFromUser() override { mHappenings.note("reset user flow"); }
    void setStrictMode(bool aStrict) override {
        mHappenings.note("strict ", [&] { return std::to_string(aStrict ? 1 : 0); });
        strict = aStrict;
    }
    std::pair<unsigned char, bool> actualFlowIndex() const override {
        mHappenings.call("actualFlowIndex");
        return {mBoard->index, mBoard->hold};
    }
    bool lookForGas() override {
        mHappenings.call("lookForGas");
        return sawGas();
    }
    bool sawGas() const override { return mBoard->index != 0 || mBoard->hold; }
    std::pair<bool, unsigned char> userDefinedFlow() const override { return user; }

    bool refuses = false;
    bool ignores = false; ///< Accepts, and nothing happens.
    bool strict = false;
    std::pair<bool, unsigned char> user{false, 0};

private:
    bool set(char const* aWhat, unsigned char aIndex, bool aHold) {
        mHappenings.note(aWhat, [&] { return fmt::format("{} {}", aIndex, aHold ? 1 : 0); });
        if (refuses || ignores) {
            return !refuses;
        }
        mBoard->index = aIndex;
        mBoard->hold = aHold;
        mBoard->check();
        return true;
    }

    std::shared_ptr<SimulatedATBoard> mBoard;
    Happenings& mHappenings;
};

/// The daemon, and the one who waits for a transfer.
class SimulatedHearer : public TemperatureListenerInterface, public AtFsmControlerIfc {
public:
    explicit SimulatedHearer(Happenings& aHappenings)
        : mHappenings(aHappenings) {}

    void probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus aStatus) override {
        number("status ", aStatus);
        status = static_cast<int>(aStatus);
    }
    void probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus aStatus) override {
        number("gas status ", aStatus);
    }
    void probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus aStatus) override {
        number("control status ", aStatus);
    }
    void probeTemperatureStabilityChanged(TemperatureStability aStability) override {
        number("stability ", aStability);
    }
    void probeMeasuredGasFlowChanged(double aFlow) override { number("measured ", aFlow); }
    void probeTargetGasFlowForOperationChanged(double aFlow) override { number("operation ", aFlow); }
    void probeTargetGasFlowForStandbyChanged(double aFlow) override { number("standby ", aFlow); }
    void magnetTemperatureChanged(double /*aTemperature*/) override { ADD_FAILURE(); }
    void magnetReadyChanged(bool /*aReady*/) override { ADD_FAILURE(); }
    void coilTemperatureChanged(double /*aTemperature*/) override { ADD_FAILURE(); }
    void probeTargetTemperatureChanged(double /*aTemperature*/) override { ADD_FAILURE(); }
    void probeTemperatureChanged(double /*aTemperature*/) override { ADD_FAILURE(); }
    void probeActualPowerChanged(double /*aPower*/) override { ADD_FAILURE(); }
    void probeTargetTemperatureMinimumChanged(double /*aTemperature*/) override { ADD_FAILURE(); }
    void probeTargetTemperatureMaximumChanged(double /*aTemperature*/) override { ADD_FAILURE(); }
    void probePowerMaximumChanged(double /*aPower*/) override { ADD_FAILURE(); }

    void resetPrepareOrCompleteTransfer() override { mHappenings.note("reset transfer"); }
    void resultPrepareOrCompleteTransfer(bool aSuccess) override { number("transfer ", aSuccess ? 1 : 0); }
    bool waitForCompleteOrPrepareTransfer() override { return false; }

    int status = -1;

private:
    template <typename Value>
    void number(char const* aWhat, Value aValue) {
        mHappenings.note(aWhat, [&] { return fmt::format("{:.0f}", static_cast<double>(aValue)); });
    }

    Happenings& mHappenings;
};

/// The machine. Flows: 300 K to 320 K takes 200 l/h (index 1), up to 350 K 400 l/h (index 2); targets from
/// 300 K on can be regulated.
class ATMachine {
public:
    static constexpr char const* kRecord =
        R"(<record><group name="TemperatureRange"><value>0</value><value>0</value><value>300</value>)"
        R"(<value>350</value></group><group name="FlowForTemperature"><value>0</value><value>0</value>)"
        R"(<value>300</value><value>320</value><value>200</value></group>)"
        R"(<group name="FlowForTemperature"><value>0</value><value>0</value><value>320</value>)"
        R"(<value>350</value><value>400</value></group></record>)";

    explicit ATMachine(char const* aRecord = kRecord) {
        mFlows->setTableFromMDS(velmor::kepla::mds::Mds::parse(aRecord));
        parameters->setTargetTemperature(310.0);
        mProcessor = mScheduler.create_processor<FSMAT>(libfieldwarden::at::ATFSMParts{
            board, mFlows, parameters, mHearer,
            std::make_shared<TemperatureStabilityMgr>(std::make_shared<TemperatureListenerSync>(0.001, 0.1)),
            gas, nullptr, mHearer});
    }

    /// Enters the first state.
    void begin() {
        mScheduler.initiate_processor(mProcessor);
        mScheduler();
    }

    template <typename Event>
    void handle() {
        handle(libfieldwarden::at::made<Event>());
    }
    void handle(boost::intrusive_ptr<boost::statechart::event_base const> const& aEvent) {
        mScheduler.queue_event(mProcessor, aEvent);
        mScheduler();
    }
    void tick(int aMilliseconds = 1000) {
        handle(libfieldwarden::at::made<EvTimerTick>(std::chrono::milliseconds(aMilliseconds)));
    }
    void setTarget(double aKelvin) {
        parameters->setTargetTemperature(aKelvin);
        handle<EvSetTargetTemperature>();
    }
    void complete(bool aInMagnet) {
        parameters->setSampleInMagnet(aInMagnet);
        handle<EvCompleteTransfer>();
    }

    template <typename State>
    bool in() {
        return fsm().state_cast<State const*>() != nullptr;
    }
    /// The news that the last ramp has arrived, or the one before it.
    auto arrival(unsigned aRampsAgo = 0) {
        return libfieldwarden::at::made<EvAtTarget>(fsm().lastRamp() - aRampsAgo);
    }
    FSMAT& fsm() { return dynamic_cast<FSMAT&>(**mProcessor.lock()); }
    int status() const { return mHearer->status; }
    Journal take() { return std::exchange(happenings.journal, {}); }

    Happenings happenings;
    std::shared_ptr<SimulatedATBoard> board = std::make_shared<SimulatedATBoard>(happenings);
    std::shared_ptr<SimulatedGas> gas = std::make_shared<SimulatedGas>(board, happenings);
    std::shared_ptr<ATFSMParameters> parameters = std::make_shared<ATFSMParameters>();

private:
    using Scheduler = boost::statechart::fifo_scheduler<>;

    std::shared_ptr<ATFlowTable> mFlows = std::make_shared<ATFlowTable>();
    std::shared_ptr<SimulatedHearer> mHearer = std::make_shared<SimulatedHearer>(happenings);
    Scheduler mScheduler{false};
    Scheduler::processor_handle mProcessor;
};

// How each state is reached.

inline void begin(ATMachine& aMachine) {
    aMachine.begin();
}
inline void reachTooLow(ATMachine& aMachine) {
    aMachine.begin();
    aMachine.parameters->setTargetTemperature(290.0);
    aMachine.handle<EvEnable>();
    aMachine.parameters->setTargetTemperature(310.0);
}
inline void reachBegin(ATMachine& aMachine) {
    aMachine.begin();
    aMachine.handle<EvEnable>();
}
inline void reachRamp(ATMachine& aMachine) {
    reachBegin(aMachine);
    aMachine.tick(300);
}
/// The probe is hot, so that the way down is a long one.
inline void reachOn(ATMachine& aMachine) {
    aMachine.board->probe = 330.0;
    aMachine.parameters->setTargetTemperature(330.0);
    reachRamp(aMachine);
    aMachine.parameters->setTargetTemperature(310.0);
}
inline void reachRampToOff(ATMachine& aMachine) {
    reachOn(aMachine);
    aMachine.handle<EvDisable>();
}
inline void reachFlush(ATMachine& aMachine) {
    reachBegin(aMachine);
    aMachine.handle<EvDisable>();
}
inline void reachHold(ATMachine& aMachine) {
    reachFlush(aMachine);
    aMachine.tick(5001);
}
inline void reachHardPowerOff(ATMachine& aMachine) {
    aMachine.begin();
    aMachine.handle<EvHardPowerOff>();
}
inline void reachEnter(ATMachine& aMachine) {
    reachOn(aMachine);
    aMachine.handle<EvPrepareTransfer>();
}
inline void reachExchange(ATMachine& aMachine) {
    reachEnter(aMachine); // index 2 and hold: three steps, and a tick that sees their end
    for (int step = 0; step < 4; ++step) {
        aMachine.tick(501);
    }
}
inline void reachExit(ATMachine& aMachine) {
    reachExchange(aMachine);
    aMachine.handle<EvCompleteTransfer>();
}

} // namespace libfieldwarden::test
