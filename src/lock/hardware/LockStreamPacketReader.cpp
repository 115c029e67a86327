// SPDX-License-Identifier: Apache-2.0
// How packets come out of a DMA device.
#include "lock/hardware/LockStreamPacketReader.h"

#include <velmor/kepla/utils/ThreadName.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <utility>

using velmor::kepla::log::Severity;
using velmor::q47::seqlock::kNextPacket;
using velmor::q47::seqlock::kSetPacketMode;

namespace {

/// The longest read in the background, and the longest flush.
constexpr std::chrono::seconds kLimit{30};

/// How long a wait for data goes without a look at the stop flag.
constexpr std::chrono::seconds kLook{1};

/// The most that is kept of a packet, in bytes. Real ones have a few hundred KiB: a device that goes on
/// beyond this is out of order, and would take the machine's memory until the time is up.
constexpr std::size_t kLargestPacket = std::size_t{64} * 1024 * 1024;

/// The device itself is out of order, so that asking it again at once would lead to nothing.
class DeviceFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace

LockStreamPacketReader::LockStreamPacketReader(std::string aPath,
                                               unsigned int aSize,
                                               Processor aProcessor,
                                               bool aBackground)
    : Logger("LockStreamPacketReader on " + aPath, "Lock")
    , mPath(std::move(aPath))
    , mInitialSize(aSize)
    , mProcessor(std::move(aProcessor))
    , mBackground(aBackground) {}

LockStreamPacketReader::LockStreamPacketReader(std::string aPath,
                                               unsigned int aSize,
                                               std::shared_ptr<SeqlockDriver> const& aDriver)
    : LockStreamPacketReader(std::move(aPath), aSize, {}, false) {
    open(*aDriver);
}

LockStreamPacketReader::LockStreamPacketReader(std::string aPath,
                                               unsigned int aSize,
                                               Processor aProcessor,
                                               std::shared_ptr<SeqlockDriver> const& aDriver)
    : LockStreamPacketReader(std::move(aPath), aSize, std::move(aProcessor), true) {
    open(*aDriver);
    mThread = std::thread([this] { readerThread(); });
}

LockStreamPacketReader::~LockStreamPacketReader() {
    requestStop();
    if (mThread.joinable()) {
        mThread.join();
    }
}

void LockStreamPacketReader::open(SeqlockDriver& aDriver) {
    mDevice = aDriver.openStream(mPath);
    if (!mDevice) {
        keplaDoLog(Severity::Error, "Failed to open input file '%s' with error %d", {}, mPath, errno);
        throw std::runtime_error("Failed to open input file");
    }
    if (mDevice->ioctl(kSetPacketMode, 1) < 0) {
        keplaDoLog(Severity::Error, "Failed to enable packet mode on input file '%s', error was %d", {},
                   mPath, errno);
        throw std::runtime_error("Failed to enable packet mode on input file");
    }
}

void LockStreamPacketReader::requestStop() noexcept {
    {
        std::lock_guard const lock(mStopMutex);
        mStop = true;
    }
    mStopped.notify_all();
}

std::unique_ptr<LockStreamPacketReader::Packet> LockStreamPacketReader::readSingle(
    std::chrono::seconds const& aTimeout) {
    if (mBackground) {
        throw std::logic_error("Cannot read single packet: already running in background thread");
    }
    auto packet = readSinglePrivate(aTimeout);
    if (!packet) { // stopped
        throw std::runtime_error("Failed to read data");
    }
    return packet;
}

void LockStreamPacketReader::flush() {
    if (mBackground) {
        mStaleDataGone.wait();
    }
    flushPending();
}

// ---------------------------------------------------------------------------------------------- the thread

void LockStreamPacketReader::readerThread() {
    velmor::kepla::utils::nameThisThread(std::filesystem::path(mPath).filename().string());
    keplaDoLog(Severity::Trace, "entering readerThread", {});
    attempt(&LockStreamPacketReader::flushPending);
    mStaleDataGone.count_down();
    bool failedBefore = false;
    while (!mStop) {
        Clock::TimePoint const begin = mClock.now();
        bool const failed = !attempt(&LockStreamPacketReader::readAndProcess);
        if (failed && failedBefore) {
            // A device that fails at once again and again is told of as often as one that is silent. Not so a
            // packet that the callback does not like: the next one must not wait for that.
            restFor(begin + kLimit - mClock.now());
        }
        failedBefore = failed;
    }
    keplaDoLog(Severity::Trace, "leaving readerThread", {});
}

/// @return Whether the device has done its part; a failure, whose ever it was, has been logged.
bool LockStreamPacketReader::attempt(void (LockStreamPacketReader::*aStep)()) noexcept {
    static constexpr char const* kFormat =
        "Exception occurred while reading/processing a packet. Exception was %s";
    try {
        (this->*aStep)();
    } catch (DeviceFailure const& failure) {
        keplaDoLog(Severity::Error, kFormat, {}, failure.what());
        return false;
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, kFormat, {}, failure.what());
    } catch (...) {
        keplaDoLog(Severity::Error, kFormat, {}, "of an unknown type");
    }
    return true;
}

void LockStreamPacketReader::readAndProcess() {
    auto packet = readSinglePrivate(kLimit);
    if (!packet) {
        return;
    }
    keplaDoLog(Severity::Trace, "processing buffer", {});
    if (mProcessor) {
        mProcessor(std::move(packet));
    }
    keplaDoLog(Severity::Trace, "processing completed", {});
}

void LockStreamPacketReader::restFor(Clock::Duration aDuration) {
    std::unique_lock lock(mStopMutex);
    mClock.waitFor(mStopped, lock, aDuration, [this] { return mStop.load(); });
}

// ---------------------------------------------------------------------------------------------- one packet

/// Waits for the device, in the order of coming: else the thread that reads might have it again and again,
/// and a flush wait for ever behind a device that never stops.
std::unique_lock<std::mutex> LockStreamPacketReader::lockDevice() {
    std::lock_guard const turn(mTurnMutex);
    return std::unique_lock(mDeviceMutex);
}

/// @return The packet; null when the reader is to stop.
std::unique_ptr<LockStreamPacketReader::Packet> LockStreamPacketReader::readSinglePrivate(
    std::chrono::seconds const& aTimeout) {
    // A byte more than expected, so that a packet of just that size leaves room for the read that says 0.
    auto packet = std::make_unique<Packet>(std::size_t{mInitialSize} + 1);
    auto lock = lockDevice();
    if (mDevice->ioctl(kNextPacket, 0) < 0) {
        keplaDoLog(Severity::Error, "Failed to switch to next packet on file '%s' with error %d", {}, mPath,
                   errno);
        throw DeviceFailure("Failed to switch to next packet");
    }
    Clock::TimePoint const begin = mClock.now();
    std::size_t filled = 0;
    std::uint64_t flushes = mFlushes;
    while (!mStop) {
        if (std::exchange(flushes, mFlushes) != mFlushes) {
            filled = 0; // What we had of the packet was stale: somebody flushed while we waited.
        }
        if (ranOut(begin, aTimeout)) {
            tellOfMissingEnd(filled);
            throw std::runtime_error("Failed to read data");
        }
        if (filled == packet->size()) {
            if (filled >= kLargestPacket) { // ends like one that takes too long
                tellOfMissingEnd(filled);
                throw DeviceFailure("Failed to read data");
            }
            grow(*packet);
        }
        errno = 0;
        ssize_t const result = mDevice->read(packet->data() + filled, packet->size() - filled);
        int const error = errno;
        keplaDoLog(Severity::Trace, "read returned %d", {}, result);
        if (result > 0) {
            filled += static_cast<std::size_t>(result);
            keplaDoLog(Severity::Trace, "read %d bytes", {}, result);
        } else if (result == 0) {
            packet->resize(filled);
            keplaDoLog(Severity::Trace, "got a buffer of %d bytes, processing it", {}, filled);
            return packet;
        } else if (error == EAGAIN) {
            waitForData(lock, aTimeout);
        } else {
            keplaDoLog(Severity::Error, "read failed with %d", {}, error);
            throw DeviceFailure("Error while reading data from input. Error " + std::to_string(error));
        }
    }
    return nullptr;
}

void LockStreamPacketReader::tellOfMissingEnd(std::size_t aFilled) const {
    keplaDoLog(Severity::Warning,
               "Timed out while reading packet, end of packet not reached. Read %lu bytes.", {}, aFilled);
}

void LockStreamPacketReader::grow(Packet& aPacket) const {
    keplaDoLog(Severity::Trace, "increased packet read buffer", {});
    std::size_t const size = std::min(2 * aPacket.size(), kLargestPacket);
    aPacket.reserve(size); // A bare resize() may take more.
    aPacket.resize(size);
}

bool LockStreamPacketReader::ranOut(Clock::TimePoint aBegin, std::chrono::seconds const& aLimit) const {
    return mClock.now() - aBegin >= aLimit;
}

/// Waits for as long as told, a second at a time so that a stop is noticed. Lets others flush meanwhile.
void LockStreamPacketReader::waitForData(std::unique_lock<std::mutex>& aDeviceLock,
                                         std::chrono::seconds const& aTimeout) {
    keplaDoLog(Severity::Trace, "+waitForData", {});
    aDeviceLock.unlock();
    int gotIt = 0;
    for (std::chrono::seconds waited{0}; gotIt == 0 && waited < aTimeout && !mStop; waited += kLook) {
        gotIt = mDevice->waitReadable(kLook);
    }
    int const error = errno;
    aDeviceLock = lockDevice();
    if (gotIt < 0) {
        keplaDoLog(Severity::Error, "~waitForData: select call failed on %s with errno is %d", {}, mPath,
                   error);
        static constexpr char const* kWords = "Cannot wait for data: waiting failed";
        if (error == EINTR) { // not the device's fault
            throw std::runtime_error(kWords);
        }
        throw DeviceFailure(kWords);
    }
    keplaDoLog(Severity::Trace, "~waitForData: gotIt = %d", {}, gotIt);
}

// ------------------------------------------------------------------------------------------------- flushing

void LockStreamPacketReader::flushPending() {
    auto const lock = lockDevice();
    ++mFlushes;
    keplaDoLog(Severity::Trace, "+flush", {});
    Clock::TimePoint const begin = mClock.now();
    do {
        ssize_t const last = discardToPacketEnd(begin);
        if (last < 0) {
            keplaDoLog(Severity::Debug, "flush: no more packets to read, done", {});
            keplaDoLog(Severity::Trace, "-flush", {});
            return;
        }
        if (last == 0 && mDevice->ioctl(kNextPacket, 0) < 0) {
            // Intended: whatever the line says, the flush fails with the words of one that took too long.
            keplaDoLog(
                Severity::Warning,
                "flush: failed to switch to next packet, considered flushed.On file '%s' with error %d", {},
                mPath, errno);
            break;
        }
        if (mStop) {
            return;
        }
    } while (!ranOut(begin, kLimit));
    keplaDoLog(Severity::Error, "Failed to flush input file '%s': still data after reading for 30 seconds",
               {}, mPath);
    throw std::runtime_error("Could not flush data");
}

/// Reads until a read, but not the first one, has given no data, or the time is up.
/// @return What the last read gave.
ssize_t LockStreamPacketReader::discardToPacketEnd(Clock::TimePoint aBegin) {
    std::array<unsigned char, 4096> buffer; // NOLINT: filled by the device, looked at by nobody
    static_cast<void>(mDevice->read(buffer.data(), buffer.size()));
    ssize_t last = 0;
    do {
        last = mDevice->read(buffer.data(), buffer.size());
    } while (last > 0 && !mStop && !ranOut(aBegin, kLimit));
    return last;
}
