// SPDX-License-Identifier: Apache-2.0
// A backend whose doors a test opens one by one.
#pragma once

#include <velmor/kepla/canopen/CanChannel.h>
#include <velmor/platform/Backend.h>
#include <velmor/platform/Clock.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace libfieldwarden::test {

/// A strict backend: a door that the test has not set throws std::logic_error naming it. The clock is the
/// exception, since every backend is asked for it: unset, it is the real one.
class FakeBackend : public velmor::platform::Backend {
public:
    // The doors, named as the operations.
    std::shared_ptr<velmor::platform::Clock> clockDoor;
    std::function<std::unique_ptr<velmor::kepla::canopen::CanChannel>(std::string const&)> openCanChannelDoor;
    std::function<std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface>()> dataLoggerDoor;
    std::function<std::shared_ptr<velmor::kepla::deviceid::DeviceIdClientIfc>()> deviceIdClientDoor;
    std::function<std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc>(std::string const&)>
        deviceIdContributorDoor;
    std::function<std::shared_ptr<velmor::q47::mainboarddaemon::MainboardInterface>()> mainboardDoor;
    std::function<std::shared_ptr<velmor::q47::seqlock::SeqlockDriver>()> seqlockDriverDoor;
    std::function<std::filesystem::path(std::filesystem::path const&)> instrumentPathDoor;
    std::function<std::optional<std::string>(bool)> deviceLogBusAddressDoor;

    std::shared_ptr<velmor::platform::Clock> clock() override { return clockDoor; }
    std::unique_ptr<velmor::kepla::canopen::CanChannel> openCanChannel(
        std::string const& aInterface) override {
        return through(openCanChannelDoor, "openCanChannel")(aInterface);
    }
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> dataLogger() override {
        return through(dataLoggerDoor, "dataLogger")();
    }
    std::shared_ptr<velmor::kepla::deviceid::DeviceIdClientIfc> deviceIdClient() override {
        return through(deviceIdClientDoor, "deviceIdClient")();
    }
    std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> deviceIdContributor(
        std::string const& aService) override {
        return through(deviceIdContributorDoor, "deviceIdContributor")(aService);
    }
    std::shared_ptr<velmor::q47::mainboarddaemon::MainboardInterface> mainboard() override {
        return through(mainboardDoor, "mainboard")();
    }
    std::shared_ptr<velmor::q47::seqlock::SeqlockDriver> seqlockDriver() override {
        return through(seqlockDriverDoor, "seqlockDriver")();
    }
    std::filesystem::path instrumentPath(std::filesystem::path const& aPath) override {
        return through(instrumentPathDoor, "instrumentPath")(aPath);
    }
    std::optional<std::string> deviceLogBusAddress(bool aSystemBus) override {
        return through(deviceLogBusAddressDoor, "deviceLogBusAddress")(aSystemBus);
    }

private:
    template <typename Door>
    static Door const& through(Door const& aDoor, char const* aName) {
        if (!aDoor) {
            throw std::logic_error(std::string("FakeBackend: the door ") + aName + " was not set");
        }
        return aDoor;
    }
};

/// Puts a fake in the place of the process's backend, from construction to destruction.
class FakeBackendScope {
public:
    FakeBackendScope() { velmor::platform::Backend::use(mBackend); }
    ~FakeBackendScope() { velmor::platform::Backend::use(nullptr); }
    FakeBackendScope(FakeBackendScope const&) = delete;
    FakeBackendScope& operator=(FakeBackendScope const&) = delete;

    FakeBackend* operator->() const noexcept { return mBackend.get(); }

private:
    std::shared_ptr<FakeBackend> mBackend = std::make_shared<FakeBackend>();
};

} // namespace libfieldwarden::test
