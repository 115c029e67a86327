// SPDX-License-Identifier: Apache-2.0
// What goes wrong between this machine and the CAN bus, as opposed to what a node on the bus answers.
#pragma once

#include <stdexcept>
#include <string>

namespace velmor::kepla::canopen {

/// The link to the bus is broken. The words name the interface and what is wrong with it; logic asks
/// reason().
class CanLinkError : public std::runtime_error {
public:
    enum class Reason {
        InterfaceMissing,  ///< There is no interface of that name, or it has gone.
        InterfaceDown,     ///< The interface is there, but switched off.
        BusOff,            ///< The controller has left the bus after too many errors.
        TransmitQueueFull, ///< Nothing has left the transmit queue for longer than a send waits.
        Io,                ///< Any other error of the operating system.
    };

    /// @param aReason   The kind of fault.
    /// @param aMessage  Words for the user, with the interface's name.
    CanLinkError(Reason aReason, std::string const& aMessage)
        : std::runtime_error(aMessage)
        , mReason(aReason) {}

    /// @return The kind of fault.
    Reason reason() const noexcept { return mReason; }

private:
    Reason mReason;
};

} // namespace velmor::kepla::canopen
