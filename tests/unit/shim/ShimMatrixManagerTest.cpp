// SPDX-License-Identifier: Apache-2.0
// Which file is loaded for which shim system, and when the enforced one wins.
#include "shim/ShimMatrixManager.h"

#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

constexpr auto kUnknownType = static_cast<ShimSysType>(7);

class ShimMatrixManagerTest : public testing::Test {
protected:
    ShimMatrixManagerTest() {
        writeFile(mDirectory.path() / "wmxs1a.dat", "V 1 1 E");
        writeFile(mDirectory.path() / "wmxs2a.dat", "V 2 1 E");
    }
    ShimMatrixManager manager(std::string const& aEnforced = {}) const { return {folder(), aEnforced}; }
    std::string folder() const { return mDirectory.path().string(); }
    std::string in(std::string const& aName) const { return (mDirectory.path() / aName).string(); }

    TemporaryDirectory mDirectory;
};

CapturedLine line(Severity aSeverity, std::string const& aText) {
    return {aSeverity, aText, {}, {}};
}

TEST_F(ShimMatrixManagerTest, NamesTheFileOfEachSystem) {
    auto const manager = this->manager();
    EXPECT_EQ(manager.fileNameFromType(ShimSysType::Wmxs1a), "wmxs1a.dat");
    EXPECT_EQ(manager.fileNameFromType(ShimSysType::Wmxs1b), "wmxs1b.dat");
    EXPECT_EQ(manager.fileNameFromType(ShimSysType::Wmxs1c), "wmxs1c.dat");
    EXPECT_EQ(manager.fileNameFromType(ShimSysType::Wmxs2a), "wmxs2a.dat");
    EXPECT_EQ(manager.fileNameFromType(static_cast<ShimSysType>(8)), "wmxs1a.dat");
    EXPECT_EQ(manager.fileNameFromType(static_cast<ShimSysType>(11)), "wmxs2a.dat");
}

TEST_F(ShimMatrixManagerTest, RefusesAnotherSystem) {
    LogCapture const log;
    EXPECT_THAT([&] { manager().fileNameFromType(kUnknownType); },
                ThrowsMessage<std::invalid_argument>(StrEq("The provided shim system is not supported")));
    EXPECT_THAT(log.lines(), ElementsAre(line(Severity::Error, "Unsupported shim system type: 7")));
    EXPECT_EQ(log.lines()[0].name, "ShimMatrixManager");
    EXPECT_EQ(log.lines()[0].category, "Shim");
}

TEST_F(ShimMatrixManagerTest, LoadsTheSystemsFile) {
    LogCapture const log;
    EXPECT_EQ(manager().get(ShimSysType::Wmxs1a)->getNamesOfActiveShimGradients(), "Z");
    EXPECT_EQ(manager().get(ShimSysType::Wmxs2a)->getNamesOfActiveShimGradients(), "Z2");
    EXPECT_THAT(log.linesOf("ShimMatrixManager"),
                ElementsAre(line(Severity::Debug, "get(shimsys = 8)"),
                            line(Severity::Debug, "Loading matrix at path " + in("wmxs1a.dat")),
                            line(Severity::Debug, "get(shimsys = 11)"),
                            line(Severity::Debug, "Loading matrix at path " + in("wmxs2a.dat"))));
}

TEST_F(ShimMatrixManagerTest, LoadsAnewEachTime) {
    auto const manager = this->manager();
    EXPECT_NE(manager.get(ShimSysType::Wmxs1a), manager.get(ShimSysType::Wmxs1a));
}

TEST_F(ShimMatrixManagerTest, LetsAnEnforcedFileWin) {
    writeFile(in("service.dat"), "V 3 1 E");
    LogCapture const log;
    EXPECT_EQ(manager(in("service.dat")).get(ShimSysType::Wmxs1a)->getNamesOfActiveShimGradients(), "Z3");
    EXPECT_THAT(log.linesOf("ShimMatrixManager"),
                ElementsAre(line(Severity::Debug, "get(shimsys = 8)"),
                            line(Severity::Trace, "Enforced matrix at path " + in("service.dat")),
                            line(Severity::Warning, "Loading enforced matrix at path " + in("service.dat"))));
}

TEST_F(ShimMatrixManagerTest, DoesNotEvenLookAtTheTypeWithAnEnforcedFile) {
    writeFile(in("service.dat"), "V 3 1 E");
    EXPECT_EQ(manager(in("service.dat")).get(kUnknownType)->getNamesOfActiveShimGradients(), "Z3");
    EXPECT_THAT([&] { manager().get(kUnknownType); },
                ThrowsMessage<std::invalid_argument>(StrEq("The provided shim system is not supported")));
}

TEST_F(ShimMatrixManagerTest, FallsBackToTheSystemsFileWhenTheEnforcedOneIsNotThere) {
    LogCapture const log;
    EXPECT_EQ(manager(in("missing.dat")).get(ShimSysType::Wmxs1a)->getNamesOfActiveShimGradients(), "Z");
    EXPECT_THAT(log.linesOf("ShimMatrixManager"),
                ElementsAre(line(Severity::Debug, "get(shimsys = 8)"),
                            line(Severity::Trace, "Enforced matrix at path " + in("missing.dat")),
                            line(Severity::Debug, "Enforced matrix file does't exist, loading normal matrix"),
                            line(Severity::Debug, "Loading matrix at path " + in("wmxs1a.dat"))));
}

TEST_F(ShimMatrixManagerTest, DoesNotFallBackFromABadEnforcedFile) {
    writeFile(in("bad.dat"), "no end");
    LogCapture const log;
    EXPECT_THAT([&] { manager(in("bad.dat")).get(ShimSysType::Wmxs1a); },
                ThrowsMessage<std::runtime_error>(StrEq("Could not load the shim matrix")));
    EXPECT_TRUE(
        log.has(Severity::Error, "Failed to load shim matrix at " + in("bad.dat") +
                                     " with error Invalid TOSK file: ends but no E (end) entry found"));
}

TEST_F(ShimMatrixManagerTest, TakesAFolderForAnEnforcedFileThatIsBad) {
    EXPECT_THAT([&] { manager(folder()).get(ShimSysType::Wmxs1a); },
                ThrowsMessage<std::runtime_error>(StrEq("Could not load the shim matrix")));
}

TEST_F(ShimMatrixManagerTest, TellsWhyAFileCannotBeLoaded) {
    LogCapture const log;
    EXPECT_THAT([&] { manager().get(ShimSysType::Wmxs1b); },
                ThrowsMessage<std::runtime_error>(StrEq("Could not load the shim matrix")));
    EXPECT_TRUE(log.has(Severity::Error, "Failed to load shim matrix at " + in("wmxs1b.dat") +
                                             " with error Could not open TOSK file #2 '" + in("wmxs1b.dat") +
                                             "'"));
}

TEST_F(ShimMatrixManagerTest, StaysUsableAfterAFailure) {
    auto const manager = this->manager();
    EXPECT_THROW(manager.get(ShimSysType::Wmxs1b), std::runtime_error);
    writeFile(in("wmxs1b.dat"), "V 4 1 E");
    EXPECT_EQ(manager.get(ShimSysType::Wmxs1b)->getNamesOfActiveShimGradients(), "Z4");
}

} // namespace
