// SPDX-License-Identifier: Apache-2.0
// What the objects of the temperature board show, and what writing them does.
#include "simulator/boards/TemperatureBoard.h"

#include "simulator/boards/TemperatureBoardObjects.h"

#include <velmor/kepla/canopen/SdoAbort.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <zlib.h>

namespace libfieldwarden::sim {

namespace sdoabort = velmor::kepla::canopen::sdoabort;
using enum TemperatureSensor;

namespace {

// Of the unpacked image of simulator/data/firmware/temperature.
constexpr std::uint32_t kFactoryLength = 24'624;
constexpr std::uint32_t kFactoryCrc = 0x30E1'0559;

// Emergencies (CiA 301 table 26) and the bits of the error register.
constexpr std::uint16_t kNoError = 0x0000;
constexpr std::uint16_t kOutputOverCurrent = 0x2310;
constexpr std::uint16_t kDriveTooHot = 0x4310;
constexpr std::uint16_t kHardware = 0x5000;
constexpr std::uint16_t kLifeGuard = 0x8130;
constexpr std::uint8_t kTemperatureError = 0x08;
constexpr std::uint8_t kCommunicationError = 0x10;
constexpr std::uint8_t kManufacturerError = 0x80;

// Status values.
constexpr std::int64_t kGood = 128;
constexpr std::int64_t kNotGood = 1;
constexpr std::int64_t kInterfaceBoardWaits = 64;
constexpr std::int64_t kDefaultsRead = 3;
constexpr std::int64_t kDefaultsNotRead = 1;
constexpr std::int64_t kNoFlowBoxAsked = 255;
constexpr std::int64_t kPortExpander = 2; ///< Of 0x3401:05.

constexpr std::int64_t kLargestWord = std::numeric_limits<std::uint16_t>::max();
constexpr unsigned kLargestCount = 255;
constexpr double kKelvin = 273.15;

// How far the probe's regulator moves the spiral's target from the probe's.
constexpr double kLowestAboveProbe = -20.0;
constexpr double kHighestAboveProbe = 150.0;

/// How often the board is driven when nothing happens: so often the magnet hears of its temperatures.
constexpr BoardBase::Duration kPace = std::chrono::seconds(1);

// Where a regulator counts as being on its target.
constexpr double kMagnetBandKelvin = 0.020;
constexpr double kShimBandKelvin = 0.020;
constexpr double kIsoBoxBandKelvin = 0.300;

// The Peltier elements at full current, by mode.
constexpr std::array kPeltierAmpere{6.0, 12.0};
constexpr double kPeltierVolt = 7.5;

constexpr std::size_t kRawChannels = 8;
constexpr double kConverterOhm = 200.0;
constexpr double kConverterCounts = 65'536.0;

// Objects that several operations need.
constexpr BoardBase::SdoObject kMagnetTarget{0x3004, 1};
constexpr BoardBase::SdoObject kHeaterResistance{0x3010, 6};
constexpr BoardBase::SdoObject kMatResistance{0x3111, 3};
constexpr BoardBase::SdoObject kSpiralTemperature{0x3301, 2};
constexpr BoardBase::SdoObject kSpiralRegulation{0x3303, 1};
constexpr BoardBase::SdoObject kTimeout{0x3303, 6};
constexpr BoardBase::SdoObject kProbeTarget{0x3304, 1};
constexpr BoardBase::SdoObject kSpiralTarget{0x3304, 2};
constexpr BoardBase::SdoObject kBoxMode{0x3401, 3};
constexpr BoardBase::SdoObject kShimMode{0x3401, 4};
constexpr BoardBase::SdoObject kVtMode{0x3401, 5};
constexpr std::uint16_t kShimTargets = 0x3104;

/// While the converter of 16 bits shows it.
std::int64_t milliWord(double aValue) {
    return std::clamp<std::int64_t>(std::llround(aValue * 1000.0), 0, kLargestWord);
}

std::int64_t milli(double aValue) {
    return std::llround(aValue * 1000.0);
}

/// A platinum resistor of 100 Ohm above 0 degrees Celsius (IEC 60751).
double platinumOhm(double aCelsius) {
    return 100.0 * (1.0 + 3.9083e-3 * aCelsius - 5.775e-7 * aCelsius * aCelsius);
}

std::int64_t asNumber(PiRegulator::State aState) {
    return static_cast<std::int64_t>(aState);
}

constexpr TemperatureSensor sensorAfter(TemperatureSensor aFirst, std::size_t aOffset) {
    return static_cast<TemperatureSensor>(static_cast<std::size_t>(aFirst) + aOffset);
}

TemperatureBoardState newBoard(std::uint8_t aNode) {
    TemperatureBoardState state;
    state.serial = 480'000U + aNode;
    state.buildId = TemperatureBoard::kFactoryBuildId;
    state.version = TemperatureBoard::kFactoryVersion;
    state.imageLength = kFactoryLength;
    state.imageCrc = kFactoryCrc;
    state.starts = 1;
    state.record = fmt::format(R"(<?xml version="1.0"?>
<record>
  <group name="TemperatureBoard"><value>1</value><value>1</value><value>Q47-TEMP</value><value>SIM-T-{:04}</value></group>
</record>
)",
                               aNode);
    return state;
}

} // namespace

// ---------------------------------------------------------------------------------------------- life

TemperatureBoard::TemperatureBoard(Options const& aOptions, Clock& aClock)
    : Logger("TemperatureBoard(node " + std::to_string(aOptions.node) + ")", "Simulator")
    , BoardBase({.name = "Q47 temperature board",
                 .platform = kPlatform,
                 .product = 0x0047'5654,
                 .revision = 0x0001'0002,
                 .mappedObject = 0x3001'0110}, // Mean of the magnet, 16 bits.
                aOptions.node,
                aOptions.stateFile,
                aClock,
                kTemperatureBoardObjects)
    , mState(newBoard(aOptions.node)) {
    bindMagnet();
    bindShimCoil();
    bindIsoBox();
    bindGas();
    bindHeatingCommands();
    bindSetup();
    bindRaw();
    goOn();
    showSetup(mState.setup);
    showShimTargets();
    auto const gas = aOptions.gas ? aOptions.gas : std::make_shared<DirectGasSupply>();
    std::uint64_t const seed = aOptions.seed * 0x9E37'79B9'7F4A'7C15ULL + aOptions.node;
    mControl = std::make_unique<TemperatureControl>(settings({}), aOptions.room, gas, seed, aOptions.cold,
                                                    startedAt());
}

void TemperatureBoard::loadState(std::filesystem::path const& aFile) {
    if (auto const state = TemperatureBoardState::load(aFile)) {
        mState = *state;
    }
}

void TemperatureBoard::onRestart(TimePoint aNow) {
    mControl->advanceTo(aNow);
    mState.setup = mState.storedSetup;
    mState.shimTargets = TemperatureBoardState{}.shimTargets;
    showSetup(mState.setup);
    showShimTargets();
    mControl->restart(settings({}), aNow);
    mInterfaceBoardReadyAt = aNow + kInterfaceBoardTime;
    mOvercurrents = 0;
    mSpiralTooHot = false; // Told anew, if it still is.
}

/// Puts a setup into the dictionary.
void TemperatureBoard::showSetup(TemperatureBoardState::Setup const& aSetup) {
    for (std::size_t place = 0; place < aSetup.size(); ++place) {
        mDictionary.setNumber(kTemperatureSetup[place], aSetup[place]);
    }
}

void TemperatureBoard::showShimTargets() {
    double const mean = (mState.shimTargets[0] + mState.shimTargets[1]) / 2.0;
    mDictionary.setNumber({kShimTargets, 1}, std::llround(mean));
    mDictionary.setNumber({kShimTargets, 2}, mState.shimTargets[0]);
    mDictionary.setNumber({kShimTargets, 3}, mState.shimTargets[1]);
}

/// @return What the dictionary says, and of the heating what is on.
TemperatureControl::Settings TemperatureBoard::settings(TemperatureControl::Settings const& aPresent) const {
    auto const number = [this](std::uint16_t aIndex, std::uint8_t aSubindex) {
        return static_cast<double>(mDictionary.number({aIndex, aSubindex}));
    };
    constexpr double kMilli = 1e-3;
    TemperatureControl::Settings result;
    result.probeRegulation = aPresent.probeRegulation;
    result.spiralRegulation = aPresent.spiralRegulation;
    result.spiralWatt = aPresent.spiralWatt;
    result.outputs = runsProgram();
    result.magnetTarget = number(0x3004, 1) * kMilli;
    result.shimTargets = {mState.shimTargets[0] * kMilli, mState.shimTargets[1] * kMilli};
    result.isoBoxTarget = number(0x3204, 1) * kMilli;
    result.bigPeltier = mDictionary.number(kBoxMode) != 0;
    result.shimCooling = mDictionary.number(kShimMode) != 0;
    result.gasHeating = mDictionary.number(kVtMode) != 0;
    result.probeTarget = number(0x3304, 1) * kMilli;
    result.spiralTarget = number(0x3304, 2) * kMilli;
    result.heatingTimeout = std::chrono::seconds(mDictionary.number(kTimeout));
    result.magnet = {.gain = number(0x3010, 1) * kMilli,
                     .integralTime = number(0x3010, 2),
                     .lowest = number(0x3010, 3) * kMilli,
                     .highest = number(0x3010, 4) * kMilli};
    result.shimCoil = {.gain = number(0x3110, 1) * kMilli,
                       .integralTime = number(0x3110, 2) * kMilli,
                       .lowest = number(0x3111, 1) * kMilli,
                       .highest = number(0x3111, 2) * kMilli};
    double const largestCurrent = number(0x3210, 3) * 1e-4;
    result.isoBox = {.gain = number(0x3210, 1) * 1e-4,
                     .integralTime = number(0x3210, 2),
                     .lowest = -largestCurrent,
                     .highest = largestCurrent};
    result.probe = {.gain = number(0x3306, 1) * kMilli,
                    .integralTime = number(0x3306, 2),
                    .lowest = kLowestAboveProbe,
                    .highest = kHighestAboveProbe};
    result.spiral = {.gain = number(0x3306, 3) * kMilli,
                     .integralTime = number(0x3306, 4),
                     .lowest = 0.0,
                     .highest = number(0x3310, 1) * kMilli};
    return result;
}

/// Lets the control do what the dictionary says.
void TemperatureBoard::apply() {
    mControl->command(mClock.now(), settings(mControl->settings()));
}

// ---------------------------------------------------------------------------------------------- time

void TemperatureBoard::catchUp(TimePoint aNow) {
    mControl->advanceTo(aNow);
    if (mControl->takeCut()) {
        report(kLifeGuard, {});
        note(fmt::format("Heating cut: nobody has talked to the board for {} s",
                         mDictionary.number(kTimeout)));
    }
    reportSpiral();
}

void TemperatureBoard::reportSpiral() {
    double const celsius = mControl->measured(Spiral);
    bool const tooHot = mControl->fault(Spiral) == SensorFault::None &&
                        celsius > (mSpiralTooHot ? kSpiralCoolAgainCelsius : kSpiralTooHotCelsius);
    if (runsProgram() && tooHot != mSpiralTooHot) {
        mSpiralTooHot = tooHot;
        report(tooHot ? kDriveTooHot : kNoError, {});
    }
}

void TemperatureBoard::onAccess(TimePoint aNow) {
    catchUp(aNow);
    mControl->talkedTo(aNow);
}

TemperatureBoard::TimePoint TemperatureBoard::advance(TimePoint aNow) {
    ThermalModel::Temperatures is;
    {
        std::lock_guard const lock(mMutex);
        catchUp(aNow);
        is = mControl->model().temperatures();
    }
    std::lock_guard const lock(mObserverMutex);
    if (mObserver) {
        mObserver(is.magnet() + kKelvin, is.shimCoil() + kKelvin);
    }
    return aNow + kPace;
}

// ---------------------------------------------------------------------------------------------- magnet

/// Binds objects that follow one another to one reading of several places.
void TemperatureBoard::onReadEach(std::uint16_t aIndex,
                                  std::uint8_t aFirst,
                                  std::size_t aCount,
                                  std::function<std::int64_t(std::size_t)> const& aGet) {
    for (std::size_t place = 0; place < aCount; ++place) {
        mDictionary.onRead({aIndex, static_cast<std::uint8_t>(aFirst + place)},
                           [aGet, place] { return aGet(place); });
    }
}

void TemperatureBoard::bindStatus(std::uint16_t aIndex,
                                  std::uint8_t aFirst,
                                  TemperatureSensor aSensor,
                                  std::size_t aCount) {
    onReadEach(aIndex, aFirst, aCount, [this, aSensor](std::size_t aPlace) {
        SensorFault const fault = mControl->fault(sensorAfter(aSensor, aPlace));
        return fault == SensorFault::None ? kGood : static_cast<std::int64_t>(fault);
    });
}

double TemperatureBoard::magnetMean() const {
    double sum = 0.0;
    for (std::size_t face = 0; face < ThermalModel::kFaces; ++face) {
        sum += mControl->measured(sensorAfter(MagnetLeft, face));
    }
    return sum / ThermalModel::kFaces;
}

void TemperatureBoard::bindMagnet() {
    constexpr std::size_t kFaces = ThermalModel::kFaces;
    mDictionary.onRead({0x3001, 1}, [this] { return milliWord(magnetMean()); });
    onReadEach(0x3001, 2, kFaces, [this](std::size_t aFace) {
        return milliWord(mControl->measured(sensorAfter(MagnetLeft, aFace)));
    });
    onReadEach(0x3002, 1, kFaces, [this](std::size_t aFace) {
        double const ohm = static_cast<double>(mDictionary.number(kHeaterResistance)) / 1000.0;
        return milliWord(std::sqrt(mControl->drive().faceWatt[aFace] * ohm));
    });
    mDictionary.onRead({0x3003, 1}, [this] {
        for (std::size_t face = 0; face < kFaces; ++face) {
            if (mControl->fault(sensorAfter(MagnetLeft, face)) != SensorFault::None) {
                return kNotGood;
            }
        }
        return kGood;
    });
    bindStatus(0x3003, 2, MagnetLeft, kFaces);
    onReadEach(0x3004, 2, kFaces + 1, [this](std::size_t) { return mDictionary.number(kMagnetTarget); });
    onReadEach(0x3006, 1, kFaces, [this](std::size_t aFace) { return asNumber(mControl->faceState(aFace)); });
    mDictionary.onRead({0x3006, 7}, [this] {
        for (std::size_t face = 0; face < kFaces; ++face) {
            double const off =
                mControl->measured(sensorAfter(MagnetLeft, face)) - mControl->settings().magnetTarget;
            if (std::abs(off) >= kMagnetBandKelvin) {
                return 0;
            }
        }
        return 1;
    });
    mDictionary.onRead({0x3006, 8}, [this] { return runsProgram() ? 1 : 0; });
}

// ---------------------------------------------------------------------------------------------- shim coil

double TemperatureBoard::shimMean() const {
    return (mControl->measured(ShimCoilTop) + mControl->measured(ShimCoilBottom)) / 2.0;
}

void TemperatureBoard::bindShimCoil() {
    mDictionary.onRead({0x3101, 1}, [this] { return milliWord(shimMean()); });
    onReadEach(0x3101, 2, ThermalModel::kShimEnds, [this](std::size_t aEnd) {
        return milliWord(mControl->measured(sensorAfter(ShimCoilTop, aEnd)));
    });
    mDictionary.onRead({0x3102, 1}, [this] {
        double const ohm = static_cast<double>(mDictionary.number(kMatResistance)) / 1000.0;
        return milliWord(std::sqrt(mControl->drive().shimMatWatt / ohm));
    });
    mDictionary.onRead({0x3102, 2}, [this] { return milliWord(mControl->drive().shimMatWatt); });
    bindStatus(0x3103, 1, ShimCoilTop, ThermalModel::kShimEnds);
    for (std::uint8_t subindex = 1; subindex <= 3; ++subindex) {
        SdoObject const object{kShimTargets, subindex};
        mDictionary.onRead(object, [this, subindex]() -> std::int64_t {
            double const mean = (mState.shimTargets[0] + mState.shimTargets[1]) / 2.0;
            return subindex == 1 ? std::llround(mean) : mState.shimTargets[subindex - 2U];
        });
        mDictionary.onWrite(
            object, [this, subindex](std::int64_t aTarget) { return setShimTarget(subindex, aTarget); });
    }
    mDictionary.onRead({0x3106, 1}, [this] { return asNumber(mControl->shimCoilState()); });
    mDictionary.onRead({0x3106, 2}, [this] {
        auto const& targets = mControl->settings().shimTargets;
        return std::abs(shimMean() - (targets[0] + targets[1]) / 2.0) < kShimBandKelvin ? 1 : 0;
    });
}

std::uint32_t TemperatureBoard::setShimTarget(std::size_t aSubindex, std::int64_t aTarget) {
    auto const target = static_cast<std::uint16_t>(aTarget);
    if (aSubindex == 1) {
        mState.shimTargets.fill(target);
    } else {
        mState.shimTargets[aSubindex - 2] = target;
    }
    apply();
    saveState();
    return sdoabort::kNone;
}

// ---------------------------------------------------------------------------------------------- iso box

bool TemperatureBoard::interfaceBoardIsReady() const {
    return mClock.now() >= mInterfaceBoardReadyAt;
}

void TemperatureBoard::bindIsoBox() {
    constexpr std::size_t kBoxSensors = 5;
    onReadEach(0x3201, 1, kBoxSensors, [this](std::size_t aPlace) {
        return interfaceBoardIsReady() ? milliWord(mControl->measured(sensorAfter(IsoBoxReference, aPlace)))
                                       : 0;
    });
    mDictionary.onRead({0x3201, 6},
                       [this] { return interfaceBoardIsReady() ? kGood : kInterfaceBoardWaits; });
    mDictionary.onRead({0x3201, 7}, [this] {
        auto const age = mClock.now() - (mControl->nextSample() - TemperatureControl::kSamplePeriod);
        return interfaceBoardIsReady() ? std::chrono::duration_cast<std::chrono::milliseconds>(age).count()
                                       : kLargestWord;
    });
    mDictionary.onRead({0x3202, 1},
                       [this] { return std::llround(std::abs(mControl->drive().peltier) * 1e4); });
    mDictionary.onRead({0x3203, 1}, [this] {
        double const current = mControl->drive().peltier;
        return current > 0.0 ? 1 : current < 0.0 ? 2 : 0;
    });
    bindStatus(0x3203, 2, IsoBoxReference, 1);
    mDictionary.onRead({0x3205, 1}, [this] { return mControl->drive().fan; });
    mDictionary.onRead({0x3205, 2}, [this] { return mControl->drive().fan != 0 ? 1 : 0; });
    mDictionary.onRead({0x3206, 1}, [this] { return asNumber(mControl->isoBoxState()); });
    mDictionary.onRead({0x3206, 2}, [this] {
        double const off = mControl->measured(IsoBoxReference) - mControl->settings().isoBoxTarget;
        return std::abs(off) < kIsoBoxBandKelvin ? 1 : 0;
    });
    mDictionary.onRead({0x3207, 1}, [this] {
        ThermalModel::Drive const& drive = mControl->drive();
        return milliWord(std::abs(drive.peltier) * kPeltierAmpere.at(drive.bigPeltier ? 1 : 0));
    });
    mDictionary.onRead({0x3207, 2},
                       [this] { return milliWord(std::abs(mControl->drive().peltier) * kPeltierVolt); });
    mDictionary.onRead({0x3207, 3}, [this] { return milliWord(mControl->measured(HeatsinkAir)); });
}

// --------------------------------------------------------------------------------------------- probe and gas

void TemperatureBoard::bindGas() {
    onReadEach(0x3301, 1, 3,
               [this](std::size_t aPlace) { return milli(mControl->measured(sensorAfter(Probe, aPlace))); });
    mDictionary.onRead({0x3302, 1}, [this] { return milliWord(mControl->drive().spiralWatt); });
    mDictionary.onRead(kSpiralRegulation, [this] { return mControl->settings().spiralRegulation ? 1 : 0; });
    mDictionary.onRead({0x3303, 2}, [this] { return mControl->settings().probeRegulation ? 1 : 0; });
    mDictionary.onRead({0x3303, 3}, [this] { return mControl->gas().index(mClock.now()); });
    mDictionary.onRead({0x3303, 4}, [this] { return takeOvercurrents(); });
    mDictionary.onRead({0x3303, 5}, [this] { return static_cast<std::int64_t>(mControl->heating()); });
    mDictionary.onRead({0x3303, 7}, [this]() -> std::int64_t {
        return mDictionary.number(kVtMode) == kPortExpander ? mControl->gas().ecl() : kNoFlowBoxAsked;
    });
    mDictionary.onRead(kSpiralTarget, [this] { return milli(mControl->spiralTarget()); });
    mDictionary.onRead({0x3305, 1}, [this] { return milli(mControl->model().roomCelsius()); });
    mDictionary.onRead({0x3305, 2}, [this] { return milli(mControl->gas().literPerHour(mClock.now())); });
    mDictionary.onRead({0x3305, 3}, [this]() -> std::int64_t {
        auto const deadline = mControl->heatingDeadline();
        return deadline
                   ? std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - mClock.now()).count()
                   : -1;
    });
    bindStatus(0x3312, 1, Probe, 3);
}

void TemperatureBoard::bindHeatingCommands() {
    mDictionary.onWrite({0x3302, 1}, [this](std::int64_t aMilliWatt) { return setSpiralPower(aMilliWatt); });
    mDictionary.onWrite(kSpiralRegulation, [this](std::int64_t aOn) {
        return setRegulation(&TemperatureControl::Settings::spiralRegulation, aOn);
    });
    mDictionary.onWrite({0x3303, 2}, [this](std::int64_t aOn) {
        return setRegulation(&TemperatureControl::Settings::probeRegulation, aOn);
    });
    mDictionary.onWrite({0x3303, 3}, [this](std::int64_t aIndex) {
        mControl->setGasIndex(static_cast<std::uint8_t>(aIndex), mClock.now());
        return sdoabort::kNone;
    });
}

std::uint32_t TemperatureBoard::setRegulation(bool TemperatureControl::Settings::*aWhich, std::int64_t aOn) {
    TemperatureControl::Settings wanted = mControl->settings();
    if (aOn != 0 && !wanted.gasHeating) {
        return sdoabort::kDeviceState;
    }
    wanted.*aWhich = aOn != 0;
    mControl->command(mClock.now(), wanted);
    return sdoabort::kNone;
}

std::uint32_t TemperatureBoard::setSpiralPower(std::int64_t aMilliWatt) {
    TemperatureControl::Settings wanted = mControl->settings();
    if (aMilliWatt != 0 && !wanted.gasHeating) {
        return sdoabort::kDeviceState;
    }
    wanted.spiralWatt = static_cast<double>(aMilliWatt) / 1000.0;
    mControl->command(mClock.now(), wanted);
    return sdoabort::kNone;
}

std::int64_t TemperatureBoard::takeOvercurrents() {
    return std::exchange(mOvercurrents, 0U);
}

void TemperatureBoard::countOvercurrent(unsigned aCount) {
    {
        std::lock_guard const lock(mMutex);
        mOvercurrents = std::min(mOvercurrents + std::min(aCount, kLargestCount), kLargestCount);
        report(kOutputOverCurrent, {});
    }
    wake();
}

// ---------------------------------------------------------------------------------------------- setup

std::uint32_t TemperatureBoard::writeObject(SdoObject aObject, std::span<std::uint8_t const> aData) {
    if (aObject == kSpiralTemperature && knows(aObject.index) && aData.size() == 1) {
        // Intended: the byte goes to the switch of the regulation.
        return mDictionary.write(kSpiralRegulation, aData);
    }
    std::uint32_t const code = mDictionary.write(aObject, aData);
    if (code != sdoabort::kNone) {
        return code;
    }
    auto const place = std::find(kTemperatureSetup.begin(), kTemperatureSetup.end(), aObject);
    if (place != kTemperatureSetup.end()) {
        mState.setup[static_cast<std::size_t>(place - kTemperatureSetup.begin())] =
            static_cast<std::int32_t>(mDictionary.number(aObject));
        apply();
        saveState();
    } else if (aObject == kTimeout || aObject == kProbeTarget || aObject == kSpiralTarget) {
        apply();
    }
    return sdoabort::kNone;
}

void TemperatureBoard::bindSetup() {
    mDictionary.onRead({0x2100, 4}, [this] { return stateIsWhole() ? 1 : 0; });
    mDictionary.onRead({0x3401, 1}, [this] { return stateIsWhole() ? kDefaultsRead : kDefaultsNotRead; });
    mDictionary.onRead({0x3401, 2}, [] { return std::int64_t{kTemperatureSetup.size()}; });
    mDictionary.onRead({0x3401, 6}, [this] { return mState.setup == mState.storedSetup ? 1 : 0; });
    mDictionary.onWrite({0x3401, 6}, [this](std::int64_t) { return storeSetup(); });
    mDictionary.onRead({0x3402, 1}, [this] { return mState.eepromWrites & 0xFFFFU; });
    mDictionary.onRead({0x3402, 3}, [this] { return storedSum(); });
}

std::uint32_t TemperatureBoard::storeSetup() {
    mState.storedSetup = mState.setup;
    ++mState.eepromWrites;
    saveState();
    return sdoabort::kNone;
}

/// @return The low 16 bits of the CRC-32 of the stored values, 32 bits each, little endian.
std::uint16_t TemperatureBoard::storedSum() const {
    std::vector<Bytef> bytes;
    for (std::int32_t const value : mState.storedSetup) {
        for (unsigned byte = 0; byte < 4; ++byte) {
            bytes.push_back(static_cast<Bytef>(static_cast<std::uint32_t>(value) >> (8 * byte)));
        }
    }
    return static_cast<std::uint16_t>(crc32(0, bytes.data(), static_cast<uInt>(bytes.size())) & 0xFFFFU);
}

void TemperatureBoard::bindRaw() {
    onReadEach(0x3501, 1, TemperatureControl::kHeaters, [this](std::size_t aHeater) {
        return std::min<std::int64_t>(std::llround(mControl->energies()[aHeater]),
                                      std::numeric_limits<std::int32_t>::max());
    });
    // The first eight sensors are those of the faces and of the shim coil's ends.
    auto const ohm = [this](std::size_t aChannel) {
        return platinumOhm(mControl->measured(sensorAfter(MagnetLeft, aChannel)));
    };
    onReadEach(0x50D0, 1, kRawChannels, [ohm](std::size_t aChannel) {
        return std::llround(ohm(aChannel) * kConverterCounts / kConverterOhm);
    });
    onReadEach(0x50D1, 1, kRawChannels, [ohm](std::size_t aChannel) { return milli(ohm(aChannel)); });
}

// ---------------------------------------------------------------------------------------------- emergencies

std::uint8_t TemperatureBoard::errorBits() const {
    unsigned bits = mSpiralTooHot ? kTemperatureError : 0U;
    if (mControl->heating() == TemperatureControl::Heating::CutByTimeout) {
        bits |= kCommunicationError;
    }
    for (std::size_t sensor = 0; sensor < TemperatureControl::kSensors; ++sensor) {
        if (mControl->fault(static_cast<TemperatureSensor>(sensor)) != SensorFault::None) {
            bits |= kManufacturerError;
        }
    }
    return static_cast<std::uint8_t>(bits);
}

void TemperatureBoard::failSensor(TemperatureSensor aSensor, SensorFault aFault) {
    {
        std::lock_guard const lock(mMutex);
        if (mControl->fault(aSensor) == aFault) {
            return;
        }
        catchUp(mClock.now()); // What was measured until now was measured without it.
        mControl->setFault(aSensor, aFault);
        report(aFault == SensorFault::None ? kNoError : kHardware,
               {static_cast<std::uint8_t>(aSensor), static_cast<std::uint8_t>(aFault)});
    }
    wake();
}

// ---------------------------------------------------------------------------------------------- around it

void TemperatureBoard::setFieldObserver(FieldObserver aObserver) {
    {
        std::lock_guard const lock(mObserverMutex);
        mObserver = std::move(aObserver);
    }
    advance(mClock.now());
    wake();
}

ThermalModel::Temperatures TemperatureBoard::temperatures() {
    std::lock_guard const lock(mMutex);
    catchUp(mClock.now());
    return mControl->model().temperatures();
}

ThermalModel::Drive TemperatureBoard::drive() {
    std::lock_guard const lock(mMutex);
    catchUp(mClock.now());
    return mControl->drive();
}

double TemperatureBoard::roomCelsius() {
    std::lock_guard const lock(mMutex);
    catchUp(mClock.now());
    return mControl->model().roomCelsius();
}

void TemperatureBoard::setRoom(DailyAmbient const& aRoom) {
    std::lock_guard const lock(mMutex);
    catchUp(mClock.now());
    mControl->setAmbient(aRoom);
}

HeatingWatch TemperatureBoard::heatingWatch() {
    std::lock_guard const lock(mMutex);
    TimePoint const now = mClock.now();
    catchUp(now);
    return mControl->watchUntil(now);
}

void TemperatureBoard::resetHeatingWatch() {
    std::lock_guard const lock(mMutex);
    TimePoint const now = mClock.now();
    catchUp(now);
    mControl->resetWatch(now);
}

} // namespace libfieldwarden::sim
