// SPDX-License-Identifier: Apache-2.0
// Reading a file in pieces that fit a cache.
#include <velmor/kepla/utils/WholeFile.h>

#include <array>
#include <cstddef>
#include <fstream>

namespace velmor::kepla::utils {

std::string readWholeFile(std::filesystem::path const& aPath) {
    std::ifstream file(aPath, std::ios::binary);
    std::string text;
    if (!file) {
        return text;
    }
    file.exceptions(std::ios::badbit);
    std::array<char, std::size_t{64} * 1024> piece{};
    while (file.read(piece.data(), piece.size()), file.gcount() > 0) {
        text.append(piece.data(), static_cast<std::size_t>(file.gcount()));
    }
    return text;
}

} // namespace velmor::kepla::utils
