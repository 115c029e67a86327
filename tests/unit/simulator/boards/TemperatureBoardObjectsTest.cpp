// SPDX-License-Identifier: Apache-2.0
// The dictionary of the temperature board: every object, its size, its access, and what it shows at rest.
#include "simulator/boards/CanNode.h"
#include "simulator/boards/ProgramImage.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "unit/simulator/boards/PackedImage.h"
#include "unit/simulator/boards/TemperatureBoardRig.h"

#include <velmor/kepla/canopen/BuildInfo.h>
#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/CanOpenNodeClient.h>
#include <velmor/kepla/canopen/FirmwareImage.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/mds/Mds.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <string>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::CanNode;
using libfieldwarden::sim::ObjectAccess;
using libfieldwarden::sim::ObjectType;
using libfieldwarden::sim::ProgramImage;
using libfieldwarden::sim::TemperatureBoard;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::PlainImage;
using libfieldwarden::test::TemperatureBoardRig;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::CanOpenNodeClient;
using namespace std::chrono_literals;

struct Walked {
    std::uint16_t index;
    std::uint8_t first;
    std::uint8_t last;
    ObjectType type; ///< Of the operation that the reader of the service log uses.
};

using enum ObjectType;

/// What a service log reads of a temperature board: 242 objects of 53 indexes.
constexpr std::array kServiceLog{
    Walked{0x1018, 0, 0, U8},  Walked{0x1018, 1, 4, U32},  Walked{0x1200, 0, 0, U8},
    Walked{0x1200, 1, 2, U32}, Walked{0x1800, 0, 0, U8},   Walked{0x1800, 1, 1, U32},
    Walked{0x1800, 2, 2, U8},  Walked{0x1A00, 0, 0, U8},   Walked{0x1A00, 1, 1, U32},
    Walked{0x1F50, 0, 0, U8},  Walked{0x1F51, 0, 1, U8},   Walked{0x1F55, 0, 0, U8},
    Walked{0x1F55, 1, 1, U32}, Walked{0x1F56, 0, 0, U8},   Walked{0x1F56, 1, 1, U32},
    Walked{0x1F57, 0, 0, U8},  Walked{0x1F57, 1, 1, U32},  Walked{0x2000, 0, 0, U8},
    Walked{0x2000, 1, 5, U32}, Walked{0x200A, 0, 0, U8},   Walked{0x200A, 1, 1, U32},
    Walked{0x200B, 0, 0, U8},  Walked{0x200B, 1, 1, Text}, Walked{0x200C, 0, 0, U8},
    Walked{0x200C, 1, 4, U32}, Walked{0x200D, 0, 0, U8},   Walked{0x200D, 1, 2, Text},
    Walked{0x2100, 0, 4, U8},  Walked{0x3000, 0, 0, U8},   Walked{0x3000, 1, 1, Text},
    Walked{0x3001, 0, 0, U8},  Walked{0x3001, 1, 7, U16},  Walked{0x3002, 0, 0, U8},
    Walked{0x3002, 1, 6, U16}, Walked{0x3003, 0, 7, U8},   Walked{0x3004, 0, 0, U8},
    Walked{0x3004, 2, 7, U16}, Walked{0x3006, 0, 8, U8},   Walked{0x3010, 0, 0, U8},
    Walked{0x3010, 1, 6, U16}, Walked{0x3101, 0, 0, U8},   Walked{0x3101, 1, 3, U16},
    Walked{0x3102, 0, 0, U8},  Walked{0x3102, 1, 2, U16},  Walked{0x3103, 0, 2, U8},
    Walked{0x3104, 0, 0, U8},  Walked{0x3104, 1, 3, U16},  Walked{0x3106, 0, 2, U8},
    Walked{0x3110, 0, 0, U8},  Walked{0x3110, 1, 2, I32},  Walked{0x3111, 0, 0, U8},
    Walked{0x3111, 1, 5, U16}, Walked{0x3201, 0, 0, U8},   Walked{0x3201, 1, 7, U16},
    Walked{0x3202, 0, 0, U8},  Walked{0x3202, 1, 1, U16},  Walked{0x3203, 0, 2, U8},
    Walked{0x3204, 0, 0, U8},  Walked{0x3204, 1, 3, U16},  Walked{0x3205, 0, 2, U8},
    Walked{0x3206, 0, 2, U8},  Walked{0x3207, 0, 0, U8},   Walked{0x3207, 1, 3, U16},
    Walked{0x3210, 0, 0, U8},  Walked{0x3210, 1, 3, U16},  Walked{0x3301, 0, 0, U8},
    Walked{0x3301, 1, 3, I32}, Walked{0x3302, 0, 0, U8},   Walked{0x3302, 1, 1, U16},
    Walked{0x3303, 0, 7, U8},  Walked{0x3304, 0, 0, U8},   Walked{0x3304, 1, 7, I32},
    Walked{0x3305, 0, 0, U8},  Walked{0x3305, 1, 3, I32},  Walked{0x3306, 0, 0, U8},
    Walked{0x3306, 1, 4, U16}, Walked{0x3310, 0, 0, U8},   Walked{0x3310, 1, 1, U16},
    Walked{0x3312, 0, 3, U8},  Walked{0x3401, 0, 6, U8},   Walked{0x3402, 0, 0, U8},
    Walked{0x3402, 1, 4, U16}, Walked{0x3501, 0, 0, U8},   Walked{0x3501, 1, 9, I32},
    Walked{0x5000, 0, 0, U8},  Walked{0x5000, 1, 4, U16},  Walked{0x5001, 0, 0, U8},
    Walked{0x5001, 1, 4, U16}, Walked{0x5002, 0, 0, U8},   Walked{0x5002, 1, 4, U16},
    Walked{0x50D0, 0, 0, U8},  Walked{0x50D0, 1, 8, U16},  Walked{0x50D1, 0, 0, U8},
    Walked{0x50D1, 1, 8, I32},
};

class TemperatureBoardObjectsTest : public TemperatureBoardRig {};

TEST_F(TemperatureBoardObjectsTest, HasEveryObjectOfTheServiceLogInTheTypeThatItsReaderTakes) {
    unsigned objects = 0;
    for (Walked const& each : kServiceLog) {
        for (unsigned subindex = each.first; subindex <= each.last; ++subindex) {
            SdoObject const object{each.index, static_cast<std::uint8_t>(subindex)};
            EXPECT_EQ(mBoard->dictionary().row(object).type, each.type)
                << std::hex << each.index << ':' << subindex;
            Bytes const data = bytes(object);
            switch (each.type) {
                case U8:
                    EXPECT_EQ(data.size(), 1U);
                    break;
                case U16:
                    EXPECT_EQ(data.size(), 2U);
                    break;
                case U32:
                case I32:
                    EXPECT_EQ(data.size(), 4U);
                    break;
                default:
                    EXPECT_FALSE(data.empty()) << std::hex << each.index << ':' << subindex;
                    break;
            }
            ++objects;
        }
    }
    EXPECT_EQ(objects, 242U);
}

TEST(TemperatureBoardOnTheBus, AnswersTheWholeServiceLogByTheReadersOperations) {
    HandClockScope const clock;
    velmor::kepla::canopen::InProcessBus bus;
    auto const master = std::make_shared<CanOpenMaster>(bus.open("can0"), 1);
    auto const board = std::make_shared<TemperatureBoard>(TemperatureBoard::Options{});
    CanNode const node(bus.open("node"), 7, board);
    CanOpenNodeClient client(master, 7);
    unsigned objects = 0;
    for (Walked const& each : kServiceLog) {
        for (unsigned place = each.first; place <= each.last; ++place) {
            auto const subindex = static_cast<std::uint8_t>(place);
            ++objects;
            switch (each.type) {
                case U8:
                    EXPECT_NO_THROW(client.readUInt8(each.index, subindex));
                    break;
                case U16:
                    EXPECT_NO_THROW(client.readUInt16(each.index, subindex));
                    break;
                case U32:
                    EXPECT_NO_THROW(client.readUInt32(each.index, subindex));
                    break;
                case I32:
                    EXPECT_NO_THROW(client.readInt32(each.index, subindex));
                    break;
                default:
                    EXPECT_NO_THROW(client.readString(each.index, subindex));
                    break;
            }
        }
    }
    EXPECT_EQ(objects, 242U);
    EXPECT_THROW(client.readUInt16(0x3004, 1), std::runtime_error); // The target can only be written.
}

TEST_F(TemperatureBoardObjectsTest, CountsSubindexesInSubindexZero) {
    std::vector<SdoObject> const objects = mBoard->dictionary().objects();
    for (SdoObject const object : objects) {
        std::uint16_t const index = object.index;
        if (object.subindex != 0 || index < 0x1018 || mBoard->dictionary().row(object).type != U8) {
            continue;
        }
        auto const highest = std::count_if(objects.begin(), objects.end(),
                                           [&](SdoObject aEach) { return aEach.index == index; }) -
                             1;
        EXPECT_EQ(number(object), highest) << std::hex << index;
    }
}

TEST_F(TemperatureBoardObjectsTest, RefusesToWriteEveryReadOnlyObject) {
    for (SdoObject const object : mBoard->dictionary().objects()) {
        if (mBoard->dictionary().row(object).access == ObjectAccess::ReadOnly && !(object == kSpiral)) {
            EXPECT_EQ(mBoard->write(object, Bytes{0}), kReadOnly)
                << std::hex << object.index << ':' << int{object.subindex};
        }
    }
}

TEST_F(TemperatureBoardObjectsTest, RefusesObjectsThatItDoesNotHave) {
    Bytes data;
    EXPECT_EQ(mBoard->read({0x3005, 0}, data), 0x06020000U);
    EXPECT_EQ(mBoard->read({0x3001, 8}, data), 0x06090011U);
}

TEST_F(TemperatureBoardObjectsTest, TellsWhoItIs) {
    EXPECT_EQ(text({0x1008, 0}), "Q47 temperature board");
    EXPECT_EQ(text({0x100A, 0}), "2.0.17");
    EXPECT_EQ(text({0x200B, 1}), "Q47-TEMP");
    EXPECT_EQ(text({0x3000, 1}), "Q47 temperature control");
    EXPECT_EQ(number({0x1018, 4}), 480007); // 480000 and the node
    EXPECT_EQ(number({0x1200, 1}), 0x607);
    EXPECT_EQ(number({0x1200, 2}), 0x587);
    EXPECT_EQ(number({0x1F51, 1}), 1);
    EXPECT_EQ(number({0x1F56, 1}), 2017);
    auto const record = velmor::kepla::mds::Mds::parse(text({0x2200, 1}));
    EXPECT_EQ(record.groups().getByName("TemperatureBoard").at(0).asString(3), "SIM-T-0007");
}

TEST_F(TemperatureBoardObjectsTest, ComesWithTheProgramThatIsInItsFirmwareFolder) {
    std::string const folder = FIRMWARE_FOLDER "/temperature";
    auto const stored = velmor::kepla::canopen::FirmwareImage::load(folder + "/Q47_VT_CAN_update.bin.gz");
    auto const info = velmor::kepla::canopen::BuildInfo::load(folder + "/build.info");
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->jenkinsBuildId, TemperatureBoard::kFactoryBuildId);
    EXPECT_EQ(info->platform, std::string(TemperatureBoard::kPlatform));
    auto const image = ProgramImage::check(stored.bytes(), std::string(TemperatureBoard::kPlatform));
    EXPECT_EQ(image.buildId, TemperatureBoard::kFactoryBuildId);
    EXPECT_EQ(image.version, TemperatureBoard::kFactoryVersion);
    EXPECT_EQ(number({0x200C, 3}), std::int64_t{image.length});
    EXPECT_EQ(number({0x200C, 4}), std::int64_t{image.crc});
}

// ---------------------------------------------------------------------------------------------- at rest

TEST_F(TemperatureBoardObjectsTest, ShowsTheMagnetInMilliDegrees) {
    libfieldwarden::sim::ThermalModel::Temperatures const is = mBoard->temperatures();
    EXPECT_NEAR(is.magnet(), 25.0, 1e-6);
    // Six standard deviations of 0.5 mK, and half of the last place.
    EXPECT_NEAR(thousandths({0x3001, 1}), 25.0, 0.0035);
    for (std::uint8_t face = 2; face <= 7; ++face) {
        EXPECT_NEAR(thousandths({0x3001, face}), 25.0, 0.0035) << int{face};
        EXPECT_EQ(number({0x3003, face}), 128);
        EXPECT_EQ(number({0x3004, face}), 25'000);
    }
    EXPECT_EQ(number({0x3003, 1}), 128);
    EXPECT_EQ(number({0x3004, 8}), 25'000);
    EXPECT_EQ(number({0x3006, 7}), 1); // All within 20 mK.
    EXPECT_EQ(number({0x3006, 8}), 1);
}

TEST_F(TemperatureBoardObjectsTest, ShowsTheVoltageThatMakesThePowerOfAHeater) {
    for (std::uint8_t face = 1; face <= 6; ++face) {
        double const volt = thousandths({0x3002, face});
        EXPECT_NEAR(volt * volt / 24.0, mBoard->drive().faceWatt.at(face - 1U), 1e-3) << int{face};
        EXPECT_GT(volt, 1.0);
    }
}

TEST_F(TemperatureBoardObjectsTest, ShowsTheShimCoilAndItsMat) {
    EXPECT_NEAR(thousandths({0x3101, 1}), 25.0, 0.005);
    EXPECT_NEAR(thousandths({0x3101, 2}), mBoard->temperatures().shimEnds[0], 0.005);
    EXPECT_NEAR(thousandths({0x3101, 3}), mBoard->temperatures().shimEnds[1], 0.005);
    double const watt = mBoard->drive().shimMatWatt;
    EXPECT_NEAR(thousandths({0x3102, 2}), watt, 1e-3);
    double const ampere = thousandths({0x3102, 1});
    EXPECT_NEAR(ampere * ampere * 18.0, watt, 0.01);
    EXPECT_EQ(number({0x3103, 1}), 128);
    EXPECT_EQ(number({0x3103, 2}), 128);
    EXPECT_EQ(number({0x3106, 2}), 1);
}

TEST_F(TemperatureBoardObjectsTest, ShowsTheIsoBox) {
    EXPECT_NEAR(thousandths({0x3201, 1}), 21.0, 0.031);
    EXPECT_NEAR(thousandths({0x3201, 3}), mBoard->temperatures().heatsink, 0.031);
    EXPECT_NEAR(thousandths({0x3201, 4}), mBoard->temperatures().electronics, 0.031);
    EXPECT_EQ(number({0x3201, 6}), 128);
    EXPECT_EQ(number({0x3204, 1}), 21'000);
    // Part of the largest current in 1/10000; above 0 it cools.
    EXPECT_NEAR(static_cast<double>(number({0x3202, 1})) / 10'000.0, mBoard->drive().peltier, 1e-4);
    EXPECT_EQ(number({0x3203, 1}), 1);
    EXPECT_EQ(number({0x3205, 1}), 1);
    EXPECT_EQ(number({0x3205, 2}), 1);
    // 6 A and 7.5 V at full current.
    EXPECT_NEAR(thousandths({0x3207, 1}), 6.0 * mBoard->drive().peltier, 1e-3);
    EXPECT_NEAR(thousandths({0x3207, 2}), 7.5 * mBoard->drive().peltier, 1e-3);
}

TEST_F(TemperatureBoardObjectsTest, ShowsProbeSpiralAndExhaustWithoutHeating) {
    EXPECT_NEAR(thousandths(kProbe), mBoard->temperatures().probe, 0.13);
    EXPECT_NEAR(thousandths(kSpiral), mBoard->temperatures().spiral, 0.31);
    EXPECT_NEAR(thousandths(kExhaust), mBoard->temperatures().exhaust, 0.13);
    EXPECT_EQ(number(kSpiralPower), 0);
    EXPECT_EQ(number(kSpiralRegulation), 0);
    EXPECT_EQ(number(kProbeRegulation), 0);
    EXPECT_EQ(number(kGas), 0);
    EXPECT_EQ(number(kOvercurrents), 0);
    EXPECT_EQ(number(kHeating), 0);
    EXPECT_EQ(number(kTimeout), 60);
    EXPECT_EQ(number(kUntilCut), -1);
    EXPECT_EQ(number({0x3304, 4}), 25'000);
    EXPECT_EQ(number({0x3304, 6}), 120'000);
    EXPECT_EQ(number({0x3305, 1}), 23'000); // The room's air.
    EXPECT_EQ(number({0x3305, 2}), 0);
}

TEST_F(TemperatureBoardObjectsTest, ShowsResistancesOfItsPlatinumSensors) {
    // IEC 60751 at 25 degrees: 100 (1 + 0.0977075 - 0.000360938) = 109.73466 Ohm; 5 mK are 2 mOhm.
    for (std::uint8_t channel = 1; channel <= 6; ++channel) {
        EXPECT_NEAR(static_cast<double>(number({0x50D1, channel})), 109'735.0, 3.0);
        // 109.73466 * 65536 / 200 = 35957.9
        EXPECT_NEAR(static_cast<double>(number({0x50D0, channel})), 35'958.0, 2.0);
    }
}

TEST_F(TemperatureBoardObjectsTest, CountsTheEnergyThatItsHeatersTake) {
    double const watt = mBoard->drive().shimMatWatt;
    std::int64_t const before = number({0x3501, 7});
    mClock.advance(1000s);
    // The mat's power moves with the noise of its sensors by far less than five percent of the mean.
    EXPECT_NEAR(static_cast<double>(number({0x3501, 7}) - before), 1000.0 * watt, 50.0 * watt);
}

TEST_F(TemperatureBoardObjectsTest, MeasuresFourTimesASecond) {
    std::int64_t const first = number(kSpiral);
    EXPECT_EQ(number(kSpiral), first);
    mClock.advance(249ms);
    EXPECT_EQ(number(kSpiral), first);
    EXPECT_EQ(number({0x3201, 7}), 249); // Age of the data in ms.
    mClock.advance(1ms);
    EXPECT_NE(number(kSpiral), first); // 50 mK of noise; the seed is fixed.
    EXPECT_EQ(number({0x3201, 7}), 0);
}

// ---------------------------------------------------------------------------------------------- written

TEST_F(TemperatureBoardObjectsTest, TakesTheMagnetsTargetAndDoesNotGiveItBackThere) {
    Bytes data;
    EXPECT_EQ(mBoard->read(kMagnetTarget, data), kWriteOnly);
    set(kMagnetTarget, 25'500);
    for (std::uint8_t face = 2; face <= 8; ++face) {
        EXPECT_EQ(number({0x3004, face}), 25'500);
    }
    EXPECT_EQ(write(kMagnetTarget, 4464), kOutOfRange);
    EXPECT_EQ(write(kMagnetTarget, 45'001), kOutOfRange);
    EXPECT_EQ(number({0x3004, 2}), 25'500);
}

TEST_F(TemperatureBoardObjectsTest, TakesOneShimTargetForBothEndsOrOneForEach) {
    set(kShimTarget, 25'300);
    EXPECT_EQ(number({0x3104, 1}), 25'300);
    EXPECT_EQ(number({0x3104, 2}), 25'300);
    EXPECT_EQ(number({0x3104, 3}), 25'300);
    set({0x3104, 2}, 25'500);
    EXPECT_EQ(number({0x3104, 1}), 25'400); // Their mean.
    EXPECT_EQ(number({0x3104, 3}), 25'300);
    EXPECT_EQ(write(kShimTarget, 14'999), kOutOfRange);
}

TEST_F(TemperatureBoardObjectsTest, TakesTheSpiralsSwitchWhereItsTemperatureIsRead) {
    set(kVtMode, 2);
    EXPECT_EQ(mBoard->write(kSpiral, Bytes{1}), 0U);
    EXPECT_EQ(number(kSpiralRegulation), 1);
    EXPECT_EQ(bytes(kSpiral).size(), 4U);
    EXPECT_EQ(mBoard->write(kSpiral, Bytes{0}), 0U);
    EXPECT_EQ(number(kSpiralRegulation), 0);
    EXPECT_EQ(mBoard->write(kSpiral, Bytes{2}), kOutOfRange);
    EXPECT_EQ(mBoard->write(kSpiral, Bytes{1, 0, 0, 0}), kReadOnly);
}

TEST_F(TemperatureBoardObjectsTest, TakesTheTargetsOfProbeAndSpiralInFourBytes) {
    set(kProbeTarget, 36'850);
    set(kSpiralTarget, -10'000);
    EXPECT_EQ(number(kProbeTarget), 36'850);
    mClock.advance(250ms);
    EXPECT_EQ(number(kSpiralTarget), -10'000);
    EXPECT_EQ(write(kProbeTarget, 200'001), kOutOfRange);
    EXPECT_EQ(write(kSpiralTarget, -50'001), kOutOfRange);
    EXPECT_EQ(mBoard->write(kProbeTarget, Bytes{0, 0}), kWrongSize);
}

TEST_F(TemperatureBoardObjectsTest, TakesItsThreeModes) {
    EXPECT_EQ(number(kBoxMode), 0);
    EXPECT_EQ(number(kShimMode), 0);
    EXPECT_EQ(number(kVtMode), 0);
    set(kBoxMode, 1);
    set(kShimMode, 1);
    set(kVtMode, 2);
    EXPECT_EQ(number(kBoxMode), 1);
    EXPECT_EQ(number(kShimMode), 1);
    EXPECT_EQ(number(kVtMode), 2);
    EXPECT_EQ(write(kBoxMode, 2), kOutOfRange);
    EXPECT_EQ(write(kShimMode, 2), kOutOfRange);
    EXPECT_EQ(write(kVtMode, 3), kOutOfRange);
}

// ---------------------------------------------------------------------------------------------- program

TEST_F(TemperatureBoardObjectsTest, HidesItsOwnObjectsWhileTheBootloaderRuns) {
    EXPECT_EQ(mBoard->write({0x1F51, 1}, Bytes{0}), 0U);
    ASSERT_TRUE(mBoard->takeRestartRequest());
    mBoard->restart(TemperatureBoard::Start::ProgramControl);
    Bytes data;
    EXPECT_EQ(mBoard->read({0x3001, 1}, data), 0x06020000U);
    EXPECT_EQ(mBoard->write(kSpiral, Bytes{1}), 0x06020000U);
    EXPECT_EQ(text({0x200B, 1}), "Q47-TEMP");
}

TEST_F(TemperatureBoardObjectsTest, DrivesNothingWhileTheBootloaderRunsAndCoolsDown) {
    ASSERT_GT(mBoard->drive().shimMatWatt, 0.1);
    EXPECT_EQ(mBoard->write({0x1F51, 1}, Bytes{0}), 0U);
    ASSERT_TRUE(mBoard->takeRestartRequest());
    mBoard->restart(TemperatureBoard::Start::ProgramControl);
    mClock.advance(10min);
    libfieldwarden::sim::ThermalModel::Drive const drive = mBoard->drive();
    EXPECT_THAT(drive.faceWatt, testing::Each(0.0));
    EXPECT_EQ(drive.shimMatWatt, 0.0);
    EXPECT_EQ(drive.peltier, 0.0);
    EXPECT_EQ(drive.fan, 0);
    EXPECT_LT(mBoard->temperatures().shimCoil(), 24.95);
}

TEST_F(TemperatureBoardObjectsTest, RunsAProgramForItsPlatformOnly) {
    EXPECT_EQ(mBoard->write({0x1F51, 1}, Bytes{0}), 0U);
    ASSERT_TRUE(mBoard->takeRestartRequest());
    mBoard->restart(TemperatureBoard::Start::ProgramControl);
    auto const transfer = [this](std::string const& aPlatform) {
        EXPECT_EQ(mBoard->write({0x1F51, 1}, Bytes{3}), 0U);
        mClock.advance(1s);
        PlainImage image;
        image.platform = aPlatform;
        image.buildId = 2018;
        auto const stream = mBoard->openStream({0x1F50, 1}, std::nullopt);
        std::uint32_t const code = stream->write(image.packed());
        EXPECT_EQ(code, 0U);
        stream->finish();
        mClock.advance(1s);
        return number({0x1F56, 1});
    };
    EXPECT_EQ(transfer("Q47-SHIM"), 0);
    EXPECT_EQ(transfer("Q47-TEMP"), 2018);
    EXPECT_EQ(mBoard->write({0x1F51, 1}, Bytes{1}), 0U);
    ASSERT_TRUE(mBoard->takeRestartRequest());
    mBoard->restart(TemperatureBoard::Start::ProgramControl);
    EXPECT_TRUE(mBoard->programRuns());
    EXPECT_EQ(number({0x3201, 6}), 64); // The interface board's data are not there yet.
    EXPECT_EQ(number({0x3201, 1}), 0);
    mClock.advance(2999ms);
    EXPECT_EQ(number({0x3201, 6}), 64);
    mClock.advance(1ms);
    EXPECT_EQ(number({0x3201, 6}), 128);
    EXPECT_EQ(number({0x3401, 1}), 3);
}

} // namespace
