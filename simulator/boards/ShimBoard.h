// SPDX-License-Identifier: Apache-2.0
// A simulated shim board: 17 current sources, five temperatures, its program, and the dictionary that shows
// them.
#pragma once

#include "simulator/boards/BoardBase.h"
#include "simulator/boards/FirstOrderLag.h"
#include "simulator/boards/ShimBoardState.h"

#include <velmor/platform/Clock.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <random>
#include <span>
#include <string_view>
#include <vector>

namespace libfieldwarden::sim {

/// What a current source reports instead of a current, as 10000000 plus the value.
enum class SourceError : std::uint8_t {
    None = 0,
    OpenLoad = 1,        ///< Nothing is connected, or a wire is broken.
    OverCurrent = 2,     ///< The output is shorted; the source has switched itself off.
    OverTemperature = 3, ///< The board is too hot and has switched all sources off.
};

/// One shim board without its bus.
///
/// A current that is written goes to a DAC in steps of 2 uA, so an odd value comes out 1 uA away, and settles
/// with a time constant. The board confirms the writing when the sources have settled. A source that is set
/// to 0 is switched off and reads 0; a source that is on reads its current with a little noise, or an error
/// code.
///
/// The linear outputs turn their dropout voltage into heat, by which the five sensors warm up with time
/// constants of minutes. Above 85 degrees Celsius on the heatsink all sources go off until it is down at 75.
///
/// A restart loses the currents: they are 0 after it. From one run of the program to the next they stay, with
/// the rest of the state.
///
/// All operations may be called from any thread. They block for the disk where they change the state.
class ShimBoard final : public BoardBase {
public:
    static constexpr std::size_t kSources = ShimBoardState::kSources;
    static constexpr std::size_t kSensors = 5;
    static constexpr std::int32_t kStepUA = 2;
    static constexpr std::int32_t kErrorBase = 10'000'000; ///< Above it a value is an error code.
    static constexpr std::string_view kPlatform = "Q47-SHIM";

    /// The program that a new board comes with; the one of simulator/data/firmware.
    static constexpr std::uint32_t kFactoryBuildId = 1042;
    static constexpr std::string_view kFactoryVersion = "1.0.42";

    static constexpr Clock::Duration kSettlingTime =
        std::chrono::microseconds(500); ///< Time constant of a source.
    static constexpr double kTooHotCelsius = 85.0;
    static constexpr double kCoolAgainCelsius = 75.0;

    struct Options {
        std::uint8_t node = 8;                ///< 1 to 127; the instrument's boards are 8 and 9.
        std::filesystem::path stateFile = {}; ///< Where the state is kept; empty: nowhere.
        std::uint64_t seed = 1;       ///< Of the noise; the same seed and the same script give the same run.
        double ambientCelsius = 25.0; ///< Air in the cabinet.
    };

    /// Goes on from the state that the file holds. A damaged file gives a new board without calibration,
    /// whose log tells why.
    /// @param aClock  The time; outlives the board.
    explicit ShimBoard(Options const& aOptions, Clock& aClock = Clock::current());

    // The bus.
    TimePoint advance(TimePoint aNow) override;
    TimePoint answerTime() const override;

    // The physics around the board.
    /// @return The currents that flow now, in A, source 1 first: what the magnet sees.
    std::array<double, kSources> currentsAmpere() const;
    /// @return The currents that were last set, in uA.
    std::array<std::int32_t, kSources> setpointsUA() const;
    /// @return The true temperatures now, in degrees Celsius, sensor 1 first.
    std::array<double, kSensors> temperaturesCelsius() const;
    /// @param aCelsius  Temperature of the air in the cabinet from now on.
    void setAmbient(double aCelsius);

    // What goes wrong in the board.
    /// Lets a source fail, or mends it: its error code goes out while it is switched on, with an emergency.
    /// @param aSource  1 to 17.
    /// @param aError   OpenLoad or OverCurrent; None mends.
    /// @throws std::out_of_range      for another source.
    /// @throws std::invalid_argument  for OverTemperature, which heat alone makes.
    void failSource(std::size_t aSource, SourceError aError);

private:
    struct Source {
        std::int32_t setpointUA = 0;
        FirstOrderLag currentUA{kSettlingTime, 0.0};
        SourceError failure = SourceError::None; ///< What is broken; shows while the source is on.
        SourceError reported = SourceError::None;
    };

    BoardState& state() override { return mState; }
    void loadState(std::filesystem::path const& aFile) override;
    void storeState(std::filesystem::path const& aFile) override;
    void onRestart(TimePoint aNow) override;
    std::uint8_t errorBits() const override;
    void bindObjects();

    std::uint32_t setCurrents(std::span<std::uint8_t const> aData);
    void applySetpoint(Source& aSource, TimePoint aNow);
    std::int64_t measuredCurrent(std::size_t aSource);
    std::int64_t measuredTemperature(std::size_t aSensor);
    SourceError errorOf(Source const& aSource) const;
    void reportErrors();
    double powerWatt() const;
    void heat(TimePoint aNow);

    ShimBoardState mState;
    std::array<Source, kSources> mSources;
    std::vector<FirstOrderLag> mSensors; ///< In degrees Celsius.
    double mAmbientCelsius;
    bool mTooHot = false;
    std::mt19937_64 mNoise;
    TimePoint mAnswerTime;
};

} // namespace libfieldwarden::sim
