// SPDX-License-Identifier: Apache-2.0
// The doors of the simulated instrument, each in front of its model.
#include "simulator/instrument/SimulatedBackend.h"

#include "simulator/instrument/Instrument.h"

#include <velmor/kepla/canopen/CanChannel.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/datalogger/SqliteDataLogger.h>
#include <velmor/kepla/deviceid/DeviceIdDirectory.h>

#include <utility>

namespace libfieldwarden::sim {

namespace {

class SimulatedBackend final : public velmor::platform::Backend {
public:
    explicit SimulatedBackend(std::shared_ptr<Instrument> aInstrument)
        : mInstrument(std::move(aInstrument)) {}

    std::shared_ptr<velmor::platform::Clock> clock() override { return mInstrument->clock(); }

    std::unique_ptr<velmor::kepla::canopen::CanChannel> openCanChannel(
        std::string const& aInterface) override {
        return mInstrument->canBus().open(aInterface);
    }

    std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> dataLogger() override {
        return std::make_shared<velmor::kepla::datalogger::SqliteDataLogger>(
            mInstrument->folders().dataLogger);
    }

    std::shared_ptr<velmor::kepla::deviceid::DeviceIdClientIfc> deviceIdClient() override {
        return deviceIds();
    }

    std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> deviceIdContributor(
        std::string const& /*aService*/) override {
        return deviceIds();
    }

    std::shared_ptr<velmor::q47::mainboarddaemon::MainboardInterface> mainboard() override {
        return mInstrument->mainboard();
    }

    std::shared_ptr<velmor::q47::seqlock::SeqlockDriver> seqlockDriver() override {
        return mInstrument->sequencer();
    }

    std::filesystem::path instrumentPath(std::filesystem::path const& aPath) override {
        return aPath.is_absolute() ? mInstrument->folders().root / aPath.relative_path() : aPath;
    }

    std::optional<std::string> deviceLogBusAddress(bool /*aSystemBus*/) override { return std::nullopt; }

private:
    std::shared_ptr<velmor::kepla::deviceid::DeviceIdDirectory> deviceIds() const {
        return std::make_shared<velmor::kepla::deviceid::DeviceIdDirectory>(mInstrument->folders().deviceIds);
    }

    std::shared_ptr<Instrument> mInstrument;
};

} // namespace

std::shared_ptr<velmor::platform::Backend> makeSimulatedBackend(std::shared_ptr<Instrument> aInstrument) {
    return std::make_shared<SimulatedBackend>(std::move(aInstrument));
}

} // namespace libfieldwarden::sim
