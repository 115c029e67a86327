// SPDX-License-Identifier: Apache-2.0
// The simulated sequencer against theory: where a line shows, how wide and how high it is, how much noise
// there is, and how the loop over H0 closes.
#include "SequencerFixture.h"

#include <velmor/kepla/utils/PIDController.h>

#include <algorithm>
#include <numbers>

namespace libfieldwarden::sim {

namespace {

/// The PID record's fields as a plain reading of its layout gives them.
struct Record {
    explicit Record(std::vector<unsigned char> const& aBytes, std::size_t aAt = 0) {
        for (unsigned i = 0; i < 4; ++i) {
            phase |= std::int32_t{aBytes[aAt + 1 + i]} << (8 * i);
        }
        std::uint64_t word = 0;
        for (unsigned i = 0; i < 6; ++i) {
            word = word << 8 | aBytes[aAt + 5 + i];
        }
        input = static_cast<std::int64_t>(word << 16) >> 16;
        std::uint32_t const out = static_cast<std::uint32_t>(aBytes[aAt + 11]) << 16 |
                                  static_cast<std::uint32_t>(aBytes[aAt + 12]) << 8 | aBytes[aAt + 13];
        output = static_cast<std::int32_t>(out << 8) >> 8;
        slice = static_cast<std::uint16_t>(aBytes[aAt + 14] << 8 | aBytes[aAt + 15]);
    }
    std::int32_t phase = 0;
    std::int64_t input = 0;
    std::int32_t output = 0;
    std::uint16_t slice = 0;
};

/// Sum of n^power w(n) exp(-n / tau) over the 1,007 points, with w the quarter cosine of the window.
double weightedSum(double aT2Star, int aPower) {
    double const tau = aT2Star * LockReceiver::kSamplesPerSecond;
    double sum = 0.0;
    for (int n = 0; n < 1007; ++n) {
        sum += std::pow(n, aPower) * std::cos(std::numbers::pi / 2.0 * n / 1007.0) * std::exp(-n / tau);
    }
    return sum;
}

/// What the spectrum's imaginary part is at 0 Hz for a line that begins real, so many bins off: the sum over
/// its 1,007 points, an eighth of that for W, 2^-16 of that for the stream.
double imaginaryAtZero(double aBins) {
    double const tau = 0.020 * LockReceiver::kSamplesPerSecond;
    double sum = 0.0;
    for (int n = 0; n < 1007; ++n) {
        sum += std::cos(std::numbers::pi / 2.0 * n / 1007.0) * std::exp(-n / tau) *
               std::sin(2.0 * std::numbers::pi * aBins * n / 65'536.0);
    }
    return 0.85 * 1'073'741'824.0 / 8.0 / 65'536.0 * sum;
}

/// Least squares through the 32 points around the crossing from above to below 0 between the two extremes.
double slopeAtCrossing(std::vector<std::int32_t> const& aAround) {
    auto const top = std::max_element(aAround.begin(), aAround.end());
    auto const crossing = std::find_if(top, aAround.end(), [](std::int32_t aValue) { return aValue <= 0; });
    double sx = 0.0;
    double sy = 0.0;
    double sxx = 0.0;
    double sxy = 0.0;
    for (int x = -16; x < 16; ++x) {
        double const y = *(crossing + x);
        sx += x;
        sy += y;
        sxx += x * x;
        sxy += x * y;
    }
    return (32.0 * sxy - sx * sy) / (32.0 * sxx - sx * sx);
}

class SequencerTest : public SequencerFixture {
protected:
    /// The slope of the spectrum's imaginary part about 0 Hz.
    double slope() const {
        Block const block = spectrum();
        std::vector<std::int32_t> around;
        for (int bin = -1000; bin < 1000; ++bin) {
            around.push_back(block.imaginaryAt(bin));
        }
        return slopeAtCrossing(around);
    }

    void closeTheLoop(int aITerm, int aOutputOffset = 0) const {
        write("pid/output_shift", 30);
        write("pid/input_shift", 7);
        write("pid/output_offset", aOutputOffset);
        write("control/dac_conf_mode", 1);
        write("pid/i_term", aITerm);
    }
};

class PeakOfALine : public SequencerTest, public testing::WithParamInterface<double> {};

TEST_P(PeakOfALine, StandsWhereTheOffsetPutsIt) {
    make(magnetAt(GetParam()));
    step();
    EXPECT_EQ(position(), std::lround(GetParam()));
}

// 100 bins are 51.09 Hz; 4,000 are 2,043.6 Hz, which the receiver still hears.
INSTANTIATE_TEST_SUITE_P(Bins,
                         PeakOfALine,
                         testing::Values(0.0, 1.2, 100.0, -100.0, 777.7, -2500.3, 4000.0, -4000.0));

TEST_F(SequencerTest, MovesTheLineWithTheTransmitter) {
    make(magnetAt(0.0));
    // 1,000 words are 1000 * 480 MHz / 2^32 = 111.7587 Hz, 218.75 bins: the line is that much lower.
    mMainboard->setTxFrequencyWord(1, kTransmitterWord + 1000);
    mClock->advance(std::chrono::milliseconds(1));
    step(2);
    EXPECT_EQ(position(), -219);
}

TEST_F(SequencerTest, MovesTheLineWithH0) {
    make(magnetAt(-50.0));
    write("data/dac_data", 0x4000'0000 | 120 * 1024); // Up by 120 bins.
    step(2);
    EXPECT_EQ(position(), 70);
    write("data/dac_data", 0x40FF'FFFF - 30 * 1024 + 1); // Down by 30, as 24 bits of two's complement.
    step(2);
    EXPECT_EQ(position(), -80);
    EXPECT_EQ(mDriver->h0Count(), -30 * 1024);
}

TEST_F(SequencerTest, LeavesTheConverterAloneWithoutTheWriteBit) {
    make(magnetAt(0.0));
    write("data/dac_data", 0x4000'0400);
    write("data/dac_data", 0x0000'7777);
    EXPECT_EQ(mDriver->h0Count(), 0x400);
    EXPECT_EQ(read("data/dac_data"), 0x7777);
    write("control/no_use_dac", 1);
    write("data/dac_data", 0x4000'0123);
    EXPECT_EQ(mDriver->h0Count(), 0x400);
    write("control/no_use_dac", 0);
    EXPECT_EQ(mDriver->h0Count(), 0x123);
}

TEST_F(SequencerTest, HasALineAsWideAsT2StarTells) {
    // Z of 166.0 Hz/cm spans 332 Hz of 1H, 312.34 Hz of 19F: 1/T2* = 50 + pi * 312.34 = 1031.2 / s. The
    // line's full width at half of its height is 1031.2 / pi = 328.3 Hz, 642.5 bins. The acquisition is 31
    // times T2*, so nothing is cut off.
    Magnet::Harmonics raw{};
    raw[CoilModel::indexOf("Z")] = 166.0;
    make(magnetAt(0.0, raw));
    write("data/window_disable", 1);
    mDriver->faults().setNoise(0.0);
    correctPhase();
    Block const block = spectrum();
    // The sum counts the first point whole where the integral counts half of it: that is a floor.
    double const floor = 0.5 * LockReceiver::kSignalCounts * 32'768.0 / 8.0 / 65'536.0;
    double const half = 0.5 * (block.realAt(0) - floor) + floor;
    int upper = 0;
    while (block.realAt(upper) > half) {
        ++upper;
    }
    int lower = 0;
    while (block.realAt(lower) > half) {
        --lower;
    }
    EXPECT_NEAR(upper - lower, 642.5, 5.0);
}

TEST_F(SequencerTest, HasAPeakAsHighAsTheSumOfItsPoints) {
    make(magnetAt(0.0));
    mDriver->faults().setNoise(0.0);
    step();
    // |W| at the top of the line: 1/8 of 0.85 * 2^30 times the sum of w(n) exp(-n / tau).
    double const expected = 0.85 * 1'073'741'824.0 / 8.0 * weightedSum(0.020, 0);
    EXPECT_NEAR(static_cast<double>(magnitude()) / expected, 1.0, 0.001);
}

TEST_F(SequencerTest, HasANoiseFloorThatGrowsWithThePoints) {
    make(magnetAt(0.0), 20);
    mMainboard->setTxEnable(1, false);
    write("data/window_disable", 1);
    step();
    auto const meanPower = [&](int aPoints) {
        write("data/fft_zeros", 65'536 - aPoints);
        step(2);
        double power = 0.0;
        constexpr int kBlocks = 8;
        for (int i = 0; i < kBlocks; ++i) {
            Block const block = spectrum();
            for (std::size_t k = 0; k < block.real.size(); ++k) {
                power += std::pow(block.real[k], 2) + std::pow(block.imaginary[k], 2);
            }
        }
        return power / (kBlocks * 65'536.0);
    };
    // N points of the variance v sum up to N v. A word is a count times 2^20, W an eighth of the sum, the
    // stream 2^-16 of that: N * (27852.8 / 200 * 2^20 / 8 / 2^16)^2 = N * (278.5)^2.
    double const perPoint = std::pow(27'852.8 / 200.0 * 2.0, 2);
    EXPECT_NEAR(meanPower(1007) / (1007.0 * perPoint), 1.0, 0.05);
    EXPECT_NEAR(meanPower(251) / (251.0 * perPoint), 1.0, 0.1);
}

TEST_F(SequencerTest, HasItsPeakAtBit29WithTheShift15) {
    make(magnetAt(20.0), 6);
    step();
    // The worked case: 2^20 at shift 6, so that 29 - 20 + 6 = 15 is the best shift.
    EXPECT_GE(read("data/fid_max_slice"), 1 << 20);
    EXPECT_LT(read("data/fid_max_slice"), 1 << 21);
    write("data/fid_shift", 15);
    step();
    EXPECT_GE(read("data/fid_max_slice"), 1 << 29);
    EXPECT_LT(read("data/fid_max_slice"), 1 << 30);
    EXPECT_EQ(read("status/fid_overflow"), 0);
}

TEST_F(SequencerTest, DoublesFidAndMagnitudeWithEachShift) {
    make(magnetAt(20.0), 9);
    mDriver->faults().setNoise(0.0);
    step();
    double const fid = static_cast<double>(read("data/fid_max_slice"));
    double const peak = static_cast<double>(magnitude());
    write("data/fid_shift", 10);
    step();
    EXPECT_NEAR(static_cast<double>(read("data/fid_max_slice")) / fid, 2.0, 1e-5);
    EXPECT_NEAR(static_cast<double>(magnitude()) / peak, 2.0, 1e-5);
}

TEST_F(SequencerTest, OverflowsBeyond31Bits) {
    make(magnetAt(20.0), 16);
    step();
    EXPECT_EQ(read("status/fid_overflow"), 0);
    write("data/fid_shift", 17);
    step();
    EXPECT_EQ(read("status/fid_overflow"), 1);
    EXPECT_EQ(read("data/fid_max_slice"), 0x7FFF'FFFF);
    write("status/fid_overflow", 0);
    EXPECT_EQ(read("status/fid_overflow"), 1); // Only ones clear.
    write("status/fid_overflow", 1);
    EXPECT_EQ(read("status/fid_overflow"), 0);
    step();
    EXPECT_EQ(read("status/fid_overflow"), 1);
    write("data/fid_shift", 15);
    step();
    EXPECT_EQ(read("status/fid_overflow"), 0); // Of the last acquisition.
}

TEST_F(SequencerTest, PassesTheThresholdOfAnFidSomeTwentyTimes) {
    make(magnetAt(20.0));
    step();
    EXPECT_GT(timesThreshold(), 20.0);
    EXPECT_LT(timesThreshold(), 30.0);
    mDriver->faults().setSilentFid(true);
    step(2);
    EXPECT_LT(timesThreshold(), 0.1);
}

TEST_F(SequencerTest, MissesTheFidWithoutShims) {
    make(magnetAt(0.0, Magnet::rawField()));
    step();
    EXPECT_LT(timesThreshold(), 0.7);
}

TEST_F(SequencerTest, IsHeardOverTheStepOfAFieldSearchAndNoFurther) {
    // The search goes in steps of 2 kHz: a line is at most 1 kHz away from one of them.
    make(magnetAt(1000.0 / kBinHz));
    step();
    EXPECT_GT(timesThreshold(), 2.0);
    make(magnetAt(4000.0 / kBinHz));
    step();
    EXPECT_LT(timesThreshold(), 1.0);
    EXPECT_NEAR(position(), 4000.0 / kBinHz, 20.0); // Too weak for that, but out of the noise.
    make(magnetAt(800'000.0 / kBinHz));
    step();
    EXPECT_LT(timesThreshold(), 0.1);
}

TEST_F(SequencerTest, HasASlopeNear18000AtTheBestShift) {
    make(magnetAt(3.0));
    correctPhase();
    double const measured = slope();
    EXPECT_NEAR(measured, -18'000.0, 500.0);
    // In the very middle it is 1/8 * 2^-16 * 0.85 * 2^30 * 2 pi / 65536 * sum of n w(n) exp(-n / tau); a
    // straight line through 32 points lies a few percent lower.
    double const middle = 0.85 * 2048.0 * 2.0 * std::numbers::pi / 65'536.0 * weightedSum(0.020, 1);
    EXPECT_NEAR(-measured / middle, 0.96, 0.03);
}

TEST_F(SequencerTest, TellsThePhaseAtWhichTheFidBegins) {
    make(magnetAt(40.0));
    step();
    // 0.9 radian with 29 bits behind the point are 483,183,821; the noise of 32 points is 0.001.
    EXPECT_NEAR(static_cast<double>(read("data/phase_correction")), 0.9 * 536'870'912.0,
                0.01 * 536'870'912.0);
    Block const before = spectrum();
    EXPECT_GT(std::abs(before.imaginaryAt(40)), before.realAt(40) / 2);
    correctPhase();
    Block const after = spectrum();
    EXPECT_GT(after.realAt(40), 600'000);
    EXPECT_LT(std::abs(after.imaginaryAt(40)), 10'000);
    write("data/phase_correction_bypass", 1);
    EXPECT_GT(std::abs(spectrum().imaginaryAt(40)), before.realAt(40) / 2);
}

TEST_F(SequencerTest, HoldsThePhaseWhileItIsToUpdateOnce) {
    make(magnetAt(0.0));
    step();
    write("data/single_phase_update", 1);
    step();
    long long const once = read("data/phase_correction");
    step(3);
    EXPECT_EQ(read("data/phase_correction"), once);
    write("data/single_phase_update", 1);
    step();
    EXPECT_NE(read("data/phase_correction"), once);
}

TEST_F(SequencerTest, StreamsTheFidWithItsZeros) {
    make(magnetAt(20.0), 10);
    mDriver->faults().setNoise(0.0);
    Block const words = fid();
    ASSERT_EQ(words.real.size(), 65'536U);
    // The first point: 0.85 * 2^25 at 0.9 radian.
    EXPECT_NEAR(words.real[0], 0.85 * 33'554'432.0 * std::cos(0.9), 20'000.0);
    EXPECT_NEAR(words.imaginary[0], 0.85 * 33'554'432.0 * std::sin(0.9), 20'000.0);
    EXPECT_NE(words.real[1006], 0);
    EXPECT_EQ(words.real[1007], 0);
    EXPECT_EQ(words.imaginary[65'535], 0);
    EXPECT_EQ(read("log/single_td_transfer"), 0);
    write("log/time_domain_src", 0);
    EXPECT_NEAR(fid().real[0], 27'852.8 * std::cos(0.9), 20.0); // Ahead of the gain.
}

TEST_F(SequencerTest, LeavesTheFilledFiltersToTheGroupDelay) {
    make(magnetAt(20.0), 10);
    mDriver->faults().setNoise(0.0);
    write("data/fid_group_delay", 0);
    Block const words = fid();
    EXPECT_EQ(words.real[5], 0);
    EXPECT_NE(words.real[6], 0);
}

TEST_F(SequencerTest, ClosesItsLoopAsTheDifferenceEquationTells) {
    make(magnetAt(5.0));
    mDriver->faults().setNoise(0.0);
    correctPhase();
    // The start's arithmetic: a slope near 18,000 gives 1.5 * -5,000,000 / 18,000 = -417.
    closeTheLoop(-417);
    auto const records = open("/dev/lock_dma_pid");
    write("log/pid_itf_enable", 1);
    step(); // The acquisition that began with the loop open.

    // Theory: h(n + 1) = h(n) - 417 / 2^17 * s(d(n)), d(n) = 5 + h(n) / 1024, where s(d) is the imaginary
    // part at 0 Hz of a line d bins off.
    double h = mDriver->h0Count();
    packet(*records);
    for (int cycle = 1; cycle <= 120; ++cycle) {
        step();
        Record const record(packet(*records));
        double const error = imaginaryAtZero(5.0 + h / 1024.0);
        EXPECT_NEAR(static_cast<double>(record.input) / 128.0, error, 20.0) << "in cycle " << cycle;
        h -= 417.0 / 131'072.0 * error;
        EXPECT_EQ(record.output, mDriver->h0Count());
        EXPECT_NEAR(record.output, h, 3.0) << "after cycle " << cycle;
    }
    // 57 counts of 1,024 a bin and cycle: the distance falls to 1/e in some 18 cycles.
    EXPECT_NEAR(1024.0 / (417.0 / 131'072.0 * imaginaryAtZero(1.0)), 18.0, 1.0);
    EXPECT_EQ(position(), 0);
}

TEST_F(SequencerTest, RegulatesInTheFixedPointOfItsRecords) {
    make(magnetAt(4.0));
    correctPhase();
    closeTheLoop(-417, 100);
    auto const records = open("/dev/lock_dma_pid");
    write("log/pid_itf_enable", 1);
    std::int64_t integral = 0;
    for (int cycle = 0; cycle < 40; ++cycle) {
        step();
        Record const record(packet(*records));
        integral += -417 * (record.input >> 7);
        EXPECT_EQ(record.output, 100 + (integral >> 17)) << "in cycle " << cycle;
    }
}

TEST_F(SequencerTest, HoldsAJumpOfTheField) {
    make(magnetAt(0.0));
    correctPhase();
    closeTheLoop(-417);
    step(50);
    mMagnet->jump(30.0 * kBinHz / Magnet::kFluorineOverProton);
    step(2);
    EXPECT_NEAR(position(), 30, 3);
    step(150);
    EXPECT_EQ(position(), 0);
    EXPECT_NEAR(mDriver->h0Count(), -30 * 1024, 200);
}

TEST_F(SequencerTest, ShowsWhenTheRegulatorReachesItsEnd) {
    make(magnetAt(60.0));
    correctPhase();
    closeTheLoop(-417, -8'388'600);
    write("pid/setpoint_high", 0xFFFF'FFFFLL);
    write("pid/setpoint_low", 0xF000'0000LL); // Far below, so that the output goes down.
    step(3);
    EXPECT_EQ(mDriver->h0Count(), -8'388'608);
    EXPECT_EQ(read("status/pid_overflow"), 1);
    write("pid/output_offset", 0);
    write("pid/i_term", 0);
    write("pid/control_clear", 1);
    write("pid/control_clear", 0);
    write("status/pid_overflow", 1);
    step();
    EXPECT_EQ(mDriver->h0Count(), 0);
    EXPECT_EQ(read("status/pid_overflow"), 0);
}

TEST_F(SequencerTest, AddsFredToTheInputOfTheRegulator) {
    make(magnetAt(0.0));
    mDriver->faults().setNoise(0.0);
    correctPhase();
    auto const records = open("/dev/lock_dma_pid");
    write("log/pid_itf_enable", 1);
    step();
    std::int64_t const plain = Record(packet(*records)).input;
    write("data/fred_offset_high", 0xFFFF'FFFFLL);
    write("data/fred_offset_low", 0xFFFF'FF00LL); // -256
    write("data/fred_output_enable", 1);
    step();
    EXPECT_NEAR(static_cast<double>(Record(packet(*records)).input - plain), -256.0, 40.0);
    write("data/fred_output_clear", 1);
    step();
    EXPECT_NEAR(static_cast<double>(Record(packet(*records)).input - plain), 0.0, 40.0);
}

TEST_F(SequencerTest, EncodesRecordsSoThatBytes6And7MayBeOred) {
    make(magnetAt(0.0));
    correctPhase();
    auto const records = open("/dev/lock_dma_pid");
    write("log/pid_itf_enable", 1);
    for (int const bins : {0, 3, -3, 60, -60, 500, -500}) {
        write("data/dac_data", 0x4000'0000 | (static_cast<unsigned>(bins * 1024) & 0xFF'FFFF));
        step(2);
        packet(*records);
        Bytes const bytes = packet(*records);
        ASSERT_EQ(bytes.size(), 16U);
        // As the reader puts it together: bytes 6 and 7 in one place, byte 5 above them.
        std::uint32_t const low = static_cast<std::uint32_t>(bytes[6] | bytes[7]) << 24 |
                                  static_cast<std::uint32_t>(bytes[8]) << 16 |
                                  static_cast<std::uint32_t>(bytes[9]) << 8 | bytes[10];
        std::uint64_t const word = static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(low)}) |
                                   static_cast<std::uint64_t>(bytes[5]) << 32;
        std::int64_t const decoded = static_cast<std::int64_t>(word << 16) >> 16;
        Record const record(bytes);
        EXPECT_EQ(decoded, record.input) << "at " << bins << " bins";
        EXPECT_EQ(bytes[6], record.input < 0 ? 0xFF : 0x00);
        EXPECT_EQ(static_cast<std::int16_t>(record.slice), position());
        EXPECT_LT(std::abs(record.phase / 536'870'912.0), 0.1);
        if (std::abs(bins) == 60) {
            EXPECT_EQ(record.input, bins > 0 ? 16'777'215 : -16'777'216); // Limited.
        }
    }
}

TEST_F(SequencerTest, PacksAsManyRecordsAsItIsTold) {
    make(magnetAt(0.0));
    auto const records = open("/dev/lock_dma_pid");
    write("log/stream_packet_size", 7);
    write("log/pid_itf_enable", 1);
    step(13);
    EXPECT_EQ(packet(*records).size(), 112U);
    EXPECT_EQ(packet(*records).size(), 0U);
    step();
    EXPECT_EQ(packet(*records).size(), 112U);
}

TEST_F(SequencerTest, FeedsTheStreamsByTheProgramOrByTheRegisters) {
    make(magnetAt(0.0));
    auto const records = open("/dev/lock_dma_pid");
    write("log/pid_itf_enable", 1);
    step();
    EXPECT_EQ(packet(*records).size(), 16U);
    EXPECT_EQ(packet(*records).size(), 0U);
    write("control/stream_control", 0);
    step();
    EXPECT_EQ(packet(*records).size(), 16U);
    EXPECT_EQ(packet(*records).size(), 0U);
    write("log/pid_itf_enable", 0);
    step();
    EXPECT_EQ(packet(*records).size(), 0U);
    write("log/fft_itf_enable", 1);
    auto const spectra = open("/dev/lock_dma_fd");
    step(2);
    EXPECT_EQ(packet(*spectra).size(), 0x80000U);
    EXPECT_EQ(packet(*spectra).size(), 0x80000U);
    EXPECT_EQ(packet(*spectra).size(), 0U);
}

TEST_F(SequencerTest, BringsALineToZeroByTheSoftwareLoop) {
    // As the start does it: p 50, i 500 a second on the position, into the converter's counts, once a cycle.
    auto const former = velmor::platform::Clock::use(mClock);
    make(magnetAt(4000.0), 6);
    velmor::kepla::utils::PIDController controller(50.0, 500.0, 0.0, -8388608.0, 8388607.0);
    velmor::platform::Clock::use(former);
    int cycles = 0;
    while (step(), std::abs(position()) >= 10) {
        ASSERT_LT(++cycles, 1000);
        mClock->advance(std::chrono::microseconds(30'076));
        long const output = std::lround(controller.calculate(0.0, position()));
        write("data/dac_data", 0x4000'0000 | (output & 0xFF'FFFF));
    }
    // The offset falls as exp(-500 t / (1024 + 50)): 4,000 bins to 10 in 12.9 s, 428 cycles.
    EXPECT_NEAR(cycles, 428, 30);
}

TEST_F(SequencerTest, GivesTheSameRunForTheSameSeed) {
    auto const run = [&](std::uint64_t aSeed) {
        make(magnetAt(12.3), 15, SequencerDriver::Pace::Hand, aSeed);
        closeTheLoop(-417);
        write("log/pid_itf_enable", 1);
        auto const records = open("/dev/lock_dma_pid");
        Bytes all;
        for (int i = 0; i < 20; ++i) {
            step();
            Bytes const bytes = packet(*records);
            all.insert(all.end(), bytes.begin(), bytes.end());
        }
        return all;
    };
    Bytes const first = run(5);
    EXPECT_EQ(first, run(5));
    EXPECT_NE(first, run(6));
}

TEST_F(SequencerTest, HasACycleOfThePointsItTakes) {
    make(magnetAt(0.0), 15, SequencerDriver::Pace::Clock);
    write("log/pid_itf_enable", 1);
    auto const records = open("/dev/lock_dma_pid");
    mClock->awaitWaiters(1);
    // 1,007 points * 2048 / 68571428 Hz = 30.0757… ms.
    mClock->advance(std::chrono::microseconds(30'075));
    EXPECT_EQ(records->waitReadable(std::chrono::seconds(0)), 0);
    mClock->advance(std::chrono::microseconds(1));
    EXPECT_GT(records->waitReadable(std::chrono::seconds(100)), 0);
}

TEST_F(SequencerTest, TakesLongerForMorePoints) {
    make(magnetAt(100.0));
    write("data/window_disable", 1);
    write("data/fft_zeros", 0); // The whole 65,536 points, by the plain transform.
    step(2);
    EXPECT_EQ(position(), 100);
    write("data/fft_zeros", 65'536);
    step(2);
    EXPECT_EQ(read("status/fd_error"), 1);
}

TEST_F(SequencerTest, StandsWhileItsClockIsOff) {
    make(magnetAt(0.0));
    step();
    write("control/seq_clock_enable", 0);
    EXPECT_FALSE(mDriver->step());
    write("control/seq_clock_enable", 1);
    EXPECT_TRUE(mDriver->step());
}

TEST_F(SequencerTest, StandsInResetAndForgetsWhatWasUnderWay) {
    make(magnetAt(20.0), 17);
    step();
    EXPECT_EQ(read("status/fid_overflow"), 1);
    write("control/main_reset", 1);
    EXPECT_FALSE(mDriver->step());
    EXPECT_EQ(read("status/fid_overflow"), 0);
    EXPECT_EQ(magnitude(), 0);
    EXPECT_EQ(read("data/fid_shift"), 17);
    write("control/main_reset", 0);
    EXPECT_EQ(read("status/fir_ready"), 1);
    EXPECT_EQ(read("status/dac_conf_ready"), 1);
    write("status/fir_ready", 1);
    EXPECT_EQ(read("status/fir_ready"), 0);
    EXPECT_TRUE(mDriver->step());
}

TEST_F(SequencerTest, ShowsADcOffsetBeyondItsThreshold) {
    make(magnetAt(0.0)); // On resonance the mean of the points is no smaller than a third of the first.
    step();
    EXPECT_EQ(read("status/dc_out_of_range"), 0);
    write("data/dc_out_of_range_threshold", 5'000);
    step();
    EXPECT_EQ(read("status/dc_out_of_range"), 1);
}

TEST_F(SequencerTest, KeepsThePllUnlockedUntilItLocks) {
    make(magnetAt(0.0));
    write("status/dds_pll_unlocked", 1);
    mClock->advance(std::chrono::milliseconds(1));
    write("status/dds_pll_unlocked", 1);
    EXPECT_EQ(read("status/dds_pll_unlocked"), 0);
    mMainboard->setTxFrequencyWord(1, kTransmitterWord + 1);
    EXPECT_EQ(read("status/dds_pll_unlocked"), 1);
    write("status/dds_pll_unlocked", 1);
    EXPECT_EQ(read("status/dds_pll_unlocked"), 1); // Still true.
    mClock->advance(std::chrono::microseconds(150));
    EXPECT_EQ(read("status/dds_pll_unlocked"), 1); // It was.
    write("status/dds_pll_unlocked", 1);
    EXPECT_EQ(read("status/dds_pll_unlocked"), 0);
}

TEST_F(SequencerTest, HasNoSignalWhileThePllDoesNotLock) {
    make(magnetAt(0.0));
    mDriver->faults().setDdsPllUnlocked(true);
    mDriver->faults().setAdcPllUnlocked(true);
    step(2);
    EXPECT_LT(timesThreshold(), 0.1);
    EXPECT_EQ(read("status/dds_pll_unlocked"), 1);
    EXPECT_EQ(read("status/adc_pll_unlocked"), 1);
    write("status/adc_pll_unlocked", 1);
    EXPECT_EQ(read("status/adc_pll_unlocked"), 1);
}

TEST_F(SequencerTest, TellsWhatIsWrongWithAProgram) {
    make(magnetAt(0.0));
    write("control/seq_clock_enable", 0);
    std::string const whole = test::readFile(LOCK_IMAGES "/memory.bin");
    struct Case {
        std::size_t byte;
        char value;
        int code;
        int address;
    };
    for (Case const& bad : {Case{0, 2, 1, 0}, Case{7, 99, 2, 1}, Case{24, 7, 3, 6}}) {
        std::string image = whole;
        image[bad.byte] = bad.value;
        load("/dev/seqlock", image);
        EXPECT_EQ(read("status/seq_error"), 1);
        EXPECT_EQ(read("status/seq_error_code"), bad.code);
        EXPECT_EQ(read("status/error_address"), bad.address);
        EXPECT_EQ(read("status/seq_instr_mem_error"), 0);
        write("status/seq_error", 1);
        write("status/seq_error_code", 255);
        write("status/error_address", 65'535);
        EXPECT_EQ(read("status/seq_error_code"), 0);
        write("control/seq_clock_enable", 1);
        EXPECT_FALSE(mDriver->step());
        write("control/seq_clock_enable", 0);
    }
    load("/dev/seqlock", whole);
    EXPECT_EQ(read("status/seq_error"), 0);
    load("/dev/seqlock", whole + std::string(16'384, '\x08'));
    EXPECT_EQ(read("status/seq_instr_mem_error"), 1);
}

TEST_F(SequencerTest, RefusesItsMemoryWhileTheProgramRuns) {
    make(magnetAt(0.0));
    load("/dev/seqlock", test::readFile(LOCK_IMAGES "/memory.bin"));
    EXPECT_EQ(read("status/seq_instr_mem_error"), 1);
    EXPECT_TRUE(mDriver->step());
}

TEST_F(SequencerTest, SeesNothingThroughAWindowThatWasNeverLoaded) {
    make(magnetAt(0.0));
    mDriver = std::make_shared<SequencerDriver>(mClock, mMagnet, mMainboard, Sequencer::Options{},
                                                SequencerDriver::Pace::Hand);
    write("data/fft_zeros", 64'529);
    load("/dev/seqlock", test::readFile(LOCK_IMAGES "/memory.bin"));
    write("data/fid_shift", 15);
    write("control/seq_clock_enable", 1);
    step();
    EXPECT_EQ(magnitude(), 0);
    write("data/window_disable", 1);
    step();
    EXPECT_GT(timesThreshold(), 20.0);
}

TEST_F(SequencerTest, OverflowsByFaultAtEveryShift) {
    make(magnetAt(0.0), 1);
    mDriver->faults().setOverflow(true);
    step();
    EXPECT_EQ(read("status/fid_overflow"), 1);
}

} // namespace

} // namespace libfieldwarden::sim
