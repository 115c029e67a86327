// SPDX-License-Identifier: Apache-2.0
// Units to uA and back.
#include "shim/ShimUnits.h"

#include "shim/SaturatedToInt32.h"

#include <velmor/kepla/log/Logger.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <stdexcept>

#include <fmt/printf.h>

using velmor::kepla::log::keplaDoLog;
using velmor::kepla::log::Severity;

namespace {

// Intended: this literal, one step below the double that is nearest to 100/13. The boards' stored values
// count on the last bit, so it is not computed.
constexpr double kMicroAmperePerUnit = 7.692307692307692;
static_assert(std::bit_cast<std::uint64_t>(kMicroAmperePerUnit) == 0x401EC4EC4EC4EC4EU);

constexpr double kLowestUnits = -130000.0;
constexpr double kHighestUnits = 130000.0;

} // namespace

double ShimUnits::toUnits(int aMicroAmpere) {
    double const units = static_cast<double>(aMicroAmpere) / kMicroAmperePerUnit;
    keplaDoLog(Severity::Trace, "ShimUnits::toUnits(uA=%d) = %f", {}, aMicroAmpere, units);
    return units;
}

std::vector<double> ShimUnits::toUnits(std::vector<int> const& aMicroAmpere) {
    std::vector<double> units;
    units.reserve(aMicroAmpere.size());
    for (int const microAmpere : aMicroAmpere) {
        units.push_back(toUnits(microAmpere));
    }
    return units;
}

int ShimUnits::touA(double const& aUnits) {
    if (aUnits < kLowestUnits || aUnits > kHighestUnits) { // neither holds for NaN, which passes and gives 0
        throw std::invalid_argument(
            fmt::sprintf("ShimUnits to uA: units must be between %f and %f but was %f", kLowestUnits,
                         kHighestUnits, aUnits));
    }
    int const microAmpere = libfieldwarden::saturatedToInt32(std::round(aUnits * kMicroAmperePerUnit));
    keplaDoLog(Severity::Trace, "ShimUnits::toUA(units=%f) = %d", {}, aUnits, microAmpere);
    return microAmpere;
}

std::vector<int> ShimUnits::touA(std::vector<double> const& aUnits) {
    std::vector<int> microAmpere;
    microAmpere.reserve(aUnits.size());
    for (double const units : aUnits) {
        microAmpere.push_back(touA(units));
    }
    return microAmpere;
}
