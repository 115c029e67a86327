// SPDX-License-Identifier: Apache-2.0
// Program images for the simulated boards, whole ones and damaged ones.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <zlib.h>

namespace libfieldwarden::test {

using ImageBytes = std::vector<std::uint8_t>;

/// Compresses bytes as a gzip file.
inline ImageBytes gzipped(std::span<std::uint8_t const> aBytes) {
    constexpr int kGzip = 15 + 16;
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzip, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("deflateInit2");
    }
    ImageBytes input(aBytes.begin(), aBytes.end());
    ImageBytes output(deflateBound(&stream, static_cast<uLong>(input.size())));
    stream.next_in = input.data();
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = output.data();
    stream.avail_out = static_cast<uInt>(output.size());
    int const result = deflate(&stream, Z_FINISH);
    output.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) {
        throw std::runtime_error("deflate");
    }
    return output;
}

/// An image before its compression, field by field, so that a test can spoil one of them.
struct PlainImage {
    std::string magic = "Q47P";
    std::uint32_t buildId = 2000;
    std::string platform = "Q47-SHIM";
    std::string version = "2.0.0";
    std::size_t programSize = 1000;
    std::uint32_t crcError = 0;    ///< Added to the right check sum.
    std::uint32_t lengthError = 0; ///< Added to the right length.

    ImageBytes bytes() const {
        ImageBytes checked;
        auto const number = [&](std::uint32_t aNumber) {
            for (unsigned byte = 0; byte < 4; ++byte) {
                checked.push_back(static_cast<std::uint8_t>(aNumber >> (8 * byte)));
            }
        };
        auto const text = [&](std::string aText) {
            aText.resize(16);
            checked.insert(checked.end(), aText.begin(), aText.end());
        };
        number(static_cast<std::uint32_t>(48 + programSize) + lengthError);
        number(buildId);
        text(platform);
        text(version);
        std::uint32_t noise = buildId; // Hardly to be compressed, so that the size on the bus is known.
        for (std::size_t byte = 0; byte < programSize; ++byte) {
            noise = noise * 1'664'525U + 1'013'904'223U;
            checked.push_back(static_cast<std::uint8_t>(noise >> 24U));
        }
        auto const crc =
            static_cast<std::uint32_t>(crc32(0, checked.data(), static_cast<uInt>(checked.size())));
        ImageBytes image(magic.begin(), magic.end());
        for (unsigned byte = 0; byte < 4; ++byte) {
            image.push_back(static_cast<std::uint8_t>((crc + crcError) >> (8 * byte)));
        }
        image.insert(image.end(), checked.begin(), checked.end());
        return image;
    }

    ImageBytes packed() const { return gzipped(bytes()); }
};

} // namespace libfieldwarden::test
