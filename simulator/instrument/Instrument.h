// SPDX-License-Identifier: Apache-2.0
// The whole simulated instrument: its models and the folder in which its files live.
#pragma once

#include "simulator/mainboard/Mainboard.h"

#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/platform/Clock.h>

#include <filesystem>
#include <memory>

namespace libfieldwarden::sim {

/// Where a simulated instrument keeps what a real one has under "/": the arguments of openInterface(), so to
/// say.
struct Folders {
    explicit Folders(std::filesystem::path aRoot);

    std::filesystem::path root;         ///< All the others lie in it; the log files too.
    std::filesystem::path config;       ///< Holds "matrices".
    std::filesystem::path factory;      ///< Holds "shims.factory".
    std::filesystem::path shimFirmware; ///< Firmware of the shim boards.
    std::filesystem::path spectrometer; ///< Holds "lock.config".
    std::filesystem::path tempFirmware; ///< Firmware of the temperature board.
    std::filesystem::path data;         ///< Holds "deviceids".
    std::filesystem::path deviceIds;    ///< The device records.
    std::filesystem::path dataLogger;   ///< The data logger's file.
};

/// One simulated instrument. It knows nothing of the library: it speaks only what the hardware speaks.
class Instrument {
public:
    struct Options {
        std::filesystem::path folder; ///< Where its files live; made when it is not there.
        double timeScale = 1.0;       ///< Instrument seconds in a real second.
    };

    /// Makes the folders, and in them the device records that are not there yet.
    /// @throws std::filesystem::filesystem_error  when the folder cannot be made.
    /// @throws std::runtime_error                 when a record cannot be written; the words name the file.
    /// @throws std::invalid_argument              when the time scale is not a positive number.
    explicit Instrument(Options const& aOptions);

    Folders const& folders() const noexcept { return mFolders; }
    std::shared_ptr<velmor::platform::Clock> clock() const noexcept { return mClock; }
    std::shared_ptr<Mainboard> mainboard() const noexcept { return mMainboard; }
    velmor::kepla::canopen::InProcessBus& canBus() const noexcept { return *mCanBus; }

private:
    void writeDeviceRecords() const;

    Folders mFolders;
    std::shared_ptr<velmor::platform::Clock> mClock;
    std::shared_ptr<Mainboard> mMainboard;
    std::unique_ptr<velmor::kepla::canopen::InProcessBus> mCanBus;
};

} // namespace libfieldwarden::sim
