// SPDX-License-Identifier: Apache-2.0
// The one way from a double to a 32-bit integer in the shim arithmetic, defined for every value.
#pragma once

#include <velmor/kepla/utils/SaturatedToInt32.h>

namespace libfieldwarden {

using velmor::kepla::utils::saturatedToInt32;

} // namespace libfieldwarden
