// SPDX-License-Identifier: Apache-2.0
// Files that the simulated instrument brings along inside the program.
#pragma once

#include <span>
#include <string_view>

namespace libfieldwarden::sim {

/// A file's name and its bytes.
struct EmbeddedFile {
    std::string_view name;
    std::span<unsigned char const> bytes;
};

/// @return The matrix files of the four shim systems.
std::span<EmbeddedFile const> matrixFiles();

/// @return The firmware of the shim boards with its "build.info".
std::span<EmbeddedFile const> shimFirmwareFiles();

/// @return The firmware of the temperature board with its "build.info".
std::span<EmbeddedFile const> tempFirmwareFiles();

/// @return Program and window of the lock sequencer.
std::span<EmbeddedFile const> lockFirmwareFiles();

/// @return What the spectrometer application says of the lock.
std::span<EmbeddedFile const> spectrometerFiles();

/// @return The factory shims.
std::span<EmbeddedFile const> factoryFiles();

} // namespace libfieldwarden::sim
