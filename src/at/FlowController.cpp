// SPDX-License-Identifier: Apache-2.0
// How the probe gas is set, verified, watched and restored.
#include "at/FlowController.h"

#include "at/ATFlowTable.h"
#include "at/AtFlowBoxIfc.h"
#include "temperature/TempBoardQ47Ifc.h"

#include <fieldwarden/TemperatureListenerInterface.h>
#include <velmor/kepla/datalogger/DataLoggerInterface.h>
#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>
#include <velmor/platform/Clock.h>

#include <stdexcept>

using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::log::Severity;
using velmor::kepla::utils::PeriodicCallerManagerIfc;
using velmor::platform::Clock;
using GasStatus = ProbeTemperatureControlGasFlowStatus;

namespace {

constexpr double kPollPeriodSeconds = 1.0;
/// How long the hold gas flows alone before a poll restores the main flow.
constexpr std::chrono::nanoseconds kHoldBeforeRestored{300'000'000};

constexpr double literPerHourToCubicMeterPerSecond(double aLiterPerHour) {
    return aLiterPerHour * 0.001 / 3600.0;
}

DataLoggerChannelInfo channel(char const* aName, DataLoggerUnit aUnit, char const* aDescription) {
    return {{"temperatureBoard", "probe", aName},
            aUnit,
            DataLoggerStats::none(),
            DataLoggerStorageType::ShortTerm,
            aDescription};
}

} // namespace

// The polls may begin while the board is still asked for what the box does; the mutex makes them wait.
FlowController::FlowController(std::shared_ptr<TempBoardQ47Ifc> aBoard,
                               std::shared_ptr<ATFlowTable> aFlowTable,
                               std::shared_ptr<TemperatureListenerInterface> aListener,
                               std::unique_ptr<AtFlowBoxIfc> aFlowBox,
                               std::shared_ptr<PeriodicCallerManagerIfc> const& aPeriodicCallers,
                               std::shared_ptr<DataLoggerInterface> const& aDataLogger)
    : Logger("FlowController", "Temperature")
    , mClock(Clock::current())
    , mFlowTable(std::move(aFlowTable))
    , mBoard(std::move(aBoard))
    , mListener(std::move(aListener))
    , mFlowBox(std::move(aFlowBox))
    , mStateChannel(aDataLogger->createChannel(
          channel("gas_flow_state",
                  DataLoggerUnit::Dimensionless,
                  "Gas flow state. 0 = ControlledByFSM, 1 = OverridenInSoftware, 2 = OverridenInHardware, "
                  "any other value = error")))
    , mActualChannel(aDataLogger->createChannel(
          channel("gas_flow_actual",
                  DataLoggerUnit::CubicMetrePerSecond,
                  "Actual gas flow, not measured but expected from current configuration")))
    , mUserChannel(aDataLogger->createChannel(
          channel("gas_flow_user",
                  DataLoggerUnit::CubicMetrePerSecond,
                  "Gas flow that has been requested by the user. Optional, 0 if no value enforced by user.")))
    , mFSMChannel(aDataLogger->createChannel(channel("gas_flow_fsm",
                                                     DataLoggerUnit::CubicMetrePerSecond,
                                                     "Gas flow as requested by the internal state machine.")))
    , mHoldChannel(aDataLogger->createChannel(
          channel("gas_hold_fsm",
                  DataLoggerUnit::Boolean,
                  "Requested state of the hold gas flow as requested by the internal state machine."))) {
    std::lock_guard const lock(mMutex);
    mPollHandle = aPeriodicCallers->createPeriodicCaller(kPollPeriodSeconds, [this] { pollATFlowBox(); });
    mLastActualFlowHardwareIndex = mBoard->probeGasFlow();
    keplaDoLog(Severity::Debug, "Initial mLastActualFlowHardwareIndex is %u", {},
               mLastActualFlowHardwareIndex.load());
}

FlowController::~FlowController() = default;

// -------------------------------------------------------------------------------------- the state machine

bool FlowController::setFlowFromSM(unsigned char aSwFlowIndex, bool aHoldFlow) {
    std::lock_guard const lock(mMutex);
    keplaDoLog(Severity::Debug, "+setFlowFromSM(swFlowIndex = %u, holdFlow = %u)", {}, aSwFlowIndex,
               aHoldFlow);
    push(mFSMChannel, literPerHourToCubicMeterPerSecond(mFlowTable->flowByIndex(aSwFlowIndex)));
    push(mHoldChannel, aHoldFlow ? 1.0 : 0.0);
    if (!mUserFlowEnabled && !setFlow(aSwFlowIndex, aHoldFlow, false)) {
        return false;
    }
    mFSMFlowIndex = aSwFlowIndex;
    mFSMHold = aHoldFlow;
    return true;
}

bool FlowController::setFlowFromSMSampleExchange(unsigned char aSwFlowIndex, bool aHoldFlow) {
    std::lock_guard const lock(mMutex);
    if (!mStrictMode) {
        // Intended: "setFromFromSMSampleExchange".
        keplaDoLog(Severity::Error, "setFromFromSMSampleExchange called but not in strict mode", {});
        return false;
    }
    if (!setFlowAndVerify(aSwFlowIndex, aHoldFlow)) {
        return false;
    }
    push(mFSMChannel, literPerHourToCubicMeterPerSecond(mFlowTable->flowByIndex(aSwFlowIndex)));
    mFSMFlowIndex = aSwFlowIndex; // Intended: mFSMHold stays, so that the exchange can be undone.
    return true;
}

// -------------------------------------------------------------------------------------------------- the user

void FlowController::setFlowByUser(double aFlowLiterPerHour) {
    keplaDoLog(Severity::Info, "setFlowByUser(flowLiterPerHour = %f)", {}, aFlowLiterPerHour);
    unsigned char const index = mFlowTable->indexForFlow(aFlowLiterPerHour);
    keplaDoLog(Severity::Debug, "~setFlowByUser(flowLiterPerHour = %f): translates to software index %u", {},
               aFlowLiterPerHour, index);
    push(mUserChannel, literPerHourToCubicMeterPerSecond(aFlowLiterPerHour));
    std::lock_guard const lock(mMutex);
    mUserFlowIndex = index; // First, so that who sees the override sees its flow.
    mUserFlowEnabled = true;
    if (mStrictMode) {
        keplaDoLog(Severity::Warning,
                   "User overrides the gas flow while in strict mode: will be applied once we leave strict "
                   "mode",
                   {});
        return;
    }
    applyUserFlow();
}

void FlowController::resetFlowFromUser() {
    keplaDoLog(Severity::Info, "resetFlowFromUser", {});
    std::lock_guard const lock(mMutex);
    mUserFlowEnabled = false;
    // Intended: the hold flow follows from the index, not from mFSMHold.
    auto const index = static_cast<unsigned char>(mFSMFlowIndex.load());
    setFlow(index, index > 0, true);
}

// Intended: without the mutex; hence the atomic members.
void FlowController::setStrictMode(bool aStrict) {
    keplaDoLog(Severity::Info, "+setStrictMode(strict = %d)", {}, aStrict);
    mStrictMode = aStrict;
    if (!aStrict && mUserFlowEnabled) {
        keplaDoLog(Severity::Info, "restoring user overriden flow", {});
        applyUserFlow();
    }
}

void FlowController::applyUserFlow() {
    auto const index = static_cast<unsigned char>(mUserFlowIndex.load());
    if (index == 0) {
        endHeating();
    }
    setFlow(index, index > 0, true);
}

/// A user may want no gas, but the gas must not end while the probe is heated.
void FlowController::endHeating() {
    if (!mBoard->probeTemperatureRegulation()) {
        return;
    }
    keplaDoLog(Severity::Warning, "The user wants no gas: turning off regulation before it ends", {});
    mBoard->setProbeTemperatureRegulation(false);
}

std::pair<bool, unsigned char> FlowController::userDefinedFlow() const {
    bool const enabled = mUserFlowEnabled;
    return {enabled, static_cast<unsigned char>(mUserFlowIndex.load())};
}

// ---------------------------------------------------------------------------------------------- what flows

std::pair<unsigned char, bool> FlowController::actualFlowIndex() const {
    unsigned char const hw = mBoard->probeGasFlow();
    ActualFlow const actual = mFlowBox->toSoftwareFlowIndex(hw, mLastActualFlowHardwareIndex);
    if (actual.hardwareError) {
        throw std::runtime_error("Flow box hardware error");
    }
    return {actual.softwareFlowIndex, actual.isHoldFlowEnabled};
}

bool FlowController::lookForGas() {
    std::lock_guard const lock(mMutex);
    unsigned char const hw = mBoard->probeGasFlow();
    noteGas(hw, mFlowBox->toSoftwareFlowIndex(hw, hw));
    return mSawGas;
}

// With the mutex, so that a poll which restores the gas is not seen half way.
bool FlowController::sawGas() const {
    std::lock_guard const lock(mMutex);
    return mSawGas;
}

/// What flows by a knob that is away is the operator's affair, but the box itself must say so. Version 1 does
/// not: there any unexpected byte counts as the knob's, also that of a board that has restarted.
void FlowController::noteGas(unsigned char aHw, ActualFlow const& aActual) {
    bool const flows = aActual.softwareFlowIndex != 0 || aActual.isHoldFlowEnabled;
    auto const isKnobsAffair = [&] {
        return !aActual.isKnobSetToRemote && !mFlowBox->toSoftwareFlowIndex(aHw, aHw).isKnobSetToRemote;
    };
    mSawGas = !aActual.hardwareError && (flows || isKnobsAffair());
}

double FlowController::getActualFlow() {
    unsigned char const hw = mLastActualFlowHardwareIndex;
    return mFlowTable->flowByIndex(mFlowBox->toSoftwareFlowIndex(hw, hw).softwareFlowIndex);
}

// ----------------------------------------------------------------------------------------- the one that sets

bool FlowController::setFlow(unsigned char aFlowIndex, bool aHoldFlow, bool aAllowHold) {
    keplaDoLog(Severity::Trace, "+setFlow(flowIndex = %u, holdFlow=%d, allowHold=%d)", {}, aFlowIndex,
               aHoldFlow, aAllowHold);
    unsigned char const hw = mBoard->probeGasFlow();
    ActualFlow const actual = mFlowBox->toSoftwareFlowIndex(hw, hw);
    noteGas(hw, actual);
    if (actual.softwareFlowIndex == aFlowIndex && actual.isHoldFlowEnabled == aHoldFlow) {
        keplaDoLog(Severity::Debug, "setFlow: already there, doing nothing", {});
        return true;
    }
    bool const mayNeedHold = !mFlowBox->isHoldFlowIndependent() || aAllowHold;
    if (mayNeedHold && aFlowIndex != 0 && actual.softwareFlowIndex == 0 && !actual.isHoldFlowEnabled) {
        keplaDoLog(Severity::Debug, "Need to enable the hold flow before setting the gas flow", {});
        if (!aAllowHold) {
            keplaDoLog(Severity::Error,
                       "Not allowed to set the flow to index %u because hold gas was not enabled beforehand",
                       {}, aFlowIndex);
            throw std::runtime_error("Invalid internal state: cannot set gas flow");
        }
        setFlowAndVerify(0, true);
        mClock.sleepFor(mHoldDuration);
        keplaDoLog(Severity::Info, "...HOLD gas set long enough, continuing...", {});
    }
    return setFlowAndVerify(aFlowIndex, aHoldFlow);
}

/// The only place that writes the byte.
bool FlowController::setFlowAndVerify(unsigned char aSwFlowIndex, bool aHoldFlow) {
    keplaDoLog(Severity::Debug, "+setFlowAndVerify(swFlowIndex = %u, holdFlow = %d)", {}, aSwFlowIndex,
               aHoldFlow);
    unsigned char const hw = mFlowBox->toHardwareFlowIndex(aSwFlowIndex, aHoldFlow);
    mBoard->setProbeGasFlow(hw);
    unsigned char const readBack = mBoard->probeGasFlow();
    keplaDoLog(Severity::Debug, "Flow hardware index set to %u and read-back %u", {}, hw, readBack);
    ActualFlow const actual = mFlowBox->toSoftwareFlowIndex(readBack, hw);
    keplaDoLog(Severity::Trace, "actual.isKnobSetToRemote=%d, actual.softwareFlowIndex=%u", {},
               actual.isKnobSetToRemote, actual.softwareFlowIndex);
    noteGas(readBack, actual);
    mFlowErrorReported = false;
    mLastActualFlowHardwareIndex = readBack;
    bool done = true;
    if (actual.hardwareError) {
        keplaDoLog(Severity::Error,
                   "Flow box hardware error. Read hw flow index 0x%02X (%u) when requested was %u", {},
                   readBack, readBack, hw);
        setFlowError();
        done = false;
    } else if (!actual.isKnobSetToRemote) {
        setFlowState(FlowState::OverridenInHardware);
        if (mStrictMode) {
            keplaDoLog(Severity::Error,
                       "Flow box knob is set to NOT REMOTE but strict mode is enabled (automation?)", {});
            done = false;
        }
    }
    double const flow = mFlowTable->flowByIndex(actual.softwareFlowIndex);
    push(mActualChannel, literPerHourToCubicMeterPerSecond(flow));
    tellFlow(flow, actual.softwareFlowIndex != 0);
    keplaDoLog(Severity::Debug, "-setFlowAndVerify: %d", {}, done);
    return done;
}

void FlowController::tellFlow(double aFlow, bool aIsOn) {
    mListener->probeMeasuredGasFlowChanged(aFlow);
    mListener->probeTargetGasFlowForOperationChanged(aFlow);
    mListener->probeTemperatureGasStatusChanged(aIsOn ? GasStatus::On : GasStatus::Off);
}

void FlowController::setFlowError() {
    mFlowErrorReported = true;
    setFlowState(FlowState::Error);
    mListener->probeTemperatureGasStatusChanged(GasStatus::Error);
}

void FlowController::setFlowState(FlowState aState) {
    FlowState const former = mFlowState.exchange(aState);
    if (former == aState) {
        return;
    }
    keplaDoLog(Severity::Info, "Flow state changed from %d to %d", {}, static_cast<int>(former),
               static_cast<int>(aState));
    push(mStateChannel, static_cast<double>(aState));
}

void FlowController::push(Channel const& aChannel, double aValue) const {
    aChannel->push(aValue, mClock.systemNow());
}

// -------------------------------------------------------------------------------------- the one that watches

void FlowController::pollATFlowBox() {
    keplaDoLog(Severity::Trace, "+pollATFlowBox", {});
    if (!mFlowBox->canReadBackValves()) {
        keplaDoLog(Severity::Trace, "-pollATFlowBox: cannot read-back valves", {});
        return;
    }
    std::lock_guard const lock(mMutex);
    unsigned char const hw = mBoard->probeGasFlow();
    keplaDoLog(Severity::Trace, "~pollATFlowBox: read hardware flow index is %u", {}, hw);
    ActualFlow const actual = mFlowBox->toSoftwareFlowIndex(hw, mLastActualFlowHardwareIndex);
    noteGas(hw, actual);
    if (actual.hardwareError && !mFlowErrorReported) {
        keplaDoLog(Severity::Error, "~pollATFlowBox: read hardware flow index reports error", {});
        setFlowError();
    } else {
        mFlowErrorReported = false; // Intended: an error that persists is told at every second poll.
        noteChange(hw, actual);
    }
    if (!actual.isKnobSetToRemote) {
        mKnobWasRemote = false;
        setFlowState(FlowState::OverridenInHardware);
        return;
    }
    if (!mKnobWasRemote) {
        restoreGas(actual.isHoldFlowEnabled);
    }
    mKnobWasRemote = true;
    if (mUserFlowEnabled) {
        setFlowState(FlowState::OverridenInSoftware);
    } else if (!actual.hardwareError) {
        setFlowState(FlowState::ControlledByFSM);
    }
}

void FlowController::noteChange(unsigned char aHw, ActualFlow const& aActual) {
    unsigned char const last = mLastActualFlowHardwareIndex;
    if (aHw == last) {
        return;
    }
    keplaDoLog(
        Severity::Warning,
        "~pollATFlowBox: probe gas flow changed from %u (0x%02X) to %u (0x%02X). Decodes "
        "to:hardwareError = %d, isKnobSetToRemote = %d, isHoldFlowEnabled = %d, softwareFlowIndex = %u",
        {}, last, last, aHw, aHw, aActual.hardwareError, aActual.isKnobSetToRemote, aActual.isHoldFlowEnabled,
        aActual.softwareFlowIndex);
    mLastActualFlowHardwareIndex = aHw;
    // Intended: here the hold flow alone counts as gas, other than in setFlowAndVerify().
    tellFlow(mFlowTable->flowByIndex(aActual.softwareFlowIndex), aHw != 0);
}

/// The first poll comes here, too, since the knob counts as away before it.
void FlowController::restoreGas(bool aIsHoldFlowEnabled) {
    bool const byUser = mUserFlowEnabled;
    auto const index = static_cast<unsigned char>(byUser ? mUserFlowIndex.load() : mFSMFlowIndex.load());
    bool const hold = byUser ? index > 0 : mFSMHold.load();
    keplaDoLog(Severity::Warning,
               "Knob went back from NOT REMOTE to REMOTE, restoring gas flow to %u and hold gas %d", {},
               index, hold);
    if (hold && !aIsHoldFlowEnabled) {
        setFlowAndVerify(0, true);
        mClock.sleepFor(kHoldBeforeRestored);
    }
    if (index > 0) {
        setFlowAndVerify(index, hold);
    }
}
