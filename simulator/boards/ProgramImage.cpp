// SPDX-License-Identifier: Apache-2.0
// What a board's bootloader does with the image that it was given.
#include "simulator/boards/ProgramImage.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

#include <zlib.h>

namespace libfieldwarden::sim {

namespace {

constexpr std::string_view kMagic = "Q47P";
constexpr std::size_t kCrcPlace = 4;
constexpr std::size_t kLengthPlace = 8;
constexpr std::size_t kBuildIdPlace = 12;
constexpr std::size_t kPlatformPlace = 16;
constexpr std::size_t kVersionPlace = 32;
constexpr std::size_t kTextSize = 16;

using Bytes = std::vector<std::uint8_t>;

std::uint32_t numberAt(Bytes const& aBytes, std::size_t aPlace) {
    std::uint32_t number = 0;
    for (unsigned byte = 0; byte < 4; ++byte) {
        number |= std::uint32_t{aBytes[aPlace + byte]} << (8 * byte);
    }
    return number;
}

std::string textAt(Bytes const& aBytes, std::size_t aPlace) {
    auto const first = aBytes.begin() + static_cast<std::ptrdiff_t>(aPlace);
    return {first, std::find(first, first + kTextSize, std::uint8_t{0})};
}

/// @throws ProgramImageError  when the bytes are not one whole gzip file that fits into the flash.
Bytes unpack(std::span<std::uint8_t const> aPacked) {
    constexpr int kGzipOnly = 15 + 16; // Largest window, and the header of a gzip file must be there.
    z_stream stream{};
    if (inflateInit2(&stream, kGzipOnly) != Z_OK) {
        throw ProgramImageError(FlashError::Damaged, "out of memory");
    }
    auto const end = [](z_stream* aStream) { inflateEnd(aStream); };
    std::unique_ptr<z_stream, decltype(end)> const owner(&stream, end);
    Bytes packed(aPacked.begin(), aPacked.end());
    Bytes bytes(ProgramImage::kLargest + 1);
    stream.next_in = packed.data();
    stream.avail_in = static_cast<uInt>(packed.size());
    stream.next_out = bytes.data();
    stream.avail_out = static_cast<uInt>(bytes.size());
    int const result = inflate(&stream, Z_FINISH);
    bytes.resize(stream.total_out);
    if (result == Z_DATA_ERROR && bytes.empty()) {
        throw ProgramImageError(FlashError::UnknownFormat, "the data are not compressed");
    }
    if (bytes.size() > ProgramImage::kLargest) {
        throw ProgramImageError(FlashError::Damaged, "the program is larger than the flash");
    }
    if (result != Z_STREAM_END || stream.avail_in != 0) {
        throw ProgramImageError(FlashError::Damaged, "the compressed data are damaged or cut off");
    }
    return bytes;
}

} // namespace

ProgramImage ProgramImage::check(std::span<std::uint8_t const> aPacked, std::string const& aPlatform) {
    Bytes const bytes = unpack(aPacked);
    if (bytes.size() < kMagic.size() || !std::equal(kMagic.begin(), kMagic.end(), bytes.begin())) {
        throw ProgramImageError(FlashError::UnknownFormat, "the magic word is missing");
    }
    if (bytes.size() < kHeaderSize || numberAt(bytes, kLengthPlace) != bytes.size()) {
        throw ProgramImageError(FlashError::Damaged, "the length is wrong");
    }
    auto const crc = static_cast<std::uint32_t>(
        crc32(0, bytes.data() + kLengthPlace, static_cast<uInt>(bytes.size() - kLengthPlace)));
    if (crc != numberAt(bytes, kCrcPlace)) {
        throw ProgramImageError(FlashError::Damaged, "the check sum is wrong");
    }
    ProgramImage image{numberAt(bytes, kBuildIdPlace), static_cast<std::uint32_t>(bytes.size()), crc,
                       textAt(bytes, kPlatformPlace), textAt(bytes, kVersionPlace)};
    if (image.platform != aPlatform) {
        throw ProgramImageError(FlashError::UnknownFormat, "the program is for '" + image.platform + "'");
    }
    if (image.buildId == 0) {
        throw ProgramImageError(FlashError::Damaged, "the build id is 0");
    }
    return image;
}

} // namespace libfieldwarden::sim
