// SPDX-License-Identifier: Apache-2.0
// The system calls that a CAN socket needs, one operation each, so that a test can answer in the kernel's
// place.
#pragma once

#include <memory>

#include <linux/can.h>
#include <poll.h>
#include <sys/types.h>

namespace velmor::kepla::canopen {

/// Raw CAN sockets as the kernel offers them. Every operation behaves like the system call that it wraps: a
/// negative result means failure and errno tells why. Nothing here retries or throws.
///
/// May be called from any thread.
class CanSocketApi {
public:
    virtual ~CanSocketApi() = default;

    /// The kernel.
    static std::shared_ptr<CanSocketApi> posix();

    /// socket(2) of a raw CAN socket, closed on exec.
    /// @return The descriptor.
    virtual int open() = 0;

    /// The number of a network interface.
    /// @param aName  Name of the interface, at most 15 characters.
    virtual int interfaceIndex(int aSocket, char const* aName) = 0;

    /// The interface's flags (IFF_UP and others).
    /// @param aName  Name of the interface, at most 15 characters.
    virtual int interfaceFlags(int aSocket, char const* aName) = 0;

    /// setsockopt(2).
    /// @param aSize  Size of the value in bytes.
    virtual int setOption(int aSocket, int aLevel, int aOption, void const* aValue, unsigned aSize) = 0;

    /// bind(2) to an interface.
    virtual int bind(int aSocket, int aInterfaceIndex) = 0;

    /// Takes one frame out of the socket.
    /// @param aWait     Whether to wait for one, at most for the socket's SO_RCVTIMEO.
    /// @param aFrame    Where the frame goes.
    /// @param aDropped  Where the count of frames goes that the kernel has dropped on this socket so far;
    ///                  left alone when the kernel does not tell.
    /// @return The bytes read; EAGAIN when there is no frame.
    virtual ssize_t read(int aSocket, bool aWait, can_frame& aFrame, unsigned& aDropped) = 0;

    /// Gives one frame to the kernel without waiting.
    /// @return The bytes written; EAGAIN or ENOBUFS when the kernel's queue is full.
    virtual ssize_t write(int aSocket, can_frame const& aFrame) = 0;

    /// poll(2).
    /// @param aTimeoutMs  The longest wait in ms; -1 for ever.
    virtual int poll(pollfd* aEntries, nfds_t aCount, int aTimeoutMs) = 0;

    /// close(2).
    virtual int close(int aSocket) = 0;
};

} // namespace velmor::kepla::canopen
