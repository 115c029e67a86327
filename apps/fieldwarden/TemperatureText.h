// SPDX-License-Identifier: Apache-2.0
// Temperatures, gas flows and the time still to go, as people read and write them.
#pragma once

#include "apps/fieldwarden/Meaning.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <fieldwarden/ProbeTemperatureControlGasFlowStatus.h>
#include <fieldwarden/ProbeTemperatureControlStatus.h>
#include <fieldwarden/ProbeTemperatureGlobalStatus.h>
#include <fieldwarden/TemperatureStability.h>

namespace libfieldwarden::app {

/// @param aText  "310", "310K", "36.85C"; without a unit kelvin are meant.
/// @return Kelvin.
/// @throws WrongUsage  when it is no temperature above absolute zero.
double temperatureFromText(std::string const& aText);

/// @param aXml  `<flows><flow valueLiterPerHour="250.5" /></flows>`.
/// @return The flows in l/h, in the order of the text.
/// @throws std::runtime_error  when it is no such text.
std::vector<double> flowsFromXml(std::string const& aXml);

Meaning meaningOf(ProbeTemperatureGlobalStatus aStatus);
Meaning meaningOf(ProbeTemperatureControlGasFlowStatus aStatus);
Meaning meaningOf(ProbeTemperatureControlStatus aStatus);
Meaning meaningOf(TemperatureStability aStability);

/// How far the probe is on its ramp of 1 K per minute.
struct RampProgress {
    double beginKelvin = 0.0; ///< Where the probe was when the ramp began.
    double nowKelvin = 0.0;
    double targetKelvin = 0.0;

    /// @return 0 at the beginning, 1 at the target; between them also where the probe has passed either.
    double fraction() const;
    /// @return Whole minutes of the instrument's time that the rest of the way takes, rounded up.
    int minutesToGo() const;
    /// @return Such as "301.2 K to 310.0 K, about 9 min to go".
    std::string words() const;
};

/// Says when the magnet will be ready at the latest. Each of its sensors has to be within 0.02 K of its
/// target in the mean over 1000 s, for 500 s in a row.
class MagnetReadiness {
public:
    using Duration = std::chrono::nanoseconds;

    /// Why the magnet is not ready, or that it is.
    enum class Kind { Ready, Settling, OffTarget, Late };

    /// @param aKelvin  The magnet's temperature.
    /// @param aTarget  Its target.
    /// @param aReady   What the service says.
    /// @param aTime    Of the instrument's clock, from any beginning.
    void look(double aKelvin, double aTarget, bool aReady, Duration aTime);

    Kind kind() const noexcept { return mKind; }
    /// @return While settling the minutes until the latest time of readiness, rounded up; else none.
    std::optional<int> minutesAtMost() const;
    /// @return Such as "ready within 25 min", "1.20 K below its target".
    std::string words() const;

private:
    Kind mKind = Kind::OffTarget;
    double mOff = 0.0; ///< Kelvin above the target.
    std::optional<Duration> mOnTargetSince;
    Duration mOnTargetFor{};
};

/// A piece of a run, and how long it took.
struct Phase {
    std::string name;
    double realSeconds = 0.0;
    double instrumentSeconds = 0.0;
};

/// @return A line a phase, with headings and the sum.
std::string phaseTable(std::vector<Phase> const& aPhases);

} // namespace libfieldwarden::app
