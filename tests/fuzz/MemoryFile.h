// SPDX-License-Identifier: Apache-2.0
// A file without a disk, for fuzz targets that take a path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace libfieldwarden::test {

/// One file in memory whose content is replaced for each input.
class MemoryFile {
public:
    MemoryFile()
        : mDescriptor(memfd_create("fuzz", MFD_CLOEXEC)) {
        if (mDescriptor < 0) {
            std::abort();
        }
    }
    ~MemoryFile() { close(mDescriptor); }
    MemoryFile(MemoryFile const&) = delete;
    MemoryFile& operator=(MemoryFile const&) = delete;

    /// Replaces the content.
    void fill(std::uint8_t const* aData, std::size_t aSize) const {
        if (ftruncate(mDescriptor, 0) != 0 ||
            pwrite(mDescriptor, aData, aSize, 0) != static_cast<ssize_t>(aSize)) {
            std::abort();
        }
    }

    /// @return A path that opens it.
    std::string path() const { return "/proc/self/fd/" + std::to_string(mDescriptor); }

private:
    int mDescriptor;
};

} // namespace libfieldwarden::test
