// SPDX-License-Identifier: Apache-2.0
// The procedures that the firmware of both boards has: start, program, emergencies, state.
#include "simulator/boards/BoardBase.h"

#include "simulator/boards/CommunicationObjects.h"

#include <velmor/kepla/canopen/SdoAbort.h>

#include <algorithm>
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

constexpr std::uint16_t kNoError = 0x0000; ///< Emergency: an error is over.
constexpr std::uint8_t kAnyError = 0x01;

constexpr std::size_t kLargestLog = 8192;

constexpr BoardBase::SdoObject kErrorRegister{0x1001, 0};
constexpr BoardBase::SdoObject kErrorCount{0x1003, 0};

} // namespace

// ---------------------------------------------------------------------------------------------- life

BoardBase::BoardBase(Kind const& aKind,
                     std::uint8_t aNode,
                     std::filesystem::path aStateFile,
                     Clock& aClock,
                     std::span<ObjectRow const> aTable)
    : mClock(aClock)
    , mDictionary({kCommunicationObjects, kProgramObjects, kServiceObjects, aTable})
    , mPlatform(aKind.platform)
    , mStateFile(std::move(aStateFile))
    , mStartedAt(aClock.now()) {
    describe(aKind, aNode);
    bindService();
    bindProgram();
}

void BoardBase::goOn() {
    if (!mStateFile.empty()) {
        try {
            loadState(mStateFile);
        } catch (std::runtime_error const& error) {
            mStateIsWhole = false;
            note(std::string("Started with power-on values: ") + error.what());
        }
    }
    mProgramRuns = state().buildId != 0;
    mFlashError = mProgramRuns ? FlashError::None : FlashError::NoProgram;
}

void BoardBase::saveState() {
    if (mStateFile.empty()) {
        return;
    }
    try {
        storeState(mStateFile);
        mSaveFailed = false;
    } catch (std::runtime_error const& error) {
        if (!std::exchange(mSaveFailed, true)) {
            note(error.what());
        }
    }
}

void BoardBase::note(std::string const& aText) {
    keplaDoLog(Severity::Warning, "%s", {}, aText);
    double const uptime = std::chrono::duration<double>(mClock.now() - mStartedAt).count();
    mLog += fmt::format("[{:.3f} s] {}\n", uptime, aText);
    if (mLog.size() > kLargestLog) {
        mLog.erase(0, mLog.find('\n', mLog.size() - kLargestLog) + 1);
    }
}

void BoardBase::restart(Start aWhy) {
    std::lock_guard const lock(mMutex);
    TimePoint const now = mClock.now();
    bool const wanted = aWhy != Start::ProgramControl || mProgramWanted;
    mProgramRuns = wanted && state().buildId != 0;
    if (mProgramRuns) {
        mFlashError = FlashError::None;
    }
    mDictionary.powerOn();
    mRestartRequest = false;
    mProgramWanted = true;
    mEmergencies.clear();
    mEmergencyCount = 0;
    mStartReason = aWhy;
    mStartedAt = now;
    ++state().starts;
    onRestart(now);
    saveState();
}

void BoardBase::resetCommunication() {
    std::lock_guard const lock(mMutex);
    mDictionary.powerOn(0x1000, 0x1FFF);
}

bool BoardBase::programRuns() const {
    std::lock_guard const lock(mMutex);
    return mProgramRuns;
}

// ---------------------------------------------------------------------------------------------- dictionary

/// What differs from board to board.
void BoardBase::describe(Kind const& aKind, std::uint8_t aNode) {
    mDictionary.setPowerOn({0x1014, 0}, 0x080 + aNode);
    mDictionary.setPowerOn({0x1018, 2}, aKind.product);
    mDictionary.setPowerOn({0x1018, 3}, aKind.revision);
    mDictionary.setPowerOn({0x1200, 1}, 0x600 + aNode);
    mDictionary.setPowerOn({0x1200, 2}, 0x580 + aNode);
    mDictionary.setPowerOn({0x1800, 1}, 0x8000'0180 + aNode);
    mDictionary.setPowerOn({0x1A00, 1}, aKind.mappedObject);
    mDictionary.setPowerOn({0x200C, 2}, ProgramImage::kLargest);
    mDictionary.onReadText({0x1008, 0}, [name = std::string(aKind.name)] { return name; });
    mDictionary.onReadText({0x1009, 0}, [] { return std::string("C"); });
    mDictionary.onReadText({0x200B, 1}, [this] { return mPlatform; });
    mDictionary.restrictTo([this](std::uint16_t aIndex) { return knows(aIndex); });
}

bool BoardBase::knows(std::uint16_t aIndex) const {
    return mProgramRuns || aIndex < 0x2000 || (aIndex >= 0x200A && aIndex <= 0x200D);
}

void BoardBase::bindService() {
    mDictionary.onRead(kErrorRegister, [this] { return errorRegister(); });
    mDictionary.onWrite(kErrorCount, [this](std::int64_t) {
        mDictionary.powerOn(kErrorCount.index, kErrorCount.index);
        return sdoabort::kNone;
    });
    mDictionary.onRead({0x1018, 4}, [this] { return state().serial; });
    mDictionary.onRead({0x2000, 1}, [this] {
        return std::chrono::duration_cast<std::chrono::seconds>(mClock.now() - mStartedAt).count();
    });
    mDictionary.onRead({0x2000, 2}, [this] { return state().starts; });
    mDictionary.onRead({0x2000, 3}, [this] { return static_cast<std::int64_t>(mStartReason); });
    mDictionary.onRead({0x2000, 4}, [this] { return mEmergencyCount; });
    mDictionary.onRead({0x2000, 5}, [this] { return state().flashWrites; });
    mDictionary.onReadText({0x2200, 1}, [this] { return state().record; });
    mDictionary.onWriteBytes({0x2200, 1}, [this](std::span<std::uint8_t const> aData) {
        state().record.assign(aData.begin(), aData.end());
        saveState();
        return sdoabort::kNone;
    });
    mDictionary.onReadText({0x2201, 1}, [this] { return mLog; });
}

std::uint32_t BoardBase::read(SdoObject aObject, std::vector<std::uint8_t>& aData) {
    std::lock_guard const lock(mMutex);
    onAccess(mClock.now());
    return mDictionary.read(aObject, aData);
}

std::uint32_t BoardBase::write(SdoObject aObject, std::span<std::uint8_t const> aData) {
    std::lock_guard const lock(mMutex);
    onAccess(mClock.now());
    return writeObject(aObject, aData);
}

// ---------------------------------------------------------------------------------------------- emergencies

std::uint8_t BoardBase::errorRegister() const {
    unsigned const bits = errorBits();
    return static_cast<std::uint8_t>(bits | (bits != 0 ? kAnyError : 0U));
}

void BoardBase::report(std::uint16_t aCode, std::array<std::uint8_t, 5> const& aManufacturer) {
    remember({aCode, errorRegister(), aManufacturer});
}

/// Queues an emergency, and puts a fault into the history 0x1003, the latest first.
void BoardBase::remember(Emergency const& aEmergency) {
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

void BoardBase::raiseEmergency(Emergency const& aEmergency) {
    {
        std::lock_guard const lock(mMutex);
        remember(aEmergency);
    }
    wake();
}

std::vector<Emergency> BoardBase::takeEmergencies() {
    std::lock_guard const lock(mMutex);
    return std::exchange(mEmergencies, {});
}

// ---------------------------------------------------------------------------------------------- program

/// Takes an image piece by piece; given up half-way it leaves a flash that must be cleared again.
class BoardBase::ImageStream final : public ObjectWriteStream {
public:
    explicit ImageStream(BoardBase& aBoard)
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

    BoardBase& mBoard;
    bool mBegun = false;
    std::vector<std::uint8_t> mPacked;
};

void BoardBase::bindProgram() {
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
    mDictionary.onRead({0x1F56, 1}, [this] { return state().buildId; });
    mDictionary.onRead({0x1F57, 1}, [this] { return flashStatus(); });
    mDictionary.onRead({0x200C, 3}, [this] { return state().imageLength; });
    mDictionary.onRead({0x200C, 4}, [this] { return state().imageCrc; });
    mDictionary.onReadText({0x100A, 0}, [this] { return state().version; });
    mDictionary.onReadText({0x200D, 2}, [this] { return state().version; });
}

std::unique_ptr<ObjectWriteStream> BoardBase::openStream(SdoObject aObject,
                                                         std::optional<std::uint32_t> aSize) {
    std::lock_guard const lock(mMutex);
    return mDictionary.openStream(aObject, aSize);
}

bool BoardBase::flashBusy() const {
    return mClock.now() < mFlashBusyUntil;
}

std::uint32_t BoardBase::flashStatus() const {
    return flashBusy() ? 1U : static_cast<std::uint32_t>(mFlashError) << 1U;
}

std::uint32_t BoardBase::controlProgram(std::int64_t aCommand) {
    if (flashBusy()) {
        return sdoabort::kDeviceState;
    }
    switch (aCommand) {
        case kStopProgram:
            mRestartRequest = mProgramRuns;
            mProgramWanted = !mProgramRuns;
            break;
        case kStartProgram:
            if (state().buildId == 0) {
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

void BoardBase::clearFlash() {
    state().buildId = 0;
    state().version.clear();
    state().imageLength = 0;
    state().imageCrc = 0;
    mCleared = true;
    mFlashError = FlashError::NoProgram;
    mFlashBusyUntil = mClock.now() + kClearTime;
    saveState();
}

/// @return Whether an image may come: 0 or an abort code.
std::uint32_t BoardBase::beginImage() {
    if (mProgramRuns || flashBusy()) {
        return sdoabort::kDeviceState;
    }
    if (!std::exchange(mCleared, false)) {
        mFlashError = FlashError::NotCleared;
        return sdoabort::kDeviceState;
    }
    return sdoabort::kNone;
}

void BoardBase::checkImage(std::span<std::uint8_t const> aPacked) {
    try {
        ProgramImage const image = ProgramImage::check(aPacked, mPlatform);
        state().buildId = image.buildId;
        state().version = image.version;
        state().imageLength = image.length;
        state().imageCrc = image.crc;
        ++state().flashWrites;
        mFlashError = FlashError::None;
    } catch (ProgramImageError const& error) {
        mFlashError = error.error();
        note(std::string("Refused a program image: ") + error.what());
    }
    mFlashBusyUntil = mClock.now() + kCheckTime;
    saveState();
}

// ---------------------------------------------------------------------------------------------- node

bool BoardBase::takeRestartRequest() {
    std::lock_guard const lock(mMutex);
    return std::exchange(mRestartRequest, false);
}

BoardBase::Duration BoardBase::heartbeatPeriod() const {
    std::lock_guard const lock(mMutex);
    return std::chrono::milliseconds(mDictionary.number({0x1017, 0}));
}

void BoardBase::setWaker(std::function<void()> aWake) {
    std::lock_guard const lock(mWakeMutex);
    mWake = std::move(aWake);
}

/// Calls the waker with its mutex held, so that nobody is called any more once setWaker() has taken him away.
void BoardBase::wake() {
    std::lock_guard const lock(mWakeMutex);
    if (mWake) {
        mWake();
    }
}

} // namespace libfieldwarden::sim
