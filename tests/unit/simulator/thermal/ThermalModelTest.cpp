// SPDX-License-Identifier: Apache-2.0
// The instrument's bodies: what they come to, how fast, and that no heat is lost between them.
#include "simulator/thermal/ThermalModel.h"

#include <chrono>
#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::ThermalModel;
using Drive = ThermalModel::Drive;
using namespace std::chrono_literals;

constexpr double kRoom = 23.0;

class ThermalModelTest : public testing::Test {
protected:
    /// Drives it for so long that all is at rest.
    ThermalModel::Temperatures rest(Drive const& aDrive) {
        mModel.setDrive(aDrive);
        mModel.advance(1000h);
        return mModel.temperatures();
    }
    /// What has been made must be stored or in the room.
    void expectBalance(double aHeatBefore, double aJoule) const {
        EXPECT_NEAR(mModel.heatStored() + mModel.heatGivenAway() - aHeatBefore, aJoule, 1e-5);
    }

    ThermalModel mModel{kRoom};
};

TEST_F(ThermalModelTest, StartsAtTheTemperatureOfTheRoom) {
    ThermalModel::Temperatures const is = mModel.temperatures();
    EXPECT_EQ(is.magnet(), kRoom);
    EXPECT_EQ(is.shimCoil(), kRoom);
    EXPECT_EQ(is.air, kRoom);
    EXPECT_EQ(is.electronics, kRoom);
    EXPECT_EQ(is.heatsink, kRoom);
    EXPECT_EQ(is.probe, kRoom);
    EXPECT_EQ(is.spiral, kRoom);
    EXPECT_EQ(is.exhaust, kRoom);
    EXPECT_EQ(mModel.roomCelsius(), kRoom);
}

TEST_F(ThermalModelTest, LosesAndMakesNoHeatUnderAnyDrive) {
    double before = mModel.heatStored() + mModel.heatGivenAway();
    Drive drive;
    for (int step = 0; step < 50; ++step) {
        drive.faceWatt.fill(step % 7);
        drive.shimMatWatt = step % 5;
        drive.shimCooling = step % 2 == 1;
        drive.peltier = (step % 9 - 4) / 4.0;
        drive.bigPeltier = step % 4 == 3;
        drive.fan = static_cast<std::uint8_t>(step % 3);
        drive.spiralWatt = step % 11;
        drive.gasLiterPerHour = 50.0 * (step % 9);
        mModel.setDrive(drive);
        mModel.advance(100s);
        expectBalance(before, 100.0 * mModel.wattMade());
        before = mModel.heatStored() + mModel.heatGivenAway();
    }
}

TEST_F(ThermalModelTest, MakesThePowerOfItsHeaters) {
    Drive drive;
    drive.faceWatt.fill(2.0);
    drive.shimMatWatt = 3.0;
    drive.peltier = -0.5;
    drive.spiralWatt = 7.0;
    mModel.setDrive(drive);
    // 6 * 2 + 3 + 45 * 0.25 + 8 of the electronics + 7
    EXPECT_NEAR(mModel.wattMade(), 41.25, 1e-12);
    drive.bigPeltier = true; // 90 * 0.25 in place of 45 * 0.25
    mModel.setDrive(drive);
    EXPECT_NEAR(mModel.wattMade(), 52.5, 1e-12);
}

TEST_F(ThermalModelTest, GivesAllItsPowerToTheRoomAtRest) {
    Drive drive;
    drive.faceWatt.fill(1.0);
    drive.spiralWatt = 5.0;
    drive.gasLiterPerHour = 300.0;
    rest(drive);
    double const before = mModel.heatGivenAway();
    mModel.advance(1000s);
    EXPECT_NEAR(mModel.heatGivenAway() - before, 1000.0 * mModel.wattMade(), 1e-3);
}

TEST_F(ThermalModelTest, HeatsTheSpiralWithoutGasByPowerOverItsLosses) {
    Drive drive;
    drive.spiralWatt = 3.0;
    EXPECT_NEAR(rest(drive).spiral, kRoom + 3.0 / 0.03, 1e-6); // 123 degrees
}

TEST_F(ThermalModelTest, HeatsTheSpiralWithoutGasByItsOwnTimeConstant) {
    Drive drive;
    drive.spiralWatt = 3.0;
    mModel.setDrive(drive);
    mModel.advance(500s); // 15 J/K / 0.03 W/K
    EXPECT_NEAR(mModel.temperatures().spiral, kRoom + 100.0 * (1.0 - std::exp(-1.0)), 1e-6);
}

TEST_F(ThermalModelTest, CoolsTheSpiralByItsGas) {
    Drive drive;
    drive.spiralWatt = 3.0;
    drive.gasLiterPerHour = 300.0;
    // W = 1.145 * 1040 * 300e-3 / 3600 = 0.0992333 W/K; 1 - e^-(0.3 / W) = 0.951335;
    // 3 / (0.03 + 0.0992333 * 0.951335) = 24.114 K
    EXPECT_NEAR(rest(drive).spiral, kRoom + 24.114, 2e-3);
}

TEST_F(ThermalModelTest, WarmsTheProbeByTheGasOnly) {
    Drive drive;
    drive.spiralWatt = 5.0;
    double const without = rest(drive).probe;
    drive.gasLiterPerHour = 200.0;
    double const with = rest(drive).probe;
    EXPECT_LT(without, 30.0); // By the shim coil, which the idle box warms a little.
    EXPECT_GT(with, 50.0);
}

TEST_F(ThermalModelTest, BringsMoreGasNearerToTheProbeAtTheSameSpiral) {
    // With a spiral of the same temperature, more gas covers more of the way to the probe.
    auto const share = [this](double aFlow) {
        Drive drive;
        drive.gasLiterPerHour = aFlow;
        drive.spiralWatt = 5.0;
        ThermalModel::Temperatures const is = rest(drive);
        return (is.probe - kRoom) / (is.spiral - kRoom);
    };
    // At rest W e (gas - probe) = 0.025 W/K (probe - room), if the shim coil had the room's temperature; it
    // is a little warmer. 100 l/h: W = 0.03308, e = 0.998, gas as the spiral: 0.033 / (0.033 + 0.025) = 0.57.
    // 400 l/h: W = 0.1323, e = 0.780, gas at 0.896 of the spiral: 0.896 * 0.1032 / (0.1032 + 0.025) = 0.72.
    EXPECT_NEAR(share(100.0), 0.58, 0.03);
    EXPECT_NEAR(share(400.0), 0.73, 0.03);
}

TEST_F(ThermalModelTest, CoolsDownAlongTheGas) {
    Drive drive;
    drive.spiralWatt = 5.0;
    drive.gasLiterPerHour = 300.0;
    ThermalModel::Temperatures const is = rest(drive);
    EXPECT_GT(is.spiral, is.probe);
    EXPECT_GT(is.probe, is.exhaust);
    EXPECT_GT(is.exhaust, kRoom);
}

TEST_F(ThermalModelTest, CoolsTheBoxWithItsPeltierElementAndHeatsItTheOtherWay) {
    Drive drive;
    drive.fan = 1;
    double const idle = rest(drive).air;
    drive.peltier = 0.3;
    double const cooled = rest(drive).air;
    drive.peltier = -0.3;
    double const heated = rest(drive).air;
    EXPECT_LT(cooled, idle - 3.0);
    EXPECT_GT(heated, idle + 3.0);
}

TEST_F(ThermalModelTest, CoolsBetterWithAFasterFan) {
    Drive drive;
    drive.peltier = 0.8;
    drive.fan = 1;
    double const slow = rest(drive).heatsink;
    drive.fan = 2;
    EXPECT_LT(rest(drive).heatsink, slow - 1.0);
}

TEST_F(ThermalModelTest, HoldsWhatItWasSettledOn) {
    Drive drive;
    drive.fan = 1;
    Drive const held = mModel.settle(25.0, 25.5, 21.0, drive);
    mModel.advance(10h);
    ThermalModel::Temperatures const is = mModel.temperatures();
    EXPECT_NEAR(is.magnet(), 25.0, 1e-3);
    EXPECT_NEAR(is.shimCoil(), 25.5, 1e-3);
    EXPECT_NEAR(is.air, 21.0, 1e-3);
    EXPECT_GT(held.peltier, 0.0);
    EXPECT_LT(held.peltier, 0.75); // So that it is not at the end of its range.
    EXPECT_GT(held.faceWatt[0], 0.0);
    EXPECT_GT(held.shimMatWatt, 0.0);
}

TEST_F(ThermalModelTest, GoesAsFarAsItsHeatersCanWhenItIsSettledTooWarm) {
    Drive const held = mModel.settle(25.0, 200.0, 21.0, {});
    EXPECT_EQ(held.shimMatWatt, ThermalModel::kShimMatWatt);
    mModel.advance(100h);
    EXPECT_LT(mModel.temperatures().shimCoil(), 100.0);
}

TEST_F(ThermalModelTest, NeedsMoreHeatForTheShimCoilInTheStreamOfTheBoxsAir) {
    Drive modes;
    modes.fan = 1;
    double const still = mModel.settle(25.0, 25.5, 21.0, modes).shimMatWatt;
    modes.shimCooling = true;
    double const cooled = mModel.settle(25.0, 25.5, 21.0, modes).shimMatWatt;
    // Two ends at 4.5 K above the air, with 0.5 in place of 0.2 W/K.
    EXPECT_NEAR(cooled - still, 2.0 * 4.5 * 0.3, 0.1);
}

TEST_F(ThermalModelTest, GivesALongStepAndManyShortOnesTheSame) {
    ThermalModel often{kRoom};
    Drive drive;
    drive.faceWatt.fill(3.0);
    drive.spiralWatt = 8.0;
    drive.gasLiterPerHour = 250.0;
    drive.peltier = 0.4;
    drive.fan = 2;
    mModel.setDrive(drive);
    often.setDrive(drive);
    mModel.advance(1h);
    for (int sample = 0; sample < 4 * 3600; ++sample) {
        often.advance(250ms);
    }
    EXPECT_NEAR(mModel.temperatures().magnet(), often.temperatures().magnet(), 1e-8);
    EXPECT_NEAR(mModel.temperatures().probe, often.temperatures().probe, 1e-8);
    EXPECT_NEAR(mModel.temperatures().air, often.temperatures().air, 1e-8);
    EXPECT_NEAR(mModel.heatGivenAway(), often.heatGivenAway(), 1e-3);
}

TEST_F(ThermalModelTest, KnowsThreeSpeedsOfTheFan) {
    Drive drive;
    drive.fan = 3;
    EXPECT_THROW(mModel.setDrive(drive), std::out_of_range);
}

} // namespace
