// SPDX-License-Identifier: Apache-2.0
// The version of what is installed.
#pragma once

namespace velmor::platform {

/// @return The version of the platform library, "major.minor.patch"; it is that of libfieldwarden, built with
/// it.
char const* version() noexcept;

} // namespace velmor::platform
