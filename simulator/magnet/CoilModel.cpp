// SPDX-License-Identifier: Apache-2.0
// The build data of the four shim systems, and the field that follows from it.
#include "simulator/magnet/CoilModel.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>

namespace libfieldwarden::sim {

namespace {

constexpr std::array<Harmonic, CoilModel::kHarmonics> kHarmonicTable{{
    {"Z0", 0, 0, false},        {"Z", 1, 0, false},         {"Z2", 2, 0, false},
    {"Z3", 3, 0, false},        {"Z4", 4, 0, false},        {"Z5", 5, 0, false},
    {"Z6", 6, 0, false},        {"Z7", 7, 0, false},        {"Z8", 8, 0, false},
    {"Z9", 9, 0, false},        {"Z10", 10, 0, false},      {"X", 1, 1, false},
    {"XZ", 2, 1, false},        {"XZ2", 3, 1, false},       {"XZ3", 4, 1, false},
    {"XZ4", 5, 1, false},       {"XZ5", 6, 1, false},       {"Y", 1, 1, true},
    {"YZ", 2, 1, true},         {"YZ2", 3, 1, true},        {"YZ3", 4, 1, true},
    {"YZ4", 5, 1, true},        {"YZ5", 6, 1, true},        {"(X2-Y2)", 2, 2, false},
    {"(X2-Y2)Z", 3, 2, false},  {"(X2-Y2)Z2", 4, 2, false}, {"(X2-Y2)Z3", 5, 2, false},
    {"(X2-Y2)Z4", 6, 2, false}, {"(X2-Y2)Z5", 7, 2, false}, {"XY", 2, 2, true},
    {"XYZ", 3, 2, true},        {"XYZ2", 4, 2, true},       {"XYZ3", 5, 2, true},
    {"XYZ4", 6, 2, true},       {"XYZ5", 7, 2, true},       {"X3", 3, 3, false},
    {"X3Z", 4, 3, false},       {"Y3", 3, 3, true},         {"Y3Z", 4, 3, true},
}};

constexpr int kCommon = -1;

/// A coil as it was built: its harmonic, what it makes of that at 1 A in a body of 2 cm radius, and how it
/// sits.
struct Coil {
    std::string_view harmonic{};
    double efficiency = 0.0;        ///< Hz/cm^degree per ampere.
    double shiftCm = 0.0;           ///< Along the bore.
    double tangentOfHalfTurn = 0.0; ///< Of the angle by which it is turned about the bore.
    int special = kCommon;          ///< Which of the body's special coils is meant instead.
};

struct Body {
    double radiusCm;
    double upper;       ///< Share of the harmonic two degrees higher, times the radius in cm squared.
    double lower;       ///< Share of the one two degrees lower, divided by the radius in cm squared.
    double shiftFactor; ///< On the shifts of the coils.
    double turnFactor;  ///< On the turns of the coils.
    /// What the six coils are that differ between the systems.
    std::array<Coil, 6> special;
};

// The wiring, source by source.
constexpr std::array<Coil, CoilModel::kSources> kCoils{{
    // board 1
    {"Z", 2600.0, 0.0320, 0.0},
    {"YZ", 1300.0, -0.0160, 0.005},
    {.special = 3},
    {"XZ", 1300.0, 0.0220, 0.011},
    {"Z3", 650.0, 0.0140, 0.0},
    {"Z4", 390.0, -0.0380, 0.0},
    {"XY", 1040.0, -0.0430, 0.007},
    {"XZ2", 780.0, 0.0120, -0.004},
    {"Z2", 1300.0, -0.0210, 0.0},
    {"XYZ", 650.0, 0.0190, -0.008},
    {"YZ2", 780.0, 0.0360, 0.010},
    {"X3", 520.0, -0.0310, 0.005},
    {"(X2-Y2)Z", 650.0, -0.0240, 0.006},
    {"X", 1950.0, 0.0410, 0.008},
    {"Z5", 260.0, 0.0250, 0.0},
    {"Z6", 130.0, -0.0090, 0.0},
    {"Z7", 65.0, 0.0170, 0.0},
    // board 2
    {.special = 5},
    {"Y", 1950.0, -0.0350, -0.006},
    {"(X2-Y2)", 1040.0, 0.0270, -0.009},
    {"YZ4", 195.0, -0.0180, 0.006},
    {"(X2-Y2)Z3", 195.0, 0.0260, -0.006},
    {.special = 1},
    {"Z0", 1300.0, 0.0100, 0.0},
    {"XYZ2", 325.0, -0.0290, 0.012},
    {.special = 4},
    {"YZ3", 390.0, 0.0330, -0.005},
    {.special = 2},
    {"XZ3", 390.0, -0.0110, 0.009},
    {"XZ4", 195.0, 0.0230, -0.010},
    {"(X2-Y2)Z2", 325.0, 0.0150, 0.004},
    {"XYZ3", 195.0, -0.0130, 0.008},
    {.special = 0},
    {"Y3", 520.0, 0.0280, -0.007},
}};

constexpr Body kBody1a{2.0,
                       -0.30,
                       0.020,
                       1.0,
                       1.0,
                       {{{"(X2-Y2)Z4", 104.0, 0.0200, 0.007},
                         {"XYZ4", 104.0, -0.0270, -0.009},
                         {"XZ5", 97.5, 0.0160, 0.005},
                         {"YZ5", 97.5, -0.0220, -0.004},
                         {"X3Z", 260.0, 0.0240, 0.010},
                         {"Y3Z", 260.0, -0.0150, -0.008}}}};
constexpr Body kBody1b{2.0,
                       -0.28,
                       0.022,
                       -0.8,
                       0.6,
                       {{{"Z8", 39.0, 0.0200, 0.007},
                         {"Z9", 26.0, -0.0270, -0.009},
                         {"XZ5", 97.5, 0.0160, 0.005},
                         {"YZ5", 97.5, -0.0220, -0.004},
                         {"X3Z", 260.0, 0.0240, 0.010},
                         {"Y3Z", 260.0, -0.0150, -0.008}}}};
constexpr Body kBody1c{1.6,
                       -0.25,
                       0.018,
                       0.5,
                       -1.0,
                       {{{"(X2-Y2)Z4", 104.0, 0.0200, 0.007},
                         {"XYZ4", 104.0, -0.0270, -0.009},
                         {"Z8", 39.0, 0.0160, 0.005},
                         {"Z9", 26.0, -0.0220, -0.004},
                         {"X3Z", 260.0, 0.0240, 0.010},
                         {"Y3Z", 260.0, -0.0150, -0.008}}}};
constexpr Body kBody2a{2.5,
                       -0.33,
                       0.015,
                       1.2,
                       1.5,
                       {{{"(X2-Y2)Z4", 104.0, 0.0200, 0.007},
                         {"XYZ4", 104.0, -0.0270, -0.009},
                         {"XZ5", 97.5, 0.0160, 0.005},
                         {"YZ5", 97.5, -0.0220, -0.004},
                         {"Z8", 39.0, 0.0240, 0.010},
                         {"Z9", 26.0, -0.0150, -0.008}}}};

Body const& bodyOf(ShimSystem aSystem) {
    switch (aSystem) {
        case ShimSystem::Wmxs1a:
            return kBody1a;
        case ShimSystem::Wmxs1b:
            return kBody1b;
        case ShimSystem::Wmxs1c:
            return kBody1c;
        case ShimSystem::Wmxs2a:
            return kBody2a;
    }
    throw std::invalid_argument("the simulated magnet has no such shim system");
}

Coil const& coilAt(std::size_t aSource, Body const& aBody) {
    Coil const& coil = kCoils[aSource];
    return coil.special == kCommon ? coil : aBody.special[static_cast<std::size_t>(coil.special)];
}

std::optional<std::size_t> placeOf(int aDegree, int aOrder, bool aSine) {
    auto const found =
        std::find_if(kHarmonicTable.begin(), kHarmonicTable.end(), [&](Harmonic const& aHarmonic) {
            return aHarmonic.degree == aDegree && aHarmonic.order == aOrder && aHarmonic.sine == aSine;
        });
    if (found == kHarmonicTable.end()) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(found - kHarmonicTable.begin());
}

using Terms = std::array<double, CoilModel::kHarmonics>;

/// Adds one harmonic of a coil that is moved by aShiftCm along the bore and turned by aTurn about it. With u
/// the harmonic normalised on z, u_n(z - d) is the sum over k of binom(n - m, k) (-d)^k u_(n-k): the
/// derivative of u_n along z is (n - m) u_(n-1).
void addDisplaced(Terms& aTerms, Harmonic const& aHarmonic, double aStrength, double aShiftCm, double aTurn) {
    double const cosine = std::cos(aHarmonic.order * aTurn);
    double const sine = std::sin(aHarmonic.order * aTurn) * (aHarmonic.sine ? -1.0 : 1.0);
    double strength = aStrength;
    for (int degree = aHarmonic.degree; degree >= aHarmonic.order; --degree) {
        if (auto const same = placeOf(degree, aHarmonic.order, aHarmonic.sine)) {
            aTerms[*same] += strength * cosine;
        }
        if (auto const partner = placeOf(degree, aHarmonic.order, !aHarmonic.sine)) {
            aTerms[*partner] += strength * sine;
        }
        // The next binomial coefficient from this one: times (n - m - k) / (k + 1).
        strength *= -aShiftCm * (degree - aHarmonic.order) / (aHarmonic.degree - degree + 1);
    }
}

Terms responseOf(Coil const& aCoil, Body const& aBody) {
    Harmonic const wanted = kHarmonicTable[CoilModel::indexOf(aCoil.harmonic)];
    double const area = aBody.radiusCm * aBody.radiusCm;
    double const strength = aCoil.efficiency * std::pow(2.0 / aBody.radiusCm, wanted.degree);
    double const shift = aCoil.shiftCm * aBody.shiftFactor;
    double const turn = 2.0 * std::atan(aCoil.tangentOfHalfTurn * aBody.turnFactor);

    Terms terms{};
    addDisplaced(terms, wanted, strength, shift, turn);
    if (auto const above = placeOf(wanted.degree + 2, wanted.order, wanted.sine)) {
        addDisplaced(terms, kHarmonicTable[*above], strength * aBody.upper / area, shift, turn);
    }
    if (auto const below = placeOf(wanted.degree - 2, wanted.order, wanted.sine)) {
        addDisplaced(terms, kHarmonicTable[*below], strength * aBody.lower * area, shift, turn);
    }
    return terms;
}

} // namespace

CoilModel::CoilModel(ShimSystem aSystem) {
    Body const& body = bodyOf(aSystem);
    for (std::size_t source = 0; source < kSources; ++source) {
        mResponse[source] = responseOf(coilAt(source, body), body);
    }
}

std::span<Harmonic const, CoilModel::kHarmonics> CoilModel::harmonics() noexcept {
    return kHarmonicTable;
}

std::size_t CoilModel::indexOf(std::string_view aName) {
    for (std::size_t i = 0; i < kHarmonics; ++i) {
        if (kHarmonicTable[i].name == aName) {
            return i;
        }
    }
    throw std::invalid_argument("there is no harmonic named '" + std::string(aName) + "'");
}

std::array<double, CoilModel::kHarmonics> CoilModel::field(
    std::span<double const, kSources> aCurrentsAmpere) const noexcept {
    Terms sum{};
    for (std::size_t source = 0; source < kSources; ++source) {
        for (std::size_t i = 0; i < kHarmonics; ++i) {
            sum[i] += aCurrentsAmpere[source] * mResponse[source][i];
        }
    }
    return sum;
}

std::array<double, CoilModel::kHarmonics> const& CoilModel::response(std::size_t aSource) const {
    return mResponse.at(aSource);
}

} // namespace libfieldwarden::sim
