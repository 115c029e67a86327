// SPDX-License-Identifier: Apache-2.0
// The file in which a temperature board survives the end of the program.
#include "simulator/boards/TemperatureBoardState.h"

#include "support/TemporaryDirectory.h"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::kTemperatureSetup;
using libfieldwarden::sim::TemperatureBoardState;
using libfieldwarden::test::readFile;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;

TemperatureBoardState example() {
    TemperatureBoardState state;
    state.serial = 4711;
    state.buildId = 2017;
    state.version = "2.0.17";
    state.imageLength = 24'624;
    state.imageCrc = 0xFFFF'FFFF;
    state.starts = 3;
    state.flashWrites = 2;
    state.record = "<record/>\n";
    state.setup[0] = 25'111;       // target of the magnet
    state.storedSetup[0] = 25'222; // the one in the EEPROM
    state.eepromWrites = 12'345;
    state.shimTargets = {25'333, 25'444};
    return state;
}

class TemperatureBoardStateTest : public testing::Test {
protected:
    /// Writes the example with a piece of its text replaced, and expects that it is refused.
    void expectRefused(std::string const& aWhat, std::string const& aBy) {
        example().save(mFile);
        std::string text = readFile(mFile);
        std::size_t const place = text.find(aWhat);
        ASSERT_NE(place, std::string::npos) << aWhat << " is not in " << text;
        writeFile(mFile, text.replace(place, aWhat.size(), aBy));
        EXPECT_THROW(TemperatureBoardState::load(mFile), std::runtime_error) << aWhat << " -> " << aBy;
    }

    TemporaryDirectory mDirectory;
    std::filesystem::path const mFile = mDirectory.path() / "boards/temperature-7.json";
};

TEST_F(TemperatureBoardStateTest, ComesBackAsItWasSaved) {
    example().save(mFile);
    EXPECT_EQ(TemperatureBoardState::load(mFile), example());
}

TEST_F(TemperatureBoardStateTest, IsNoneWithoutAFile) {
    EXPECT_EQ(TemperatureBoardState::load(mFile), std::nullopt);
}

TEST_F(TemperatureBoardStateTest, BeginsWithTheFactorysSetup) {
    TemperatureBoardState::Setup const setup = TemperatureBoardState::factorySetup();
    ASSERT_EQ(setup.size(), 20U);
    EXPECT_EQ(kTemperatureSetup[0], (libfieldwarden::sim::ObjectDictionary::SdoObject{0x3004, 1}));
    EXPECT_EQ(setup[0], 25'000);                       // target of the magnet
    EXPECT_EQ(setup[kTemperatureSetup.size() - 1], 0); // no adjustable temperature
    EXPECT_EQ(TemperatureBoardState{}.storedSetup, setup);
}

TEST_F(TemperatureBoardStateTest, IsRefusedCutOffAtAnyPlace) {
    example().save(mFile);
    std::string const text = readFile(mFile);
    std::size_t const end = text.rfind('}');
    for (std::size_t size = 0; size <= end; size += 7) {
        writeFile(mFile, text.substr(0, size));
        EXPECT_THROW(TemperatureBoardState::load(mFile), std::runtime_error) << size;
    }
}

TEST_F(TemperatureBoardStateTest, IsRefusedWithoutOneOfItsKeys) {
    for (std::string const key : {"schema", "serial", "buildId", "record", "setup", "storedSetup",
                                  "eepromWrites", "shimTargets", "3010:01", "3401:05"}) {
        expectRefused('"' + key + '"', "\"another\"");
    }
}

TEST_F(TemperatureBoardStateTest, IsRefusedWithASetupThatTheBoardWouldNotTake) {
    expectRefused("25111", "45001");
    expectRefused("25111", "14999");
    expectRefused("25222", "45001");
    expectRefused("25111", "\"25111\"");
    expectRefused("25111", "25111.5");
    expectRefused("\"3401:05\": 0", "\"3401:05\": 3");
}

TEST_F(TemperatureBoardStateTest, IsRefusedWithShimTargetsThatTheBoardWouldNotTake) {
    expectRefused("25333", "40001");
    expectRefused("25333,", "");
    expectRefused("25333,", "1, 2,");
    expectRefused("12345", "4294967296");
}

TEST_F(TemperatureBoardStateTest, NamesTheFileThatItRefuses) {
    std::filesystem::create_directories(mFile.parent_path());
    writeFile(mFile, "rubbish");
    try {
        TemperatureBoardState::load(mFile);
        FAIL() << "not refused";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("the state '" + mFile.string() + "' is damaged: "));
    }
}

} // namespace
