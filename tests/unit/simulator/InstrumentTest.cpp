// SPDX-License-Identifier: Apache-2.0
// What a simulated instrument brings along.
#include "simulator/instrument/Instrument.h"
#include "simulator/instrument/SimulatedBackend.h"
#include "support/TemporaryDirectory.h"

#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>
#include <velmor/kepla/mds/Mds.h>
#include <velmor/q47/mainboarddaemon/MainboardInterface.h>

#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::Instrument;
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
}

} // namespace
