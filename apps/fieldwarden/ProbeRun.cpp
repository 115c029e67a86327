// SPDX-License-Identifier: Apache-2.0
// The stages of the probe in a run.
#include "apps/fieldwarden/ProbeRun.h"

#include "apps/fieldwarden/ProgressBar.h"
#include "apps/fieldwarden/TemperatureEvents.h"
#include "apps/fieldwarden/WrongUsage.h"

#include <fieldwarden/BoundedValue.h>
#include <fieldwarden/LockForTemperatureIfc.h>
#include <fieldwarden/TemperatureInterface.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

using velmor::platform::Clock;

constexpr double kRampStep = 1.0; ///< Kelvin between two lines.
/// Where the way down ends unless the probe's range begins higher.
constexpr double kCoolEnough = 308.15;
constexpr double kMinutesPerKelvinAtMost = 1.5; ///< The ramp takes one; the probe follows it.
constexpr double kMinutesBeside = 10.0;         ///< For gas and flush.
constexpr unsigned kBarParts = 100;
constexpr unsigned kBarWidth = 10; ///< So that flow and readiness fit into 80 columns, too.

} // namespace

ProbeRun::ProbeRun(TemperatureInterface& aTemperature,
                   LockForTemperatureIfc const* aLock,
                   double aKelvin,
                   EventQueue& aQueue,
                   PhaseClock& aPhases)
    : mTemperature(aTemperature)
    , mLock(aLock)
    , mTarget(aKelvin)
    , mQueue(aQueue)
    , mPhases(aPhases) {
    if (mTemperature.getProbeDeviceActiveChannel() == 0) {
        throw WrongUsage("this instrument has no adjustable temperature option; run it without --at");
    }
    BoundedValue const probe = mTemperature.getProbeTemperature();
    if (!(aKelvin >= probe.lower && aKelvin <= probe.upper)) {
        throw WrongUsage(fmt::format("--at {:g} is outside of the probe's range, {:g} K to {:g} K", aKelvin,
                                     probe.lower, probe.upper));
    }
    mLowest = probe.lower;
    mKelvin = probe.value;
    mTemperature.setTargetProbeTemperature(aKelvin);
}

void ProbeRun::look(std::optional<double> aKelvin) {
    mKelvin = aKelvin.value_or(mKelvin);
    if (mStage == Stage::WaitsForLock &&
        (mLock == nullptr || mLock->shimCoilTargetTemperatureRegulationArmed())) {
        enter(Stage::GasStarts, "gas");
        mWasOn = true;
        mTemperature.setProbeTemperatureStatus(ProbeTemperatureGlobalStatus::On);
    }
    if (mStage == Stage::RampUp || mStage == Stage::RampDown) {
        tellRamp();
    }
}

void ProbeRun::enter(Stage aStage, char const* aPhase) {
    mStage = aStage;
    mPhases.begin(aPhase);
}

// --------------------------------------------------------------------------------------------------- stages

void ProbeRun::hear(Event const& aEvent) {
    if (aEvent.source != "probe") {
        return;
    }
    if (aEvent.name == TemperatureEvents::kStatus) {
        heard(static_cast<ProbeTemperatureGlobalStatus>(aEvent.fields.at(aEvent.name).get<int>()));
    } else if (aEvent.name == TemperatureEvents::kControl) {
        heard(static_cast<ProbeTemperatureControlStatus>(aEvent.fields.at(aEvent.name).get<int>()));
    } else if (aEvent.name == TemperatureEvents::kStability) {
        mStable = aEvent.fields.at(aEvent.name).get<int>() == static_cast<int>(TemperatureStability::Stable);
        settle();
    }
}

void ProbeRun::heard(ProbeTemperatureGlobalStatus aStatus) {
    if (aStatus == ProbeTemperatureGlobalStatus::Error) {
        mStage = Stage::Failed;
    } else if (aStatus == ProbeTemperatureGlobalStatus::Off && mStage != Stage::WaitsForLock) {
        mStage = Stage::Off;
    }
}

void ProbeRun::heard(ProbeTemperatureControlStatus aStatus) {
    mHolding = aStatus == ProbeTemperatureControlStatus::Holding;
    bool const ramps = aStatus == ProbeTemperatureControlStatus::Ramping;
    if (ramps && (mStage == Stage::GasStarts || mStage == Stage::Settles || mStage == Stage::Stable)) {
        mBegin = mKelvin;
        enter(Stage::RampUp, "ramp");
    }
    settle();
}

void ProbeRun::settle() {
    if (mStage == Stage::RampUp && mHolding) {
        enter(Stage::Settles, "settling");
    }
    if (mStage == Stage::Settles && mStable) {
        enter(Stage::Stable, "held");
        mWasStable = true;
    }
}

void ProbeRun::switchOff() {
    if (mStage == Stage::WaitsForLock) {
        mStage = Stage::Off;
    }
    if (over() || mStage == Stage::RampDown) {
        return;
    }
    mBegin = mKelvin;
    mToldKelvin.reset();
    enter(Stage::RampDown, "down and off");
    double const minutes = std::max(0.0, mKelvin - mLowest) * kMinutesPerKelvinAtMost + kMinutesBeside;
    mOffAtLatest = Clock::current().now() + std::chrono::duration_cast<Clock::Duration>(
                                                std::chrono::duration<double, std::ratio<60>>(minutes));
    mTemperature.setProbeTemperatureStatus(ProbeTemperatureGlobalStatus::Off);
}

bool ProbeRun::overdue() const {
    return mStage == Stage::RampDown && Clock::current().now() > mOffAtLatest;
}

// ---------------------------------------------------------------------------------------------------- words

RampProgress ProbeRun::progress() const {
    double const end = mStage == Stage::RampDown ? std::max(kCoolEnough, mLowest) : mTarget;
    return {mBegin, mKelvin, end};
}

bool ProbeRun::coolEnough() const {
    return mStage == Stage::RampDown && mBegin <= std::max(kCoolEnough, mLowest);
}

void ProbeRun::tellRamp() {
    if (coolEnough()) {
        return;
    }
    if (mToldKelvin && std::abs(mKelvin - *mToldKelvin) < kRampStep) {
        return;
    }
    mToldKelvin = mKelvin;
    RampProgress const ramp = progress();
    mQueue.push({{},
                 "probe",
                 kRamp,
                 "ramp: " + ramp.words(),
                 {{"kelvin", ramp.nowKelvin},
                  {"targetKelvin", ramp.targetKelvin},
                  {"minutesToGo", ramp.minutesToGo()}},
                 Tone::Plain});
}

std::string ProbeRun::rampWords(double aFlow) const {
    if (coolEnough()) {
        return fmt::format("probe {:.1f} K, switching off, {:g} l/h", mKelvin, aFlow);
    }
    RampProgress const ramp = progress();
    return fmt::format("{} {:.1f} K to {:.1f} K, {} min, {:g} l/h",
                       barText(static_cast<unsigned>(ramp.fraction() * kBarParts), kBarParts, kBarWidth),
                       ramp.nowKelvin, ramp.targetKelvin, ramp.minutesToGo(), aFlow);
}

std::string ProbeRun::words(double aFlow) const {
    switch (mStage) {
        case Stage::WaitsForLock:
            return "probe waits for the lock";
        case Stage::GasStarts:
            return "gas starts";
        case Stage::RampUp:
        case Stage::RampDown:
            return rampWords(aFlow);
        case Stage::Settles:
        case Stage::Stable:
            return fmt::format("probe {:.1f} K of {:.1f} K, {}, {:g} l/h", mKelvin, mTarget,
                               mStable ? "stable" : "not yet stable", aFlow);
        case Stage::Off:
            return "probe off";
        case Stage::Failed:
            break;
    }
    return "probe regulation gave up";
}

} // namespace libfieldwarden::app
