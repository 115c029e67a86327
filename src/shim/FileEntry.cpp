// SPDX-License-Identifier: Apache-2.0
// The token readers of TOSK matrix files.
#include "shim/FileEntry.h"

#include <cstddef>
#include <limits>
#include <string_view>

#include <clocale>
#include <cstdlib>

#include <locale.h>

namespace shim {

namespace {

constexpr char kEndOfText = '\0';

bool isLineEnd(char aCharacter) {
    return aCharacter == '\n' || aCharacter == '\f';
}

bool isSeparator(char aCharacter) {
    return aCharacter == ' ' || aCharacter == '\t' || aCharacter == '\r' || isLineEnd(aCharacter);
}

bool isDigit(char aCharacter) {
    return aCharacter >= '0' && aCharacter <= '9';
}

bool beginsComment(char aCharacter) {
    return aCharacter == '%' || aCharacter == '*' || aCharacter == ';';
}

/// The end of the token that begins at a place: a separator or the end of the text.
char const* tokenEnd(char const* aText) {
    while (*aText != kEndOfText && !isSeparator(*aText)) {
        ++aText;
    }
    return aText;
}

/// Numbers in files have a point, whatever language the host has set for the process.
double toDouble(char const* aText) {
    static locale_t const kPlain =
        newlocale(LC_ALL_MASK, "C", nullptr); // glibc's own object, nothing to free
    return strtod_l(aText, nullptr, kPlain);
}

} // namespace

void FileEntry::ReadSeparator(char const*& aText, int& aLine) {
    for (; isSeparator(*aText); ++aText) {
        if (isLineEnd(*aText) && aLine < std::numeric_limits<int>::max()) {
            ++aLine;
        }
    }
}

char FileEntry::ReadTag(char const*& aText, int& aLine) {
    ReadSeparator(aText, aLine);
    while (beginsComment(*aText)) {
        while (*aText != kEndOfText && !isLineEnd(*aText)) {
            ++aText;
        }
        ReadSeparator(aText, aLine);
    }
    char const tag = *aText;
    if (tag != kEndOfText) {
        ++aText;
        ReadSeparator(aText, aLine);
    }
    return tag;
}

bool FileEntry::ReadInteger(int& aTarget, char const*& aText, int& aLine) {
    if (!isDigit(*aText)) {
        return false;
    }
    unsigned int number = 0; // unsigned, so that too many digits wrap around
    for (; isDigit(*aText); ++aText) {
        number = number * 10U + static_cast<unsigned int>(*aText - '0');
    }
    aTarget = static_cast<int>(number);
    ReadSeparator(aText, aLine);
    return true;
}

bool FileEntry::ReadDouble(double& aTarget, char const*& aText, int& aLine) {
    aTarget = toDouble(aText);
    aText = tokenEnd(aText); // from the token's begin: what strtod did not take is skipped too
    ReadSeparator(aText, aLine);
    return true;
}

bool FileEntry::ReadCharacter(char& aTarget, char const*& aText, int& aLine) {
    if (*aText == kEndOfText || isSeparator(*aText)) {
        return false;
    }
    aTarget = *aText;
    ++aText;
    ReadSeparator(aText, aLine);
    return true;
}

bool FileEntry::ReadString(FixedSizeString& aTarget, char const*& aText, int& aLine) {
    char const* const end = tokenEnd(aText);
    if (end == aText) {
        return false;
    }
    aTarget.assign(std::string_view(aText, static_cast<std::size_t>(end - aText)));
    aText = end;
    ReadSeparator(aText, aLine);
    return true;
}

} // namespace shim
