// SPDX-License-Identifier: Apache-2.0
// What the shim service needs of a shim matrix.
#pragma once

#include <string>

#include <boost/numeric/ublas/vector.hpp>

class ShimGradientsTOSK;

/// The relation between the gradients that a user adjusts and the coils that make them. Implementations do
/// not change after construction, so any thread may call, on vectors of its own; nothing blocks.
class AbstractShimMatrix {
public:
    AbstractShimMatrix() = default;
    virtual ~AbstractShimMatrix() = default;
    AbstractShimMatrix(AbstractShimMatrix const&) = default;
    AbstractShimMatrix& operator=(AbstractShimMatrix const&) = default;

    /// @param aGradients  In units; not changed.
    /// @return The coils' values in units, by coil number, 40 of them.
    virtual boost::numeric::ublas::vector<double> gradientsToCoils(ShimGradientsTOSK* aGradients) = 0;

    /// @param aCoils      The coils' values in units, by coil number, 40 of them; not changed.
    /// @param aGradients  Takes the gradients in units, all 40 slots.
    /// @throws std::out_of_range  when there are fewer than 40 coils.
    virtual void coilsToGradients(boost::numeric::ublas::vector<double>* aCoils,
                                  ShimGradientsTOSK* aGradients) = 0;

    /// @return The names of the gradients that have a weight, separated by blanks, in the order of the matrix
    /// file.
    virtual std::string getNamesOfActiveShimGradients() = 0;
};
