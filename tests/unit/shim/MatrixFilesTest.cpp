// SPDX-License-Identifier: Apache-2.0
// The stored matrix files of the four shim systems: what they name, that they invert, and that the simulated
// coils make of them the gradient that was asked for.
#include "shim/ShimCoilToCurrentSource.h"
#include "shim/ShimGradientsTOSK.h"
#include "shim/ShimMatrixManager.h"
#include "shim/ShimUnits.h"
#include "simulator/magnet/CoilModel.h"

#include <array>
#include <cmath>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

namespace ublas = boost::numeric::ublas;
using libfieldwarden::sim::CoilModel;
using libfieldwarden::sim::ShimSystem;

struct System {
    ShimSysType type;
    ShimSystem coils;
    char const* name;
    double bodyRadiusCm;
    std::set<std::string> passive; ///< The five harmonics that no coil steers.
};

void PrintTo(System const& aSystem, std::ostream* aStream) {
    *aStream << aSystem.name;
}

class MatrixFiles : public testing::TestWithParam<System> {
protected:
    std::shared_ptr<ShimMatrixTOSK> load() const {
        return ShimMatrixManager(MATRIX_DIRECTORY, "").get(GetParam().type);
    }
    std::vector<std::string> active() const {
        std::istringstream names(load()->getNamesOfActiveShimGradients());
        return {std::istream_iterator<std::string>(names), {}};
    }
};

/// Currents by source in units, as the shim service computes them.
std::vector<double> unitsOf(ShimMatrixTOSK& aMatrix, ShimGradientsTOSK& aGradients) {
    auto coils = aMatrix.gradientsToCoils(&aGradients);
    std::vector<double> board1(17);
    std::vector<double> board2(17);
    ShimCoilToCurrentSource::convert(&coils, &board1, &board2);
    board1.insert(board1.end(), board2.begin(), board2.end());
    return board1;
}

/// What the boards drive, in A.
std::array<double, CoilModel::kSources> currentsOf(ShimMatrixTOSK& aMatrix, ShimGradientsTOSK& aGradients) {
    std::vector<int> const microAmpere = ShimUnits::touA(unitsOf(aMatrix, aGradients));
    std::array<double, CoilModel::kSources> ampere{};
    for (std::size_t source = 0; source < ampere.size(); ++source) {
        ampere[source] = microAmpere[source] * 1e-6;
    }
    return ampere;
}

/// What a user's unit is worth in units of the coil: the V lines of the files.
int weightOf(int aDegree) {
    if (aDegree == 0) {
        return 10;
    }
    return aDegree <= 3 ? 1 : aDegree <= 5 ? 2 : 4;
}

/// What a coil makes of its own harmonic at 1 A in a body of 2 cm radius, in Hz/cm^n.
double efficiencyAt2cm(std::string const& aName) {
    static std::map<std::string, double> const kEfficiency{
        {"Z0", 1300},       {"Z", 2600},        {"Z2", 1300},  {"Z3", 650},       {"Z4", 390},
        {"Z5", 260},        {"Z6", 130},        {"Z7", 65},    {"Z8", 39},        {"Z9", 26},
        {"X", 1950},        {"Y", 1950},        {"XZ", 1300},  {"YZ", 1300},      {"XZ2", 780},
        {"YZ2", 780},       {"XZ3", 390},       {"YZ3", 390},  {"XZ4", 195},      {"YZ4", 195},
        {"XZ5", 97.5},      {"YZ5", 97.5},      {"XY", 1040},  {"(X2-Y2)", 1040}, {"(X2-Y2)Z", 650},
        {"XYZ", 650},       {"(X2-Y2)Z2", 325}, {"XYZ2", 325}, {"XYZ3", 195},     {"(X2-Y2)Z3", 195},
        {"(X2-Y2)Z4", 104}, {"XYZ4", 104},      {"X3", 520},   {"Y3", 520},       {"X3Z", 260},
        {"Y3Z", 260}};
    return kEfficiency.at(aName);
}

TEST_P(MatrixFiles, SteerThirtyFourGradientsAndLeaveFive) {
    std::vector<std::string> const names = active();
    EXPECT_EQ(names.size(), 34U);
    std::set<std::string> missing;
    for (int code = 0; code < ShimGradientsTOSK::gradientsCount(); ++code) {
        missing.insert(ShimGradientsTOSK::getGradientNameByCode(code));
    }
    for (std::string const& name : names) {
        missing.erase(name);
    }
    EXPECT_EQ(missing, GetParam().passive);
}

TEST_P(MatrixFiles, HoldAnInverseThatIsOne) {
    // Exported with 11 digits: elements of about 1 are known to 5e-11, and no row of either matrix has more
    // than 12 of them, so that each element of the product is right to 12 * 2 * 5e-11 * 1.1, say 2e-9. The
    // weights that the export folds in (1 to 10) can make that ten times more: weight of the row over weight
    // of the column.
    std::map<std::pair<int, int>, double> forward;
    std::map<std::pair<int, int>, double> inverse;
    std::istringstream text(load()->exportForwardAndInverse());
    char tag = 0;
    int row = 0;
    int column = 0;
    double value = 0.0;
    while (text >> tag >> row >> column >> value) {
        (tag == 'F' ? forward : inverse)[{row, column}] = value;
    }
    ASSERT_GE(forward.size(), 34U);
    ASSERT_GE(inverse.size(), 34U);
    std::map<std::pair<int, int>, double> product;
    for (auto const& [left, a] : forward) {
        for (auto const& [right, b] : inverse) {
            if (left.second == right.first) {
                product[{left.first, right.second}] += a * b;
            }
        }
    }
    int diagonal = 0;
    for (auto const& [index, element] : product) {
        bool const same = index.first == index.second;
        diagonal += same ? 1 : 0;
        EXPECT_NEAR(element, same ? 1.0 : 0.0, 2e-8) << index.first << ' ' << index.second;
    }
    EXPECT_EQ(diagonal, 34);
}

TEST_P(MatrixFiles, GiveBackEveryGradientThroughTheBoards) {
    auto const matrix = load();
    for (std::string const& name : active()) {
        ShimGradientsTOSK gradients;
        gradients.set(name, 2500);
        std::vector<int> const microAmpere = ShimUnits::touA(unitsOf(*matrix, gradients));
        std::vector<double> units = ShimUnits::toUnits(microAmpere);
        std::vector<double> board1(units.begin(), units.begin() + 17);
        std::vector<double> board2(units.begin() + 17, units.end());
        ublas::vector<double> coils(40, 0.0);
        ShimCoilToCurrentSource::convert_back(&board1, &board2, &coils);
        ShimGradientsTOSK back;
        matrix->coilsToGradients(&coils, &back);
        // Rounding to 1 uA shifts a coil by at most 0.5 uA = 0.065 units, and a row of the inverse, whose
        // elements add up to less than 2, a gradient by 0.13: it rounds to the whole unit that it was.
        for (int code = 0; code < ShimGradientsTOSK::gradientsCount(); ++code) {
            std::string const other = ShimGradientsTOSK::getGradientNameByCode(code);
            EXPECT_EQ(back.get(other), other == name ? 2500 : 0) << name << " in " << other;
        }
    }
}

TEST_P(MatrixFiles, MakeThePureGradientInTheSimulatedMagnet) {
    auto const matrix = load();
    CoilModel const model(GetParam().coils);
    for (std::string const& name : active()) {
        constexpr int kValue = 3000;
        ShimGradientsTOSK gradients;
        gradients.set(name, kValue);
        auto const field = model.field(currentsOf(*matrix, gradients));

        std::size_t const wanted = CoilModel::indexOf(name);
        for (std::size_t i = 0; i < CoilModel::kHarmonics; ++i) {
            auto const& harmonic = CoilModel::harmonics()[i];
            if (GetParam().passive.count(std::string(harmonic.name)) != 0) {
                continue;
            }
            // Each of the 34 currents is right to 0.5 uA, so that a term is right to the sum of what 0.5 uA
            // of each source would make of it.
            double tolerance = 1e-9;
            for (std::size_t source = 0; source < CoilModel::kSources; ++source) {
                tolerance += 0.5e-6 * std::abs(model.response(source)[i]);
            }
            double expected = 0.0;
            if (i == wanted) {
                // value times weight units, each worth 1/130000 A in the gradient's own coil
                expected = kValue * weightOf(harmonic.degree) * efficiencyAt2cm(name) *
                           std::pow(2.0 / GetParam().bodyRadiusCm, harmonic.degree) / 130000.0;
            }
            EXPECT_NEAR(field[i], expected, tolerance) << name << " in " << harmonic.name;
        }
    }
}

TEST_P(MatrixFiles, LeaveLittleInTheHarmonicsThatNobodySteers) {
    auto const matrix = load();
    CoilModel const model(GetParam().coils);
    constexpr double kSampleRadiusCm = 0.25;
    for (std::string const& name : active()) {
        ShimGradientsTOSK gradients;
        gradients.set(name, 3000);
        auto const field = model.field(currentsOf(*matrix, gradients));
        std::size_t const wanted = CoilModel::indexOf(name);
        auto const atSample = [&](std::size_t aIndex) {
            return std::abs(field[aIndex]) * std::pow(kSampleRadiusCm, CoilModel::harmonics()[aIndex].degree);
        };
        for (std::string const& passive : GetParam().passive) {
            // A tenth of the gradient itself at the sample's edge.
            EXPECT_LT(atSample(CoilModel::indexOf(passive)), 0.1 * atSample(wanted))
                << name << " in " << passive;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All,
                         MatrixFiles,
                         testing::Values(System{ShimSysType::Wmxs1a,
                                                ShimSystem::Wmxs1a,
                                                "wmxs1a",
                                                2.0,
                                                {"Z8", "Z9", "Z10", "(X2-Y2)Z5", "XYZ5"}},
                                         System{ShimSysType::Wmxs1b,
                                                ShimSystem::Wmxs1b,
                                                "wmxs1b",
                                                2.0,
                                                {"Z10", "(X2-Y2)Z4", "XYZ4", "(X2-Y2)Z5", "XYZ5"}},
                                         System{ShimSysType::Wmxs1c,
                                                ShimSystem::Wmxs1c,
                                                "wmxs1c",
                                                1.6,
                                                {"Z10", "XZ5", "YZ5", "(X2-Y2)Z5", "XYZ5"}},
                                         System{ShimSysType::Wmxs2a,
                                                ShimSystem::Wmxs2a,
                                                "wmxs2a",
                                                2.5,
                                                {"Z10", "X3Z", "Y3Z", "(X2-Y2)Z5", "XYZ5"}}),
                         [](testing::TestParamInfo<System> const& aInfo) {
                             return std::string(aInfo.param.name);
                         });

} // namespace
