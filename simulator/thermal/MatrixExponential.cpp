// SPDX-License-Identifier: Apache-2.0
// Scaling, the series, squaring.
#include "simulator/thermal/MatrixExponential.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace libfieldwarden::sim {

namespace {

using Matrix = std::vector<double>;

/// The series is taken where the norm is at most this; its eighteenth term is then below 1e-20.
constexpr double kLargestNorm = 0.5;
constexpr int kTerms = 18;

Matrix product(Matrix const& aLeft, Matrix const& aRight, std::size_t aSize) {
    Matrix result(aSize * aSize, 0.0);
    for (std::size_t row = 0; row < aSize; ++row) {
        for (std::size_t inner = 0; inner < aSize; ++inner) {
            double const factor = aLeft[row * aSize + inner];
            if (factor == 0.0) {
                continue;
            }
            for (std::size_t column = 0; column < aSize; ++column) {
                result[row * aSize + column] += factor * aRight[inner * aSize + column];
            }
        }
    }
    return result;
}

double largestRowSum(std::span<double const> aMatrix, std::size_t aSize) {
    double largest = 0.0;
    for (std::size_t row = 0; row < aSize; ++row) {
        double sum = 0.0;
        for (double const element : aMatrix.subspan(row * aSize, aSize)) {
            sum += std::abs(element);
        }
        largest = std::max(largest, sum);
    }
    return largest;
}

} // namespace

std::vector<double> matrixExponential(std::span<double const> aMatrix, std::size_t aSize) {
    bool const finite =
        std::all_of(aMatrix.begin(), aMatrix.end(), [](double aElement) { return std::isfinite(aElement); });
    if (aMatrix.size() != aSize * aSize || !finite) {
        throw std::invalid_argument("There is no exponential of what is no square matrix of numbers");
    }
    int halvings = 0;
    double norm = largestRowSum(aMatrix, aSize);
    while (norm > kLargestNorm) {
        norm /= 2.0;
        ++halvings;
    }
    Matrix scaled(aMatrix.begin(), aMatrix.end());
    for (double& element : scaled) {
        element = std::ldexp(element, -halvings);
    }
    Matrix result(aSize * aSize, 0.0);
    for (std::size_t place = 0; place < aSize; ++place) {
        result[place * aSize + place] = 1.0;
    }
    Matrix term = result;
    for (int number = 1; number <= kTerms; ++number) {
        term = product(term, scaled, aSize);
        for (std::size_t place = 0; place < term.size(); ++place) {
            term[place] /= number;
            result[place] += term[place];
        }
    }
    for (; halvings > 0; --halvings) {
        result = product(result, result, aSize);
    }
    return result;
}

} // namespace libfieldwarden::sim
