// SPDX-License-Identifier: Apache-2.0
// Parsing and writing of gradients and currents.
#include "apps/fieldwarden/ShimText.h"

#include "apps/fieldwarden/WriteWholeFile.h"
#include "apps/fieldwarden/WrongUsage.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

/// A number with a sign that may be "+", and how many characters it has; none when the text begins otherwise.
template <typename Number>
std::optional<std::pair<Number, std::size_t>> leadingNumber(std::string_view aText) {
    bool const plus = aText.starts_with('+') && !aText.starts_with("+-");
    Number number{};
    char const* const end = aText.data() + aText.size();
    auto const [stop, error] = std::from_chars(aText.data() + (plus ? 1 : 0), end, number);
    if (error != std::errc{}) {
        return std::nullopt;
    }
    return std::pair(number, static_cast<std::size_t>(stop - aText.data()));
}

/// A number that fills a text from end to end.
template <typename Number>
std::optional<Number> wholeNumber(std::string_view aText) {
    auto const found = leadingNumber<Number>(aText);
    return found && found->second == aText.size() ? std::optional(found->first) : std::nullopt;
}

struct CurrentUnit {
    std::string_view suffix;
    double ampere;
};

/// The longer suffixes first, since each ends in the shortest.
constexpr CurrentUnit kCurrentUnits[] = {{"mA", 1e-3}, {"uA", 1e-6}, {"A", 1.0}, {"", 1.0}};

/// More than any shim file has: 39 gradients and many words of comment.
constexpr std::size_t kLargestShimFile = std::size_t{1024} * 1024;

std::string reason() {
    return errno == 0 ? "" : ": " + std::generic_category().message(errno);
}

std::string textOf(std::filesystem::path const& aPath) {
    errno = 0;
    std::ifstream file(aPath, std::ios::binary);
    std::string text(kLargestShimFile + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad()) { // A folder opens like a file and fails only here.
        throw std::runtime_error("Cannot read the shim file '" + aPath.string() + "'" + reason());
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > kLargestShimFile) {
        throw std::runtime_error("'" + aPath.string() + "' is no shim file: it has more than 1 MiB");
    }
    if (text.find('\0') != std::string::npos) {
        throw std::runtime_error("'" + aPath.string() + "' is no shim file: it is not text");
    }
    return text;
}

} // namespace

Gradient parseAssignment(std::string const& aText) {
    auto const equals = aText.find('=');
    auto const value = equals == std::string::npos
                           ? std::nullopt
                           : wholeNumber<int>(std::string_view(aText).substr(equals + 1));
    if (equals == 0 || !value) {
        throw WrongUsage("'" + aText +
                         "' is not of the form NAME=VALUE with a whole number of 32 bits, as in Z=1200");
    }
    return {aText.substr(0, equals), *value};
}

double parseCurrent(std::string const& aText) {
    for (CurrentUnit const& unit : kCurrentUnits) {
        if (aText.ends_with(unit.suffix)) {
            auto const number =
                wholeNumber<double>(std::string_view(aText).substr(0, aText.size() - unit.suffix.size()));
            if (number && std::isfinite(*number)) {
                return *number * unit.ampere;
            }
            break;
        }
    }
    throw WrongUsage("'" + aText + "' is not a current, as in 0.25, 0.25A or 250mA");
}

std::optional<Gradient> parseShimFileLine(std::string_view aLine) {
    if (aLine.empty() || aLine.front() == '#') {
        return std::nullopt;
    }
    auto const nameEnd = aLine.find(' ');
    if (nameEnd == std::string_view::npos) {
        throw std::invalid_argument("no space found after gradient name");
    }
    auto const valueBegin = aLine.find_first_not_of(' ', nameEnd);
    if (valueBegin == std::string_view::npos) {
        throw std::invalid_argument("no value after gradient name");
    }
    auto const value = aLine.substr(valueBegin);
    auto const digits =
        value.find_first_not_of("\t\v\f"); // The white space that strtol() skips, CR and LF aside.
    auto const number = leadingNumber<int>(value.substr(std::min(digits, value.size())));
    if (!number) {
        throw std::invalid_argument(fmt::format("'{:.40}' is not a whole number of 32 bits", value));
    }
    return Gradient{aLine.substr(0, nameEnd), number->first};
}

std::vector<ShimFileLine> readShimFile(std::filesystem::path const& aPath) {
    std::string const text = textOf(aPath);
    std::vector<ShimFileLine> lines;
    unsigned int number = 1;
    for (std::size_t begin = 0; begin < text.size(); ++number) {
        auto const end = std::min(text.find('\n', begin), text.size());
        try {
            if (auto const gradient = parseShimFileLine(std::string_view(text).substr(begin, end - begin))) {
                lines.push_back({number, *gradient});
            }
        } catch (std::invalid_argument const& error) {
            throw std::runtime_error(
                fmt::format("Shim file '{}', line {}: {}", aPath.string(), number, error.what()));
        }
        begin = end + 1;
    }
    return lines;
}

void writeShimFile(std::filesystem::path const& aPath, std::vector<Gradient> const& aGradients) {
    std::string text = "# Shim file: a gradient's name and its value in units.\n";
    for (auto const& [name, value] : aGradients) {
        text += fmt::format("{} {}\n", name, value);
    }
    writeWholeFile(aPath, text, "shim file");
}

} // namespace libfieldwarden::app
