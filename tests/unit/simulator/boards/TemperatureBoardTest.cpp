// SPDX-License-Identifier: Apache-2.0
// What the temperature board regulates, keeps and reports, on a clock that moves by hand.
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "unit/simulator/boards/TemperatureBoardRig.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::Emergency;
using libfieldwarden::sim::ObjectAccess;
using libfieldwarden::sim::TemperatureBoard;
using libfieldwarden::sim::ThermalModel;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::TemperatureBoardRig;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::chrono_literals;

class TemperatureBoardTest : public TemperatureBoardRig {
protected:
    /// @return The farthest that a value is from a number in a time, looked at every second.
    template <typename Value>
    double farthest(double aFrom, std::chrono::seconds aTime, Value const& aValue) {
        double largest = 0.0;
        for (std::chrono::seconds passed{0}; passed < aTime; ++passed) {
            mClock.advance(1s);
            largest = std::max(largest, std::abs(aValue() - aFrom));
        }
        return largest;
    }
    double magnet() { return mBoard->temperatures().magnet(); }
    double shimCoil() { return mBoard->temperatures().shimCoil(); }
    double box() { return mBoard->temperatures().air; }

    TemporaryDirectory mDirectory;
    std::filesystem::path const mFile = mDirectory.path() / "boards/temperature.json";
};

// ---------------------------------------------------------------------------------------------- regulators

TEST_F(TemperatureBoardTest, HoldsMagnetShimCoilAndBoxOverADayInASwingingRoom) {
    mBoard->setRoom({.meanCelsius = 23.0, .swingKelvin = 3.0});
    double magnetOff = 0.0;
    double shimOff = 0.0;
    double boxOff = 0.0;
    for (auto passed = 0min; passed < 24h; passed += 1min) {
        mClock.advance(1min);
        magnetOff = std::max(magnetOff, std::abs(magnet() - 25.0));
        shimOff = std::max(shimOff, std::abs(shimCoil() - 25.0));
        boxOff = std::max(boxOff, std::abs(box() - 21.0));
    }
    EXPECT_LT(magnetOff, 0.005);
    EXPECT_LT(shimOff, 0.005);
    EXPECT_LT(boxOff, 0.1);
}

TEST_F(TemperatureBoardTest, BringsTheMagnetToANewTarget) {
    set(kMagnetTarget, 25'500);
    mClock.advance(1s);
    EXPECT_EQ(number({0x3006, 7}), 0);
    mClock.advance(4h);
    EXPECT_NEAR(magnet(), 25.5, 0.005);
    EXPECT_EQ(number({0x3006, 7}), 1);
    EXPECT_EQ(number({0x3006, 1}), 1);
}

TEST_F(TemperatureBoardTest, BringsTheShimCoilToANewTargetInMinutes) {
    set(kShimTarget, 25'300);
    mClock.advance(250ms);
    EXPECT_EQ(number({0x3106, 2}), 0);
    mClock.advance(30min);
    EXPECT_NEAR(shimCoil(), 25.3, 0.005);
    EXPECT_EQ(number({0x3106, 2}), 1);
    EXPECT_EQ(number({0x3106, 1}), 1);
    EXPECT_LT(farthest(25.3, 10min, [this] { return shimCoil(); }), 0.003);
}

TEST_F(TemperatureBoardTest, HoldsTheMeanOfTwoShimTargets) {
    set({0x3104, 2}, 25'600);
    mClock.advance(1h);
    EXPECT_NEAR(shimCoil(), 25.3, 0.005);
}

TEST_F(TemperatureBoardTest, BringsTheBoxToANewTargetEitherWay) {
    set({0x3204, 1}, 19'000);
    mClock.advance(2h);
    EXPECT_NEAR(box(), 19.0, 0.05);
    EXPECT_EQ(number({0x3203, 1}), 1); // Cools.
    mBoard->setRoom({.meanCelsius = 10.0, .swingKelvin = 0.0});
    set({0x3204, 1}, 25'000);
    mClock.advance(2h);
    EXPECT_NEAR(box(), 25.0, 0.05);
    EXPECT_EQ(number({0x3203, 1}), 2); // Heats.
    EXPECT_EQ(number({0x3206, 2}), 1);
}

TEST_F(TemperatureBoardTest, TellsThatARegulatorIsAtItsLimit) {
    set(kMagnetTarget, 45'000);
    mClock.advance(1min);
    for (std::uint8_t face = 1; face <= 6; ++face) {
        EXPECT_EQ(number({0x3006, face}), 3);
        EXPECT_EQ(number({0x3002, face}), 24'000); // sqrt(24 W 24 Ohm) = 24 V
    }
    set(kMagnetTarget, 15'000);
    mClock.advance(1min);
    EXPECT_EQ(number({0x3006, 1}), 2);
    EXPECT_EQ(number({0x3002, 1}), 0);
}

TEST_F(TemperatureBoardTest, LimitsAHeaterToThePowerInItsSetup) {
    set({0x3010, 4}, 6'000);
    set(kMagnetTarget, 45'000);
    mClock.advance(1min);
    EXPECT_EQ(number({0x3002, 1}), 12'000); // sqrt(6 W 24 Ohm) = 12 V
}

TEST_F(TemperatureBoardTest, WarmsUpFromColdAndThenHolds) {
    auto cold = options();
    cold.cold = true;
    remake(cold);
    EXPECT_EQ(magnet(), 23.0);
    EXPECT_EQ(shimCoil(), 23.0);
    mClock.advance(1min);
    EXPECT_EQ(number({0x3006, 1}), 3); // All that the heaters can.
    mClock.advance(12h);
    EXPECT_NEAR(magnet(), 25.0, 0.005);
    EXPECT_NEAR(shimCoil(), 25.0, 0.005);
    EXPECT_NEAR(box(), 21.0, 0.1);
}

TEST_F(TemperatureBoardTest, TurnsItsFanFasterUnderLoad) {
    mBoard->setRoom({.meanCelsius = 36.0, .swingKelvin = 0.0});
    set({0x3204, 1}, 15'000);
    mClock.advance(10min);
    EXPECT_EQ(number({0x3205, 1}), 2);
    mBoard->setRoom({.meanCelsius = 23.0, .swingKelvin = 0.0});
    set({0x3204, 1}, 21'000);
    mClock.advance(2h);
    EXPECT_EQ(number({0x3205, 1}), 1);
}

// ---------------------------------------------------------------------------------------------- modes

TEST_F(TemperatureBoardTest, CoolsWithLessCurrentByTheBigElement) {
    double const small = static_cast<double>(number({0x3202, 1}));
    set(kBoxMode, 1);
    mClock.advance(2h);
    EXPECT_NEAR(box(), 21.0, 0.05);
    EXPECT_LT(static_cast<double>(number({0x3202, 1})), 0.7 * small);
}

TEST_F(TemperatureBoardTest, HeatsTheShimCoilMoreInTheStreamOfTheBoxsAir) {
    double const still = mBoard->drive().shimMatWatt;
    set(kShimMode, 1);
    mClock.advance(2h);
    EXPECT_NEAR(shimCoil(), 25.0, 0.005);
    // 4 K above the air on two ends of 0.3 W/K more.
    EXPECT_NEAR(mBoard->drive().shimMatWatt - still, 2.4, 0.3);
}

TEST_F(TemperatureBoardTest, RefusesToHeatGasWithoutTheOption) {
    EXPECT_EQ(write(kSpiralPower, 1000), kDeviceState);
    EXPECT_EQ(write(kSpiralRegulation, 1), kDeviceState);
    EXPECT_EQ(write(kProbeRegulation, 1), kDeviceState);
    EXPECT_EQ(mBoard->write(kSpiral, Bytes{1}), kDeviceState);
    set(kSpiralPower, 0);
    set(kSpiralRegulation, 0);
    set(kProbeRegulation, 0);
    EXPECT_EQ(number(kHeating), 0);
}

TEST_F(TemperatureBoardTest, EndsTheHeatingWhenTheOptionIsTakenAway) {
    set(kVtMode, 1);
    set(kGas, 3);
    set(kSpiralPower, 5000);
    mClock.advance(1s);
    EXPECT_EQ(number(kSpiralPower), 5000);
    set(kVtMode, 0);
    mClock.advance(1s);
    EXPECT_EQ(number(kSpiralPower), 0);
    EXPECT_EQ(number(kHeating), 0);
    set(kVtMode, 1);
    mClock.advance(1s);
    EXPECT_EQ(number(kSpiralPower), 0);
}

TEST_F(TemperatureBoardTest, AsksForTheFlowBoxOnThePortExpanderOnly) {
    EXPECT_EQ(number(kEcl), 255);
    set(kVtMode, 1);
    EXPECT_EQ(number(kEcl), 255);
    set(kVtMode, 2);
    EXPECT_EQ(number(kEcl), 20);
    mBox->fail(true);
    EXPECT_EQ(number(kEcl), 99);
}

// ---------------------------------------------------------------------------------------------- setup

TEST_F(TemperatureBoardTest, KnowsWhetherTheEepromHoldsItsSetup) {
    EXPECT_EQ(number(kSaved), 1);
    set(kVtMode, 2);
    EXPECT_EQ(number(kSaved), 0);
    set(kVtMode, 0);
    EXPECT_EQ(number(kSaved), 1);
    set(kVtMode, 2);
    std::int64_t const sum = number({0x3402, 3});
    set(kSaved, 1);
    EXPECT_EQ(number(kSaved), 1);
    EXPECT_EQ(number({0x3402, 1}), 1);
    EXPECT_NE(number({0x3402, 3}), sum);
    EXPECT_EQ(write(kSaved, 0), kOutOfRange);
}

TEST_F(TemperatureBoardTest, GoesBackToTheEepromWithARestart) {
    set(kVtMode, 2);
    set(kMagnetTarget, 25'500);
    set(kSaved, 1);
    set(kMagnetTarget, 26'000);
    set({0x3204, 1}, 22'000);
    mBoard->restart(TemperatureBoard::Start::Network);
    EXPECT_EQ(number(kVtMode), 2);
    EXPECT_EQ(number({0x3004, 2}), 25'500);
    EXPECT_EQ(number({0x3204, 1}), 21'000);
    EXPECT_EQ(number(kSaved), 1);
}

TEST_F(TemperatureBoardTest, LosesWhatNoEepromKeepsWithARestart) {
    set(kVtMode, 2);
    set(kSaved, 1);
    set(kShimTarget, 25'300);
    set(kProbeTarget, 40'000);
    set(kSpiralTarget, 60'000);
    set(kTimeout, 240);
    set(kGas, 4);
    set(kProbeRegulation, 1);
    mBoard->restart(TemperatureBoard::Start::Network);
    EXPECT_EQ(number(kShimTarget), 25'000);
    EXPECT_EQ(number(kProbeTarget), 25'000);
    EXPECT_EQ(number(kSpiralTarget), 25'000);
    EXPECT_EQ(number(kTimeout), 60);
    EXPECT_EQ(number(kGas), 0);
    EXPECT_EQ(number(kProbeRegulation), 0);
    EXPECT_EQ(number(kHeating), 0);
    EXPECT_EQ(mBox->valves(), libfieldwarden::sim::FlowBox::Valves{});
}

TEST_F(TemperatureBoardTest, GoesOnFromItsFileWithItsSetupAndShimTargets) {
    auto kept = options();
    kept.stateFile = mFile;
    remake(kept);
    set(kVtMode, 2);
    set(kSaved, 1);
    set(kMagnetTarget, 25'200);
    set(kShimTarget, 25'300);
    set(kGas, 4);
    set(kSpiralPower, 1000);
    remake(kept);
    EXPECT_EQ(number(kVtMode), 2);
    EXPECT_EQ(number({0x3004, 2}), 25'200);
    EXPECT_EQ(number(kSaved), 0); // The magnet's target was not stored.
    EXPECT_EQ(number(kShimTarget), 25'300);
    EXPECT_EQ(number(kSpiralPower), 0);
    EXPECT_EQ(number(kHeating), 0);
    EXPECT_NEAR(shimCoil(), 25.3, 1e-3);
    EXPECT_NEAR(magnet(), 25.2, 1e-3);
    mBoard->restart(TemperatureBoard::Start::PowerOn);
    EXPECT_EQ(number({0x3004, 2}), 25'000);
}

TEST_F(TemperatureBoardTest, IsANewBoardWithoutAFile) {
    auto kept = options();
    kept.stateFile = mFile;
    remake(kept);
    EXPECT_EQ(number({0x3401, 1}), 3);
    EXPECT_EQ(number({0x2100, 4}), 1);
    EXPECT_EQ(text({0x2201, 1}), "");
}

TEST_F(TemperatureBoardTest, StartsWithPowerOnValuesFromADamagedFileAndTells) {
    LogCapture const log;
    auto kept = options();
    kept.stateFile = mFile;
    std::filesystem::create_directories(mFile.parent_path());
    writeFile(mFile, "rubbish");
    remake(kept);
    EXPECT_EQ(number({0x3401, 1}), 1); // The default parameters count as not read.
    EXPECT_EQ(number({0x2100, 4}), 0);
    EXPECT_EQ(number({0x3004, 2}), 25'000);
    EXPECT_THAT(text({0x2201, 1}),
                HasSubstr("Started with power-on values: the state '" + mFile.string() + "' is damaged: "));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].severity, libfieldwarden::test::Severity::Warning);
    EXPECT_EQ(log.lines()[0].name, "TemperatureBoard(node 7)");
}

TEST_F(TemperatureBoardTest, FindsItsTargetsAgainAfterARestart) {
    mBoard->restart(TemperatureBoard::Start::Network);
    // Without its integral a face at 20 W/K is short of the watt that holds it by 50 mK at most.
    EXPECT_LT(farthest(25.0, 4h, [this] { return magnet(); }), 0.05);
    EXPECT_NEAR(magnet(), 25.0, 0.005);
    EXPECT_NEAR(shimCoil(), 25.0, 0.005);
}

// ---------------------------------------------------------------------------------------------- noise

TEST_F(TemperatureBoardTest, ReadsTheSameWithTheSameSeedAndScript) {
    auto const run = [this](std::uint64_t aSeed) {
        auto seeded = options();
        seeded.seed = aSeed;
        seeded.gas = {};
        velmor::platform::HandClock clock;
        TemperatureBoard board(seeded, clock);
        std::vector<Bytes> readings;
        for (int step = 0; step < 50; ++step) {
            clock.advance(700ms);
            for (std::uint8_t sensor = 1; sensor <= 7; ++sensor) {
                EXPECT_EQ(board.read({0x3001, sensor}, readings.emplace_back()), 0U);
            }
            if (step == 20) {
                EXPECT_EQ(board.write(kShimTarget, Bytes{0x2C, 0x63}), 0U); // 25388
            }
        }
        return readings;
    };
    EXPECT_EQ(run(7), run(7));
    EXPECT_NE(run(7), run(8));
}

TEST_F(TemperatureBoardTest, ReadsTheSameHoweverOftenItIsAsked) {
    auto const run = [this](TemperatureBoard::Duration aStep) {
        velmor::platform::HandClock clock;
        auto alone = options();
        alone.gas = {};
        TemperatureBoard board(alone, clock);
        for (auto passed = TemperatureBoard::Duration{}; passed < 10min; passed += aStep) {
            clock.advance(aStep);
            board.advance(clock.now());
        }
        Bytes data;
        EXPECT_EQ(board.read({0x3101, 2}, data), 0U);
        return std::pair(data, board.temperatures().shimCoil());
    };
    EXPECT_EQ(run(10min), run(250ms));
    EXPECT_EQ(run(10min), run(1s));
}

TEST_F(TemperatureBoardTest, MeasuresWithTheNoiseOfItsSensors) {
    double sum = 0.0;
    double squares = 0.0;
    constexpr int kReadings = 4000;
    for (int reading = 0; reading < kReadings; ++reading) {
        mClock.advance(250ms);
        double const off = thousandths({0x3101, 2}) - mBoard->temperatures().shimEnds[0];
        sum += off;
        squares += off * off;
    }
    // 0.7 mK, and the last place of 1 mK: sqrt(0.7^2 + 1/12) = 0.757 mK; the error of 4000 is below 0.06.
    EXPECT_NEAR(std::sqrt(squares / kReadings) * 1000.0, 0.757, 0.06);
    EXPECT_NEAR(sum / kReadings * 1000.0, 0.0, 0.06);
}

// ---------------------------------------------------------------------------------------------- faults

TEST_F(TemperatureBoardTest, ShowsTheEndOfTheRangeOfABrokenSensor) {
    mBoard->failSensor(Sensor::MagnetTop, Fault::Open);
    mBoard->failSensor(Sensor::ShimCoilBottom, Fault::Short);
    mBoard->failSensor(Sensor::Probe, Fault::Open);
    mBoard->failSensor(Sensor::Spiral, Fault::Short);
    mClock.advance(250ms);
    EXPECT_EQ(number({0x3001, 6}), 65'535);
    EXPECT_EQ(number({0x3003, 6}), 1);
    EXPECT_EQ(number({0x3003, 1}), 1); // Nor is the mean good.
    EXPECT_EQ(number({0x3003, 5}), 128);
    EXPECT_EQ(number({0x3101, 3}), 0);
    EXPECT_EQ(number({0x3103, 2}), 2);
    EXPECT_EQ(number(kProbe), 850'000);
    EXPECT_EQ(number({0x3312, 1}), 1);
    EXPECT_EQ(number(kSpiral), -200'000);
    EXPECT_EQ(number({0x3312, 2}), 2);
    mBoard->failSensor(Sensor::MagnetTop, Fault::None);
    mClock.advance(250ms);
    EXPECT_NEAR(thousandths({0x3001, 6}), 25.0, 0.01);
    EXPECT_EQ(number({0x3003, 6}), 128);
}

TEST_F(TemperatureBoardTest, DoesNotDriveAFaceWhoseSensorIsBroken) {
    mBoard->failSensor(Sensor::MagnetLeft, Fault::Short);
    mClock.advance(250ms);
    EXPECT_EQ(number({0x3002, 1}), 0);
    EXPECT_EQ(number({0x3006, 1}), 0);
    EXPECT_GT(number({0x3002, 2}), 0);
    mClock.advance(6h); // The others hold their faces; heat comes over to the cold one.
    EXPECT_NEAR(mBoard->temperatures().faces[1], 25.0, 0.01);
    EXPECT_LT(mBoard->temperatures().faces[0], 24.99);
    EXPECT_GT(mBoard->temperatures().faces[0], 24.0);
}

TEST_F(TemperatureBoardTest, RegulatesTheShimCoilByTheSensorThatIsLeft) {
    mBoard->failSensor(Sensor::ShimCoilTop, Fault::Open);
    mClock.advance(1h);
    EXPECT_NEAR(mBoard->temperatures().shimEnds[1], 25.0, 0.005);
    mBoard->failSensor(Sensor::ShimCoilBottom, Fault::Open);
    mClock.advance(250ms);
    EXPECT_EQ(number({0x3106, 1}), 0);
    EXPECT_EQ(number({0x3102, 2}), 0);
}

TEST_F(TemperatureBoardTest, MeasuresBeforeAFaultWhatWasThere) {
    mClock.advance(10min);
    mBoard->failSensor(Sensor::MagnetLeft, Fault::Short);
    EXPECT_NEAR(thousandths({0x3001, 2}), 25.0, 0.01); // Until the next sample.
    mClock.advance(250ms);
    EXPECT_EQ(number({0x3001, 2}), 0);
}

TEST_F(TemperatureBoardTest, TellsOfASensorsFaultAndOfItsEnd) {
    mBoard->failSensor(Sensor::Exhaust, Fault::Open);
    mBoard->failSensor(Sensor::Exhaust, Fault::Open);
    EXPECT_EQ(number(kErrors), 0x81); // any, manufacturer
    mBoard->failSensor(Sensor::Exhaust, Fault::None);
    EXPECT_EQ(number(kErrors), 0);
    EXPECT_THAT(mBoard->takeEmergencies(),
                ElementsAre(Emergency{0x5000, 0x81, {15, 1}}, Emergency{0x0000, 0x00, {15, 0}}));
    EXPECT_THROW(mBoard->failSensor(static_cast<Sensor>(16), Fault::Open), std::out_of_range);
}

TEST_F(TemperatureBoardTest, CountsOvercurrentsUntilTheyAreRead) {
    mBoard->countOvercurrent();
    mBoard->countOvercurrent(2);
    EXPECT_THAT(mBoard->takeEmergencies(), Each(testing::Field(&Emergency::code, 0x2310)));
    EXPECT_EQ(number(kOvercurrents), 3);
    EXPECT_EQ(number(kOvercurrents), 0);
    mBoard->countOvercurrent(1000);
    mBoard->countOvercurrent();
    EXPECT_EQ(number(kOvercurrents), 255);
}

// ---------------------------------------------------------------------------------------------- the field

TEST_F(TemperatureBoardTest, TellsTheFieldTheTrueTemperaturesInKelvin) {
    std::vector<std::pair<double, double>> told;
    mBoard->setFieldObserver(
        [&](double aMagnet, double aShimCoil) { told.emplace_back(aMagnet, aShimCoil); });
    ASSERT_EQ(told.size(), 1U);
    EXPECT_NEAR(told[0].first, 298.15, 1e-6);
    EXPECT_NEAR(told[0].second, 298.15, 1e-6);
    set(kShimTarget, 25'300);
    mClock.advance(1h);
    EXPECT_EQ(mBoard->advance(mClock.now()), mClock.now() + 1s);
    ASSERT_EQ(told.size(), 2U);
    EXPECT_NEAR(told[1].second, 298.45, 0.005);
    mBoard->setFieldObserver({});
    mBoard->advance(mClock.now());
    EXPECT_EQ(told.size(), 2U);
}

// ---------------------------------------------------------------------------------------------- robustness

TEST_F(TemperatureBoardTest, StaysPhysicalWhateverIsWrittenToIt) {
    std::mt19937 random(11);
    std::vector<SdoObject> const objects = mBoard->dictionary().objects();
    auto const upTo = [&random](std::size_t aHighest) {
        return std::uniform_int_distribution<std::size_t>(0, aHighest)(random);
    };
    for (int access = 0; access < 20'000; ++access) {
        SdoObject const object = objects.at(upTo(objects.size() - 1));
        bool const isProgram = object.index >= 0x1F50 && object.index <= 0x1F57;
        Bytes data(std::array<std::size_t, 5>{0, 1, 2, 4, 9}.at(upTo(4)));
        for (std::uint8_t& byte : data) {
            byte = static_cast<std::uint8_t>(upTo(3) == 0 ? upTo(255) : upTo(2));
        }
        if (!isProgram) {
            mBoard->write(object, data);
        }
        mClock.advance(std::chrono::milliseconds(upTo(2000)));
        mBoard->read(object, data);
    }
    ThermalModel::Temperatures const is = mBoard->temperatures();
    // 43 W at most on 0.03 W/K, above a room of 23 degrees.
    EXPECT_GT(is.spiral, 0.0);
    EXPECT_LT(is.spiral, 23.0 + 43.0 / 0.03);
    for (double const face : is.faces) {
        EXPECT_GT(face, 0.0);
        EXPECT_LT(face, 100.0);
    }
    EXPECT_GT(is.air, -60.0);
    EXPECT_LT(is.air, 100.0);
    EXPECT_GT(is.probe, 0.0);
    for (SdoObject const object : objects) {
        Bytes data;
        if (mBoard->dictionary().row(object).access != ObjectAccess::WriteOnly) {
            EXPECT_EQ(mBoard->read(object, data), 0U);
        }
    }
}

TEST_F(TemperatureBoardTest, MayBeTalkedToWhileItIsDrivenAndBroken) {
    std::atomic<bool> stop{false};
    std::atomic<int> told{0};
    mBoard->setFieldObserver([&](double, double) { ++told; });
    std::thread bus([&] {
        Bytes data;
        while (!stop) {
            data.clear();
            EXPECT_EQ(mBoard->read(kSpiral, data), 0U);
            EXPECT_EQ(mBoard->write(kGas, Bytes{3}), 0U);
            EXPECT_EQ(mBoard->write(kShimTarget, Bytes{0x2C, 0x63}), 0U);
        }
    });
    std::thread node([&] {
        while (!stop) {
            mBoard->advance(mClock.now());
            mBoard->takeEmergencies();
        }
    });
    for (int round = 0; round < 200; ++round) {
        mClock.advance(300ms);
        mBoard->failSensor(Sensor::Probe, round % 2 == 0 ? Fault::Open : Fault::None);
        mBoard->countOvercurrent();
        mBox->turnKnob(round % 3 == 0 ? libfieldwarden::sim::FlowBox::Knob::Off
                                      : libfieldwarden::sim::FlowBox::Knob::Remote);
        EXPECT_NEAR(mBoard->temperatures().magnet(), 25.0, 0.1); // A restart forgets the integral.
        mBoard->heatingWatch();
        if (round % 50 == 49) {
            mBoard->restart(TemperatureBoard::Start::Network);
        }
    }
    stop = true;
    bus.join();
    node.join();
    EXPECT_GT(told, 0);
}

} // namespace
