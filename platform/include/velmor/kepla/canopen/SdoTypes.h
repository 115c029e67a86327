// SPDX-License-Identifier: Apache-2.0
// The words that SDO client and server share: objects, ways of transfer, the check sum of block transfers.
#pragma once

#include <cstdint>
#include <span>

namespace velmor::kepla::canopen {

/// The place of one value in a node's object dictionary (the multiplexer of CiA 301).
struct SdoObject {
    std::uint16_t index = 0;
    std::uint8_t subindex = 0;

    friend bool operator==(SdoObject const&, SdoObject const&) = default;
};

/// How data travel.
enum class SdoMode {
    Segmented, ///< In one frame where 4 bytes are enough (expedited), else 7 bytes at a time, each
               ///< acknowledged.
    Block,     ///< Up to 127 frames of 7 bytes in one go, with a check sum.
};

/// Identifier of the frames from the client to a node (default SDO channel, CiA 301 7.3.5).
constexpr std::uint32_t sdoRequestId(std::uint8_t aNode) noexcept {
    return 0x600U + aNode;
}

/// Identifier of the frames from a node to the client.
constexpr std::uint32_t sdoAnswerId(std::uint8_t aNode) noexcept {
    return 0x580U + aNode;
}

/// Check sum of block transfers: CRC-16-CCITT, x^16 + x^12 + x^5 + 1, starting at 0 (CiA 301 7.2.4.3.16).
/// @param aCrc   The check sum so far; 0 at the start.
/// @param aData  What follows.
/// @return The check sum with it.
std::uint16_t sdoCrc(std::uint16_t aCrc, std::span<std::uint8_t const> aData) noexcept;

} // namespace velmor::kepla::canopen
