// SPDX-License-Identifier: Apache-2.0
// The file in which a shim board survives the end of the program.
#include "simulator/boards/ShimBoardState.h"

#include "support/TemporaryDirectory.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::ShimBoardState;
using libfieldwarden::test::readFile;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;

ShimBoardState example() {
    ShimBoardState state;
    state.serial = 4711;
    state.buildId = 1042;
    state.version = "1.0.42";
    state.imageLength = 24624;
    state.imageCrc = 0xFFFF'FFFF;
    state.starts = 3;
    state.flashWrites = 2;
    state.currentsUA[0] = -1'048'574;
    state.currentsUA[16] = 1'048'574;
    state.record = "<record/>\n";
    return state;
}

class ShimBoardStateTest : public testing::Test {
protected:
    /// Writes the example with a piece of its text replaced.
    void writeSpoilt(std::string const& aWhat, std::string const& aBy) {
        example().save(mFile);
        std::string text = readFile(mFile);
        std::size_t const place = text.find(aWhat);
        ASSERT_NE(place, std::string::npos) << text;
        writeFile(mFile, text.replace(place, aWhat.size(), aBy));
    }

    TemporaryDirectory mDirectory;
    std::filesystem::path const mFile = mDirectory.path() / "boards/shim-8.json";
};

TEST_F(ShimBoardStateTest, ComesBackAsItWasSaved) {
    example().save(mFile);
    EXPECT_EQ(ShimBoardState::load(mFile), example());
}

TEST_F(ShimBoardStateTest, KeepsARecordOfAnyBytes) {
    ShimBoardState state = example();
    state.record.clear();
    for (int byte = 0; byte < 256; ++byte) {
        state.record += static_cast<char>(byte);
    }
    state.save(mFile);
    EXPECT_EQ(ShimBoardState::load(mFile), state);
}

TEST_F(ShimBoardStateTest, IsNoneWithoutAFile) {
    EXPECT_EQ(ShimBoardState::load(mFile), std::nullopt);
}

TEST_F(ShimBoardStateTest, LeavesNothingBesideItsFile) {
    example().save(mFile);
    example().save(mFile);
    auto const count = std::distance(std::filesystem::directory_iterator(mFile.parent_path()),
                                     std::filesystem::directory_iterator());
    EXPECT_EQ(count, 1);
}

TEST_F(ShimBoardStateTest, LeavesTheOldStateWhenTheNewOneCannotBeWritten) {
    example().save(mFile);
    std::filesystem::create_directory(mFile.string() + ".new"); // In the way of the temporary file.
    ShimBoardState state = example();
    state.starts = 4;
    EXPECT_THROW(state.save(mFile), std::runtime_error);
    EXPECT_EQ(ShimBoardState::load(mFile), example());
}

TEST_F(ShimBoardStateTest, IsRefusedCutOffAtAnyPlace) {
    example().save(mFile);
    std::string const text = readFile(mFile);
    std::size_t const end = text.rfind('}');
    for (std::size_t size = 0; size <= end; ++size) {
        writeFile(mFile, text.substr(0, size));
        EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error) << size;
    }
}

TEST_F(ShimBoardStateTest, IsRefusedWithoutOneOfItsKeys) {
    for (std::string const key : {"schema", "serial", "buildId", "version", "imageLength", "imageCrc",
                                  "starts", "flashWrites", "currentsUA", "record"}) {
        writeSpoilt('"' + key + '"', "\"another\"");
        EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error) << key;
    }
}

TEST_F(ShimBoardStateTest, IsRefusedWithACurrentThatNoSourceHas) {
    writeSpoilt("-1048574", "-1048575");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
    writeSpoilt(" 1048574", " 1048575");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
    writeSpoilt(" 1048574", " 0.5");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
    writeSpoilt(" 1048574", " 18446744073709551615");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
}

TEST_F(ShimBoardStateTest, IsRefusedWithAnotherNumberOfCurrents) {
    writeSpoilt("-1048574,", "");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
    writeSpoilt("-1048574,", "1, 2,");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
}

TEST_F(ShimBoardStateTest, IsRefusedWithNumbersThatDoNotFit) {
    writeSpoilt("4294967295", "4294967296");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
    writeSpoilt("4711", "-1");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
    writeSpoilt("\"1.0.42\"", "1");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
    writeSpoilt("\"schema\": 1", "\"schema\": 2");
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
}

TEST_F(ShimBoardStateTest, IsRefusedWithARecordThatIsNoBytes) {
    writeSpoilt("<record/>", "\xE2\x82\xAC"); // the euro sign
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
    writeSpoilt("<record/>", std::string(8193, 'x'));
    EXPECT_THROW(ShimBoardState::load(mFile), std::runtime_error);
}

TEST_F(ShimBoardStateTest, NamesTheFileThatItRefuses) {
    writeFile(mFile, "rubbish");
    try {
        ShimBoardState::load(mFile);
        FAIL() << "not refused";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("the state '" + mFile.string() + "' is damaged: "));
    }
}

} // namespace
