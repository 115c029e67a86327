// SPDX-License-Identifier: Apache-2.0
// Counts heap allocations, for code that must not make any.
#pragma once

#include <cstddef>

namespace libfieldwarden::test {

/// @return How many allocations by operator new the calling thread has made. Linking this in replaces the
/// global operator new of the test program.
std::size_t allocationsOfThisThread() noexcept;

} // namespace libfieldwarden::test
