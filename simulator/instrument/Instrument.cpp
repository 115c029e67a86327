// SPDX-License-Identifier: Apache-2.0
// How a simulated instrument comes into being.
#include "simulator/instrument/Instrument.h"

#include "simulator/instrument/DeviceRecords.h"
#include "simulator/instrument/EmbeddedFile.h"

#include <velmor/platform/ScaledClock.h>

#include <algorithm>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace libfieldwarden::sim {

namespace {

/// A file that is there stays as it is: kept from an earlier run, or put there to try something else.
void writeUnlessThere(std::filesystem::path const& aPath, std::string_view aBytes) {
    if (std::filesystem::exists(aPath)) {
        return;
    }
    // Under another name first: what a full disk leaves of it would be taken for whole in the next run.
    std::filesystem::path const unfinished = aPath.string() + ".unfinished";
    std::ofstream file(unfinished, std::ios::binary);
    file << aBytes;
    file.close();
    std::error_code failure;
    if (file) {
        std::filesystem::rename(unfinished, aPath, failure);
    }
    if (!file || failure) {
        std::filesystem::remove(unfinished, failure);
        throw std::runtime_error("Cannot write the simulated instrument's file '" + aPath.string() + "'");
    }
}

} // namespace

Folders::Folders(std::filesystem::path aRoot)
    : root(std::move(aRoot))
    , config(root / "etc/libfieldwarden")
    , factory(root / "data/factory")
    , shimFirmware(root / "usr/share/firmware/Q47ShimBoard")
    , spectrometer(root / "opt/panorin/conf/instr/spect")
    , tempFirmware(root / "usr/share/firmware/Q47TemperatureBoard")
    , lockFirmware(root / "usr/share/firmware/Q47Lock")
    , data(root / "data")
    , deviceIds(data / "deviceids")
    , dataLogger(data / "libfieldwarden/datalogger.sqlite")
    , boards(root / "boards") {}

Instrument::Instrument(Options const& aOptions)
    : mFolders(std::filesystem::absolute(aOptions.folder))
    , mClock(std::make_shared<velmor::platform::ScaledClock>(aOptions.timeScale))
    , mMainboard(std::make_shared<Mainboard>())
    , mMagnet(std::make_shared<Magnet>(aOptions.magnet, mClock->now()))
    , mSequencer(std::make_shared<SequencerDriver>(
          mClock, mMagnet, mMainboard, Sequencer::Options{.seed = aOptions.seed}, aOptions.sequencerPace))
    , mCanBus(std::make_unique<velmor::kepla::canopen::InProcessBus>(
          velmor::kepla::canopen::InProcessBusSettings{}, *mClock)) {
    makeFolders();
    writeFiles(aOptions.flowBox.generation);
    switchBoardsOn(aOptions);
    wireMagnet();
}

void Instrument::makeFolders() const {
    for (auto const& folder : {mFolders.config / "matrices", mFolders.factory, mFolders.shimFirmware,
                               mFolders.spectrometer, mFolders.tempFirmware, mFolders.lockFirmware,
                               mFolders.deviceIds, mFolders.dataLogger.parent_path(), mFolders.boards}) {
        std::filesystem::create_directories(folder);
    }
}

void Instrument::writeFiles(FlowBox::Generation aFlowBox) const {
    for (DeviceRecord const& record : kDeviceRecords) {
        writeUnlessThere(mFolders.deviceIds / record.file, record.text);
    }
    writeUnlessThere(mFolders.deviceIds / "vtu.mds", vtuRecord(aFlowBox));
    struct Delivery {
        std::span<EmbeddedFile const> files;
        std::filesystem::path folder;
    };
    for (Delivery const& delivery :
         {Delivery{matrixFiles(), mFolders.config / "matrices"},
          Delivery{shimFirmwareFiles(), mFolders.shimFirmware},
          Delivery{tempFirmwareFiles(), mFolders.tempFirmware}, Delivery{factoryFiles(), mFolders.factory},
          Delivery{lockFirmwareFiles(), mFolders.lockFirmware},
          Delivery{spectrometerFiles(), mFolders.spectrometer}}) {
        for (EmbeddedFile const& file : delivery.files) {
            writeUnlessThere(delivery.folder / file.name,
                             {reinterpret_cast<char const*>(file.bytes.data()), file.bytes.size()});
        }
    }
}

void Instrument::switchBoardsOn(Options const& aOptions) {
    for (std::uint8_t const node : {std::uint8_t{8}, std::uint8_t{9}}) {
        std::string const name = "shim-board-" + std::to_string(node);
        auto const board = std::make_shared<ShimBoard>(
            ShimBoard::Options{
                .node = node, .stateFile = mFolders.boards / (name + ".json"), .seed = aOptions.seed + node},
            *mClock);
        mShimBoards.push_back(board);
        mShimNodes.push_back(std::make_unique<CanNode>(mCanBus->open(name), node, board, *mClock));
    }
    constexpr std::uint8_t kTemperatureNode = 7;
    std::string const name = "temperature-board-7";
    mFlowBox = std::make_shared<FlowBox>(aOptions.flowBox, *mClock);
    mTemperatureBoard = std::make_shared<TemperatureBoard>(
        TemperatureBoard::Options{.node = kTemperatureNode,
                                  .stateFile = mFolders.boards / (name + ".json"),
                                  .seed = aOptions.seed + kTemperatureNode,
                                  .room = aOptions.room,
                                  .cold = aOptions.cold,
                                  .gas = mFlowBox},
        *mClock);
    mTemperatureNode =
        std::make_unique<CanNode>(mCanBus->open(name), kTemperatureNode, mTemperatureBoard, *mClock);
}

/// The magnet feels what the boards drive and hold. It keeps the shim boards, since the sequencer may outlive
/// the instrument; the temperature board keeps it.
void Instrument::wireMagnet() const {
    mMagnet->setCurrentSource([boards = mShimBoards] {
        Magnet::Currents currents{};
        auto place = currents.begin();
        for (auto const& board : boards) {
            auto const driven = board->currentsAmpere();
            place = std::copy(driven.begin(), driven.end(), place);
        }
        return currents;
    });
    mTemperatureBoard->setFieldObserver([magnet = mMagnet](double aMagnetKelvin, double aShimCoilKelvin) {
        magnet->setMagnetTemperature(aMagnetKelvin);
        magnet->setShimCoilTemperature(aShimCoilKelvin);
    });
}

} // namespace libfieldwarden::sim
