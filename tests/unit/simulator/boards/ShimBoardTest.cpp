// SPDX-License-Identifier: Apache-2.0
// The shim board as its dictionary shows it, on a clock that stands still.
#include "simulator/boards/ShimBoard.h"

#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "unit/simulator/boards/PackedImage.h"

#include <velmor/kepla/mds/Mds.h>
#include <velmor/platform/HandClock.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::Emergency;
using libfieldwarden::sim::ObjectAccess;
using libfieldwarden::sim::ObjectType;
using libfieldwarden::sim::ShimBoard;
using libfieldwarden::sim::SourceError;
using libfieldwarden::test::ImageBytes;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::PlainImage;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;
using SdoObject = ShimBoard::SdoObject;
using namespace std::chrono_literals;

constexpr std::uint32_t kDeviceState = 0x08000022;
constexpr SdoObject kSetCurrents{0x3001, 1};
constexpr SdoObject kImage{0x1F50, 1};
constexpr SdoObject kControl{0x1F51, 1};
constexpr SdoObject kBuild{0x1F56, 1};
constexpr SdoObject kFlash{0x1F57, 1};

/// A board and the accesses that a bus would make.
class ShimBoardTest : public testing::Test {
protected:
    using Currents = std::array<std::int32_t, ShimBoard::kSources>;

    Bytes bytes(SdoObject aObject) {
        Bytes data;
        EXPECT_EQ(mBoard.read(aObject, data), 0U)
            << std::hex << aObject.index << ':' << int{aObject.subindex};
        return data;
    }
    std::int64_t number(SdoObject aObject) {
        std::uint32_t bits = 0;
        Bytes const data = bytes(aObject);
        for (std::size_t byte = 0; byte < data.size(); ++byte) {
            bits |= std::uint32_t{data[byte]} << (8 * byte);
        }
        return mBoard.dictionary().row(aObject).type == ObjectType::I32 ? static_cast<std::int32_t>(bits)
                                                                        : std::int64_t{bits};
    }
    std::string text(SdoObject aObject) {
        Bytes const data = bytes(aObject);
        return {data.begin(), data.end()};
    }
    std::int64_t current(unsigned aSource) { return number({0x3000, static_cast<std::uint8_t>(aSource)}); }
    std::uint32_t set(Currents const& aCurrents) {
        Bytes data;
        for (std::int32_t const current : aCurrents) {
            for (unsigned byte = 0; byte < 4; ++byte) {
                data.push_back(static_cast<std::uint8_t>(static_cast<std::uint32_t>(current) >> (8 * byte)));
            }
        }
        return mBoard.write(kSetCurrents, data);
    }
    std::uint32_t setAll(std::int32_t aCurrent) {
        Currents currents{};
        currents.fill(aCurrent);
        return set(currents);
    }
    /// Sets one source and lets it settle.
    void setSettled(unsigned aSource, std::int32_t aCurrent) {
        Currents currents{};
        currents[aSource - 1] = aCurrent;
        EXPECT_EQ(set(currents), 0U);
        mClock.advance(20ms);
    }
    std::uint32_t control(std::uint8_t aCommand) { return mBoard.write(kControl, Bytes{aCommand}); }
    /// Does what a node does about a restart that the board wants.
    void restartIfWanted() {
        if (mBoard.takeRestartRequest()) {
            mBoard.restart(ShimBoard::Start::ProgramControl);
        }
    }
    /// Stops the program and clears the flash.
    void openFlash() {
        EXPECT_EQ(control(0), 0U);
        restartIfWanted();
        EXPECT_EQ(control(3), 0U);
        mClock.advance(1s);
    }
    std::uint32_t transfer(ImageBytes const& aImage) {
        auto const stream = mBoard.openStream(kImage, std::nullopt);
        std::uint32_t const code = stream->write(aImage);
        return code != 0 ? code : stream->finish();
    }

    velmor::platform::HandClock mClock;
    ShimBoard mBoard{{}, mClock};
};

// ---------------------------------------------------------------------------------------------- dictionary

struct Walked {
    std::uint16_t index;
    std::uint8_t first;
    std::uint8_t last;
    std::size_t largest; ///< Bytes that the reader of the service log takes; 0 for texts.
};

/// What a service log reads of a shim board: 75 objects of 20 indexes.
constexpr std::array kServiceLog{
    Walked{0x1018, 0, 0, 1}, Walked{0x1018, 1, 4, 4}, Walked{0x1200, 0, 0, 1},  Walked{0x1200, 1, 2, 4},
    Walked{0x1800, 0, 0, 1}, Walked{0x1800, 1, 1, 4}, Walked{0x1800, 2, 2, 1},  Walked{0x1A00, 0, 0, 1},
    Walked{0x1A00, 1, 1, 4}, Walked{0x1F50, 0, 0, 1}, Walked{0x1F51, 0, 0, 1},  Walked{0x1F51, 1, 1, 4},
    Walked{0x1F55, 0, 0, 1}, Walked{0x1F55, 1, 1, 4}, Walked{0x1F56, 0, 0, 1},  Walked{0x1F56, 1, 1, 4},
    Walked{0x1F57, 0, 0, 1}, Walked{0x1F57, 1, 1, 4}, Walked{0x2000, 0, 0, 1},  Walked{0x2000, 1, 5, 4},
    Walked{0x200A, 0, 0, 1}, Walked{0x200A, 1, 1, 4}, Walked{0x200B, 0, 0, 1},  Walked{0x200B, 1, 1, 0},
    Walked{0x200C, 0, 0, 1}, Walked{0x200C, 1, 4, 4}, Walked{0x200D, 0, 0, 1},  Walked{0x200D, 1, 2, 0},
    Walked{0x2100, 0, 4, 1}, Walked{0x3000, 0, 0, 1}, Walked{0x3000, 1, 17, 4}, Walked{0x3001, 0, 0, 1},
    Walked{0x3001, 1, 1, 4}, Walked{0x3002, 0, 0, 1}, Walked{0x3002, 1, 5, 4},  Walked{0x3003, 0, 0, 1},
    Walked{0x3003, 1, 1, 2}, Walked{0x3004, 0, 1, 1},
};

TEST_F(ShimBoardTest, AnswersEveryObjectOfTheServiceLogInTheSizeThatItsReaderTakes) {
    unsigned objects = 0;
    for (Walked const& each : kServiceLog) {
        for (unsigned subindex = each.first; subindex <= each.last; ++subindex) {
            Bytes const data = bytes({each.index, static_cast<std::uint8_t>(subindex)});
            EXPECT_FALSE(data.empty()) << std::hex << each.index << ':' << subindex;
            if (each.largest != 0) {
                EXPECT_LE(data.size(), each.largest) << std::hex << each.index << ':' << subindex;
            }
            ++objects;
        }
    }
    EXPECT_EQ(objects, 75U);
}

TEST_F(ShimBoardTest, CountsSubindexesInSubindexZero) {
    std::vector<SdoObject> const objects = mBoard.dictionary().objects();
    for (SdoObject const object : objects) {
        std::uint16_t const index = object.index;
        if (object.subindex != 0 || index < 0x1018 ||
            mBoard.dictionary().row(object).type != ObjectType::U8) {
            continue;
        }
        auto const highest = std::count_if(objects.begin(), objects.end(),
                                           [&](SdoObject aEach) { return aEach.index == index; }) -
                             1;
        std::int64_t const wanted = index == 0x1A00 ? 1 : highest;
        EXPECT_EQ(number(object), wanted) << std::hex << index;
    }
}

TEST_F(ShimBoardTest, RefusesToWriteEveryReadOnlyObject) {
    for (SdoObject const object : mBoard.dictionary().objects()) {
        if (mBoard.dictionary().row(object).access == ObjectAccess::ReadOnly) {
            EXPECT_EQ(mBoard.write(object, Bytes{0}), 0x06010002U) << std::hex << object.index;
        }
    }
}

TEST_F(ShimBoardTest, RefusesToGiveItsProgramAway) {
    Bytes data;
    EXPECT_EQ(mBoard.read(kImage, data), 0x06010001U);
}

TEST_F(ShimBoardTest, TellsWhoItIs) {
    EXPECT_EQ(number({0x1000, 0}), 0);
    EXPECT_EQ(text({0x1008, 0}), "Q47 shim board");
    EXPECT_EQ(text({0x1009, 0}), "C");
    EXPECT_EQ(text({0x100A, 0}), "1.0.42");
    EXPECT_EQ(number({0x1018, 1}), 0x447);
    EXPECT_EQ(number({0x1018, 4}), 470008); // 470000 and the node
    EXPECT_EQ(number({0x1200, 1}), 0x608);
    EXPECT_EQ(number({0x1200, 2}), 0x588);
    EXPECT_EQ(number({0x1014, 0}), 0x088);
    EXPECT_EQ(number({0x1800, 1}), 0x80000188); // bit 31: not sent
    EXPECT_EQ(text({0x200B, 1}), "Q47-SHIM");
}

TEST_F(ShimBoardTest, StartsWithPowerOnValues) {
    EXPECT_EQ(number({0x1001, 0}), 0);
    EXPECT_EQ(number({0x1017, 0}), 2000);
    EXPECT_EQ(number(kControl), 1);
    EXPECT_EQ(number(kBuild), 1042);
    EXPECT_EQ(number(kFlash), 0);
    EXPECT_EQ(number({0x2000, 1}), 0);
    EXPECT_EQ(number({0x2000, 2}), 1);
    EXPECT_EQ(number({0x2000, 3}), 0);
    EXPECT_EQ(number({0x2000, 4}), 0);
    EXPECT_EQ(number({0x2000, 5}), 0);
    EXPECT_EQ(number({0x3000, 0}), 17);
    for (unsigned source = 1; source <= 17; ++source) {
        EXPECT_EQ(current(source), 0);
    }
    EXPECT_EQ(number(kSetCurrents), 0);
    EXPECT_EQ(number({0x3003, 1}), 24000);
    EXPECT_EQ(number({0x3004, 1}), 129);
    EXPECT_EQ(text({0x2201, 1}), "");
}

TEST_F(ShimBoardTest, CountsTheTimeSinceItsStart) {
    mClock.advance(3500ms);
    EXPECT_EQ(number({0x2000, 1}), 3);
}

TEST_F(ShimBoardTest, HasARecordThatCanBeParsedAndReplaced) {
    auto const record = velmor::kepla::mds::Mds::parse(text({0x2200, 1}));
    EXPECT_EQ(record.groups().getByName("ShimBoard").at(0).asString(3), "SIM-S-0008");
    EXPECT_EQ(mBoard.write({0x2200, 1}, Bytes{'n', 'e', 'w'}), 0U);
    EXPECT_EQ(text({0x2200, 1}), "new");
    EXPECT_EQ(mBoard.write({0x2200, 1}, Bytes(8193, 'x')), 0x06070010U);
    EXPECT_EQ(mBoard.write({0x2200, 1}, Bytes(8192, 'x')), 0U);
}

// ---------------------------------------------------------------------------------------------- currents

TEST_F(ShimBoardTest, SettlesWithItsTimeConstant) {
    Currents currents{};
    currents[0] = 1'000'000;
    currents[16] = -400'000;
    ASSERT_EQ(set(currents), 0U);
    EXPECT_EQ(current(1), 0);
    mClock.advance(500us);
    EXPECT_NEAR(static_cast<double>(current(1)), 632'120.6, 1.0);   // 1000000 (1 - e^-1)
    EXPECT_NEAR(static_cast<double>(current(17)), -252'848.2, 1.0); // -400000 (1 - e^-1)
    mClock.advance(1000us);
    EXPECT_NEAR(static_cast<double>(current(1)), 950'212.9, 1.0); // 1000000 (1 - e^-3)
    EXPECT_EQ(current(2), 0);
}

TEST_F(ShimBoardTest, ConfirmsANewCurrentWhenItHasSettled) {
    auto const before = mClock.now();
    setAll(1'000'000);
    // 500 us ln(1000000 / 0.25) = 500 us * 15.2018 = 7.6009 ms
    EXPECT_NEAR(std::chrono::duration<double>(mBoard.answerTime() - before).count(), 7.6009e-3, 1e-7);
    mClock.advance(mBoard.answerTime() - before);
    for (unsigned source = 1; source <= 17; ++source) {
        EXPECT_EQ(current(source), 1'000'000);
    }
}

TEST_F(ShimBoardTest, ConfirmsUnchangedCurrentsAtOnce) {
    setSettled(3, 5000);
    auto const before = mClock.now();
    Currents currents{};
    currents[2] = 5000;
    set(currents);
    EXPECT_LE(mBoard.answerTime(), before);
}

TEST_F(ShimBoardTest, RoundsToStepsOfTwoMicroampere) {
    for (auto const& [wanted, got] : {std::pair{1000, 1000},
                                      {1001, 1002},
                                      {1002, 1002},
                                      {1003, 1004},
                                      {1, 2},
                                      {-1, -2},
                                      {-1001, -1002},
                                      {-1000, -1000},
                                      {1'048'573, 1'048'574}}) {
        setSettled(5, wanted);
        EXPECT_EQ(current(5), got) << wanted;
        EXPECT_EQ(mBoard.setpointsUA()[4], wanted);
    }
}

TEST_F(ShimBoardTest, SwitchesASourceOffThatIsSetToZero) {
    setSettled(5, 700);
    setSettled(5, 0);
    EXPECT_EQ(current(5), 0);
}

TEST_F(ShimBoardTest, RefusesCurrentsOutOfItsRangeAsAWhole) {
    Currents currents{};
    currents.fill(10);
    currents[16] = 1'048'575;
    EXPECT_EQ(set(currents), 0x06090030U);
    currents[16] = -1'048'575;
    EXPECT_EQ(set(currents), 0x06090030U);
    EXPECT_THAT(mBoard.setpointsUA(), Each(0));
    currents[16] = -1'048'574;
    EXPECT_EQ(set(currents), 0U);
}

TEST_F(ShimBoardTest, RefusesAnotherNumberOfCurrents) {
    EXPECT_EQ(mBoard.write(kSetCurrents, Bytes(4)), 0x06070010U);
    EXPECT_EQ(mBoard.write(kSetCurrents, Bytes(64)), 0x06070010U);
    EXPECT_EQ(mBoard.write(kSetCurrents, Bytes(72)), 0x06070010U);
}

TEST_F(ShimBoardTest, ReadsTheSetCurrentOfTheFirstSource) {
    setSettled(1, -77);
    EXPECT_EQ(bytes(kSetCurrents), (Bytes{0xB3, 0xFF, 0xFF, 0xFF})); // -77
}

TEST_F(ShimBoardTest, ShowsTheMagnetTheCurrentsThatFlow) {
    setSettled(17, 250'000);
    EXPECT_NEAR(mBoard.currentsAmpere()[16], 0.25, 1e-9);
    EXPECT_DOUBLE_EQ(mBoard.currentsAmpere()[0], 0.0);
}

TEST_F(ShimBoardTest, LosesItsCurrentsWithARestart) {
    setSettled(4, 1000);
    mBoard.restart(ShimBoard::Start::Network);
    mClock.advance(20ms);
    EXPECT_EQ(current(4), 0);
    EXPECT_THAT(mBoard.setpointsUA(), Each(0));
    EXPECT_EQ(number({0x2000, 2}), 2);
    EXPECT_EQ(number({0x2000, 3}), 1);
}

TEST_F(ShimBoardTest, KeepsItsCurrentsWhenOnlyTheCommunicationIsReset) {
    setSettled(4, 1000);
    EXPECT_EQ(mBoard.write({0x1017, 0}, Bytes{10, 0}), 0U);
    mBoard.resetCommunication();
    EXPECT_EQ(current(4), 1000);
    EXPECT_EQ(number({0x1017, 0}), 2000);
}

// ---------------------------------------------------------------------------------------------- errors

TEST_F(ShimBoardTest, ReportsAnErrorCodeForAFailedSourceThatIsOn) {
    setAll(1000);
    mClock.advance(20ms);
    mBoard.failSource(3, SourceError::OpenLoad);
    mBoard.failSource(4, SourceError::OverCurrent);
    EXPECT_EQ(current(2), 1000);
    EXPECT_EQ(current(3), 10'000'001);
    EXPECT_EQ(current(4), 10'000'002);
    mClock.advance(20ms);
    EXPECT_NEAR(mBoard.currentsAmpere()[2], 0.0, 1e-9);
    mBoard.failSource(3, SourceError::None);
    mClock.advance(20ms);
    EXPECT_EQ(current(3), 1000);
}

TEST_F(ShimBoardTest, NoticesAFailureOnlyWhenTheSourceIsOn) {
    mBoard.failSource(3, SourceError::OpenLoad);
    EXPECT_EQ(current(3), 0);
    EXPECT_EQ(number({0x1001, 0}), 0);
    EXPECT_THAT(mBoard.takeEmergencies(), IsEmpty());
    setSettled(3, 10);
    EXPECT_EQ(current(3), 10'000'001);
    EXPECT_EQ(number({0x1001, 0}), 0x03); // any, current
}

TEST_F(ShimBoardTest, TellsOfAFailureAndOfItsEnd) {
    setSettled(3, 10);
    mBoard.failSource(3, SourceError::OpenLoad);
    mBoard.failSource(3, SourceError::OverCurrent);
    mBoard.failSource(3, SourceError::None);
    EXPECT_THAT(mBoard.takeEmergencies(),
                ElementsAre(Emergency{0x2330, 0x03, {3, 1}}, Emergency{0x2310, 0x03, {3, 2}},
                            Emergency{0x0000, 0x00, {3, 0}}));
    EXPECT_THAT(mBoard.takeEmergencies(), IsEmpty());
    EXPECT_EQ(number({0x2000, 4}), 3);
}

TEST_F(ShimBoardTest, RemembersTheLastErrorsTheLatestFirst) {
    setAll(1000);
    mBoard.failSource(3, SourceError::OpenLoad);
    mBoard.failSource(4, SourceError::OverCurrent);
    EXPECT_EQ(number({0x1003, 0}), 2);
    EXPECT_EQ(number({0x1003, 1}), 0x2310);
    EXPECT_EQ(number({0x1003, 2}), 0x2330);
    for (unsigned more = 0; more < 10; ++more) {
        mBoard.raiseEmergency({0x5000, 0x01, {}});
    }
    EXPECT_EQ(number({0x1003, 0}), 8);
    EXPECT_EQ(number({0x1003, 8}), 0x5000);
    EXPECT_EQ(mBoard.write({0x1003, 0}, Bytes{1}), 0x06090030U);
    EXPECT_EQ(mBoard.write({0x1003, 0}, Bytes{0}), 0U);
    EXPECT_EQ(number({0x1003, 0}), 0);
    EXPECT_EQ(number({0x1003, 1}), 0);
}

TEST_F(ShimBoardTest, HasNoOtherSourcesAndNoOtherFailures) {
    EXPECT_THROW(mBoard.failSource(0, SourceError::OpenLoad), std::out_of_range);
    EXPECT_THROW(mBoard.failSource(18, SourceError::OpenLoad), std::out_of_range);
    EXPECT_THROW(mBoard.failSource(1, SourceError::OverTemperature), std::invalid_argument);
}

// ---------------------------------------------------------------------------------------------- temperatures

TEST_F(ShimBoardTest, IsWarmFromItsIdlePower) {
    // 25 C and 3 W times 0.25, 0.20, 0.55, 0.75, 0.85 K/W
    EXPECT_THAT(mBoard.temperaturesCelsius(),
                ElementsAre(testing::DoubleEq(25.75), testing::DoubleEq(25.60), testing::DoubleEq(26.65),
                            testing::DoubleEq(27.25), testing::DoubleEq(27.55)));
}

TEST_F(ShimBoardTest, MeasuresTemperaturesInMilliDegreesWithNoise) {
    EXPECT_NEAR(static_cast<double>(number({0x3002, 1})), 25'750.0, 60.0); // six standard deviations of 10
    EXPECT_NEAR(static_cast<double>(number({0x3002, 5})), 27'550.0, 60.0);
}

TEST_F(ShimBoardTest, WarmsUpWithTheCurrents) {
    setAll(1'000'000);
    mClock.advance(450s);
    // 3 W + 17 A * 3 V = 54 W: 70.90 C at rest. 70.90 - (70.90 - 27.55) e^-1 = 54.9524
    EXPECT_NEAR(mBoard.temperaturesCelsius()[4], 54.9524, 1e-3);
    EXPECT_EQ(number({0x3003, 1}), 23'660); // 24000 mV - 20 mOhm * 17 A
}

TEST_F(ShimBoardTest, FollowsTheAirAroundIt) {
    mBoard.setAmbient(35.0);
    mClock.advance(10h);
    EXPECT_NEAR(mBoard.temperaturesCelsius()[0], 35.75, 1e-6);
}

class HotShimBoardTest : public ShimBoardTest {
protected:
    HotShimBoardTest() {
        mBoard.setAmbient(45.0);
        mClock.advance(10h);
        setAll(1'000'000);
    }
    /// @return How long it takes until the board does something of itself, which it does.
    double secondsToNextEvent() {
        auto const now = mClock.now();
        auto const next = mBoard.advance(now);
        mClock.advance(next - now);
        mBoard.advance(mClock.now());
        return std::chrono::duration<double>(next - now).count();
    }
};

TEST_F(HotShimBoardTest, SwitchesItsSourcesOffAndOnAgain) {
    // From 47.55 C towards 90.90 C, past 85: 450 s ln(43.35 / 5.90) = 897.459 s
    EXPECT_NEAR(secondsToNextEvent(), 897.459, 0.01);
    for (unsigned source = 1; source <= 17; ++source) {
        EXPECT_EQ(current(source), 10'000'003);
    }
    EXPECT_EQ(number({0x1001, 0}), 0x09); // any, temperature
    EXPECT_THAT(mBoard.takeEmergencies(), ElementsAre(Emergency{0x4210, 0x09, {}}));
    // From 85 C towards 47.55 C, past 75: 450 s ln(37.45 / 27.45) = 139.788 s
    EXPECT_NEAR(secondsToNextEvent(), 139.788, 0.01);
    EXPECT_THAT(mBoard.takeEmergencies(), ElementsAre(Emergency{0x0000, 0x00, {}}));
    mClock.advance(20ms);
    EXPECT_EQ(current(1), 1'000'000);
}

TEST_F(ShimBoardTest, HasNothingToDoWhileItStaysCool) {
    setAll(1'000'000);
    EXPECT_EQ(mBoard.advance(mClock.now()), ShimBoard::TimePoint::max());
}

// ---------------------------------------------------------------------------------------------- firmware

TEST_F(ShimBoardTest, ReplacesItsProgram) {
    EXPECT_EQ(control(0), 0U);
    EXPECT_TRUE(mBoard.programRuns()); // Until the restart, so that the command can be confirmed.
    restartIfWanted();
    EXPECT_EQ(number(kControl), 0);
    EXPECT_EQ(number(kBuild), 1042);
    EXPECT_EQ(control(3), 0U);
    EXPECT_EQ(number(kFlash), 0x01); // busy
    EXPECT_EQ(number(kBuild), 0);
    mClock.advance(800ms);
    EXPECT_EQ(number(kFlash), 0x02); // error 1: no program
    EXPECT_EQ(transfer(PlainImage{}.packed()), 0U);
    EXPECT_EQ(number(kFlash), 0x01);
    mClock.advance(200ms);
    EXPECT_EQ(number(kFlash), 0x00);
    EXPECT_EQ(number(kBuild), 2000);
    EXPECT_EQ(number(kControl), 0);
    EXPECT_EQ(control(1), 0U);
    restartIfWanted();
    EXPECT_EQ(number(kControl), 1);
    EXPECT_EQ(text({0x100A, 0}), "2.0.0");
    EXPECT_EQ(number({0x200C, 3}), 1048);
    EXPECT_EQ(number({0x2000, 2}), 3); // power-on, stop, start
    EXPECT_EQ(number({0x2000, 3}), 2);
    EXPECT_EQ(number({0x2000, 5}), 1);
}

struct RefusedImage {
    std::string name;
    ImageBytes image;
    std::int64_t status; ///< Twice the error code.
};

class RefusingShimBoardTest : public ShimBoardTest, public testing::WithParamInterface<RefusedImage> {};

TEST_P(RefusingShimBoardTest, RefusesTheImageAndStaysInItsBootloader) {
    LogCapture const log;
    openFlash();
    EXPECT_EQ(transfer(GetParam().image), 0U);
    mClock.advance(1s);
    EXPECT_EQ(number(kFlash), GetParam().status);
    EXPECT_EQ(number(kBuild), 0);
    EXPECT_EQ(control(1), kDeviceState);
    ASSERT_EQ(log.linesUpTo(Severity::Warning).size(), 1U);
    EXPECT_THAT(log.linesUpTo(Severity::Warning).front().text, HasSubstr("Refused a program image: "));
    mBoard.restart(ShimBoard::Start::Network);
    EXPECT_FALSE(mBoard.programRuns());
}

TEST_P(RefusingShimBoardTest, TakesAGoodImageAfterwards) {
    openFlash();
    transfer(GetParam().image);
    mClock.advance(1s);
    EXPECT_EQ(control(3), 0U);
    mClock.advance(1s);
    EXPECT_EQ(transfer(PlainImage{}.packed()), 0U);
    mClock.advance(1s);
    EXPECT_EQ(number(kFlash), 0);
    EXPECT_EQ(control(1), 0U);
    restartIfWanted();
    EXPECT_TRUE(mBoard.programRuns());
}

ImageBytes shortImage() {
    ImageBytes image = PlainImage{}.packed();
    image.resize(image.size() / 2);
    return image;
}

INSTANTIATE_TEST_SUITE_P(
    Images,
    RefusingShimBoardTest,
    testing::Values(RefusedImage{"BadCheckSum", PlainImage{.crcError = 1}.packed(), 6},
                    RefusedImage{"Short", shortImage(), 6},
                    RefusedImage{"WrongLength", PlainImage{.lengthError = 9}.packed(), 6},
                    RefusedImage{"Empty", {}, 6},
                    RefusedImage{"WrongMagic", PlainImage{.magic = "QXXP"}.packed(), 4},
                    RefusedImage{"NotCompressed", PlainImage{}.bytes(), 4},
                    RefusedImage{"OtherPlatform", PlainImage{.platform = "Q47-TEMP"}.packed(), 4}),
    [](auto const& aInfo) { return aInfo.param.name; });

TEST_F(ShimBoardTest, TakesNoImageWhileItsProgramRuns) {
    EXPECT_EQ(control(3), kDeviceState);
    EXPECT_EQ(transfer(PlainImage{}.packed()), kDeviceState);
    EXPECT_EQ(mBoard.write(kImage, Bytes{1, 2, 3}), kDeviceState);
    EXPECT_EQ(number(kBuild), 1042);
}

TEST_F(ShimBoardTest, TakesNoImageWhileItsFlashIsNotCleared) {
    control(0);
    restartIfWanted();
    EXPECT_EQ(transfer(PlainImage{}.packed()), kDeviceState);
    EXPECT_EQ(number(kFlash), 8); // error 4: not cleared
    EXPECT_EQ(control(1), 0U);    // The old program is still there.
    restartIfWanted();
    EXPECT_TRUE(mBoard.programRuns());
    EXPECT_EQ(number(kFlash), 0);
}

TEST_F(ShimBoardTest, TakesNoCommandAndNoImageWhileItsFlashIsBusy) {
    control(0);
    restartIfWanted();
    control(3);
    EXPECT_EQ(control(1), kDeviceState);
    EXPECT_EQ(transfer(PlainImage{}.packed()), kDeviceState);
    mClock.advance(800ms);
    EXPECT_EQ(transfer(PlainImage{}.packed()), 0U);
}

TEST_F(ShimBoardTest, MustBeClearedAgainAfterATransferThatWasGivenUp) {
    openFlash();
    {
        auto const stream = mBoard.openStream(kImage, std::nullopt);
        EXPECT_EQ(stream->write(Bytes{1, 2, 3}), 0U);
    }
    EXPECT_EQ(transfer(PlainImage{}.packed()), kDeviceState);
    control(3);
    mClock.advance(1s);
    EXPECT_EQ(transfer(PlainImage{}.packed()), 0U);
}

TEST_F(ShimBoardTest, TakesNoMoreThanItsFlashHolds) {
    openFlash();
    auto const stream = mBoard.openStream(kImage, std::nullopt);
    EXPECT_EQ(stream->write(Bytes(std::size_t{512} * 1024)), 0U);
    EXPECT_EQ(stream->write(Bytes(1)), 0x05040005U);
}

TEST_F(ShimBoardTest, RefusesUnknownCommands) {
    EXPECT_EQ(control(4), 0x06090030U);
}

TEST_F(ShimBoardTest, RestartsItsProgramOnCommand) {
    EXPECT_EQ(control(2), 0U);
    EXPECT_TRUE(mBoard.takeRestartRequest());
    EXPECT_FALSE(mBoard.takeRestartRequest());
    mBoard.restart(ShimBoard::Start::ProgramControl);
    EXPECT_TRUE(mBoard.programRuns());
}

TEST_F(ShimBoardTest, HidesItsOwnObjectsWhileTheBootloaderRuns) {
    control(0);
    restartIfWanted();
    Bytes data;
    for (SdoObject const object : mBoard.dictionary().objects()) {
        bool const known = object.index < 0x2000 || (object.index >= 0x200A && object.index <= 0x200D);
        if (object == kImage) {
            continue;
        }
        EXPECT_EQ(mBoard.read(object, data), known ? 0U : 0x06020000U) << std::hex << object.index;
    }
    EXPECT_EQ(setAll(1), 0x06020000U);
}

// ---------------------------------------------------------------------------------------------- noise

TEST_F(ShimBoardTest, MakesTheSameRunFromTheSameSeed) {
    auto const run = [](std::uint64_t aSeed, std::uint8_t aNode) {
        velmor::platform::HandClock clock;
        ShimBoard board({.node = aNode, .seed = aSeed}, clock);
        std::vector<Bytes> readings;
        for (unsigned reading = 0; reading < 50; ++reading) {
            readings.emplace_back();
            board.read({0x3002, 1}, readings.back());
            clock.advance(1s);
        }
        return readings;
    };
    EXPECT_EQ(run(1, 8), run(1, 8));
    EXPECT_NE(run(1, 8), run(2, 8));
    EXPECT_NE(run(1, 8), run(1, 9));
}

TEST_F(ShimBoardTest, ReadsASettledCurrentTheSameEachTime) {
    setSettled(2, 123'456);
    for (unsigned reading = 0; reading < 1000; ++reading) {
        ASSERT_EQ(current(2), 123'456);
    }
}

TEST_F(ShimBoardTest, NoisesItsTemperaturesByTenMilliDegrees) {
    double squares = 0.0;
    constexpr int kReadings = 1000;
    for (int reading = 0; reading < kReadings; ++reading) {
        auto const error = static_cast<double>(number({0x3002, 1})) - 25'750.0;
        squares += error * error;
    }
    EXPECT_NEAR(std::sqrt(squares / kReadings), 10.0, 1.0);
}

// ---------------------------------------------------------------------------------------------- between runs

class ShimBoardBetweenRunsTest : public testing::Test {
protected:
    std::unique_ptr<ShimBoard> switchedOn() {
        return std::make_unique<ShimBoard>(ShimBoard::Options{.node = 9, .stateFile = mFile}, mClock);
    }
    static Bytes bytes(ShimBoard& aBoard, SdoObject aObject) {
        Bytes data;
        EXPECT_EQ(aBoard.read(aObject, data), 0U);
        return data;
    }

    velmor::platform::HandClock mClock;
    TemporaryDirectory mDirectory;
    std::filesystem::path const mFile = mDirectory.path() / "boards/shim-9.json";
};

TEST_F(ShimBoardBetweenRunsTest, KeepsCurrentsAndRecordAndSerial) {
    {
        auto const board = switchedOn();
        Bytes currents(68);
        currents[0] = 0xE8; // 1000
        currents[1] = 0x03;
        ASSERT_EQ(board->write(kSetCurrents, currents), 0U);
        ASSERT_EQ(board->write({0x2200, 1}, Bytes{'r'}), 0U);
    }
    auto const board = switchedOn();
    EXPECT_EQ(board->setpointsUA()[0], 1000);
    EXPECT_EQ(bytes(*board, {0x3000, 1}), (Bytes{0xE8, 0x03, 0, 0})); // Settled, for it was never off.
    EXPECT_EQ(bytes(*board, {0x2200, 1}), Bytes{'r'});
    EXPECT_EQ(bytes(*board, {0x1018, 4}), (Bytes{0xF9, 0x2B, 0x07, 0x00})); // 470009
    EXPECT_EQ(bytes(*board, {0x2000, 2}), (Bytes{1, 0, 0, 0}));
}

TEST_F(ShimBoardBetweenRunsTest, KeepsItsFirmware) {
    {
        auto const board = switchedOn();
        ASSERT_EQ(board->write(kControl, Bytes{0}), 0U);
        board->restart(ShimBoard::Start::ProgramControl);
        ASSERT_EQ(board->write(kControl, Bytes{3}), 0U);
        mClock.advance(1s);
        auto const stream = board->openStream(kImage, std::nullopt);
        ASSERT_EQ(stream->write(PlainImage{}.packed()), 0U);
        ASSERT_EQ(stream->finish(), 0U);
    }
    auto const board = switchedOn();
    EXPECT_TRUE(board->programRuns());
    EXPECT_EQ(bytes(*board, kBuild), (Bytes{0xD0, 0x07, 0, 0})); // 2000
}

TEST_F(ShimBoardBetweenRunsTest, StaysInItsBootloaderWithoutAProgram) {
    {
        auto const board = switchedOn();
        ASSERT_EQ(board->write(kControl, Bytes{0}), 0U);
        board->restart(ShimBoard::Start::ProgramControl);
        ASSERT_EQ(board->write(kControl, Bytes{3}), 0U);
    }
    auto const board = switchedOn();
    EXPECT_FALSE(board->programRuns());
    EXPECT_EQ(bytes(*board, kFlash), (Bytes{2, 0, 0, 0})); // error 1: no program
}

TEST_F(ShimBoardBetweenRunsTest, StartsAsNewAndWithoutCalibrationFromADamagedState) {
    writeFile(mFile, "{\"schema\": 1, \"serial\":");
    LogCapture const log;
    auto const board = switchedOn();
    EXPECT_THAT(board->setpointsUA(), Each(0));
    EXPECT_EQ(bytes(*board, kBuild), (Bytes{0x12, 0x04, 0, 0})); // 1042
    EXPECT_EQ(bytes(*board, {0x3004, 1}), Bytes{1});
    EXPECT_EQ(bytes(*board, {0x2100, 4}), Bytes{0});
    Bytes const boardLog = bytes(*board, {0x2201, 1});
    EXPECT_THAT(std::string(boardLog.begin(), boardLog.end()),
                testing::StartsWith("[0.000 s] Started with power-on values: the state '" + mFile.string() +
                                    "' is damaged: "));
    ASSERT_EQ(log.linesOf("ShimBoard(node 9)").size(), 1U);
    EXPECT_EQ(log.linesOf("ShimBoard(node 9)").front().severity, Severity::Warning);
}

TEST_F(ShimBoardBetweenRunsTest, ReplacesADamagedStateWithTheNextChange) {
    writeFile(mFile, "rubbish");
    switchedOn()->restart(ShimBoard::Start::Network);
    auto const board = switchedOn();
    EXPECT_EQ(bytes(*board, {0x3004, 1}), Bytes{129});
}

TEST_F(ShimBoardBetweenRunsTest, NotesOnceThatItsStateCannotBeWritten) {
    writeFile(mFile.parent_path(), "a file where the folder should be");
    LogCapture const log;
    auto const board = switchedOn();
    for (int time = 0; time < 3; ++time) {
        EXPECT_EQ(board->write(kSetCurrents, Bytes(68)), 0U);
    }
    EXPECT_EQ(log.count(Severity::Warning, "the state '" + mFile.string() + "' cannot be written"), 1U);
}

TEST_F(ShimBoardBetweenRunsTest, HasNoFileBeforeTheFirstChange) {
    auto const board = switchedOn();
    EXPECT_FALSE(std::filesystem::exists(mFile));
}

} // namespace
