// SPDX-License-Identifier: Apache-2.0
// Records as files: what is read, what is written, and what is refused.
#include "support/TemporaryDirectory.h"

#include <velmor/kepla/deviceid/DeviceIdDirectory.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>

namespace {

using libfieldwarden::test::readFile;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;
using velmor::kepla::deviceid::DeviceIdDirectory;
namespace fs = std::filesystem;

constexpr std::size_t kMebibyte = 1048576;

std::vector<std::string> filesIn(fs::path const& aFolder) {
    std::vector<std::string> names;
    for (auto const& entry : fs::directory_iterator(aFolder)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

ino_t inodeOf(fs::path const& aFile) {
    struct stat status {};
    EXPECT_EQ(::stat(aFile.c_str(), &status), 0);
    return status.st_ino;
}

TEST(DeviceIdDirectory, ReadsTheMainRecordUnchanged) {
    TemporaryDirectory const folder;
    std::string const text("<record>\r\n\0 \xC3\xA9</record>\n", 24);
    writeFile(folder.path() / "main.mds", text);
    EXPECT_EQ(DeviceIdDirectory(folder.path()).mainMds(), text);
}

TEST(DeviceIdDirectory, NamesTheFileOfAMissingMainRecord) {
    TemporaryDirectory const folder;
    EXPECT_THAT([&] { DeviceIdDirectory(folder.path()).mainMds(); },
                ThrowsMessage<std::runtime_error>("Cannot read the device record '" +
                                                  (folder.path() / "main.mds").string() +
                                                  "': No such file or directory"));
}

TEST(DeviceIdDirectory, NamesTheFileOfAMainRecordThatIsNoFile) {
    TemporaryDirectory const folder;
    fs::create_directory(folder.path() / "main.mds");
    EXPECT_THAT([&] { DeviceIdDirectory(folder.path()).mainMds(); },
                ThrowsMessage<std::runtime_error>(AllOf(HasSubstr((folder.path() / "main.mds").string()),
                                                        HasSubstr("not a regular file"))));
}

TEST(DeviceIdDirectory, NamesTheFileThatTheFileSystemRefuses) {
    TemporaryDirectory const folder;
    // A link to itself: refused to everyone, the superuser included.
    fs::create_symlink("main.mds", folder.path() / "main.mds");
    EXPECT_THAT([&] { DeviceIdDirectory(folder.path()).mainMds(); },
                ThrowsMessage<std::runtime_error>(AllOf(HasSubstr((folder.path() / "main.mds").string()),
                                                        HasSubstr("Too many levels of symbolic links"))));
}

TEST(DeviceIdDirectory, ReadsAMainRecordOfOneMebibyteAndNoMore) {
    TemporaryDirectory const folder;
    fs::path const file = folder.path() / "main.mds";
    writeFile(file, std::string(kMebibyte, 'x'));
    EXPECT_EQ(DeviceIdDirectory(folder.path()).mainMds().size(), kMebibyte);

    writeFile(file, std::string(kMebibyte + 1, 'x'));
    EXPECT_THAT(
        [&] { DeviceIdDirectory(folder.path()).mainMds(); },
        ThrowsMessage<std::runtime_error>(AllOf(HasSubstr(file.string()), HasSubstr("longer than 1 MiB"))));
}

TEST(DeviceIdDirectory, KeepsAContributionUnderTheDevicesName) {
    TemporaryDirectory const folder;
    DeviceIdDirectory(folder.path()).contribute("Q47_Shim-8.b", "<record/>");
    EXPECT_THAT(filesIn(folder.path()), ElementsAre("Q47_Shim-8.b.mds"));
    EXPECT_EQ(readFile(folder.path() / "Q47_Shim-8.b.mds"), "<record/>");
    EXPECT_EQ(fs::status(folder.path() / "Q47_Shim-8.b.mds").permissions(), fs::perms{0644});
}

TEST(DeviceIdDirectory, MakesTheFolderOfTheFirstContribution) {
    TemporaryDirectory const folder;
    DeviceIdDirectory(folder.path() / "data" / "deviceids").contribute("vtu", "<record/>");
    EXPECT_EQ(readFile(folder.path() / "data" / "deviceids" / "vtu.mds"), "<record/>");
}

TEST(DeviceIdDirectory, ReplacesAnOlderContribution) {
    TemporaryDirectory const folder;
    DeviceIdDirectory directory(folder.path());
    directory.contribute("vtu", "a longer, older record");
    ino_t const older = inodeOf(folder.path() / "vtu.mds");
    directory.contribute("vtu", "new");
    EXPECT_EQ(readFile(folder.path() / "vtu.mds"), "new");
    EXPECT_NE(inodeOf(folder.path() / "vtu.mds"), older)
        << "written in place, where a reader could see half of it";
    EXPECT_THAT(filesIn(folder.path()), ElementsAre("vtu.mds"));
}

TEST(DeviceIdDirectory, DoesNotRewriteAnUnchangedRecord) {
    TemporaryDirectory const folder;
    DeviceIdDirectory directory(folder.path());
    directory.contribute("vtu", "<record/>");
    ino_t const inode = inodeOf(folder.path() / "vtu.mds");
    directory.contribute("vtu", "<record/>");
    EXPECT_EQ(inodeOf(folder.path() / "vtu.mds"), inode);
}

TEST(DeviceIdDirectory, WritesAnEmptyRecord) {
    TemporaryDirectory const folder;
    DeviceIdDirectory(folder.path()).contribute("vtu", "");
    EXPECT_TRUE(fs::exists(folder.path() / "vtu.mds"));
}

TEST(DeviceIdDirectory, RefusesNamesThatAreNotDeviceNames) {
    TemporaryDirectory const folder;
    DeviceIdDirectory directory(folder.path() / "deviceids");
    for (std::string const& name :
         {std::string(), std::string("../vtu"), std::string("a b"), std::string("a/b"),
          std::string("a\0b", 3), std::string("caf\xC3\xA9"), std::string("a\n")}) {
        EXPECT_THROW(directory.contribute(name, "<record/>"), std::invalid_argument) << name;
    }
    EXPECT_THAT(filesIn(folder.path()), ElementsAre());
}

TEST(DeviceIdDirectory, RefusesARecordOfMoreThanOneMebibyte) {
    TemporaryDirectory const folder;
    DeviceIdDirectory directory(folder.path());
    EXPECT_THROW(directory.contribute("vtu", std::string(kMebibyte + 1, 'x')), std::invalid_argument);
    EXPECT_NO_THROW(directory.contribute("vtu", std::string(kMebibyte, 'x')));
}

TEST(DeviceIdDirectory, NamesTheFileThatItCannotWriteAndLeavesNothingBehind) {
    TemporaryDirectory const folder;
    fs::create_directories(folder.path() / "vtu.mds" / "in the way");
    EXPECT_THAT(
        [&] { DeviceIdDirectory(folder.path()).contribute("vtu", "<record/>"); },
        ThrowsMessage<std::runtime_error>("Cannot write the device record '" +
                                          (folder.path() / "vtu.mds").string() + "': Is a directory"));
    EXPECT_THAT(filesIn(folder.path()), ElementsAre("vtu.mds"));

    writeFile(folder.path() / "file", "");
    EXPECT_THAT([&] { DeviceIdDirectory(folder.path() / "file").contribute("vtu", "<record/>"); },
                ThrowsMessage<std::runtime_error>(HasSubstr((folder.path() / "file" / "vtu.mds").string())));
}

TEST(DeviceIdDirectory, ShowsReadersWholeRecordsOnly) {
    TemporaryDirectory const folder;
    DeviceIdDirectory directory(folder.path());
    std::string const a(100'000, 'a');
    std::string const b(50'000, 'b');
    directory.contribute("main", a);
    std::atomic<bool> done = false;
    std::thread writer([&] {
        for (int i = 0; i < 20; ++i) {
            directory.contribute("main", i % 2 == 0 ? b : a);
        }
        done = true;
    });
    while (!done) {
        std::string const text = directory.mainMds();
        EXPECT_TRUE(text == a || text == b) << text.size();
    }
    writer.join();
}

} // namespace
