// SPDX-License-Identifier: Apache-2.0
// Writing under a temporary name and renaming.
#include "apps/fieldwarden/WriteWholeFile.h"

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace libfieldwarden::app {

namespace {

/// @param aInto  Where the bytes go; the words name the file itself, aPath.
void write(std::filesystem::path const& aInto,
           std::string const& aBytes,
           std::filesystem::path const& aPath,
           std::string const& aWhat) {
    errno = 0;
    std::ofstream file(aInto, std::ios::binary);
    file << aBytes;
    file.close();
    if (!file) {
        std::string const why = errno == 0 ? "" : ": " + std::generic_category().message(errno);
        throw std::runtime_error("Cannot write the " + aWhat + " '" + aPath.string() + "'" + why);
    }
}

void replace(std::filesystem::path const& aPath, std::string const& aBytes, std::string const& aWhat) {
    auto const target = std::filesystem::weakly_canonical(aPath);
    auto const temporary = std::filesystem::path(target).concat(".new");
    try {
        write(temporary, aBytes, aPath, aWhat);
        std::filesystem::rename(temporary, target);
    } catch (std::exception const&) {
        std::error_code notThere;
        std::filesystem::remove(temporary, notThere);
        throw;
    }
}

} // namespace

void writeWholeFile(std::filesystem::path const& aPath, std::string const& aBytes, std::string const& aWhat) {
    auto const there = std::filesystem::status(aPath);
    if (std::filesystem::exists(there) && !std::filesystem::is_regular_file(there)) {
        write(aPath, aBytes, aPath, aWhat);
    } else {
        replace(aPath, aBytes, aWhat);
    }
}

} // namespace libfieldwarden::app
