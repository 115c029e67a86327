// SPDX-License-Identifier: Apache-2.0
// Reading and writing the documents of the boards.
#include "simulator/boards/StateDocument.h"

#include <velmor/kepla/utils/WholeFile.h>

#include <fstream>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace libfieldwarden::sim {

using nlohmann::json;

namespace {

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

std::uint32_t word(json const& aDocument, char const* aKey) {
    return static_cast<std::uint32_t>(
        wholeNumber(aDocument.at(aKey), aKey, 0, std::numeric_limits<std::uint32_t>::max()));
}

} // namespace

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

json documentOf(BoardState const& aState, int aSchema) {
    return {{"schema", aSchema},
            {"serial", aState.serial},
            {"buildId", aState.buildId},
            {"version", utf8Of(aState.version)},
            {"imageLength", aState.imageLength},
            {"imageCrc", aState.imageCrc},
            {"starts", aState.starts},
            {"flashWrites", aState.flashWrites},
            {"record", utf8Of(aState.record)}};
}

void readBoardState(json const& aDocument, int aSchema, BoardState& aState) {
    wholeNumber(aDocument.at("schema"), "schema", aSchema, aSchema);
    aState.serial = word(aDocument, "serial");
    aState.buildId = word(aDocument, "buildId");
    aState.version = bytesOf(aDocument.at("version").get<std::string>());
    aState.imageLength = word(aDocument, "imageLength");
    aState.imageCrc = word(aDocument, "imageCrc");
    aState.starts = word(aDocument, "starts");
    aState.flashWrites = word(aDocument, "flashWrites");
    aState.record = bytesOf(aDocument.at("record").get<std::string>());
    if (aState.record.size() > BoardState::kLargestRecord) {
        throw std::runtime_error("the record is too long");
    }
}

bool loadDocument(std::filesystem::path const& aPath, std::function<void(json const&)> const& aTake) {
    std::error_code ignored;
    if (!std::filesystem::exists(aPath, ignored)) {
        return false;
    }
    try {
        aTake(json::parse(velmor::kepla::utils::readWholeFile(aPath)));
    } catch (std::exception const& error) {
        throw std::runtime_error("the state '" + aPath.string() + "' is damaged: " + error.what());
    }
    return true;
}

void saveDocument(json const& aDocument, std::filesystem::path const& aPath) {
    std::filesystem::path temporary = aPath;
    temporary += ".new";
    std::error_code error;
    std::filesystem::create_directories(aPath.parent_path(), error);
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    file << aDocument.dump(2) << '\n';
    file.close();
    if (file) {
        std::filesystem::rename(temporary, aPath, error);
    }
    if (!file || error) {
        throw std::runtime_error("the state '" + aPath.string() + "' cannot be written");
    }
}

} // namespace libfieldwarden::sim
