// SPDX-License-Identifier: Apache-2.0
// Access to the object dictionary of one CANopen node.
#pragma once

#include <velmor/kepla/canopen/CanLinkError.h>
#include <velmor/kepla/canopen/SdoError.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace velmor::kepla::canopen {

/// Reads and writes objects of one node by index and subindex. The order of the operations is part of the
/// interface.
///
/// Numbers are little endian on the bus. A node may answer a read with fewer bytes than the type has, the
/// missing ones being the sign of a signed and 0 of an unsigned number, because boards keep small numbers in
/// small objects; more bytes than the type has are an error.
///
/// All operations may be called from any thread. They block until the node has answered, at most for the
/// time-out of the transfer. Transfers with one node take their turns, transfers with different nodes run at
/// the same time.
///
/// All operations but nodeId() throw
///  - SdoAbortError     when the node refuses,
///  - SdoTimeoutError   when it does not answer in time,
///  - SdoProtocolError  when it answers with a wrong size or against the protocol,
///  - CanLinkError      when the link to the bus is broken.
/// The first three carry node, index and subindex; all are std::runtime_error.
class CanOpenNodeClientIfc {
public:
    virtual ~CanOpenNodeClientIfc() = default;

    /// @return The node, 1 to 127.
    virtual unsigned char nodeId() const = 0;

    /// Reads up to 4 bytes as an unsigned number.
    virtual std::uint32_t readUInt32(std::uint16_t aIndex, std::uint8_t aSubindex) = 0;

    /// Reads up to 2 bytes as an unsigned number.
    virtual std::uint16_t readUInt16(std::uint16_t aIndex, std::uint8_t aSubindex) = 0;

    /// Reads one byte as an unsigned number.
    virtual std::uint8_t readUInt8(std::uint16_t aIndex, std::uint8_t aSubindex) = 0;

    /// Reads up to 4 bytes as a signed number.
    virtual std::int32_t readInt32(std::uint16_t aIndex, std::uint8_t aSubindex) = 0;

    /// Reads a text of any length as it comes; zero bytes at its end do not belong to it.
    virtual std::string readString(std::uint16_t aIndex, std::uint8_t aSubindex) = 0;

    /// Writes bytes as they are, by block transfer where the node can do that.
    /// @param aData  The bytes; may be null when the size is 0.
    /// @param aSize  How many.
    virtual void writeBlock(std::uint16_t aIndex,
                            std::uint8_t aSubindex,
                            void const* aData,
                            std::size_t aSize) = 0;

    /// Writes 4 bytes.
    virtual void writeUInt32(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint32_t aValue) = 0;

    /// Writes 2 bytes.
    virtual void writeUInt16(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint16_t aValue) = 0;

    /// Writes one byte.
    virtual void writeUInt8(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint8_t aValue) = 0;

    /// Writes 4 bytes.
    virtual void writeInt32(std::uint16_t aIndex, std::uint8_t aSubindex, std::int32_t aValue) = 0;
};

} // namespace velmor::kepla::canopen
