// SPDX-License-Identifier: Apache-2.0
// The slow loop that takes the field's drift out by temperature, step by step against hand arithmetic.
#include "lock/LockShimTargetTemperatureRegulator.h"

#include "lock/LockParameters.h"

#include "support/FakeDataLogger.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/ShimTargetTemperatureIfc.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::DoubleNear;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr double kTiny = 1e-12;

/// The temperature side, as far as the regulator sees it.
class Target : public ShimTargetTemperatureIfc {
public:
    void setShimTargetTemperature(double aTemperature) override {
        if (broken) {
            throw std::runtime_error("no board");
        }
        set.push_back(aTemperature);
    }
    double shimTargetTemperature(bool aFromBoard) const override {
        EXPECT_TRUE(aFromBoard);
        return present;
    }
    double probeTemperature() const override { return probe; }

    bool broken = false;
    double present = 298.15;
    double probe = 298.15;
    std::vector<double> set;
};

class LockShimTargetTemperatureRegulatorTest : public testing::Test {
protected:
    /// @param aConfig  The lines of the section for this regulator; empty for none of it.
    void make(std::string const& aConfig = "p = 1e-6\ni = 1e-7\nd = 2e-6\n") {
        writeFile(mDirectory.path() / "lock.config", "[shimCoilTargetTemperature]\n" + aConfig);
        mParameters = std::make_shared<LockParameters>((mDirectory.path() / "lock.config").string());
        mParameters->reload();
        mRegulator = std::make_unique<LockShimTargetTemperatureRegulator>(mParameters, mTarget, mDataLogger);
        mLog.clear();
    }
    void sample(int aOut) { mRegulator->pushLockPIDDataOut(aOut); }
    /// A sample more than the averaging time after the one before.
    void sampleAfter11s(int aOut) {
        mClock->advance(seconds(11));
        sample(aOut);
    }
    std::vector<double> values(std::string const& aName) {
        std::vector<double> all;
        for (auto const& push : mDataLogger->pushes("lock/shimTargetTempPID/" + aName)) {
            all.push_back(push.value);
        }
        return all;
    }

    LogCapture mLog;
    HandClockScope mClock;
    TemporaryDirectory mDirectory;
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<Target> mTarget = std::make_shared<Target>();
    std::shared_ptr<LockParameters> mParameters;
    std::unique_ptr<LockShimTargetTemperatureRegulator> mRegulator;
};

TEST_F(LockShimTargetTemperatureRegulatorTest, MakesItsChannelsInTheirOrder) {
    make();
    std::vector<std::string> names;
    for (auto const& info : mDataLogger->infos()) {
        names.push_back(info.name() + ": " + info.description);
        EXPECT_EQ(static_cast<int>(info.unit), 16);
        EXPECT_EQ(static_cast<int>(info.storageType), 1);
        EXPECT_TRUE(info.stats.isNone());
    }
    std::string const path = "lock/shimTargetTempPID/";
    EXPECT_THAT(
        names,
        ElementsAre(
            path +
                "output: Raw output of the PID regulator, is the delta to be applied to the current target "
                "temperature",
            path + "target_temp: The target temperature set on the hardware",
            path + "error: Delta of the PID input (i.e. lock PID output) and it's reference value (value on "
                   "locked).",
            path + "integral: mTi", path + "proportional: mKp * error",
            path + "derivative: mKd * (error - mPrevError) / dT",
            path + "feed_forward: The value used as feed forward",
            path +
                "input_averaged: The averaged PID input (i.e. lock PID output) used as input to this PID"));
}

TEST_F(LockShimTargetTemperatureRegulatorTest, MovesTheTargetStepByStep) {
    make();
    mRegulator->start();
    sample(1000); // the reference, not averaged
    sampleAfter11s(2000);
    // error 1000 - 2000 = -1000; integral -1000 * 1e-7 * 11 = -0.0011; proportional -0.001;
    // derivative (-1000 - 0) * 2e-6 / 11 = -0.000181818...
    double const first = -0.0011 - 0.001 - 0.002 / 11.0;
    sampleAfter11s(4000);
    // mean 3000, error -2000; integral -0.0011 - 0.0022 = -0.0033; proportional -0.002;
    // derivative (-2000 + 1000) * 2e-6 / 11
    double const second = -0.0033 - 0.002 - 0.002 / 11.0;
    EXPECT_THAT(mTarget->set,
                ElementsAre(DoubleNear(298.15 + first, kTiny), DoubleNear(298.15 + second, kTiny)));
    EXPECT_THAT(values("input_averaged"), ElementsAre(2000.0, 3000.0));
    EXPECT_THAT(values("error"), ElementsAre(-1000.0, -2000.0));
    EXPECT_THAT(values("integral"), ElementsAre(DoubleNear(-0.0011, kTiny), DoubleNear(-0.0033, kTiny)));
    EXPECT_THAT(values("proportional"), ElementsAre(DoubleNear(-0.001, kTiny), DoubleNear(-0.002, kTiny)));
    EXPECT_THAT(values("derivative"),
                ElementsAre(DoubleNear(-0.002 / 11.0, kTiny), DoubleNear(-0.002 / 11.0, kTiny)));
    EXPECT_THAT(values("output"), ElementsAre(DoubleNear(first, kTiny), DoubleNear(second, kTiny)));
    EXPECT_THAT(values("target_temp"),
                ElementsAre(DoubleNear(298.15 + first, kTiny), DoubleNear(298.15 + second, kTiny)));
    EXPECT_THAT(values("feed_forward"), ElementsAre(0.0, 0.0, 0.0)); // one of them at the start
}

TEST_F(LockShimTargetTemperatureRegulatorTest, TellsOfItsStart) {
    make("p = 1e-6\ni = 1e-7\nd = 0\nffOffset = 0.25\nffSlope = 0.01\n");
    mTarget->probe = 308.15; // 35 degrees: 0.25 + 10 * 0.01 = 0.35
    mRegulator->start();
    std::vector<std::string> lines;
    for (auto const& line : mLog.linesOf("LockShimTargetTemperatureRegulator")) {
        lines.push_back(std::to_string(static_cast<int>(line.severity)) + " " + line.text);
    }
    EXPECT_THAT(
        lines,
        ElementsAre("4 start invoked started = 0", "3 Shim target temperature regulator STARTS",
                    "3 using kP=1.000000E-06, kI=1.000000E-07, kD=0.000000E+00, ffOffset=2.500000E-01, "
                    "ffSlope=1.000000E-02",
                    "3 shim target temperature on regulator start = 298.150000K",
                    "3 initial feed-forward bias is 0.350000K",
                    "3 Adjusting the PID output range based on the current shim target temperature "
                    "(298.150000K)",
                    "3 Shim target temp PID output will be in range [-0.500000...0.500000]K.\nActual "
                    "target temperature will be 297.800000K + Feed forward 0.350000 + PID output"));
    EXPECT_FALSE(mRegulator->armed());
    EXPECT_THAT(mTarget->set, IsEmpty());
}

TEST_F(LockShimTargetTemperatureRegulatorTest, BeginsFromTheTargetThatTheHardwareHas) {
    make("p = 0\ni = 0\nd = 0\nffOffset = 0.25\nffSlope = 0.01\n");
    mTarget->probe = 308.15;
    mTarget->present = 298.30;
    mRegulator->start();
    sample(0);
    sampleAfter11s(5000);    // without gains the output is 0: 298.30 - 0.35 + 0.35
    mTarget->probe = 318.15; // 0.25 + 20 * 0.01 = 0.45: 298.30 - 0.35 + 0.45
    sampleAfter11s(5000);
    EXPECT_THAT(mTarget->set, ElementsAre(DoubleNear(298.30, kTiny), DoubleNear(298.40, kTiny)));
}

TEST_F(LockShimTargetTemperatureRegulatorTest, LimitsItsOutputByThePresentTarget) {
    make("p = -1\ni = 0\nd = 0\n");
    mTarget->present = 298.5; // 297.65 - 298.5 = -0.85 and 298.65 - 298.5 = 0.15
    mRegulator->start();
    sample(0);
    sampleAfter11s(1);  // error -1, output 1
    sampleAfter11s(-3); // mean -1, error 1, output -1
    EXPECT_THAT(mTarget->set, ElementsAre(DoubleNear(298.65, kTiny), DoubleNear(297.65, kTiny)));
    EXPECT_TRUE(mLog.has(Severity::Warning,
                         "PID output restricted to max. Reached value was 1.000000 and max is 0.150000"));
    EXPECT_TRUE(mLog.has(Severity::Warning,
                         "PID output restricted to min. Reached value was -1.000000 and min is -0.850000"));
}

TEST_F(LockShimTargetTemperatureRegulatorTest, LetsAnOutputOfExactlyTheLimitPass) {
    make("p = 0.5\ni = 0\nd = 0\n");
    mTarget->present = 298.15;
    mRegulator->start();
    sample(0);
    sampleAfter11s(-1); // error 1, output 0.5, the limit: 298.65 - 298.15 is 0.5 to the last bit
    EXPECT_THAT(mTarget->set, ElementsAre(DoubleNear(298.65, kTiny)));
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), IsEmpty());
}

TEST_F(LockShimTargetTemperatureRegulatorTest, ResetsATargetThatIsOutOfRange) {
    make("p = 0\ni = 0\nd = 0\nffOffset = 0.1\n");
    mTarget->present = 300.0;
    mRegulator->start();
    EXPECT_THAT(mTarget->set, ElementsAre(298.15));
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "The shim target temperature (300.000000K) is out of the allowed range "
                         "[297.650000...298.650000]K.\nResetting the target to default (298.150000K)"));
    // The feed forward is taken off twice: 298.15 - 0.1 - 0.1.
    EXPECT_TRUE(
        mLog.has(Severity::Info,
                 "Shim target temp PID output will be in range [-0.500000...0.500000]K.\nActual target "
                 "temperature will be 297.950000K + Feed forward 0.100000 + PID output"));
    sample(0);
    sampleAfter11s(0); // 297.95 + 0.1
    EXPECT_THAT(mTarget->set, ElementsAre(298.15, DoubleNear(298.05, kTiny)));
}

TEST_F(LockShimTargetTemperatureRegulatorTest, TakesTheFirstSampleAsItsReference) {
    make();
    sample(7); // before the start nothing happens
    EXPECT_FALSE(mRegulator->armed());
    mRegulator->start();
    sample(-4321);
    EXPECT_TRUE(mRegulator->armed());
    EXPECT_TRUE(mLog.has(Severity::Info, "Initial DAC value is -4321.000000"));
    sampleAfter11s(-4321);
    EXPECT_THAT(values("error"), ElementsAre(0.0));
    EXPECT_THAT(values("input_averaged"), ElementsAre(-4321.0));
}

TEST_F(LockShimTargetTemperatureRegulatorTest, NeedsMoreThanTenSecondsBetweenSteps) {
    make();
    mRegulator->start();
    sample(0);
    mClock->advance(seconds(10));
    sample(0);
    EXPECT_THAT(mTarget->set, IsEmpty());
    EXPECT_TRUE(mLog.has(Severity::Trace, "not doing PID: keep averaging until time period elapsed"));
    mClock->advance(milliseconds(1));
    sample(0);
    EXPECT_EQ(mTarget->set.size(), 1U);
}

TEST_F(LockShimTargetTemperatureRegulatorTest, AveragesTheLastThreeHundredSamples) {
    make();
    mRegulator->start();
    sample(0);
    for (int i = 0; i < 300; ++i) {
        sample(100);
    }
    // 150 of the 300 samples of 100 give way: (150 * 100 + 149 * 400 + 400) / 300 = 250.
    for (int i = 0; i < 149; ++i) {
        sample(400);
    }
    sampleAfter11s(400);
    EXPECT_THAT(values("input_averaged"), ElementsAre(250.0));
}

TEST_F(LockShimTargetTemperatureRegulatorTest, GoesOnThroughALostLock) {
    make();
    mRegulator->start();
    sample(0);
    sampleAfter11s(1000); // integral -1000 * 1e-7 * 11
    mRegulator->pause();
    EXPECT_TRUE(mRegulator->armed());
    mLog.clear();
    mRegulator->start();
    EXPECT_TRUE(mLog.has(Severity::Debug, "start invoked started = 1"));
    EXPECT_TRUE(mLog.has(Severity::Trace, "Shim target temperature regulator RESUMED"));
    EXPECT_EQ(mLog.lines().size(), 2U);
    sampleAfter11s(1000); // mean 1000 again
    EXPECT_THAT(values("integral"), ElementsAre(DoubleNear(-0.0011, kTiny), DoubleNear(-0.0022, kTiny)));
}

TEST_F(LockShimTargetTemperatureRegulatorTest, BeginsAfreshAfterAStop) {
    make();
    mRegulator->start();
    sample(0);
    sampleAfter11s(1000);
    mRegulator->stop();
    EXPECT_FALSE(mRegulator->armed());
    EXPECT_TRUE(mLog.has(Severity::Info, "Shim target temperature regulator STOPS"));
    writeFile(mDirectory.path() / "lock.config", "[shimCoilTargetTemperature]\np = 0\ni = 1e-6\nd = 0\n");
    mParameters->reload();
    mRegulator->start();
    sample(500); // a new reference
    sampleAfter11s(400);
    // error 100, integral from 0 on with the new gain: 100 * 1e-6 * 11
    EXPECT_THAT(values("integral"), ElementsAre(DoubleNear(-0.0011, kTiny), DoubleNear(0.0011, kTiny)));
}

TEST_F(LockShimTargetTemperatureRegulatorTest, LetsTheTemperatureSidesFailurePass) {
    make();
    mRegulator->start();
    sample(0);
    mTarget->broken = true;
    mClock->advance(seconds(11));
    EXPECT_THAT([this] { sample(0); }, testing::ThrowsMessage<std::runtime_error>("no board"));
    mTarget->broken = false;
    sampleAfter11s(0);
    EXPECT_EQ(mTarget->set.size(), 1U);
}

TEST_F(LockShimTargetTemperatureRegulatorTest, TakesTheWholeRangeOfTheDac) {
    make("p = 1e-9\ni = 0\nd = 0\n");
    mRegulator->start();
    sample(std::numeric_limits<int>::max());
    sampleAfter11s(std::numeric_limits<int>::min());
    // 2147483647 + 2147483648 = 4294967295 counts, times 1e-9, is out of range
    EXPECT_THAT(values("error"), ElementsAre(4294967295.0));
    EXPECT_THAT(mTarget->set, ElementsAre(DoubleNear(298.65, kTiny)));
}

TEST_F(LockShimTargetTemperatureRegulatorTest, KeepsTheTargetWhenItsGainsLeadToNoNumber) {
    make("p = 0\ni = 1e306\nd = 0\n");
    mRegulator->start();
    sample(0);
    sampleAfter11s(-1000); // 1000 * 1e306 * 11 is infinite: limited
    EXPECT_THAT(mTarget->set, ElementsAre(DoubleNear(298.65, kTiny)));
    sampleAfter11s(100'000); // mean 49500, error -49500: infinity less infinity
    EXPECT_THAT(mTarget->set, testing::SizeIs(1));
    EXPECT_TRUE(
        mLog.has(Severity::Error, "The new shim target temperature would be -nan: it stays at 298.650000K") ||
        mLog.has(Severity::Error, "The new shim target temperature would be nan: it stays at 298.650000K"));
    sampleAfter11s(100'000); // The integral began afresh.
    EXPECT_THAT(mTarget->set, ElementsAre(DoubleNear(298.65, kTiny), DoubleNear(297.65, kTiny)));
}

/// A clock that a test sets for every single look at it.
class ScriptedClock final : public velmor::platform::Clock {
public:
    TimePoint now() const noexcept override {
        if (mNext < mTimes.size()) {
            return TimePoint(mTimes[mNext++]);
        }
        return TimePoint(mTimes.back());
    }
    SystemTimePoint systemNow() const noexcept override { return {}; }
    void sleepFor(Duration /*aDuration*/) override { ADD_FAILURE() << "nothing sleeps here"; }
    std::cv_status waitUntil(std::condition_variable& /*aCondition*/,
                             std::unique_lock<std::mutex>& /*aLock*/,
                             TimePoint /*aDeadline*/) override {
        ADD_FAILURE() << "nothing waits here";
        return std::cv_status::timeout;
    }

    void script(std::vector<seconds> aTimes) {
        mTimes = std::move(aTimes);
        mNext = 0;
    }

private:
    std::vector<seconds> mTimes{seconds(0)};
    mutable std::size_t mNext = 0;
};

TEST_F(LockShimTargetTemperatureRegulatorTest, ChangesNothingInAStepThatTakesNoTime) {
    make();
    auto const clock = std::make_shared<ScriptedClock>();
    auto const former = velmor::platform::Clock::use(clock);
    clock->script({seconds(100)});
    mRegulator->start();
    sample(1000); // the reference, at 100 s
    // Due at 111 s by the first look at the clock, and back at 100 s by the second.
    clock->script({seconds(111), seconds(100)});
    sample(2000);
    EXPECT_TRUE(mLog.has(Severity::Error, "dT is lower than or equal to zero: no change"));
    EXPECT_THAT(values("output"), ElementsAre(2000.0)); // Intended: what came in goes out,
    EXPECT_THAT(mTarget->set,
                ElementsAre(DoubleNear(2298.15, 1e-9))); // and past the limits: 298.15 K and 2000.
    EXPECT_THAT(values("integral"), IsEmpty());
    EXPECT_THAT(values("derivative"), IsEmpty());
    clock->script({seconds(122)});
    sample(1000);
    // mean 1500, error -500; the time since 111 s; -500 * 1e-7 * 11
    EXPECT_THAT(values("integral"), ElementsAre(DoubleNear(-0.00055, kTiny)));
    // (-500 - 0) * 2e-6 / 11: the error of the step that was none is not kept
    EXPECT_THAT(values("derivative"), ElementsAre(DoubleNear(-0.001 / 11.0, kTiny)));
    velmor::platform::Clock::use(former);
}

} // namespace
