// SPDX-License-Identifier: Apache-2.0
// The field of the simulated magnet as the 19F lock sample feels it: how strong, and how even.
#pragma once

#include "simulator/magnet/CoilModel.h"

#include <velmor/platform/Clock.h>

#include <array>
#include <cstdint>
#include <functional>
#include <mutex>

namespace libfieldwarden::sim {

/// What the lock sample does in the field: the frequency of its line and how fast its signal decays.
struct LockLine {
    double fluorineHz = 0.0;    ///< Frequency of the line, in Hz of 19F.
    double t2StarSeconds = 0.0; ///< 1/T2* = 1/T2 + pi times the width that the field gives.
};

/// A permanent magnet of 80 MHz with its shim coils and its H0 coil.
///
/// The field over the lock sample is the sum of a homogeneous one and the harmonics of CoilModel. It falls by
/// a thousandth a kelvin, drifts, and follows the H0 coil. Without shims it is uneven by more than a
/// thousand Hz across the sample, which simulator/data/shims.factory takes out.
///
/// The sample is a cylinder along the bore, 2 cm long and 4 mm wide. Its line is taken to be a Lorentzian of
/// the width sqrt(12) times the standard deviation of the field in it, which is the full width of the line
/// that a plain gradient makes; so T2* = 1/(pi width) (E. Fukushima, S. Roeder, "Experimental Pulse NMR",
/// section on linewidths).
///
/// All operations may be called from any thread; none blocks but for the source of the currents.
class Magnet {
public:
    using Clock = velmor::platform::Clock;
    using Currents = std::array<double, CoilModel::kSources>;

    /// 19F over 1H for the lock sample.
    static constexpr double kFluorineOverProton = 0.9407841;
    /// A thousandth a kelvin, downwards: rare earth magnets.
    static constexpr double kTemperatureCoefficient = -1.0e-3;
    /// How much of a warmer shim coil arrives in the magnet: the half kelvin by which the lock may move it is
    /// 6 kHz in 1H.
    static constexpr double kShimCoilShare = 0.15;
    static constexpr double kReferenceKelvin = 298.15;
    /// What a count of the H0 converter does: 1,024 counts move the line by 68571428 / (2048 * 65536) Hz.
    /// The 2^23 counts of full scale are 4.185 kHz in 19F, 4.449 kHz in 1H.
    static constexpr double kFluorineHzPerH0Count = 68571428.0 / (2048.0 * 65536.0) / 1024.0;

    /// The strength of each harmonic, in Hz of 1H per cm^degree.
    using Harmonics = std::array<double, CoilModel::kHarmonics>;

    struct Options {
        double protonHz = 80'123'400.0;         ///< At the reference temperature, at first.
        double driftProtonHzPerSecond = -0.06;  ///< 216 Hz an hour: more than the H0 range in a day.
        double t2Seconds = 0.020;               ///< Of the lock sample in an even field.
        ShimSystem system = ShimSystem::Wmxs1a; ///< The coils that are fitted.
        Harmonics raw = rawField();             ///< Of the magnet without shims.
    };

    /// @param aNow  When the drift begins.
    Magnet(Options const& aOptions, Clock::TimePoint aNow);

    /// @param aSource  Asked for the currents of all sources, in A, whenever the line is; none: no current.
    void setCurrentSource(std::function<Currents()> aSource);
    /// @param aKelvin  Temperature of the magnet from now on; 298.15 K at first.
    void setMagnetTemperature(double aKelvin);
    /// @param aKelvin  Temperature of the shim coils from now on; 298.15 K at first.
    void setShimCoilTemperature(double aKelvin);
    /// A step of the field, as a passing lift makes it. @param aProtonHz  In Hz of 1H; adds to former ones.
    void jump(double aProtonHz);
    /// @param aProtonHzPerSecond  The drift from now on.
    void setDrift(double aProtonHzPerSecond, Clock::TimePoint aNow);

    /// @param aNow      The time.
    /// @param aH0Count  What the H0 converter puts out, -2^23 to 2^23 - 1.
    /// @return The line of the lock sample.
    LockLine lockLine(Clock::TimePoint aNow, std::int32_t aH0Count) const;

    /// @return How uneven the field is that simulator/data/shims.factory makes even.
    static Harmonics const& rawField();

private:
    /// Mean and spread of the harmonics in the sample.
    struct Sample {
        Harmonics mean{};
        std::array<Harmonics, CoilModel::kHarmonics> covariance{};
    };
    static Sample const& sample();

    double homogeneous(Clock::TimePoint aNow) const;

    CoilModel const mCoils;
    double const mProtonHz;
    double const mT2Seconds;
    Harmonics const mRaw;

    mutable std::mutex mMutex; ///< Guards all below.
    std::function<Currents()> mCurrents;
    double mMagnetKelvin = kReferenceKelvin;
    double mShimCoilKelvin = kReferenceKelvin;
    double mDriftProtonHzPerSecond;
    Clock::TimePoint mDriftSince;
    double mOffsetProtonHz = 0.0; ///< What jumps and former drifts left.
};

} // namespace libfieldwarden::sim
