// SPDX-License-Identifier: Apache-2.0
// The whole simulated instrument: its models and the folder in which its files live.
#pragma once

#include "simulator/boards/CanNode.h"
#include "simulator/boards/FlowBox.h"
#include "simulator/boards/ShimBoard.h"
#include "simulator/boards/TemperatureBoard.h"
#include "simulator/magnet/Magnet.h"
#include "simulator/mainboard/Mainboard.h"
#include "simulator/sequencer/SequencerDriver.h"
#include "simulator/thermal/DailyAmbient.h"

#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/platform/Clock.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

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
    std::filesystem::path lockFirmware; ///< Program and window of the lock sequencer.
    std::filesystem::path data;         ///< Holds "deviceids".
    std::filesystem::path deviceIds;    ///< The device records.
    std::filesystem::path dataLogger;   ///< The data logger's file.
    std::filesystem::path boards;       ///< What the boards keep in their memories.
};

/// One simulated instrument. It knows nothing of the library: it speaks only what the hardware speaks.
class Instrument {
public:
    struct Options {
        std::filesystem::path folder; ///< Where its files live; made when it is not there.
        double timeScale = 1.0;       ///< Instrument seconds in a real second.
        std::uint64_t seed = 1;       ///< Of all noise: the same seed and the same script give the same run.
        Magnet::Options magnet = {};
        DailyAmbient room = {}; ///< The air that the instrument stands in.
        bool cold = false;      ///< All bodies start at room temperature, not on their targets.
        FlowBox::Options flowBox = {};
        /// Who moves the lock sequencer on; by hand only in tests of it.
        SequencerDriver::Pace sequencerPace = SequencerDriver::Pace::Clock;
    };

    /// Makes the folders, and in them the files that are not there yet: device records, matrices, firmware,
    /// factory shims. Switches the boards on; they go on from the state that an earlier run left in the
    /// folder.
    /// @throws std::filesystem::filesystem_error  when the folder cannot be made.
    /// @throws std::runtime_error                 when a file cannot be written; the words name it.
    /// @throws std::invalid_argument              when the time scale is not a positive number.
    explicit Instrument(Options const& aOptions);

    Folders const& folders() const noexcept { return mFolders; }
    std::shared_ptr<velmor::platform::Clock> clock() const noexcept { return mClock; }
    std::shared_ptr<Mainboard> mainboard() const noexcept { return mMainboard; }
    std::shared_ptr<Magnet> magnet() const noexcept { return mMagnet; }
    /// @return The lock sequencer behind its driver; its faults too.
    std::shared_ptr<SequencerDriver> sequencer() const noexcept { return mSequencer; }
    /// @param aNumber  1 for node 8, 2 for node 9.
    /// @throws std::out_of_range  for another number.
    std::shared_ptr<ShimBoard> shimBoard(std::size_t aNumber) const { return mShimBoards.at(aNumber - 1); }
    /// @return What goes wrong between a shim board and the bus.
    BoardFaults& shimBoardFaults(std::size_t aNumber) { return mShimNodes.at(aNumber - 1)->faults(); }
    std::shared_ptr<TemperatureBoard> temperatureBoard() const noexcept { return mTemperatureBoard; }
    /// @return What goes wrong between the temperature board and the bus.
    BoardFaults& temperatureBoardFaults() noexcept { return mTemperatureNode->faults(); }
    /// @return The valves of the probe's gas, with their knob.
    std::shared_ptr<FlowBox> flowBox() const noexcept { return mFlowBox; }
    velmor::kepla::canopen::InProcessBus& canBus() const noexcept { return *mCanBus; }

private:
    void makeFolders() const;
    void writeFiles(FlowBox::Generation aFlowBox) const;
    void switchBoardsOn(Options const& aOptions);
    void wireMagnet() const;

    Folders mFolders;
    std::shared_ptr<velmor::platform::Clock> mClock;
    std::shared_ptr<Mainboard> mMainboard;
    std::shared_ptr<Magnet> mMagnet;
    std::shared_ptr<SequencerDriver> mSequencer;
    std::unique_ptr<velmor::kepla::canopen::InProcessBus> mCanBus;
    std::vector<std::shared_ptr<ShimBoard>> mShimBoards;
    std::shared_ptr<FlowBox> mFlowBox;
    std::shared_ptr<TemperatureBoard> mTemperatureBoard;
    // Last, so that the boards are switched off first.
    std::vector<std::unique_ptr<CanNode>> mShimNodes;
    std::unique_ptr<CanNode> mTemperatureNode;
};

} // namespace libfieldwarden::sim
