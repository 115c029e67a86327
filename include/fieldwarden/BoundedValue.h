// SPDX-License-Identifier: Apache-2.0
// The records in which the services return a quantity together with its limits.
#pragma once

#include <string>

/// A measured or settable quantity. Unit and meaning of the limits are told by the operation that returns it.
struct BoundedValue {
    /// The quantity itself.
    double value{};
    /// Upper limit for the display or for the setting.
    double upper{};
    /// Lower limit.
    double lower{};
    /// Digits before and behind the point as "1.3"; a hint for the display, the library never reads it.
    std::string format;
};

/// The same record for a quantity that is a whole number.
struct BoundedIntegerValue {
    /// The quantity itself.
    int value{};
    /// Upper limit for the display or for the setting.
    int upper{};
    /// Lower limit.
    int lower{};
    /// As in BoundedValue; may be empty.
    std::string format;
};
