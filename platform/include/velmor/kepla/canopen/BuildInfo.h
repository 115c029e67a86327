// SPDX-License-Identifier: Apache-2.0
// What the text file "build.info" beside a firmware image says about that image.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace velmor::kepla::canopen {

/// The build of a stored firmware image. The file has one `key=value` a line; blanks around keys and values
/// do not count, empty lines and lines that begin with '#' are skipped, unknown keys are ignored so that the
/// build may write more than the boards need:
///
///     # firmware of the shim boards
///     platform=Q47-SHIM
///     jenkins_build_id=123
///
/// `jenkins_build_id` (decimal, or hexadecimal with "0x", 32 bits) is what a board that runs the image
/// reports as its build; it must be there. `platform` is the platform identifier of the boards that the image
/// is for; without it the platform is not compared.
struct BuildInfo {
    std::uint32_t jenkinsBuildId = 0;
    std::optional<std::string> platform;

    /// Reads the text of a file.
    /// @throws std::runtime_error  with the line number for a line that is no `key=value` or has no readable
    ///                             number, and when the build id is missing.
    static BuildInfo parse(std::string const& aText);

    /// Reads a file. Blocks on the disk.
    /// @return Nothing when there is no such file.
    /// @throws std::runtime_error  as parse(), and when the file is there but cannot be read; the words name
    ///                             the path.
    static std::optional<BuildInfo> load(std::string const& aPath);
};

} // namespace velmor::kepla::canopen
