// SPDX-License-Identifier: Apache-2.0
// Strength and evenness of the field in the lock sample.
#include "simulator/magnet/Magnet.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string_view>
#include <utility>
#include <vector>

namespace libfieldwarden::sim {

namespace {

constexpr std::size_t kHarmonics = CoilModel::kHarmonics;

struct RawTerm {
    std::string_view harmonic;
    double hzPerCm; ///< In Hz of 1H per cm^degree.
};

/// As the magnet came from assembly. The factory shims are these with the other sign, in units of what
/// 1/130000 A makes of each in its own coil of 2 cm radius: 37000 units of Z at 0.02 Hz/cm are 740 Hz/cm. A
/// unit of Z4 counts twice: 1500 units at 2 * 0.003 Hz/cm^4 are 9 Hz/cm^4.
constexpr std::array kRawField{
    RawTerm{"Z", -740.0},      RawTerm{"Z2", 124.0}, RawTerm{"Z3", -14.0}, RawTerm{"Z4", 9.0},
    RawTerm{"X", -288.0},      RawTerm{"Y", 402.0},  RawTerm{"XZ", -42.0}, RawTerm{"YZ", 36.0},
    RawTerm{"(X2-Y2)", -52.8}, RawTerm{"XY", 46.4},
};

constexpr double kSampleHalfLengthCm = 1.0;
constexpr double kSampleRadiusCm = 0.2;
constexpr int kSlices = 21; ///< Along the bore: enough for the highest degree squared.
constexpr int kRings = 4;
constexpr int kRays = 12; ///< About the bore: enough for the highest order squared.

/// A harmonic at a point: rho^m cos(m phi) times z^k - ..., k = n - m, so that Laplace's equation holds. The
/// power of z that is two lower follows from (m + 2j)^2 - m^2 = 4j(m + j) and k(k - 1).
double valueAt(Harmonic const& aHarmonic, double aZ, double aRho, double aPhi) {
    int const m = aHarmonic.order;
    int const k = aHarmonic.degree - m;
    double coefficient = 1.0;
    double sum = 0.0;
    for (int j = 0; 2 * j <= k; ++j) {
        if (j > 0) {
            coefficient *= -static_cast<double>((k - 2 * j + 2) * (k - 2 * j + 1)) / (4.0 * j * (m + j));
        }
        sum += coefficient * std::pow(aZ, k - 2 * j) * std::pow(aRho, 2 * j);
    }
    double const angle = m * aPhi;
    return std::pow(aRho, m) * (aHarmonic.sine ? std::sin(angle) : std::cos(angle)) * sum;
}

} // namespace

/// The midpoint rule in z, in rho squared and in phi: cells of equal volume.
Magnet::Sample const& Magnet::sample() {
    static Sample const kSample = [] {
        Sample result;
        double const weight = 1.0 / (kSlices * kRings * kRays);
        for (int slice = 0; slice < kSlices; ++slice) {
            double const z = kSampleHalfLengthCm * ((2.0 * slice + 1.0) / kSlices - 1.0);
            for (int ring = 0; ring < kRings; ++ring) {
                double const rho = kSampleRadiusCm * std::sqrt((ring + 0.5) / kRings);
                for (int ray = 0; ray < kRays; ++ray) {
                    double const phi = 2.0 * std::numbers::pi * ray / kRays;
                    Harmonics values{};
                    for (std::size_t i = 0; i < kHarmonics; ++i) {
                        values[i] = valueAt(CoilModel::harmonics()[i], z, rho, phi);
                        result.mean[i] += weight * values[i];
                    }
                    for (std::size_t i = 0; i < kHarmonics; ++i) {
                        for (std::size_t j = 0; j < kHarmonics; ++j) {
                            result.covariance[i][j] += weight * values[i] * values[j];
                        }
                    }
                }
            }
        }
        for (std::size_t i = 0; i < kHarmonics; ++i) {
            for (std::size_t j = 0; j < kHarmonics; ++j) {
                result.covariance[i][j] -= result.mean[i] * result.mean[j];
            }
        }
        return result;
    }();
    return kSample;
}

Magnet::Magnet(Options const& aOptions, Clock::TimePoint aNow)
    : mCoils(aOptions.system)
    , mProtonHz(aOptions.protonHz)
    , mT2Seconds(aOptions.t2Seconds)
    , mRaw(aOptions.raw)
    , mDriftProtonHzPerSecond(aOptions.driftProtonHzPerSecond)
    , mDriftSince(aNow) {}

void Magnet::setCurrentSource(std::function<Currents()> aSource) {
    std::lock_guard const lock(mMutex);
    mCurrents = std::move(aSource);
}

void Magnet::setMagnetTemperature(double aKelvin) {
    std::lock_guard const lock(mMutex);
    mMagnetKelvin = aKelvin;
}

void Magnet::setShimCoilTemperature(double aKelvin) {
    std::lock_guard const lock(mMutex);
    mShimCoilKelvin = aKelvin;
}

void Magnet::jump(double aProtonHz) {
    std::lock_guard const lock(mMutex);
    mOffsetProtonHz += aProtonHz;
}

void Magnet::setDrift(double aProtonHzPerSecond, Clock::TimePoint aNow) {
    std::lock_guard const lock(mMutex);
    mOffsetProtonHz += mDriftProtonHzPerSecond * std::chrono::duration<double>(aNow - mDriftSince).count();
    mDriftSince = aNow;
    mDriftProtonHzPerSecond = aProtonHzPerSecond;
}

Magnet::Harmonics const& Magnet::rawField() {
    static Harmonics const kField = [] {
        Harmonics field{};
        for (RawTerm const& term : kRawField) {
            field[CoilModel::indexOf(term.harmonic)] = term.hzPerCm;
        }
        return field;
    }();
    return kField;
}

/// @return The field in Hz of 1H without shims and H0 coil. The caller holds the lock.
double Magnet::homogeneous(Clock::TimePoint aNow) const {
    double const warmer =
        (mMagnetKelvin - kReferenceKelvin) + kShimCoilShare * (mShimCoilKelvin - kReferenceKelvin);
    double const seconds = std::chrono::duration<double>(aNow - mDriftSince).count();
    return mProtonHz * (1.0 + kTemperatureCoefficient * warmer) + mOffsetProtonHz +
           mDriftProtonHzPerSecond * seconds;
}

LockLine Magnet::lockLine(Clock::TimePoint aNow, std::int32_t aH0Count) const {
    std::unique_lock lock(mMutex);
    double proton = homogeneous(aNow);
    std::function<Currents()> const source = mCurrents;
    lock.unlock();

    Currents const currents = source ? source() : Currents{};
    Harmonics terms = mCoils.field(currents);
    Sample const& inSample = sample();
    double variance = 0.0;
    for (std::size_t i = 0; i < kHarmonics; ++i) {
        terms[i] += mRaw[i];
        proton += terms[i] * inSample.mean[i];
    }
    for (std::size_t i = 0; i < kHarmonics; ++i) {
        for (std::size_t j = 0; j < kHarmonics; ++j) {
            variance += terms[i] * inSample.covariance[i][j] * terms[j];
        }
    }
    double const width = kFluorineOverProton * std::sqrt(12.0 * std::max(variance, 0.0));
    return {.fluorineHz = kFluorineOverProton * proton + kFluorineHzPerH0Count * aH0Count,
            .t2StarSeconds = 1.0 / (1.0 / mT2Seconds + std::numbers::pi * width)};
}

} // namespace libfieldwarden::sim
