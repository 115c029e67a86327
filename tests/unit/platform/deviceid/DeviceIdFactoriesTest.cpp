// SPDX-License-Identifier: Apache-2.0
// Whose doors the factories of the device-id service open.
#include "support/FakeBackend.h"

#include <velmor/kepla/deviceid/DeviceIdClient.h>
#include <velmor/kepla/deviceid/DeviceIdDirectory.h>
#include <velmor/kepla/deviceid/DeviceIdServiceFactory.h>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::FakeBackendScope;
using velmor::kepla::deviceid::DeviceIdClient;
using velmor::kepla::deviceid::DeviceIdDirectory;
using velmor::kepla::deviceid::DeviceIdServiceFactory;

TEST(DeviceIdClient, IsTheBackendsReader) {
    FakeBackendScope const backend;
    auto reader = std::make_shared<DeviceIdDirectory>("/nowhere");
    backend->deviceIdClientDoor = [&] { return reader; };
    EXPECT_EQ(DeviceIdClient::make_client(), reader);
}

TEST(DeviceIdServiceFactory, AsksTheBackendForAContributorInItsName) {
    FakeBackendScope const backend;
    auto writer = std::make_shared<DeviceIdDirectory>("/nowhere");
    std::string service;
    backend->deviceIdContributorDoor = [&](std::string const& aService) {
        service = aService;
        return writer;
    };
    EXPECT_EQ(DeviceIdServiceFactory("fieldwarden").deviceIdServiceContributor(), writer);
    EXPECT_EQ(service, "fieldwarden");
}

TEST(DeviceIdServiceFactory, TouchesNothingWhenMade) {
    FakeBackendScope const backend;
    EXPECT_NO_THROW(DeviceIdServiceFactory("fieldwarden"));
    EXPECT_THROW(DeviceIdServiceFactory("fieldwarden").deviceIdServiceContributor(), std::logic_error);
}

} // namespace
