// SPDX-License-Identifier: Apache-2.0
// The entries of a TOSK matrix file while it is read, and the readers of its tokens.
#pragma once

#include "shim/FixedSizeString.h"

namespace shim {

/// Base of all entries, and home of the token readers.
///
/// A reader works at a cursor in a zero-terminated text and moves it, never beyond the zero, which ends every
/// token. It counts lines: LF and FF begin a new one, CR does not. Separators are exactly TAB, LF, FF, CR and
/// blank. Each reader leaves the cursor behind the separators that follow its token.
///
/// Any thread may call; nothing blocks; nothing throws.
class FileEntry {
public:
    explicit FileEntry(int aKind)
        : kind(aKind) {}
    virtual ~FileEntry() = default;
    FileEntry(FileEntry const&) = default;
    FileEntry& operator=(FileEntry const&) = default;

    // The readers' names are those that the format's other tools have too.
    // NOLINTBEGIN(readability-identifier-naming)

    /// Skips separators.
    static void ReadSeparator(char const*& aText, int& aLine);

    /// Skips separators and comments ('%', '*' or ';' up to the line's end) and takes one character.
    /// @return The tag; 0 at the end of the text.
    static char ReadTag(char const*& aText, int& aLine);

    /// Reads decimal digits. No sign is accepted, an overflow wraps around unnoticed, and no separator is
    /// demanded behind the digits.
    /// @return Whether there was a digit.
    static bool ReadInteger(int& aTarget, char const*& aText, int& aLine);

    /// Reads a number in the notation of strtod(), always with a point, and skips all up to the next
    /// separator. A text that is no number gives 0.0.
    /// @return true.
    static bool ReadDouble(double& aTarget, char const*& aText, int& aLine);

    /// Reads one character.
    /// @return Whether there was one: neither a separator nor the end of the text.
    static bool ReadCharacter(char& aTarget, char const*& aText, int& aLine);

    /// Reads up to the next separator and keeps what fits.
    /// @return Whether there was a character: neither a separator nor the end of the text.
    static bool ReadString(FixedSizeString& aTarget, char const*& aText, int& aLine);

    // NOLINTEND(readability-identifier-naming)

    int valid = 0; ///< 1 when the entry has been read whole.
    int kind;      ///< Entry kind: a number of the format.
};

/// Base of the entries of TOSK files.
class ToskFileEntry : public FileEntry {
public:
    using FileEntry::FileEntry;
};

// NOLINTBEGIN(readability-identifier-naming): named like the format's own records

/// What the matrix is about: tag 'M'.
class ToskFileEntry_Mode : public ToskFileEntry {
public:
    ToskFileEntry_Mode()
        : ToskFileEntry(7) {}

    int number = 0;
    char character = 0x40;
    FixedSizeString name{9}; ///< 8 characters and the zero.
};

/// One element of the forward or, in another list, of the inverse matrix: tags 'F' and 'I'.
class ToskFileEntry_ForwardRelation : public ToskFileEntry {
public:
    ToskFileEntry_ForwardRelation()
        : ToskFileEntry(9) {}

    int first = 0x0FFFFFFF;  ///< Row, from 1.
    int second = 0x0FFFFFF0; ///< Column, from 1.
    double value = 0.0;
};

/// The sensitivity of a gradient: tag 'V'.
class ToskFileEntry_Weight : public ToskFileEntry {
public:
    ToskFileEntry_Weight()
        : ToskFileEntry(11) {}

    int number = 0; ///< Gradient code plus 1.
    double value = 0.0;
};

// NOLINTEND(readability-identifier-naming)

} // namespace shim
