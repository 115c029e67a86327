// SPDX-License-Identifier: Apache-2.0
// The fixed vocabulary of shim gradients, and one integer value for each of them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <boost/numeric/ublas/vector.hpp>

/// The values of all shim gradients, in units, by gradient code.
///
/// There are 39 named gradients, codes 0 to 38. The vector has one slot more: slot 39 has no name and is out
/// of reach for get() and set(), yet areAllZeros(), copy() and the matrix products see it. This asymmetry is
/// intended, the 40 by 40 matrices count on it.
///
/// Not locked: an object belongs to one thread at a time. The static operations may be called from any
/// thread. Nothing blocks.
class ShimGradientsTOSK {
public:
    /// All 40 values are 0.
    ShimGradientsTOSK();

    /// @return Whether all 40 values are 0, the unnamed slot included.
    bool areAllZeros() const;

    /// Copies all 40 values.
    static void copy(ShimGradientsTOSK const& aFrom, ShimGradientsTOSK& aTo);

    /// @return 39, the number of names.
    static int gradientsCount();

    /// @param aCode  0 to 38.
    /// @throws std::invalid_argument  when there is no such code.
    static std::string getGradientNameByCode(int aCode);

    /// @param aName  Exact name, such as "XZ2" or "(X2-Y2)Z"; upper and lower case differ.
    /// @return The code, 0 to 38.
    /// @throws std::invalid_argument  when there is no such name.
    static int getGradientCodeByName(std::string const& aName);

    /// @return The 40 values themselves, in units, for the matrix code.
    boost::numeric::ublas::vector<int>& getVector();

    /// @return The gradient's value in units.
    /// @throws std::invalid_argument  when there is no such name.
    int get(std::string const& aName) const;

    /// @param aValue  Units; any value is taken. Its current is only checked by ShimUnits::touA().
    /// @throws std::invalid_argument  when there is no such name.
    void set(std::string const& aName, int aValue);

private:
    // NOLINTBEGIN(readability-identifier-naming): members, though every object shares them
    static std::vector<std::string> const mIndexToName;
    static std::map<std::string, int> const mNameToIndex;
    // NOLINTEND(readability-identifier-naming)

    boost::numeric::ublas::vector<int> mValues;
};
