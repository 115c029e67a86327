// SPDX-License-Identifier: Apache-2.0
// The gradient tables and the value vector.
#include "shim/ShimGradientsTOSK.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace {

constexpr std::size_t kSlots = 40;

std::map<std::string, int> inverted(std::vector<std::string> const& aNames) {
    std::map<std::string, int> codes;
    for (std::string const& name : aNames) {
        codes.emplace(name, static_cast<int>(codes.size()));
    }
    return codes;
}

} // namespace

// The order is that of the matrix files and of the listener calls. It is not sorted by degree: "XZ4" stands
// before "XZ3", "YZ4" before "YZ3", and "Z0" comes last. Intended: row numbers of stored matrix files count
// on it.
std::vector<std::string> const ShimGradientsTOSK::mIndexToName{
    "Z",    "Z2",  "Z3",        "Z4",        "Z5",        "X",    "XZ",   "XZ2",      "(X2-Y2)", "XY",
    "Y",    "YZ",  "YZ2",       "(X2-Y2)Z2", "XZ4",       "XZ3",  "Z6",   "(X2-Y2)Z", "YZ4",     "YZ3",
    "XYZ2", "XYZ", "X3Z",       "X3",        "Y3Z",       "Y3",   "Z7",   "Z8",       "Z9",      "Z10",
    "XZ5",  "YZ5", "(X2-Y2)Z3", "(X2-Y2)Z4", "(X2-Y2)Z5", "XYZ3", "XYZ4", "XYZ5",     "Z0"};

std::map<std::string, int> const ShimGradientsTOSK::mNameToIndex = inverted(mIndexToName);

ShimGradientsTOSK::ShimGradientsTOSK()
    : mValues(kSlots, 0) {}

bool ShimGradientsTOSK::areAllZeros() const {
    return std::all_of(mValues.begin(), mValues.end(), [](int aValue) { return aValue == 0; });
}

void ShimGradientsTOSK::copy(ShimGradientsTOSK const& aFrom, ShimGradientsTOSK& aTo) {
    for (std::size_t code = 0; code < kSlots; ++code) {
        aTo.mValues(code) = aFrom.mValues(code);
    }
}

int ShimGradientsTOSK::gradientsCount() {
    return static_cast<int>(mIndexToName.size());
}

std::string ShimGradientsTOSK::getGradientNameByCode(int aCode) {
    if (aCode < 0 || aCode >= gradientsCount()) {
        throw std::invalid_argument("There is no such TOSK gradient code: " + std::to_string(aCode));
    }
    return mIndexToName[static_cast<std::size_t>(aCode)];
}

int ShimGradientsTOSK::getGradientCodeByName(std::string const& aName) {
    auto const found = mNameToIndex.find(aName);
    if (found == mNameToIndex.end()) {
        throw std::invalid_argument("There is no TOSK gradient named '" + aName + "'");
    }
    return found->second;
}

boost::numeric::ublas::vector<int>& ShimGradientsTOSK::getVector() {
    return mValues;
}

int ShimGradientsTOSK::get(std::string const& aName) const {
    return mValues(static_cast<std::size_t>(getGradientCodeByName(aName)));
}

void ShimGradientsTOSK::set(std::string const& aName, int aValue) {
    mValues(static_cast<std::size_t>(getGradientCodeByName(aName))) = aValue;
}
