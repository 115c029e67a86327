// SPDX-License-Identifier: Apache-2.0
// How long a frame occupies a CAN bus, to the bit.
#pragma once

#include <velmor/kepla/canopen/CanFrame.h>

namespace velmor::kepla::canopen {

/// Bits of silence that a frame must leave behind it before the next may start (intermission, ISO 11898-1).
inline constexpr unsigned kCanInterframeBits = 3;

/// @return The length of a frame with an 11-bit identifier in bits, from the start of frame to the end of
/// frame, with the stuff bits that its content and its check sum call for, without the interframe space:
/// 44 bits, 8 for each data byte, of which a remote frame has none, and the stuff bits.
unsigned canFrameBits(CanFrame const& aFrame) noexcept;

/// @return The check sum that the frame carries on the bus (CRC-15, polynomial 0x4599).
unsigned canFrameCrc(CanFrame const& aFrame) noexcept;

} // namespace velmor::kepla::canopen
