// SPDX-License-Identifier: Apache-2.0
// The text of "build.info".
#include <velmor/kepla/canopen/BuildInfo.h>

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using velmor::kepla::canopen::BuildInfo;

std::string refusalOf(std::string const& aText) {
    try {
        BuildInfo::parse(aText);
    } catch (std::runtime_error const& error) {
        return error.what();
    }
    return "taken";
}

TEST(BuildInfo, ReadsBuildAndPlatform) {
    BuildInfo const info =
        BuildInfo::parse("# shim boards\r\n\n platform = Q47-SHIM \r\njenkins_build_id=123\r\n");
    EXPECT_EQ(info.jenkinsBuildId, 123U);
    EXPECT_EQ(info.platform, "Q47-SHIM");
}

TEST(BuildInfo, NeedsNoPlatformAndIgnoresWhatItDoesNotKnow) {
    BuildInfo const info = BuildInfo::parse("compiler=gcc = 12\njenkins_build_id=0xFFFFFFFF");
    EXPECT_EQ(info.jenkinsBuildId, 4294967295U);
    EXPECT_FALSE(info.platform);
}

TEST(BuildInfo, TellsWhatCannotBeRead) {
    EXPECT_EQ(refusalOf(""), "there is no jenkins_build_id");
    EXPECT_EQ(refusalOf("platform=x"), "there is no jenkins_build_id");
    EXPECT_EQ(refusalOf("\nnonsense"), "line 2: expected key=value");
    for (char const* const bad : {"", "12x", "-1", "4294967296", "0x", "0x100000000", "1.5"}) {
        EXPECT_EQ(refusalOf(std::string("jenkins_build_id=") + bad),
                  std::string("line 1: jenkins_build_id is no 32-bit number: '") + bad + "'");
    }
}

TEST(BuildInfo, NamesTheFileThatCannotBeRead) {
    TemporaryDirectory const folder;
    std::string const path = (folder.path() / "build.info").string();
    EXPECT_FALSE(BuildInfo::load(path)) << "a missing file is no error";
    writeFile(path, "");
    try {
        BuildInfo::load(path);
        FAIL();
    } catch (std::runtime_error const& error) {
        EXPECT_EQ(error.what(),
                  "Cannot read the firmware build information '" + path + "': there is no jenkins_build_id");
    }
    writeFile(path, "jenkins_build_id=7\n");
    EXPECT_EQ(BuildInfo::load(path)->jenkinsBuildId, 7U);
}

} // namespace
