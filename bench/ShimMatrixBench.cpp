// SPDX-License-Identifier: Apache-2.0
// What a gradient change costs on its way to the boards' currents, beside the same arithmetic with Eigen's
// fixed-size types, and what it costs to load a matrix file.
#include "shim/ShimCoilToCurrentSource.h"
#include "shim/ShimGradientsTOSK.h"
#include "shim/ShimMatrixTOSK.h"
#include "shim/ShimUnits.h"
#include "support/AllocationCount.h"
#include "support/TemporaryDirectory.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <Eigen/Core>

namespace {

using libfieldwarden::test::allocationsOfThisThread;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;

constexpr int kSize = 40;
constexpr double kWeight = 1.5;

/// An element of the test matrices: small, none of them 0.
double element(int aRow, int aColumn) {
    return ((aRow * 7 + aColumn * 13) % 21 - 10.5) / 100.0;
}

int gradient(int aCode) {
    return (aCode * 37) % 401 - 200;
}

/// A matrix file with every element of both matrices, repeated as often as the number of relations demands.
std::string toskText(int aEntries) {
    std::string text = "% a matrix for measuring\nM 1 G bench\n";
    for (int entry = 0; entry < aEntries; ++entry) {
        int const i = entry / 2 / kSize % kSize;
        int const j = entry / 2 % kSize;
        text += (entry % 2 == 0 ? "F " : "I ") + std::to_string(i + 1) + ' ' + std::to_string(j + 1) + ' ' +
                std::to_string(element(i, j)) + '\n';
    }
    for (int code = 0; code < kSize - 1; ++code) {
        text += "V " + std::to_string(code + 1) + ' ' + std::to_string(kWeight) + '\n';
    }
    return text + "E\n";
}

std::unique_ptr<ShimMatrixTOSK> fullMatrix() {
    TemporaryDirectory const directory;
    std::string const path = (directory.path() / "full.dat").string();
    writeFile(path, toskText(2 * kSize * kSize));
    return std::make_unique<ShimMatrixTOSK>(path);
}

ShimGradientsTOSK someGradients() {
    ShimGradientsTOSK gradients;
    for (int code = 0; code < ShimGradientsTOSK::gradientsCount(); ++code) {
        gradients.set(ShimGradientsTOSK::getGradientNameByCode(code), gradient(code));
    }
    return gradients;
}

void countAllocations(benchmark::State& aState, std::size_t aBefore) {
    aState.counters["allocations"] = benchmark::Counter(
        static_cast<double>(allocationsOfThisThread() - aBefore), benchmark::Counter::kAvgIterations);
}

// --- the product alone

void productOurs(benchmark::State& aState) {
    auto const matrix = fullMatrix();
    ShimGradientsTOSK gradients = someGradients();
    auto const before = allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(gradients);
        auto coils = matrix->gradientsToCoils(&gradients);
        benchmark::DoNotOptimize(coils.data().begin());
        benchmark::ClobberMemory();
    }
    countAllocations(aState, before);
}
BENCHMARK(productOurs)->Name("gradientsToCoils/fieldwarden");

/// The same numbers in fixed-size types.
struct EigenShim {
    EIGEN_MAKE_ALIGNED_OPERATOR_NEW

    Eigen::Matrix<double, kSize, kSize, Eigen::RowMajor> forward;
    Eigen::Array<double, 1, kSize> sensitivity;

    EigenShim() {
        for (int i = 0; i < kSize; ++i) {
            sensitivity(i) = i < kSize - 1 ? kWeight : 0.0;
            for (int j = 0; j < kSize; ++j) {
                forward(i, j) = std::stod(std::to_string(element(i, j)));
            }
        }
    }

    Eigen::Matrix<double, 1, kSize> gradientsToCoils(Eigen::Array<int, 1, kSize> const& aGradients) const {
        Eigen::Matrix<double, 1, kSize> const weighted =
            (aGradients.cast<double>() * sensitivity).cast<int>().cast<double>().matrix();
        return weighted * forward;
    }
};

Eigen::Array<int, 1, kSize> someEigenGradients() {
    Eigen::Array<int, 1, kSize> gradients;
    for (int code = 0; code < kSize; ++code) {
        gradients(code) = code < kSize - 1 ? gradient(code) : 0;
    }
    return gradients;
}

void productEigen(benchmark::State& aState) {
    auto const shim = std::make_unique<EigenShim>();
    auto gradients = someEigenGradients();
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(gradients);
        auto coils = shim->gradientsToCoils(gradients);
        benchmark::DoNotOptimize(coils);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(productEigen)->Name("gradientsToCoils/eigen");

// --- the whole way to the boards

void chainOurs(benchmark::State& aState) {
    auto const matrix = fullMatrix();
    ShimGradientsTOSK gradients = someGradients();
    std::vector<double> board1(17);
    std::vector<double> board2(17);
    auto const before = allocationsOfThisThread();
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(gradients);
        auto coils = matrix->gradientsToCoils(&gradients);
        ShimCoilToCurrentSource::convert(&coils, &board1, &board2);
        auto currents1 = ShimUnits::touA(board1);
        auto currents2 = ShimUnits::touA(board2);
        benchmark::DoNotOptimize(currents1.data());
        benchmark::DoNotOptimize(currents2.data());
        benchmark::ClobberMemory();
    }
    countAllocations(aState, before);
}
BENCHMARK(chainOurs)->Name("gradientsToCoils+convert+touA/fieldwarden");

constexpr std::array<int, 34> kCoilOfSource{0,  12, 33, 11, 2,  3,  14, 15, 1,  18, 16, 19,
                                            17, 7,  4,  5,  6,  37, 9,  13, 26, 27, 30, 38,
                                            24, 36, 22, 31, 21, 25, 23, 28, 29, 20};

Eigen::Array<int, 1, 34> eigenCurrents(EigenShim const& aShim,
                                       Eigen::Array<int, 1, kSize> const& aGradients) {
    Eigen::Matrix<double, 1, kSize> const coils = aShim.gradientsToCoils(aGradients);
    Eigen::Array<double, 1, 34> units;
    for (int source = 0; source < 34; ++source) {
        units(source) = coils(kCoilOfSource[static_cast<std::size_t>(source)]);
    }
    if ((units < -130000.0).any() || (units > 130000.0).any()) {
        throw std::invalid_argument("out of range");
    }
    return (units * 7.692307692307692).unaryExpr([](double aValue) {
        return static_cast<int>(std::round(aValue));
    });
}

void chainEigen(benchmark::State& aState) {
    auto const shim = std::make_unique<EigenShim>();
    auto gradients = someEigenGradients();

    // Both sides must compute the same, or the figures say nothing.
    auto const matrix = fullMatrix();
    ShimGradientsTOSK ours = someGradients();
    auto coils = matrix->gradientsToCoils(&ours);
    std::vector<double> board1(17);
    std::vector<double> board2(17);
    ShimCoilToCurrentSource::convert(&coils, &board1, &board2);
    auto expected = ShimUnits::touA(board1);
    auto const second = ShimUnits::touA(board2);
    expected.insert(expected.end(), second.begin(), second.end());
    auto const currents = eigenCurrents(*shim, gradients);
    if (!std::equal(expected.begin(), expected.end(), currents.data())) {
        aState.SkipWithError("Eigen's currents are others than ours");
        return;
    }

    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(gradients);
        auto result = eigenCurrents(*shim, gradients);
        benchmark::DoNotOptimize(result);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(chainEigen)->Name("gradientsToCoils+convert+touA/eigen");

// --- loading

void load(benchmark::State& aState) {
    TemporaryDirectory const directory;
    std::string const path = (directory.path() / "matrix.dat").string();
    std::string const text = toskText(static_cast<int>(aState.range(0)));
    writeFile(path, text);
    for ([[maybe_unused]] auto _ : aState) {
        ShimMatrixTOSK matrix(path);
        benchmark::DoNotOptimize(&matrix);
    }
    aState.SetComplexityN(aState.range(0));
    aState.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * aState.iterations());
}
BENCHMARK(load)
    ->Name("loadMatrix/entries")
    ->Arg(1000)
    ->Arg(5000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity(benchmark::oN);

} // namespace
