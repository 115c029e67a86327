// SPDX-License-Identifier: Apache-2.0
// The version that the build gives.
#include <velmor/platform/Version.h>

namespace velmor::platform {

char const* version() noexcept {
    return FIELDWARDEN_VERSION;
}

} // namespace velmor::platform
