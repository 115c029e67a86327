// SPDX-License-Identifier: Apache-2.0
// The sample: measuring, the regulators, the outputs.
#include "simulator/boards/TemperatureControl.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace libfieldwarden::sim {

namespace {

using enum TemperatureSensor;

constexpr double kSampleSeconds = std::chrono::duration<double>(TemperatureControl::kSamplePeriod).count();

/// A sensor's noise and what it shows when it is broken: the ends of what its converter can read.
struct SensorRow {
    double noiseKelvin; ///< Standard deviation of a reading.
    double open;
    double shorted;
};

/// Sensors on 16 bits of milli degrees, and those of the gas on 32.
constexpr double kNarrowEnd = 65.535;
constexpr double kWideEnd = 850.0; ///< Of a PT100 after IEC 60751.
constexpr double kWideStart = -200.0;

constexpr SensorRow kMagnetRow{0.0005, kNarrowEnd, 0.0};
constexpr SensorRow kShimRow{0.0007, kNarrowEnd, 0.0};
constexpr SensorRow kBoxRow{0.005, kNarrowEnd, 0.0};
constexpr SensorRow kGasRow{0.02, kWideEnd, kWideStart};
constexpr SensorRow kSpiralRow{0.05, kWideEnd, kWideStart};

constexpr std::array<SensorRow, TemperatureControl::kSensors> kSensorRows{
    kMagnetRow, kMagnetRow, kMagnetRow, kMagnetRow, kMagnetRow, kMagnetRow, kShimRow,   kShimRow,
    kBoxRow,    kBoxRow,    kBoxRow,    kBoxRow,    kBoxRow,    kGasRow,    kSpiralRow, kGasRow};

/// The board warms its own reference up.
constexpr double kLocalReferenceRise = 0.6;

// The fan: fast from this share of the current on, and slow again below the other.
constexpr double kFanFastAbove = 0.75;
constexpr double kFanSlowBelow = 0.60;
constexpr std::uint8_t kFanOff = 0;
constexpr std::uint8_t kFanSlow = 1;
constexpr std::uint8_t kFanFast = 2;

constexpr std::size_t placeOf(TemperatureSensor aSensor) {
    return static_cast<std::size_t>(aSensor);
}

constexpr TemperatureSensor sensorAfter(TemperatureSensor aFirst, std::size_t aOffset) {
    return static_cast<TemperatureSensor>(placeOf(aFirst) + aOffset);
}

double meanOf(std::array<double, ThermalModel::kShimEnds> const& aValues) {
    return (aValues[0] + aValues[1]) / 2.0;
}

} // namespace

TemperatureControl::TemperatureControl(Settings const& aSettings,
                                       DailyAmbient const& aAmbient,
                                       std::shared_ptr<GasSupplyIfc> aGas,
                                       std::uint64_t aSeed,
                                       bool aCold,
                                       TimePoint aNow)
    : mSettings(aSettings)
    , mAmbient(aAmbient)
    , mGas(std::move(aGas))
    , mBegin(aNow)
    , mModel(aAmbient.celsius({}))
    , mFaces{PiRegulator(aSettings.magnet), PiRegulator(aSettings.magnet), PiRegulator(aSettings.magnet),
             PiRegulator(aSettings.magnet), PiRegulator(aSettings.magnet), PiRegulator(aSettings.magnet)}
    , mShimCoil(aSettings.shimCoil)
    , mIsoBox(aSettings.isoBox)
    , mSpiral(aSettings.spiral)
    , mProbe(aSettings.probe)
    , mSpiralTarget(aSettings.spiralTarget)
    , mLastTalk(aNow)
    , mNextSample(aNow + kSamplePeriod)
    , mRandom(aSeed) {
    mDrive.fan = mSettings.outputs ? kFanSlow : kFanOff;
    mDrive.bigPeltier = mSettings.bigPeltier;
    mDrive.shimCooling = mSettings.shimCooling;
    if (!aCold && mSettings.outputs) {
        mDrive = mModel.settle(mSettings.magnetTarget, meanOf(mSettings.shimTargets), mSettings.isoBoxTarget,
                               mDrive);
        for (std::size_t face = 0; face < ThermalModel::kFaces; ++face) {
            mFaces[face].preset(mDrive.faceWatt[face]);
        }
        mShimCoil.preset(mDrive.shimMatWatt);
        mIsoBox.preset(-mDrive.peltier);
    }
    mModel.setDrive(mDrive);
    measure();
    watch(aNow);
}

// ---------------------------------------------------------------------------------------------- commands

bool TemperatureControl::heats() const {
    bool const wanted = mSettings.probeRegulation || mSettings.spiralRegulation || mSettings.spiralWatt > 0.0;
    return mSettings.outputs && mSettings.gasHeating && wanted;
}

void TemperatureControl::watch(TimePoint aNow) {
    mWatch.update(aNow, heats(), mGas->isOpen(aNow), mModel.temperatures().spiral);
}

void TemperatureControl::command(TimePoint aNow, Settings const& aSettings) {
    mSettings = aSettings;
    if (!mSettings.outputs || !mSettings.gasHeating) {
        mSettings.probeRegulation = false;
        mSettings.spiralRegulation = false;
        mSettings.spiralWatt = 0.0;
    }
    if (mSettings.probeRegulation || mSettings.spiralRegulation) {
        mSettings.spiralWatt = 0.0; // So that the end of a regulation is the end of the heating.
    }
    if (heats()) {
        mHeating = Heating::On;
    } else if (mHeating == Heating::On) {
        mHeating = Heating::Off;
    }
    watch(aNow);
}

void TemperatureControl::restart(Settings const& aSettings, TimePoint aNow) {
    for (PiRegulator& each : mFaces) {
        each.off();
    }
    for (PiRegulator* const each : {&mShimCoil, &mIsoBox, &mSpiral, &mProbe}) {
        each->off();
    }
    Settings settings = aSettings;
    settings.probeRegulation = false;
    settings.spiralRegulation = false;
    settings.spiralWatt = 0.0;
    mGas->setIndex(0, aNow);
    mHeating = Heating::Off;
    mCut = false;
    mLastTalk = aNow;
    command(aNow, settings);
}

void TemperatureControl::setGasIndex(std::uint8_t aIndex, TimePoint aNow) {
    mGas->setIndex(aIndex, aNow);
    watch(aNow);
}

std::optional<TemperatureControl::TimePoint> TemperatureControl::heatingDeadline() const {
    if (!heats() || mSettings.heatingTimeout <= std::chrono::seconds::zero()) {
        return std::nullopt;
    }
    return mLastTalk + mSettings.heatingTimeout;
}

bool TemperatureControl::takeCut() {
    return std::exchange(mCut, false);
}

// ---------------------------------------------------------------------------------------------- sampling

void TemperatureControl::advanceTo(TimePoint aNow) {
    while (mNextSample <= aNow) {
        mModel.setRoom(mAmbient.celsius(mNextSample - mBegin));
        mModel.advance(kSamplePeriod);
        countEnergies();
        sample(mNextSample);
        mNextSample += kSamplePeriod;
    }
}

void TemperatureControl::sample(TimePoint aNow) {
    measure();
    checkTimeout(aNow);
    applyTerms();
    mDrive.bigPeltier = mSettings.bigPeltier;
    mDrive.shimCooling = mSettings.shimCooling;
    regulateMagnet();
    regulateShimCoil();
    regulateIsoBox();
    mDrive.spiralWatt = regulateSpiral();
    mDrive.gasLiterPerHour = mGas->literPerHour(aNow);
    mModel.setDrive(mDrive);
    watch(aNow);
}

void TemperatureControl::measure() {
    ThermalModel::Temperatures const is = mModel.temperatures();
    std::array<double, kSensors> values{};
    std::copy(is.faces.begin(), is.faces.end(), values.begin());
    values[placeOf(ShimCoilTop)] = is.shimEnds[0];
    values[placeOf(ShimCoilBottom)] = is.shimEnds[1];
    values[placeOf(IsoBoxReference)] = is.air;
    values[placeOf(LocalReference)] = is.electronics + kLocalReferenceRise;
    values[placeOf(HeatsinkAir)] = is.heatsink;
    values[placeOf(Electronics)] = is.electronics;
    values[placeOf(MixedGas)] = is.exhaust;
    values[placeOf(Probe)] = is.probe;
    values[placeOf(Spiral)] = is.spiral;
    values[placeOf(Exhaust)] = is.exhaust;
    for (std::size_t each = 0; each < kSensors; ++each) {
        // Drawn for broken sensors as well, so that a fault does not change the noise of the others.
        double const noisy = values[each] + kSensorRows[each].noiseKelvin * mNoise(mRandom);
        double const reading = std::clamp(noisy, kSensorRows[each].shorted, kSensorRows[each].open);
        mMeasured[each] = mFaults[each] == SensorFault::Open    ? kSensorRows[each].open
                          : mFaults[each] == SensorFault::Short ? kSensorRows[each].shorted
                                                                : reading;
    }
}

void TemperatureControl::checkTimeout(TimePoint aNow) {
    auto const deadline = heatingDeadline();
    if (!deadline || aNow < *deadline) {
        return;
    }
    mSettings.probeRegulation = false;
    mSettings.spiralRegulation = false;
    mSettings.spiralWatt = 0.0;
    mHeating = Heating::CutByTimeout;
    mCut = true;
}

// ---------------------------------------------------------------------------------------------- regulators

void TemperatureControl::applyTerms() {
    for (PiRegulator& each : mFaces) {
        each.setTerms(mSettings.magnet);
    }
    mShimCoil.setTerms(mSettings.shimCoil);
    mIsoBox.setTerms(mSettings.isoBox);
    mSpiral.setTerms(mSettings.spiral);
    mProbe.setTerms(mSettings.probe);
}

void TemperatureControl::regulateMagnet() {
    for (std::size_t face = 0; face < ThermalModel::kFaces; ++face) {
        if (!mSettings.outputs || !works(sensorAfter(MagnetLeft, face))) {
            mFaces[face].off();
        } else {
            mFaces[face].sample(mSettings.magnetTarget, mMeasured[face], kSampleSeconds);
        }
        mDrive.faceWatt[face] = mFaces[face].output();
    }
}

/// Holds the mean of the two ends; with a broken sensor the other one counts alone.
void TemperatureControl::regulateShimCoil() {
    double sum = 0.0;
    double target = 0.0;
    int count = 0;
    for (std::size_t end = 0; end < ThermalModel::kShimEnds; ++end) {
        if (works(sensorAfter(ShimCoilTop, end))) {
            sum += measured(sensorAfter(ShimCoilTop, end));
            target += mSettings.shimTargets[end];
            ++count;
        }
    }
    if (!mSettings.outputs || count == 0) {
        mShimCoil.off();
    } else {
        mShimCoil.sample(target / count, sum / count, kSampleSeconds);
    }
    mDrive.shimMatWatt = mShimCoil.output();
}

void TemperatureControl::regulateIsoBox() {
    if (!mSettings.outputs || !works(IsoBoxReference)) {
        mIsoBox.off();
    } else {
        mIsoBox.sample(mSettings.isoBoxTarget, measured(IsoBoxReference), kSampleSeconds);
    }
    mDrive.peltier = -mIsoBox.output();
    double const share = std::abs(mDrive.peltier);
    if (!mSettings.outputs) {
        mDrive.fan = kFanOff;
    } else if (share > kFanFastAbove) {
        mDrive.fan = kFanFast;
    } else if (share < kFanSlowBelow || mDrive.fan == kFanOff) {
        mDrive.fan = kFanSlow;
    }
}

/// @return The power of the spiral until the next sample, in W.
double TemperatureControl::regulateSpiral() {
    mSpiralTarget = mSettings.spiralTarget;
    bool const sensed = works(Spiral) && (works(Probe) || !mSettings.probeRegulation);
    if (!heats() || !sensed) {
        mProbe.off();
        mSpiral.off();
        return 0.0;
    }
    if (mSettings.probeRegulation) {
        double const above = mProbe.sample(mSettings.probeTarget, measured(Probe), kSampleSeconds);
        mSpiralTarget = std::min(mSettings.probeTarget + above, kHottestSpiralTarget);
    } else {
        mProbe.off();
    }
    if (mSettings.probeRegulation || mSettings.spiralRegulation) {
        return mSpiral.sample(mSpiralTarget, measured(Spiral), kSampleSeconds);
    }
    mSpiral.off();
    return mSettings.spiralWatt;
}

void TemperatureControl::countEnergies() {
    for (std::size_t face = 0; face < ThermalModel::kFaces; ++face) {
        mEnergies[face] += mDrive.faceWatt[face] * kSampleSeconds;
    }
    mEnergies[6] += mDrive.shimMatWatt * kSampleSeconds;
    double const own =
        mDrive.bigPeltier ? ThermalModel::kBigPeltierOwnWatt : ThermalModel::kSmallPeltierOwnWatt;
    mEnergies[7] += own * mDrive.peltier * mDrive.peltier * kSampleSeconds;
    mEnergies[8] += mDrive.spiralWatt * kSampleSeconds;
}

// ---------------------------------------------------------------------------------------------- readings

double TemperatureControl::measured(TemperatureSensor aSensor) const {
    return mMeasured.at(placeOf(aSensor));
}

SensorFault TemperatureControl::fault(TemperatureSensor aSensor) const {
    return mFaults.at(placeOf(aSensor));
}

void TemperatureControl::setFault(TemperatureSensor aSensor, SensorFault aFault) {
    mFaults.at(placeOf(aSensor)) = aFault;
}

HeatingWatch const& TemperatureControl::watchUntil(TimePoint aNow) {
    watch(aNow);
    return mWatch;
}

void TemperatureControl::resetWatch(TimePoint aNow) {
    mWatch.reset();
    watch(aNow);
}

} // namespace libfieldwarden::sim
