// SPDX-License-Identifier: Apache-2.0
// The flow boxes: what each byte opens, what comes back, and how the flow follows.
#include "simulator/boards/FlowBox.h"

#include "at/AtFlowBoxPrototype.h"
#include "at/AtFlowBoxV1.h"
#include "at/AtFlowBoxV2.h"

#include <velmor/platform/HandClock.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <map>
#include <ostream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

namespace libfieldwarden::sim {

void PrintTo(FlowBox::Valves const& aValves, std::ostream* aStream) {
    *aStream << (aValves.hold ? "hold and main " : "main ") << int{aValves.main};
}

} // namespace libfieldwarden::sim

namespace {

using libfieldwarden::sim::FlowBox;
using Generation = FlowBox::Generation;
using Knob = FlowBox::Knob;
using Valves = FlowBox::Valves;
using namespace std::chrono_literals;

constexpr Valves kClosed{};
constexpr Valves kHold{true, 0};
constexpr std::array kAllGenerations{Generation::Prototype, Generation::V1, Generation::V2};

/// What the first two generations open; all other bytes open nothing.
std::map<int, Valves> const kFirstCode{{1, kHold}, {2, {true, 1}}, {3, {true, 2}}, {4, {true, 3}}};
/// What the third one opens.
std::map<int, Valves> const kSecondCode{{1, kHold},  {2, {true, 1}},   {3, {true, 2}},   {4, {true, 3}},
                                        {11, kHold}, {12, {false, 1}}, {13, {false, 2}}, {14, {false, 3}}};

/// A box, and the board that writes to it.
class BoxOnClock {
public:
    explicit BoxOnClock(Generation aGeneration)
        : mBox({.generation = aGeneration}, mClock) {}

    void write(int aIndex) { mBox.setIndex(static_cast<std::uint8_t>(aIndex), mClock.now()); }
    int read() const { return mBox.index(mClock.now()); }
    /// Lets the flow come to what the valves say.
    double settledFlow() {
        mClock.advance(10s);
        return mBox.flow();
    }
    FlowBox& operator*() { return mBox; }
    FlowBox* operator->() { return &mBox; }
    velmor::platform::HandClock& clock() { return mClock; }

private:
    velmor::platform::HandClock mClock;
    FlowBox mBox;
};

TEST(FlowBox, OpensOfEveryByteWhatItsGenerationCodes) {
    for (Generation const generation : kAllGenerations) {
        BoxOnClock box(generation);
        auto const& code = generation == Generation::V2 ? kSecondCode : kFirstCode;
        for (int byte = 0; byte < 256; ++byte) {
            box.write(byte);
            auto const row = code.find(byte);
            EXPECT_EQ(box->valves(), row == code.end() ? kClosed : row->second) << byte;
            EXPECT_EQ(box.read(), byte);
        }
    }
}

TEST(FlowBox, LetsTheSumOfItsOpenValvesFlow) {
    BoxOnClock box(Generation::V2);
    box.write(1);
    EXPECT_EQ(box.settledFlow(), 50.0);
    box.write(2);
    EXPECT_EQ(box.settledFlow(), 250.0); // 50 and 200
    box.write(4);
    EXPECT_EQ(box.settledFlow(), 450.0); // 50 and 400
    box.write(13);
    EXPECT_EQ(box.settledFlow(), 300.0);
    box.write(0);
    EXPECT_EQ(box.settledFlow(), 0.0);
}

TEST(FlowBox, LetsTheFlowFollowItsValvesWithALag) {
    BoxOnClock box(Generation::V2);
    box.write(14);
    EXPECT_EQ(box->flow(), 0.0);
    box.clock().advance(200ms);
    EXPECT_NEAR(box->flow(), 252.848, 1e-3); // 400 (1 - e^-1)
    box.clock().advance(200ms);
    EXPECT_NEAR(box->flow(), 345.866, 1e-3); // 400 (1 - e^-2)
    box.write(0);
    box.clock().advance(200ms);
    EXPECT_NEAR(box->flow(), 127.237, 1e-3); // 345.866 e^-1
    // Within half a litre an hour it counts as there: after 0.2 s ln(345.866 / 0.5) = 1.308 s.
    box.clock().advance(1100ms);
    EXPECT_GT(box->flow(), 0.5);
    box.clock().advance(20ms);
    EXPECT_EQ(box->flow(), 0.0);
}

TEST(FlowBox, IsOpenFromTheMomentThatAValveIs) {
    BoxOnClock box(Generation::V2);
    EXPECT_FALSE(box->isOpen(box.clock().now()));
    box.write(1);
    EXPECT_TRUE(box->isOpen(box.clock().now()));
    box.clock().advance(10s);
    box.write(0);
    EXPECT_FALSE(box->isOpen(box.clock().now()));
    EXPECT_EQ(box->flow(), 50.0); // Still.
}

TEST(FlowBox, FollowsItsKnobAndNotTheBoardAwayFromRemote) {
    std::map<Knob, Valves> const positions{{Knob::Off, kClosed},
                                           {Knob::Hold, kHold},
                                           {Knob::Main1, {true, 1}},
                                           {Knob::Main2, {true, 2}},
                                           {Knob::Main3, {true, 3}}};
    for (Generation const generation : kAllGenerations) {
        BoxOnClock box(generation);
        for (auto const& [position, valves] : positions) {
            box->turnKnob(position);
            EXPECT_EQ(box->knob(), position);
            box.write(3);
            EXPECT_EQ(box->valves(), valves);
            box.write(0);
            EXPECT_EQ(box->valves(), valves);
        }
    }
}

TEST(FlowBox, DoesWhatTheBoardWroteLastWhenTheKnobComesBack) {
    for (Generation const generation : kAllGenerations) {
        BoxOnClock box(generation);
        box.write(2);
        box->turnKnob(Knob::Off);
        EXPECT_EQ(box.settledFlow(), 0.0);
        box.write(4);
        EXPECT_EQ(box.settledFlow(), 0.0);
        box->turnKnob(Knob::Remote);
        EXPECT_EQ(box->valves(), (Valves{true, 3}));
        EXPECT_EQ(box.settledFlow(), 450.0);
        EXPECT_EQ(box.read(), 4);
    }
}

TEST(FlowBox, HidesTheKnobOfAPrototype) {
    BoxOnClock box(Generation::Prototype);
    box.write(2);
    box->turnKnob(Knob::Off);
    EXPECT_EQ(box.read(), 2);
    box->turnKnob(Knob::Main3);
    EXPECT_EQ(box.read(), 2);
}

TEST(FlowBox, ShowsTheKnobOfTheFirstVersionByWhatIsOpen) {
    BoxOnClock box(Generation::V1);
    box.write(2);
    box->turnKnob(Knob::Off);
    EXPECT_EQ(box.read(), 0);
    box->turnKnob(Knob::Hold);
    EXPECT_EQ(box.read(), 1);
    box->turnKnob(Knob::Main3);
    EXPECT_EQ(box.read(), 4);
    box->turnKnob(Knob::Main1); // As the board wrote: it cannot be told from remote.
    EXPECT_EQ(box.read(), 2);
}

TEST(FlowBox, ShowsTheKnobOfTheSecondVersionByAHundredMore) {
    BoxOnClock box(Generation::V2);
    box.write(14);
    box->turnKnob(Knob::Off);
    EXPECT_EQ(box.read(), 100);
    box->turnKnob(Knob::Hold);
    EXPECT_EQ(box.read(), 101);
    box->turnKnob(Knob::Main1);
    EXPECT_EQ(box.read(), 102);
    box->turnKnob(Knob::Main3);
    EXPECT_EQ(box.read(), 104);
    box->turnKnob(Knob::Remote);
    EXPECT_EQ(box.read(), 14);
}

TEST(FlowBox, ClosesItsValvesAndReportsAnErrorWithoutPower) {
    for (Generation const generation : {Generation::V1, Generation::V2}) {
        BoxOnClock box(generation);
        box.write(3);
        box->fail(true);
        EXPECT_TRUE(box->fails());
        EXPECT_EQ(box.read(), 0xFF);
        EXPECT_EQ(box.settledFlow(), 0.0);
        box.write(4);
        EXPECT_EQ(box.read(), 0xFF);
        EXPECT_EQ(box->ecl(), 99);
        box->fail(false);
        EXPECT_EQ(box.read(), 0); // What was written is lost.
        EXPECT_EQ(box.settledFlow(), 0.0);
        box.write(2);
        EXPECT_EQ(box.settledFlow(), 250.0);
    }
}

TEST(FlowBox, HidesTheLostPowerOfAPrototype) {
    BoxOnClock box(Generation::Prototype);
    box.write(3);
    box->fail(true);
    EXPECT_EQ(box.settledFlow(), 0.0);
    EXPECT_EQ(box.read(), 3);
    box.write(4);
    EXPECT_EQ(box.read(), 4);
    box->fail(false);
    EXPECT_EQ(box.settledFlow(), 450.0);
}

TEST(FlowBox, DoesNotKnowThatTheGasIsOut) {
    BoxOnClock box(Generation::V2);
    box.write(3);
    EXPECT_EQ(box.settledFlow(), 350.0);
    box->setGas(false);
    EXPECT_FALSE(box->isOpen(box.clock().now()));
    EXPECT_EQ(box.settledFlow(), 0.0);
    EXPECT_EQ(box.read(), 3);
    EXPECT_EQ(box->valves(), (Valves{true, 2}));
    box->setGas(true);
    EXPECT_EQ(box.settledFlow(), 350.0);
}

TEST(FlowBox, TellsItsGenerationByItsChangeLevel) {
    EXPECT_EQ(BoxOnClock(Generation::Prototype)->ecl(), 99); // No port expander.
    EXPECT_EQ(BoxOnClock(Generation::V1)->ecl(), 10);
    EXPECT_EQ(BoxOnClock(Generation::V2)->ecl(), 20);
    velmor::platform::HandClock clock;
    EXPECT_EQ(FlowBox({.generation = Generation::V2, .ecl = 30}, clock).ecl(), 30);
}

TEST(FlowBox, TellsTheBoardOfAnEarlierTimeWhatWasThen) {
    // The board takes its samples after the fact, and the operator turns the knob in between.
    BoxOnClock box(Generation::V2);
    box.write(4);
    box.clock().advance(10s);
    auto const before = box.clock().now();
    box.clock().advance(5s);
    box->turnKnob(Knob::Off);
    EXPECT_EQ(box->literPerHour(before), 450.0);
    EXPECT_TRUE(box->isOpen(before));
    EXPECT_FALSE(box->isOpen(box.clock().now()));
    box->setIndex(1, before);
    box->turnKnob(Knob::Hold);
    EXPECT_LE(box->flow(), 450.0);
    EXPECT_EQ(box.settledFlow(), 50.0);
}

TEST(FlowBox, RefusesFlowsAndLagsThatCannotBe) {
    velmor::platform::HandClock clock;
    EXPECT_THROW(FlowBox({.holdLiterPerHour = 0.0}, clock), std::invalid_argument);
    EXPECT_THROW(FlowBox({.mainLiterPerHour = {200.0, -1.0, 400.0}}, clock), std::invalid_argument);
    EXPECT_THROW(FlowBox({.holdLiterPerHour = std::numeric_limits<double>::quiet_NaN()}, clock),
                 std::invalid_argument);
    EXPECT_THROW(FlowBox({.lag = 0ms}, clock), std::invalid_argument);
}

/// Writes every request that the coding can express and compares what it reads with what is open.
template <typename Coding>
void expectReadsWhatIsOpen(Generation aGeneration, bool aShowsKnob) {
    Coding coding;
    BoxOnClock box(aGeneration);
    for (unsigned char main = 0; main <= 3; ++main) {
        for (bool const hold : {false, true}) {
            if (main != 0 && !hold && !coding.isHoldFlowIndependent()) {
                continue;
            }
            unsigned char const byte = coding.toHardwareFlowIndex(main, hold);
            box->turnKnob(Knob::Remote);
            box.write(byte);
            EXPECT_EQ(box->valves(), (Valves{hold, main}));
            auto const actual = coding.toSoftwareFlowIndex(static_cast<unsigned char>(box.read()), byte);
            EXPECT_FALSE(actual.hardwareError);
            EXPECT_TRUE(actual.isKnobSetToRemote);
            EXPECT_EQ(actual.isHoldFlowEnabled, hold);
            EXPECT_EQ(actual.softwareFlowIndex, main);
            box->turnKnob(Knob::Main2);
            auto const turned = coding.toSoftwareFlowIndex(static_cast<unsigned char>(box.read()), byte);
            bool const same = byte == 3; // What the knob chooses.
            EXPECT_EQ(turned.isKnobSetToRemote, !aShowsKnob || (same && aGeneration == Generation::V1));
            EXPECT_EQ(turned.softwareFlowIndex, aShowsKnob ? 2 : main);
        }
    }
    box->turnKnob(Knob::Remote);
    box->fail(true);
    auto const failed = coding.toSoftwareFlowIndex(static_cast<unsigned char>(box.read()), 0);
    EXPECT_EQ(failed.hardwareError, aShowsKnob);
}

TEST(FlowBox, IsReadByTheControllersCodingAsWhatItDoes) {
    expectReadsWhatIsOpen<AtFlowBoxPrototype>(Generation::Prototype, false);
    expectReadsWhatIsOpen<AtFlowBoxV1>(Generation::V1, true);
    expectReadsWhatIsOpen<AtFlowBoxV2>(Generation::V2, true);
}

TEST(FlowBox, MayBeTurnedWhileTheBoardReadsIt) {
    BoxOnClock box(Generation::V2);
    box.write(2);
    std::atomic<bool> stop{false};
    std::thread board([&] {
        while (!stop) {
            int const byte = box.read();
            EXPECT_TRUE(byte == 2 || byte == 100 || byte == 255 || byte == 0) << byte;
            double const flow = box->literPerHour(box.clock().now());
            EXPECT_GE(flow, 0.0);
            EXPECT_LE(flow, 450.0);
        }
    });
    for (int turn = 0; turn < 1000; ++turn) {
        box->turnKnob(turn % 2 == 0 ? Knob::Off : Knob::Remote);
        box->fail(turn % 3 == 0);
        box->setGas(turn % 5 != 0);
    }
    stop = true;
    board.join();
}

} // namespace
