// SPDX-License-Identifier: Apache-2.0
// A program for a simulated board, as it comes over the bus: compressed, with a header that the board checks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

namespace libfieldwarden::sim {

/// Errors of the flash status object 0x1F57, with their values on the bus (CiA 302-3).
enum class FlashError : std::uint8_t {
    None = 0,
    NoProgram = 1,
    UnknownFormat = 2,
    Damaged = 3,
    NotCleared = 4,
};

/// A board refuses an image.
class ProgramImageError : public std::runtime_error {
public:
    ProgramImageError(FlashError aError, std::string const& aWhy)
        : std::runtime_error(aWhy)
        , mError(aError) {}

    FlashError error() const noexcept { return mError; }

private:
    FlashError mError;
};

/// What the header of an image says. The image is one gzip file (RFC 1952) of these bytes, numbers little
/// endian:
///
/// | Offset | Bytes | Meaning                                               |
/// |--------|-------|-------------------------------------------------------|
/// | 0      | 4     | the magic word "Q47P"                                 |
/// | 4      | 4     | CRC-32 (IEEE 802.3) of everything behind it           |
/// | 8      | 4     | length of the whole in bytes                          |
/// | 12     | 4     | build id, not 0                                       |
/// | 16     | 16    | platform identifier, filled up with zeros             |
/// | 32     | 16    | version, filled up with zeros                         |
/// | 48     |       | the program itself                                    |
///
/// simulator/data/firmware/make-firmware.py makes such files.
struct ProgramImage {
    static constexpr std::size_t kHeaderSize = 48;
    /// The largest program with its header, in bytes: what the flash holds.
    static constexpr std::size_t kLargest = std::size_t{512} * 1024;

    std::uint32_t buildId = 0;
    std::uint32_t length = 0; ///< Of the unpacked whole, in bytes.
    std::uint32_t crc = 0;    ///< CRC-32 from the header.
    std::string platform;
    std::string version;

    /// Unpacks and checks an image. Any thread; does not block.
    /// @param aPacked    The compressed bytes.
    /// @param aPlatform  What the board is.
    /// @throws ProgramImageError  UnknownFormat for data that are not compressed, have another magic word or
    ///                            are for another platform; Damaged for a wrong length or check sum.
    static ProgramImage check(std::span<std::uint8_t const> aPacked, std::string const& aPlatform);
};

} // namespace libfieldwarden::sim
