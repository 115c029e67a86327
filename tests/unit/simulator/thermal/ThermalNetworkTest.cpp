// SPDX-License-Identifier: Apache-2.0
// The network against what heat does: rest, time constants, conservation, and steps of any length.
#include "simulator/thermal/ThermalNetwork.h"

#include <array>
#include <chrono>
#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::ThermalNetwork;
using Body = ThermalNetwork::Body;
using Seconds = ThermalNetwork::Seconds;
using namespace std::chrono_literals;

/// A body of 100 J/K that loses 2 W/K to a room of 20 degrees: its time constant is 50 s.
struct OneBody {
    ThermalNetwork network;
    Body room = network.addReservoir(20.0);
    Body body = network.addBody(100.0, 20.0);
    ThermalNetwork::Conductance loss = network.connect(body, room, 2.0);
};

/// Three bodies in a chain, a room at either end, and gas past two of them.
struct Chain {
    ThermalNetwork network;
    Body cold = network.addReservoir(5.0);
    Body warm = network.addReservoir(30.0);
    Body first = network.addBody(40.0, 10.0);
    Body second = network.addBody(250.0, 22.0);
    Body third = network.addBody(3.0, 60.0);
    ThermalNetwork::Conductance link = network.connect(cold, first, 0.7);
    ThermalNetwork::Stream gas = network.addStream(cold, {{first, 0.3}, {third, 0.8}}, warm);

    Chain() {
        network.connect(first, second, 1.9);
        network.connect(second, third, 0.4);
        network.connect(third, warm, 0.25);
        network.setPower(first, 3.0);
        network.setPower(third, -1.0);
        network.setFlow(gas, 0.5);
    }
    /// What is stored and what has been taken.
    double heat() const { return network.heatStored() + network.heatTaken(cold) + network.heatTaken(warm); }
    std::array<double, 3> temperatures() const {
        return {network.celsius(first), network.celsius(second), network.celsius(third)};
    }
};

TEST(ThermalNetwork, ComesToRestWherePowerOverConductanceSays) {
    OneBody one;
    one.network.setPower(one.body, 10.0);
    one.network.advance(1h);                                // 72 time constants
    EXPECT_NEAR(one.network.celsius(one.body), 25.0, 1e-9); // 20 + 10 / 2
}

TEST(ThermalNetwork, CoversAStepWithTheTimeConstantOfCapacityOverConductance) {
    OneBody one;
    one.network.setPower(one.body, 10.0);
    one.network.advance(50s);
    EXPECT_NEAR(one.network.celsius(one.body), 23.160603, 1e-6); // 20 + 5 (1 - e^-1)
    one.network.advance(50s);
    EXPECT_NEAR(one.network.celsius(one.body), 24.323324, 1e-6); // 20 + 5 (1 - e^-2)
}

TEST(ThermalNetwork, WarmsUpSteadilyWithoutALoss) {
    OneBody one;
    one.network.setConductance(one.loss, 0.0);
    one.network.setPower(one.body, 10.0);
    one.network.advance(30s);
    EXPECT_NEAR(one.network.celsius(one.body), 23.0, 1e-12); // 10 W 30 s / 100 J/K
}

TEST(ThermalNetwork, BringsTwoBodiesToTheirCommonTemperature) {
    ThermalNetwork network;
    Body const small = network.addBody(10.0, 80.0);
    Body const large = network.addBody(30.0, 20.0);
    network.connect(small, large, 1.5);
    // The difference falls with C1 C2 / (C1 + C2) / G = 7.5 / 1.5 = 5 s; the mean by capacity is 35.
    network.advance(5s);
    EXPECT_NEAR(network.celsius(small) - network.celsius(large), 60.0 * std::exp(-1.0), 1e-9);
    network.advance(1000s);
    EXPECT_NEAR(network.celsius(small), 35.0, 1e-9);
    EXPECT_NEAR(network.celsius(large), 35.0, 1e-9);
}

TEST(ThermalNetwork, DividesHeatBetweenTwoWaysByTheirConductances) {
    ThermalNetwork network;
    Body const left = network.addReservoir(0.0);
    Body const right = network.addReservoir(0.0);
    Body const body = network.addBody(1.0, 0.0);
    network.connect(body, left, 1.0);
    network.connect(body, right, 3.0);
    network.setPower(body, 8.0);
    network.settle({});
    network.advance(100s);
    EXPECT_NEAR(network.celsius(body), 2.0, 1e-12);    // 8 / (1 + 3)
    EXPECT_NEAR(network.heatTaken(left), 200.0, 1e-9); // 2 W for 100 s
    EXPECT_NEAR(network.heatTaken(right), 600.0, 1e-9);
}

TEST(ThermalNetwork, GivesALongStepAndManyShortOnesTheSame) {
    Chain once;
    Chain often;
    once.network.advance(600s);
    for (int step = 0; step < 2400; ++step) {
        often.network.advance(250ms);
    }
    for (std::size_t body = 0; body < 3; ++body) {
        EXPECT_NEAR(once.temperatures()[body], often.temperatures()[body], 1e-9);
    }
    EXPECT_NEAR(once.heat(), often.heat(), 1e-6);
}

TEST(ThermalNetwork, AgreesWithSmallStepsOfEuler) {
    // A chain of two without gas, by hand with steps of 0.1 ms.
    ThermalNetwork network;
    Body const room = network.addReservoir(20.0);
    Body const inner = network.addBody(12.0, 90.0);
    Body const outer = network.addBody(5.0, 20.0);
    network.connect(inner, outer, 0.8);
    network.connect(outer, room, 0.3);
    network.setPower(inner, 4.0);
    double innerCelsius = 90.0;
    double outerCelsius = 20.0;
    constexpr double kStep = 1e-4;
    for (int step = 0; step < 200'000; ++step) {
        double const flow = 0.8 * (innerCelsius - outerCelsius);
        innerCelsius += kStep * (4.0 - flow) / 12.0;
        outerCelsius += kStep * (flow - 0.3 * (outerCelsius - 20.0)) / 5.0;
    }
    network.advance(20s);
    EXPECT_NEAR(network.celsius(inner), innerCelsius, 1e-3);
    EXPECT_NEAR(network.celsius(outer), outerCelsius, 1e-3);
}

TEST(ThermalNetwork, LosesAndMakesNoHeat) {
    Chain chain;
    double const before = chain.heat();
    chain.network.advance(37s);
    EXPECT_NEAR(chain.heat() - before, 2.0 * 37.0, 1e-8); // 3 W in, 1 W out
    chain.network.setFlow(chain.gas, 0.0);
    chain.network.advance(1000s);
    EXPECT_NEAR(chain.heat() - before, 2.0 * 1037.0, 1e-7);
    chain.network.setFlow(chain.gas, 2.0);
    chain.network.setPower(chain.second, 5.0);
    chain.network.advance(10s);
    EXPECT_NEAR(chain.heat() - before, 2.0 * 1047.0 + 50.0, 1e-7);
}

TEST(ThermalNetwork, StaysBetweenItsReservoirsWithoutPower) {
    // The second law: nothing becomes warmer than the warmest or colder than the coldest.
    std::mt19937 random(7);
    std::uniform_real_distribution<double> time(0.01, 500.0);
    Chain chain;
    chain.network.setPower(chain.first, 0.0);
    chain.network.setPower(chain.third, 0.0);
    for (int step = 0; step < 200; ++step) {
        chain.network.advance(Seconds(time(random)));
        for (double const celsius : chain.temperatures()) {
            EXPECT_GE(celsius, 5.0);
            EXPECT_LE(celsius, 60.0);
        }
    }
}

TEST(ThermalNetwork, LetsGasComeNearToABodyByItsTransferUnits) {
    ThermalNetwork network;
    Body const inlet = network.addReservoir(20.0);
    Body const outlet = network.addReservoir(20.0);
    Body const body = network.addBody(50.0, 20.0);
    auto const gas = network.addStream(inlet, {{body, 0.6}}, outlet);
    network.setFlow(gas, 0.2);
    network.setPower(body, 10.0);
    network.settle({});
    // The gas takes all: W (1 - e^-(hA/W)) dT = 0.2 (1 - e^-3) dT = 10 W, dT = 52.619.
    EXPECT_NEAR(network.celsius(body) - 20.0, 10.0 / (0.2 * (1.0 - std::exp(-3.0))), 1e-9);
    EXPECT_NEAR(network.celsius(body), 72.619, 1e-3);
    network.advance(100s);
    EXPECT_NEAR(network.heatTaken(outlet), 1000.0, 1e-6);
}

TEST(ThermalNetwork, CarriesHeatDownstreamOnly) {
    ThermalNetwork network;
    Body const room = network.addReservoir(20.0);
    Body const first = network.addBody(10.0, 20.0);
    Body const second = network.addBody(10.0, 20.0);
    auto const gas = network.addStream(room, {{first, 1.0}, {second, 1.0}}, room);
    network.setFlow(gas, 0.5);
    network.setPower(second, 5.0);
    network.advance(1000s);
    EXPECT_NEAR(network.celsius(first), 20.0, 1e-9);
    EXPECT_GT(network.celsius(second), 30.0);
    network.setPower(second, 0.0);
    network.setPower(first, 5.0);
    network.advance(1000s);
    EXPECT_GT(network.celsius(first), 30.0);
    EXPECT_GT(network.celsius(second), 25.0);
    EXPECT_LT(network.celsius(second), network.celsius(first));
}

TEST(ThermalNetwork, SettlesWhereALongTimeWouldBringIt) {
    Chain settled;
    Chain waited;
    settled.network.settle({});
    waited.network.advance(100h);
    for (std::size_t body = 0; body < 3; ++body) {
        EXPECT_NEAR(settled.temperatures()[body], waited.temperatures()[body], 1e-9);
    }
}

TEST(ThermalNetwork, TellsThePowerThatHoldsABody) {
    OneBody one;
    std::vector<ThermalNetwork::Held> const held{{one.body, 33.0}};
    EXPECT_NEAR(one.network.settle(held).at(0), 26.0, 1e-12); // 2 W/K 13 K
    EXPECT_EQ(one.network.celsius(one.body), 33.0);
    one.network.advance(1h);
    EXPECT_NEAR(one.network.celsius(one.body), 33.0, 1e-9);
}

TEST(ThermalNetwork, FollowsAReservoirThatChanges) {
    OneBody one;
    one.network.setTemperature(one.room, 30.0);
    one.network.advance(50s);
    EXPECT_NEAR(one.network.celsius(one.body), 26.321206, 1e-6); // 20 + 10 (1 - e^-1)
    EXPECT_NEAR(one.network.heatTaken(one.room), -632.1206, 1e-4);
}

TEST(ThermalNetwork, ComesBackToASettingThatItHadBefore) {
    OneBody one;
    one.network.setPower(one.body, 10.0);
    for (double const loss : {2.0, 4.0, 2.0, 4.0, 2.0}) {
        one.network.setConductance(one.loss, loss);
        one.network.advance(1h);
        EXPECT_NEAR(one.network.celsius(one.body), 20.0 + 10.0 / loss, 1e-9);
    }
}

TEST(ThermalNetwork, CountsManyDifferentSettingsWithoutAMistake) {
    OneBody one;
    one.network.setPower(one.body, 10.0);
    for (int step = 1; step <= 200; ++step) {
        double const loss = 0.1 * step;
        one.network.setConductance(one.loss, loss);
        one.network.advance(100h);
        ASSERT_NEAR(one.network.celsius(one.body), 20.0 + 10.0 / loss, 1e-6) << step;
    }
}

TEST(ThermalNetwork, RefusesWhatCannotBe) {
    OneBody one;
    constexpr double kNoNumber = std::numeric_limits<double>::quiet_NaN();
    EXPECT_THROW(one.network.addBody(0.0, 20.0), std::invalid_argument);
    EXPECT_THROW(one.network.addBody(-1.0, 20.0), std::invalid_argument);
    EXPECT_THROW(one.network.setConductance(one.loss, -1.0), std::invalid_argument);
    EXPECT_THROW(one.network.setConductance(one.loss, kNoNumber), std::invalid_argument);
    EXPECT_THROW(one.network.setPower(one.body, kNoNumber), std::invalid_argument);
    EXPECT_THROW(one.network.setPower(one.room, 1.0), std::invalid_argument);
    EXPECT_THROW(one.network.setTemperature(one.body, kNoNumber), std::invalid_argument);
    EXPECT_THROW(one.network.advance(-1s), std::invalid_argument);
    EXPECT_THROW(one.network.connect(one.body, Body{9}, 1.0), std::out_of_range);
    EXPECT_THROW(one.network.celsius(Body{9}), std::out_of_range);
    EXPECT_THROW(one.network.setFlow({0}, 1.0), std::out_of_range);
    EXPECT_THROW(one.network.addStream(one.body, {}, one.room), std::invalid_argument);
    EXPECT_THROW(one.network.addStream(one.room, {{one.room, 1.0}}, one.room), std::invalid_argument);
    std::vector<ThermalNetwork::Held> const room{{one.room, 20.0}};
    EXPECT_THROW(one.network.settle(room), std::invalid_argument);
}

TEST(ThermalNetwork, HasNoRestForABodyThatCannotGiveItsHeatAway) {
    ThermalNetwork network;
    network.addReservoir(20.0);
    network.addBody(10.0, 20.0);
    EXPECT_THROW(network.settle({}), std::logic_error);
}

} // namespace
