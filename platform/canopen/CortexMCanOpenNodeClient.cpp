// SPDX-License-Identifier: Apache-2.0
// The steps from a board on the bus to a board that is ready, and those of its firmware update.
#include <velmor/kepla/canopen/CortexMCanOpenNodeClient.h>

#include <velmor/kepla/canopen/BuildInfo.h>
#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/CanOpenNodeClient.h>
#include <velmor/kepla/canopen/FirmwareImage.h>
#include <velmor/kepla/deviceid/DeviceIdServiceContributorIfc.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace velmor::kepla::canopen {

using velmor::kepla::log::Severity;
using velmor::platform::Clock;

namespace {

using namespace std::chrono_literals;

// Objects. Identity and heartbeat after CiA 301, program download after CiA 302-3, the rest the boards' own.
constexpr std::uint16_t kDeviceType = 0x1000;
constexpr std::uint16_t kDeviceName = 0x1008;
constexpr std::uint16_t kHardwareVersion = 0x1009;
constexpr std::uint16_t kSoftwareVersion = 0x100A;
constexpr std::uint16_t kHeartbeatTime = 0x1017;
constexpr std::uint16_t kIdentity = 0x1018;
constexpr std::uint16_t kProgramData = 0x1F50;
constexpr std::uint16_t kProgramControl = 0x1F51;
constexpr std::uint16_t kProgramIdentification = 0x1F56;
constexpr std::uint16_t kFlashStatus = 0x1F57;
constexpr std::uint16_t kPlatformIdentifier = 0x200B;
constexpr std::uint16_t kRecord = 0x2200;
constexpr std::uint16_t kBoardLog = 0x2201;
constexpr std::uint8_t kFirst = 1; ///< Subindex of all of the boards' and the program's objects.

// Commands and answers of the program control object.
constexpr std::uint8_t kStop = 0;
constexpr std::uint8_t kStart = 1;
constexpr std::uint8_t kClear = 3;
constexpr std::uint8_t kRunning = 1;

// The flash status.
constexpr std::uint32_t kBusy = 0x01;
constexpr std::uint32_t kErrorMask = 0x7F;
constexpr std::uint32_t kNoError = 0;
constexpr std::uint32_t kNoProgram = 1; ///< What a board that has just been cleared reports.

// How long a board may take, in the order of the procedure.
constexpr Clock::Duration kBringUpTime = 30s;
constexpr Clock::Duration kBringUpPause = 500ms;
constexpr Clock::Duration kRestartTime = 30s;
constexpr Clock::Duration kFlashTime = 60s;
constexpr Clock::Duration kPollPause = 100ms;
constexpr int kHeartbeatsMissed = 3; ///< Heartbeat times of silence after which a board counts as lost.

struct FlashError {
    std::uint32_t code;
    std::string_view words;
};

constexpr std::array kFlashErrors{
    FlashError{1, "there is no valid program"},
    FlashError{2, "the data format is unknown"},
    FlashError{3, "the data are damaged"},
    FlashError{4, "the flash was not cleared before"},
    FlashError{5, "the flash could not be written"},
    FlashError{6, "an address was wrong"},
    FlashError{7, "the flash is locked"},
};

std::string flashWords(std::uint32_t aCode) {
    auto const found = std::find_if(kFlashErrors.begin(), kFlashErrors.end(),
                                    [&](FlashError const& aEach) { return aEach.code == aCode; });
    return found == kFlashErrors.end() ? "flash error " + std::to_string(aCode) : std::string(found->words);
}

long long wholeSeconds(Clock::Duration aTime) {
    return std::chrono::duration_cast<std::chrono::seconds>(aTime).count();
}

/// The name under which a board's record is published, from characters that a record's name may have.
std::string recordName(std::string const& aPlatform, unsigned aNode) {
    std::string result = aPlatform.empty() ? "board" : aPlatform;
    std::replace_if(
        result.begin(), result.end(),
        [](unsigned char aEach) {
            return std::isalnum(aEach) == 0 && aEach != '.' && aEach != '_' && aEach != '-';
        },
        '_');
    return result + "-" + std::to_string(aNode);
}

} // namespace

CortexMCanOpenNodeClient::CortexMCanOpenNodeClient(
    std::shared_ptr<CanOpenMaster> const& aMaster,
    unsigned char aNodeId,
    std::string aBuildInfoPath,
    std::string aFirmwarePath,
    std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> aContributor)
    : Logger("CortexMCanOpenNodeClient(canID = " + std::to_string(aNodeId) + ")", "CANopen")
    , mMaster(aMaster)
    , mNodeId(aNodeId)
    , mBuildInfoPath(std::move(aBuildInfoPath))
    , mFirmwarePath(std::move(aFirmwarePath))
    , mContributor(std::move(aContributor))
    , mClient(std::make_shared<CanOpenNodeClient>(aMaster, aNodeId))
    , mClock(Clock::current())
    , mName("node " + std::to_string(aNodeId)) {}

CortexMCanOpenNodeClient::~CortexMCanOpenNodeClient() = default;

void CortexMCanOpenNodeClient::fail(std::string const& aWhy) const {
    throw std::runtime_error("Node " + std::to_string(mNodeId) + ": " + aWhy);
}

// ---------------------------------------------------------------------------------------------- readings

std::string CortexMCanOpenNodeClient::name() const {
    std::lock_guard const lock(mMutex);
    return mName;
}

std::string CortexMCanOpenNodeClient::platformIdentifier() {
    return mClient->readString(kPlatformIdentifier, kFirst);
}

std::uint32_t CortexMCanOpenNodeClient::softwareStatus() {
    return mClient->readUInt32(kFlashStatus, kFirst);
}

std::uint32_t CortexMCanOpenNodeClient::firmwareJenkinsBuildID() {
    return mClient->readUInt32(kProgramIdentification, kFirst);
}

std::shared_ptr<CanOpenNodeClientIfc> CortexMCanOpenNodeClient::canopenClient() const {
    return mClient;
}

std::string CortexMCanOpenNodeClient::mds() {
    return mClient->readDomain({kRecord, kFirst});
}

void CortexMCanOpenNodeClient::setMds(std::string const& aText) {
    mClient->writeBlock(kRecord, kFirst, aText.data(), aText.size());
}

void CortexMCanOpenNodeClient::downloadLogs() {
    std::string text;
    try {
        text = mClient->readDomain({kBoardLog, kFirst});
    } catch (SdoAbortError const& error) {
        keplaDoLog(Severity::Debug, "~downloadLogs: the board keeps no log: %s", {}, error.what());
        return;
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        keplaDoLog(Severity::Info, "~downloadLogs: %s", {}, line);
    }
}

// ---------------------------------------------------------------------------------------------- hooks

void CortexMCanOpenNodeClient::configurePDOs() {}

void CortexMCanOpenNodeClient::preFirmwareUpdate(bool /*aProgramRuns*/) {}

void CortexMCanOpenNodeClient::postFirmwareUpdate() {}

void CortexMCanOpenNodeClient::afterPrepare() {}

void CortexMCanOpenNodeClient::beforeShutdown() {}

// ---------------------------------------------------------------------------------------------- bringing up

void CortexMCanOpenNodeClient::prepare() {
    keplaDoLog(Severity::Debug, "+prepare", {});
    bringUp();
    configurePDOs();
    mMaster->command(NmtCommand::Start, mNodeId);
    checkFirmware();
    readIdentity();
    superviseHeartbeat();
    contributeRecord();
    afterPrepare();
    keplaDoLog(Severity::Debug, "-prepare", {});
}

void CortexMCanOpenNodeClient::bringUp() {
    Clock::TimePoint const deadline = mClock.now() + kBringUpTime;
    std::string whyNot;
    bool told = false;
    while (true) {
        std::uint32_t const signs = mMaster->status(mNodeId).signs;
        if (answers(whyNot)) {
            return;
        }
        if (mClock.now() >= deadline) {
            fail("the board did not come up within " + std::to_string(wholeSeconds(kBringUpTime)) +
                 " s: waited for its boot-up, its heartbeat, its answer to node guarding, or its answer to a "
                 "read of 0x1000:00 (" +
                 whyNot + ")");
        }
        if (!std::exchange(told, true)) {
            keplaDoLog(Severity::Info, "~prepare: waiting for the board: %s", {}, whyNot);
        }
        awaitSign(signs);
    }
}

/// Waits a while for the board to show that it is there: with its boot-up, its heartbeat, or, where nothing
/// was heard of it yet, with its answer to node guarding.
/// @param aSigns  How many signs of life it has given so far.
void CortexMCanOpenNodeClient::awaitSign(std::uint32_t aSigns) {
    if (mMaster->status(mNodeId).state == NmtState::Unknown) {
        try {
            mMaster->guard(mNodeId);
        } catch (CanLinkError const&) { // Told by the master; the link may come back while the wait lasts.
        }
    }
    mMaster->awaitStatus(
        mNodeId, [aSigns](NodeStatus const& aStatus) { return aStatus.signs != aSigns; }, kBringUpPause);
}

/// Asks the board for its device type. A board that does not answer may be stopped, in which state it answers
/// no read, so it is told to leave that state.
bool CortexMCanOpenNodeClient::answers(std::string& aWhyNot) {
    try {
        try {
            mClient->readUInt32(kDeviceType, 0);
            return true;
        } catch (SdoAbortError const&) {
            return true;
        } catch (SdoError const& error) {
            aWhyNot = error.what();
        }
        mMaster->command(NmtCommand::PreOperational, mNodeId);
    } catch (CanLinkError const& error) {
        aWhyNot = error.what();
    }
    return false;
}

void CortexMCanOpenNodeClient::readIdentity() {
    std::string const deviceName = identityText(kDeviceName);
    if (!deviceName.empty()) {
        std::lock_guard const lock(mMutex);
        mName = deviceName;
    }
    std::string const hardware = identityText(kHardwareVersion);
    std::string const software = identityText(kSoftwareVersion);
    keplaDoLog(
        Severity::Info,
        "~prepare: '%s', hardware '%s', software '%s', vendor 0x%08X, product 0x%08X, revision 0x%08X, "
        "serial number %u",
        {}, name(), hardware, software, identityNumber(1), identityNumber(2), identityNumber(3),
        identityNumber(4));
}

/// @return The text; empty when the board has no such object, as CiA 301 allows.
std::string CortexMCanOpenNodeClient::identityText(std::uint16_t aIndex) {
    try {
        return mClient->readString(aIndex, 0);
    } catch (SdoAbortError const&) {
        return {};
    }
}

/// @return The number; 0 when the board has no such object, as CiA 301 allows.
std::uint32_t CortexMCanOpenNodeClient::identityNumber(std::uint8_t aSubindex) {
    try {
        return mClient->readUInt32(kIdentity, aSubindex);
    } catch (SdoAbortError const&) {
        return 0;
    }
}

void CortexMCanOpenNodeClient::superviseHeartbeat() {
    try {
        std::chrono::milliseconds const period(mClient->readUInt16(kHeartbeatTime, 0));
        mMaster->superviseHeartbeat(mNodeId, kHeartbeatsMissed * period);
    } catch (SdoAbortError const&) {
        keplaDoLog(Severity::Debug, "~prepare: the board sends no heartbeat", {});
    }
}

void CortexMCanOpenNodeClient::contributeRecord() {
    if (mContributor == nullptr) {
        return;
    }
    try {
        std::string platform;
        try {
            platform = platformIdentifier();
        } catch (SdoAbortError const&) { // A board without one still has a record.
        }
        mContributor->contribute(recordName(platform, mNodeId), mds());
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Warning, "~prepare: the record of the board could not be handed on: %s", {},
                   error.what());
    }
}

// ---------------------------------------------------------------------------------------------- firmware

void CortexMCanOpenNodeClient::checkFirmware() {
    std::optional<BuildInfo> const stored = BuildInfo::load(mBuildInfoPath);
    if (!stored) {
        keplaDoLog(Severity::Warning, "~prepare: there is no '%s', so the firmware is not checked", {},
                   mBuildInfoPath);
        return;
    }
    std::uint32_t present = 0;
    bool running = false;
    try {
        present = firmwareJenkinsBuildID();
        running = programRuns();
    } catch (SdoAbortError const& error) {
        keplaDoLog(Severity::Warning,
                   "~prepare: the board does not tell its firmware, so it is not checked: %s", {},
                   error.what());
        return;
    }
    if (present != stored->jenkinsBuildId) {
        keplaDoLog(Severity::Info, "~prepare: the board has firmware build %u, build %u is stored: updating",
                   {}, present, stored->jenkinsBuildId);
        updateFirmware(running);
    } else if (!running) {
        keplaDoLog(Severity::Info, "~prepare: starting firmware build %u", {}, present);
        control(kStart);
        awaitProgram(true);
        mMaster->command(NmtCommand::Start, mNodeId);
    } else {
        keplaDoLog(Severity::Info, "~prepare: firmware build %u is current", {}, present);
    }
}

bool CortexMCanOpenNodeClient::programRuns() {
    return mClient->readUInt8(kProgramControl, kFirst) == kRunning;
}

void CortexMCanOpenNodeClient::updateFirmware(bool aProgramRuns) {
    keplaDoLog(Severity::Info, "+updateFirmware(%d)", {}, aProgramRuns);
    FirmwareImage const image = FirmwareImage::load(mFirmwarePath);
    std::optional<BuildInfo> const stored = BuildInfo::load(mBuildInfoPath);
    if (stored && stored->platform) {
        std::string const platform = platformIdentifier();
        if (platform != *stored->platform) {
            fail("the firmware image '" + mFirmwarePath + "' is for platform '" + *stored->platform +
                 "', the board is '" + platform + "'");
        }
    }
    preFirmwareUpdate(aProgramRuns);
    bool cleared = false;
    try {
        install(image, aProgramRuns, cleared);
        std::uint32_t const present = firmwareJenkinsBuildID();
        if (stored && present != stored->jenkinsBuildId) {
            fail("the board reports firmware build " + std::to_string(present) +
                 " after the update to build " + std::to_string(stored->jenkinsBuildId));
        }
        keplaDoLog(Severity::Info, "~updateFirmware: the board runs firmware build %u", {}, present);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "~updateFirmware: failed: %s", {}, error.what());
        if (aProgramRuns && !cleared) {
            try {
                control(kStart);
            } catch (std::exception const& second) {
                keplaDoLog(Severity::Error,
                           "~updateFirmware: the old firmware could not be started again: %s", {},
                           second.what());
            }
        }
        fail(std::string("the firmware update failed: ") + error.what());
    }
    postFirmwareUpdate();
    keplaDoLog(Severity::Info, "-updateFirmware", {});
}

/// @param aCleared  Set as soon as the board may have lost its old program.
void CortexMCanOpenNodeClient::install(FirmwareImage const& aImage, bool aProgramRuns, bool& aCleared) {
    if (aProgramRuns) {
        control(kStop);
        awaitProgram(false);
    }
    aCleared = true;
    control(kClear);
    awaitFlash(kNoProgram);
    transfer(aImage);
    awaitFlash(kNoError);
    control(kStart);
    awaitProgram(true);
    mMaster->command(NmtCommand::Start, mNodeId);
}

void CortexMCanOpenNodeClient::transfer(FirmwareImage const& aImage) {
    constexpr std::size_t kSteps = 10;
    std::size_t const size = aImage.bytes().size();
    std::size_t told = 0;
    keplaDoLog(Severity::Info, "~updateFirmware: transferring %u bytes", {}, size);
    mClient->writeDomain({kProgramData, kFirst}, aImage.bytes(), [&](std::size_t aBytes) {
        std::size_t const step = std::min(aBytes, size) * kSteps / size;
        if (step > told) {
            told = step;
            keplaDoLog(Severity::Info, "~updateFirmware: %u %%", {}, step * 100 / kSteps);
        }
    });
}

/// Gives a command to the program control object. A board that restarts at once may not come to answer; what
/// became of the command is seen by what follows.
void CortexMCanOpenNodeClient::control(std::uint8_t aCommand) {
    try {
        mClient->writeUInt8(kProgramControl, kFirst, aCommand);
    } catch (SdoTimeoutError const& error) {
        keplaDoLog(Severity::Debug, "~updateFirmware: command %u: %s", {}, aCommand, error.what());
    }
}

/// Waits until the board's program runs or does not, through the board's restart.
void CortexMCanOpenNodeClient::awaitProgram(bool aRunning) {
    Clock::TimePoint const deadline = mClock.now() + kRestartTime;
    std::string whyNot = aRunning ? "its program does not run" : "its program still runs";
    while (true) {
        std::uint32_t const signs = mMaster->status(mNodeId).signs;
        try {
            if (programRuns() == aRunning) {
                return;
            }
        } catch (SdoTimeoutError const& error) {
            whyNot = error.what();
        } catch (CanLinkError const& error) {
            whyNot = error.what();
        }
        if (mClock.now() >= deadline) {
            fail(std::string("the board did not ") + (aRunning ? "start" : "stop") + " its program within " +
                 std::to_string(wholeSeconds(kRestartTime)) + " s (" + whyNot + ")");
        }
        mMaster->awaitStatus(
            mNodeId, [signs](NodeStatus const& aStatus) { return aStatus.signs != signs; }, kPollPause);
    }
}

/// Waits until the board's flash is no longer busy.
/// @param aToleratedError  An error code that is none at this point.
void CortexMCanOpenNodeClient::awaitFlash(std::uint32_t aToleratedError) {
    Clock::TimePoint const deadline = mClock.now() + kFlashTime;
    while (true) {
        std::optional<std::uint32_t> status;
        try {
            status = softwareStatus();
        } catch (
            SdoTimeoutError const& error) { // A board that clears its flash may have no time for answers.
            keplaDoLog(Severity::Debug, "~updateFirmware: waiting for the flash: %s", {}, error.what());
        }
        if (status && (*status & kBusy) == 0) {
            std::uint32_t const error = *status >> 1U & kErrorMask;
            if (error != kNoError && error != aToleratedError) {
                fail("the board refuses the image: " + flashWords(error));
            }
            return;
        }
        if (mClock.now() >= deadline) {
            fail("the board's flash is still busy after " + std::to_string(wholeSeconds(kFlashTime)) + " s");
        }
        mClock.sleepFor(kPollPause);
    }
}

} // namespace velmor::kepla::canopen
