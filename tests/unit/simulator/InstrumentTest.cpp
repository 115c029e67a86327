// SPDX-License-Identifier: Apache-2.0
// What a simulated instrument brings along.
#include "simulator/instrument/Instrument.h"
#include "simulator/instrument/SimulatedBackend.h"
#include "support/Eventually.h"
#include "support/TemporaryDirectory.h"

#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>
#include <velmor/kepla/mds/Mds.h>
#include <velmor/q47/mainboarddaemon/MainboardInterface.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::Instrument;
using libfieldwarden::sim::SequencerDriver;
using libfieldwarden::test::eventually;
using libfieldwarden::test::readFile;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using velmor::kepla::mds::Mds;

class SimulatedInstrumentTest : public testing::Test {
protected:
    TemporaryDirectory mDirectory;
};

TEST_F(SimulatedInstrumentTest, WritesRecordsThatCanBeParsed) {
    Instrument const instrument({.folder = mDirectory.path()});
    auto const& records = instrument.folders().deviceIds;
    EXPECT_EQ(records, mDirectory.path() / "data/deviceids");
    EXPECT_EQ(Mds::parse(readFile(records / "vtu.mds")).groups().getByName("FlowForTemperature").size(), 3U);
    EXPECT_EQ(Mds::parse(readFile(records / "magnet.mds")).groups().getByName("Magnet").size(), 1U);
    EXPECT_EQ(Mds::parse(readFile(records / "shimsys.mds")).groups().getByName("ShimSystem").size(), 1U);
    EXPECT_EQ(Mds::parse(readFile(records / "main.mds")).groups().getByName("IsoBoxTempering").size(), 1U);
}

TEST_F(SimulatedInstrumentTest, LeavesRecordsThatAreThere) {
    writeFile(mDirectory.path() / "data/deviceids/vtu.mds", "<record/>");
    Instrument const instrument({.folder = mDirectory.path()});
    EXPECT_EQ(readFile(instrument.folders().deviceIds / "vtu.mds"), "<record/>");
}

TEST_F(SimulatedInstrumentTest, LeavesNoHalfFileWhereItCannotWrite) {
    // A folder stands where the file is to be written: as good as a full disk.
    std::filesystem::create_directories(mDirectory.path() / "data/deviceids/vtu.mds.unfinished");
    EXPECT_THROW(Instrument({.folder = mDirectory.path()}), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(mDirectory.path() / "data/deviceids/vtu.mds"));
}

TEST_F(SimulatedInstrumentTest, RefusesATimeScaleThatIsNoPositiveNumber) {
    EXPECT_THROW(Instrument({.folder = mDirectory.path(), .timeScale = 0.0}), std::invalid_argument);
}

TEST_F(SimulatedInstrumentTest, RefusesAFolderThatCannotBeMade) {
    writeFile(mDirectory.path() / "plain", "");
    EXPECT_THROW(Instrument({.folder = mDirectory.path() / "plain"}), std::filesystem::filesystem_error);
}

TEST_F(SimulatedInstrumentTest, OpensItsDoorsToItsModels) {
    auto const instrument = std::make_shared<Instrument>(Instrument::Options{.folder = mDirectory.path()});
    auto const backend = libfieldwarden::sim::makeSimulatedBackend(instrument);
    backend->mainboard()->setStatusLed(4);
    EXPECT_EQ(instrument->mainboard()->statusLed(), 4);
    EXPECT_EQ(backend->clock(), instrument->clock());
    EXPECT_EQ(backend->deviceIdClient()->mainMds(), readFile(instrument->folders().deviceIds / "main.mds"));
    EXPECT_FALSE(backend->deviceLogBusAddress(true).has_value());
    EXPECT_EQ(backend->seqlockDriver(), instrument->sequencer());
}

TEST_F(SimulatedInstrumentTest, BringsTheFirmwareOfTheLockWhereTheInstrumentHasIt) {
    auto const instrument = std::make_shared<Instrument>(Instrument::Options{.folder = mDirectory.path()});
    auto const backend = libfieldwarden::sim::makeSimulatedBackend(instrument);
    // A version word and six instructions; 1,007 coefficients of two bytes.
    EXPECT_EQ(readFile(backend->instrumentPath("/usr/share/firmware/Q47Lock/memory.bin")).size(), 28U);
    EXPECT_EQ(readFile(backend->instrumentPath("/usr/share/firmware/Q47Lock/window.bin")).size(), 2014U);
}

TEST_F(SimulatedInstrumentTest, LetsTheMagnetFeelWhatTheBoardsDrive) {
    Instrument const instrument({.folder = mDirectory.path(), .magnet = {.driftProtonHzPerSecond = 0.0}});
    auto const before = instrument.magnet()->lockLine(instrument.clock()->now(), 0);
    // All currents of a board are set at once, little endian, in uA. Source 7 of board 2 is that of Z0: -100
    // mA.
    std::vector<std::uint8_t> currents(std::size_t{17} * 4);
    std::int32_t const current = -100'000;
    std::memcpy(&currents[std::size_t{6} * 4], &current, sizeof current);
    ASSERT_EQ(instrument.shimBoard(2)->write({0x3001, 1}, currents), 0U);
    instrument.clock()->sleepFor(std::chrono::milliseconds(10)); // Twenty time constants of a source.
    auto const after = instrument.magnet()->lockLine(instrument.clock()->now(), 0);
    // 1300 Hz at 1 A; the Z2 of the same coil, -97.5 Hz/cm^2, has a mean of -31.5 Hz over the sample.
    EXPECT_NEAR((after.fluorineHz - before.fluorineHz) / 0.9407841, -126.85, 0.1);
}

std::vector<std::uint8_t> milliCelsius(unsigned aValue) {
    return {static_cast<std::uint8_t>(aValue & 0xFFU), static_cast<std::uint8_t>(aValue >> 8U)};
}

TEST_F(SimulatedInstrumentTest, LetsTheMagnetFeelTheTemperatureOfTheShimCoils) {
    Instrument const instrument({.folder = mDirectory.path(),
                                 .timeScale = 1000.0,
                                 .magnet = {.driftProtonHzPerSecond = 0.0},
                                 .sequencerPace = SequencerDriver::Pace::Hand});
    auto const protonHz = [&instrument] {
        return instrument.magnet()->lockLine(instrument.clock()->now(), 0).fluorineHz / 0.9407841;
    };
    double const before = protonHz();
    // Half a kelvin above the 25 degrees Celsius of before, which is as far as the lock goes.
    ASSERT_EQ(instrument.temperatureBoard()->write({0x3104, 1}, milliCelsius(25'500)), 0U);
    // 80.1234 MHz * -1e-3 / K * 0.15 * 0.5 K = -6,009 Hz; the magnet itself, which is held to some
    // thousandths of a kelvin, adds up to some hundreds, 80 Hz each.
    EXPECT_TRUE(eventually([&] { return std::abs(protonHz() - before + 6009.0) < 400.0; }))
        << "moved by " << protonHz() - before << " Hz";
}

TEST_F(SimulatedInstrumentTest, LetsTheFlowBoxHearTheTemperatureBoard) {
    Instrument const instrument({.folder = mDirectory.path()});
    std::vector<std::uint8_t> const flow{2};
    ASSERT_EQ(instrument.temperatureBoard()->write({0x3303, 3}, flow), 0U);
    EXPECT_EQ(instrument.flowBox()->index(instrument.clock()->now()), 2);
}

TEST_F(SimulatedInstrumentTest, KeepsTheSetupOfTheTemperatureBoardInItsFolder) {
    std::vector<std::uint8_t> const one{1};
    {
        Instrument const instrument({.folder = mDirectory.path()});
        ASSERT_EQ(instrument.temperatureBoard()->write({0x3401, 3}, one), 0U); // the big Peltier
        ASSERT_EQ(instrument.temperatureBoard()->write({0x3401, 6}, one), 0U); // to the EEPROM
    }
    EXPECT_TRUE(std::filesystem::exists(mDirectory.path() / "boards/temperature-board-7.json"));
    Instrument const instrument({.folder = mDirectory.path()});
    std::vector<std::uint8_t> mode;
    ASSERT_EQ(instrument.temperatureBoard()->read({0x3401, 3}, mode), 0U);
    EXPECT_EQ(mode, one);
}

} // namespace
