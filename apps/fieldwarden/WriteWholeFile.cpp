// SPDX-License-Identifier: Apache-2.0
// Writing under a temporary name and renaming.
#include "apps/fieldwarden/WriteWholeFile.h"

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <unistd.h>

namespace libfieldwarden::app {

namespace {

/// @param aError  Of errno; 0 where nobody knows why.
[[noreturn]] void refuse(std::filesystem::path const& aPath, std::string const& aWhat, int aError) {
    std::string const why = aError == 0 ? "" : ": " + std::generic_category().message(aError);
    throw std::runtime_error("Cannot write the " + aWhat + " '" + aPath.string() + "'" + why);
}

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
        refuse(aPath, aWhat, errno);
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

void checkPlaceOf(std::filesystem::path const& aPath, std::string const& aWhat) {
    auto const there = std::filesystem::status(aPath);
    if (aPath.empty() || std::filesystem::is_directory(there)) {
        refuse(aPath, aWhat, aPath.empty() ? ENOENT : EISDIR);
    }
    bool const direct = std::filesystem::exists(there) && !std::filesystem::is_regular_file(there);
    auto const folder = std::filesystem::weakly_canonical(std::filesystem::absolute(aPath)).parent_path();
    if (std::filesystem::exists(folder) && !std::filesystem::is_directory(folder)) {
        refuse(aPath, aWhat, ENOTDIR);
    }
    if (access((direct ? aPath : folder).c_str(), W_OK) != 0) {
        refuse(aPath, aWhat, errno);
    }
}

} // namespace libfieldwarden::app
