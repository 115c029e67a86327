// SPDX-License-Identifier: Apache-2.0
// The lines of a dictionary dump and the file that they go to.
#include "dump/DictionaryDump.h"

#include <cerrno>
#include <cstddef>
#include <exception>
#include <fstream>
#include <string>
#include <system_error>

#include <fmt/format.h>

using velmor::kepla::canopen::CanOpenNodeClientIfc;

namespace libfieldwarden::dump {

namespace {

std::string readValue(CanOpenNodeClientIfc& aClient, ObjectRange const& aRange, std::uint8_t aSubindex) {
    switch (aRange.type) {
        case ObjectType::U8:
            return std::to_string(aClient.readUInt8(aRange.index, aSubindex));
        case ObjectType::U16:
            return std::to_string(aClient.readUInt16(aRange.index, aSubindex));
        case ObjectType::U32:
            return std::to_string(aClient.readUInt32(aRange.index, aSubindex));
        case ObjectType::I32:
            return std::to_string(aClient.readInt32(aRange.index, aSubindex));
        case ObjectType::STR:
            break;
    }
    return aClient.readString(aRange.index, aSubindex);
}

/// The value, or the words of what went wrong.
std::string outcome(CanOpenNodeClientIfc& aClient, ObjectRange const& aRange, std::uint8_t aSubindex) {
    try {
        return readValue(aClient, aRange, aSubindex);
    } catch (std::exception const& error) {
        return std::string("reading the value failed with ") + error.what();
    } catch (...) {
        return "reading the value failed with unknown exception";
    }
}

void writeRange(CanOpenNodeClientIfc& aClient, std::ostream& aStream, ObjectRange const& aRange) {
    for (unsigned subindex = aRange.first; subindex <= aRange.last; ++subindex) {
        // Before the read, so that an object whose read never ends is named.
        aStream << fmt::format("0x{:04X}\t0x{:02X}\t", aRange.index, subindex);
        aStream << outcome(aClient, aRange, static_cast<std::uint8_t>(subindex)) << '\n';
    }
}

} // namespace

std::ostream& writeDictionary(std::shared_ptr<CanOpenNodeClientIfc> const& aClient,
                              std::ostream& aStream,
                              std::span<ObjectRange const> aObjects) {
    for (std::size_t position = 0; position < aObjects.size(); ++position) {
        writeRange(*aClient, aStream, aObjects[position]);
        bool const groupGoesOn =
            position + 1 < aObjects.size() && aObjects[position + 1].index == aObjects[position].index;
        if (!groupGoesOn) {
            aStream << '\n';
        }
    }
    return aStream;
}

void writeFile(std::filesystem::path const& aPath, std::function<void(std::ostream&)> const& aWrite) {
    errno = 0;
    std::ofstream file(aPath, std::ios::binary);
    if (!file) {
        throw std::system_error(errno, std::generic_category(), "cannot open " + aPath.string());
    }
    file.exceptions(std::ios::failbit | std::ios::badbit);
    aWrite(file);
    file.close();
}

} // namespace libfieldwarden::dump
