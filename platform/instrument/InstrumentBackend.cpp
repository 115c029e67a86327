// SPDX-License-Identifier: Apache-2.0
// The doors of the real instrument, each opened when it is asked for.
#include <velmor/platform/InstrumentBackend.h>

#include <velmor/kepla/canopen/SocketCanChannel.h>
#include <velmor/kepla/datalogger/SqliteDataLogger.h>
#include <velmor/kepla/deviceid/DeviceIdDirectory.h>
#include <velmor/platform/Clock.h>
#include <velmor/q47/mainboarddaemon/MainboardDBusClient.h>
#include <velmor/q47/seqlock/PosixSeqlockDriver.h>

#include <filesystem>
#include <stdexcept>

#include <gio/gio.h>

namespace velmor::platform {

namespace {

constexpr char const* kDeviceIdDirectory = "/data/deviceids";
constexpr char const* kDataLoggerFile = "/data/libfieldwarden/datalogger.sqlite";

struct Free {
    void operator()(char* aText) const noexcept { g_free(aText); }
    void operator()(GError* aError) const noexcept { g_error_free(aError); }
};

/// @throws std::runtime_error  when GLib knows no address, as for the session bus of a service.
std::string busAddress(bool aSystemBus) {
    GError* reason = nullptr;
    std::unique_ptr<char, Free> const address(g_dbus_address_get_for_bus_sync(
        aSystemBus ? G_BUS_TYPE_SYSTEM : G_BUS_TYPE_SESSION, nullptr, &reason));
    std::unique_ptr<GError, Free> const error(reason);
    if (address == nullptr) {
        throw std::runtime_error(std::string("There is no D-Bus ") + (aSystemBus ? "system" : "session") +
                                 " bus: " + error->message);
    }
    return address.get();
}

class InstrumentBackend final : public Backend {
public:
    std::shared_ptr<Clock> clock() override { return nullptr; }

    std::unique_ptr<velmor::kepla::canopen::CanChannel> openCanChannel(
        std::string const& aInterface) override {
        return std::make_unique<velmor::kepla::canopen::SocketCanChannel>(aInterface);
    }

    std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> dataLogger() override {
        using velmor::kepla::datalogger::SqliteDataLogger;
        return std::make_shared<SqliteDataLogger>(kDataLoggerFile,
                                                  SqliteDataLogger::Options{.makesFolder = true});
    }

    std::shared_ptr<velmor::kepla::deviceid::DeviceIdClientIfc> deviceIdClient() override {
        return std::make_shared<velmor::kepla::deviceid::DeviceIdDirectory>(kDeviceIdDirectory);
    }

    std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> deviceIdContributor(
        std::string const& /*aService*/) override {
        return std::make_shared<velmor::kepla::deviceid::DeviceIdDirectory>(kDeviceIdDirectory);
    }

    std::shared_ptr<velmor::q47::mainboarddaemon::MainboardInterface> mainboard() override {
        return std::make_shared<velmor::q47::mainboarddaemon::MainboardDBusClient>(busAddress(true));
    }

    std::shared_ptr<velmor::q47::seqlock::SeqlockDriver> seqlockDriver() override {
        return std::make_shared<velmor::q47::seqlock::PosixSeqlockDriver>();
    }

    std::filesystem::path instrumentPath(std::filesystem::path const& aPath) override { return aPath; }

    std::optional<std::string> deviceLogBusAddress(bool aSystemBus) override {
        return busAddress(aSystemBus);
    }
};

} // namespace

std::shared_ptr<Backend> makeInstrumentBackend() {
    return std::make_shared<InstrumentBackend>();
}

} // namespace velmor::platform
