// SPDX-License-Identifier: Apache-2.0
// The physics of the shim board and the procedures of its firmware.
#include "simulator/boards/ShimBoard.h"

#include "simulator/boards/CommunicationObjects.h"
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
using velmor::kepla::canopen::ObjectWriteStream;
using velmor::kepla::log::Severity;

namespace {

// Program and flash.
constexpr std::int64_t kStopProgram = 0;
constexpr std::int64_t kStartProgram = 1;
constexpr std::int64_t kRestartProgram = 2;
constexpr std::int64_t kClearProgram = 3;
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
constexpr std::uint8_t kAnyError = 0x01;
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
constexpr std::size_t kLargestLog = 8192;

constexpr ShimBoard::SdoObject kErrorRegister{0x1001, 0};
constexpr ShimBoard::SdoObject kErrorCount{0x1003, 0};

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
    , mNode(aOptions.node)
    , mStateFile(aOptions.stateFile)
    , mClock(aClock)
    , mDictionary({kCommunicationObjects, kProgramObjects, kShimBoardObjects})
    , mState(newBoard(aOptions.node))
    , mAmbientCelsius(aOptions.ambientCelsius)
    , mNoise(aOptions.seed * 0x9E37'79B9'7F4A'7C15ULL + aOptions.node) // So that two boards differ.
    , mStartedAt(aClock.now()) {
    describe();
    bindObjects();
    bindProgram();
    loadState(aOptions.stateFile);
    mProgramRuns = mState.buildId != 0;
    mFlashError = mProgramRuns ? FlashError::None : FlashError::NoProgram;
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
    if (aFile.empty()) {
        return;
    }
    try {
        if (auto const state = ShimBoardState::load(aFile)) {
            mState = *state;
        }
    } catch (std::runtime_error const& error) {
        mCalibrated = false;
        note(std::string("Started with power-on values: ") + error.what());
    }
}

void ShimBoard::saveState() {
    for (std::size_t source = 0; source < kSources; ++source) {
        mState.currentsUA[source] = mSources[source].setpointUA;
    }
    if (mStateFile.empty()) {
        return;
    }
    try {
        mState.save(mStateFile);
        mSaveFailed = false;
    } catch (std::runtime_error const& error) {
        if (!std::exchange(mSaveFailed, true)) {
            note(error.what());
        }
    }
}

/// Puts a line into the board's own log and into ours.
void ShimBoard::note(std::string const& aText) {
    keplaDoLog(Severity::Warning, "%s", {}, aText);
    double const uptime = std::chrono::duration<double>(mClock.now() - mStartedAt).count();
    mLog += fmt::format("[{:.3f} s] {}\n", uptime, aText);
    if (mLog.size() > kLargestLog) {
        mLog.erase(0, mLog.find('\n', mLog.size() - kLargestLog) + 1);
    }
}

void ShimBoard::restart(Start aWhy) {
    std::lock_guard const lock(mMutex);
    start(aWhy);
}

void ShimBoard::start(Start aWhy) {
    TimePoint const now = mClock.now();
    bool const wanted = aWhy != Start::ProgramControl || mProgramWanted;
    mProgramRuns = wanted && mState.buildId != 0;
    if (mProgramRuns) {
        mFlashError = FlashError::None;
    }
    mDictionary.powerOn();
    for (Source& source : mSources) {
        source.setpointUA = 0;
        source.reported = SourceError::None;
        applySetpoint(source, now);
    }
    heat(now);
    mAnswerTime = {};
    mRestartRequest = false;
    mProgramWanted = true;
    mEmergencies.clear();
    mEmergencyCount = 0;
    mStartReason = aWhy;
    mStartedAt = now;
    ++mState.starts;
    saveState();
}

void ShimBoard::resetCommunication() {
    std::lock_guard const lock(mMutex);
    mDictionary.powerOn(0x1000, 0x1FFF);
}

bool ShimBoard::programRuns() const {
    std::lock_guard const lock(mMutex);
    return mProgramRuns;
}

// ---------------------------------------------------------------------------------------------- dictionary

/// What differs from board to board.
void ShimBoard::describe() {
    mDictionary.setPowerOn({0x1014, 0}, 0x080 + mNode);
    mDictionary.setPowerOn({0x1018, 2}, 0x0047'5348);
    mDictionary.setPowerOn({0x1018, 3}, 0x0001'0003);
    mDictionary.setPowerOn({0x1200, 1}, 0x600 + mNode);
    mDictionary.setPowerOn({0x1200, 2}, 0x580 + mNode);
    mDictionary.setPowerOn({0x1800, 1}, 0x8000'0180 + mNode);
    mDictionary.setPowerOn({0x1A00, 1}, 0x3002'0120); // Temperature 1, 32 bits.
    mDictionary.setPowerOn({0x200C, 2}, ProgramImage::kLargest);
    mDictionary.onReadText({0x1008, 0}, [] { return std::string("Q47 shim board"); });
    mDictionary.onReadText({0x1009, 0}, [] { return std::string("C"); });
    mDictionary.onReadText({0x200B, 1}, [] { return std::string(kPlatform); });
    mDictionary.restrictTo([this](std::uint16_t aIndex) {
        return mProgramRuns || aIndex < 0x2000 || (aIndex >= 0x200A && aIndex <= 0x200D);
    });
}

void ShimBoard::bindObjects() {
    mDictionary.onRead(kErrorRegister, [this] { return errorRegister(); });
    mDictionary.onWrite(kErrorCount, [this](std::int64_t) {
        mDictionary.powerOn(kErrorCount.index, kErrorCount.index);
        return sdoabort::kNone;
    });
    mDictionary.onRead({0x1018, 4}, [this] { return mState.serial; });
    mDictionary.onRead({0x2000, 1}, [this] {
        return std::chrono::duration_cast<std::chrono::seconds>(mClock.now() - mStartedAt).count();
    });
    mDictionary.onRead({0x2000, 2}, [this] { return mState.starts; });
    mDictionary.onRead({0x2000, 3}, [this] { return static_cast<std::int64_t>(mStartReason); });
    mDictionary.onRead({0x2000, 4}, [this] { return mEmergencyCount; });
    mDictionary.onRead({0x2000, 5}, [this] { return mState.flashWrites; });
    mDictionary.onRead({0x2100, 4}, [this] { return mCalibrated ? 1 : 0; });
    mDictionary.onReadText({0x2200, 1}, [this] { return mState.record; });
    mDictionary.onWriteBytes({0x2200, 1}, [this](std::span<std::uint8_t const> aData) {
        mState.record.assign(aData.begin(), aData.end());
        saveState();
        return sdoabort::kNone;
    });
    mDictionary.onReadText({0x2201, 1}, [this] { return mLog; });
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
    mDictionary.onRead({0x3004, 1}, [this] { return mCalibrated ? kCalibrated : kNotCalibrated; });
}

std::uint32_t ShimBoard::read(SdoObject aObject, std::vector<std::uint8_t>& aData) {
    std::lock_guard const lock(mMutex);
    return mDictionary.read(aObject, aData);
}

std::uint32_t ShimBoard::write(SdoObject aObject, std::span<std::uint8_t const> aData) {
    std::lock_guard const lock(mMutex);
    return mDictionary.write(aObject, aData);
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

std::uint8_t ShimBoard::errorRegister() const {
    bool const current = std::any_of(mSources.begin(), mSources.end(), [](Source const& aSource) {
        return aSource.setpointUA != 0 && aSource.failure != SourceError::None;
    });
    unsigned const bits = (current ? kCurrentError : 0U) | (mTooHot ? kTemperatureError : 0U);
    return static_cast<std::uint8_t>(bits | (bits != 0 ? kAnyError : 0U));
}

void ShimBoard::report(std::uint16_t aCode, std::array<std::uint8_t, 5> const& aManufacturer) {
    remember({aCode, errorRegister(), aManufacturer});
}

/// Queues an emergency, and puts a fault into the history 0x1003, the latest first.
void ShimBoard::remember(Emergency const& aEmergency) {
    mEmergencies.push_back(aEmergency);
    ++mEmergencyCount;
    if (aEmergency.code == kNoError) {
        return;
    }
    for (std::uint8_t place = kErrorHistory; place > 1; --place) {
        mDictionary.setNumber({kErrorCount.index, place},
                              mDictionary.number({kErrorCount.index, static_cast<std::uint8_t>(place - 1)}));
    }
    mDictionary.setNumber({kErrorCount.index, 1}, aEmergency.code);
    mDictionary.setNumber(kErrorCount,
                          std::min<std::int64_t>(mDictionary.number(kErrorCount) + 1, kErrorHistory));
}

void ShimBoard::raiseEmergency(Emergency const& aEmergency) {
    {
        std::lock_guard const lock(mMutex);
        remember(aEmergency);
    }
    wake();
}

std::vector<Emergency> ShimBoard::takeEmergencies() {
    std::lock_guard const lock(mMutex);
    return std::exchange(mEmergencies, {});
}

// ---------------------------------------------------------------------------------------------- program

/// Takes an image piece by piece; given up half-way it leaves a flash that must be cleared again.
class ShimBoard::ImageStream final : public ObjectWriteStream {
public:
    explicit ImageStream(ShimBoard& aBoard)
        : mBoard(aBoard) {}

    std::uint32_t write(std::span<std::uint8_t const> aData) override {
        std::lock_guard const lock(mBoard.mMutex);
        if (std::uint32_t const code = begin(); code != sdoabort::kNone) {
            return code;
        }
        if (mPacked.size() + aData.size() > ProgramImage::kLargest) {
            return sdoabort::kOutOfMemory;
        }
        mPacked.insert(mPacked.end(), aData.begin(), aData.end());
        return sdoabort::kNone;
    }

    std::uint32_t finish() override {
        std::lock_guard const lock(mBoard.mMutex);
        if (std::uint32_t const code = begin(); code != sdoabort::kNone) {
            return code;
        }
        mBoard.checkImage(mPacked);
        return sdoabort::kNone;
    }

private:
    /// Called with the board's mutex held.
    std::uint32_t begin() { return std::exchange(mBegun, true) ? sdoabort::kNone : mBoard.beginImage(); }

    ShimBoard& mBoard;
    bool mBegun = false;
    std::vector<std::uint8_t> mPacked;
};

void ShimBoard::bindProgram() {
    mDictionary.onStream(
        {0x1F50, 1}, [this](std::optional<std::uint32_t>) { return std::make_unique<ImageStream>(*this); });
    mDictionary.onWriteBytes({0x1F50, 1}, [this](std::span<std::uint8_t const> aData) {
        std::uint32_t const code = beginImage();
        if (code == sdoabort::kNone) {
            checkImage(aData);
        }
        return code;
    });
    mDictionary.onRead({0x1F51, 1}, [this] { return mProgramRuns ? 1 : 0; });
    mDictionary.onWrite({0x1F51, 1}, [this](std::int64_t aCommand) { return controlProgram(aCommand); });
    mDictionary.onRead({0x1F56, 1}, [this] { return mState.buildId; });
    mDictionary.onRead({0x1F57, 1}, [this] { return flashStatus(); });
    mDictionary.onRead({0x200C, 3}, [this] { return mState.imageLength; });
    mDictionary.onRead({0x200C, 4}, [this] { return mState.imageCrc; });
    mDictionary.onReadText({0x100A, 0}, [this] { return mState.version; });
    mDictionary.onReadText({0x200D, 2}, [this] { return mState.version; });
}

std::unique_ptr<ObjectWriteStream> ShimBoard::openStream(SdoObject aObject,
                                                         std::optional<std::uint32_t> aSize) {
    std::lock_guard const lock(mMutex);
    return mDictionary.openStream(aObject, aSize);
}

bool ShimBoard::flashBusy() const {
    return mClock.now() < mFlashBusyUntil;
}

std::uint32_t ShimBoard::flashStatus() const {
    return flashBusy() ? 1U : static_cast<std::uint32_t>(mFlashError) << 1U;
}

std::uint32_t ShimBoard::controlProgram(std::int64_t aCommand) {
    if (flashBusy()) {
        return sdoabort::kDeviceState;
    }
    switch (aCommand) {
        case kStopProgram:
            mRestartRequest = mProgramRuns;
            mProgramWanted = !mProgramRuns;
            break;
        case kStartProgram:
            if (mState.buildId == 0) {
                return sdoabort::kDeviceState;
            }
            mRestartRequest = !mProgramRuns;
            mProgramWanted = true;
            break;
        case kRestartProgram:
            mRestartRequest = true;
            mProgramWanted = mProgramRuns;
            break;
        case kClearProgram:
            if (mProgramRuns) {
                return sdoabort::kDeviceState;
            }
            clearFlash();
            break;
        default:
            return sdoabort::kInvalidValue;
    }
    return sdoabort::kNone;
}

void ShimBoard::clearFlash() {
    mState.buildId = 0;
    mState.version.clear();
    mState.imageLength = 0;
    mState.imageCrc = 0;
    mCleared = true;
    mFlashError = FlashError::NoProgram;
    mFlashBusyUntil = mClock.now() + kClearTime;
    saveState();
}

/// @return Whether an image may come: 0 or an abort code.
std::uint32_t ShimBoard::beginImage() {
    if (mProgramRuns || flashBusy()) {
        return sdoabort::kDeviceState;
    }
    if (!std::exchange(mCleared, false)) {
        mFlashError = FlashError::NotCleared;
        return sdoabort::kDeviceState;
    }
    return sdoabort::kNone;
}

void ShimBoard::checkImage(std::span<std::uint8_t const> aPacked) {
    try {
        ProgramImage const image = ProgramImage::check(aPacked, std::string(kPlatform));
        mState.buildId = image.buildId;
        mState.version = image.version;
        mState.imageLength = image.length;
        mState.imageCrc = image.crc;
        ++mState.flashWrites;
        mFlashError = FlashError::None;
    } catch (ProgramImageError const& error) {
        mFlashError = error.error();
        note(std::string("Refused a program image: ") + error.what());
    }
    mFlashBusyUntil = mClock.now() + kCheckTime;
    saveState();
}

// ---------------------------------------------------------------------------------------------- node

ShimBoard::TimePoint ShimBoard::answerTime() const {
    std::lock_guard const lock(mMutex);
    return mAnswerTime;
}

bool ShimBoard::takeRestartRequest() {
    std::lock_guard const lock(mMutex);
    return std::exchange(mRestartRequest, false);
}

ShimBoard::Duration ShimBoard::heartbeatPeriod() const {
    std::lock_guard const lock(mMutex);
    return std::chrono::milliseconds(mDictionary.number({0x1017, 0}));
}

void ShimBoard::setWaker(std::function<void()> aWake) {
    std::lock_guard const lock(mWakeMutex);
    mWake = std::move(aWake);
}

/// Calls the waker with its mutex held, so that nobody is called any more once setWaker() has taken him away.
void ShimBoard::wake() {
    std::lock_guard const lock(mWakeMutex);
    if (mWake) {
        mWake();
    }
}

} // namespace libfieldwarden::sim
