// SPDX-License-Identifier: Apache-2.0
// A stored firmware image, checked before a board has to give up its old one for it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmor::kepla::canopen {

/// The bytes of a compressed image (RFC 1952), as they go to the board.
class FirmwareImage {
public:
    /// The largest image that is taken, in bytes: far above what the boards' flash holds, so that a wrong
    /// file does not fill the memory.
    static constexpr std::size_t kMaximumSize = 16U << 20U;

    /// Reads an image and unpacks it once for its checksum. Blocks on the disk.
    /// @throws std::runtime_error  with the path and the reason when the file is missing, empty, too large,
    ///                             no compressed file, or damaged.
    static FirmwareImage load(std::string const& aPath);

    /// @return The compressed bytes.
    std::vector<std::uint8_t> const& bytes() const noexcept { return mBytes; }

private:
    explicit FirmwareImage(std::vector<std::uint8_t> aBytes);

    std::vector<std::uint8_t> mBytes;
};

} // namespace velmor::kepla::canopen
