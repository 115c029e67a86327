// SPDX-License-Identifier: Apache-2.0
// Reading a firmware image and walking through its compressed data for the checksum at its end.
#include <velmor/kepla/canopen/FirmwareImage.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <utility>

#include <zlib.h>

namespace velmor::kepla::canopen {

namespace {

[[noreturn]] void refuse(std::string const& aPath, std::string const& aWhy) {
    throw std::runtime_error("The firmware image '" + aPath + "' " + aWhy);
}

std::vector<std::uint8_t> contents(std::string const& aPath) {
    std::error_code error;
    auto const size = std::filesystem::file_size(aPath, error);
    if (error) {
        refuse(aPath, "cannot be read: " + error.message());
    }
    if (size == 0) {
        refuse(aPath, "is empty");
    }
    if (size > FirmwareImage::kMaximumSize) {
        refuse(aPath, "is too large: " + std::to_string(size) + " bytes");
    }
    std::vector<std::uint8_t> bytes(size);
    std::ifstream file(aPath, std::ios::binary);
    void* const untyped = bytes.data();
    file.read(static_cast<char*>(untyped), static_cast<std::streamsize>(size));
    if (file.gcount() != static_cast<std::streamsize>(size)) {
        refuse(aPath, "cannot be read");
    }
    return bytes;
}

/// Whether the bytes are one whole compressed file with the right checksum.
bool intact(std::vector<std::uint8_t>& aBytes) {
    constexpr int kCompressedFileOnly = 15 + 16; // Largest window, and the header of a file must be there.
    z_stream stream{};
    if (inflateInit2(&stream, kCompressedFileOnly) != Z_OK) {
        return false;
    }
    auto const end = [](z_stream* aStream) { inflateEnd(aStream); };
    std::unique_ptr<z_stream, decltype(end)> const owner(&stream, end);
    std::array<std::uint8_t, 16384> unpacked{};
    stream.next_in = aBytes.data();
    stream.avail_in = static_cast<uInt>(aBytes.size());
    int result = Z_OK;
    while (result == Z_OK) {
        stream.next_out = unpacked.data();
        stream.avail_out = static_cast<uInt>(unpacked.size());
        result = inflate(&stream, Z_NO_FLUSH);
    }
    return result == Z_STREAM_END && stream.avail_in == 0;
}

} // namespace

FirmwareImage::FirmwareImage(std::vector<std::uint8_t> aBytes)
    : mBytes(std::move(aBytes)) {}

FirmwareImage FirmwareImage::load(std::string const& aPath) {
    std::vector<std::uint8_t> bytes = contents(aPath);
    if (!intact(bytes)) {
        refuse(aPath, "is damaged or not compressed");
    }
    return FirmwareImage(std::move(bytes));
}

} // namespace velmor::kepla::canopen
