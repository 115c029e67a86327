// SPDX-License-Identifier: Apache-2.0
// The words and numbers of temperatures.
#include "apps/fieldwarden/TemperatureText.h"

#include "apps/fieldwarden/WrongUsage.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

constexpr double kZeroCelsius = 273.15;
constexpr double kRampKelvinPerMinute = 1.0;
constexpr double kMagnetTolerance = 0.02;
constexpr std::chrono::seconds kReadyAtMost{1500}; ///< A mean over 1000 s, for 500 s in a row.
constexpr double kSecondsPerMinute = 60.0;

std::optional<double> numberFrom(std::string_view aText) {
    double number = 0.0;
    auto const [end, problem] = std::from_chars(aText.data(), aText.data() + aText.size(), number);
    if (problem != std::errc() || end != aText.data() + aText.size() || !std::isfinite(number)) {
        return std::nullopt;
    }
    return number;
}

} // namespace

double temperatureFromText(std::string const& aText) {
    std::string_view number = aText;
    double offset = 0.0;
    if (number.ends_with('K')) {
        number.remove_suffix(1);
    } else if (number.ends_with('C')) {
        number.remove_suffix(1);
        offset = kZeroCelsius;
    }
    auto const value = numberFrom(number);
    if (!value || *value + offset <= 0.0) {
        throw WrongUsage("'" + aText + "' is not a temperature, as in 310, 310K or 36.85C");
    }
    return *value + offset;
}

std::vector<double> flowsFromXml(std::string const& aXml) {
    constexpr std::string_view kAttribute = "valueLiterPerHour=\"";
    if (!aXml.starts_with("<flows")) {
        throw std::runtime_error("The list of flows is not to be understood: '" + aXml + "'");
    }
    std::vector<double> flows;
    for (auto place = aXml.find(kAttribute); place != std::string::npos;
         place = aXml.find(kAttribute, place)) {
        place += kAttribute.size();
        auto const end = aXml.find('"', place);
        auto const flow = end == std::string::npos
                              ? std::nullopt
                              : numberFrom(std::string_view(aXml).substr(place, end - place));
        if (!flow) {
            throw std::runtime_error("The list of flows is not to be understood: '" + aXml + "'");
        }
        flows.push_back(*flow);
    }
    return flows;
}

Meaning meaningOf(ProbeTemperatureGlobalStatus aStatus) {
    switch (aStatus) {
        case ProbeTemperatureGlobalStatus::Off:
            return {"off"};
        case ProbeTemperatureGlobalStatus::On:
            return {"on", Tone::Good};
        case ProbeTemperatureGlobalStatus::Error:
            return {"gave up: heating and gas are cut", Tone::Alarm};
    }
    return {"unknown"};
}

Meaning meaningOf(ProbeTemperatureControlGasFlowStatus aStatus) {
    switch (aStatus) {
        case ProbeTemperatureControlGasFlowStatus::Off:
            return {"off"};
        case ProbeTemperatureControlGasFlowStatus::Ramping:
            return {"ramping"};
        case ProbeTemperatureControlGasFlowStatus::On:
            return {"on", Tone::Good};
        case ProbeTemperatureControlGasFlowStatus::Error:
            return {"error of the flow box", Tone::Alarm};
        case ProbeTemperatureControlGasFlowStatus::SampleExchange:
            return {"off for the exchange of a sample"};
    }
    return {"unknown"};
}

Meaning meaningOf(ProbeTemperatureControlStatus aStatus) {
    switch (aStatus) {
        case ProbeTemperatureControlStatus::Off:
            return {"off"};
        case ProbeTemperatureControlStatus::Ramping:
            return {"ramping"};
        case ProbeTemperatureControlStatus::Holding:
            return {"holding the target", Tone::Good};
        case ProbeTemperatureControlStatus::SampleExchange:
            return {"suspended for the exchange of a sample"};
    }
    return {"unknown"};
}

Meaning meaningOf(TemperatureStability aStability) {
    switch (aStability) {
        case TemperatureStability::NotYetStable:
            return {"not yet stable"};
        case TemperatureStability::LeftBand:
            return {"has left its band", Tone::Warning};
        case TemperatureStability::Stable:
            return {"stable", Tone::Good};
    }
    return {"unknown"};
}

// ---------------------------------------------------------------------------------------------------- ramp

double RampProgress::fraction() const {
    double const whole = targetKelvin - beginKelvin;
    return whole == 0.0 ? 1.0 : std::clamp((nowKelvin - beginKelvin) / whole, 0.0, 1.0);
}

int RampProgress::minutesToGo() const {
    return static_cast<int>(std::ceil(std::abs(targetKelvin - nowKelvin) / kRampKelvinPerMinute));
}

std::string RampProgress::words() const {
    return fmt::format("{:.1f} K to {:.1f} K, about {} min to go", nowKelvin, targetKelvin, minutesToGo());
}

// ----------------------------------------------------------------------------------------------- readiness

void MagnetReadiness::look(double aKelvin, double aTarget, bool aReady, Duration aTime) {
    mOff = aKelvin - aTarget;
    if (std::abs(mOff) >= kMagnetTolerance) {
        mOnTargetSince.reset();
    } else if (!mOnTargetSince) {
        mOnTargetSince = aTime;
    }
    mOnTargetFor = mOnTargetSince ? aTime - *mOnTargetSince : Duration::zero();
    if (aReady) {
        mKind = Kind::Ready;
    } else if (!mOnTargetSince) {
        mKind = Kind::OffTarget;
    } else {
        mKind = mOnTargetFor < kReadyAtMost ? Kind::Settling : Kind::Late;
    }
}

std::optional<int> MagnetReadiness::minutesAtMost() const {
    if (mKind != Kind::Settling) {
        return std::nullopt;
    }
    double const seconds = std::chrono::duration<double>(kReadyAtMost - mOnTargetFor).count();
    return static_cast<int>(std::ceil(seconds / kSecondsPerMinute));
}

std::string MagnetReadiness::words() const {
    switch (mKind) {
        case Kind::Ready:
            return "ready";
        case Kind::Settling:
            return fmt::format("ready within {} min", *minutesAtMost());
        case Kind::OffTarget:
            return fmt::format("not ready, {:.2f} K {} its target", std::abs(mOff),
                               mOff < 0.0 ? "below" : "above");
        case Kind::Late:
            break;
    }
    return "not ready though its mean is on target: a sensor is not";
}

// -------------------------------------------------------------------------------------------------- phases

std::string phaseTable(std::vector<Phase> const& aPhases) {
    auto const row = [](Phase const& aPhase) {
        return fmt::format("{:<14}{:>10.1f} s{:>12.1f} s\n", aPhase.name, aPhase.realSeconds,
                           aPhase.instrumentSeconds);
    };
    std::string table = fmt::format("{:<14}{:>12}{:>14}\n", "phase", "real", "instrument");
    Phase sum{"all", 0.0, 0.0};
    for (Phase const& phase : aPhases) {
        table += row(phase);
        sum.realSeconds += phase.realSeconds;
        sum.instrumentSeconds += phase.instrumentSeconds;
    }
    return table + row(sum);
}

} // namespace libfieldwarden::app
