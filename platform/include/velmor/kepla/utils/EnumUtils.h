// SPDX-License-Identifier: Apache-2.0
// Texts of enumeration values, both ways, from one table beside the enumeration.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

namespace velmor::kepla::utils {

/// One row of an enumeration's table.
template <typename T>
struct EnumText {
    T value;
    std::string_view text;
};

/// The table of an enumeration: specialised beside it, with a constexpr array of EnumText as kTexts.
template <typename T>
struct EnumTexts;

/// Map between the values of an enumeration and their texts. May be called from any thread.
template <typename T>
class EnumUtils {
public:
    /// @return How many values the enumeration has.
    static constexpr std::size_t count() noexcept { return EnumTexts<T>::kTexts.size(); }

    /// @return The text of a value.
    /// @throws std::runtime_error "Requested enum value not found."  for a value without a text.
    static constexpr std::string_view to_string(T aValue) {
        auto const& texts = EnumTexts<T>::kTexts;
        // Most tables stand in the order of their values from 0 on: then the value is the row.
        auto const row = static_cast<std::size_t>(static_cast<std::underlying_type_t<T>>(aValue));
        if (row < texts.size() && texts[row].value == aValue) {
            return texts[row].text;
        }
        for (EnumText<T> const& entry : texts) {
            if (entry.value == aValue) {
                return entry.text;
            }
        }
        throw std::runtime_error("Requested enum value not found.");
    }

    /// @return The value of a text; upper and lower case differ.
    /// @throws std::runtime_error "Requested enum value not found."  for a text of no value.
    static constexpr T parse(std::string_view aText) {
        for (EnumText<T> const& entry : EnumTexts<T>::kTexts) {
            if (entry.text == aText) {
                return entry.value;
            }
        }
        throw std::runtime_error("Requested enum value not found.");
    }
};

} // namespace velmor::kepla::utils
