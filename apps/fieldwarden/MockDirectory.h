// SPDX-License-Identifier: Apache-2.0
// The folder whose presence makes the library take the mock lock.
#pragma once

#include <filesystem>
#include <vector>

namespace libfieldwarden::app {

/// Makes the folder with empty control files when it is not there, and removes at the end what it made.
class MockDirectory {
public:
    /// The place at which the library looks.
    static std::filesystem::path path() { return "/tmp/lockmock"; }

    /// @throws std::filesystem::filesystem_error  when the folder cannot be made.
    /// @throws std::runtime_error                 when a control file cannot be made.
    MockDirectory();
    ~MockDirectory();
    MockDirectory(MockDirectory const&) = delete;
    MockDirectory& operator=(MockDirectory const&) = delete;

private:
    std::vector<std::filesystem::path> mMade; ///< In the order in which they were made.
};

} // namespace libfieldwarden::app
