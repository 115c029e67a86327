// SPDX-License-Identifier: Apache-2.0
// The physics of the shim board and the procedures of its firmware.
#include "simulator/boards/ShimBoard.h"

#include "simulator/boards/ShimBoardObjects.h"

#include <velmor/kepla/canopen/SdoAbort.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace libfieldwarden::sim {

namespace sdoabort = velmor::kepla::canopen::sdoabort;

namespace {

constexpr std::uint32_t kFactoryLength = 24'624; ///< Of the unpacked image of simulator/data/firmware.
constexpr std::uint32_t kFactoryCrc = 0x6569'9F1A;

// Calibration status (0x3004).
constexpr std::int64_t kCalibrated = 129;
constexpr std::int64_t kNotCalibrated = 1;

// Emergencies (CiA 301 table 26) and the bits of the error register.
constexpr std::uint16_t kNoError = 0x0000;
constexpr std::uint16_t kOutputOverCurrent = 0x2310;
constexpr std::uint16_t kOutputOpen = 0x2330;
constexpr std::uint16_t kDeviceTooHot = 0x4210;
constexpr std::uint8_t kCurrentError = 0x02;
constexpr std::uint8_t kTemperatureError = 0x08;

/// A sensor and how it warms up.
struct SensorRow {
    double risePerWatt; ///< In K/W, at rest.
    velmor::platform::Clock::Duration timeConstant;
};

using std::chrono::seconds;
constexpr std::array<SensorRow, ShimBoard::kSensors> kSensorRows{{
    {0.25, seconds(240)}, // DACs, upper part of the board
    {0.20, seconds(240)}, // DACs, lower part of the board
    {0.55, seconds(400)}, // heatsink, lower part
    {0.75, seconds(420)}, // heatsink, middle
    {0.85, seconds(450)}, // heatsink, upper part: the hottest, for warm air rises
}};
constexpr std::size_t kHottest = 4;

constexpr double kIdleWatt = 3.0;
constexpr double kDropoutVolt = 3.0; ///< Over each linear output.
constexpr double kSupplyMilliVolt = 24'000.0;
constexpr double kSupplyMilliOhm = 20.0;

constexpr double kSettledUA = 0.25;          ///< What is left of a step when its writing is confirmed.
constexpr double kCurrentNoiseUA = 0.05;     ///< Standard deviation.
constexpr double kLargestNoiseUA = 0.2;      ///< So that a settled source reads its step and no other number.
constexpr double kSensorNoiseCelsius = 0.01; ///< Standard deviation.

/// So near to a limit counts as reached: the limit itself is a time and a temperature in floating point.
constexpr double kAlmostCelsius = 1e-6;

constexpr double kMicro = 1e-6;

std::int32_t roundedToStep(std::int32_t aUA) {
    return static_cast<std::int32_t>(std::lround(static_cast<double>(aUA) / ShimBoard::kStepUA)) *
           ShimBoard::kStepUA;
}

std::int32_t int32At(std::span<std::uint8_t const> aData, std::size_t aIndex) {
    std::uint32_t bits = 0;
    for (std::size_t byte = 0; byte < 4; ++byte) {
        bits |= std::uint32_t{aData[4 * aIndex + byte]} << (8 * byte);
    }
    return static_cast<std::int32_t>(bits);
}

std::uint16_t emergencyCodeOf(SourceError aError) {
    switch (aError) {
        case SourceError::OpenLoad:
            return kOutputOpen;
        case SourceError::OverCurrent:
            return kOutputOverCurrent;
        case SourceError::OverTemperature: // Told once for the whole board.
        case SourceError::None:
            break;
    }
    return kNoError;
}

ShimBoardState newBoard(std::uint8_t aNode) {
    ShimBoardState state;
    state.serial = 470'000U + aNode;
    state.buildId = ShimBoard::kFactoryBuildId;
    state.version = ShimBoard::kFactoryVersion;
    state.imageLength = kFactoryLength;
    state.imageCrc = kFactoryCrc;
    state.starts = 1;
    state.record = fmt::format(R"(<?xml version="1.0"?>
<record>
  <group name="ShimBoard"><value>1</value><value>1</value><value>Q47-SHIM</value><value>SIM-S-{:04}</value></group>
</record>
)",
                               aNode);
    return state;
}

} // namespace

// ---------------------------------------------------------------------------------------------- life

ShimBoard::ShimBoard(Options const& aOptions, Clock& aClock)
    : Logger("ShimBoard(node " + std::to_string(aOptions.node) + ")", "Simulator")
    , BoardBase({.name = "Q47 shim board",
                 .platform = kPlatform,
                 .product = 0x0047'5348,
                 .revision = 0x0001'0003,
                 .mappedObject = 0x3002'0120}, // Temperature 1, 32 bits.
                aOptions.node,
                aOptions.stateFile,
                aClock,
                kShimBoardObjects)
    , mState(newBoard(aOptions.node))
    , mAmbientCelsius(aOptions.ambientCelsius)
    , mNoise(aOptions.seed * 0x9E37'79B9'7F4A'7C15ULL + aOptions.node) { // So that two boards differ.
    bindObjects();
    goOn();
    for (std::size_t source = 0; source < kSources; ++source) {
        mSources[source].setpointUA = mState.currentsUA[source];
        mSources[source].currentUA.rest(roundedToStep(mState.currentsUA[source]));
    }
    double const power = powerWatt();
    for (SensorRow const& row : kSensorRows) {
        mSensors.emplace_back(row.timeConstant, mAmbientCelsius + row.risePerWatt * power);
    }
}

void ShimBoard::loadState(std::filesystem::path const& aFile) {
    if (auto const state = ShimBoardState::load(aFile)) {
        mState = *state;
    }
}

void ShimBoard::storeState(std::filesystem::path const& aFile) {
    for (std::size_t source = 0; source < kSources; ++source) {
        mState.currentsUA[source] = mSources[source].setpointUA;
    }
    mState.save(aFile);
}

void ShimBoard::onRestart(TimePoint aNow) {
    for (Source& source : mSources) {
        source.setpointUA = 0;
        source.reported = SourceError::None;
        applySetpoint(source, aNow);
    }
    heat(aNow);
    mAnswerTime = {};
}

// ---------------------------------------------------------------------------------------------- dictionary

void ShimBoard::bindObjects() {
    mDictionary.onRead({0x2100, 4}, [this] { return stateIsWhole() ? 1 : 0; });
    for (std::uint8_t source = 0; source < kSources; ++source) {
        mDictionary.onRead({0x3000, static_cast<std::uint8_t>(source + 1)},
                           [this, source] { return measuredCurrent(source); });
    }
    mDictionary.onWriteBytes({0x3001, 1},
                             [this](std::span<std::uint8_t const> aData) { return setCurrents(aData); });
    mDictionary.onReadText({0x3001, 1}, [this] {
        std::string bytes;
        for (unsigned byte = 0; byte < 4; ++byte) {
            bytes += static_cast<char>(static_cast<std::uint32_t>(mSources[0].setpointUA) >> (8 * byte));
        }
        return bytes;
    });
    for (std::uint8_t sensor = 0; sensor < kSensors; ++sensor) {
        mDictionary.onRead({0x3002, static_cast<std::uint8_t>(sensor + 1)},
                           [this, sensor] { return measuredTemperature(sensor); });
    }
    mDictionary.onRead({0x3003, 1}, [this] {
        double const ampere = (powerWatt() - kIdleWatt) / kDropoutVolt;
        return std::lround(kSupplyMilliVolt - kSupplyMilliOhm * ampere);
    });
    mDictionary.onRead({0x3004, 1}, [this] { return stateIsWhole() ? kCalibrated : kNotCalibrated; });
}

// ---------------------------------------------------------------------------------------------- currents

std::uint32_t ShimBoard::setCurrents(std::span<std::uint8_t const> aData) {
    constexpr std::int32_t kLimit = ShimBoardState::kLargestCurrentUA;
    for (std::size_t source = 0; source < kSources; ++source) {
        if (std::int32_t const current = int32At(aData, source); current < -kLimit || current > kLimit) {
            return sdoabort::kInvalidValue;
        }
    }
    TimePoint const now = mClock.now();
    for (std::size_t source = 0; source < kSources; ++source) {
        mSources[source].setpointUA = int32At(aData, source);
        applySetpoint(mSources[source], now);
        mAnswerTime = std::max(mAnswerTime, mSources[source].currentUA.settled(kSettledUA));
    }
    heat(now);
    reportErrors();
    saveState();
    return sdoabort::kNone;
}

SourceError ShimBoard::errorOf(Source const& aSource) const {
    if (aSource.setpointUA == 0) {
        return SourceError::None; // Switched off, so nothing is noticed.
    }
    return mTooHot ? SourceError::OverTemperature : aSource.failure;
}

/// Drives a source towards its set current, or towards 0 where it cannot have it.
void ShimBoard::applySetpoint(Source& aSource, TimePoint aNow) {
    bool const flows = errorOf(aSource) == SourceError::None;
    aSource.currentUA.setTarget(flows ? roundedToStep(aSource.setpointUA) : 0, aNow);
}

std::int64_t ShimBoard::measuredCurrent(std::size_t aSource) {
    Source const& source = mSources[aSource];
    if (SourceError const error = errorOf(source); error != SourceError::None) {
        return kErrorBase + static_cast<std::int64_t>(error);
    }
    double noise = 0.0;
    if (source.setpointUA != 0) {
        noise = std::clamp(std::normal_distribution(0.0, kCurrentNoiseUA)(mNoise), -kLargestNoiseUA,
                           kLargestNoiseUA);
    }
    return std::lround(source.currentUA.value(mClock.now()) + noise);
}

std::array<double, ShimBoard::kSources> ShimBoard::currentsAmpere() const {
    std::lock_guard const lock(mMutex);
    TimePoint const now = mClock.now();
    std::array<double, kSources> result{};
    std::transform(mSources.begin(), mSources.end(), result.begin(),
                   [&](Source const& aSource) { return aSource.currentUA.value(now) * kMicro; });
    return result;
}

std::array<std::int32_t, ShimBoard::kSources> ShimBoard::setpointsUA() const {
    std::lock_guard const lock(mMutex);
    std::array<std::int32_t, kSources> result{};
    std::transform(mSources.begin(), mSources.end(), result.begin(),
                   [](Source const& aSource) { return aSource.setpointUA; });
    return result;
}

void ShimBoard::failSource(std::size_t aSource, SourceError aError) {
    if (aSource < 1 || aSource > kSources) {
        throw std::out_of_range("A shim board has sources 1 to 17, not " + std::to_string(aSource));
    }
    if (aError == SourceError::OverTemperature) {
        throw std::invalid_argument("A source is too hot by its board's temperature only");
    }
    {
        std::lock_guard const lock(mMutex);
        TimePoint const now = mClock.now();
        mSources[aSource - 1].failure = aError;
        applySetpoint(mSources[aSource - 1], now);
        heat(now);
        reportErrors();
    }
    wake();
}

// ---------------------------------------------------------------------------------------------- temperatures

/// @return The heat that the board makes with the currents that flow when they have settled.
double ShimBoard::powerWatt() const {
    double const microAmpere = std::accumulate(
        mSources.begin(), mSources.end(), 0.0,
        [](double aSum, Source const& aSource) { return aSum + std::abs(aSource.currentUA.target()); });
    return kIdleWatt + kDropoutVolt * microAmpere * kMicro;
}

/// Lets the sensors go where the present power and the present air take them.
void ShimBoard::heat(TimePoint aNow) {
    double const power = powerWatt();
    for (std::size_t sensor = 0; sensor < kSensors; ++sensor) {
        mSensors[sensor].setTarget(mAmbientCelsius + kSensorRows[sensor].risePerWatt * power, aNow);
    }
}

ShimBoard::TimePoint ShimBoard::advance(TimePoint aNow) {
    std::lock_guard const lock(mMutex);
    FirstOrderLag const& hottest = mSensors[kHottest];
    double const celsius = hottest.value(aNow);
    bool const tooHot =
        mTooHot ? celsius > kCoolAgainCelsius + kAlmostCelsius : celsius >= kTooHotCelsius - kAlmostCelsius;
    if (tooHot != mTooHot) {
        mTooHot = tooHot;
        for (Source& source : mSources) {
            applySetpoint(source, aNow);
        }
        heat(aNow);
        report(tooHot ? kDeviceTooHot : kNoError, {});
        reportErrors();
    }
    return hottest.passes(mTooHot ? kCoolAgainCelsius : kTooHotCelsius, aNow).value_or(TimePoint::max());
}

std::int64_t ShimBoard::measuredTemperature(std::size_t aSensor) {
    double const noise = std::normal_distribution(0.0, kSensorNoiseCelsius)(mNoise);
    return std::lround((mSensors[aSensor].value(mClock.now()) + noise) * 1000.0);
}

std::array<double, ShimBoard::kSensors> ShimBoard::temperaturesCelsius() const {
    std::lock_guard const lock(mMutex);
    TimePoint const now = mClock.now();
    std::array<double, kSensors> result{};
    std::transform(mSensors.begin(), mSensors.end(), result.begin(),
                   [&](FirstOrderLag const& aSensor) { return aSensor.value(now); });
    return result;
}

void ShimBoard::setAmbient(double aCelsius) {
    {
        std::lock_guard const lock(mMutex);
        mAmbientCelsius = aCelsius;
        heat(mClock.now());
    }
    wake();
}

// ---------------------------------------------------------------------------------------------- emergencies

/// Tells of the sources whose error has come, changed or gone.
void ShimBoard::reportErrors() {
    for (std::size_t source = 0; source < kSources; ++source) {
        SourceError const error = errorOf(mSources[source]);
        SourceError const former = std::exchange(mSources[source].reported, error);
        std::uint16_t const code = emergencyCodeOf(error);
        if (error != former && (code != kNoError || emergencyCodeOf(former) != kNoError)) {
            report(code, {static_cast<std::uint8_t>(source + 1), static_cast<std::uint8_t>(error)});
        }
    }
}

std::uint8_t ShimBoard::errorBits() const {
    bool const current = std::any_of(mSources.begin(), mSources.end(), [](Source const& aSource) {
        return aSource.setpointUA != 0 && aSource.failure != SourceError::None;
    });
    return static_cast<std::uint8_t>((current ? kCurrentError : 0U) | (mTooHot ? kTemperatureError : 0U));
}

ShimBoard::TimePoint ShimBoard::answerTime() const {
    std::lock_guard const lock(mMutex);
    return mAnswerTime;
}

} // namespace libfieldwarden::sim
