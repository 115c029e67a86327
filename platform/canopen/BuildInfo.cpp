// SPDX-License-Identifier: Apache-2.0
// The reader of "build.info".
#include <velmor/kepla/canopen/BuildInfo.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace velmor::kepla::canopen {

namespace {

std::string_view trimmed(std::string_view aText) {
    constexpr std::string_view kBlanks = " \t\r";
    auto const first = aText.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return aText.substr(first, aText.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::uint32_t> number(std::string_view aText) {
    int base = 10;
    if (aText.starts_with("0x") || aText.starts_with("0X")) {
        aText.remove_prefix(2);
        base = 16;
    }
    std::uint32_t value = 0;
    auto const [end, error] = std::from_chars(aText.data(), aText.data() + aText.size(), value, base);
    if (error != std::errc() || end != aText.data() + aText.size()) {
        return std::nullopt;
    }
    return value;
}

[[noreturn]] void refuse(int aLine, std::string const& aWhy) {
    throw std::runtime_error("line " + std::to_string(aLine) + ": " + aWhy);
}

} // namespace

BuildInfo BuildInfo::parse(std::string const& aText) {
    BuildInfo result;
    bool hasBuildId = false;
    std::istringstream lines(aText);
    std::string raw;
    for (int line = 1; std::getline(lines, raw); ++line) {
        std::string_view const text = trimmed(raw);
        if (text.empty() || text.front() == '#') {
            continue;
        }
        auto const equals = text.find('=');
        if (equals == std::string_view::npos) {
            refuse(line, "expected key=value");
        }
        std::string_view const key = trimmed(text.substr(0, equals));
        std::string_view const value = trimmed(text.substr(equals + 1));
        if (key == "jenkins_build_id") {
            auto const id = number(value);
            if (!id) {
                refuse(line, "jenkins_build_id is no 32-bit number: '" + std::string(value) + "'");
            }
            result.jenkinsBuildId = *id;
            hasBuildId = true;
        } else if (key == "platform") {
            result.platform = value;
        }
    }
    if (!hasBuildId) {
        throw std::runtime_error("there is no jenkins_build_id");
    }
    return result;
}

std::optional<BuildInfo> BuildInfo::load(std::string const& aPath) {
    std::error_code ignored;
    if (!std::filesystem::exists(aPath, ignored)) {
        return std::nullopt;
    }
    std::ifstream file(aPath, std::ios::binary);
    std::ostringstream text;
    // An empty file is read all right: inserting nothing sets the failure bit of the receiving stream only.
    text << file.rdbuf();
    if (!file.is_open() || file.bad()) {
        throw std::runtime_error("Cannot read the firmware build information '" + aPath + "'");
    }
    try {
        return parse(text.str());
    } catch (std::runtime_error const& error) {
        throw std::runtime_error("Cannot read the firmware build information '" + aPath +
                                 "': " + error.what());
    }
}

} // namespace velmor::kepla::canopen
