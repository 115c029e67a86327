// SPDX-License-Identifier: Apache-2.0
// How fast a simulated instrument with its lock sequencer can run in this build.
#pragma once

namespace libfieldwarden::test {

/// Simulated seconds in a real one. The sequencer computes an acquisition in about a millisecond, and many
/// times that under a sanitizer; an instrument that falls behind its clock is another instrument.
#if defined(__SANITIZE_THREAD__)
inline constexpr double kSimulationSpeed = 1.0;
#elif defined(__SANITIZE_ADDRESS__)
inline constexpr double kSimulationSpeed = 3.0;
#else
inline constexpr double kSimulationSpeed = 10.0;
#endif

} // namespace libfieldwarden::test
