// SPDX-License-Identifier: Apache-2.0
// The one way from a double to a 32-bit integer in the instrument's arithmetic, defined for every value.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace velmor::kepla::utils {

/// Truncates toward zero. Values beyond the range give its ends and NaN gives 0, as the instrument's
/// processor does it; a plain cast would leave them undefined. Any thread, does not block.
inline std::int32_t saturatedToInt32(double aValue) noexcept {
    using Limits = std::numeric_limits<std::int32_t>;
    if (std::isnan(aValue)) {
        return 0;
    }
    return static_cast<std::int32_t>(
        std::clamp(aValue, static_cast<double>(Limits::min()), static_cast<double>(Limits::max())));
}

} // namespace velmor::kepla::utils
