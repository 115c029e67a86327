// SPDX-License-Identifier: Apache-2.0
// A folder that a test has for itself and that goes with it.
#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <cstdlib>

namespace libfieldwarden::test {

/// An empty folder, removed with all that is in it at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "fieldwarden-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("cannot make a temporary directory like " + name);
        }
        mPath = name;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::permissions(mPath, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(mPath, ignored);
    }
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

    std::filesystem::path const& path() const noexcept { return mPath; }

private:
    std::filesystem::path mPath;
};

/// Writes a whole file, its folders included.
inline void writeFile(std::filesystem::path const& aPath, std::string const& aText) {
    std::filesystem::create_directories(aPath.parent_path());
    std::ofstream(aPath, std::ios::binary) << aText;
}

/// Reads a whole file.
inline std::string readFile(std::filesystem::path const& aPath) {
    std::ifstream file(aPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace libfieldwarden::test
