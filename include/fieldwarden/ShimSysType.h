// SPDX-License-Identifier: Apache-2.0
// The shim systems that the library knows.
#pragma once

#include <cstdint>

/// The shim system of the instrument; it selects the matrix file of the same name, "wmxs1a.dat" to
/// "wmxs2a.dat".
enum class ShimSysType : std::int32_t {
    Wmxs1a = 8,
    Wmxs1b = 9,
    Wmxs1c = 10,
    Wmxs2a = 11,
};
