// SPDX-License-Identifier: Apache-2.0
// The device-log endpoint where there is no bus.
#include "support/FakeBackend.h"
#include "support/LogCapture.h"
#include "support/ProcessResources.h"
#include "support/TemporaryDirectory.h"

#include <velmor/DeviceLogContributor.h>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::FakeBackendScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::ProcessResources;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using testing::HasSubstr;
using testing::ThrowsMessage;
using BusType = Gio::DBus::BusType;

void doNothing(std::string const& /*aPath*/, int /*aType*/, int /*aId*/) {}

TEST(DeviceLogContributor, PublishesNothingWhereTheBackendHasNoBus) {
    LogCapture const log;
    FakeBackendScope const backend;
    backend->deviceLogBusAddressDoor = [](bool) { return std::nullopt; };
    auto const before = ProcessResources::now();
    {
        DeviceLogContributor const contributor(doNothing, "FieldwardenInterfaceQ47", BusType::SYSTEM);
        EXPECT_TRUE(ProcessResources::now().isNotAbove(before));
    }
    EXPECT_TRUE(log.has(Severity::Debug,
                        "There is no D-Bus: the device log 'FieldwardenInterfaceQ47' is not published"));
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(DeviceLogContributor, AsksForTheBusThatIsMeant) {
    FakeBackendScope const backend;
    std::vector<bool> asked;
    backend->deviceLogBusAddressDoor = [&](bool aSystemBus) {
        asked.push_back(aSystemBus);
        return std::nullopt;
    };
    DeviceLogContributor const system(doNothing, "A", BusType::SYSTEM);
    DeviceLogContributor const session(doNothing, "B", BusType::SESSION);
    EXPECT_THAT(asked, testing::ElementsAre(true, false));
}

TEST(DeviceLogContributor, NamesTheAddressOfAMissingBusAndLeavesNothingBehind) {
    TemporaryDirectory const folder;
    std::string address = "unix:path=" + (folder.path() / "no bus").string();
    FakeBackendScope const backend;
    backend->deviceLogBusAddressDoor = [&](bool) { return address; };
    auto const open = [] { DeviceLogContributor const contributor(doNothing, "A", BusType::SYSTEM); };
    EXPECT_THAT(open, ThrowsMessage<std::runtime_error>(HasSubstr("'" + address + "'")));
    auto const before = ProcessResources::now();
    for (int i = 0; i < 20; ++i) {
        EXPECT_THROW(open(), std::runtime_error);
    }
    EXPECT_TRUE(ProcessResources::settledTo(before).isNotAbove(before));
}

} // namespace
