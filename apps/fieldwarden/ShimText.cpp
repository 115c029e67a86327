// SPDX-License-Identifier: Apache-2.0
// Parsing and writing of gradients and currents.
#include "apps/fieldwarden/ShimText.h"

#include "apps/fieldwarden/WrongUsage.h"

#include <charconv>
#include <cmath>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

/// A number that fills a text from end to end; a sign may stand before it.
template <typename Number>
std::optional<Number> wholeNumber(std::string_view aText) {
    if (aText.starts_with('+')) {
        aText.remove_prefix(1);
    }
    Number number{};
    auto const [stop, error] = std::from_chars(aText.data(), aText.data() + aText.size(), number);
    if (error != std::errc{} || stop != aText.data() + aText.size()) {
        return std::nullopt;
    }
    return number;
}

struct CurrentUnit {
    std::string_view suffix;
    double ampere;
};

/// The longer suffixes first, since each ends in the shortest.
constexpr CurrentUnit kCurrentUnits[] = {{"mA", 1e-3}, {"uA", 1e-6}, {"A", 1.0}, {"", 1.0}};

/// One line of a shim file; nothing for a line that says nothing.
std::optional<Gradient> parseLine(std::string_view aLine) {
    if (aLine.ends_with('\r')) {
        aLine.remove_suffix(1);
    }
    if (aLine.empty() || aLine.front() == '#') {
        return std::nullopt;
    }
    auto const blank = aLine.find(' ');
    auto const value = aLine.find_first_not_of(' ', blank);
    if (blank == 0 || blank == std::string_view::npos || value == std::string_view::npos) {
        throw std::invalid_argument("a gradient's name, blanks and a value are wanted");
    }
    auto const number = wholeNumber<int>(aLine.substr(value));
    if (!number) {
        throw std::invalid_argument(
            fmt::format("'{}' is not a whole number of 32 bits", aLine.substr(value)));
    }
    return Gradient{aLine.substr(0, blank), *number};
}

} // namespace

Gradient parseAssignment(std::string const& aText) {
    auto const equals = aText.find('=');
    auto const value =
        equals == std::string::npos ? std::nullopt : wholeNumber<int>(aText.substr(equals + 1));
    if (equals == 0 || !value) {
        throw WrongUsage("'" + aText + "' is not of the form NAME=VALUE with a whole number, as in Z=1200");
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

std::map<std::string, int> readShimFile(std::filesystem::path const& aPath) {
    std::ifstream file(aPath);
    if (!file) {
        throw std::runtime_error("Cannot open the shim file '" + aPath.string() + "'");
    }
    std::map<std::string, int> gradients;
    std::string line;
    for (unsigned int number = 1; std::getline(file, line); ++number) {
        try {
            if (auto const gradient = parseLine(line)) {
                gradients[gradient->first] = gradient->second;
            }
        } catch (std::invalid_argument const& error) {
            throw std::runtime_error(
                fmt::format("Shim file '{}', line {}: {}", aPath.string(), number, error.what()));
        }
    }
    return gradients;
}

void writeShimFile(std::filesystem::path const& aPath, std::vector<Gradient> const& aGradients) {
    auto const temporary = std::filesystem::path(aPath).concat(".new");
    std::ofstream file(temporary);
    file << "# Shim file: a gradient's name and its value in units.\n";
    for (auto const& [name, value] : aGradients) {
        file << name << ' ' << value << '\n';
    }
    file.close();
    if (!file) {
        throw std::runtime_error("Cannot write the shim file '" + aPath.string() + "'");
    }
    std::filesystem::rename(temporary, aPath);
}

} // namespace libfieldwarden::app
