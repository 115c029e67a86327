// SPDX-License-Identifier: Apache-2.0
// Reads shim files.
#include "shim/ShimFile.h"

#include <cstddef>
#include <fstream>
#include <limits>
#include <stdexcept>

#include <fmt/printf.h>

namespace {

[[noreturn]] void failAtLine(unsigned int aLineNumber, std::string const& aWords) {
    throw std::runtime_error(fmt::sprintf("Invalid shim file. Error at line %u%s", aLineNumber, aWords));
}

[[noreturn]] void failToOpen(std::string const& aPath) {
    throw std::invalid_argument("Failed to open shim file '" + aPath + "'");
}

/// std::stol for 32 bits; text behind the digits is ignored, as stol ignores it.
int toInt32(std::string const& aText) {
    long const value = std::stol(aText);
    if (value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max()) {
        throw std::out_of_range("stol"); // the word that stol itself has where long is that short
    }
    return static_cast<int>(value);
}

} // namespace

ShimFile::ShimFile(std::string const& aPath)
    : Logger("ShimBoardSimulator", "Shim") // this name is intended for this class: log readers know it
    , mGradients(parse(aPath)) {}

std::shared_ptr<ShimGradientsTOSK> ShimFile::gradients() {
    return mGradients;
}

std::shared_ptr<ShimGradientsTOSK> ShimFile::parse(std::string const& aPath) {
    std::ifstream file(aPath, std::ios::binary);
    if (!file) {
        failToOpen(aPath);
    }
    auto gradients = std::make_shared<ShimGradientsTOSK>();
    std::string line;
    for (unsigned int lineNumber = 1; std::getline(file, line); ++lineNumber) {
        std::string name;
        int value = 0;
        if (!parseLine(line, lineNumber, name, value)) {
            continue;
        }
        try {
            gradients->set(name, value);
        } catch (std::exception const& error) {
            failAtLine(lineNumber, std::string(": failed to set gradient with ") + error.what());
        }
    }
    if (file.bad()) { // a folder opens like a file and fails only here
        failToOpen(aPath);
    }
    return gradients;
}

bool ShimFile::parseLine(std::string const& aLine,
                         unsigned int aLineNumber,
                         std::string& aName,
                         int& aValue) {
    if (aLine.empty() || aLine.front() == '#') {
        return false;
    }
    std::size_t const nameEnd = aLine.find(' ');
    if (nameEnd == std::string::npos) {
        failAtLine(aLineNumber, ": no space found after gradient name");
    }
    aName = aLine.substr(0, nameEnd);
    std::size_t const valueBegin = aLine.find_first_not_of(' ', nameEnd);
    if (valueBegin == std::string::npos) {
        failAtLine(aLineNumber, ": no value after gradient name");
    }
    std::size_t const valueEnd = aLine.find('\r', valueBegin); // npos: the text runs to the line's end
    try {
        aValue = toInt32(
            aLine.substr(valueBegin, valueEnd == std::string::npos ? valueEnd : valueEnd - valueBegin));
    } catch (std::exception const& error) {
        failAtLine(aLineNumber,
                   std::string(": gradient value could not be parse to int. Error was: ") + error.what());
    }
    return true;
}
