// SPDX-License-Identifier: Apache-2.0
// How an SDO transfer fails: refused by the node, without an answer, or against the protocol.
#pragma once

#include <velmor/kepla/canopen/SdoTypes.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace velmor::kepla::canopen {

/// A transfer with a node failed. The words name node and object, such as
/// "node 8, object 0x3000:01: SDO abort 0x06020000: Object does not exist in the object dictionary".
class SdoError : public std::runtime_error {
public:
    /// @param aNode    The node, 1 to 127.
    /// @param aObject  The object of the transfer.
    /// @param aWords   What happened.
    SdoError(std::uint8_t aNode, SdoObject aObject, std::string const& aWords);

    std::uint8_t node() const noexcept { return mNode; }
    std::uint16_t index() const noexcept { return mObject.index; }
    std::uint8_t subindex() const noexcept { return mObject.subindex; }

private:
    std::uint8_t mNode;
    SdoObject mObject;
};

/// The node refused.
class SdoAbortError : public SdoError {
public:
    /// @param aCode     The abort code of the node.
    /// @param aRefused  Whether it came in answer to the request itself.
    SdoAbortError(std::uint8_t aNode, SdoObject aObject, std::uint32_t aCode, bool aRefused);

    /// @return The abort code.
    std::uint32_t code() const noexcept { return mCode; }

    /// @return Whether the node refused the request itself, so that nothing has been transferred; false in
    ///         the middle of a transfer.
    bool refused() const noexcept { return mRefused; }

private:
    std::uint32_t mCode;
    bool mRefused;
};

/// The node did not answer in time.
class SdoTimeoutError : public SdoError {
public:
    using SdoError::SdoError;
};

/// The node answered against the protocol, or with the wrong size.
class SdoProtocolError : public SdoError {
public:
    using SdoError::SdoError;
};

} // namespace velmor::kepla::canopen
