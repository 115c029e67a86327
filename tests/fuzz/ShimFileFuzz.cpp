// SPDX-License-Identifier: Apache-2.0
// Any text as a shim file: it is read, or refused with the number of its first bad line.
#include "fuzz/MemoryFile.h"
#include "shim/ShimFile.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

/// The line number that a refusal tells; 0 when its words are others than told.
unsigned long lineOf(std::string const& aWords) {
    static std::string const kBegin = "Invalid shim file. Error at line ";
    return aWords.rfind(kBegin, 0) == 0 ? std::strtoul(aWords.c_str() + kBegin.size(), nullptr, 10) : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize) {
    static libfieldwarden::test::MemoryFile file;
    file.fill(aData, aSize);
    try {
        ShimFile read(file.path());
        if (read.gradients()->getVector()(39) != 0) {
            std::abort(); // no name reaches this slot
        }
    } catch (std::runtime_error const& error) {
        auto const lines = static_cast<unsigned long>(std::count(aData, aData + aSize, '\n')) + 1;
        unsigned long const line = lineOf(error.what());
        if (line == 0 || line > lines) {
            std::abort();
        }
    }
    return 0;
}
