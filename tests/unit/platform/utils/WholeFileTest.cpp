// SPDX-License-Identifier: Apache-2.0
// Files as texts, and the files that are none.
#include <velmor/kepla/utils/WholeFile.h>

#include "support/TemporaryDirectory.h"

#include <filesystem>
#include <ios>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using velmor::kepla::utils::kWholeFileLimit;
using velmor::kepla::utils::readWholeFile;

TEST(ReadWholeFile, GivesEveryByteAsItIs) {
    TemporaryDirectory const directory;
    std::string const bytes = std::string("a\0\r\n", 4) + std::string(200'000, 'z');
    writeFile(directory.path() / "file", bytes);
    EXPECT_EQ(readWholeFile(directory.path() / "file"), bytes);
}

TEST(ReadWholeFile, GivesNothingOfAFileThatIsMissing) {
    TemporaryDirectory const directory;
    EXPECT_EQ(readWholeFile(directory.path() / "file"), "");
}

TEST(ReadWholeFile, RefusesWhatIsNoFile) {
    TemporaryDirectory const directory;
    EXPECT_THROW(readWholeFile(directory.path()), std::ios_base::failure);
    ASSERT_EQ(mkfifo((directory.path() / "pipe").c_str(), 0600), 0);
    EXPECT_THROW(readWholeFile(directory.path() / "pipe"),
                 std::ios_base::failure); // Nobody will write to it.
    EXPECT_THROW(readWholeFile("/dev/zero"), std::ios_base::failure);
}

TEST(ReadWholeFile, TakesAsMuchAsItsLimit) {
    TemporaryDirectory const directory;
    auto const file = directory.path() / "file";
    writeFile(file, "");
    std::filesystem::resize_file(file, kWholeFileLimit);
    EXPECT_EQ(readWholeFile(file).size(), kWholeFileLimit);
    std::filesystem::resize_file(file, kWholeFileLimit + 1);
    EXPECT_THROW(readWholeFile(file), std::ios_base::failure);
}

} // namespace
