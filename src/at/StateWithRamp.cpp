// SPDX-License-Identifier: Apache-2.0
// Where ramps start and end, and their steps.
#include "at/StateWithRamp.h"

#include "at/ATFSMParameters.h"
#include "at/ATFSMStates.h"
#include "at/ATFlowTable.h"
#include "at/FlowForATFSMIfc.h"
#include "temperature/TempBoardQ47Ifc.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

using libfieldwarden::at::made;
using velmor::kepla::log::Severity;

namespace {
constexpr double kStepKelvin = 1.0;
}

StateWithRamp::StateWithRamp(FSMAT& aMachine)
    : Logger("StateWithRamp", "Temperature") // the state's own name goes before
    , mBoard(aMachine.board())
    , mParameters(aMachine.parameters())
    , mFlows(aMachine.flows())
    , mListener(aMachine.listener())
    , mFlowController(aMachine.flowController())
    , mSerial(aMachine.nextRamp())
    , mRamp(ATFSMParameters::normalSlope()) {}

void StateWithRamp::resetRamp(double aTarget) {
    keplaDoLog(Severity::Debug, "+resetRamp(target = %fK)", {}, aTarget);
    double const current = mBoard->probeTemperature();
    double minimalStart = ATFSMParameters::startRampUpTemperature();
    double const lowest = mFlows->lowestTemperatureWithFlow();
    mRampTarget = aTarget;
    mFinalTarget = aTarget;
    if (minimalStart < lowest) {
        keplaDoLog(Severity::Info,
                   "Lowest temperature with non null flow is %fK, while minimal start temperature is %fK: "
                   "will use highest of both",
                   {}, lowest, minimalStart);
        minimalStart = lowest;
    }
    double from = current;
    if (!isRampRequired()) {
        keplaDoLog(Severity::Info, "resetRamp: no ramp required, immediately set target", {});
        from = aTarget;
    } else if (mFinalTarget >= minimalStart) {
        from = std::max(current, minimalStart);
        keplaDoLog(Severity::Info, "resetRamp: starts ramp with %fK", {}, from);
    } else {
        mRampTarget = minimalStart;
        keplaDoLog(Severity::Info, "resetRamp: target too low, use minimal start temperature (%fK) as target",
                   {}, minimalStart);
    }
    keplaDoLog(Severity::Info, "resetRamp: new target is %fK, current temperature considered to be %fK", {},
               mRampTarget, from);
    mRamp.reset(from, mRampTarget);
}

bool StateWithRamp::isRampRequired() const {
    double const now = mBoard->probeTemperature(); // Intended: read anew.
    double const start = ATFSMParameters::startRampUpTemperature();
    bool const required = now > start || start < mParameters->targetTemperature();
    keplaDoLog(Severity::Trace, "-isRampRequired: %d, with current %fK and startRampUpTemperature %fK", {},
               required, now, start);
    return required;
}

bool StateWithRamp::doRampStep(std::chrono::milliseconds aElapsed, bool aForce) {
    keplaDoLog(Severity::Trace, "+doRampStep", {});
    double value = mRamp.tick(aElapsed);
    double const setPoint = mBoard->targetProbeTemperature();
    bool const arrived = std::abs(value - mRampTarget) <= kStepKelvin;
    if (arrived) {
        value = mFinalTarget; // also where that is outside of the ramp
    } else if (!aForce && std::abs(setPoint - value) < kStepKelvin) {
        keplaDoLog(Severity::Trace, "doRampStep: delta to current target is too low, skipping this step", {});
        refuseToHeatWithoutGas(mFlowController->sawGas());
        return false;
    }
    setTargetTemperatureAndFlow(value);
    return arrived;
}

void StateWithRamp::setTargetTemperatureAndFlow(double aKelvin) {
    FlowAndIndex const flow = mFlows->flowForTemperature(aKelvin);
    keplaDoLog(Severity::Info,
               "setTargetTemperatureAndFlow: targetTemperature = %fK, flow = %f l/h, index = %d", {}, aKelvin,
               flow.flow, flow.index);
    // The gas goes first, on the way up as on the way down, and the hold gas stays.
    if (!mFlowController->setFlowFromSM(static_cast<unsigned char>(flow.index), true)) {
        keplaDoLog(Severity::Error, "StateWithRamp: failed to set the gas flow", {});
        giveUp();
    }
    // A flow counts as set also while a user's is in its place, which may be none, and behind a board that
    // has restarted, which is not given the same byte anew.
    refuseToHeatWithoutGas(mFlowController->lookForGas());
    mBoard->setTargetProbeTemperature(aKelvin);
}

void StateWithRamp::refuseToHeatWithoutGas(bool aIsGasThere) {
    if (!aIsGasThere) {
        keplaDoLog(Severity::Error, "StateWithRamp: no gas flows, the probe must not be heated", {});
        giveUp();
    }
}

/// The heating ends first: who catches this may take minutes to do so.
void StateWithRamp::giveUp() {
    mBoard->setProbeTemperatureRegulation(false);
    throw std::runtime_error("Failed to set the gas flow");
}

boost::intrusive_ptr<boost::statechart::event_base const> StateWithRamp::arrival() const {
    return made<EvAtTarget>(mSerial);
}

bool StateWithRamp::isOwn(EvAtTarget const& aArrival) const {
    if (aArrival.ramp != mSerial) {
        keplaDoLog(Severity::Debug, "It was a former ramp that has arrived", {});
        return false;
    }
    return true;
}
