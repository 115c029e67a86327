// SPDX-License-Identifier: Apache-2.0
// Two's complement at the widths of the instrument's registers.
#pragma once

namespace velmor::kepla::utils {

/// Sign handling of register words. All operations are constant expressions and may run in any thread.
class Bits {
public:
    /// @param aWord  A word whose low 24 bits hold a two's complement number; the others are ignored.
    /// @return That number, -8388608 to 8388607.
    static constexpr int signed24bto32b(unsigned int aWord) noexcept {
        return static_cast<int>(aWord << 8U) >> 8;
    }

    /// @param aWord  A word whose low 48 bits hold a two's complement number; the others are ignored.
    /// @return That number, -2^47 to 2^47 - 1.
    static constexpr long long signed48bto64b(unsigned long long aWord) noexcept {
        return static_cast<long long>(aWord << 16U) >> 16;
    }

    /// @param aValue  Any number; what does not fit the width is cut off.
    /// @param aBits   Width of the pattern, 1 to 32; 32 and more keep all bits, 0 none.
    /// @return The low aBits of the two's complement pattern of the number.
    static constexpr unsigned int two_complement(int aValue, unsigned int aBits) noexcept {
        unsigned int const mask = aBits >= 32U ? ~0U : (1U << aBits) - 1U;
        return static_cast<unsigned int>(aValue) & mask;
    }
};

} // namespace velmor::kepla::utils
