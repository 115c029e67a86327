// SPDX-License-Identifier: Apache-2.0
// What the temperature board does four times a second: it measures, regulates and heats.
#pragma once

#include "simulator/boards/GasSupplyIfc.h"
#include "simulator/thermal/DailyAmbient.h"
#include "simulator/thermal/HeatingWatch.h"
#include "simulator/thermal/PiRegulator.h"
#include "simulator/thermal/ThermalModel.h"

#include <velmor/platform/Clock.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>

namespace libfieldwarden::sim {

/// The sensors of the temperature board.
enum class TemperatureSensor : std::uint8_t {
    MagnetLeft,
    MagnetRight,
    MagnetFront,
    MagnetBack,
    MagnetTop,
    MagnetBottom,
    ShimCoilTop,
    ShimCoilBottom,
    IsoBoxReference,
    LocalReference,
    HeatsinkAir,
    Electronics,
    MixedGas,
    Probe,
    Spiral,
    Exhaust,
};

/// What can be wrong with a sensor; the values stand in the sensors' status objects.
enum class SensorFault : std::uint8_t { None = 0, Open = 1, Short = 2 };

/// The regulators of the board and the bodies that they hold, without bus and dictionary. It samples every
/// 250 ms: it measures with noise, regulates, and drives its outputs until the next sample. What is commanded
/// takes effect with the next sample, as it does on the board.
///
/// ```
///   probe target ─> probe regulator ─> spiral target ─> spiral regulator ─> spiral power      probe
///   regulation
///                                      spiral target ─> spiral regulator ─> spiral power      spiral
///                                      regulation
///                                                                           spiral power      neither
/// ```
///
/// Heating without gas is not prevented: that is the task of whoever commands the board. It shows in the
/// spiral's temperature and in the HeatingWatch. What does end the heating is its time-out: when nobody has
/// talked to the board for so long.
///
/// Passive: advanceTo() carries it on. Not for several threads at a time; nothing blocks.
class TemperatureControl {
public:
    using Duration = velmor::platform::Clock::Duration;
    using TimePoint = velmor::platform::Clock::TimePoint;

    static constexpr Duration kSamplePeriod = std::chrono::milliseconds(250);
    static constexpr std::size_t kSensors = 16;
    static constexpr std::size_t kHeaters = 9; ///< Six faces, shim mat, Peltier element, spiral.
    /// The spiral's regulator goes no higher, whatever the probe would need.
    static constexpr double kHottestSpiralTarget = 250.0;

    enum class Heating : std::uint8_t { Off = 0, On = 1, CutByTimeout = 2 };

    /// What the board is told. Temperatures in degrees Celsius.
    struct Settings {
        bool outputs = true; ///< The program runs; without it nothing is driven.
        double magnetTarget = 25.0;
        std::array<double, ThermalModel::kShimEnds> shimTargets{25.0, 25.0}; ///< Their mean is held.
        double isoBoxTarget = 21.0;
        bool bigPeltier = false;
        bool shimCooling = false;
        bool gasHeating = false; ///< The option is there; without it the spiral is not driven.
        bool probeRegulation = false;
        bool spiralRegulation = false;
        double probeTarget = 25.0;
        double spiralTarget = 25.0;
        double spiralWatt = 0.0;                 ///< In effect while nothing is regulated.
        std::chrono::seconds heatingTimeout{60}; ///< 0 for none.
        PiRegulator::Terms magnet;               ///< Output in W, for each face.
        PiRegulator::Terms shimCoil;             ///< Output in W.
        PiRegulator::Terms isoBox;               ///< Output: current over the largest one, above 0 heating.
        PiRegulator::Terms spiral;               ///< Output in W.
        PiRegulator::Terms probe;                ///< Output in K above the probe's target.
    };

    /// @param aGas   The valves; not null.
    /// @param aCold  Everything starts at room temperature, and not as after days of regulation.
    TemperatureControl(Settings const& aSettings,
                       DailyAmbient const& aAmbient,
                       std::shared_ptr<GasSupplyIfc> aGas,
                       std::uint64_t aSeed,
                       bool aCold,
                       TimePoint aNow);

    /// Takes all samples that are due until a time.
    void advanceTo(TimePoint aNow);
    /// @return When the next sample is due.
    TimePoint nextSample() const noexcept { return mNextSample; }

    Settings const& settings() const noexcept { return mSettings; }
    /// Changes the settings: whatever regulates ends a power that was set by hand, and a heating without the
    /// option is none.
    void command(TimePoint aNow, Settings const& aSettings);
    /// The program starts anew, or stops: heating and gas are off, the regulators begin without integral.
    void restart(Settings const& aSettings, TimePoint aNow);
    /// Sets the gas.
    void setGasIndex(std::uint8_t aIndex, TimePoint aNow);
    /// Somebody has talked to the board: the heating's time-out begins anew.
    void talkedTo(TimePoint aNow) { mLastTalk = aNow; }
    /// @return When the heating will be cut if nobody talks to the board; none while it is off or has no
    ///         time-out.
    std::optional<TimePoint> heatingDeadline() const;
    /// @return Whether the time-out has cut the heating since the last question.
    bool takeCut();

    /// @return What the last sample measured, in degrees Celsius; what a broken sensor shows is the end of
    ///         its range.
    double measured(TemperatureSensor aSensor) const;
    SensorFault fault(TemperatureSensor aSensor) const;
    void setFault(TemperatureSensor aSensor, SensorFault aFault);

    ThermalModel::Drive const& drive() const noexcept { return mDrive; }
    ThermalModel const& model() const noexcept { return mModel; }
    GasSupplyIfc const& gas() const noexcept { return *mGas; }
    /// @param aAmbient  The room's air from now on, its time counted from the beginning.
    void setAmbient(DailyAmbient const& aAmbient) { mAmbient = aAmbient; }
    /// @return What the watch has seen until now, an episode that lasts included.
    HeatingWatch const& watchUntil(TimePoint aNow);
    void resetWatch(TimePoint aNow);
    Heating heating() const noexcept { return mHeating; }
    /// @return What the spiral's regulator aims at, by command or by the probe's regulator.
    double spiralTarget() const noexcept { return mSpiralTarget; }

    PiRegulator::State faceState(std::size_t aFace) const { return mFaces.at(aFace).state(); }
    PiRegulator::State shimCoilState() const noexcept { return mShimCoil.state(); }
    PiRegulator::State isoBoxState() const noexcept { return mIsoBox.state(); }
    PiRegulator::State spiralState() const noexcept { return mSpiral.state(); }
    PiRegulator::State probeState() const noexcept { return mProbe.state(); }

    /// @return The electrical energy that each has taken since the start, in J: six faces, shim mat, Peltier
    ///         element, spiral.
    std::array<double, kHeaters> const& energies() const noexcept { return mEnergies; }

private:
    bool heats() const;
    void applyTerms();
    void watch(TimePoint aNow);
    void sample(TimePoint aNow);
    void measure();
    void checkTimeout(TimePoint aNow);
    void regulateMagnet();
    void regulateShimCoil();
    void regulateIsoBox();
    double regulateSpiral();
    void countEnergies();
    bool works(TemperatureSensor aSensor) const { return fault(aSensor) == SensorFault::None; }

    Settings mSettings;
    DailyAmbient mAmbient;
    std::shared_ptr<GasSupplyIfc> const mGas;
    TimePoint const mBegin;
    ThermalModel mModel;
    ThermalModel::Drive mDrive;
    std::array<PiRegulator, ThermalModel::kFaces> mFaces;
    PiRegulator mShimCoil;
    PiRegulator mIsoBox;
    PiRegulator mSpiral;
    PiRegulator mProbe;
    std::array<double, kSensors> mMeasured{};
    std::array<SensorFault, kSensors> mFaults{};
    std::array<double, kHeaters> mEnergies{};
    HeatingWatch mWatch;
    Heating mHeating = Heating::Off;
    bool mCut = false;
    double mSpiralTarget;
    TimePoint mLastTalk;
    TimePoint mNextSample;
    std::mt19937_64 mRandom;
    std::normal_distribution<double> mNoise{0.0, 1.0};
};

} // namespace libfieldwarden::sim
