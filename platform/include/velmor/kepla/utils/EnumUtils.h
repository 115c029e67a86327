// SPDX-License-Identifier: Apache-2.0
// Texts of enumeration values, both ways, from one table beside the enumeration.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

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
        if constexpr (kRowsAreValues) {
            if (auto const row = static_cast<std::size_t>(aValue); row < texts.size()) [[likely]] {
                return texts[row].text;
            }
        } else {
            for (EnumText<T> const& entry : texts) {
                if (entry.value == aValue) {
                    return entry.text;
                }
            }
        }
        refuse();
    }

    /// @return The value of a text; upper and lower case differ.
    /// @throws std::runtime_error "Requested enum value not found."  for a text of no value.
    static constexpr T parse(std::string_view aText) {
        for (EnumText<T> const& entry : EnumTexts<T>::kTexts) {
            if (entry.text == aText) {
                return entry.value;
            }
        }
        refuse();
    }

private:
    /// Most tables stand in the order of their values from 0 on: then a value is its row.
    static constexpr bool kRowsAreValues = [] {
        std::size_t row = 0;
        for (EnumText<T> const& entry : EnumTexts<T>::kTexts) {
            if (static_cast<std::size_t>(entry.value) != row++) {
                return false;
            }
        }
        return true;
    }();

    [[noreturn, gnu::cold]] static void refuse() {
        throw std::runtime_error("Requested enum value not found.");
    }
};

} // namespace velmor::kepla::utils
