// SPDX-License-Identifier: Apache-2.0
// The emergency message (EMCY) by which a CANopen node tells of a fault of its own.
#pragma once

#include <velmor/kepla/canopen/CanFrame.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmor::kepla::canopen {

/// One decoded emergency message (CiA 301, emergency object).
struct EmergencyMessage {
    unsigned char node = 0;                     ///< Who sent it, 1 to 127.
    std::uint16_t code = 0;                     ///< Error code; 0 when an error is over.
    std::uint8_t errorRegister = 0;             ///< The node's object 0x1001.
    std::array<std::uint8_t, 5> manufacturer{}; ///< The board's own bytes.

    /// Reads a frame. Never throws.
    /// @return None for a frame that is no emergency message or is shorter than one.
    static std::optional<EmergencyMessage> decode(CanFrame const& aFrame) noexcept;

    /// @return Words for the class of the error code, such as "temperature of the device".
    std::string_view words() const noexcept;

    /// @return The error register in words, such as "generic, current"; "none" when it is 0.
    std::string registerWords() const;
};

} // namespace velmor::kepla::canopen
