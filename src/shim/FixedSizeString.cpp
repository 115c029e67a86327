// SPDX-License-Identifier: Apache-2.0
// The text that is cut to its buffer.
#include "shim/FixedSizeString.h"

#include <algorithm>
#include <stdexcept>

FixedSizeString::FixedSizeString(std::size_t aCapacity)
    : mBuffer(aCapacity, '\0') {
    if (aCapacity == 0) {
        throw std::invalid_argument("FixedSizeString: the capacity must be 1 or more");
    }
}

void FixedSizeString::assign(std::string_view aText) {
    std::string_view const kept = aText.substr(0, mBuffer.size() - 1);
    std::fill(std::copy(kept.begin(), kept.end(), mBuffer.begin()), mBuffer.end(), '\0');
}
