// SPDX-License-Identifier: Apache-2.0
// The device-log endpoint on a real bus, called and looked at from outside as a service tool does.
#include "support/ChildProcess.h"
#include "support/DBusDaemon.h"
#include "support/Eventually.h"
#include "support/FakeBackend.h"
#include "support/LogCapture.h"
#include "support/ProcessResources.h"

#include <velmor/DeviceLogContributor.h>

#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <giomm/dbusintrospection.h>
#include <gmock/gmock.h>
#include <unistd.h>

namespace {

using libfieldwarden::test::ChildProcess;
using libfieldwarden::test::DBusDaemon;
using libfieldwarden::test::eventually;
using libfieldwarden::test::FakeBackendScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::ProcessResources;
using libfieldwarden::test::ProgramResult;
using libfieldwarden::test::runProgram;
using libfieldwarden::test::Severity;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;
using BusType = Gio::DBus::BusType;

constexpr char const* kName = "FieldwardenInterfaceQ47";
constexpr char const* kBusName = "com.velmor.utils.logplugin.FieldwardenInterfaceQ47";
constexpr char const* kObject = "/com/velmor/utils/logplugin";
constexpr char const* kFinished =
    "/com/velmor/utils/logplugin: com.velmor.utils.logplugin.interface.finished ";

void doNothing(std::string const& /*aPath*/, int /*aType*/, int /*aId*/) {}

/// A device log that stays in its call until it is released.
struct HeldContributor {
    std::promise<void> begun;
    std::promise<void> release;
    std::optional<DeviceLogContributor> contributor{
        std::in_place,
        [this, wait = release.get_future().share()](std::string const&, int, int) {
            begun.set_value();
            wait.wait();
        },
        kName, BusType::SYSTEM};
};

/// A test with a bus, which the backend calls the system bus.
class DeviceLogOnTheBus : public testing::Test {
protected:
    DeviceLogOnTheBus() {
        mBackend->deviceLogBusAddressDoor = [this](bool) { return mBus.address(); };
    }

    ProgramResult gdbus(std::string const& aVerb, std::vector<std::string> const& aArguments) const {
        std::vector<std::string> command{"gdbus",        aVerb,           "--address",
                                         mBus.address(), "--object-path", kObject};
        command.insert(command.end(), aArguments.begin(), aArguments.end());
        return runProgram(command);
    }
    ProgramResult call(std::string const& aMethod, std::vector<std::string> const& aArguments) const {
        std::vector<std::string> arguments{"--dest", kBusName, "--method", aMethod};
        arguments.insert(arguments.end(), aArguments.begin(), aArguments.end());
        return gdbus("call", arguments);
    }
    ProgramResult createLog(std::string const& aPath,
                            std::string const& aType,
                            std::string const& aId) const {
        return call("com.velmor.utils.logplugin.interface.createLog", {aPath, aType, aId});
    }
    ProgramResult readName() const {
        return call("org.freedesktop.DBus.Properties.Get", {"com.velmor.utils.logplugin.interface", "Name"});
    }
    /// Somebody who listens to all signals of the endpoint, from now on.
    std::unique_ptr<ChildProcess> listener() const {
        auto result = std::make_unique<ChildProcess>(
            std::vector<std::string>{"gdbus", "monitor", "--address", mBus.address(), "--dest", kBusName});
        result->waitForOutput("is owned by");
        return result;
    }

    LogCapture mLog;
    DBusDaemon mBus;
    FakeBackendScope mBackend;
};

TEST_F(DeviceLogOnTheBus, IntrospectsAsTheContractSays) {
    DeviceLogContributor const contributor(doNothing, kName, BusType::SYSTEM);
    ProgramResult const result = gdbus("introspect", {"--dest", kBusName, "--xml"});
    ASSERT_EQ(result.exitCode, 0) << result.output;

    auto const node = Gio::DBus::NodeInfo::create_for_xml(result.output);
    auto const interface = node->lookup_interface("com.velmor.utils.logplugin.interface");
    ASSERT_TRUE(interface);
    GDBusInterfaceInfo const& info = *interface->gobj();

    ASSERT_NE(info.properties[0], nullptr);
    EXPECT_STREQ(info.properties[0]->name, "Name");
    EXPECT_STREQ(info.properties[0]->signature, "s");
    EXPECT_EQ(info.properties[0]->flags, G_DBUS_PROPERTY_INFO_FLAGS_READABLE);
    EXPECT_EQ(info.properties[1], nullptr);

    ASSERT_NE(info.methods[0], nullptr);
    EXPECT_STREQ(info.methods[0]->name, "createLog");
    ASSERT_NE(info.methods[0]->in_args, nullptr);
    std::vector<std::string> arguments;
    for (GDBusArgInfo* const* argument = info.methods[0]->in_args; *argument != nullptr; ++argument) {
        arguments.push_back(std::string((*argument)->name) + " " + (*argument)->signature);
    }
    EXPECT_THAT(arguments, ElementsAre("path s", "type i", "id i"));
    EXPECT_TRUE(info.methods[0]->out_args == nullptr || info.methods[0]->out_args[0] == nullptr);
    EXPECT_EQ(info.methods[1], nullptr);

    ASSERT_NE(info.signals[0], nullptr);
    EXPECT_STREQ(info.signals[0]->name, "finished");
    ASSERT_NE(info.signals[0]->args[0], nullptr);
    EXPECT_STREQ(info.signals[0]->args[0]->name, "status");
    EXPECT_STREQ(info.signals[0]->args[0]->signature, "(si)");
    EXPECT_EQ(info.signals[0]->args[1], nullptr);
    EXPECT_EQ(info.signals[1], nullptr);
}

TEST_F(DeviceLogOnTheBus, TellsItsName) {
    DeviceLogContributor const contributor(doNothing, kName, BusType::SYSTEM);
    EXPECT_EQ(readName().output, "(<'FieldwardenInterfaceQ47'>,)\n");
}

TEST_F(DeviceLogOnTheBus, KeepsItsNameFromBeingWritten) {
    DeviceLogContributor const contributor(doNothing, kName, BusType::SYSTEM);
    ProgramResult const result = call("org.freedesktop.DBus.Properties.Set",
                                      {"com.velmor.utils.logplugin.interface", "Name", "<'another'>"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(readName().output, "(<'FieldwardenInterfaceQ47'>,)\n");
}

TEST_F(DeviceLogOnTheBus, CallsTheFunctionAndTellsItsEnd) {
    std::mutex mutex;
    std::vector<std::string> calls;
    DeviceLogContributor const contributor(
        [&](std::string const& aPath, int aType, int aId) {
            std::lock_guard const lock(mutex);
            calls.push_back(aPath + " " + std::to_string(aType) + " " + std::to_string(aId));
        },
        kName, BusType::SYSTEM);
    auto const listening = listener();
    ProgramResult const result = createLog("/tmp/a folder", "1", "int32 -7");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "()\n");
    EXPECT_THAT(listening->waitForOutput("finished"), HasSubstr(std::string(kFinished) + "(('', 0),)"));
    std::lock_guard const lock(mutex);
    EXPECT_THAT(calls, ElementsAre("/tmp/a folder 1 -7"));
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), IsEmpty());
}

TEST_F(DeviceLogOnTheBus, TellsAndLogsWhyTheFunctionFailed) {
    DeviceLogContributor const contributor(
        [](std::string const&, int, int) { throw std::runtime_error("no space left for the dump"); }, kName,
        BusType::SYSTEM);
    auto const listening = listener();
    EXPECT_EQ(createLog("/tmp", "0", "3").output, "()\n")
        << "the answer says that the call came, not how it ended";
    EXPECT_THAT(listening->waitForOutput("finished"),
                HasSubstr(std::string(kFinished) + "(('no space left for the dump', 1),)"));
    EXPECT_TRUE(
        mLog.has(Severity::Error, "createLog(path='/tmp', type=0, id=3) failed: no space left for the dump"));
}

TEST_F(DeviceLogOnTheBus, SurvivesAnExceptionOfAnotherKind) {
    DeviceLogContributor const contributor([](std::string const&, int, int) { throw 42; }, kName,
                                           BusType::SYSTEM);
    auto const listening = listener();
    createLog("/tmp", "0", "0");
    EXPECT_THAT(listening->waitForOutput("finished"), HasSubstr("(('unknown exception', 1),)"));
}

TEST_F(DeviceLogOnTheBus, SendsWordsThatAreNoUtf8AsBestItCan) {
    DeviceLogContributor const contributor(
        [](std::string const&, int, int) { throw std::runtime_error("caf\xE9 closed"); }, kName,
        BusType::SYSTEM);
    auto const listening = listener();
    createLog("/tmp", "0", "0");
    EXPECT_THAT(listening->waitForOutput("finished"),
                HasSubstr("(('caf\xEF\xBF\xBD closed', 1),)")); // U+FFFD
}

TEST_F(DeviceLogOnTheBus, RefusesArgumentsOfOtherTypes) {
    DeviceLogContributor const contributor(
        [](std::string const&, int, int) { ADD_FAILURE() << "called with the wrong arguments"; }, kName,
        BusType::SYSTEM);
    EXPECT_EQ(call("com.velmor.utils.logplugin.interface.createLog", {"'/tmp'", "'full'", "0"}).exitCode, 1);
    EXPECT_EQ(call("com.velmor.utils.logplugin.interface.createLog", {"'/tmp'"}).exitCode, 1);
    EXPECT_EQ(call("com.velmor.utils.logplugin.interface.deleteLog", {"'/tmp'", "0", "0"}).exitCode, 1);
}

TEST_F(DeviceLogOnTheBus, GoesOnAnsweringWhileTheFunctionWorks) {
    HeldContributor held;
    auto const listening = listener();
    EXPECT_EQ(createLog("/tmp", "0", "0").output, "()\n");
    held.begun.get_future().wait();
    EXPECT_EQ(readName().output, "(<'FieldwardenInterfaceQ47'>,)\n");
    EXPECT_EQ(gdbus("introspect", {"--dest", kBusName}).exitCode, 0);
    EXPECT_THAT(listening->output(), testing::Not(HasSubstr("finished")));
    held.release.set_value();
    listening->waitForOutput("(('', 0),)");
}

TEST_F(DeviceLogOnTheBus, WorksOnTheCallsOneAfterTheOther) {
    std::mutex mutex;
    std::vector<std::string> paths;
    DeviceLogContributor const contributor(
        [&](std::string const& aPath, int, int) {
            {
                std::lock_guard const lock(mutex);
                paths.push_back(aPath);
            }
            throw std::runtime_error("end of " + aPath);
        },
        kName, BusType::SYSTEM);
    auto const listening = listener();
    for (char const* const path : {"/1", "/2", "/3"}) {
        createLog(path, "0", "0");
    }
    listening->waitForOutput("end of /3");
    std::lock_guard const lock(mutex);
    EXPECT_THAT(paths, ElementsAre("/1", "/2", "/3"));
}

TEST_F(DeviceLogOnTheBus, PutsAnyNameIntoItsBusName) {
    DeviceLogContributor const dots(doNothing, "2 lock.shim-x", BusType::SYSTEM);
    EXPECT_EQ(gdbus("introspect", {"--dest", "com.velmor.utils.logplugin._2_lock_shim_x"}).exitCode, 0);
    DeviceLogContributor const empty(doNothing, "", BusType::SYSTEM);
    EXPECT_EQ(gdbus("introspect", {"--dest", "com.velmor.utils.logplugin._"}).exitCode, 0);
    // A bus name has 255 characters at most; 300 would break that.
    EXPECT_NO_THROW(DeviceLogContributor(doNothing, std::string(300, 'x'), BusType::SYSTEM));
}

TEST_F(DeviceLogOnTheBus, RefusesANameThatIsOwnedAlready) {
    std::optional<DeviceLogContributor> first(std::in_place, doNothing, kName, BusType::SYSTEM);
    auto const second = [] { DeviceLogContributor const contributor(doNothing, kName, BusType::SYSTEM); };
    auto const before = ProcessResources::now();
    EXPECT_THAT(second, ThrowsMessage<std::runtime_error>(AllOf(HasSubstr(std::string("'") + kBusName + "'"),
                                                                HasSubstr("'" + mBus.address() + "'"),
                                                                HasSubstr("is owned by another already"))));
    for (int i = 0; i < 20; ++i) {
        EXPECT_THROW(second(), std::runtime_error);
    }
    EXPECT_TRUE(ProcessResources::settledTo(before).isNotAbove(before));
    EXPECT_EQ(readName().exitCode, 0) << "the first one must not suffer";
    first.reset();
    EXPECT_NO_THROW(second());
}

TEST_F(DeviceLogOnTheBus, IsGoneFromTheBusWhenItEnds) {
    std::optional<DeviceLogContributor> contributor(std::in_place, doNothing, kName, BusType::SYSTEM);
    EXPECT_EQ(readName().exitCode, 0);
    contributor.reset();
    ProgramResult const result = readName();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output, HasSubstr("ServiceUnknown"));
}

TEST_F(DeviceLogOnTheBus, ReportsTheRunningCallAndTheWaitingOnesWhenItEnds) {
    HeldContributor held;
    auto const listening = listener();
    createLog("/running", "0", "0");
    held.begun.get_future().wait();
    createLog("/waiting", "0", "0");

    auto const ending = std::async(std::launch::async, [&] { held.contributor.reset(); });
    // The object goes first, so that no further call is taken while the running one is waited for.
    EXPECT_TRUE(eventually([&] { return readName().exitCode != 0; }));
    held.release.set_value();
    ending.wait();
    std::string const& heard = listening->waitForOutput("closed before");
    EXPECT_THAT(heard, HasSubstr("(('', 0),)"));
    EXPECT_THAT(heard, HasSubstr("(('The device log was closed before the call was worked on', 1),)"));
}

TEST_F(DeviceLogOnTheBus, LogsThatTheBusHasGoneAndEndsInOrder) {
    HeldContributor held;
    createLog("/tmp", "0", "0");
    held.begun.get_future().wait();
    mBus.stop();
    EXPECT_TRUE(eventually([&] {
        return mLog.has(Severity::Error, "The D-Bus at '" + mBus.address() +
                                             "' has gone and with it the device log '" + kBusName + "'");
    }));
    held.release.set_value();
    held.contributor.reset();
    EXPECT_TRUE(mLog.has(Severity::Warning, "Cannot tell the end of createLog: The connection is closed"));
}

TEST_F(DeviceLogOnTheBus, LeavesNothingBehindWhenTheBusHasGone) {
    auto const openAndLose = [this] {
        DeviceLogContributor const contributor(doNothing, kName, BusType::SYSTEM);
        mBus.stop();
    };
    openAndLose();
    auto const before = ProcessResources::now();
    for (int i = 0; i < 5; ++i) {
        mBus.start();
        openAndLose();
    }
    EXPECT_TRUE(ProcessResources::settledTo(before).isNotAbove(before));
}

TEST_F(DeviceLogOnTheBus, CanBeOpenedAndClosedAnyNumberOfTimes) {
    auto const openAndClose = [] {
        DeviceLogContributor const contributor(doNothing, kName, BusType::SYSTEM);
    };
    openAndClose(); // GLib makes its own thread once and keeps it.
    auto const before = ProcessResources::now();
    for (int i = 0; i < 200; ++i) {
        openAndClose();
    }
    EXPECT_TRUE(ProcessResources::settledTo(before).isNotAbove(before));
}

/// The file that is installed for the system bus.
class SystemBusPolicy : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only the superuser can be both who may and who may not";
        }
        mBackend->deviceLogBusAddressDoor = [this](bool) { return mBus.address(); };
    }

    ProgramResult asUser(std::vector<std::string> const& aCredentials,
                         std::string const& aMethod,
                         std::vector<std::string> const& aArguments) const {
        std::vector<std::string> command{"setpriv"};
        command.insert(command.end(), aCredentials.begin(), aCredentials.end());
        for (std::string const& word :
             {std::string("gdbus"), std::string("call"), std::string("--address"), mBus.address(),
              std::string("--dest"), std::string(kBusName), std::string("--object-path"),
              std::string(kObject), std::string("--method"), aMethod}) {
            command.push_back(word);
        }
        command.insert(command.end(), aArguments.begin(), aArguments.end());
        return runProgram(command);
    }

    inline static std::vector<std::string> const kRoot{"--reuid=0", "--regid=0", "--clear-groups"};
    inline static std::vector<std::string> const kRootGroup{"--reuid=65534", "--regid=0", "--clear-groups"};
    inline static std::vector<std::string> const kNobody{"--reuid=65534", "--regid=65534", "--clear-groups"};

    DBusDaemon mBus{std::filesystem::path(SYSTEM_BUS_POLICY)};
    FakeBackendScope mBackend;
};

TEST_F(SystemBusPolicy, LetsTheSuperuserPublishAndEverybodyLook) {
    DeviceLogContributor const contributor(doNothing, kName, BusType::SYSTEM);
    for (auto const& user : {kRoot, kRootGroup, kNobody}) {
        EXPECT_EQ(asUser(user, "org.freedesktop.DBus.Introspectable.Introspect", {}).exitCode, 0);
        EXPECT_EQ(asUser(user, "org.freedesktop.DBus.Properties.Get",
                         {"com.velmor.utils.logplugin.interface", "Name"})
                      .output,
                  "(<'FieldwardenInterfaceQ47'>,)\n");
    }
}

TEST_F(SystemBusPolicy, LetsOnlyTheRootGroupCreateLogs) {
    DeviceLogContributor const contributor(doNothing, kName, BusType::SYSTEM);
    std::string const method = "com.velmor.utils.logplugin.interface.createLog";
    EXPECT_EQ(asUser(kRoot, method, {"/tmp", "0", "0"}).exitCode, 0);
    EXPECT_EQ(asUser(kRootGroup, method, {"/tmp", "0", "0"}).exitCode, 0);
    ProgramResult const denied = asUser(kNobody, method, {"/tmp", "0", "0"});
    EXPECT_EQ(denied.exitCode, 1);
    EXPECT_THAT(denied.output, HasSubstr("AccessDenied"));
}

TEST_F(SystemBusPolicy, LetsNobodyElseTakeTheName) {
    ProgramResult const denied = runProgram(
        {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "gdbus", "call", "--address",
         mBus.address(), "--dest", "org.freedesktop.DBus", "--object-path", "/org/freedesktop/DBus",
         "--method", "org.freedesktop.DBus.RequestName", kBusName, "uint32 4"});
    EXPECT_EQ(denied.exitCode, 1);
    EXPECT_THAT(denied.output, HasSubstr("AccessDenied"));
}

} // namespace
