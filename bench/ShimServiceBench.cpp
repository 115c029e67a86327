// SPDX-License-Identifier: Apache-2.0
// What the change of one gradient costs in the shim service, beside the bare conversion that it needs.
#include "shim/ShimCoilToCurrentSource.h"
#include "shim/ShimGradientsTOSK.h"
#include "shim/ShimHardwareQ47.h"
#include "shim/ShimMatrixTOSK.h"
#include "shim/ShimUnits.h"
#include "support/TemporaryDirectory.h"
#include "unit/shim/ShimBoardFixture.h"

#include <fieldwarden/ShimListenerInterface.h>

#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <boost/numeric/ublas/vector.hpp>

namespace {

using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::makeShimNode;
using libfieldwarden::test::makeSilentMaster;
using libfieldwarden::test::ScriptedShimBoard;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;

/// Every gradient feeds every coil a little, so that one change moves all currents.
std::string denseMatrix() {
    std::string text;
    for (int gradient = 1; gradient <= 39; ++gradient) {
        text += fmt::format("V {} 1.0\n", gradient);
        for (int coil = 1; coil <= 40; ++coil) {
            text += fmt::format("F {0} {1} {2}\nI {1} {0} {2}\n", gradient, coil,
                                0.01 * (gradient * 7 % 11 + coil % 5 + 1));
        }
    }
    return text + "E\n";
}

class Counter : public ShimListenerInterface {
public:
    void shimGradientChanged(std::string const& /*aName*/, int aValue) override { mSum += aValue; }
    void shimCurrentChanged(unsigned int /*aIndex*/, double aAmpere) override { mSum += aAmpere; }

private:
    double mSum = 0.0;
};

class Service : private virtual velmor::kepla::log::Logger, public ShimHardwareQ47 {
public:
    explicit Service(std::string const& aDirectory)
        : Logger("ShimHardwareQ47", "Shim")
        , ShimHardwareQ47(
              [](unsigned char aNodeId) {
                  return std::make_unique<ScriptedShimBoard>(makeShimNode(aNodeId), makeSilentMaster(),
                                                             std::make_shared<FakeDataLogger>(),
                                                             std::make_shared<FakePeriodicCallers>());
              },
              aDirectory,
              "",
              aDirectory + "/shims.factory",
              "") {}
};

void setSingleShim(benchmark::State& aState, bool aWithListener) {
    TemporaryDirectory const directory;
    writeFile(directory.path() / "wmxs1a.dat", denseMatrix());
    Counter listener;
    Service service(directory.path().string());
    service.setShimSystem(ShimSysType::Wmxs1a);
    if (aWithListener) {
        service.setListener(&listener);
    }
    std::string const name = "XZ2";
    int value = 0;
    for ([[maybe_unused]] auto _ : aState) {
        value = value == 0 ? 1000 : 0;
        service.setSingleShim(name, value);
    }
    benchmark::DoNotOptimize(listener);
}
BENCHMARK_CAPTURE(setSingleShim, listener, true)->Name("one gradient/setSingleShim");
BENCHMARK_CAPTURE(setSingleShim, nobody, false)->Name("one gradient/setSingleShim, nobody listens");

void conversionAlone(benchmark::State& aState) {
    TemporaryDirectory const directory;
    auto const path = directory.path() / "wmxs1a.dat";
    writeFile(path, denseMatrix());
    ShimMatrixTOSK matrix(path.string());
    ShimGradientsTOSK gradients;
    std::vector<double> board1(17);
    std::vector<double> board2(17);
    int value = 0;
    for ([[maybe_unused]] auto _ : aState) {
        value = value == 0 ? 1000 : 0;
        gradients.set("XZ2", value);
        boost::numeric::ublas::vector<double> coils = matrix.gradientsToCoils(&gradients);
        ShimCoilToCurrentSource::convert(&coils, &board1, &board2);
        benchmark::DoNotOptimize(ShimUnits::touA(board1));
        benchmark::DoNotOptimize(ShimUnits::touA(board2));
    }
}
BENCHMARK(conversionAlone)->Name("one gradient/conversion alone");

} // namespace
