// SPDX-License-Identifier: Apache-2.0
// How a simulated instrument comes into being.
#include "simulator/instrument/Instrument.h"

#include "simulator/instrument/DeviceRecords.h"

#include <velmor/platform/ScaledClock.h>

#include <fstream>
#include <stdexcept>
#include <utility>

namespace libfieldwarden::sim {

Folders::Folders(std::filesystem::path aRoot)
    : root(std::move(aRoot))
    , config(root / "etc/libfieldwarden")
    , factory(root / "data/factory")
    , shimFirmware(root / "usr/share/firmware/Q47ShimBoard")
    , spectrometer(root / "opt/panorin/conf/instr/spect")
    , tempFirmware(root / "usr/share/firmware/Q47TemperatureBoard")
    , data(root / "data")
    , deviceIds(data / "deviceids")
    , dataLogger(data / "libfieldwarden/datalogger.sqlite") {}

Instrument::Instrument(Options const& aOptions)
    : mFolders(std::filesystem::absolute(aOptions.folder))
    , mClock(std::make_shared<velmor::platform::ScaledClock>(aOptions.timeScale))
    , mMainboard(std::make_shared<Mainboard>())
    , mCanBus(std::make_unique<velmor::kepla::canopen::InProcessBus>()) {
    for (auto const& folder :
         {mFolders.config, mFolders.factory, mFolders.shimFirmware, mFolders.spectrometer,
          mFolders.tempFirmware, mFolders.deviceIds, mFolders.dataLogger.parent_path()}) {
        std::filesystem::create_directories(folder);
    }
    writeDeviceRecords();
}

void Instrument::writeDeviceRecords() const {
    for (DeviceRecord const& record : kDeviceRecords) {
        auto const path = mFolders.deviceIds / record.file;
        if (std::filesystem::exists(path)) {
            continue; // Kept from an earlier run, or put there to try another instrument.
        }
        std::ofstream file(path, std::ios::binary);
        file << record.text;
        file.close();
        if (!file) {
            throw std::runtime_error("Cannot write the device record '" + path.string() + "'");
        }
    }
}

} // namespace libfieldwarden::sim
