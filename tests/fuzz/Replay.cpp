// SPDX-License-Identifier: Apache-2.0
// Feeds a fuzz target with the files of its corpus, for builds without libFuzzer.
#include "support/TemporaryDirectory.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize);

int main(int aCount, char** aArguments) {
    if (aCount != 2) {
        std::fputs("usage: replay CORPUS_DIRECTORY\n", stderr);
        return 2;
    }
    std::size_t inputs = 0;
    for (auto const& entry : std::filesystem::directory_iterator(aArguments[1])) {
        std::string const bytes = libfieldwarden::test::readFile(entry.path());
        std::fprintf(stderr, "%s\n", entry.path().c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
        ++inputs;
    }
    std::printf("%zu inputs\n", inputs);
    return inputs == 0 ? 1 : 0;
}
