// SPDX-License-Identifier: Apache-2.0
// Puts the description of every boundary class into the debug information of the shared library, where the
// ABI test reads it. The compiler describes an abstract class only where it is implemented, and some are
// implemented by the daemon alone.
#include <fieldwarden/LockDiagnosticsInterface.h>
#include <fieldwarden/LockInterface.h>
#include <fieldwarden/LockInterfaceListener.h>
#include <fieldwarden/SampleRotationInterface.h>
#include <fieldwarden/ShimInterface.h>
#include <fieldwarden/ShimListenerInterface.h>
#include <fieldwarden/TemperatureInterface.h>
#include <fieldwarden/TemperatureListenerInterface.h>

namespace libfieldwarden {

/// Never called: its parameters are what matters.
[[gnu::used, gnu::visibility("hidden")]] void describeBoundary(LockDiagnosticsInterface const&,
                                                               LockInterface const&,
                                                               LockInterfaceListener const&,
                                                               SampleRotationInterface const&,
                                                               ShimInterface const&,
                                                               ShimListenerInterface const&,
                                                               TemperatureInterface const&,
                                                               TemperatureListenerInterface const&) {}

} // namespace libfieldwarden
