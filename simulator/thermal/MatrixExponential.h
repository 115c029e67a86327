// SPDX-License-Identifier: Apache-2.0
// The exponential of a small square matrix, by which a linear model is moved on exactly.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace libfieldwarden::sim {

/// exp(A) by scaling and squaring of the Taylor series (N. Higham, "Functions of Matrices", chapter 10), good
/// to rounding for the matrices of stable models. Any thread; costs some fifteen products and one for each
/// doubling of the norm.
/// @param aMatrix  Row after row.
/// @param aSize    Its rows and columns.
/// @throws std::invalid_argument  when the matrix does not have aSize squared finite elements.
std::vector<double> matrixExponential(std::span<double const> aMatrix, std::size_t aSize);

} // namespace libfieldwarden::sim
