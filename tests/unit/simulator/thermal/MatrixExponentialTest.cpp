// SPDX-License-Identifier: Apache-2.0
// The matrix exponential against those that are known in closed form.
#include "simulator/thermal/MatrixExponential.h"

#include <cmath>
#include <limits>
#include <numbers>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::matrixExponential;
using Matrix = std::vector<double>;

void expectNear(Matrix const& aFound, Matrix const& aWanted, double aTolerance) {
    ASSERT_EQ(aFound.size(), aWanted.size());
    for (std::size_t place = 0; place < aFound.size(); ++place) {
        EXPECT_NEAR(aFound[place], aWanted[place], aTolerance) << place;
    }
}

TEST(MatrixExponential, OfNothingIsTheIdentity) {
    expectNear(matrixExponential(Matrix(4, 0.0), 2), {1, 0, 0, 1}, 0.0);
}

TEST(MatrixExponential, OfADiagonalIsThatOfItsElements) {
    expectNear(matrixExponential(Matrix{-1, 0, 0, -30}, 2), {std::exp(-1.0), 0, 0, std::exp(-30.0)}, 1e-14);
}

TEST(MatrixExponential, OfAStepIsExact) {
    // Nilpotent: the series ends after the square, exp = 1 + N + N N / 2.
    expectNear(matrixExponential(Matrix{0, 1, 0, 0, 0, 1, 0, 0, 0}, 3), {1, 1, 0.5, 0, 1, 1, 0, 0, 1}, 1e-15);
}

TEST(MatrixExponential, OfARotationTurns) {
    double const angle = std::numbers::pi / 3.0;
    double const cosine = 0.5;
    double const sine = std::sqrt(3.0) / 2.0;
    expectNear(matrixExponential(Matrix{0, -angle, angle, 0}, 2), {cosine, -sine, sine, cosine}, 1e-14);
}

TEST(MatrixExponential, OfTwoHalvesIsTheSquareOfOne) {
    Matrix const whole{-4, 3, 1, -2};
    Matrix const half{-2, 1.5, 0.5, -1};
    Matrix const once = matrixExponential(half, 2);
    Matrix const square{once[0] * once[0] + once[1] * once[2], once[0] * once[1] + once[1] * once[3],
                        once[2] * once[0] + once[3] * once[2], once[2] * once[1] + once[3] * once[3]};
    expectNear(matrixExponential(whole, 2), square, 1e-14);
}

TEST(MatrixExponential, RefusesWhatIsNoSquareOfNumbers) {
    EXPECT_THROW(matrixExponential(Matrix(3, 0.0), 2), std::invalid_argument);
    EXPECT_THROW(matrixExponential(Matrix{std::numeric_limits<double>::infinity()}, 1),
                 std::invalid_argument);
    EXPECT_THROW(matrixExponential(Matrix{std::numeric_limits<double>::quiet_NaN()}, 1),
                 std::invalid_argument);
}

} // namespace
