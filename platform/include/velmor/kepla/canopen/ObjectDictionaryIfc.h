// SPDX-License-Identifier: Apache-2.0
// What stands behind an SDO server: the objects of a node.
#pragma once

#include <velmor/kepla/canopen/SdoTypes.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace velmor::kepla::canopen {

/// Takes a large write piece by piece, so that a firmware image need not be in memory twice.
/// Destroyed without finish(), the write was given up.
class ObjectWriteStream {
public:
    virtual ~ObjectWriteStream() = default;

    /// Takes the next bytes.
    /// @return 0, or the abort code with which the transfer ends.
    virtual std::uint32_t write(std::span<std::uint8_t const> aData) = 0;

    /// Everything has come, and the check sum is right where there is one.
    /// @return 0, or the abort code with which the transfer ends.
    virtual std::uint32_t finish() = 0;
};

/// The object dictionary of a node. Called by the SDO server on the thread that feeds it.
class ObjectDictionaryIfc {
public:
    virtual ~ObjectDictionaryIfc() = default;

    /// Reads an object.
    /// @param aData  Empty at call; the bytes, little endian for numbers.
    /// @return 0, or an abort code.
    virtual std::uint32_t read(SdoObject aObject, std::vector<std::uint8_t>& aData) = 0;

    /// Writes an object.
    /// @return 0, or an abort code.
    virtual std::uint32_t write(SdoObject aObject, std::span<std::uint8_t const> aData) = 0;

    /// Asked at the beginning of a segmented or block write whether the object wants it piece by piece.
    /// @param aSize  Its size in bytes where the client has told it.
    /// @return The taker; null for one write() of everything at the end.
    virtual std::unique_ptr<ObjectWriteStream> openStream(SdoObject aObject,
                                                          std::optional<std::uint32_t> aSize) {
        static_cast<void>(aObject);
        static_cast<void>(aSize);
        return nullptr;
    }
};

} // namespace velmor::kepla::canopen
