// SPDX-License-Identifier: Apache-2.0
// Base class of the boards on the bus: brings a board up, keeps its firmware current, reads who it is.
#pragma once

#include <velmor/kepla/canopen/CanOpenNodeClientIfc.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace velmor::kepla::deviceid {
class DeviceIdServiceContributorIfc;
}

namespace velmor::kepla::canopen {

class CanOpenMaster;
class CanOpenNodeClient;
class FirmwareImage;

/// A board whose program can be replaced over the bus (CiA 302-3, program download). Objects that this class
/// uses, besides the identity of CiA 301 (0x1000, 0x1008, 0x1009, 0x100A, 0x1018) and the heartbeat time
/// 0x1017:
///
/// | Index  | Subindex | Type   | Meaning                                                               |
/// |--------|----------|--------|-----------------------------------------------------------------------|
/// | 0x1F50 | 1        | domain | program data: the compressed image as it is stored, written only      |
/// | 0x1F51 | 1        | U8     | program control: write 0 stop, 1 start, 3 clear; read 1 running, else 0 |
/// | 0x1F56 | 1        | U32    | build id of the program; 0 when there is none                         |
/// | 0x1F57 | 1        | U32    | flash status: bit 0 busy, bits 1 to 7 the error (0 none)              |
/// | 0x200B | 1        | string | platform identifier, compared with the one of "build.info"            |
/// | 0x2200 | 1        | domain | the record text of the board                                          |
/// | 0x2201 | 1        | domain | the log of the board, one message a line, read only                   |
///
/// A stopped board runs its bootloader, which serves all of these but the record and the log.
///
/// The operations may be called from any thread and block while the board answers, unless they tell
/// otherwise. Their order is part of the interface.
class CortexMCanOpenNodeClient : private virtual velmor::kepla::log::Logger {
public:
    /// Does not talk to the board.
    /// @param aMaster         The master of the bus; not null.
    /// @param aNodeId         The board, 1 to 127.
    /// @param aBuildInfoPath  Path of "build.info", see BuildInfo.
    /// @param aFirmwarePath   Path of the compressed firmware image.
    /// @param aContributor    Who gets the board's record; may be null.
    /// @throws std::invalid_argument  when the node number is out of range or there is no master.
    CortexMCanOpenNodeClient(
        std::shared_ptr<CanOpenMaster> const& aMaster,
        unsigned char aNodeId,
        std::string aBuildInfoPath,
        std::string aFirmwarePath,
        std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> aContributor);
    virtual ~CortexMCanOpenNodeClient();
    CortexMCanOpenNodeClient(CortexMCanOpenNodeClient const&) = delete;
    CortexMCanOpenNodeClient& operator=(CortexMCanOpenNodeClient const&) = delete;

    /// @return The device name (0x1008) as prepare() read it; "node " and the number before. Never blocks.
    virtual std::string name() const;

    /// Brings the board up: waits for its boot-up, its heartbeat or its answer to node guarding until it
    /// answers, puts it into operation, compares its firmware with the stored one and replaces it where they
    /// differ, reads its identity, hands its record on, and calls afterPrepare(). Blocks for half a minute
    /// when the board does not answer, and for minutes while the firmware is replaced.
    /// @throws std::runtime_error  with the node and what was waited for when the board does not answer; with
    ///                             the reason when the firmware must be replaced and cannot be; and whatever
    ///                             the hooks throw.
    virtual void prepare();

    /// @return The platform identifier (0x200B:1).
    /// @throws SdoError, CanLinkError  as CanOpenNodeClientIfc.
    virtual std::string platformIdentifier();

    /// @return The flash status (0x1F57:1): bit 0 busy, bits 1 to 7 the error (0 none).
    /// @throws SdoError, CanLinkError  as CanOpenNodeClientIfc.
    virtual std::uint32_t softwareStatus();

    /// @return The build id of the firmware that the board has (0x1F56:1); 0 when it has none.
    /// @throws SdoError, CanLinkError  as CanOpenNodeClientIfc.
    virtual std::uint32_t firmwareJenkinsBuildID();

    /// @return Access to the board's object dictionary. Never blocks.
    virtual std::shared_ptr<CanOpenNodeClientIfc> canopenClient() const;

    /// @return The record text of the board (0x2200:1).
    /// @throws SdoError, CanLinkError  as CanOpenNodeClientIfc.
    virtual std::string mds();

    /// Stores a record text in the board.
    /// @param aText  The text, as it shall come back from mds().
    /// @throws SdoError, CanLinkError  as CanOpenNodeClientIfc.
    virtual void setMds(std::string const& aText);

    /// Takes over the log that the board keeps (0x2201:1): each of its lines becomes a line of this log. A
    /// board without a log is none the worse.
    /// @throws SdoError, CanLinkError  as CanOpenNodeClientIfc.
    virtual void downloadLogs();

    /// Called by prepare() when the board has been found, before it is put into operation. The boards of this
    /// instrument are asked, they do not send process data: nothing is configured here.
    virtual void configurePDOs();

    /// Replaces the firmware by the stored image, whatever the board runs: calls preFirmwareUpdate(), stops
    /// the program, transfers and starts the image, checks its build id where "build.info" names one, and
    /// calls postFirmwareUpdate(). The image is read and checked before the board is touched; when something
    /// fails after that, the board is left to its bootloader or to its old program, and can be updated again.
    /// @param aProgramRuns  Whether the board's program runs now, so that it has a state worth keeping.
    /// @throws std::runtime_error  with the node and the reason; and what preFirmwareUpdate() throws, in
    ///                             which case the board keeps its firmware.
    virtual void updateFirmware(bool aProgramRuns);

    /// Called before the firmware is replaced. Does nothing here.
    /// @param aProgramRuns  Whether the board's program runs, so that its state can be read.
    virtual void preFirmwareUpdate(bool aProgramRuns);

    /// Called when the new firmware runs. Does nothing here.
    virtual void postFirmwareUpdate();

    /// Called at the end of prepare(). Does nothing here.
    virtual void afterPrepare();

    /// Called before the board is let go. Does nothing here.
    virtual void beforeShutdown();

private:
    using Duration = velmor::platform::Clock::Duration;

    void bringUp();
    bool answers(std::string& aWhyNot);
    void awaitSign(std::uint32_t aSigns);
    void readIdentity();
    std::string identityText(std::uint16_t aIndex);
    std::uint32_t identityNumber(std::uint8_t aSubindex);
    void superviseHeartbeat();
    void checkFirmware();
    bool programRuns();
    void install(FirmwareImage const& aImage, bool aProgramRuns, bool& aCleared);
    void transfer(FirmwareImage const& aImage);
    void control(std::uint8_t aCommand);
    void awaitProgram(bool aRunning);
    void awaitFlash(std::uint32_t aToleratedError);
    void contributeRecord();
    [[noreturn]] void fail(std::string const& aWhy) const;

    std::shared_ptr<CanOpenMaster> const mMaster;
    unsigned char const mNodeId;
    std::string const mBuildInfoPath;
    std::string const mFirmwarePath;
    std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> const mContributor;
    std::shared_ptr<CanOpenNodeClient> const mClient;
    velmor::platform::Clock& mClock;
    mutable std::mutex mMutex; ///< Guards the member below.
    std::string mName;
};

} // namespace velmor::kepla::canopen
