// SPDX-License-Identifier: Apache-2.0
// The field in the lock sample, by hand arithmetic, and what the factory shims make of it.
#include "shim/ShimCoilToCurrentSource.h"
#include "shim/ShimFile.h"
#include "shim/ShimMatrixTOSK.h"
#include "simulator/magnet/Magnet.h"

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::CoilModel;
using libfieldwarden::sim::Magnet;

using namespace std::chrono_literals;

constexpr double kFactor = 0.9407841;

class MagnetTest : public testing::Test {
protected:
    /// A magnet of exactly 80 MHz with a T2 of 20 ms, without drift, even but for one harmonic.
    Magnet evenBut(std::string_view aHarmonic, double aHz) const {
        Magnet::Harmonics raw{};
        raw[CoilModel::indexOf(aHarmonic)] = aHz;
        return Magnet({.protonHz = 80.0e6, .driftProtonHzPerSecond = 0.0, .t2Seconds = 0.020, .raw = raw},
                      mNow);
    }
    Magnet even() const { return evenBut("Z", 0.0); }
    double hz(Magnet const& aMagnet, std::int32_t aH0 = 0) const {
        return aMagnet.lockLine(mNow, aH0).fluorineHz;
    }

    Magnet::Clock::TimePoint mNow{std::chrono::hours(1)};
};

TEST_F(MagnetTest, ShowsFluorineAtItsShareOfTheProtonFrequency) {
    // 80,000,000 Hz * 0.9407841 = 75,262,728 Hz.
    EXPECT_NEAR(hz(even()), 75'262'728.0, 1e-6);
    EXPECT_NEAR(even().lockLine(mNow, 0).t2StarSeconds, 0.020, 1e-12);
}

TEST_F(MagnetTest, MovesTheLineByABinWith1024CountsOfH0) {
    // A bin is 68571428 / (2048 * 65536) Hz = 0.510897 Hz. Full scale, 2^23 counts, is 8,192 bins: 4185.3 Hz
    // in 19F, 4448.7 Hz in 1H.
    Magnet const magnet = even();
    EXPECT_NEAR(hz(magnet, 1024) - hz(magnet), 0.510897, 1e-6);
    EXPECT_NEAR(hz(magnet) - hz(magnet, -8'388'608), 4185.3, 0.05);
    EXPECT_NEAR((hz(magnet, 8'388'607) - hz(magnet)) / kFactor, 4448.7, 0.05);
}

TEST_F(MagnetTest, FallsByAThousandthAKelvin) {
    Magnet magnet = even();
    double const before = hz(magnet);
    magnet.setMagnetTemperature(298.15 + 0.001);
    // 80 MHz * 1e-3 / K * 1 mK = 80 Hz of 1H.
    EXPECT_NEAR(hz(magnet) - before, -80.0 * kFactor, 1e-6);
    magnet.setMagnetTemperature(298.15);
    magnet.setShimCoilTemperature(298.15 - 0.01);
    // 0.15 of it for the shim coils: 80 MHz * 1e-3 / K * 1.5 mK upwards.
    EXPECT_NEAR(hz(magnet) - before, 120.0 * kFactor, 1e-6);
}

TEST_F(MagnetTest, DriftsAndJumps) {
    Magnet magnet = even();
    double const before = hz(magnet);
    magnet.setDrift(-0.5, mNow);
    mNow += 10s;
    EXPECT_NEAR(hz(magnet) - before, -5.0 * kFactor, 1e-6);
    magnet.setDrift(0.1, mNow); // Keeps what has drifted so far.
    mNow += 10s;
    EXPECT_NEAR(hz(magnet) - before, -4.0 * kFactor, 1e-6);
    magnet.jump(100.0);
    EXPECT_NEAR(hz(magnet) - before, 96.0 * kFactor, 1e-6);
}

TEST_F(MagnetTest, WidensTheLineByWhatAGradientSpansOverTheSample) {
    // 50 Hz/cm over 2 cm span 100 Hz of 1H, 94.07841 Hz of 19F: 1/T2* = 50 / s + pi * 94.07841 Hz = 345.6 /
    // s.
    Magnet const magnet = evenBut("Z", 50.0);
    EXPECT_NEAR(1.0 / magnet.lockLine(mNow, 0).t2StarSeconds, 50.0 + std::numbers::pi * 94.07841, 1.0);
    EXPECT_NEAR(hz(magnet), hz(even()), 1e-6); // The middle stays.
}

TEST_F(MagnetTest, FeelsATransverseGradientOverTheWidthOfTheSample) {
    // x has the variance r^2 / 4 = 0.01 cm^2 over a disc of 0.2 cm: 100 Hz/cm are 10 Hz of deviation, a line
    // of sqrt(12) * 10 Hz * 0.9407841 = 32.59 Hz.
    EXPECT_NEAR(1.0 / evenBut("X", 100.0).lockLine(mNow, 0).t2StarSeconds, 50.0 + std::numbers::pi * 32.59,
                0.5);
    EXPECT_NEAR(1.0 / evenBut("Y", -100.0).lockLine(mNow, 0).t2StarSeconds, 50.0 + std::numbers::pi * 32.59,
                0.5);
}

TEST_F(MagnetTest, FeelsTheMeanOfASecondDegree) {
    // Z2 is z^2 - rho^2 / 2: over the sample the mean is 1/3 - 0.04 / 4 = 0.3233 cm^2.
    Magnet const magnet = evenBut("Z2", 30.0);
    EXPECT_NEAR((hz(magnet) - hz(even())) / kFactor, 30.0 * 0.3233, 0.05);
}

TEST_F(MagnetTest, FeelsTheCurrentsOfTheCoils) {
    Magnet magnet = even();
    // Source 24 is the coil of Z0, at place 23: 1300 Hz of 1H at 1 A, and Z2 with -0.3 / 4 of that: -97.5
    // Hz/cm^2, whose mean over the sample is -97.5 * 0.3233 = -31.5 Hz.
    magnet.setCurrentSource([] {
        Magnet::Currents currents{};
        currents[23] = 1.0;
        return currents;
    });
    EXPECT_NEAR((hz(magnet) - hz(even())) / kFactor, 1300.0 - 31.5, 0.2);
}

TEST_F(MagnetTest, IsMadeEvenByTheFactoryShims) {
    auto const gradients = ShimFile::parse(SIMULATOR_DATA "/shims.factory");
    ShimMatrixTOSK matrix(SIMULATOR_DATA "/matrices/wmxs1a.dat");
    auto coils = matrix.gradientsToCoils(gradients.get());
    std::vector<double> board1(17);
    std::vector<double> board2(17);
    ShimCoilToCurrentSource::convert(&coils, &board1, &board2);
    Magnet::Currents currents{};
    for (std::size_t source = 0; source < 17; ++source) {
        currents[source] = board1.at(source) / 130'000.0;
        currents[source + 17] = board2.at(source) / 130'000.0;
    }

    Magnet magnet({.driftProtonHzPerSecond = 0.0}, mNow);
    // Uneven, Z alone spans 1,480 Hz of 1H: T2* is below 1 / (pi * 1392 Hz) = 229 us.
    EXPECT_LT(magnet.lockLine(mNow, 0).t2StarSeconds, 229e-6);
    magnet.setCurrentSource([currents] { return currents; });
    EXPECT_GT(magnet.lockLine(mNow, 0).t2StarSeconds, 0.0199);
    EXPECT_NEAR(magnet.lockLine(mNow, 0).fluorineHz, 80'123'400.0 * kFactor, 1.0);
}

} // namespace
