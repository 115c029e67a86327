// SPDX-License-Identifier: Apache-2.0
// Standard output and standard error.
#include "apps/fieldwarden/Output.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

using nlohmann::ordered_json;

/// Whether a write to standard output went well.
bool readerThere(bool aWritten) {
    if (aWritten || errno == EPIPE) {
        return aWritten;
    }
    throw std::system_error(errno, std::generic_category(), "Cannot write to standard output");
}

std::string withoutControlCharacters(std::string const& aText) {
    std::string shown;
    for (char const character : aText) {
        auto const code = static_cast<unsigned char>(character);
        bool const harmless = (code >= 0x20 && code != 0x7F) || character == '\n';
        shown += harmless ? std::string(1, character) : fmt::format("\\x{:02x}", code);
    }
    return shown;
}

} // namespace

bool print(std::string const& aText) {
    return readerThere(std::fwrite(aText.data(), 1, aText.size(), stdout) == aText.size());
}

void printJson(ordered_json const& aFields) {
    ordered_json document{{"schema", 1}};
    document.update(aFields);
    print(document.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n");
}

void flushOutput() {
    readerThere(std::fflush(stdout) == 0);
}

void complain(std::string const& aText) {
    std::fputs(("fieldwarden: " + withoutControlCharacters(aText) + "\n").c_str(), stderr);
}

} // namespace libfieldwarden::app
