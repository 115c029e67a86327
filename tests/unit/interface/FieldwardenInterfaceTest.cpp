// SPDX-License-Identifier: Apache-2.0
// Opening and closing the library, what it builds in which order, and what its getters answer.
#include "interface/FieldwardenInterfaceQ47.h"
#include "simulator/instrument/Instrument.h"
#include "simulator/instrument/SimulatedBackend.h"
#include "support/LogCapture.h"
#include "support/ProcessResources.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/LockInterface.h>
#include <fieldwarden/SampleRotationInterface.h>
#include <fieldwarden/ShimInterface.h>
#include <fieldwarden/TemperatureInterface.h>
#include <velmor/kepla/canopen/CanChannel.h>
#include <velmor/kepla/log/Configuration.h>
#include <velmor/platform/Backend.h>

#include <atomic>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::Instrument;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::ProcessResources;
using libfieldwarden::test::readFile;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testing::ThrowsMessage;
using velmor::kepla::log::Configuration;
using velmor::platform::Backend;

std::filesystem::path const kLockMock = "/tmp/lockmock";

/// The simulated instrument's doors, each with a hook that runs before it opens.
class HookedBackend : public Backend {
public:
    explicit HookedBackend(std::shared_ptr<Instrument> aInstrument)
        : mSimulated(libfieldwarden::sim::makeSimulatedBackend(std::move(aInstrument))) {}

    std::shared_ptr<velmor::platform::Clock> clock() override { return mSimulated->clock(); }
    std::unique_ptr<velmor::kepla::canopen::CanChannel> openCanChannel(std::string const& aName) override {
        run(onCanChannel);
        return mSimulated->openCanChannel(aName);
    }
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> dataLogger() override {
        run(onDataLogger);
        return mSimulated->dataLogger();
    }
    std::shared_ptr<velmor::kepla::deviceid::DeviceIdClientIfc> deviceIdClient() override {
        return mSimulated->deviceIdClient();
    }
    std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> deviceIdContributor(
        std::string const& aService) override {
        return mSimulated->deviceIdContributor(aService);
    }
    std::shared_ptr<velmor::q47::mainboarddaemon::MainboardInterface> mainboard() override {
        run(onMainboard);
        return mSimulated->mainboard();
    }
    std::shared_ptr<velmor::q47::seqlock::SeqlockDriver> seqlockDriver() override {
        return mSimulated->seqlockDriver();
    }
    std::filesystem::path instrumentPath(std::filesystem::path const& aPath) override {
        return mSimulated->instrumentPath(aPath);
    }
    std::optional<std::string> deviceLogBusAddress(bool aSystemBus) override {
        run(onDeviceLog);
        return mSimulated->deviceLogBusAddress(aSystemBus);
    }

    std::function<void()> onCanChannel;
    std::function<void()> onDataLogger;
    std::function<void()> onMainboard;
    std::function<void()> onDeviceLog;

private:
    static void run(std::function<void()> const& aHook) {
        if (aHook) {
            aHook();
        }
    }

    std::shared_ptr<Backend> mSimulated;
};

class FieldwardenInterfaceTest : public testing::Test {
protected:
    FieldwardenInterfaceTest() {
        if (std::filesystem::exists(kLockMock)) {
            throw std::runtime_error("these tests make and remove /tmp/lockmock; remove it first");
        }
        std::filesystem::create_directory(kLockMock);
        Backend::use(mBackend);
    }
    ~FieldwardenInterfaceTest() override {
        for (int left = 0; left < 10 && isOpen(); ++left) {
            FieldwardenInterface::closeInterface();
        }
        Backend::use(nullptr);
        std::filesystem::remove_all(kLockMock);
    }

    static bool isOpen() {
        try {
            FieldwardenInterface::getInstance();
            return true;
        } catch (std::runtime_error const&) {
            return false;
        }
    }
    void open(std::string const& aCanIfc = "can0",
              std::string const& aConfigRoot = "/etc/libfieldwarden",
              std::optional<std::filesystem::path> const& aDataRoot = std::nullopt) {
        FieldwardenInterface::openInterface(aCanIfc, aConfigRoot, "/factory", "/shim-firmware", "/ts",
                                            "/temp-firmware",
                                            (aDataRoot ? *aDataRoot : mInstrument->folders().data).string());
    }
    std::filesystem::path record(char const* aName) const { return mInstrument->folders().deviceIds / aName; }

    TemporaryDirectory mDirectory;
    std::shared_ptr<Instrument> mInstrument =
        std::make_shared<Instrument>(Instrument::Options{.folder = mDirectory.path()});
    std::shared_ptr<HookedBackend> mBackend = std::make_shared<HookedBackend>(mInstrument);
    std::optional<LogCapture> mLog{std::in_place};
};

// Opening and closing

TEST_F(FieldwardenInterfaceTest, BuildsOneInstanceForTwoOpensAndClosesItWithTheSecondClose) {
    open();
    auto* const first = FieldwardenInterface::getInstance();
    open();
    EXPECT_EQ(FieldwardenInterface::getInstance(), first);
    EXPECT_TRUE(mLog->has(Severity::Debug, "openInterface: already open, check parameters. Open count = 2"));
    FieldwardenInterface::closeInterface();
    EXPECT_TRUE(mLog->has(Severity::Debug, "closeInterface: open count = 2 > 1, not closing"));
    EXPECT_EQ(FieldwardenInterface::getInstance(), first);
    EXPECT_FALSE(mLog->has(Severity::Info, "closeInterface: actually closed"));
    FieldwardenInterface::closeInterface();
    EXPECT_EQ(mLog->lines().back(),
              (CapturedLine{Severity::Info, "closeInterface: actually closed", {}, {}}));
    EXPECT_EQ(mLog->count(Severity::Debug, "FieldwardenInterface::closeInterface"), 2U);
    EXPECT_EQ(mLog->count(Severity::Debug, "FieldwardenInterfaceQ47 destructor"), 1U);
    EXPECT_FALSE(isOpen());
}

TEST_F(FieldwardenInterfaceTest, LogsTheOpeningWithoutAClosingBracket) {
    open("can3", "/config");
    EXPECT_EQ(mLog->lines().front(),
              (CapturedLine{Severity::Debug,
                            "FieldwardenInterface::openInterface(canIfc='can3', configRoot='/config', "
                            "factoryRoot='/factory', tsConfigRoot='/ts'",
                            {},
                            {}}));
}

TEST_F(FieldwardenInterfaceTest, TakesASecondOpenThatDiffersInTheOtherRootsOnly) {
    open();
    writeFile(record("magnet.mds"), "of the first root");
    open("can0", "/etc/libfieldwarden", "/another/data");
    EXPECT_EQ(FieldwardenInterface::getInstance()->getMdsFromTheMagnet(), "of the first root");
    // One of the heating and the gas, which are made safe first, and two of the mock lock: all of the first
    // opening.
    EXPECT_THAT(mLog->linesUpTo(Severity::Error), testing::SizeIs(3));
}

TEST_F(FieldwardenInterfaceTest, RefusesASecondOpenOnAnotherCanInterfaceButCountsIt) {
    open("can0");
    EXPECT_THAT([&] { open("can1"); },
                ThrowsMessage<std::invalid_argument>(
                    "Cannot re-open the FieldwardenInterface with different parameters"));
    EXPECT_TRUE(
        mLog->has(Severity::Critical,
                  "openInterface: currently open with CAN interface can0, second open requested can1"));
    FieldwardenInterface::closeInterface();
    EXPECT_TRUE(isOpen());
    FieldwardenInterface::closeInterface();
    EXPECT_FALSE(isOpen());
}

TEST_F(FieldwardenInterfaceTest, RefusesASecondOpenOnAnotherConfigurationRootButCountsIt) {
    open("can0", "/a");
    EXPECT_THAT([&] { open("can0", "/b"); },
                ThrowsMessage<std::invalid_argument>(
                    "Cannot re-open the FieldwardenInterface with different parameters"));
    EXPECT_TRUE(mLog->has(Severity::Critical,
                          "openInterface: currently open with config root /a, second open requested /b"));
    FieldwardenInterface::closeInterface();
    EXPECT_TRUE(isOpen());
}

TEST_F(FieldwardenInterfaceTest, NamesTheCanInterfaceOnlyWhenBothDiffer) {
    open("can0", "/a");
    EXPECT_THROW(open("can1", "/b"), std::invalid_argument);
    std::vector<std::string> refusals;
    for (CapturedLine const& line : mLog->lines()) {
        if (line.text.find("currently open with") != std::string::npos) {
            refusals.push_back(line.text);
        }
    }
    EXPECT_THAT(refusals, ElementsAre(HasSubstr("CAN interface can0")));
}

TEST_F(FieldwardenInterfaceTest, ComparesTheNamesByAllTheirBytes) {
    open("can0");
    EXPECT_THROW(open(std::string("can0\0", 5)), std::invalid_argument);
    EXPECT_THROW(open("can"), std::invalid_argument);
}

TEST_F(FieldwardenInterfaceTest, RefusesToCloseWhatIsNotOpen) {
    EXPECT_THAT(
        [] { FieldwardenInterface::closeInterface(); },
        ThrowsMessage<std::runtime_error>("FieldwardenInterface::closeInterface unexpected internal state"));
    EXPECT_THAT(
        mLog->lines(),
        ElementsAre(
            CapturedLine{Severity::Debug, "FieldwardenInterface::closeInterface", {}, {}},
            CapturedLine{
                Severity::Critical, "FieldwardenInterface mQ47 ptr is nullptr but should not", {}, {}}));
    open();
    EXPECT_TRUE(isOpen());
}

TEST_F(FieldwardenInterfaceTest, RefusesToGiveAnInstanceThatIsNotThere) {
    EXPECT_THAT([] { FieldwardenInterface::getInstance(); },
                ThrowsMessage<std::runtime_error>("FieldwardenInterface is not open"));
    EXPECT_THAT(mLog->lines(),
                ElementsAre(CapturedLine{Severity::Critical, "FieldwardenInterface is not open", {}, {}}));
}

TEST_F(FieldwardenInterfaceTest, BuildsAFreshInstanceAfterAFullClose) {
    open("can0", "/a");
    FieldwardenInterface::closeInterface();
    auto const otherData = mDirectory.path() / "other";
    writeFile(otherData / "deviceids/magnet.mds", "of the other root");
    open("can1", "/b", otherData);
    EXPECT_EQ(FieldwardenInterface::getInstance()->getMdsFromTheMagnet(), "of the other root");
}

TEST_F(FieldwardenInterfaceTest, TakesTheInstrumentsPlacesWithoutArguments) {
    FieldwardenInterface::openInterface();
    EXPECT_TRUE(
        mLog->has(Severity::Debug,
                  "FieldwardenInterface::openInterface(canIfc='can0', configRoot='/etc/libfieldwarden', "
                  "factoryRoot='/data/factory', tsConfigRoot='/opt/panorin/conf/instr/spect'"));
    EXPECT_TRUE(
        mLog->has(Severity::Debug,
                  "FieldwardenInterfaceQ47 constructor, canIfc='can0', configRoot='/etc/libfieldwarden', "
                  "factoryRoot='/data/factory', tsConfigRoot='/opt/panorin/conf/instr/spect', "
                  "dataRoot='/data'"));
    FieldwardenInterface::openInterface();
    FieldwardenInterface::closeInterface();
    FieldwardenInterface::closeInterface();
    EXPECT_TRUE(mLog->has(Severity::Info, "closeInterface: actually closed"));
}

// Logging

TEST_F(FieldwardenInterfaceTest, StartsTheLoggingIntoItsTwoFilesWhenNobodyDid) {
    mLog.reset();
    Configuration::redirectFiles(mDirectory.path());
    open();
    FieldwardenInterface::closeInterface();
    EXPECT_TRUE(Configuration::isInitialized()); // it outlives the close
    Configuration::shutdown();
    Configuration::redirectFiles({});
    auto const volatileLog = readFile(mDirectory.path() / "var/log/libFieldwarden.log");
    auto const persistentLog = readFile(mDirectory.path() / "data/logs/libFieldwarden.nvlog");
    EXPECT_THAT(volatileLog, HasSubstr("[debug]"));
    EXPECT_THAT(volatileLog, HasSubstr("closeInterface: actually closed"));
    EXPECT_THAT(volatileLog, Not(HasSubstr("[trace]")));
    EXPECT_THAT(persistentLog, HasSubstr("[critical]"));
    EXPECT_THAT(persistentLog, HasSubstr("will create a MOCK version of the lock"));
    EXPECT_THAT(persistentLog, Not(HasSubstr("[info]")));
}

TEST_F(FieldwardenInterfaceTest, KeepsTheSinksOfAHost) {
    Configuration::redirectFiles(mDirectory.path());
    open();
    EXPECT_FALSE(std::filesystem::exists(mDirectory.path() / "var/log/libFieldwarden.log"));
    EXPECT_FALSE(std::filesystem::exists(mDirectory.path() / "data/logs/libFieldwarden.nvlog"));
    Configuration::redirectFiles({});
}

TEST_F(FieldwardenInterfaceTest, OpensAlthoughItsLogFilesCannotBeWritten) {
    mLog.reset();
    writeFile(mDirectory.path() / "plain", "a file where the root of the logs should be");
    Configuration::redirectFiles(mDirectory.path() / "plain");
    testing::internal::CaptureStderr();
    open();
    Configuration::shutdown();
    Configuration::redirectFiles({});
    auto const complaints = testing::internal::GetCapturedStderr();
    EXPECT_THAT(complaints, HasSubstr("libFieldwarden.log' cannot be written"));
    EXPECT_THAT(complaints, HasSubstr("libFieldwarden.nvlog' cannot be written"));
    EXPECT_TRUE(isOpen());
}

// Failures on the way up

TEST_F(FieldwardenInterfaceTest, FailsOnAMissingCanInterfaceBeforeTheDataLoggerAndCanBeOpenedAfterwards) {
    mBackend->onCanChannel = [] {
        throw std::runtime_error("Cannot open CAN interface 'can0': No such device");
    };
    EXPECT_THAT([&] { open(); },
                ThrowsMessage<std::runtime_error>("Cannot open CAN interface 'can0': No such device"));
    EXPECT_FALSE(mLog->has(Severity::Info, "Initializing data logger..."));
    EXPECT_FALSE(isOpen());
    mBackend->onCanChannel = nullptr;
    open();
    EXPECT_TRUE(isOpen());
    FieldwardenInterface::closeInterface();
    EXPECT_FALSE(isOpen());
}

TEST_F(FieldwardenInterfaceTest, PassesOnWhatEveryDoorThrowsAndCanBeOpenedAfterwards) {
    for (auto const door :
         {&HookedBackend::onDataLogger, &HookedBackend::onMainboard, &HookedBackend::onDeviceLog}) {
        (*mBackend).*door = [] { throw std::out_of_range("this door"); };
        EXPECT_THAT([&] { open(); }, ThrowsMessage<std::out_of_range>("this door"));
        EXPECT_FALSE(isOpen());
        (*mBackend).*door = nullptr;
        open();
        FieldwardenInterface::closeInterface();
    }
}

// The composition

TEST_F(FieldwardenInterfaceTest, BuildsItsPartsInTheirOrder) {
    open("can0", "/etc/libfieldwarden");
    auto lines = mLog->linesOf("FieldwardenInterfaceQ47");
    ASSERT_EQ(lines.size(), 10U);
    EXPECT_EQ(lines[0], (CapturedLine{Severity::Debug,
                                      "FieldwardenInterfaceQ47 constructor, canIfc='can0', "
                                      "configRoot='/etc/libfieldwarden', factoryRoot='/factory', "
                                      "tsConfigRoot='/ts', dataRoot='" +
                                          mInstrument->folders().data.string() + "'",
                                      {},
                                      {}}));
    EXPECT_EQ(lines[1].severity, Severity::Info);
    // "May 24 2023" and "09:15:22": the forms of the compiler's date and time
    EXPECT_THAT(lines[1].text,
                testing::MatchesRegex("FieldwardenInterfaceQ47: compiled on "
                                      "[A-Z][a-z][a-z] [ 0-9][0-9] [0-9]+ at [0-9]+:[0-9]+:[0-9]+"));
    lines.erase(lines.begin(), lines.begin() + 2);
    EXPECT_THAT(
        lines,
        ElementsAre(CapturedLine{Severity::Info, "Initializing data logger...", {}, {}},
                    CapturedLine{Severity::Info, "initializing shim...", {}, {}},
                    CapturedLine{Severity::Info, "initializing MainBoard daemon client...", {}, {}},
                    CapturedLine{Severity::Info, "initializing temperature...", {}, {}},
                    CapturedLine{Severity::Info, "initializing lock...", {}, {}},
                    CapturedLine{Severity::Critical,
                                 "Directory '/tmp/lockmock' exists and thus will create a MOCK version of "
                                 "the lock",
                                 {},
                                 {}},
                    CapturedLine{Severity::Info, "initializing sample rotation...", {}, {}},
                    CapturedLine{Severity::Info, "setting status LED to blue...", {}, {}}));
}

TEST_F(FieldwardenInterfaceTest, SetsTheStatusLedToBlueBeforeTheDeviceLogIsPublished) {
    int ledAtTheEndpoint = 0;
    mBackend->onDeviceLog = [&] { ledAtTheEndpoint = mInstrument->mainboard()->statusLed(); };
    EXPECT_EQ(mInstrument->mainboard()->statusLed(), 0);
    open();
    EXPECT_EQ(ledAtTheEndpoint, 4);
    FieldwardenInterface::closeInterface();
    EXPECT_EQ(mInstrument->mainboard()->statusLed(), 4); // left as it is on the way down
}

TEST_F(FieldwardenInterfaceTest, BringsTheShimBoardsUpBeforeItAsksForTheMainBoard) {
    bool shimIsUp = false;
    mBackend->onMainboard = [&] { shimIsUp = mLog->has(Severity::Trace, "ShimHardwareQ47 constructor"); };
    open();
    EXPECT_TRUE(shimIsUp);
    ASSERT_NE(FieldwardenInterface::getInstance()->getShim(), nullptr);
    EXPECT_EQ(FieldwardenInterface::getInstance()->getShim()->getShimCurrentsCount(), 34U);
}

TEST_F(FieldwardenInterfaceTest, FailsOnAShimBoardThatIsSilentAndCanBeOpenedWhenItAnswersAgain) {
    // A board has 30 s to come up: 0.3 s on an instrument that is a hundred times as fast.
    TemporaryDirectory const folder;
    auto const fast =
        std::make_shared<Instrument>(Instrument::Options{.folder = folder.path(), .timeScale = 100.0});
    fast->shimBoardFaults(1).setSilent(true);
    Backend::use(std::make_shared<HookedBackend>(fast));
    EXPECT_THAT([&] { open(); }, ThrowsMessage<std::runtime_error>(HasSubstr("did not come up within 30 s")));
    EXPECT_FALSE(mLog->has(Severity::Info, "initializing MainBoard daemon client..."));
    EXPECT_FALSE(isOpen());
    Backend::use(mBackend);
    open();
    EXPECT_TRUE(isOpen());
}

TEST_F(FieldwardenInterfaceTest, FailsOnATemperatureBoardThatIsSilentAndCanBeOpenedWhenItAnswersAgain) {
    // 30 s to come up: 3 s on an instrument that is ten times as fast, which leaves the shim boards 100 ms
    // for each of their answers.
    TemporaryDirectory const folder;
    auto const fast =
        std::make_shared<Instrument>(Instrument::Options{.folder = folder.path(), .timeScale = 10.0});
    fast->temperatureBoardFaults().setSilent(true);
    Backend::use(std::make_shared<HookedBackend>(fast));
    EXPECT_THAT([&] { open(); }, ThrowsMessage<std::runtime_error>(HasSubstr("did not come up within 30 s")));
    EXPECT_TRUE(mLog->has(Severity::Info, "initializing temperature..."));
    EXPECT_FALSE(mLog->has(Severity::Info, "initializing lock..."));
    EXPECT_FALSE(isOpen());
    Backend::use(mBackend);
    open();
    EXPECT_TRUE(isOpen());
}

TEST_F(FieldwardenInterfaceTest, GivesTheTemperatureServiceOfTheBoard) {
    open();
    TemperatureInterface* const temperature = FieldwardenInterface::getInstance()->getTemperature();
    ASSERT_NE(temperature, nullptr);
    // The board has stayed switched on: all is on its target of 25 degrees Celsius.
    EXPECT_NEAR(temperature->getMagnetTemperature().value, 298.15, 0.05);
    EXPECT_NEAR(temperature->getShimCoilTemperature().value, 25.0, 0.05);
    EXPECT_FALSE(temperature->isMagnetReady());
    EXPECT_TRUE(mLog->has(Severity::Info,
                          "configureIsoBoxPeltier: isobox tempering peltier type 1 specified in MDS"));
}

TEST_F(FieldwardenInterfaceTest, OpensWithoutTheOptionWhereTheRecordOfTheUnitIsMissingOrDamaged) {
    for (char const* const text : {"", "<record><group name="}) {
        std::filesystem::remove(record("vtu.mds"));
        if (*text != 0) {
            writeFile(record("vtu.mds"), text);
        }
        mLog->clear();
        open();
        EXPECT_FALSE(FieldwardenInterface::getInstance()->getTemperature()->getProbeDeviceActiveChannel());
        auto const errors = mLog->linesUpTo(Severity::Error);
        EXPECT_THAT(errors,
                    testing::Contains(testing::Field(
                        &CapturedLine::text, StartsWith("Failed to parse VTU MDS, will consider system "
                                                        "doesn't have the AT option. Error was "))));
        FieldwardenInterface::closeInterface();
    }
}

TEST_F(FieldwardenInterfaceTest, OpensWithoutAMainRecord) {
    std::filesystem::remove(record("main.mds"));
    open();
    EXPECT_TRUE(isOpen());
    EXPECT_THAT(mLog->linesUpTo(Severity::Error),
                testing::Contains(testing::Field(
                    &CapturedLine::text, StartsWith("Failed to configure the iso box peltier, error is "))));
}

// A service that has no lock does not ask for one.
TEST_F(FieldwardenInterfaceTest, LetsTheProbeBeRegulatedWithTheMockLock) {
    open();
    TemperatureInterface* const temperature = FieldwardenInterface::getInstance()->getTemperature();
    ASSERT_TRUE(temperature->getProbeDeviceActiveChannel());
    EXPECT_NO_THROW(temperature->setProbeTemperatureStatus(ProbeTemperatureGlobalStatus::On));
    EXPECT_NO_THROW(temperature->setProbeTemperatureStatus(ProbeTemperatureGlobalStatus::Off));
}

TEST_F(FieldwardenInterfaceTest, AsksTheRealLockBeforeTheProbeIsRegulated) {
    std::filesystem::remove_all(kLockMock);
    open();
    TemperatureInterface* const temperature = FieldwardenInterface::getInstance()->getTemperature();
    EXPECT_THAT([&] { temperature->setProbeTemperatureStatus(ProbeTemperatureGlobalStatus::On); },
                ThrowsMessage<std::runtime_error>(
                    "The lock must be enabled and locked before AT operation can be started."));
}

TEST_F(FieldwardenInterfaceTest, DumpsTheTemperatureBoardBeforeTheShimBoards) {
    open();
    auto& library = dynamic_cast<FieldwardenInterfaceQ47&>(*FieldwardenInterface::getInstance());
    auto const folder = mDirectory.path() / "dump";
    for (char const* const inTheWay :
         {"canopen_temperature.dump", "canopen_shim_8.dump", "canopen_shim_9.dump"}) {
        std::filesystem::create_directories(folder / inTheWay); // A folder cannot be written as a file.
    }
    mLog->clear();
    library.createLog(folder.string(), 0, 0);
    std::vector<std::string> who;
    for (CapturedLine const& line : mLog->linesUpTo(Severity::Error)) {
        EXPECT_THAT(line.text, StartsWith("Failed to dump CanOpen values with '"));
        EXPECT_THAT(line.text, HasSubstr("cannot open "));
        who.push_back(line.name);
    }
    EXPECT_THAT(
        who, ElementsAre(StartsWith("TempBoardQ47"), StartsWith("ShimBoardQ47"), StartsWith("ShimBoardQ47")));
}

TEST_F(FieldwardenInterfaceTest, WritesTheSameDumpsForAnyTypeAndId) {
    open();
    auto& library = dynamic_cast<FieldwardenInterfaceQ47&>(*FieldwardenInterface::getInstance());
    for (int const number : {0, 1, -7}) {
        auto const folder = mDirectory.path() / ("dump" + std::to_string(number));
        std::filesystem::create_directory(folder);
        library.createLog(folder.string(), number, number * 1000);
        std::vector<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(folder)) {
            names.push_back(entry.path().filename().string());
        }
        EXPECT_THAT(names,
                    testing::UnorderedElementsAre("canopen_temperature.dump", StartsWith("canopen_shim_8"),
                                                  StartsWith("canopen_shim_9")));
    }
}

TEST_F(FieldwardenInterfaceTest, TakesTheMockLockForAPlainFileToo) {
    std::filesystem::remove_all(kLockMock);
    writeFile(kLockMock, "");
    open();
    EXPECT_TRUE(mLog->has(Severity::Critical, "USING MOCK VERSION OF THE LOCK"));
    EXPECT_EQ(FieldwardenInterface::getInstance()->getLock()->getMagnetField(), 42.0F);
}

TEST_F(FieldwardenInterfaceTest, LeavesNoThreadOfTheMockLockBehind) {
    open();
    FieldwardenInterface::closeInterface();
    mLog->clear();
    open();
    FieldwardenInterface::closeInterface();
    EXPECT_EQ(mLog->lines().back().text, "closeInterface: actually closed");
}

// Lock and temperature service hold each other from their joining on.
TEST_F(FieldwardenInterfaceTest, LeavesNothingOfTheRealLockBehindWhereTheEndOfTheOpeningFails) {
    std::filesystem::remove_all(kLockMock);
    mBackend->onDeviceLog = [] { throw std::runtime_error("no device log"); };
    EXPECT_ANY_THROW(open()); // What the process keeps for good is there from now on.
    auto const before = ProcessResources::now();
    for (int time = 0; time < 5; ++time) {
        EXPECT_THAT([&] { open(); }, ThrowsMessage<std::runtime_error>("no device log"));
    }
    auto const after = ProcessResources::settledTo(before);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.descriptors, before.descriptors);
}

// The getters

TEST_F(FieldwardenInterfaceTest, AnswersWithItsFixedWords) {
    open();
    auto* const library = FieldwardenInterface::getInstance();
    EXPECT_EQ(library->getFirmwareVersion(), "q47_fieldwarden_20230227.gz");
    EXPECT_EQ(library->getKLRBConfiguration(), "0");
    EXPECT_EQ(library->getDWAConfiguration(), "0");
    EXPECT_EQ(library->get2HTXRouterAddress(), 255);
    EXPECT_EQ(library->getMdsFromVariablePowerSupplyBoard(), "");
    EXPECT_EQ(library->getMdsFromSensorAndPneumaticBoard(), "");
    EXPECT_EQ(library->getSampleTransfer(), nullptr);
}

TEST_F(FieldwardenInterfaceTest, HasASampleRotationThatStandsStill) {
    open();
    auto* const rotation = FieldwardenInterface::getInstance()->getSampleRotation();
    ASSERT_NE(rotation, nullptr);
    EXPECT_EQ(rotation->getSpin(), 0);
    EXPECT_EQ(rotation->getTargetSpinRate(), 0.0);
    EXPECT_EQ(rotation->getActualSpinRate(), 0.0);
}

TEST_F(FieldwardenInterfaceTest, TracesItsGetters) {
    open();
    auto* const library = FieldwardenInterface::getInstance();
    struct Getter {
        std::function<void()> call;
        std::string trace;
    };
    for (Getter const& getter : std::vector<Getter>{
             {[=] { library->getShim(); }, "FieldwardenInterfaceQ47::getShim"},
             {[=] { library->getLock(); }, "FieldwardenInterfaceQ47::getLock"},
             {[=] { library->getTemperature(); }, "FieldwardenInterfaceQ47::getTemperature"},
             {[=] { library->getSampleRotation(); }, "FieldwardenInterfaceQ47::getSampleRotation"},
             {[=] { library->getSampleTransfer(); }, "FieldwardenInterfaceQ47::getSampleTransfer"},
             {[=] { library->getFirmwareVersion(); }, "FieldwardenInterfaceQ47::getFirmwareVersion"},
             {[=] { library->getKLRBConfiguration(); }, "FieldwardenInterfaceQ47::getKLRBConfiguration"},
             {[=] { library->getDWAConfiguration(); }, "FieldwardenInterfaceQ47::getDWAConfiguration"},
             {[=] { library->get2HTXRouterAddress(); }, "FieldwardenInterfaceQ47::get2HTXRouterAddress"},
             {[=] { library->getMdsFromVariablePowerSupplyBoard(); },
              "FieldwardenInterfaceQ47::getMdsFromVariablePowerSupplyBoard"},
             {[=] { library->getMdsFromTheMagnet(); }, "getMdsFromTheMagnet"},
             {[=] { library->getVTUMDS(); }, "getHVUMDS"}}) {
        mLog->clear();
        getter.call();
        EXPECT_EQ(mLog->linesOf("FieldwardenInterfaceQ47").at(0),
                  (CapturedLine{Severity::Trace, getter.trace, {}, {}}));
    }
    mLog->clear();
    library->getMdsFromSensorAndPneumaticBoard();
    library->setLoggingTransferEnable(true);
    (void)library->getLoggingTransferEnable();
    EXPECT_THAT(mLog->linesOf("FieldwardenInterfaceQ47"), testing::IsEmpty());
}

TEST_F(FieldwardenInterfaceTest, ReadsTheRecordsWhole) {
    open();
    auto* const library = FieldwardenInterface::getInstance();
    std::string const magnet("<record>\n\0</record>\n", 20);
    writeFile(record("magnet.mds"), magnet);
    writeFile(record("vtu.mds"), "vtu text\n");
    EXPECT_EQ(library->getMdsFromTheMagnet(), magnet);
    EXPECT_EQ(library->getVTUMDS(), "vtu text\n");
    EXPECT_TRUE(mLog->has(Severity::Info, "Read magnet MDS is '" + magnet + "'"));
    EXPECT_TRUE(mLog->has(Severity::Info, "Read VTU MDS is 'vtu text\n'"));
}

TEST_F(FieldwardenInterfaceTest, TakesMissingRecordsForEmptyOnesWithoutAnErrorLine) {
    open();
    std::filesystem::remove(record("magnet.mds"));
    std::filesystem::remove(record("vtu.mds"));
    mLog->clear();
    EXPECT_EQ(FieldwardenInterface::getInstance()->getMdsFromTheMagnet(), "");
    EXPECT_EQ(FieldwardenInterface::getInstance()->getVTUMDS(), "");
    EXPECT_TRUE(mLog->has(Severity::Info, "Read magnet MDS is ''"));
    EXPECT_TRUE(mLog->has(Severity::Info, "Read VTU MDS is ''"));
    EXPECT_THAT(mLog->linesUpTo(Severity::Error), testing::IsEmpty());
}

TEST_F(FieldwardenInterfaceTest, LogsARecordThatCannotBeReadAndAnswersEmpty) {
    open();
    for (char const* const name : {"magnet.mds", "vtu.mds"}) {
        std::filesystem::remove(record(name));
        std::filesystem::create_directory(record(name));
    }
    mLog->clear();
    EXPECT_EQ(FieldwardenInterface::getInstance()->getMdsFromTheMagnet(), "");
    EXPECT_EQ(FieldwardenInterface::getInstance()->getVTUMDS(), "");
    auto const errors = mLog->linesUpTo(Severity::Error);
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_THAT(errors[0].text, StartsWith("Failed to read MDS from magnet. Exception '"));
    EXPECT_THAT(errors[1].text, StartsWith("Failed to read MDS from HVU. Exception '"));
    EXPECT_EQ(errors[0].severity, Severity::Error);
}

TEST_F(FieldwardenInterfaceTest, KeepsTheLoggingTransferFlag) {
    open();
    auto* const library = FieldwardenInterface::getInstance();
    EXPECT_FALSE(library->getLoggingTransferEnable());
    library->setLoggingTransferEnable(true);
    EXPECT_TRUE(library->getLoggingTransferEnable());
}

// Threads

TEST_F(FieldwardenInterfaceTest, LetsManyThreadsOpenAskAndClose) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 10; ++round) {
                open();
                EXPECT_EQ(FieldwardenInterface::getInstance()->getLock()->getMagnetField(), 42.0F);
                FieldwardenInterface::closeInterface();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(isOpen());
}

TEST_F(FieldwardenInterfaceTest, TellsAskersThatItIsNotOpenWhileItIsStillBeingBuilt) {
    std::atomic<bool> asked{false};
    mBackend->onDeviceLog = [&] {
        std::thread([&] {
            EXPECT_FALSE(isOpen());
            asked = true;
        }).join();
    };
    open();
    EXPECT_TRUE(asked);
    EXPECT_TRUE(isOpen());
}

} // namespace
