// SPDX-License-Identifier: Apache-2.0
// The record of the PID stream as it lies in a packet, and how its bytes become numbers.
#pragma once

#include <velmor/kepla/utils/Bits.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace libfieldwarden::lock {

/// The numbers of one record. A value.
struct PidRecord {
    static constexpr std::size_t kSize = 16; ///< In bytes, in the packet.

    double phase;
    long long pidDataIn;
    int pidDataOut;
    unsigned short maxSlice;
};

namespace detail {

/// The word in the order of the bytes in memory, the first one lowest.
template <typename Word>
Word littleEndian(unsigned char const* aBytes) noexcept {
    static_assert(std::endian::native == std::endian::little);
    Word word{};
    std::memcpy(&word, aBytes, sizeof(word));
    return word;
}

} // namespace detail

/// @param aBytes  PidRecord::kSize bytes of a packet; the first one is reserved and not looked at.
/// @return Their numbers. Any thread.
inline PidRecord decodePidRecord(unsigned char const* aBytes) noexcept {
    using velmor::kepla::utils::Bits;
    // Fixed point with 29 fraction bits.
    double const phase =
        static_cast<std::int32_t>(detail::littleEndian<std::uint32_t>(aBytes + 1)) / 536870912.0;

    // Intended: bytes 6 and 7 share one position, and byte 5 comes above the sign. The hardware's input
    // never needs more than its sign in byte 6.
    std::uint32_t const low =
        __builtin_bswap32(detail::littleEndian<std::uint32_t>(aBytes + 7)) | std::uint32_t{aBytes[6]} << 24U;
    std::uint64_t const extended = static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(low)});
    std::uint64_t const input = extended | std::uint64_t{aBytes[5]} << 32U;

    // Bytes 11 to 13, with what follows shifted out.
    std::uint32_t const output = __builtin_bswap32(detail::littleEndian<std::uint32_t>(aBytes + 11)) >> 8U;
    return {.phase = phase,
            .pidDataIn = Bits::signed48bto64b(input),
            .pidDataOut = Bits::signed24bto32b(output),
            .maxSlice = __builtin_bswap16(detail::littleEndian<std::uint16_t>(aBytes + 14))};
}

} // namespace libfieldwarden::lock
