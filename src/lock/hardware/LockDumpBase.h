// SPDX-License-Identifier: Apache-2.0
// Fetches one block of raw lock data from the sequencer, to be worked on or to be kept in an HDF5 file.
#pragma once

#include "lock/hardware/ComplextInt32Vector.h"
#include "lock/hardware/LockStreamPacketReader.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class LockHardwareInterface;
namespace H5 {
class H5File;
}

/// What the dumps of FID and FFT have in common; they differ in the device and in what they trigger.
///
/// One thread at a time. The device stays open between the dumps. Without a device everything but
/// acquireAndGet() works quietly, for the lock can do without dumps.
class LockDumpBase : private virtual velmor::kepla::log::Logger {
public:
    using SeqlockDriver = velmor::q47::seqlock::SeqlockDriver;

    /// @param aHardware    Triggers the transfer.
    /// @param aPath        The DMA device.
    /// @param aLabel       What people call it.
    /// @param aPacketSize  Size in bytes that a block is expected to have.
    /// @param aDriver      Opens the device.
    LockDumpBase(std::shared_ptr<LockHardwareInterface> aHardware,
                 std::string aPath,
                 std::string const& aLabel,
                 unsigned int aPacketSize,
                 std::shared_ptr<SeqlockDriver> const& aDriver = SeqlockDriver::current());
    virtual ~LockDumpBase();
    LockDumpBase(LockDumpBase const&) = delete;
    LockDumpBase& operator=(LockDumpBase const&) = delete;

    /// Has the sequencer hand out a fresh block. Blocks, at most 30 s for the flush and 30 s for the block.
    /// @return The block, in counts.
    /// @throws std::runtime_error  when there is no device, or no data come.
    ComplextInt32Vector acquireAndGet();

    /// Has the sequencer hand out a fresh block and keeps it in an HDF5 file. A failure is logged and
    /// harms nobody. Blocks like acquireAndGet(), and for the file.
    /// @param aFile  The file; one that is there is replaced once the new one is whole.
    void acquireAndDump(std::string const& aFile);

    /// @return The sequencer.
    std::shared_ptr<LockHardwareInterface> const& hardware() const;

    /// Makes an acquisition that is under way, and every later one, fail within a second. Any thread; does
    /// not block.
    void requestStop() noexcept;

protected:
    /// Asks the sequencer for one block.
    virtual void trigger() = 0;

private:
    using Packet = LockStreamPacketReader::Packet;

    std::unique_ptr<Packet> triggerAndRead();
    ComplextInt32Vector decode(Packet const& aPacket) const;
    void dumpToH5(ComplextInt32Vector const& aData, std::string const& aFile) const;
    static void makeH5Dataset(H5::H5File& aFile, std::vector<int> const& aVector, std::string const& aName);

    std::shared_ptr<LockHardwareInterface> const mHardware;
    std::string const mPath;
    std::string const mLabel;
    std::uint32_t const mPacketSize;
    std::string const mRealDatasetName;
    std::string const mImagDatasetName;
    std::unique_ptr<LockStreamPacketReader> mReader; ///< Null when the device could not be opened.
};
