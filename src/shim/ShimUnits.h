// SPDX-License-Identifier: Apache-2.0
// The conversion between the units that users and shim files speak and the microamperes of the boards.
#pragma once

#include <vector>

/// Conversions between units and uA: 130000 units are 1 A. They do not round-trip: 1 unit is 8 uA, and 8 uA
/// are 1.04 units.
///
/// Any thread may call; nothing blocks.
class ShimUnits {
public:
    /// @param aMicroAmpere  uA.
    /// @return Units.
    static double toUnits(int aMicroAmpere);

    /// Element by element. @param aMicroAmpere  uA. @return Units, in the same order.
    static std::vector<double> toUnits(std::vector<int> const& aMicroAmpere);

    /// @param aUnits  -130000.0 to 130000.0; NaN is taken for 0.
    /// @return uA, rounded to the nearest, halves away from zero.
    /// @throws std::invalid_argument  when the value is out of range.
    static int touA(double const& aUnits);

    /// Element by element. @param aUnits  Each as above. @return uA, in the same order.
    /// @throws std::invalid_argument  when a value is out of range.
    static std::vector<int> touA(std::vector<double> const& aUnits);
};
