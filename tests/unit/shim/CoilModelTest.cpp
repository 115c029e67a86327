// SPDX-License-Identifier: Apache-2.0
// The simulated coils: build data by hand arithmetic, superposition, and the wiring.
#include "simulator/magnet/CoilModel.h"

#include <cmath>
#include <set>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::CoilModel;
using libfieldwarden::sim::ShimSystem;

double term(CoilModel const& aModel, std::size_t aSource, std::string_view aName) {
    return aModel.response(aSource)[CoilModel::indexOf(aName)];
}

TEST(CoilModel, NamesEachHarmonicOnce) {
    std::set<std::string_view> names;
    for (auto const& harmonic : CoilModel::harmonics()) {
        names.insert(harmonic.name);
        EXPECT_EQ(CoilModel::harmonics()[CoilModel::indexOf(harmonic.name)].name, harmonic.name);
        EXPECT_LE(harmonic.order, harmonic.degree);
    }
    EXPECT_EQ(names.size(), CoilModel::kHarmonics);
    EXPECT_THROW(CoilModel::indexOf("Z11"), std::invalid_argument);
}

TEST(CoilModel, MakesOfTheAxialCoilItsHarmonicAndWhatComesWithIt) {
    CoilModel const model(ShimSystem::Wmxs1a);
    // Source 0 is the Z coil: 2600 Hz/cm at 1 A, moved by 0.032 cm along the bore. Its windings bring along
    // Z3 with -0.30 / 2^2 = -0.075 per cm^2: -195 Hz/cm^3. Of Z3 the shift makes 3 d^2 = 0.003072 of Z and -3
    // d = -0.096 of Z2.
    EXPECT_DOUBLE_EQ(term(model, 0, "Z3"), -195.0);
    EXPECT_DOUBLE_EQ(term(model, 0, "Z2"), -0.096 * -195.0);
    EXPECT_DOUBLE_EQ(term(model, 0, "Z"), 2600.0 + 0.003072 * -195.0);
    EXPECT_DOUBLE_EQ(term(model, 0, "Z0"), 2600.0 * -0.032 + -195.0 * std::pow(-0.032, 3));
    EXPECT_EQ(term(model, 0, "X"), 0.0);
    EXPECT_EQ(term(model, 0, "Z5"), 0.0);
}

TEST(CoilModel, TurnsATransverseCoilIntoItsPartner) {
    CoilModel const model(ShimSystem::Wmxs1a);
    // Source 13 is the X coil, turned by phi with tan(phi/2) = 0.008: the sine is 0.016 / (1 + 0.000064), the
    // cosine (1 - 0.000064) / (1 + 0.000064). XZ2 comes along with -0.075, of which the shift of 0.041 cm
    // makes d^2 = 0.001681 of X: 1950 * (1 - 0.075 * 0.001681) = 1949.754…
    double const strength = 1950.0 * (1.0 - 0.075 * 0.001681);
    EXPECT_NEAR(term(model, 13, "X"), strength * 0.999936 / 1.000064, 1e-9);
    EXPECT_NEAR(term(model, 13, "Y"), strength * 0.016 / 1.000064, 1e-9);
    // Source 18 is the Y coil, turned by tan(phi/2) = -0.006: it makes -sin(phi) of X, which is positive.
    EXPECT_GT(term(model, 18, "X"), 0.0);
    EXPECT_NEAR(term(model, 18, "X") / term(model, 18, "Y"), 0.012 / 0.999964, 1e-12);
}

TEST(CoilModel, ScalesWithTheRadiusOfTheBody) {
    // Z7 (source 16) in the bodies of 1.6 cm and 2.5 cm: 65 * (2 / a)^7; nothing else reaches it that Z7 does
    // not feed itself, but for Z9, which comes along with upper / a^2 and returns by binom(9, 2) d^2.
    double const shift1c = 0.5 * 0.0170;
    double const shift2a = 1.2 * 0.0170;
    EXPECT_NEAR(term(CoilModel(ShimSystem::Wmxs1c), 16, "Z7"),
                65.0 * std::pow(1.25, 7) * (1.0 - 0.25 / 2.56 * 36.0 * shift1c * shift1c), 1e-9);
    EXPECT_NEAR(term(CoilModel(ShimSystem::Wmxs2a), 16, "Z7"),
                65.0 * std::pow(0.8, 7) * (1.0 - 0.33 / 6.25 * 36.0 * shift2a * shift2a), 1e-9);
}

TEST(CoilModel, FitsSixCoilsBySystem) {
    // Source 31 (board 2, source 14) is (X2-Y2)Z4 in all bodies but the second, where it is Z8.
    EXPECT_GT(std::abs(term(CoilModel(ShimSystem::Wmxs1a), 32, "(X2-Y2)Z4")), 100.0);
    EXPECT_EQ(term(CoilModel(ShimSystem::Wmxs1b), 32, "(X2-Y2)Z4"), 0.0);
    EXPECT_GT(term(CoilModel(ShimSystem::Wmxs1b), 32, "Z8"), 38.0);
}

TEST(CoilModel, AddsUpTheSources) {
    CoilModel const model(ShimSystem::Wmxs2a);
    std::array<double, CoilModel::kSources> currents{};
    for (double const value : model.field(currents)) {
        EXPECT_EQ(value, 0.0);
    }
    currents[0] = 0.25;
    currents[33] = -0.5;
    auto const field = model.field(currents);
    for (std::size_t i = 0; i < CoilModel::kHarmonics; ++i) {
        EXPECT_DOUBLE_EQ(field[i], 0.25 * model.response(0)[i] - 0.5 * model.response(33)[i]);
    }
}

TEST(CoilModel, RefusesASourceThatIsNotThere) {
    CoilModel const model(ShimSystem::Wmxs1a);
    EXPECT_THROW((void)model.response(34), std::out_of_range);
    EXPECT_THROW(CoilModel(static_cast<ShimSystem>(4)), std::invalid_argument);
}

} // namespace
