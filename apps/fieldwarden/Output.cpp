// SPDX-License-Identifier: Apache-2.0
// Standard output and standard error.
#include "apps/fieldwarden/Output.h"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

namespace libfieldwarden::app {

void print(std::string const& aText) {
    bool const written = std::fwrite(aText.data(), 1, aText.size(), stdout) == aText.size();
    if ((!written || std::fflush(stdout) != 0) && errno != EPIPE) {
        throw std::system_error(errno, std::generic_category(), "Cannot write to standard output");
    }
}

void printJson(nlohmann::ordered_json const& aFields) {
    nlohmann::ordered_json document{{"schema", 1}};
    document.update(aFields);
    print(document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n");
}

void complain(std::string const& aText) {
    std::fputs(("fieldwarden: " + aText + "\n").c_str(), stderr);
}

} // namespace libfieldwarden::app
