// SPDX-License-Identifier: Apache-2.0
// A text in a buffer of fixed size, for names in files that may be of any length.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

/// A zero-terminated text whose buffer never grows: what does not fit is cut. Not locked; nothing blocks.
class FixedSizeString {
public:
    /// @param aCapacity  Size of the buffer in bytes, the terminating zero included; 1 or more.
    /// @throws std::invalid_argument  when the capacity is 0.
    explicit FixedSizeString(std::size_t aCapacity);
    virtual ~FixedSizeString() = default;
    FixedSizeString(FixedSizeString const&) = default;
    FixedSizeString& operator=(FixedSizeString const&) = default;
    FixedSizeString(FixedSizeString&&) = default;
    FixedSizeString& operator=(FixedSizeString&&) = default;

    /// Keeps at most capacity() - 1 characters of a text.
    void assign(std::string_view aText);

    /// @return Size of the buffer in bytes.
    std::size_t capacity() const { return mBuffer.size(); }

    /// @return The text, zero-terminated; valid as long as this object.
    char const* text() const { return mBuffer.data(); }

private:
    std::vector<char> mBuffer;
};
