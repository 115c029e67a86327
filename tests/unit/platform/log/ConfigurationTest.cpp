// SPDX-License-Identifier: Apache-2.0
// Setting the process's logging up: by a host, by the library, and not twice.
#include "support/TemporaryDirectory.h"

#include <velmor/kepla/log/Configuration.h>
#include <velmor/kepla/log/Logger.h>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::readFile;
using libfieldwarden::test::TemporaryDirectory;
using testing::HasSubstr;
using testing::Not;
using velmor::kepla::log::Configuration;
using velmor::kepla::log::keplaDoLog;
using velmor::kepla::log::LoggerImpl;
using velmor::kepla::log::Severity;

class ConfigurationTest : public testing::Test {
protected:
    ~ConfigurationTest() override {
        Configuration::shutdown();
        Configuration::redirectFiles({});
    }

    void initHosted(std::string const& aFile1, std::string const& aFile2) {
        Configuration::initHosted(std::make_shared<LoggerImpl>(), false, aFile1, Severity::Debug, aFile2,
                                  Severity::Error, 1024);
    }

    TemporaryDirectory mDirectory;
};

TEST_F(ConfigurationTest, IsNotInitializedBeforeSomebodySetsItUp) {
    EXPECT_FALSE(Configuration::isInitialized());
    initHosted(mDirectory.path() / "a.log", mDirectory.path() / "b.log");
    EXPECT_TRUE(Configuration::isInitialized());
    Configuration::shutdown();
    EXPECT_FALSE(Configuration::isInitialized());
}

TEST_F(ConfigurationTest, GivesEachFileTheLinesOfItsLevelAndMoreUrgentOnes) {
    auto const volatileFile = mDirectory.path() / "a.log";
    auto const persistentFile = mDirectory.path() / "b.nvlog";
    initHosted(volatileFile, persistentFile);
    keplaDoLog(Severity::Critical, "stands out", {});
    keplaDoLog(Severity::Error, "failed", {});
    keplaDoLog(Severity::Warning, "warned", {});
    keplaDoLog(Severity::Debug, "entered", {});
    keplaDoLog(Severity::Trace, "traced", {});
    Configuration::shutdown();
    EXPECT_THAT(readFile(volatileFile), testing::AllOf(HasSubstr("stands out"), HasSubstr("warned"),
                                                       HasSubstr("entered"), Not(HasSubstr("traced"))));
    EXPECT_THAT(readFile(persistentFile),
                testing::AllOf(HasSubstr("stands out"), HasSubstr("failed"), Not(HasSubstr("warned"))));
}

TEST_F(ConfigurationTest, LastsWhenTheHandleIsDropped) {
    auto const file = mDirectory.path() / "a.log";
    initHosted(file, mDirectory.path() / "b.log");
    keplaDoLog(Severity::Info, "still here", {});
    EXPECT_THAT(readFile(file), HasSubstr("still here"));
}

TEST_F(ConfigurationTest, LeavesTheSinksOfAHostAlone) {
    Configuration::initWith({});
    initHosted(mDirectory.path() / "a.log", mDirectory.path() / "b.log");
    keplaDoLog(Severity::Critical, "to nobody", {});
    EXPECT_TRUE(std::filesystem::is_empty(mDirectory.path()));
}

TEST_F(ConfigurationTest, PutsItsFilesBelowTheFolderOfASimulatedInstrument) {
    Configuration::redirectFiles(mDirectory.path());
    initHosted("/var/log/x.log", "/data/logs/x.nvlog");
    keplaDoLog(Severity::Error, "both", {});
    EXPECT_THAT(readFile(mDirectory.path() / "var/log/x.log"), HasSubstr("both"));
    EXPECT_THAT(readFile(mDirectory.path() / "data/logs/x.nvlog"), HasSubstr("both"));
}

TEST_F(ConfigurationTest, DisablesAllLinesWhenNothingIsSetUp) {
    keplaDoLog(Severity::Critical, "to nobody", {});
    EXPECT_FALSE(velmor::kepla::log::detail::isActive(Severity::Critical));
}

} // namespace
