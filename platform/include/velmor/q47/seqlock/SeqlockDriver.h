// SPDX-License-Identifier: Apache-2.0
// The door to the kernel driver of the lock sequencer: register files, interrupt notification, memories,
// streams.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <ostream>
#include <string>

#include <sys/types.h>

namespace velmor::q47::seqlock {

/// Switches a DMA device to packets: argument 1, passed by value.
inline constexpr unsigned long kSetPacketMode = 0x4004e601UL;
/// Steps a DMA device to its next packet; no argument.
inline constexpr unsigned long kNextPacket = 0xe602UL;

/// An open DMA device, "/dev/lock_dma_td" and its like. The operations behave like the system calls of their
/// names: negative means failure and errno tells why. Nothing retries or throws. The destructor closes.
///
/// One thread at a time.
class StreamDevice {
public:
    virtual ~StreamDevice() = default;

    /// ioctl(2) with an argument that is a number.
    virtual int ioctl(unsigned long aRequest, unsigned long aArgument) = 0;

    /// read(2) of a descriptor that does not block.
    /// @return Bytes read; 0 at the end of the present packet; -1 with EAGAIN while there are no data.
    virtual ssize_t read(unsigned char* aBuffer, std::size_t aSize) = 0;

    /// select(2) for reading on this device alone; the only operation that blocks.
    /// @return Above 0 when there is something to read, 0 when the time is up, -1 on failure.
    virtual int waitReadable(std::chrono::seconds aTimeout) = 0;
};

/// The open interrupt notification file. A read arms it, after that it is ready once an interrupt has come.
/// Behaves like the system calls, as StreamDevice does.
class Notification {
public:
    virtual ~Notification() = default;

    /// read(2); what it delivers tells nothing.
    virtual ssize_t read(char* aBuffer, std::size_t aSize) = 0;

    /// select(2) for reading.
    /// @param aSeconds, aMicroseconds  The longest wait, the second below a million.
    /// @return Above 0 when an interrupt came, 0 when the time is up, -1 on failure.
    virtual int wait(std::chrono::seconds aSeconds, std::chrono::microseconds aMicroseconds) = 0;
};

/// Everything that the lock asks of the sequencer's driver. Paths are those of the instrument, such as
/// "/sys/class/misc/seqlock/pid/p_term".
///
/// Any thread may call; two threads may have the notification file open at once and both are woken.
class SeqlockDriver {
public:
    virtual ~SeqlockDriver() = default;

    /// @return The driver of the backend in use.
    static std::shared_ptr<SeqlockDriver> current();

    /// @return Whether the register file can be opened for reading.
    virtual bool canRead(std::string const& aPath) = 0;

    /// @return Whether the register file can be opened for writing.
    virtual bool canWrite(std::string const& aPath) = 0;

    /// Opens the register file afresh and reads it whole: a fresh opening is what makes it deliver a fresh
    /// value.
    /// @return Its text; empty when it cannot be read.
    virtual std::string readRegister(std::string const& aPath) = 0;

    /// Opens the register file afresh and writes a text, in one write. A failure is not told.
    virtual void writeRegister(std::string const& aPath, std::string const& aText) = 0;

    /// @return The notification file; null with errno set when it cannot be opened.
    virtual std::unique_ptr<Notification> openNotification(std::string const& aPath) = 0;

    /// Opens a device of the sequencer's memories for binary writing.
    /// @return A stream, in a failed state when the device cannot be opened. What was written has reached the
    /// device after a flush.
    virtual std::unique_ptr<std::ostream> openMemory(std::string const& aPath) = 0;

    /// Opens a DMA device, read-only and not blocking.
    /// @return The device; null with errno set when it cannot be opened.
    virtual std::unique_ptr<StreamDevice> openStream(std::string const& aPath) = 0;
};

} // namespace velmor::q47::seqlock
