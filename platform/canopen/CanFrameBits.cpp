// SPDX-License-Identifier: Apache-2.0
// A frame's bits as they stand on the bus: check sum and stuffing.
#include <velmor/kepla/canopen/CanFrameBits.h>

#include <cstddef>

namespace velmor::kepla::canopen {

namespace {

/// Calls for every bit from the start of frame to the last data bit.
template <typename OnBit>
void forEachBit(CanFrame const& aFrame, OnBit aOnBit) {
    auto const field = [&](unsigned aValue, unsigned aBits) {
        for (unsigned bit = aBits; bit-- > 0;) {
            aOnBit((aValue >> bit) & 1U);
        }
    };
    field(0, 1);                       // start of frame
    field(aFrame.id, 11);              // identifier
    field(aFrame.remote ? 1U : 0U, 1); // remote transmission request
    field(0, 2);                       // base format, reserved
    field(aFrame.length, 4);           // data length code
    for (std::size_t i = 0; i < aFrame.length && !aFrame.remote; ++i) {
        field(aFrame.data[i], 8);
    }
}

constexpr unsigned kCrcBits = 15;
constexpr unsigned kUnstuffedEnd =
    10; ///< CRC delimiter, acknowledge slot and delimiter, 7 bits end of frame.

} // namespace

unsigned canFrameCrc(CanFrame const& aFrame) noexcept {
    constexpr unsigned kPolynomial = 0x4599;
    unsigned crc = 0;
    forEachBit(aFrame, [&crc](unsigned aBit) {
        bool const invert = ((crc >> (kCrcBits - 1)) ^ aBit) != 0;
        crc = (crc << 1U) & 0x7FFFU;
        crc ^= invert ? kPolynomial : 0U;
    });
    return crc;
}

unsigned canFrameBits(CanFrame const& aFrame) noexcept {
    constexpr unsigned kLongestRun = 5; // a bit of the other kind is stuffed behind it and begins a new run
    unsigned bits = 0;
    unsigned run = 0;
    unsigned former = 2;
    auto const onBit = [&](unsigned aBit) {
        ++bits;
        run = aBit == former ? run + 1 : 1;
        former = aBit;
        if (run == kLongestRun) {
            ++bits;
            former = 1U - aBit;
            run = 1;
        }
    };
    forEachBit(aFrame, onBit);
    unsigned const crc = canFrameCrc(aFrame);
    for (unsigned bit = kCrcBits; bit-- > 0;) {
        onBit((crc >> bit) & 1U);
    }
    return bits + kUnstuffedEnd;
}

} // namespace velmor::kepla::canopen
