// SPDX-License-Identifier: Apache-2.0
// The words for what the temperature service says.
#include "apps/fieldwarden/TemperatureEvents.h"

#include "apps/fieldwarden/TemperatureText.h"

#include <fieldwarden/TemperatureInterface.h>

#include <fmt/format.h>

namespace libfieldwarden::app {

TemperatureEvents::TemperatureEvents(TemperatureInterface& aTemperature, EventQueue& aQueue)
    : mQueue(aQueue) {
    aTemperature.setListener(this);
}

template <typename Status>
void TemperatureEvents::push(char const* aName, char const* aWords, Status aStatus) {
    Meaning const meaning = meaningOf(aStatus);
    mQueue.push({{},
                 "probe",
                 aName,
                 fmt::format("{}{}", aWords, meaning.words),
                 {{aName, static_cast<int>(aStatus)}, {"meaning", meaning.words}},
                 meaning.tone});
}

void TemperatureEvents::magnetReadyChanged(bool aReady) {
    mQueue.push({{},
                 "magnet",
                 kReady,
                 aReady ? "ready" : "no longer ready",
                 {{"ready", aReady}},
                 aReady ? Tone::Good : Tone::Warning});
}

void TemperatureEvents::probeTargetTemperatureChanged(double aTemperature) {
    mQueue.push({{},
                 "probe",
                 kTarget,
                 fmt::format("target: {:.1f} K", aTemperature),
                 {{"kelvin", aTemperature}},
                 Tone::Plain});
}

void TemperatureEvents::probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus aStatus) {
    push(kStatus, "regulation: ", aStatus);
}

void TemperatureEvents::probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus aStatus) {
    push(kGas, "gas: ", aStatus);
}

void TemperatureEvents::probeTemperatureStabilityChanged(TemperatureStability aStability) {
    push(kStability, "temperature: ", aStability);
}

void TemperatureEvents::probeMeasuredGasFlowChanged(double aFlow) {
    mQueue.push({{},
                 "probe",
                 kFlow,
                 fmt::format("gas flow: {:g} l/h", aFlow),
                 {{"literPerHour", aFlow}},
                 Tone::Plain});
}

void TemperatureEvents::probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus aStatus) {
    push(kControl, "regulator: ", aStatus);
}

} // namespace libfieldwarden::app
