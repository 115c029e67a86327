// SPDX-License-Identifier: Apache-2.0
// Reading a file in pieces that fit a cache.
#include <velmor/kepla/utils/WholeFile.h>

#include <array>
#include <cstddef>
#include <fstream>
#include <ios>
#include <system_error>

namespace velmor::kepla::utils {

namespace {

[[noreturn]] void fail(std::filesystem::path const& aPath, char const* aWhy) {
    throw std::ios_base::failure("'" + aPath.string() + "' " + aWhy,
                                 std::make_error_code(std::errc::invalid_argument));
}

} // namespace

std::string readWholeFile(std::filesystem::path const& aPath, std::size_t aLimit) {
    std::error_code ignored;
    auto const type = std::filesystem::status(aPath, ignored).type();
    if (type == std::filesystem::file_type::fifo || type == std::filesystem::file_type::character) {
        fail(aPath, "is no regular file"); // Its end might never come.
    }
    std::ifstream file(aPath, std::ios::binary);
    std::string text;
    if (!file) {
        return text;
    }
    file.exceptions(std::ios::badbit);
    std::array<char, std::size_t{64} * 1024> piece{};
    while (file.read(piece.data(), piece.size()), file.gcount() > 0) {
        if (text.size() + static_cast<std::size_t>(file.gcount()) > aLimit) {
            fail(aPath, "is too large");
        }
        text.append(piece.data(), static_cast<std::size_t>(file.gcount()));
    }
    return text;
}

} // namespace velmor::kepla::utils
