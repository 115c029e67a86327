// SPDX-License-Identifier: Apache-2.0
// Dumps of the lock as the command takes them over.
#include "apps/fieldwarden/LockCommand.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>

namespace {

using libfieldwarden::app::contentOfDump;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;

/// The words with which a dump is refused.
std::string refusalOf(std::filesystem::path const& aDump) {
    try {
        contentOfDump(aDump);
    } catch (std::runtime_error const& error) {
        return error.what();
    }
    return "none";
}

TEST(ContentOfDump, IsAllThatStandsInTheFile) {
    TemporaryDirectory const folder;
    std::string const bytes("\x89HDF\r\n\0\xff", 8);
    writeFile(folder.path() / "dump.h5", bytes);
    EXPECT_EQ(contentOfDump(folder.path() / "dump.h5"), bytes);
}

TEST(ContentOfDump, IsAnErrorWhenTheFileIsEmptyOrMissing) {
    TemporaryDirectory const folder;
    auto const dump = folder.path() / "dump.h5";
    std::string const words = "The dump '" + dump.string() + "' cannot be read: it is empty or not there";
    EXPECT_EQ(refusalOf(dump), words);
    writeFile(dump, "");
    EXPECT_EQ(refusalOf(dump), words);
}

TEST(ContentOfDump, IsAnErrorThatNamesTheFileWhenItCannotBeRead) {
    TemporaryDirectory const folder;
    EXPECT_THAT(refusalOf(folder.path()),
                testing::StartsWith("The dump '" + folder.path().string() + "' cannot be read: "));
}

} // namespace
