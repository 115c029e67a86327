// SPDX-License-Identifier: Apache-2.0
// Reading and writing the state of a simulated shim board.
#include "simulator/boards/ShimBoardState.h"

#include <velmor/kepla/utils/WholeFile.h>

#include <fstream>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <nlohmann/json.hpp>

namespace libfieldwarden::sim {

using nlohmann::json;

namespace {

constexpr int kSchema = 1;

std::string utf8Of(std::string const& aBytes) {
    std::string result;
    for (char const each : aBytes) {
        auto const byte = static_cast<unsigned char>(each);
        if (byte < 0x80) {
            result += each;
        } else {
            result += static_cast<char>(0xC0U | (byte >> 6U));
            result += static_cast<char>(0x80U | (byte & 0x3FU));
        }
    }
    return result;
}

/// @throws std::runtime_error  when the text holds a character that is no byte.
std::string bytesOf(std::string const& aUtf8) {
    std::string result;
    for (std::size_t place = 0; place < aUtf8.size(); ++place) {
        auto const byte = static_cast<unsigned char>(aUtf8[place]);
        if (byte < 0x80) {
            result += aUtf8[place];
        } else if ((byte == 0xC2 || byte == 0xC3) && place + 1 < aUtf8.size()) {
            auto const second = static_cast<unsigned char>(aUtf8[++place]);
            result += static_cast<char>(((byte & 0x03U) << 6U) | (second & 0x3FU));
        } else {
            throw std::runtime_error("the record holds a character that is no byte");
        }
    }
    return result;
}

/// @throws std::runtime_error  when the value is no whole number from the lowest to the highest.
std::int64_t wholeNumber(json const& aValue,
                         std::string const& aName,
                         std::int64_t aLowest,
                         std::int64_t aHighest) {
    bool const fits = aValue.is_number_unsigned() ? std::in_range<std::int64_t>(aValue.get<std::uint64_t>())
                                                  : aValue.is_number_integer();
    std::int64_t const number = fits ? aValue.get<std::int64_t>() : 0;
    if (!fits || number < aLowest || number > aHighest) {
        throw std::runtime_error("'" + aName + "' holds what it cannot hold");
    }
    return number;
}

std::uint32_t word(json const& aDocument, char const* aKey) {
    return static_cast<std::uint32_t>(
        wholeNumber(aDocument.at(aKey), aKey, 0, std::numeric_limits<std::uint32_t>::max()));
}

ShimBoardState stateOf(json const& aDocument) {
    wholeNumber(aDocument.at("schema"), "schema", kSchema, kSchema);
    ShimBoardState state;
    state.serial = word(aDocument, "serial");
    state.buildId = word(aDocument, "buildId");
    state.version = bytesOf(aDocument.at("version").get<std::string>());
    state.imageLength = word(aDocument, "imageLength");
    state.imageCrc = word(aDocument, "imageCrc");
    state.starts = word(aDocument, "starts");
    state.flashWrites = word(aDocument, "flashWrites");
    json const& currents = aDocument.at("currentsUA");
    if (!currents.is_array() || currents.size() != state.currentsUA.size()) {
        throw std::runtime_error("'currentsUA' are not 17 numbers");
    }
    for (std::size_t source = 0; source < state.currentsUA.size(); ++source) {
        constexpr std::int64_t kLimit = ShimBoardState::kLargestCurrentUA;
        state.currentsUA[source] =
            static_cast<std::int32_t>(wholeNumber(currents[source], "currentsUA", -kLimit, kLimit));
    }
    state.record = bytesOf(aDocument.at("record").get<std::string>());
    if (state.record.size() > ShimBoardState::kLargestRecord) {
        throw std::runtime_error("the record is too long");
    }
    return state;
}

} // namespace

std::optional<ShimBoardState> ShimBoardState::load(std::filesystem::path const& aPath) {
    std::error_code ignored;
    if (!std::filesystem::exists(aPath, ignored)) {
        return std::nullopt;
    }
    try {
        return stateOf(json::parse(velmor::kepla::utils::readWholeFile(aPath)));
    } catch (std::exception const& error) {
        throw std::runtime_error("the state '" + aPath.string() + "' is damaged: " + error.what());
    }
}

void ShimBoardState::save(std::filesystem::path const& aPath) const {
    json const document{{"schema", kSchema},          {"serial", serial},
                        {"buildId", buildId},         {"version", utf8Of(version)},
                        {"imageLength", imageLength}, {"imageCrc", imageCrc},
                        {"starts", starts},           {"flashWrites", flashWrites},
                        {"currentsUA", currentsUA},   {"record", utf8Of(record)}};
    std::filesystem::path temporary = aPath;
    temporary += ".new";
    std::error_code error;
    std::filesystem::create_directories(aPath.parent_path(), error);
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    file << document.dump(2) << '\n';
    file.close();
    if (file) {
        std::filesystem::rename(temporary, aPath, error);
    }
    if (!file || error) {
        throw std::runtime_error("the state '" + aPath.string() + "' cannot be written");
    }
}

} // namespace libfieldwarden::sim
