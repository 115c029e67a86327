// SPDX-License-Identifier: Apache-2.0
// One frame as it stands on the CAN bus: an 11-bit identifier and up to eight bytes.
#pragma once

#include <array>
#include <cstdint>

namespace velmor::kepla::canopen {

/// A frame with a base (11-bit) identifier; extended identifiers are not used on this bus. Bytes behind the
/// length are 0, so that equal frames compare equal. A remote frame asks whoever sends this identifier to do
/// so: it has no data bytes, and its length is the number of bytes that it asks for.
struct CanFrame {
    std::uint32_t id = 0;               ///< 0 to 0x7FF; the lower, the more urgent.
    std::uint8_t length = 0;            ///< Number of data bytes, 0 to 8.
    std::array<std::uint8_t, 8> data{}; ///< The data bytes.
    bool remote = false;                ///< A remote frame.

    friend bool operator==(CanFrame const&, CanFrame const&) = default;
};

} // namespace velmor::kepla::canopen
