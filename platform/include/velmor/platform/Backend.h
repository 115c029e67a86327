// SPDX-License-Identifier: Apache-2.0
// Every door to the outside world, handed out by one object: the instrument, or a simulated one in its place.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace velmor::kepla::canopen {
class CanChannel;
}
namespace velmor::kepla::datalogger {
class DataLoggerInterface;
}
namespace velmor::kepla::deviceid {
class DeviceIdClientIfc;
class DeviceIdServiceContributorIfc;
} // namespace velmor::kepla::deviceid
namespace velmor::q47::mainboarddaemon {
class MainboardInterface;
}
namespace velmor::q47::seqlock {
class SeqlockDriver;
}

namespace velmor::platform {

class Clock;

/// Abstract factory of the doors to the outside. The platform's own factories (CanOpenMaster::make,
/// DataLoggerFactory, DeviceIdClient::make_client, DeviceIdServiceFactory, MainboardClientFactory,
/// DeviceLogContributor, SeqlockDriver::current) go through current(), so that nothing above them can tell a
/// simulated instrument from a real one.
///
/// Every operation may be called from any thread and may block for as long as its door takes to open. A door
/// that cannot be opened throws std::runtime_error with words that name it.
class Backend {
public:
    virtual ~Backend() = default;

    /// The backend in use: the instrument unless use() put another in place.
    static std::shared_ptr<Backend> current();

    /// Puts a backend in the place of the instrument and makes its clock the process's clock. To be called
    /// before the library is opened, and not again until it is closed: what is open keeps the doors that it has,
    /// but refers to the clock.
    /// @param aBackend  The backend; null for the instrument.
    static void use(std::shared_ptr<Backend> aBackend);

    /// @return The clock of this backend; null for the real one.
    virtual std::shared_ptr<Clock> clock() = 0;

    /// @param aInterface  Name of a CAN interface, such as "can0".
    virtual std::unique_ptr<velmor::kepla::canopen::CanChannel> openCanChannel(
        std::string const& aInterface) = 0;

    /// @return The data logger.
    virtual std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> dataLogger() = 0;

    /// @return A reader of the device records.
    virtual std::shared_ptr<velmor::kepla::deviceid::DeviceIdClientIfc> deviceIdClient() = 0;

    /// @param aService  Name of the contributing service.
    /// @return A writer of the device records.
    virtual std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> deviceIdContributor(
        std::string const& aService) = 0;

    /// @return The main board.
    virtual std::shared_ptr<velmor::q47::mainboarddaemon::MainboardInterface> mainboard() = 0;

    /// @param aSystemBus  Whether the system bus is meant rather than the session bus.
    /// @return The driver of the lock sequencer.
    virtual std::shared_ptr<velmor::q47::seqlock::SeqlockDriver> seqlockDriver() = 0;

    /// Where a file of the instrument's own file system lies, such as
    /// "/usr/share/firmware/Q47Lock/memory.bin".
    /// @param aPath  A path; one that is not absolute, or is empty, comes back as it is.
    /// @return The path to open, the same on the instrument.
    virtual std::filesystem::path instrumentPath(std::filesystem::path const& aPath) = 0;

    /// @return The address of the D-Bus to publish the device log on; none when this backend has no bus.
    virtual std::optional<std::string> deviceLogBusAddress(bool aSystemBus) = 0;
};

} // namespace velmor::platform
