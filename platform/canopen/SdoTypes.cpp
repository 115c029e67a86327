// SPDX-License-Identifier: Apache-2.0
// The check sum of SDO block transfers.
#include <velmor/kepla/canopen/SdoTypes.h>

#include <array>

namespace velmor::kepla::canopen {

namespace {

/// The effect of one byte in the upper half of the check sum.
constexpr std::array<std::uint16_t, 256> makeCrcTable() noexcept {
    constexpr unsigned kPolynomial = 0x1021;
    std::array<std::uint16_t, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) {
        unsigned crc = byte << 8U;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x8000U) != 0 ? (crc << 1U) ^ kPolynomial : crc << 1U;
        }
        table[byte] = static_cast<std::uint16_t>(crc);
    }
    return table;
}

constexpr std::array<std::uint16_t, 256> kCrcTable = makeCrcTable();

} // namespace

std::uint16_t sdoCrc(std::uint16_t aCrc, std::span<std::uint8_t const> aData) noexcept {
    unsigned crc = aCrc;
    for (std::uint8_t const byte : aData) {
        crc = ((crc << 8U) ^ kCrcTable[(crc >> 8U) ^ byte]) & 0xFFFFU;
    }
    return static_cast<std::uint16_t>(crc);
}

} // namespace velmor::kepla::canopen
