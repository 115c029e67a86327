// SPDX-License-Identifier: Apache-2.0
// Reads whole packets from one of the sequencer's DMA devices, one a call or all of them on a thread.
#pragma once

#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>
#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Turns a DMA device into packets, each a vector of bytes of its own. What a packet means is not its affair.
///
/// Single mode: one thread at a time calls readSingle() and flush(). Background mode: a thread reads one
/// packet after the other and hands each to the callback; flush() may be called from another thread and takes
/// away a packet whole or not at all. A device that fails twice in a row is left alone for 30 s; whatever
/// else goes wrong, the callback above all, is logged and the next packet read at once. The destructor ends
/// all of this within a second.
///
/// A packet may have up to 64 MiB, a hundred times what the sequencer delivers: one without an end fails
/// there.
class LockStreamPacketReader : private virtual velmor::kepla::log::Logger {
public:
    using Packet = std::vector<unsigned char>;

    /// Takes a packet, on the reader's thread. Must not destroy the reader; an exception is logged.
    using Processor = std::function<void(std::unique_ptr<Packet>)>;

    using SeqlockDriver = velmor::q47::seqlock::SeqlockDriver;

    /// Single mode.
    /// @param aPath    The device.
    /// @param aSize    Size in bytes that a packet is expected to have; a larger one costs time only.
    /// @param aDriver  Opens the device.
    /// @throws std::runtime_error  when the device cannot be opened or does not know packets.
    LockStreamPacketReader(std::string aPath,
                           unsigned int aSize,
                           std::shared_ptr<SeqlockDriver> const& aDriver = SeqlockDriver::current());

    /// Background mode; the thread runs at once.
    /// @param aProcessor  Takes the packets.
    LockStreamPacketReader(std::string aPath,
                           unsigned int aSize,
                           Processor aProcessor,
                           std::shared_ptr<SeqlockDriver> const& aDriver = SeqlockDriver::current());

    ~LockStreamPacketReader();
    LockStreamPacketReader(LockStreamPacketReader const&) = delete;
    LockStreamPacketReader& operator=(LockStreamPacketReader const&) = delete;

    /// Waits for the next packet. Single mode only; blocks.
    /// @param aTimeout  The longest time from now to the end of the packet.
    /// @return The packet; it may be empty.
    /// @throws std::logic_error    in background mode.
    /// @throws std::runtime_error  when the time is up, the packet too large, the device fails, or
    ///                             requestStop() was called.
    std::unique_ptr<Packet> readSingle(std::chrono::seconds const& aTimeout);

    /// Throws away all that is pending. In background mode any thread may call; it waits for the thread's own
    /// first flush, so that nothing which comes after the return is taken for stale.
    /// @throws std::runtime_error  when there are still data after 30 s, or the device fails.
    void flush();

    /// Makes a read that is under way, and every later one, end within a second. Any thread; does not block.
    void requestStop() noexcept;

private:
    using Clock = velmor::platform::Clock;

    LockStreamPacketReader(std::string aPath, unsigned int aSize, Processor aProcessor, bool aBackground);

    void open(SeqlockDriver& aDriver);
    void readerThread();
    bool attempt(void (LockStreamPacketReader::*aStep)()) noexcept;
    void readAndProcess();
    void restFor(Clock::Duration aDuration);
    std::unique_ptr<Packet> readSinglePrivate(std::chrono::seconds const& aTimeout);
    std::unique_lock<std::mutex> lockDevice();
    void tellOfMissingEnd(std::size_t aFilled) const;
    void grow(Packet& aPacket) const;
    bool ranOut(Clock::TimePoint aBegin, std::chrono::seconds const& aLimit) const;
    void waitForData(std::unique_lock<std::mutex>& aDeviceLock, std::chrono::seconds const& aTimeout);
    void flushPending();
    ssize_t discardToPacketEnd(Clock::TimePoint aBegin);

    std::string const mPath;
    std::uint32_t const mInitialSize;
    Processor const mProcessor;
    bool const mBackground;
    std::atomic<bool> mStop{false};
    std::mutex mStopMutex; ///< Guards the wake-up alone.
    std::condition_variable mStopped;
    Clock& mClock = Clock::current();
    std::unique_ptr<velmor::q47::seqlock::StreamDevice> mDevice; ///< Null while not open.

    /// Held while the device is read or flushed, but not while the next packet is waited for.
    std::mutex mDeviceMutex;
    std::mutex mTurnMutex;        ///< Held by whoever is the next to have the one above.
    std::uint64_t mFlushes = 0;   ///< Tells a read that waited that its packet has been thrown away.
    std::latch mStaleDataGone{1}; ///< Down once the thread has flushed.
    std::thread mThread;
};
