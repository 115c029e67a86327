// SPDX-License-Identifier: Apache-2.0
// Excitation, band, decay, gain and noise of the simulated lock's signal, by textbook formulas.
#include "simulator/sequencer/LockReceiver.h"

#include <cmath>
#include <numbers>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::LockExcitation;
using libfieldwarden::sim::LockFid;
using libfieldwarden::sim::LockReceiver;

constexpr std::size_t kPoints = 1007;
constexpr unsigned kDelay = LockReceiver::kGroupDelayPoints;

LockExcitation signal(double aOffsetHz = 0.0, double aT2Star = 0.020) {
    return {.offsetHz = aOffsetHz, .t2StarSeconds = aT2Star, .amplitude = LockReceiver::kSignalCounts};
}

LockFid quiet(LockExcitation const& aExcitation, unsigned aShift = 0, unsigned aDelay = kDelay) {
    return LockReceiver(1).acquire(aExcitation, kPoints, aShift, aDelay, 0.0);
}

TEST(LockReceiver, TakesTheIntermediateFrequencyOffTheSynthesiser) {
    // 2^31 is half of 480 MHz; less 120 MHz / 7.
    EXPECT_NEAR(LockReceiver::transmitterHz(0x8000'0000), 240.0e6 - 17'142'857.142857, 1e-6);
    EXPECT_NEAR(LockReceiver::transmitterHz(0), -17'142'857.142857, 1e-6);
}

TEST(LockReceiver, LetsALineFadeThatIsOffItsBand) {
    EXPECT_DOUBLE_EQ(LockReceiver::response(0.0), 1.0);
    EXPECT_NEAR(LockReceiver::response(450.0), std::numbers::sqrt2 / 2.0, 0.002); // The filter's corner.
    EXPECT_NEAR(LockReceiver::response(-450.0), LockReceiver::response(450.0), 1e-12);
    // 4,500 Hz: 1/100 by the filter's two poles; sinc(0.1344) = 0.9706 to the fifth: 0.862.
    EXPECT_NEAR(LockReceiver::response(4500.0), 0.00862, 0.0001);
    // The CIC filter has nulls where the line would be folded onto the middle.
    EXPECT_NEAR(LockReceiver::response(LockReceiver::kSamplesPerSecond), 0.0, 1e-12);
    EXPECT_LT(LockReceiver::response(100'000.0), 1e-6);
}

TEST(LockReceiver, TurnsTheMagnetisationByTheAmplitude) {
    libfieldwarden::sim::LockLine const line{.fluorineHz = LockReceiver::transmitterHz(800'000'000),
                                             .t2StarSeconds = 0.02};
    auto const amplitude = [&](std::uint32_t aWord) {
        return LockReceiver::excite(line, 800'000'000, aWord).amplitude;
    };
    // 100 mVpp are 1638.4: 30 degrees. Twice that: sin 60 / sin 30 = 1.7321.
    EXPECT_NEAR(amplitude(1638), LockReceiver::kSignalCounts, 10.0);
    EXPECT_NEAR(amplitude(3277), 1.73205 * LockReceiver::kSignalCounts, 10.0);
    EXPECT_EQ(amplitude(0), 0.0);
}

TEST(LockReceiver, DecaysWithT2Star) {
    LockFid const fid = quiet(signal(100.0, 0.010));
    // 335 points are 10.00533 ms: exp(-1.000533).
    EXPECT_NEAR(std::abs(fid.samples[335]) / std::abs(fid.samples[0]), std::exp(-1.000533), 1e-6);
    EXPECT_NEAR(std::abs(fid.samples[0]), 27'852.8, 1e-6);
}

TEST(LockReceiver, TurnsWithTheOffset) {
    LockFid const fid = quiet(signal(-250.0));
    // 2 pi * 250 Hz / 33482.14 Hz = 0.046915 a point, backwards.
    EXPECT_NEAR(std::arg(fid.samples[1] / fid.samples[0]), -0.046915, 1e-6);
    EXPECT_NEAR(std::arg(fid.samples[0]), 0.9, 1e-9);
}

TEST(LockReceiver, FillsItsFiltersAheadOfTheSignal) {
    LockFid const late = quiet(signal(), 0, 4);
    EXPECT_EQ(std::abs(late.samples[0]), 0.0);
    EXPECT_EQ(std::abs(late.samples[1]), 0.0);
    EXPECT_NEAR(std::abs(late.samples[2]), LockReceiver::kSignalCounts, 1e-6);
    // Nine points left out: the first three of the signal are gone.
    LockFid const early = quiet(signal(), 0, 9);
    EXPECT_NEAR(std::abs(early.samples[0]), std::abs(quiet(signal()).samples[3]), 1e-6);
}

TEST(LockReceiver, DoublesTheWordsWithEachShift) {
    LockFid const small = quiet(signal(40.0), 9);
    LockFid const large = quiet(signal(40.0), 10);
    for (std::size_t n = 0; n < kPoints; ++n) {
        EXPECT_NEAR(large.words[n].real(), 2.0 * small.words[n].real(), 2.0);
        EXPECT_NEAR(large.words[n].imag(), 2.0 * small.words[n].imag(), 2.0);
    }
}

TEST(LockReceiver, HasItsPeakAtBit29WithTheShift15AndOverflowsAt17) {
    LockFid const best = quiet(signal(40.0), 15);
    EXPECT_GE(best.greatest, 1 << 29);
    EXPECT_LT(best.greatest, 1 << 30);
    EXPECT_FALSE(best.overflow);
    EXPECT_FALSE(quiet(signal(40.0), 16).overflow);
    LockFid const over = quiet(signal(40.0), 17);
    EXPECT_TRUE(over.overflow);
    EXPECT_EQ(over.greatest, 0x7FFF'FFFF);
}

TEST(LockReceiver, HasTheNoiseThatItShouldHave) {
    LockReceiver receiver(7);
    double power = 0.0;
    double cross = 0.0;
    constexpr int kFids = 20;
    for (int i = 0; i < kFids; ++i) {
        LockFid const fid = receiver.acquire({}, kPoints, 0, kDelay, 3.0);
        for (auto const& sample : fid.samples) {
            power += std::norm(sample);
            cross += sample.real() * sample.imag();
        }
    }
    double const expected = std::pow(3.0 * 27'852.8 / 200.0, 2); // Of real and imaginary part together.
    // The deviation of a mean of 20,140 squares is 0.7 percent.
    EXPECT_NEAR(power / (kFids * kPoints) / expected, 1.0, 0.03);
    EXPECT_NEAR(cross / (kFids * kPoints) / expected, 0.0, 0.02);
}

TEST(LockReceiver, MakesTheSameNoiseOfTheSameSeed) {
    LockFid const first = LockReceiver(3).acquire({}, kPoints, 10, kDelay, 1.0);
    LockFid const same = LockReceiver(3).acquire({}, kPoints, 10, kDelay, 1.0);
    LockFid const other = LockReceiver(4).acquire({}, kPoints, 10, kDelay, 1.0);
    EXPECT_EQ(first.words, same.words);
    EXPECT_NE(first.words, other.words);
}

} // namespace
