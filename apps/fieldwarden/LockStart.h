// SPDX-License-Identifier: Apache-2.0
// Brings the lock up for a subcommand that needs it, and shows how far it is.
#pragma once

#include "apps/fieldwarden/ProgressBar.h"
#include "apps/fieldwarden/Session.h"

#include <optional>
#include <string>

namespace libfieldwarden {
class LockDiagnosticsInterface;
}

namespace libfieldwarden::app {

/// The 1H frequency of the simulated magnet's record, in Hz.
inline constexpr double kSimulatedMagnetHz = 80'123'000.0;

inline constexpr double kHertzPerMegahertz = 1.0e6;

/// @param aText  "80.123", "80.123MHz", "80123000Hz"; without a unit MHz are meant.
/// @return Hz.
/// @throws WrongUsage  when it is no frequency from 1 to 1000 MHz.
double frequencyFromText(std::string const& aText);

/// @return What --frequency says, or the simulated magnet's where there is one; none on the instrument
/// without it.
std::optional<double> frequencyFor(SessionOptions const& aOptions, std::optional<std::string> const& aText);

/// @return The lock's diagnosis.
/// @throws WrongUsage  with the mock lock, which has none.
LockDiagnosticsInterface& diagnosticsOf(Session& aSession);

/// How a start ended.
enum class StartEnd { Regulating, Failed, TimedOut, Interrupted };

/// Tells the magnet's frequency and waits until the lock regulates, with its progress on standard error. A
/// signal ends the wait; the session is closed where the lock does not regulate.
/// @param aFrequencyHz  Of the magnet.
/// @param aWords        Takes the lock's words when it failed.
StartEnd startLock(Session& aSession, double aFrequencyHz, std::string& aWords);

} // namespace libfieldwarden::app
