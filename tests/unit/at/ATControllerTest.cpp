// SPDX-License-Identifier: Apache-2.0
// The controller of a system without the option: what it finds out, refuses and keeps.
#include "at/ATController.h"
#include "support/FakeDataLogger.h"
#include "support/FakePeriodicCallers.h"
#include "support/FakeTempBoard.h"
#include "support/LogCapture.h"
#include "temperature/TemperatureListenerSync.h"

#include <fieldwarden/LockForTemperatureIfc.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::FakeTempBoard;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::makeTempBoard;
using libfieldwarden::test::Severity;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char const* kRefused = "This system doesn't feature the adjustable temperature option.";

/// A record with one flow controller of that identifier. Identifier -1 is that of a system without.
std::string record(std::string const& aIdentifier) {
    return "<record><group name=\"FlowController\"><value>1</value><value>" + aIdentifier +
           "</value></group></record>";
}

class ATControllerTest : public ::testing::Test {
protected:
    std::unique_ptr<ATController> make(std::string const& aVtuMds) {
        return std::make_unique<ATController>(mBoard, mListener, mCallers, aVtuMds, mDataLogger);
    }

    /// One of a system without the option; what its making left is forgotten.
    std::unique_ptr<ATController> makeQuietly() {
        auto controller = make("");
        mBoard->takeCalls();
        mLog.clear();
        return controller;
    }

    std::vector<CapturedLine> lines() const { return mLog.linesOf("ATController"); }

    static void expectRefusal(std::function<void()> const& aRun) {
        try {
            aRun();
            ADD_FAILURE() << "not refused";
        } catch (std::runtime_error const& error) {
            EXPECT_STREQ(error.what(), kRefused);
        }
    }

    LogCapture mLog;
    std::shared_ptr<FakeTempBoard> mBoard = makeTempBoard();
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    std::shared_ptr<TemperatureListenerSync> mListener =
        std::make_shared<TemperatureListenerSync>(0.001, 0.1);
};

TEST_F(ATControllerTest, TellsTheBoardThatThereIsNoOption) {
    auto const controller = make(record("-1"));
    EXPECT_FALSE(controller->hasAT());
    EXPECT_THAT(mBoard->takeCalls(), ElementsAre("setVTMode(0)", "setupSavedOnEEPROM()"));
    EXPECT_THAT(
        lines(),
        ElementsAre(
            CapturedLine{Severity::Info, "Got VTMode = 0 from VTU MDS with FlowController group.", {}, {}},
            CapturedLine{Severity::Error, "Unsupported VT mode, no associated flow box", {}, {}},
            CapturedLine{Severity::Debug, "Configuring the board, with mVTMode = 0", {}, {}},
            CapturedLine{Severity::Info, "System doesn't have AT", {}, {}}));
    EXPECT_EQ(lines().front().category, "Temperature");
    EXPECT_THAT(mCallers->jobs(), IsEmpty());
    EXPECT_THAT(mDataLogger->infos(), IsEmpty());
}

TEST_F(ATControllerTest, SavesABoardThatIsSetUpAnew) {
    mBoard->set("setupSavedOnEEPROM", false);
    make(record("-1"));
    EXPECT_THAT(mBoard->takeCalls(),
                ElementsAre("setVTMode(0)", "setupSavedOnEEPROM()", "saveSetupToEEPROM()"));
    EXPECT_TRUE(
        mLog.has(Severity::Warning,
                 "Board's current configuration is different from the one saved on the board: updating it"));
}

TEST_F(ATControllerTest, TakesARecordThatCannotBeReadForNoOption) {
    for (std::string const& text : {std::string(), std::string("no record"), std::string("<record>")}) {
        SCOPED_TRACE(text);
        mLog.clear();
        EXPECT_FALSE(make(text)->hasAT());
        EXPECT_EQ(lines().front().severity, Severity::Error);
        EXPECT_THAT(lines().front().text,
                    ::testing::StartsWith("Failed to parse VTU MDS, will consider system doesn't have the AT "
                                          "option. Error was "));
    }
}

TEST_F(ATControllerTest, TakesTwoFlowControllersForNoOption) {
    EXPECT_FALSE(
        make("<record><group name=\"FlowController\"/><group name=\"FlowController\"/></record>")->hasAT());
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "The VTU MDS contains more than one (actually 2) FlowCOntroller group. This is not "
                         "allowed. Will consider the system has no AT option"));
}

TEST_F(ATControllerTest, TakesAFlowControllerThatMakesNoSenseForNoOption) {
    for (std::string const& text :
         {record("box"), record("1.5"), record("99999999999"),
          std::string("<record><group name=\"FlowController\"><value>1</value></group></record>")}) {
        SCOPED_TRACE(text);
        mLog.clear();
        EXPECT_FALSE(make(text)->hasAT());
        EXPECT_TRUE(mLog.has(Severity::Info,
                             "The VTU MDS advertises an invalid flow controller identifier (0): will "
                             "consider the system has no AT"));
    }
}

TEST_F(ATControllerTest, TakesAnUnknownFlowControllerForNoOption) {
    EXPECT_FALSE(make(record("2"))->hasAT()); // mode 3
    EXPECT_TRUE(mLog.has(Severity::Error, "Unsupported VT mode, no associated flow box"));
    EXPECT_THAT(mBoard->takeCalls(), ::testing::Contains("setVTMode(3)"));
}

TEST_F(ATControllerTest, TakesANumberThatIsNoModeOfTheBoardForNoOption) {
    for (std::string const identifier : {"255", "256", "-2", "2147483647", "-2147483648"}) {
        SCOPED_TRACE(identifier);
        EXPECT_FALSE(make(record(identifier))->hasAT());
        EXPECT_TRUE(
            mLog.has(Severity::Info, "The VTU MDS advertises an invalid flow controller identifier (" +
                                         identifier + "): will consider the system has no AT"));
        EXPECT_THAT(mBoard->takeCalls(), ElementsAre("setVTMode(0)", "setupSavedOnEEPROM()"));
    }
}

TEST_F(ATControllerTest, PassesOnThatTheBoardCannotBeSetUp) {
    for (char const* const call : {"setVTMode", "setupSavedOnEEPROM", "saveSetupToEEPROM"}) {
        SCOPED_TRACE(call);
        mBoard->set("setupSavedOnEEPROM", false);
        mBoard->fail(call, "no answer");
        EXPECT_THROW(make(""), std::runtime_error);
        mBoard->mend(call);
    }
}

TEST_F(ATControllerTest, RefusesWhatOnlyTheOptionCouldDo) {
    auto const controller = makeQuietly();
    expectRefusal([&] { controller->setEnabled(true); });
    expectRefusal([&] { controller->setEnabled(false); });
    expectRefusal([&] { controller->setTargetTemperature(300.0); });
    expectRefusal([&] { controller->setFlowOverrideByUser(200.0); });
    expectRefusal([&] { controller->checkHasAT("a test"); });
    std::string const words = "Tried an AT related operation on a system without AT. Context is ";
    EXPECT_THAT(
        lines(),
        ElementsAre(
            CapturedLine{Severity::Info, "setEnabled(enabled = 1)", {}, {}},
            CapturedLine{Severity::Error, words + "setEnabled", {}, {}},
            CapturedLine{Severity::Info, "setEnabled(enabled = 0)", {}, {}},
            CapturedLine{Severity::Error, words + "setEnabled", {}, {}},
            CapturedLine{Severity::Info, "setTargetTemperature(temperatureInKelvin = 300.000000", {}, {}},
            CapturedLine{Severity::Error, words + "setTargetTemperature", {}, {}},
            CapturedLine{Severity::Error, words + "setFlowOverrideByUser", {}, {}},
            CapturedLine{Severity::Error, words + "a test", {}, {}}));
    EXPECT_FALSE(controller->enabled());
    EXPECT_FALSE(controller->isStable());
    EXPECT_EQ(controller->targetTemperature(), 0.0);
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(ATControllerTest, NeverAsksALockWithoutTheOption) {
    struct Lock : LockForTemperatureIfc {
        bool shimCoilTargetTemperatureRegulationArmed() const override {
            ADD_FAILURE();
            return true;
        }
    };
    auto const controller = makeQuietly();
    controller->setLock(std::make_shared<Lock>());
    expectRefusal([&] { controller->setEnabled(true); });
}

TEST_F(ATControllerTest, LetsTheLockGo) {
    struct Lock : LockForTemperatureIfc {
        bool shimCoilTargetTemperatureRegulationArmed() const override { return false; }
    };
    auto const controller = makeQuietly();
    auto const lock = std::make_shared<Lock>();
    controller->setLock(lock);
    EXPECT_EQ(lock.use_count(), 2);
    controller->setLock(nullptr);
    EXPECT_EQ(lock.use_count(), 1);
}

TEST_F(ATControllerTest, HasARangeWithoutRoom) {
    auto const controller = makeQuietly();
    EXPECT_EQ(controller->temperatureRange(), (std::pair<double, double>(273.15, 0.0)));
    EXPECT_EQ(controller->flowsAsXmlForPanorin(), "<flows><flow valueLiterPerHour=\"0\" /></flows>");
}

TEST_F(ATControllerTest, KeepsLimitsAsLongAsNoTargetMustGoAlong) {
    auto const controller = makeQuietly();
    controller->setProbeTemperatureMax(320.0);
    EXPECT_TRUE(mLog.has(Severity::Info, "setProbeTemperatureMax = 320.000000K"));
    mBoard->set("probeGasRegulatedTemperatureRange", FakeTempBoard::Range{0.0, 0.0});
    controller->setProbeTemperatureMin(0.0);
    EXPECT_TRUE(mLog.has(Severity::Info, "setProbeTemperatureMin = 0.000000K"));
    expectRefusal([&] { controller->setProbeTemperatureMin(280.0); });
    EXPECT_TRUE(mLog.has(Severity::Info, "setTargetTemperature(temperatureInKelvin = 280.000000"));
    EXPECT_EQ(controller->temperatureRange().first, 280.0) << "the limit itself is kept";
    EXPECT_THROW(controller->setProbeTemperatureMin(-1.0), std::invalid_argument);
    EXPECT_THROW(controller->setProbeTemperatureMax(-1.0), std::invalid_argument);
}

TEST_F(ATControllerTest, KeepsTheModeOfTheSampleExchange) {
    auto const controller = makeQuietly();
    EXPECT_FALSE(controller->isInSampleTransferMode());
    controller->completeTransfer(true);
    EXPECT_FALSE(controller->isInSampleTransferMode());
    controller->prepareTransfer();
    EXPECT_TRUE(controller->isInSampleTransferMode());
    controller->prepareTransfer();
    EXPECT_TRUE(controller->isInSampleTransferMode());
    controller->completeTransfer(false);
    EXPECT_FALSE(controller->isInSampleTransferMode());
    EXPECT_THAT(
        lines(),
        ElementsAre(
            CapturedLine{Severity::Info, "+completeTransfer(sample_in_magnet = 1)", {}, {}},
            CapturedLine{
                Severity::Warning, "completeTransfer called but not in sample exchange mode", {}, {}},
            CapturedLine{Severity::Info, "+prepareTransfer", {}, {}},
            CapturedLine{Severity::Info, "+prepareTransfer", {}, {}},
            CapturedLine{
                Severity::Warning, "prepareTransfer called but already in sample exchange mode", {}, {}},
            CapturedLine{Severity::Info, "+completeTransfer(sample_in_magnet = 0)", {}, {}}));
    EXPECT_THAT(mBoard->takeCalls(), IsEmpty());
}

TEST_F(ATControllerTest, AllowsAutomationWithoutTheOption) {
    EXPECT_NO_THROW(makeQuietly()->checkAutomationAllowed());
}

TEST_F(ATControllerTest, SaysThatItGoes) {
    makeQuietly();
    EXPECT_THAT(lines(), ElementsAre(CapturedLine{Severity::Info, "~ATController: destructor", {}, {}}));
}

} // namespace
