// SPDX-License-Identifier: Apache-2.0
// A simulated temperature board: magnet, shim coil, iso box and probe gas, its program, and the dictionary
// that shows them.
#pragma once

#include "simulator/boards/BoardBase.h"
#include "simulator/boards/GasSupplyIfc.h"
#include "simulator/boards/TemperatureBoardState.h"
#include "simulator/boards/TemperatureControl.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>
#include <vector>

namespace libfieldwarden::sim {

/// One temperature board without its bus. Its TemperatureControl samples and regulates four times a second;
/// what an object shows is the last sample. While the bootloader runs nothing is driven and nothing is
/// measured anew by anybody, but things cool down.
///
/// The setup (modes, PID parameters, targets of magnet and iso box) is in effect at once when it is written;
/// the EEPROM keeps what was stored with 0x3401:06, and a restart goes back to it. What a restart always
/// loses: the targets of shim coil, probe and spiral, the time-out, and with them heating and gas. From one
/// run of the program to the next setup and shim coil targets stay, heating and gas are off, and all bodies
/// are on their targets, as on a board that has stayed switched on.
///
/// Gas heating needs the option: with mode 0 in 0x3401:05 what would switch heating on is refused with
/// 0x08000022.
///
/// The heating goes off of itself in one case only: when nobody has read or written any object for the time
/// of 0x3303:06, which an emergency 0x8130 tells. Heating without gas is not prevented: it shows, in the
/// spiral's temperature, as emergency 0x4310 and in heatingWatch().
///
/// All operations may be called from any thread. They block for the disk where they change the state.
class TemperatureBoard final : public BoardBase {
public:
    static constexpr std::string_view kPlatform = "Q47-TEMP";

    /// The program that a new board comes with; the one of simulator/data/firmware/temperature.
    static constexpr std::uint32_t kFactoryBuildId = 2017;
    static constexpr std::string_view kFactoryVersion = "2.0.17";

    /// How long after a start the interface board's data are there.
    static constexpr Clock::Duration kInterfaceBoardTime = std::chrono::seconds(3);
    static constexpr double kSpiralTooHotCelsius = 260.0;
    static constexpr double kSpiralCoolAgainCelsius = 240.0;

    /// Both in K: what the magnet's field depends on.
    using FieldObserver = std::function<void(double aMagnetKelvin, double aShimCoilKelvin)>;

    struct Options {
        std::uint8_t node = 7;                ///< 1 to 127; the instrument's board is 7.
        std::filesystem::path stateFile = {}; ///< Where the state is kept; empty: nowhere.
        std::uint64_t seed = 1; ///< Of the noise; the same seed and the same script give the same run.
        DailyAmbient room = {};
        bool cold = false; ///< Everything starts at room temperature, as if it had been switched off.
        std::shared_ptr<GasSupplyIfc> gas = {}; ///< None for a DirectGasSupply.
    };

    /// Goes on from the state that the file holds. A damaged file gives a new board, whose default PID
    /// parameters count as not read and whose log tells why.
    /// @param aClock  The time; outlives the board.
    explicit TemperatureBoard(Options const& aOptions, Clock& aClock = Clock::current());

    // The bus.
    TimePoint advance(TimePoint aNow) override;
    TimePoint answerTime() const override { return {}; }

    // The physics around the board.
    /// @param aObserver  Told of the true temperatures, on the thread that drives the board, about once a
    ///                   second of the board's time and once at once; none for nobody. After the return the
    ///                   former one is not called any more.
    void setFieldObserver(FieldObserver aObserver);
    /// @return The true temperatures after the last sample.
    ThermalModel::Temperatures temperatures();
    /// @return What the board drives since the last sample.
    ThermalModel::Drive drive();
    double roomCelsius();
    /// @param aRoom  The room's air from now on, its time counted from the board's start.
    void setRoom(DailyAmbient const& aRoom);
    /// @return The worst that was done to the heating spiral so far: to within a sample where the gas was
    ///         lost in the box, at once where the board was told.
    HeatingWatch heatingWatch();
    /// Forgets it.
    void resetHeatingWatch();

    // What goes wrong in the board.
    /// Breaks a sensor, or mends it: it shows the end of its range, what it serves is not driven, and an
    /// emergency tells. @throws std::out_of_range  for what is no sensor.
    void failSensor(TemperatureSensor aSensor, SensorFault aFault);
    /// The spiral's supply has limited its current. @param aCount  How often; the counter ends at 255.
    void countOvercurrent(unsigned aCount = 1);

private:
    BoardState& state() override { return mState; }
    void loadState(std::filesystem::path const& aFile) override;
    void storeState(std::filesystem::path const& aFile) override { mState.save(aFile); }
    void onRestart(TimePoint aNow) override;
    void onAccess(TimePoint aNow) override;
    std::uint32_t writeObject(SdoObject aObject, std::span<std::uint8_t const> aData) override;
    std::uint8_t errorBits() const override;

    void bindMagnet();
    void bindShimCoil();
    void bindIsoBox();
    void bindGas();
    void bindSetup();
    void bindRaw();
    void bindHeatingCommands();
    void bindStatus(std::uint16_t aIndex, std::uint8_t aFirst, TemperatureSensor aSensor, std::size_t aCount);
    void showSetup(TemperatureBoardState::Setup const& aSetup);
    void showShimTargets();
    void apply();
    TemperatureControl::Settings settings(TemperatureControl::Settings const& aPresent) const;
    std::uint32_t setShimTarget(std::size_t aSubindex, std::int64_t aTarget);
    std::uint32_t setRegulation(bool TemperatureControl::Settings::*aWhich, std::int64_t aOn);
    std::uint32_t setSpiralPower(std::int64_t aMilliWatt);
    std::uint32_t storeSetup();
    void catchUp(TimePoint aNow);
    void reportSpiral();
    double magnetMean() const;
    double shimMean() const;
    bool interfaceBoardIsReady() const;
    std::int64_t takeOvercurrents();
    std::uint16_t storedSum() const;
    void onReadEach(std::uint16_t aIndex,
                    std::uint8_t aFirst,
                    std::size_t aCount,
                    std::function<std::int64_t(std::size_t)> const& aGet);

    TemperatureBoardState mState;
    std::unique_ptr<TemperatureControl> mControl; ///< Made when the state is known; never null after that.
    bool mSpiralTooHot = false;
    unsigned mOvercurrents = 0;
    TimePoint mInterfaceBoardReadyAt;
    std::mutex mObserverMutex; ///< Held while the observer runs; never together with the board's own.
    FieldObserver mObserver;
};

} // namespace libfieldwarden::sim
