// SPDX-License-Identifier: Apache-2.0
// A simulated shim board: 17 current sources, five temperatures, its program, and the dictionary that shows
// them.
#pragma once

#include "simulator/boards/BoardModelIfc.h"
#include "simulator/boards/FirstOrderLag.h"
#include "simulator/boards/ObjectDictionary.h"
#include "simulator/boards/ProgramImage.h"
#include "simulator/boards/ShimBoardState.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <span>
#include <string>
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
/// A restart loses the currents: they are 0 after it. The end of the simulation is none: the board is as
/// hardware that stays switched on, and its currents, program and record are in a file from which the next
/// one goes on.
///
/// The program can be replaced: stopped, the board runs its bootloader, which knows the objects up to 0x1FFF
/// and 0x200A to 0x200D only; cleared, it takes a ProgramImage, checks it, and runs it when started.
///
/// All operations may be called from any thread. They block for the disk where they change the state.
class ShimBoard final : public BoardModelIfc, private virtual velmor::kepla::log::Logger {
public:
    using Clock = velmor::platform::Clock;
    using SdoObject = velmor::kepla::canopen::SdoObject;

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
    static constexpr Clock::Duration kStartTime = std::chrono::milliseconds(300);
    static constexpr Clock::Duration kClearTime = std::chrono::milliseconds(800);
    static constexpr Clock::Duration kCheckTime =
        std::chrono::milliseconds(200); ///< For a new program image.
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
    std::uint32_t read(SdoObject aObject, std::vector<std::uint8_t>& aData) override;
    std::uint32_t write(SdoObject aObject, std::span<std::uint8_t const> aData) override;
    std::unique_ptr<velmor::kepla::canopen::ObjectWriteStream> openStream(
        SdoObject aObject, std::optional<std::uint32_t> aSize) override;
    void restart(Start aWhy) override;
    void resetCommunication() override;
    TimePoint advance(TimePoint aNow) override;
    TimePoint answerTime() const override;
    bool takeRestartRequest() override;
    std::vector<Emergency> takeEmergencies() override;
    Duration heartbeatPeriod() const override;
    Duration startTime() const override { return kStartTime; }
    void setWaker(std::function<void()> aWake) override;

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
    /// Sends an emergency that has no other consequence than an entry in 0x1003.
    void raiseEmergency(Emergency const& aEmergency);

    /// @return All objects and their rows, whatever the bootloader hides.
    ObjectDictionary const& dictionary() const noexcept { return mDictionary; }
    /// @return Whether the program runs, and not the bootloader.
    bool programRuns() const;

private:
    class ImageStream;

    struct Source {
        std::int32_t setpointUA = 0;
        FirstOrderLag currentUA{kSettlingTime, 0.0};
        SourceError failure = SourceError::None; ///< What is broken; shows while the source is on.
        SourceError reported = SourceError::None;
    };

    void describe();
    void bindObjects();
    void bindProgram();
    void loadState(std::filesystem::path const& aFile);
    void saveState();
    void note(std::string const& aText);

    std::uint32_t setCurrents(std::span<std::uint8_t const> aData);
    void applySetpoint(Source& aSource, TimePoint aNow);
    std::int64_t measuredCurrent(std::size_t aSource);
    std::int64_t measuredTemperature(std::size_t aSensor);
    SourceError errorOf(Source const& aSource) const;
    void reportErrors();
    std::uint8_t errorRegister() const;
    void report(std::uint16_t aCode, std::array<std::uint8_t, 5> const& aManufacturer);
    void remember(Emergency const& aEmergency);
    double powerWatt() const;
    void heat(TimePoint aNow);
    void wake();

    void start(Start aWhy);
    std::uint32_t controlProgram(std::int64_t aCommand);
    void clearFlash();
    std::uint32_t beginImage();
    void checkImage(std::span<std::uint8_t const> aPacked);
    bool flashBusy() const;
    std::uint32_t flashStatus() const;

    std::uint8_t const mNode;
    std::filesystem::path const mStateFile;
    Clock& mClock;

    mutable std::mutex mMutex; ///< Guards all below.
    ObjectDictionary mDictionary;
    ShimBoardState mState;
    std::array<Source, kSources> mSources;
    std::vector<FirstOrderLag> mSensors; ///< In degrees Celsius.
    double mAmbientCelsius;
    bool mTooHot = false;
    std::mt19937_64 mNoise;
    std::string mLog;
    bool mCalibrated = true;
    bool mSaveFailed = false;

    bool mProgramRuns = true;
    bool mProgramWanted = true; ///< Whether the program, and not the bootloader, starts next.
    FlashError mFlashError = FlashError::None;
    TimePoint mFlashBusyUntil;
    bool mCleared = false; ///< The flash is empty and waits for an image.
    TimePoint mStartedAt;
    Start mStartReason = Start::PowerOn;
    std::uint32_t mEmergencyCount = 0;

    TimePoint mAnswerTime;
    bool mRestartRequest = false;
    std::vector<Emergency> mEmergencies;
    std::mutex mWakeMutex; ///< Held while the waker runs; never together with the other one.
    std::function<void()> mWake;
};

} // namespace libfieldwarden::sim
