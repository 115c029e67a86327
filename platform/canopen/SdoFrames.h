// SPDX-License-Identifier: Apache-2.0
// What the SDO client and the SDO server both do with the eight bytes of a frame.
#pragma once

#include <velmor/kepla/canopen/SdoTypes.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace velmor::kepla::canopen::sdoframes {

using Bytes = std::array<std::uint8_t, 8>;

inline constexpr std::size_t kFrameLength = 8;      ///< Every SDO frame has all eight bytes.
inline constexpr std::size_t kSegmentBytes = 7;     ///< Data bytes of a segment.
inline constexpr std::size_t kExpeditedBytes = 4;   ///< Data bytes of an expedited transfer.
inline constexpr std::uint8_t kMaximalBlock = 127;  ///< Segments of a block.
inline constexpr std::uint8_t kAbort = 0x80;        ///< Command of an abort, both ways.
inline constexpr std::uint8_t kLastSegment = 0x80;  ///< End mark of a block's segment.
inline constexpr std::uint8_t kSequenceMask = 0x7F; ///< Number of a block's segment.

/// The object that a frame names in its bytes 1 to 3.
inline SdoObject objectOf(Bytes const& aData) noexcept {
    return {static_cast<std::uint16_t>(aData[1] | (aData[2] << 8U)), aData[3]};
}

/// A frame with command and object, the rest 0.
inline Bytes withObject(unsigned aCommand, SdoObject aObject) noexcept {
    return {static_cast<std::uint8_t>(aCommand), static_cast<std::uint8_t>(aObject.index & 0xFFU),
            static_cast<std::uint8_t>(aObject.index >> 8U), aObject.subindex};
}

/// The number in bytes 4 to 7.
inline std::uint32_t numberOf(Bytes const& aData) noexcept {
    return static_cast<std::uint32_t>(aData[4]) | (static_cast<std::uint32_t>(aData[5]) << 8U) |
           (static_cast<std::uint32_t>(aData[6]) << 16U) | (static_cast<std::uint32_t>(aData[7]) << 24U);
}

/// Puts a number into bytes 4 to 7.
inline void setNumber(Bytes& aData, std::uint32_t aNumber) noexcept {
    for (unsigned i = 0; i < 4; ++i) {
        aData[4 + i] = static_cast<std::uint8_t>(aNumber >> (8 * i));
    }
}

/// The bits of an expedited transfer's command that tell its size.
/// @param aSize  1 to 4 bytes.
inline unsigned expeditedSize(std::size_t aSize) noexcept {
    return static_cast<unsigned>(kExpeditedBytes - aSize) << 2U;
}

/// How many of the last segment's bytes are no data.
/// @param aSize  Size of all the data in bytes, above 0.
inline unsigned unusedOfLastSegment(std::size_t aSize) noexcept {
    return static_cast<unsigned>((kSegmentBytes - aSize % kSegmentBytes) % kSegmentBytes);
}

} // namespace velmor::kepla::canopen::sdoframes
