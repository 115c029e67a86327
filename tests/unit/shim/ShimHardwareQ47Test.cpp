// SPDX-License-Identifier: Apache-2.0
// The shim service on two scripted boards: what reaches boards, listener and log, and in which order.
#include "shim/ShimHardwareQ47.h"

#include "ShimBoardFixture.h"
#include "shim/ShimMatrixTOSK.h"

#include "support/HandClockScope.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/ShimListenerInterface.h>
#include <velmor/platform/ScaledClock.h>

#include <array>
#include <atomic>
#include <cmath>
#include <future>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::currents;
using libfieldwarden::test::expectThrow;
using libfieldwarden::test::FakeCanOpenNode;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::line;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::makeShimNode;
using libfieldwarden::test::makeSilentMaster;
using libfieldwarden::test::readFile;
using libfieldwarden::test::readingAll;
using libfieldwarden::test::ScriptedShimBoard;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using libfieldwarden::test::writing;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char const* kNotSet = "The shim system has not been set. Please run instsetup.";

/// Four gradients on three sources of board 1 and one of board 2:
///   Z  feeds coil 0 (current 0) once and coil 37 (current 17) by half
///   Z2 feeds coil 37 twice, with the weight 0.5
///   Z3 feeds coil 1 (current 8)
///   Z4 feeds coil 2 (current 4) once and coil 37 twice
constexpr char const* kMatrix =
    "M 1 G test\n"
    "V 1 1.0\nV 2 0.5\nV 3 1.0\nV 4 1.0\n"
    "F 1 1 1.0\nF 1 38 0.5\nF 2 38 2.0\nF 3 2 1.0\nF 4 3 1.0\nF 4 38 2.0\n"
    "I 1 1 1.0\nI 2 3 1.0\nI 3 4 1.0\nI 38 2 0.5\nI 1 2 -0.25\nI 3 2 -1.0\n"
    "E\n";

/// Remembers what it is told.
class Listener : public ShimListenerInterface {
public:
    void shimGradientChanged(std::string const& aName, int aValue) override {
        heard.push_back(fmt::format("{} = {}", aName, aValue));
        if (onGradient) {
            onGradient();
        }
    }
    void shimCurrentChanged(unsigned int aIndex, double aAmpere) override {
        heard.push_back(fmt::format("{}: {} A", aIndex, aAmpere));
    }

    std::vector<std::string> heard;
    std::function<void()> onGradient;
};

/// The service itself, but for its boards.
class ServiceOnScriptedBoards : private virtual velmor::kepla::log::Logger, public ShimHardwareQ47 {
public:
    ServiceOnScriptedBoards(BoardMaker const& aMakeBoard, std::filesystem::path const& aDirectory)
        : Logger("ShimHardwareQ47", "Shim")
        , ShimHardwareQ47(aMakeBoard,
                          (aDirectory / "matrices").string(),
                          (aDirectory / "enforced.dat").string(),
                          (aDirectory / "shims.factory").string(),
                          (aDirectory / "shimsys.mds").string()) {}
};

class ShimHardwareQ47Test : public testing::Test {
protected:
    ShimHardwareQ47Test() {
        writeFile(mDirectory.path() / "matrices" / "wmxs1a.dat", kMatrix);
        mService = make();
        clear();
    }

    std::unique_ptr<ServiceOnScriptedBoards> make() {
        return std::make_unique<ServiceOnScriptedBoards>(
            [this](unsigned char aNodeId) {
                mSteps.push_back(fmt::format("make {}", aNodeId));
                return std::make_unique<ScriptedShimBoard>(
                    aNodeId == 8 ? mNode1 : mNode2, mMaster, mDataLogger, mCallers,
                    [this, aNodeId] { mSteps.push_back(fmt::format("prepare {}", aNodeId)); });
            },
            mDirectory.path());
    }
    /// Sets the shim system and begins to listen; the boards have what the test gave them, or nothing.
    void begin() {
        mService->setShimSystem(ShimSysType::Wmxs1a);
        mService->setListener(&mListener);
        clear();
    }
    void clear() {
        mNode1->takeCalls();
        mNode2->takeCalls();
        mLog.clear();
        mListener.heard.clear();
    }
    void factory(std::string const& aText) const { writeFile(mDirectory.path() / "shims.factory", aText); }

    /// Makes a board silent, or lets it speak again.
    static void silence(FakeCanOpenNode& aNode) {
        std::string const words = fmt::format("node {} does not answer", aNode.nodeId());
        aNode.fail(0x3000, 1, words);
        aNode.fail(0x3001, 1, words);
    }
    static void wake(FakeCanOpenNode& aNode) {
        aNode.onAccess(0x3000, 1, {});
        aNode.onAccess(0x3001, 1, {});
    }

    /// Both boards were written and read back, and nothing else.
    void expectWritten(std::vector<int> const& aBoard1, std::vector<int> const& aBoard2) {
        EXPECT_THAT(mNode1->takeCalls(), ElementsAreArray(readingAll({writing(aBoard1)})));
        EXPECT_THAT(mNode2->takeCalls(), ElementsAreArray(readingAll({writing(aBoard2)})));
    }
    void expectNoTraffic() {
        EXPECT_THAT(mNode1->takeCalls(), IsEmpty());
        EXPECT_THAT(mNode2->takeCalls(), IsEmpty());
    }
    /// The service's own lines.
    std::vector<libfieldwarden::test::CapturedLine> lines() const { return mLog.linesOf("ShimHardwareQ47"); }

    HandClockScope mClock;
    TemporaryDirectory mDirectory;
    LogCapture mLog;
    Listener mListener;
    std::vector<std::string> mSteps;
    std::shared_ptr<FakeCanOpenNode> mNode1 = makeShimNode(8);
    std::shared_ptr<FakeCanOpenNode> mNode2 = makeShimNode(9);
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> mMaster = makeSilentMaster();
    std::unique_ptr<ServiceOnScriptedBoards> mService;
};

// ---------------------------------------------------------------------------------------------- life cycle

TEST_F(ShimHardwareQ47Test, MakesBothBoardsBeforeItPreparesThemInTheirOrder) {
    mSteps.clear();
    auto const second = make();
    EXPECT_THAT(mSteps, ElementsAre("make 8", "make 9", "prepare 8", "prepare 9"));
    auto const all = mLog.lines();
    ASSERT_THAT(all, SizeIs(3));
    EXPECT_EQ(all[0], line(Severity::Trace, "ShimHardwareQ47 constructor"));
    EXPECT_EQ(all[0].name, "ShimHardwareQ47");
    EXPECT_EQ(all[0].category, "Shim");
    EXPECT_EQ(all[1].name, "ShimBoardQ47(canID = 8)");
    EXPECT_EQ(all[2].name, "ShimBoardQ47(canID = 9)");
}

TEST_F(ShimHardwareQ47Test, DoesNotComeUpWithoutABoard) {
    mNode2->fail(0x3004, 1, "node 9 does not answer");
    expectThrow<std::runtime_error>([&] { make(); }, "node 9 does not answer");
}

TEST_F(ShimHardwareQ47Test, EndsWithItsBoards) {
    mService.reset();
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
    EXPECT_EQ(mLog.lines().front(), line(Severity::Trace, "ShimHardwareQ47 destructor"));
    EXPECT_THAT(mLog.lines(), SizeIs(3)); // and a line of each board
}

TEST(ShimHardwareQ47OnTheBus, BringsUpNodeEightFirstAndTellsThatItIsSilent) {
    // A board may take half a minute to answer; here that is 30 ms.
    auto const former = velmor::platform::Clock::use(std::make_shared<velmor::platform::ScaledClock>(1000.0));
    auto const dataLogger = std::make_shared<FakeDataLogger>();
    try {
        ShimHardwareQ47 const service(makeSilentMaster(), "matrices", "", "shims.factory", "firmware",
                                      "shimsys.mds", dataLogger, std::make_shared<FakePeriodicCallers>(),
                                      nullptr);
        ADD_FAILURE() << "nothing was thrown";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("8"));
        EXPECT_THAT(error.what(), testing::Not(testing::HasSubstr("9")));
    }
    velmor::platform::Clock::use(former);
    auto const infos = dataLogger->infos();
    ASSERT_THAT(infos, SizeIs(12)); // six channels a board
    EXPECT_EQ(infos[0].name(), "shimboard/8/temperature/dacs_upper");
    EXPECT_EQ(infos[11].name(), "shimboard/9/calibration_offset");
}

// ------------------------------------------------------------------------------------------ no shim system

TEST_F(ShimHardwareQ47Test, RefusesGradientsWithoutAShimSystem) {
    std::string const words = "getTOSKMatrixRelations: shims system has not been set";
    auto const refused = [&](auto const& aAction) {
        mLog.clear();
        expectThrow<std::runtime_error>(aAction, kNotSet);
        EXPECT_EQ(mLog.lines().back(), line(Severity::Error, words));
    };
    refused([&] { mService->setSingleShim("Z", 1); });
    refused([&] { mService->getSingleShim("Z"); });
    refused([&] { mService->getNamesOfActiveShimGradients(); });
    refused([&] { mService->getShimId(); });
    refused([&] { mService->getTOSKFileName(); });
    expectNoTraffic();
}

TEST_F(ShimHardwareQ47Test, RefusesCurrentsWithoutAShimSystem) {
    expectThrow<std::runtime_error>([&] { mService->setShimCurrent(0, 0.0); }, kNotSet);
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "setShimCurrent(0, 0)"),
                                     line(Severity::Error, "setShimCurrent: shim system has not been set")));
    mLog.clear();
    expectThrow<std::runtime_error>([&] { mService->getShimCurrent(99); },
                                    kNotSet); // before the index counts
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "getShimCurrent(99)"),
                                     line(Severity::Error, "getShimCurrent: shim system has not been set")));
}

TEST_F(ShimHardwareQ47Test, GivesNoMatrixRelationsWithoutAShimSystem) {
    EXPECT_EQ(mService->getTOSKMatrixRelations(), "");
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Error, "getTOSKMatrixRelations: shims system has not been set")));
}

TEST_F(ShimHardwareQ47Test, HasThirtyFourCurrentsInAnyCase) {
    EXPECT_EQ(mService->getShimCurrentsCount(), 34U);
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "getShimCurrentsCount()")));
}

TEST_F(ShimHardwareQ47Test, HasNoAutoShim) {
    EXPECT_FALSE(mService->getAutoShim());
    EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(ShimHardwareQ47Test, WritesItsZerosInAnEmptySetWithoutAShimSystem) {
    mNode1->set(0x3000, 1, 1234);
    mService->beginOfOneParameterSet();
    mService->endOfOneParameterSet();
    EXPECT_EQ(mNode1->number(0x3000, 1), 0);
}

TEST_F(ShimHardwareQ47Test, SeesWhetherAllShimsAreZeroWithoutAShimSystem) {
    EXPECT_TRUE(mService->areAllShimZero());
    mNode2->set(0x3000, 17, -1);
    EXPECT_FALSE(mService->areAllShimZero());
}

// ------------------------------------------------------------------------------------------- shim system

TEST_F(ShimHardwareQ47Test, ReadsTheBoardsWhenTheShimSystemIsSet) {
    mNode1->set(0x3000, 1, 769); // 769 / 7.69 = 99.97 units of coil 0: Z = 100
    mNode2->set(0x3000, 1,
                385); // 385 / 7.69 = 50.05 units of coil 37: Z2 = (0.5 * 50.05 - 0.25 * 99.97) / 0.5 = 0.07
    mNode1->set(0x3000, 9, -100); // -13.0 units of coil 1: Z3 = -13
    mService->setShimSystem(ShimSysType::Wmxs1a);
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
    EXPECT_EQ(mService->getSingleShim("Z2").value, 0);
    EXPECT_EQ(mService->getSingleShim("Z3").value, -13);
    EXPECT_EQ(mService->getSingleShim("XYZ5").value, 0); // without a weight
    EXPECT_EQ(mService->getShimCurrent(0).value, 0.000769);
    EXPECT_EQ(mService->getShimCurrent(8).value, -0.0001);
    EXPECT_EQ(mService->getShimCurrent(17).value, 0.000385);
    EXPECT_THAT(mNode1->takeCalls(), ElementsAreArray(readingAll({"readUInt16 3000:00"})));
    EXPECT_THAT(mNode2->takeCalls(), ElementsAreArray(readingAll({"readUInt16 3000:00"})));
    auto const all = lines();
    EXPECT_EQ(all[0], line(Severity::Debug, "+setShimSystem(shimsystype = 8)"));
    EXPECT_EQ(all[1], line(Severity::Debug, "ShimHardwareQ47::getShimsFromHardware"));
}

TEST_F(ShimHardwareQ47Test, KeepsItsShimSystemWhenAnotherOneCannotBeLoaded) {
    mNode1->set(0x3000, 1, 769);
    begin();
    expectThrow<std::runtime_error>([&] { mService->setShimSystem(ShimSysType::Wmxs1b); },
                                    "Could not load the shim matrix");
    expectThrow<std::invalid_argument>([&] { mService->setShimSystem(ShimSysType{7}); },
                                       "The provided shim system is not supported");
    expectNoTraffic();
    EXPECT_EQ(mService->getShimId(), "wmxs1a");
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
}

TEST_F(ShimHardwareQ47Test, PassesAFailureToReadBoardOneOnAndGoesOnAfterwards) {
    silence(*mNode1);
    expectThrow<std::runtime_error>([&] { mService->setShimSystem(ShimSysType::Wmxs1a); },
                                    "node 8 does not answer");
    EXPECT_TRUE(mLog.has(Severity::Critical,
                         "Failed to read shim currents from shim board 1 with 'node 8 does not answer'"));
    EXPECT_THAT(mNode2->takeCalls(), IsEmpty());
    wake(*mNode1);
    mService->setShimSystem(ShimSysType::Wmxs1a);
    EXPECT_EQ(mService->getSingleShim("Z").value, 0);
}

TEST_F(ShimHardwareQ47Test, KeepsThePictureWhenOnlyBoardOneCanBeRead) {
    begin();
    mNode1->set(0x3000, 1, 769);
    silence(*mNode2);
    expectThrow<std::runtime_error>([&] { mService->areAllShimZero(); }, "node 9 does not answer");
    EXPECT_THAT(
        mLog.linesUpTo(Severity::Critical),
        ElementsAre(line(Severity::Critical,
                         "Failed to read shim currents from shim board 2 with 'node 9 does not answer'")));
    EXPECT_EQ(mService->getShimCurrent(0).value, 0.0); // nothing of board 1 was taken over
    wake(*mNode2);
    EXPECT_FALSE(mService->areAllShimZero());
    EXPECT_EQ(mService->getShimCurrent(0).value, 0.000769);
}

TEST_F(ShimHardwareQ47Test, RefusesABoardWithAnotherNumberOfSources) {
    mNode1->set(0x3000, 0, 3);
    expectThrow<std::runtime_error>([&] { mService->setShimSystem(ShimSysType::Wmxs1a); },
                                    "ShimCoilToCurrentSource::convert_back: board1.size() != 17");
    EXPECT_THROW(mService->getShimCurrent(16), std::out_of_range); // and survives what may be asked then
    mService->setListener(&mListener);
    mService->setSingleShim("Z", 100);
    EXPECT_THAT(mListener.heard, ElementsAre("Z = 100", "0: 0.000769 A", "17: 0.000385 A"));
}

TEST_F(ShimHardwareQ47Test, LoadsTheFactoryShimsWhereThereAreNone) {
    mService->setListener(&mListener);
    factory("# as delivered\nZ3 10\nZ 100\n");
    clear();
    mService->setShimSystem(ShimSysType::Wmxs1a);
    // 10 units are 76.9 uA, 100 are 769.2 uA, 50 are 384.6 uA
    auto board1 = currents({769});
    board1[8] = 77;
    EXPECT_EQ(mNode1->takeCalls()[18], writing(board1)); // behind the count and the 17 reads
    EXPECT_EQ(mNode2->takeCalls()[18], writing(currents({385})));
    EXPECT_EQ(mService->getSingleShim("Z3").value, 10);
    EXPECT_EQ(mService->getShimCurrent(8).value, 0.000077);
    EXPECT_THAT(mListener.heard, IsEmpty());
    auto const all = lines();
    EXPECT_EQ(all[2],
              line(Severity::Info, "All shims are zero on the board on startup: try to load factory shims"));
    EXPECT_EQ(all[3], line(Severity::Debug, "ShimHardwareQ47::tryLoadFactoryShim"));
    EXPECT_EQ(all[4], line(Severity::Debug, "ShimHardwareQ47::setShimsOnHardware"));
}

TEST_F(ShimHardwareQ47Test, LoadsTheFactoryShimsOverACurrentThatRoundsToNoGradient) {
    mNode1->set(0x3000, 9, 1); // 0.13 units
    factory("Z3 10\n");
    mService->setShimSystem(ShimSysType::Wmxs1a);
    EXPECT_EQ(mNode1->number(0x3000, 9), 77);
}

TEST_F(ShimHardwareQ47Test, LeavesShimsThatThereAreAlone) {
    mNode1->set(0x3000, 9, 100);
    factory("Z3 10\n");
    mService->setShimSystem(ShimSysType::Wmxs1a);
    EXPECT_EQ(mNode1->number(0x3000, 9), 100);
    EXPECT_FALSE(mLog.has(Severity::Debug, "ShimHardwareQ47::tryLoadFactoryShim"));
}

TEST_F(ShimHardwareQ47Test, StaysAtZeroWithoutFactoryShims) {
    mService->setShimSystem(ShimSysType::Wmxs1a);
    EXPECT_TRUE(mLog.has(Severity::Error, "Factory shim not loaded, reason: No such file or directory"));
    EXPECT_THAT(mNode1->takeCalls(), SizeIs(18)); // the count and the currents, nothing written
    EXPECT_EQ(mService->getSingleShim("Z").value, 0);
}

TEST_F(ShimHardwareQ47Test, SaysWhatIsWrongWithTheFactoryShims) {
    factory("Z3 10\nZ99 1\n");
    mService->setShimSystem(ShimSysType::Wmxs1a);
    EXPECT_THAT(mLog.linesUpTo(Severity::Error),
                ElementsAre(line(Severity::Error, "Factory shim not loaded, reason: Success")));
    EXPECT_TRUE(mLog.has(Severity::Debug,
                         "~tryLoadFactoryShim: Invalid shim file. Error at line 2: failed to set "
                         "gradient with There is no TOSK gradient named 'Z99'"));
    EXPECT_EQ(mService->getSingleShim("Z3").value, 0);
    EXPECT_EQ(mService->getShimCurrent(8).value, 0.0);
}

TEST_F(ShimHardwareQ47Test, SurvivesABoardThatDoesNotTakeTheFactoryShims) {
    factory("Z3 10\n");
    mNode1->fail(0x3001, 1, "node 8: transfer aborted", 1);
    mService->setShimSystem(ShimSysType::Wmxs1a);
    EXPECT_TRUE(
        mLog.has(Severity::Debug,
                 "~tryLoadFactoryShim: Source 9 value has a difference of -77uA to requested value\n"));
    mService->beginOfOneParameterSet();
    mService->endOfOneParameterSet(); // and goes on
    EXPECT_EQ(mNode1->number(0x3000, 9), 77);
}

// -------------------------------------------------------------------------------------- outside of a set

TEST_F(ShimHardwareQ47Test, HoldsAGradientAndTellsItAndItsCurrentsButDoesNotWriteThem) {
    begin();
    mService->setSingleShim("Z", 100);
    EXPECT_THAT(mListener.heard, ElementsAre("Z = 100", "0: 0.000769 A", "17: 0.000385 A"));
    expectNoTraffic();
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Debug, "ShimHardwareQ47::setSingleShim(id='Z', value=100)"),
                            line(Severity::Debug, "ShimHardwareQ47::sendUpdates")));
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
    EXPECT_EQ(mService->getShimCurrent(17).value, 0.000385);

    mService->beginOfOneParameterSet();
    mService->endOfOneParameterSet(); // the next end of a set takes it along
    expectWritten(currents({769}), currents({385}));
}

TEST_F(ShimHardwareQ47Test, HoldsACurrentAndTellsItsGradientsButDoesNotWriteIt) {
    begin();
    mService->setShimCurrent(0, 0.001);
    // 1000 uA are 130 units of coil 0: Z = 130, Z2 = -0.25 * 130 / 0.5 = -65
    EXPECT_THAT(mListener.heard, ElementsAre("Z = 130", "Z2 = -65", "0: 0.001 A"));
    expectNoTraffic();
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "setShimCurrent(0, 0.001)"),
                                     line(Severity::Debug, "ShimHardwareQ47::sendUpdates")));
}

TEST_F(ShimHardwareQ47Test, TellsNothingThatDidNotChange) {
    begin();
    mService->setSingleShim("Z", 0);
    mService->setShimCurrent(33, 0.0);
    EXPECT_THAT(mListener.heard, IsEmpty());
}

TEST_F(ShimHardwareQ47Test, TellsGradientsByTheirCodesAndThenCurrentsByTheirIndexes) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z4", 30);
    mService->setSingleShim("Z3", 20);
    mService->setSingleShim("Z", 10);
    mService->endOfOneParameterSet();
    // 10 units: 77 uA; 30: 231 uA; 20: 154 uA; coil 37: 5 + 60 = 65 units: 500 uA
    EXPECT_THAT(mListener.heard, ElementsAre("Z = 10", "Z3 = 20", "Z4 = 30", "0: 7.7e-05 A", "4: 0.000231 A",
                                             "8: 0.000154 A", "17: 0.0005 A"));
}

TEST_F(ShimHardwareQ47Test, RefusesAGradientThatThereIsNot) {
    begin();
    expectThrow<std::invalid_argument>([&] { mService->setSingleShim("z", 1); },
                                       "There is no TOSK gradient named 'z'");
    expectThrow<std::invalid_argument>([&] { mService->getSingleShim("z"); },
                                       "There is no TOSK gradient named 'z'");
    EXPECT_THAT(mListener.heard, IsEmpty());
}

TEST_F(ShimHardwareQ47Test, ReplacesTheCurrentsOfBoardOneWhenOnlyBoardTwoIsOutOfRange) {
    begin();
    // Coil 2 gets 100000 units, coil 37 twice that.
    expectThrow<std::invalid_argument>(
        [&] { mService->setSingleShim("Z4", 100000); },
        "ShimUnits to uA: units must be between -130000.000000 and 130000.000000 but was 200000.000000");
    EXPECT_EQ(mService->getSingleShim("Z4").value, 100000);
    EXPECT_EQ(mService->getShimCurrent(4).value, 0.769231); // 100000 * 7.6923
    EXPECT_EQ(mService->getShimCurrent(17).value, 0.0);
    EXPECT_THAT(mListener.heard, IsEmpty());

    mService->setSingleShim("Z4", 0); // and goes on
    EXPECT_EQ(mService->getShimCurrent(4).value, 0.0);
    EXPECT_THAT(mListener.heard, ElementsAre("Z4 = 0", "4: 0 A"));
}

TEST_F(ShimHardwareQ47Test, CutsACurrentToWholeMicroamperes) {
    begin();
    mService->setShimCurrent(0, 0.0000019);
    EXPECT_EQ(mService->getShimCurrent(0).value, 0.000001);
    mService->setShimCurrent(0, -0.0000019);
    EXPECT_EQ(mService->getShimCurrent(0).value, -0.000001);
}

TEST_F(ShimHardwareQ47Test, TakesCurrentsUpToOneAmpereOnAllIndexes) {
    begin();
    for (unsigned const index : {0U, 16U, 17U, 33U}) {
        mService->setShimCurrent(index, 1.0);
        EXPECT_EQ(mService->getShimCurrent(index).value, 1.0);
        mService->setShimCurrent(index, -1.0);
        EXPECT_EQ(mService->getShimCurrent(index).value, -1.0);
    }
    mService->beginOfOneParameterSet();
    mService->endOfOneParameterSet();
    EXPECT_EQ(mNode1->number(0x3000, 1), -1000000);
    EXPECT_EQ(mNode1->number(0x3000, 17), -1000000);
    EXPECT_EQ(mNode2->number(0x3000, 1), -1000000);
    EXPECT_EQ(mNode2->number(0x3000, 17), -1000000);
}

TEST_F(ShimHardwareQ47Test, RefusesCurrentsOutOfRange) {
    begin();
    for (double const ampere : {std::nextafter(1.0, 2.0), std::nextafter(-1.0, -2.0),
                                std::numeric_limits<double>::infinity(), std::nan("")}) {
        expectThrow<std::out_of_range>([&] { mService->setShimCurrent(0, ampere); },
                                       "Shim current value must be between -1 and 1 Ampere");
    }
    expectThrow<std::out_of_range>([&] { mService->setShimCurrent(34, 2.0); }, // the index counts first
                                   "Shim current index must be between 0 and 33");
    expectThrow<std::out_of_range>([&] { mService->getShimCurrent(34); },
                                   "Shim current index must be between 0 and 33");
    EXPECT_THAT(mListener.heard, IsEmpty());
}

TEST_F(ShimHardwareQ47Test, GivesACurrentWithItsLimits) {
    begin();
    mService->setShimCurrent(1, -0.25);
    auto const current = mService->getShimCurrent(1);
    EXPECT_EQ(current.value, -0.25);
    EXPECT_EQ(current.upper, 1.0);
    EXPECT_EQ(current.lower, 0.0); // although the setter takes -1
    EXPECT_EQ(current.format, "1.6");
    EXPECT_EQ(mLog.lines().back(), line(Severity::Debug, "getShimCurrent(1)"));
}

TEST_F(ShimHardwareQ47Test, GivesAGradientWithTheLimitsOfAnInteger) {
    begin();
    mService->setSingleShim("Z2", -7);
    mLog.clear();
    auto const gradient = mService->getSingleShim("Z2");
    EXPECT_EQ(gradient.value, -7);
    EXPECT_EQ(gradient.upper, 2147483647);
    EXPECT_EQ(gradient.lower, std::numeric_limits<int>::min());
    EXPECT_EQ(gradient.format, "");
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "ShimHardwareQ47::getSingleShim(id='Z2')")));
}

// ---------------------------------------------------------------------------------------- parameter sets

TEST_F(ShimHardwareQ47Test, WritesAndTellsGradientsAtTheEndOfTheirSet) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 100);
    mService->setSingleShim("Z2", 3); // 3 * 0.5 cut to 1, twice: 2 units more on coil 37
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
    EXPECT_THAT(mListener.heard, IsEmpty());
    expectNoTraffic();
    mService->endOfOneParameterSet();
    expectWritten(currents({769}), currents({400})); // 52 units are 400.0 uA
    EXPECT_THAT(mListener.heard, ElementsAre("Z = 100", "Z2 = 3", "0: 0.000769 A", "17: 0.0004 A"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Debug, "ShimHardwareQ47::beginOfOneParameterSet"),
                            line(Severity::Debug, "ShimHardwareQ47::setSingleShim(id='Z', value=100)"),
                            line(Severity::Debug, "ShimHardwareQ47::setSingleShim(id='Z2', value=3)"),
                            line(Severity::Debug, "ShimHardwareQ47::getSingleShim(id='Z')"),
                            line(Severity::Debug, "ShimHardwareQ47::endOfOneParameterSet"),
                            line(Severity::Debug, "ShimHardwareQ47::setShimsOnHardware"),
                            line(Severity::Debug, "ShimHardwareQ47::sendUpdates")));
}

TEST_F(ShimHardwareQ47Test, WritesAndTellsCurrentsAtTheEndOfTheirSet) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setShimCurrent(8, 0.001);
    mService->setShimCurrent(33, -0.002);
    EXPECT_EQ(mService->getShimCurrent(33).value, -0.002);
    EXPECT_THAT(mListener.heard, IsEmpty());
    expectNoTraffic();
    mService->endOfOneParameterSet();
    auto board1 = currents({});
    board1[8] = 1000;
    auto board2 = currents({});
    board2[16] = -2000;
    expectWritten(board1, board2);
    EXPECT_THAT(mListener.heard, ElementsAre("Z3 = 130", "8: 0.001 A", "33: -0.002 A"));
}

TEST_F(ShimHardwareQ47Test, WritesBoardOneBeforeBoardTwo) {
    begin();
    mNode2->onAccess(0x3001, 1, [&] {
        EXPECT_THAT(mNode1->takeCalls(), SizeIs(18)); // written and read back
    });
    mService->beginOfOneParameterSet();
    mService->endOfOneParameterSet();
    EXPECT_THAT(mNode1->takeCalls(), IsEmpty());
    EXPECT_THAT(mNode2->takeCalls(), SizeIs(18));
}

TEST_F(ShimHardwareQ47Test, WritesTheUnchangedCurrentsInAnEmptySet) {
    mNode1->set(0x3000, 1, 769);
    begin();
    mService->beginOfOneParameterSet();
    mService->endOfOneParameterSet();
    expectWritten(currents({769}), currents({}));
    EXPECT_THAT(mListener.heard, IsEmpty());
}

TEST_F(ShimHardwareQ47Test, RefusesASecondBegin) {
    mService->beginOfOneParameterSet();
    mLog.clear();
    expectThrow<std::runtime_error>([&] { mService->beginOfOneParameterSet(); },
                                    "Already in a parameter set, cannot begin another one");
    EXPECT_THAT(
        lines(),
        ElementsAre(line(Severity::Debug, "ShimHardwareQ47::beginOfOneParameterSet"),
                    line(Severity::Error,
                         "beginOfOneParameterSet: already in a parameter set, cannot begin another one")));
    mService->endOfOneParameterSet(); // the first one is still open
}

TEST_F(ShimHardwareQ47Test, RefusesAnEndWithoutABegin) {
    expectThrow<std::runtime_error>([&] { mService->endOfOneParameterSet(); },
                                    "Not in a parameter set, cannot end one.");
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "ShimHardwareQ47::endOfOneParameterSet"),
                                     line(Severity::Error,
                                          "endOfOneParameterSet: not in a parameter set, cannot end one")));
    expectNoTraffic();
}

TEST_F(ShimHardwareQ47Test, KeepsASetOfGradientsFreeOfCurrents) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 100);
    expectThrow<std::runtime_error>(
        [&] { mService->setShimCurrent(0, 0.5); },
        "Shim gradients have been set in this parameter set.Please finish it to before "
        "setting shim currents.");
    expectThrow<std::runtime_error>(
        [&] { mService->getShimCurrent(0); },
        "Shim gradients have been set in this parameter set.Please finish it to have "
        "currents recomputed before reading currents.");
    mService->setSingleShim("Z3", 10); // more gradients are welcome
    mService->endOfOneParameterSet();
    EXPECT_THAT(mListener.heard,
                ElementsAre("Z = 100", "Z3 = 10", "0: 0.000769 A", "8: 7.7e-05 A", "17: 0.000385 A"));
    mService->setShimCurrent(0, 0.5); // and now currents
}

TEST_F(ShimHardwareQ47Test, KeepsASetOfCurrentsFreeOfGradients) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setShimCurrent(8, 0.001);
    expectThrow<std::runtime_error>(
        [&] { mService->setSingleShim("Z", 1); },
        "Shim currents have been set in this parameter set.Please finish it before "
        "setting shim gradients.");
    expectThrow<std::runtime_error>(
        [&] { mService->getSingleShim("Z"); },
        "Shim currents have been set in this parameter set.Please finish it to have "
        "gradients recomputed before reading shim gradients.");
    mService->setShimCurrent(9, 0.001);
    mService->endOfOneParameterSet();
    EXPECT_EQ(mService->getSingleShim("Z3").value, 130);
}

TEST_F(ShimHardwareQ47Test, AllowsEverythingInASetInWhichNothingWasChanged) {
    begin();
    mService->beginOfOneParameterSet();
    EXPECT_EQ(mService->getSingleShim("Z").value, 0);
    EXPECT_EQ(mService->getShimCurrent(0).value, 0.0);
    mService->setShimCurrent(0, 0.001);
}

TEST_F(ShimHardwareQ47Test, MakesItASetOfGradientsEvenWhenTheGradientIsUnknown) {
    begin();
    mService->beginOfOneParameterSet();
    EXPECT_THROW(mService->setSingleShim("nothing", 1), std::invalid_argument);
    EXPECT_THROW(mService->getShimCurrent(0), std::runtime_error);
}

TEST_F(ShimHardwareQ47Test, LeavesTheSetOpenWhenACurrentIsRefused) {
    begin();
    mService->beginOfOneParameterSet();
    EXPECT_THROW(mService->setShimCurrent(0, 1.5), std::out_of_range);
    mService->setSingleShim("Z", 1); // the set has no content yet
    mService->endOfOneParameterSet();
    EXPECT_EQ(mService->getSingleShim("Z").value, 1);
}

TEST_F(ShimHardwareQ47Test, WritesBoardTwoEvenIfBoardOneFailsAndLeavesTheSetOpen) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 100);
    mLog.clear();
    silence(*mNode1);
    auto const end = [&] { mService->endOfOneParameterSet(); };
    expectThrow<std::runtime_error>(end, "node 8 does not answer");
    EXPECT_EQ(mNode2->number(0x3000, 1), 385);
    EXPECT_THAT(mListener.heard, IsEmpty());
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Debug, "ShimHardwareQ47::endOfOneParameterSet"),
                            line(Severity::Debug, "ShimHardwareQ47::setShimsOnHardware"),
                            line(Severity::Error,
                                 "Failed to set shim currents on board 1. Will still try to set currents on "
                                 "second board. Reason node 8 does not answer"),
                            line(Severity::Error, "Failed to set shim on hardware: node 8 does not answer")));
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
    EXPECT_THROW(mService->beginOfOneParameterSet(), std::runtime_error);

    wake(*mNode1);
    end(); // ended again, now it goes
    EXPECT_EQ(mNode1->number(0x3000, 1), 769);
    EXPECT_THAT(mListener.heard, ElementsAre("Z = 100", "0: 0.000769 A", "17: 0.000385 A"));
    mService->beginOfOneParameterSet();
}

TEST_F(ShimHardwareQ47Test, PassesTheFailureOfBoardTwoOnAlsoWhenBothFail) {
    begin();
    silence(*mNode1);
    silence(*mNode2);
    mService->beginOfOneParameterSet();
    expectThrow<std::runtime_error>([&] { mService->endOfOneParameterSet(); }, "node 9 does not answer");
    wake(*mNode1);
    expectThrow<std::runtime_error>([&] { mService->endOfOneParameterSet(); }, "node 9 does not answer");
    EXPECT_TRUE(mLog.has(Severity::Error, "Failed to set shim on hardware: node 9 does not answer"));
    wake(*mNode2);
    mService->endOfOneParameterSet();
}

TEST_F(ShimHardwareQ47Test, LeavesTheSetOpenWhenItsGradientsAreOutOfRange) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 130001);
    mLog.clear();
    expectThrow<std::invalid_argument>(
        [&] { mService->endOfOneParameterSet(); },
        "ShimUnits to uA: units must be between -130000.000000 and 130000.000000 but was 130001.000000");
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Failed to set shim on hardware: ShimUnits to uA: units must be between "
                         "-130000.000000 and 130000.000000 but was 130001.000000"));
    expectNoTraffic();
    mService->setSingleShim("Z", 1);
    mService->endOfOneParameterSet();
    EXPECT_EQ(mNode1->number(0x3000, 1), 8);
}

TEST_F(ShimHardwareQ47Test, LeavesTheSetOpenWhenTheListenerThrows) {
    begin();
    mListener.onGradient = [] { throw std::runtime_error("no room"); };
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 100);
    expectThrow<std::runtime_error>([&] { mService->endOfOneParameterSet(); }, "no room");
    EXPECT_TRUE(mLog.has(Severity::Error, "Failed to set shim on hardware: no room"));
    mListener.onGradient = {};
    mService->endOfOneParameterSet();
}

TEST_F(ShimHardwareQ47Test, RestoresEverythingWhenASetIsCancelled) {
    mNode1->set(0x3000, 9, 100);
    begin();
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 100);
    mService->setSingleShim("Z3", 0);
    mLog.clear();
    mService->cancelOfOneParameterSet();
    auto board1 = currents({});
    board1[8] = 100;
    expectWritten(board1, currents({}));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "ShimHardwareQ47::cancelOfOneParameterSet"),
                                     line(Severity::Debug, "ShimHardwareQ47::setShimsOnHardware")));
    EXPECT_THAT(mListener.heard, IsEmpty());
    EXPECT_EQ(mService->getSingleShim("Z").value, 0);
    EXPECT_EQ(mService->getSingleShim("Z3").value, 13);
    EXPECT_EQ(mService->getShimCurrent(8).value, 0.0001);
    mService->beginOfOneParameterSet(); // a new one may begin
}

TEST_F(ShimHardwareQ47Test, CancelsASetWhoseEndHasFailed) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setShimCurrent(8, 0.001);
    silence(*mNode2);
    EXPECT_THROW(mService->endOfOneParameterSet(), std::runtime_error);
    EXPECT_EQ(mNode1->number(0x3000, 9), 1000);
    wake(*mNode2);
    mService->cancelOfOneParameterSet();
    EXPECT_EQ(mNode1->number(0x3000, 9), 0);
    EXPECT_EQ(mService->getSingleShim("Z3").value, 0);
    EXPECT_THAT(mListener.heard, IsEmpty());
}

TEST_F(ShimHardwareQ47Test, CancelsASetEvenIfTheBoardsFail) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 100);
    silence(*mNode1);
    mService->cancelOfOneParameterSet();
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Failed to restore shims on hardware during cancelOfOneParameterSet: "
                         "node 8 does not answer"));
    EXPECT_EQ(mService->getSingleShim("Z").value, 0);
    wake(*mNode1);
    mService->beginOfOneParameterSet();
    mService->endOfOneParameterSet();
    EXPECT_EQ(mNode1->number(0x3000, 1), 0);
}

TEST_F(ShimHardwareQ47Test, DoesNothingWhenThereIsNoSetToCancel) {
    begin();
    mService->setSingleShim("Z", 100);
    mLog.clear();
    mService->cancelOfOneParameterSet();
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "ShimHardwareQ47::cancelOfOneParameterSet")));
    expectNoTraffic();
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
}

// -------------------------------------------------------------------------------------------- for the lock

TEST_F(ShimHardwareQ47Test, AsksTheBoardsAfreshWhetherAllShimsAreZero) {
    begin();
    mService->setSingleShim("Z3", 10); // only held, not on the boards
    mLog.clear();
    EXPECT_TRUE(mService->areAllShimZero());
    EXPECT_THAT(mNode1->takeCalls(), ElementsAreArray(readingAll()));
    EXPECT_THAT(mNode2->takeCalls(), ElementsAreArray(readingAll()));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "ShimHardwareQ47::getShimsFromHardware"),
                                     line(Severity::Trace, "areAllShimZero(): 1")));
    EXPECT_EQ(mService->getSingleShim("Z3").value, 0); // and takes over what they have
}

TEST_F(ShimHardwareQ47Test, SeesASingleMicroampereOnEitherBoard) {
    mNode1->set(0x3000, 17, 1);
    EXPECT_FALSE(mService->areAllShimZero());
    EXPECT_TRUE(mLog.has(Severity::Trace, "areAllShimZero(): 0"));
    mNode1->set(0x3000, 17, 0);
    mNode2->set(0x3000, 1, -1);
    EXPECT_FALSE(mService->areAllShimZero());
}

// --------------------------------------------------------------- reading the boards while shims are set

/// Makes something happen while the last current of board 2 is read, so many times.
template <typename What>
void whileReading(FakeCanOpenNode& aNode, int aTimes, What aWhat) {
    aNode.onAccess(0x3000, 17, [aWhat, aTimes, time = 0, happening = false]() mutable {
        if (time < aTimes && !std::exchange(happening, true)) { // what happens reads, too
            aWhat(++time);
            happening = false;
        }
    });
}

TEST_F(ShimHardwareQ47Test, ReadsTheBoardsOnceMoreWhenASetHasEndedMeanwhile) {
    begin();
    whileReading(*mNode2, 1, [&](int) {
        mService->beginOfOneParameterSet();
        mService->setSingleShim("Z", 100);
        mService->endOfOneParameterSet();
        mNode1->takeCalls();
    });
    EXPECT_FALSE(mService->areAllShimZero()); // the first reading saw zeros
    EXPECT_THAT(mNode1->takeCalls(), ElementsAreArray(readingAll()));
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
    EXPECT_EQ(mService->getShimCurrent(0).value, 0.000769);
    EXPECT_EQ(mService->getShimCurrent(17).value, 0.000385);
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z3", 10);
    mService->endOfOneParameterSet(); // and no set takes the old values back to the boards
    EXPECT_EQ(mNode1->number(0x3000, 1), 769);
    EXPECT_EQ(mNode2->number(0x3000, 1), 385);
}

TEST_F(ShimHardwareQ47Test, LeavesThePictureToASetThatHasEndedDuringTheSecondReading) {
    begin();
    whileReading(*mNode2, 2, [&](int aTime) {
        mService->beginOfOneParameterSet();
        mService->setSingleShim("Z", aTime == 1 ? 100 : 0);
        mService->setSingleShim("Z3", 10);
        mService->endOfOneParameterSet();
    });
    EXPECT_FALSE(mService->areAllShimZero());
    EXPECT_EQ(mService->getSingleShim("Z").value, 0); // board 1 was read with 769 uA
    EXPECT_EQ(mService->getShimCurrent(0).value, 0.0);
    EXPECT_EQ(mService->getSingleShim("Z3").value, 10);
    EXPECT_EQ(mLog.count(Severity::Debug, "ShimHardwareQ47::getShimsFromHardware"), 1U);
}

TEST_F(ShimHardwareQ47Test, TakesNothingOverFromBoardsThatAreBeingWritten) {
    begin();
    mService->setSingleShim("Z", 100); // held, for the next end of a set
    mNode1->onAccess(0x3001, 1, [&] { EXPECT_TRUE(mService->areAllShimZero()); });
    mService->beginOfOneParameterSet();
    mService->endOfOneParameterSet();
    EXPECT_EQ(mNode1->number(0x3000, 1), 769);
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
    EXPECT_EQ(mService->getShimCurrent(17).value, 0.000385);
}

TEST_F(ShimHardwareQ47Test, TakesNothingOverThatWasReadDuringAWrite) {
    begin();
    mService->setSingleShim("Z", 100);
    std::thread reader;
    std::promise<void> goOn;
    std::promise<void> isReading;
    mNode1->onAccess(0x3001, 1, [&] { // board 1 is about to be written: a reading begins, and ends afterwards
        mNode1->onAccess(0x3001, 1, {});
        mNode1->onAccess(0x3000, 2, [&] {
            mNode1->onAccess(0x3000, 2, {});
            isReading.set_value();
            goOn.get_future().wait();
        });
        reader = std::thread([&] { mService->areAllShimZero(); });
        isReading.get_future().wait();
    });
    mService->beginOfOneParameterSet();
    mService->endOfOneParameterSet();
    goOn.set_value();
    reader.join();
    EXPECT_EQ(mNode1->number(0x3000, 1), 769);
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
}

TEST_F(ShimHardwareQ47Test, KeepsTheGradientsOfAnOpenSetWhenTheBoardsAreRead) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 100);
    EXPECT_TRUE(mService->areAllShimZero()); // the boards are asked all the same
    mNode2->set(0x3000, 17, 5);
    EXPECT_FALSE(mService->areAllShimZero());
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
    clear();
    mService->endOfOneParameterSet();
    expectWritten(currents({769}), currents({385}));
    EXPECT_THAT(mListener.heard, ElementsAre("Z = 100", "0: 0.000769 A", "17: 0.000385 A"));
}

TEST_F(ShimHardwareQ47Test, KeepsTheCurrentsOfAnOpenSetWhenTheBoardsAreRead) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setShimCurrent(8, 0.001);
    EXPECT_TRUE(mService->areAllShimZero());
    EXPECT_EQ(mService->getShimCurrent(8).value, 0.001);
    mService->endOfOneParameterSet();
    EXPECT_EQ(mNode1->number(0x3000, 9), 1000);
    EXPECT_EQ(mService->getSingleShim("Z3").value, 130);
}

TEST_F(ShimHardwareQ47Test, KeepsTheGradientsOfASetWhoseEndHasFailedWhenTheBoardsAreRead) {
    begin();
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 100);
    mNode2->fail(0x3001, 1, "node 9: transfer aborted", 1);
    EXPECT_THROW(mService->endOfOneParameterSet(), std::runtime_error);
    EXPECT_FALSE(mService->areAllShimZero());
    mService->endOfOneParameterSet();
    EXPECT_EQ(mNode2->number(0x3000, 1), 385);
    EXPECT_EQ(mService->getSingleShim("Z").value, 100);
}

TEST_F(ShimHardwareQ47Test, RefreshesThePictureInASetInWhichNothingWasChanged) {
    begin();
    mService->beginOfOneParameterSet();
    mNode1->set(0x3000, 9, 100);
    EXPECT_FALSE(mService->areAllShimZero());
    EXPECT_EQ(mService->getShimCurrent(8).value, 0.0001);
    EXPECT_EQ(mService->getSingleShim("Z3").value, 13);
}

TEST_F(ShimHardwareQ47Test, LoadsNoFactoryShimsOverAnOpenSet) {
    mNode1->set(0x3000, 9, 100);
    begin();
    factory("Z2 10\n");
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z3", 0);
    mService->setShimSystem(ShimSysType::Wmxs1a);
    EXPECT_EQ(mNode1->number(0x3000, 9), 100);
    EXPECT_FALSE(mLog.has(Severity::Debug, "ShimHardwareQ47::tryLoadFactoryShim"));
    mService->endOfOneParameterSet();
    EXPECT_EQ(mNode1->number(0x3000, 9), 0);
    EXPECT_EQ(mNode2->number(0x3000, 1), 0);
}

// ------------------------------------------------------------------------------------------------ listener

TEST_F(ShimHardwareQ47Test, RefusesANullListener) {
    expectThrow<std::invalid_argument>([&] { mService->setListener(nullptr); },
                                       "setListener(nullptr): please use removeListener instead");
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Critical,
                                 "ShimHardwareQ47::setListener: got nullptr, use removeListener instead")));
}

TEST_F(ShimHardwareQ47Test, TellsOnlyTheListenerThatIsSet) {
    Listener second;
    begin();
    mService->setListener(&second);
    mService->setSingleShim("Z3", 10);
    EXPECT_THAT(mListener.heard, IsEmpty());
    EXPECT_THAT(second.heard, SizeIs(2));
    mLog.clear();
    mService->removeListener();
    mService->setSingleShim("Z3", 20);
    EXPECT_THAT(second.heard, SizeIs(2));
    EXPECT_EQ(lines().front(), line(Severity::Debug, "-ShimHardwareQ47::removeListener"));
    mLog.clear();
    mService->removeListener(); // harmless without one
    mService->setListener(&second);
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Debug, "-ShimHardwareQ47::removeListener"),
                                     line(Severity::Debug, "ShimHardwareQ47::setListener")));
}

TEST_F(ShimHardwareQ47Test, LetsTheListenerAskForValues) {
    begin();
    std::optional<double> asked;
    mListener.onGradient = [&] { asked = mService->getShimCurrent(0).value; };
    mService->setSingleShim("Z", 100);
    EXPECT_EQ(asked, 0.000769);
}

// Both operations wait for the end of the set, but what the set is made of is asked before.
TEST_F(ShimHardwareQ47Test, RefusesTheOtherKindOfChangeWithoutWaitingForTheSet) {
    begin();
    int refused = 0;
    mListener.onGradient = [&] {
        expectThrow<std::runtime_error>(
            [&] { mService->setShimCurrent(0, 0.5); },
            "Shim gradients have been set in this parameter set.Please finish it to before "
            "setting shim currents.");
        ++refused;
    };
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z3", 10);
    mService->endOfOneParameterSet();
    EXPECT_EQ(refused, 1);

    mListener.onGradient = [&] {
        expectThrow<std::runtime_error>(
            [&] { mService->setSingleShim("Z", 1); },
            "Shim currents have been set in this parameter set.Please finish it before "
            "setting shim gradients.");
        ++refused;
    };
    mService->beginOfOneParameterSet();
    mService->setShimCurrent(8, 0.001); // 130 units of Z3 alone
    mService->endOfOneParameterSet();
    EXPECT_EQ(refused, 2);
}

// ------------------------------------------------------------------------------------------------- queries

TEST_F(ShimHardwareQ47Test, NamesTheShimSystemAndItsMatrixFile) {
    struct {
        ShimSysType type;
        std::string id;
    } const systems[] = {{ShimSysType{8}, "wmxs1a"},
                         {ShimSysType{9}, "wmxs1b"},
                         {ShimSysType{10}, "wmxs1c"},
                         {ShimSysType{11}, "wmxs2a"}};
    for (auto const& [type, id] : systems) {
        writeFile(mDirectory.path() / "matrices" / (id + ".dat"), kMatrix);
        mService->setShimSystem(type);
        mLog.clear();
        EXPECT_EQ(mService->getShimId(), id);
        EXPECT_EQ(mService->getTOSKFileName(), id + ".dat");
        EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "+getShimId()"),
                                         line(Severity::Trace, "+getTOSKFileName")));
    }
}

TEST_F(ShimHardwareQ47Test, NamesTheNormalFileWhileAnEnforcedMatrixIsInUse) {
    writeFile(mDirectory.path() / "enforced.dat", "V 5 1.0\nE\n");
    mService->setShimSystem(ShimSysType::Wmxs2a);
    EXPECT_EQ(mService->getTOSKFileName(), "wmxs2a.dat");
    EXPECT_EQ(mService->getShimId(), "wmxs2a");
    EXPECT_EQ(mService->getNamesOfActiveShimGradients(), "Z5");
}

TEST_F(ShimHardwareQ47Test, HasNoNameForAnUnknownSystemThatAnEnforcedMatrixLetPass) {
    writeFile(mDirectory.path() / "enforced.dat", kMatrix);
    mService->setShimSystem(ShimSysType{7});
    mLog.clear();
    EXPECT_EQ(mService->getShimId(), "");
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "+getShimId()"),
                                     line(Severity::Error, "Unsupported shim system type: 7")));
    expectThrow<std::invalid_argument>([&] { mService->getTOSKFileName(); },
                                       "The provided shim system is not supported");
}

TEST_F(ShimHardwareQ47Test, NamesTheGradientsOfTheMatrix) {
    begin();
    EXPECT_EQ(mService->getNamesOfActiveShimGradients(), "Z Z2 Z3 Z4");
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Debug,
                                 "ShimHardwareQ47::getNamesOfActiveShimGradients returns 'Z Z2 Z3 Z4'")));
}

TEST_F(ShimHardwareQ47Test, GivesTheRelationsOfTheMatrix) {
    begin();
    EXPECT_EQ(
        mService->getTOSKMatrixRelations(),
        ShimMatrixTOSK((mDirectory.path() / "matrices" / "wmxs1a.dat").string()).exportForwardAndInverse());
    EXPECT_EQ(mService->getTOSKMatrixRelations().substr(0, 8), "F 1 1 1\n");
}

TEST_F(ShimHardwareQ47Test, GivesTheRecordOfTheShimSystemAsItStands) {
    writeFile(mDirectory.path() / "shimsys.mds", "<record>\n  not looked at\n");
    EXPECT_EQ(mService->getShimSystemMDS(), "<record>\n  not looked at\n");
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Debug, "+getShimSystemMDS"),
                            line(Severity::Info, "Read shim system MDS :'<record>\n  not looked at\n'")));
}

TEST_F(ShimHardwareQ47Test, GivesNoRecordWhereThereIsNone) {
    EXPECT_EQ(mService->getShimSystemMDS(), "");
    EXPECT_EQ(lines().back(), line(Severity::Info, "Read shim system MDS :''"));
}

TEST_F(ShimHardwareQ47Test, LogsThatTheRecordCannotBeRead) {
    std::filesystem::create_directory(mDirectory.path() / "shimsys.mds"); // opens, but cannot be read
    EXPECT_EQ(mService->getShimSystemMDS(), "");
    auto const all = lines();
    ASSERT_THAT(all, SizeIs(2));
    EXPECT_EQ(all[1].severity, Severity::Error);
    EXPECT_THAT(all[1].text, testing::StartsWith("Failed to read shim system MDS with error "));
}

/// Every object of a shim board that its dump asks for; numbers are the node's own.
void fillForTheDump(FakeCanOpenNode& aNode) {
    static constexpr std::array<std::uint16_t, 19> kIndexes{
        0x1018, 0x1200, 0x1800, 0x1A00, 0x1F50, 0x1F51, 0x1F55, 0x1F56, 0x1F57, 0x2000,
        0x200A, 0x200B, 0x200C, 0x200D, 0x2100, 0x3001, 0x3002, 0x3003, 0x3004};
    for (std::uint16_t const index : kIndexes) {
        for (std::uint8_t subindex = 0; subindex <= 5; ++subindex) {
            aNode.set(index, subindex, aNode.nodeId());
        }
    }
    aNode.set(0x200B, 1, "Q47_SHIM");
    aNode.set(0x200D, 1, "text");
    aNode.set(0x200D, 2, "text");
}

TEST_F(ShimHardwareQ47Test, DumpsBothBoards) {
    fillForTheDump(*mNode1);
    fillForTheDump(*mNode2);
    mNode1->fail(0x3004, 1, "node 8 does not answer");
    mService->dumpCANopenValues(mDirectory.path().string());
    EXPECT_THAT(
        readFile(mDirectory.path() / "canopen_shim_8.dump"),
        testing::EndsWith(
            "0x3004\t0x00\t8\n0x3004\t0x01\treading the value failed with node 8 does not answer\n\n"));
    EXPECT_THAT(readFile(mDirectory.path() / "canopen_shim_9.dump"),
                testing::EndsWith("0x3004\t0x00\t9\n0x3004\t0x01\t9\n\n"));
    EXPECT_THAT(mNode1->takeCalls(), SizeIs(75));
    EXPECT_THAT(mNode2->takeCalls(), SizeIs(75));
}

TEST_F(ShimHardwareQ47Test, DumpsBoardTwoEvenIfTheFileOfBoardOneCannotBeWritten) {
    fillForTheDump(*mNode2);
    std::filesystem::create_directory(mDirectory.path() / "canopen_shim_8.dump");
    mService->dumpCANopenValues(mDirectory.path().string());
    EXPECT_THAT(mLog.linesUpTo(Severity::Error), SizeIs(1));
    EXPECT_THAT(mNode1->takeCalls(), IsEmpty());
    EXPECT_THAT(mNode2->takeCalls(), SizeIs(75));
}

// ------------------------------------------------------------------------------------------------- threads

TEST_F(ShimHardwareQ47Test, ServesManyThreadsAtATime) {
    begin();
    std::atomic<bool> stop{false};
    auto const until = [&](auto const& aAction) {
        return std::thread([&stop, aAction] {
            while (!stop) {
                aAction();
            }
        });
    };
    std::vector<std::thread> threads;
    threads.push_back(until([&] { mService->areAllShimZero(); }));
    threads.push_back(until([&] {
        try {
            mService->getShimCurrent(17);
        } catch (std::runtime_error const&) { // a set of gradients is open
        }
    }));
    threads.push_back(until([&] { mService->getSingleShim("Z"); }));
    threads.push_back(until([&] { mService->getShimId(); }));
    threads.push_back(until([&] { mCallers->jobs().front()->call(); }));
    for (int round = 1; round <= 20; ++round) {
        mService->setSingleShim("Z", round);
        mService->beginOfOneParameterSet();
        mService->setSingleShim("Z3", 10 * round);
        mService->endOfOneParameterSet();
        mService->setShimSystem(ShimSysType::Wmxs1a);
    }
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
    mService->beginOfOneParameterSet();
    mService->setSingleShim("Z", 100);
    mService->setSingleShim("Z2", 0);
    mService->endOfOneParameterSet();
    EXPECT_EQ(mNode1->number(0x3000, 1), 769);
    EXPECT_EQ(mNode2->number(0x3000, 1), 385);
}

} // namespace
