// SPDX-License-Identifier: Apache-2.0
// What the states of the adjustable temperature do.
#include "at/ATFSMStates.h"

#include "at/ATFlowTable.h"
#include "temperature/ATHardPowerOff.h"
#include "temperature/TempBoardQ47Ifc.h"
#include "temperature/TemperatureStabilityMgr.h"

#include <fieldwarden/TemperatureListenerInterface.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>

using boost::statechart::result;
using libfieldwarden::at::ATFSMParts;
using libfieldwarden::at::ATStateLog;
using libfieldwarden::at::made;
using libfieldwarden::temperature::ATHardPowerOff;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using velmor::kepla::log::Severity;
using ControlStatus = ProbeTemperatureControlStatus;
using GasStatus = ProbeTemperatureControlGasFlowStatus;
using GlobalStatus = ProbeTemperatureGlobalStatus;

namespace {

using WhereItCameFrom = boost::statechart::deep_history<Off>;

constexpr char const* kCategory = "Temperature";
constexpr nanoseconds kHoldBeforeRamp{299'999'999};
constexpr nanoseconds kFlush{5'000'000'000};
constexpr nanoseconds kHoldBeforeOff{300'000'000}; // Intended: not the same as before the ramp.

/// @return What was thrown, if anything was.
template <typename Step>
std::optional<std::string> failureOf(Step const& aStep) {
    try {
        aStep();
    } catch (std::exception const& failure) {
        return failure.what();
    } catch (...) {
        return "an exception of an unknown type";
    }
    return std::nullopt;
}

std::int64_t inMilliseconds(nanoseconds aTime) {
    return std::chrono::duration_cast<milliseconds>(aTime).count();
}

} // namespace

ATStateLog::ATStateLog(char const* aExit, Severity aSeverity)
    : Logger("ATStateLog", kCategory) // the state's own name goes before
    , mExit(aExit)
    , mSeverity(aSeverity) {}

ATStateLog::~ATStateLog() {
    keplaDoLog(mSeverity, mExit, {});
}

// --------------------------------------------------------------------------------------------- the machine

FSMAT::FSMAT(my_context aContext, ATFSMParts aParts)
    : Logger("AT FSM", kCategory)
    , my_base(aContext)
    , mParts(std::move(aParts)) {
    keplaDoLog(Severity::Debug, "FSM ctor", {});
}

FSMAT::~FSMAT() {
    keplaDoLog(Severity::Debug, "FSM destructor: calling hardPowerOff", {});
    makeSafe();
}

double FSMAT::lowestRegulated() const {
    return std::max(board()->probeGasRegulatedTemperatureRange().first, flows()->temperatureRange().first);
}

bool FSMAT::isTargetAboveStartThreshold() {
    double const boardMinimum = board()->probeGasRegulatedTemperatureRange().first;
    double const flowMinimum = flows()->temperatureRange().first;
    double const target = parameters()->targetTemperature();
    bool const above = std::max(boardMinimum, flowMinimum) <= target;
    keplaDoLog(Severity::Debug,
               "isTargetAboveStartThreshold() = %d with \n"
               "board()->probeGasMinimalRegulatedTemperature() = %fK\n"
               "flows()->temperatureRange().first = %fK\n"
               "parameters()->targetTemperature() = %fK",
               {}, above, boardMinimum, flowMinimum, target);
    return above;
}

bool FSMAT::watchGas() {
    bool const saw = flowController()->sawGas();
    if (!saw) {
        endHeating();
    }
    return saw;
}

void FSMAT::endHeating() {
    if (!board()->probeTemperatureRegulation()) {
        return;
    }
    keplaDoLog(Severity::Warning, "No gas flows: turning off regulation", {});
    board()->setProbeTemperatureRegulation(false);
}

void FSMAT::initiate_impl() {
    guarded(false, [this] { Machine::initiate(); });
}

void FSMAT::process_event_impl(boost::statechart::event_base const& aEvent) {
    if (terminated()) { // The board refused to begin anew. It may have come back.
        beginAnew();
    }
    if (terminated()) {
        keplaDoLog(Severity::Critical, "The AT state machine stands still, %u events are lost so far", {},
                   ++mLostEvents);
        return;
    }
    guarded(isOfTransfer(aEvent), [&] { Machine::process_event(aEvent); });
}

/// Whether somebody may wait for what comes of an event.
bool FSMAT::isOfTransfer(boost::statechart::event_base const& aEvent) const {
    auto const type = aEvent.dynamic_type();
    return type == EvPrepareTransfer::static_type() || type == EvCompleteTransfer::static_type() ||
           state_cast<SampleExchangeMetaState const*>() != nullptr;
}

/// Runs what may throw out of a state.
template <typename Step>
void FSMAT::guarded(bool aSomebodyMayWait, Step const& aStep) {
    if (auto const failure = failureOf(aStep)) {
        contain(aSomebodyMayWait, *failure);
    }
}

void FSMAT::contain(bool aSomebodyMayWait, std::string const& aReason) {
    keplaDoLog(Severity::Critical,
               "The AT state machine failed, it switches heating and gas off and begins anew; events that it "
               "has deferred are lost: %s",
               {}, aReason);
    beginAnew();
    if (aSomebodyMayWait) {
        transfer().resultPrepareOrCompleteTransfer(false);
    }
    auto const tell = [this] { listener()->probeTemperatureStatusChanged(GlobalStatus::Error); };
    if (auto const failure = failureOf(tell)) { // Last, so that the status stays.
        keplaDoLog(Severity::Critical, "Could not tell of the failure: %s", {}, *failure);
    }
}

void FSMAT::beginAnew() {
    if (!makeSafe()) {
        return; // `Off` would end the gas. The next event tries again.
    }
    if (auto const failure = failureOf([this] { Machine::initiate(); })) {
        keplaDoLog(Severity::Critical, "The AT state machine cannot begin anew yet: %s", {}, *failure);
    }
}

/// As far as the board lets us: a step of the power-off that fails must not keep the heating on.
/// @return Whether the heating has ended.
bool FSMAT::makeSafe() noexcept {
    auto const failure = failureOf([this] { ATHardPowerOff(board()); });
    if (!failure) {
        return true;
    }
    keplaDoLog(Severity::Critical, "Could not switch heating and gas off: %s", {}, *failure);
    if (!endHeatingSomehow()) {
        return false; // Gas must not end while something may be hot.
    }
    if (auto const reason = failureOf([this] { board()->setProbeGasFlow(0); })) {
        keplaDoLog(Severity::Critical, "Could not switch the gas off: %s", {}, *reason);
    }
    return true;
}

bool FSMAT::endHeatingSomehow() noexcept {
    bool heatingIsOff = true;
    auto const attempt = [&](auto const& aStep) {
        if (auto const reason = failureOf([&] { aStep(*board()); })) {
            keplaDoLog(Severity::Critical, "Could not switch the heating off: %s", {}, *reason);
            heatingIsOff = false;
        }
    };
    attempt([](TempBoardQ47Ifc& aBoard) { aBoard.setProbeTemperatureRegulation(false); });
    attempt([](TempBoardQ47Ifc& aBoard) { aBoard.setProbeGasHeatingSpiralRegulation(false); });
    attempt([](TempBoardQ47Ifc& aBoard) { aBoard.setProbeGasHeatingSpiralPower(0.0); });
    return heatingIsOff;
}

// ----------------------------------------------------------------------------------------- the normal states

NormalMetaState::NormalMetaState(my_context aContext)
    : Logger("AT FSM: Normal Meta State", kCategory)
    , my_base(aContext)
    , ATStateLog("Leaving normal meta state", Severity::Info) {
    keplaDoLog(Severity::Info, "Entering normal meta state", {});
}

Off::Off(my_context aContext)
    : Logger("AT FSM: Off state", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting OFF state") {
    keplaDoLog(Severity::Info, "Entering OFF state", {});
    FSMAT const& machine = outermost_context();
    machine.board()->setProbeTemperatureRegulation(false);
    machine.board()->setProbeGasFlow(0);
    auto& listener = *machine.listener();
    listener.probeTemperatureStatusChanged(GlobalStatus::Off);
    listener.probeTemperatureGasStatusChanged(GasStatus::Off);
    listener.probeMeasuredGasFlowChanged(0.0);
    listener.probeTargetGasFlowForOperationChanged(0.0);
    listener.probeTargetGasFlowForStandbyChanged(0.0);
    listener.probeTemperatureControlStatusChanged(ControlStatus::Off);
}

result Off::react(EvEnable const& /*aEvent*/) {
    if (outermost_context().isTargetAboveStartThreshold()) {
        keplaDoLog(Severity::Trace,
                   "Enable and target temperature is high enough: going to BeginRamp_SetHoldFlow state", {});
        return transit<BeginRamp_SetHoldFlow>();
    }
    return transit<OnButTargetTooLow>();
}

OnButTargetTooLow::OnButTargetTooLow(my_context aContext)
    : Logger("AT FSM: OnButTargetTooLow", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting OnButTargetTooLow state") {
    keplaDoLog(Severity::Info, "Entering OnButTargetTooLow state", {});
}

result OnButTargetTooLow::react(EvSetTargetTemperature const& /*aEvent*/) {
    if (outermost_context().isTargetAboveStartThreshold()) {
        return transit<BeginRamp_SetHoldFlow>();
    }
    keplaDoLog(
        Severity::Debug,
        "Target temperature is below the lowest allowed for temperature regulation: staying in this state",
        {});
    return discard_event();
}

BeginRamp_SetHoldFlow::BeginRamp_SetHoldFlow(my_context aContext)
    : Logger("AT FSM: BeginRamp SetHoldFlow", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting BeginRamp_SetHoldFlow state") {
    keplaDoLog(Severity::Info, "Entering BeginRamp_SetHoldFlow state", {});
    auto& gas = *outermost_context().flowController();
    gas.resetFlowFromUser();
    if (!gas.setFlowFromSM(0, true)) {
        // Intended: no space behind the state's name.
        keplaDoLog(Severity::Error, "~Entering: BeginRamp_SetHoldFlowFailed to set gas flow, going to error",
                   {});
        throw std::runtime_error("Could not set the gas flow");
    }
}

result BeginRamp_SetHoldFlow::react(EvTimerTick const& aEvent) {
    // Intended: "BeginTramp".
    keplaDoLog(Severity::Trace, "BeginTramp_SetHoldFlow: got timer tick with %u ms", {},
               aEvent.elapsed.count());
    if (mTime.add(aEvent.elapsed) <= kHoldBeforeRamp) {
        return discard_event();
    }
    keplaDoLog(Severity::Info, "Hold gas is on for more than 300ms, continue with RampTemperatureAndFlow",
               {});
    return transit<RampTemperatureAndFlow>();
}

RampTemperatureAndFlow::RampTemperatureAndFlow(my_context aContext)
    : Logger("AT FSM: RampTemperatureAndFlow", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting RampTemperatureAndFlow state")
    , StateWithRamp(outermost_context()) {
    keplaDoLog(Severity::Info, "Entering RampTemperatureAndFlow state", {});
    if (outermost_context().isTargetAboveStartThreshold()) {
        begin();
    } else {
        keplaDoLog(Severity::Warning, "Target temperature is too low: stopping AT", {});
        post_event(made<EvDisable>());
    }
}

void RampTemperatureAndFlow::begin() {
    board().setProbeTemperatureRegulation(true);
    keplaDoLog(Severity::Trace, "Notifying listener..", {});
    listener().probeTemperatureStatusChanged(GlobalStatus::On);
    listener().probeTemperatureControlStatusChanged(ControlStatus::Ramping);
    listener().probeTemperatureGasStatusChanged(GasStatus::Ramping);
    keplaDoLog(Severity::Trace, "Done... resetting ramp", {});
    double const target = parameters().targetTemperature();
    keplaDoLog(Severity::Trace, "Got the target temperature: %fK", {}, target);
    resetRamp(target);
    keplaDoLog(Severity::Trace, "Done...doing ramp step", {});
    if (doRampStep(milliseconds(0), true)) {
        keplaDoLog(Severity::Info, "already at target, going to switch to On state", {});
        post_event(arrival());
    }
    keplaDoLog(Severity::Trace, "Done... resetting stability", {});
    outermost_context().stabilityMgr().reset();
    keplaDoLog(Severity::Info, "Entered RampTemperatureAndFlow state", {});
}

result RampTemperatureAndFlow::react(EvSetTargetTemperature const& /*aEvent*/) {
    try {
        keplaDoLog(Severity::Debug, "Got new target temperature while ramping", {});
        if (outermost_context().isTargetAboveStartThreshold()) {
            resetRamp(parameters().targetTemperature());
            return discard_event();
        }
        keplaDoLog(Severity::Info, "New target is too low, disabling AT", {});
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "Reaction to set target temperature failed with %s", {}, failure.what());
    }
    return transit<RampToOffTemperatureAndFlow>(); // Not in the block above: this object goes with it.
}

result RampTemperatureAndFlow::react(EvTimerTick const& aEvent) {
    try {
        keplaDoLog(Severity::Trace, "RampTemperatureAndFlow: got timer tick (%u ms)", {},
                   aEvent.elapsed.count());
        if (!doRampStep(aEvent.elapsed, false)) {
            return discard_event();
        }
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error,
                   "Error while doing ramp step, setting error flag and shutdown AT. Error was %s", {},
                   failure.what());
        listener().probeTemperatureStatusChanged(GlobalStatus::Error);
        return transit<RampToOffTemperatureAndFlow>();
    }
    keplaDoLog(Severity::Info, "Target temperature has been reached", {});
    return transit<On>();
}

result RampTemperatureAndFlow::react(EvAtTarget const& aEvent) {
    return isOwn(aEvent) ? transit<On>() : discard_event();
}

On::On(my_context aContext)
    : Logger("AT FSM: On", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting ON state") {
    keplaDoLog(Severity::Info, "Entering ON state", {});
    auto& listener = *outermost_context().listener();
    listener.probeTemperatureControlStatusChanged(ControlStatus::Holding);
    listener.probeTemperatureGasStatusChanged(GasStatus::On);
}

/// Better an error and `Off` than a state that says it holds a temperature and does not.
result On::react(EvTimerTick const& /*aEvent*/) {
    if (!outermost_context().watchGas()) {
        keplaDoLog(Severity::Error, "No gas flows any more: by the user, or by an error of the flow box", {});
        throw std::runtime_error("No gas flows, the probe cannot be heated");
    }
    return discard_event();
}

RampToOffTemperatureAndFlow::RampToOffTemperatureAndFlow(my_context aContext)
    : Logger("AT FSM: RampToOffTemperatureAndFlow", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting RampToOffTemperatureAndFlow")
    , StateWithRamp(outermost_context()) {
    keplaDoLog(Severity::Info, "Entering RampToOffTemperatureAndFlow", {});
    outermost_context().watchGas(); // A ramp without gas comes here, too.
    listener().probeTemperatureGasStatusChanged(GasStatus::Ramping);
    listener().probeTemperatureControlStatusChanged(ControlStatus::Ramping);
    listener().probeTemperatureStabilityChanged(TemperatureStability::NotYetStable);
    double const boardMinimum = board().probeGasRegulatedTemperatureRange().first;
    double const flowMinimum = flows().temperatureRange().first;
    double const stop = ATFSMParameters::stopRampDownTemperature();
    mTarget = std::max({boardMinimum, flowMinimum, stop});
    keplaDoLog(Severity::Debug,
               "Ramp to off target temperature is %fK, with board min %fK, flow min %fK and stop ramp down "
               "%fK",
               {}, mTarget, boardMinimum, flowMinimum, stop);
    double const probe = board().probeTemperature();
    keplaDoLog(Severity::Debug, "Ramp to off: current probe temperature is %fK", {}, probe);
    if (mTarget >= probe) {
        keplaDoLog(Severity::Info, "Ramp to off: already at or below target", {});
        post_event(arrival());
        return;
    }
    resetRamp(mTarget);
    if (doRampStep(milliseconds(0), false)) {
        keplaDoLog(Severity::Debug, "Ramp to off: already reached target", {});
        post_event(arrival());
    }
}

result RampToOffTemperatureAndFlow::react(EvTimerTick const& aEvent) {
    try {
        outermost_context().watchGas();
        double const probe = board().probeTemperature();
        keplaDoLog(Severity::Debug, "Ramp to off: current probe's temperature is %fK", {}, probe);
        if (!(probe > mTarget)) {
            keplaDoLog(Severity::Info,
                       "Ramp to off: probe temperature is (%fK) <= than ramp to off's target (%fK): done", {},
                       probe, mTarget);
        } else if (doRampStep(aEvent.elapsed, false)) {
            keplaDoLog(Severity::Info, "Ramp to off: reached target temperature", {});
        } else {
            return discard_event();
        }
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "Reaction to timer tick failed with %s", {}, failure.what());
        return transit<HardPowerOff>();
    }
    return transit<FlushBeforePowerOff>();
}

result RampToOffTemperatureAndFlow::react(EvAtTarget const& aEvent) {
    return isOwn(aEvent) ? transit<FlushBeforePowerOff>() : discard_event();
}

FlushBeforePowerOff::FlushBeforePowerOff(my_context aContext)
    : Logger("AT FSM: FlushBeforePowerOff", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting FlushBeforePowerOff state") {
    keplaDoLog(Severity::Info, "Entering FlushBeforePowerOff state", {});
}

result FlushBeforePowerOff::react(EvTimerTick const& aEvent) {
    outermost_context().watchGas();
    nanoseconds const sum = mTime.add(aEvent.elapsed);
    if (sum <= kFlush) {
        return discard_event();
    }
    keplaDoLog(Severity::Info,
               "OK flush gas have been on for long enough (%d milliseconds): going to HoldBeforePowerOff "
               "state",
               {}, inMilliseconds(sum));
    return transit<HoldBeforePowerOff>();
}

HoldBeforePowerOff::HoldBeforePowerOff(my_context aContext)
    : Logger("AT FSM: HoldBeforePowerOff", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting HoldBeforePowerOff state") {
    keplaDoLog(Severity::Info, "Entering HoldBeforePowerOff state", {});
    if (!outermost_context().flowController()->setFlowFromSM(0, true)) {
        keplaDoLog(Severity::Warning, "Entering HoldBeforePowerOff failed to set the gas, ignoring the error",
                   {});
    }
}

result HoldBeforePowerOff::react(EvTimerTick const& aEvent) {
    outermost_context().watchGas();
    nanoseconds const sum = mTime.add(aEvent.elapsed);
    if (sum <= kHoldBeforeOff) {
        return discard_event();
    }
    keplaDoLog(Severity::Info,
               "OK hold gas have been on for long enough (%d milliseconds): going to Off state", {},
               inMilliseconds(sum));
    return transit<Off>();
}

HardPowerOff::HardPowerOff(my_context aContext)
    : Logger("AT FSM: HardPowerOff", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting HardPowerOff") {
    keplaDoLog(Severity::Info, "Entering HardPowerOff", {});
    FSMAT const& machine = outermost_context();
    ATHardPowerOff(machine.board());
    machine.listener()->probeTemperatureGasStatusChanged(GasStatus::Off);
    machine.listener()->probeTemperatureStatusChanged(GlobalStatus::Error);
    machine.listener()->probeTemperatureControlStatusChanged(ControlStatus::Off);
}

// ------------------------------------------------------------------------------------- the sample's exchange

SampleExchangeMetaState::SampleExchangeMetaState(my_context aContext)
    : Logger("AT FSM: SampleExchange Meta State", kCategory)
    , my_base(aContext)
    , ATStateLog("Leaving sample exchange meta state", Severity::Info) {
    keplaDoLog(Severity::Info, "Entering sample exchange meta state", {});
}

SampleExchangeEnter::SampleExchangeEnter(my_context aContext)
    : Logger("AT FSM: SampleExchangeEnter", kCategory)
    , my_base(aContext)
    , ATStateLog("Exiting SampleExchangeEnter") {
    FSMAT& machine = outermost_context();
    machine.transfer().resetPrepareOrCompleteTransfer();
    auto const hw = machine.board()->probeGasFlow();
    auto const [index, hold] = machine.flowController()->actualFlowIndex();
    keplaDoLog(Severity::Info,
               "Entering SampleExchangeEnter: current gas flow is %u, last set from sm is (index=%u, "
               "hold=%d), will ramp it down to 0",
               {}, hw, index, hold);
    auto info = std::make_shared<SampleExchangeInfo>();
    info->flowIndex = index;
    info->holdFlow = hold;
    info->RegulationEnabled = machine.board()->probeTemperatureRegulation();
    info->targetTemperature = machine.board()->targetProbeTemperature();
    machine.setSampleExchangeInfo(std::move(info));
    machine.flowController()->setStrictMode(true);
    if (hw == 0) {
        keplaDoLog(Severity::Info, "Flow is already off, nothing to do", {});
    }
}

/// @return Whether it could be read.
bool SampleExchangeEnter::readFlow(std::uint8_t& aIndex, bool& aHold) {
    try {
        auto const actual = outermost_context().flowController()->actualFlowIndex();
        aIndex = actual.first;
        aHold = actual.second;
    } catch (std::exception const&) {
        keplaDoLog(Severity::Error, "SampleExchangeEnter: failed to get actualFlowIndex", {});
        return false;
    }
    return true;
}

result SampleExchangeEnter::react(EvTimerTick const& aEvent) {
    FSMAT const& machine = outermost_context();
    keplaDoLog(Severity::Trace, "SampleExchangeEnter: got timer tick with %u ms", {}, aEvent.elapsed.count());
    mTime.add(aEvent.elapsed);
    std::uint8_t index = 0;
    bool hold = false;
    if (!readFlow(index, hold)) {
        machine.transfer().resultPrepareOrCompleteTransfer(false);
        return transit<HardPowerOff>();
    }
    keplaDoLog(Severity::Trace, "SampleExchangeEnter: swFlowIndex = %d, gasHold = %d", {}, index, hold);
    if (mTime.isTimeout()) {
        keplaDoLog(Severity::Error,
                   "Failed to reduce gas flow to 0 for sample exchange. Software flow index is %u, hardware "
                   "flow index %u",
                   {}, index, machine.board()->probeGasFlow());
        machine.transfer().resultPrepareOrCompleteTransfer(false);
        return transit<HardPowerOff>();
    }
    keplaDoLog(Severity::Trace, "SampleExchangeEnter: swFlowIndex = %d, gasHold = %d", {}, index, hold);
    if (index == 0 && !hold) {
        keplaDoLog(Severity::Info, "SampleExchangeEnter: gas flow is now 0, turning off regulation", {});
        machine.board()->setProbeTemperatureRegulation(false);
        machine.transfer().resultPrepareOrCompleteTransfer(true);
        return transit<SampleExchange>();
    }
    return mTime.isOver() ? reduce(index, hold) : discard_event();
}

result SampleExchangeEnter::reduce(std::uint8_t aIndex, bool aHold) {
    if (aIndex != 0) {
        --aIndex;
    } else {
        aHold = false;
    }
    keplaDoLog(Severity::Info, "SampleExchangeEnter: reducing gas flow to sw index %u and hold gas %d", {},
               aIndex, aHold);
    FSMAT const& machine = outermost_context();
    if (machine.flowController()->setFlowFromSMSampleExchange(aIndex, aHold)) {
        mTime.accept(aIndex, aHold);
        return discard_event();
    }
    // Intended: "will retry", though nothing is tried again in this exchange.
    keplaDoLog(Severity::Error,
               "SampleExchangeEnter: failed to set the gas flow, will retry, no sample exchange possible",
               {});
    machine.flowController()->setStrictMode(false);
    machine.transfer().resultPrepareOrCompleteTransfer(false);
    return transit<WhereItCameFrom>();
}

SampleExchange::SampleExchange(my_context aContext)
    : Logger("AT FSM: SampleExchange", kCategory)
    , my_base(aContext)
    , ATStateLog("Leaving SampleExchange") {
    keplaDoLog(Severity::Info, "Entering SampleExchange: now ready for sample exchange", {});
    auto& listener = *outermost_context().listener();
    listener.probeTemperatureGasStatusChanged(GasStatus::SampleExchange);
    listener.probeTemperatureControlStatusChanged(ControlStatus::SampleExchange);
}

result SampleExchange::react(EvCompleteTransfer const& /*aEvent*/) {
    bool const inMagnet = outermost_context().parameters()->sampleInMagnet();
    keplaDoLog(Severity::Info, "SampleExchange: got EvCompleteTransfer and sampleInMagnet is %d", {},
               inMagnet);
    if (inMagnet) {
        return transit<SampleExchangeExit>();
    }
    outermost_context().transfer().resultPrepareOrCompleteTransfer(true);
    return discard_event();
}

result SampleExchange::react(EvPrepareTransfer const& /*aEvent*/) {
    keplaDoLog(Severity::Info, "SampleExchange: got EvPrepareTransfer: do nothing", {});
    outermost_context().transfer().resultPrepareOrCompleteTransfer(true);
    return discard_event();
}

SampleExchangeExit::SampleExchangeExit(my_context aContext)
    : Logger("AT FSM: SampleExchangeExit", kCategory)
    , my_base(aContext)
    , ATStateLog("Leaving SampleExchangeExit state") {
    FSMAT const& machine = outermost_context();
    auto const hw = machine.board()->probeGasFlow();
    auto const info = machine.sampleExchangeInfo();
    bool const inMagnet = machine.parameters()->sampleInMagnet();
    auto const [isUserFlowSet, userFlow] = machine.flowController()->userDefinedFlow();
    if (!info) {
        keplaDoLog(Severity::Error, "No sample exchange information available --> error", {});
        machine.transfer().resultPrepareOrCompleteTransfer(false);
        throw std::runtime_error("Invalid internal state machine state");
    }
    mTargetIndex = info->flowIndex;
    mTargetHold = info->holdFlow && inMagnet;
    if (isUserFlowSet) {
        keplaDoLog(Severity::Debug, "SampleExchangeExit: flow is overriden in software", {});
        mTargetIndex = userFlow;
        mTargetHold = inMagnet;
    }
    keplaDoLog(Severity::Info,
               "Entering SampleExchangeExit: sample in magnet = %d, current gas flow is %d (hw index), will "
               "ramp it up to %u (sw index) and set hold gas to %d",
               {}, inMagnet, hw, mTargetIndex, mTargetHold);
}

result SampleExchangeExit::react(EvTimerTick const& aEvent) {
    keplaDoLog(Severity::Trace, "SampleExchangeExit: got timer tick with %u ms", {}, aEvent.elapsed.count());
    mTime.add(aEvent.elapsed);
    if (mTime.isTimeout()) {
        keplaDoLog(Severity::Error, "Failed to restore gas flow, timeout", {});
        throw std::runtime_error("Could not restore AT gas flow after sample exchange.");
    }
    auto& gas = *outermost_context().flowController();
    auto const [index, hold] = gas.actualFlowIndex();
    // The regulation may still be on where the completion came before a tick had seen that the gas was off,
    // and a second exchange that begins then finds no gas to restore.
    bool const gasIsOff = index == 0 && !hold;
    if (gasIsOff && outermost_context().sampleExchangeInfo()->RegulationEnabled) {
        outermost_context().endHeating();
    }
    if (index >= mTargetIndex && hold == mTargetHold) {
        return arrive();
    }
    if (!mTime.isOver()) {
        return discard_event();
    }
    if (mTargetIndex != 0 && hold != mTargetHold) {
        keplaDoLog(Severity::Info, "SampleExchangeExit: set hold gas flow", {});
        gas.setFlowFromSMSampleExchange(index, mTargetHold); // What comes of it shows at the next tick.
        mTime.accept(index, mTargetHold);
        return discard_event();
    }
    return raise(static_cast<std::uint8_t>(index + 1), mTargetHold);
}

result SampleExchangeExit::arrive() {
    FSMAT const& machine = outermost_context();
    auto const info = machine.sampleExchangeInfo();
    // Intended: "it's".
    keplaDoLog(Severity::Info,
               "SampleExchangeExit: gas flow reached it's target. Restore hold gas = %d, "
               "info.RegulationEnabled = %d, info.targetTemperature = %f",
               {}, mTargetHold, info->RegulationEnabled, info->targetTemperature);
    if (mTargetHold && info->RegulationEnabled) {
        machine.board()->setTargetProbeTemperature(info->targetTemperature);
        machine.board()->setProbeTemperatureRegulation(true);
    }
    machine.flowController()->setStrictMode(false);
    machine.transfer().resultPrepareOrCompleteTransfer(true);
    return transit<WhereItCameFrom>();
}

result SampleExchangeExit::raise(std::uint8_t aIndex, bool aHold) {
    // Intended: "hw", though it is the software index.
    keplaDoLog(Severity::Info, "SampleExchangeExit: increasing gas hw flow index to %u", {}, aIndex);
    FSMAT const& machine = outermost_context();
    if (machine.flowController()->setFlowFromSMSampleExchange(aIndex, aHold)) {
        mTime.accept(aIndex, aHold);
        return discard_event();
    }
    machine.transfer().resultPrepareOrCompleteTransfer(false);
    return transit<WhereItCameFrom>();
}
