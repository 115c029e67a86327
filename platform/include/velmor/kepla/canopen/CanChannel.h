// SPDX-License-Identifier: Apache-2.0
// The door to a CAN bus: what the CANopen master sends through and receives from, real or in this process.
#pragma once

#include <velmor/kepla/canopen/CanFrame.h>
#include <velmor/kepla/canopen/CanLinkError.h>
#include <velmor/platform/Clock.h>

#include <optional>
#include <string>

namespace velmor::kepla::canopen {

/// One participant of a CAN bus. A channel does not receive its own frames. The frames of one sender arrive
/// in the order in which they were sent where their identifiers and kinds are equal.
///
/// All operations may be called from any thread at the same time; one thread at a time receives.
class CanChannel {
public:
    virtual ~CanChannel() = default;

    /// @return The name of the interface, such as "can0". Never blocks.
    virtual std::string name() const = 0;

    /// Hands a frame to the bus. Blocks while the transmit queue is full, at most for a time that the channel
    /// sets.
    /// @param aFrame  The frame; identifier 0 to 0x7FF, length 0 to 8.
    /// @throws std::invalid_argument  when identifier or length are out of range.
    /// @throws CanLinkError  when the interface is missing, down or bus-off, or the queue stays full.
    virtual void send(CanFrame const& aFrame) = 0;

    /// Waits for the next frame of another participant.
    /// @param aTimeout  The longest wait on the process's clock, 0 or more; 0 only looks.
    /// @return The frame; none when the time is over or after interrupt().
    /// @throws CanLinkError  when the interface is missing, down or bus-off.
    virtual std::optional<CanFrame> receive(velmor::platform::Clock::Duration aTimeout) = 0;

    /// Makes a blocked receive() return at once with nothing; where none is blocked, the next one does. Never
    /// blocks. Two interrupts without a receive() between them count as one.
    virtual void interrupt() = 0;
};

} // namespace velmor::kepla::canopen
