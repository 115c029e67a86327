// SPDX-License-Identifier: Apache-2.0
// The numbers of the lock's configuration file, read the same whatever language the host process has set.
#pragma once

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <boost/any.hpp>
#include <boost/program_options/errors.hpp>
#include <boost/program_options/value_semantic.hpp>

namespace libfieldwarden::lock {

/// Reads a number: a point in it, no spaces, an optional sign.
/// @return Whether the whole text is a number; an infinity or NaN is none.
inline bool readNumber(std::string_view aText, double& aOut) {
    if (aText.size() > 1 && aText.front() == '+' && aText[1] != '-') {
        aText.remove_prefix(1);
    }
    auto const [end, error] = std::from_chars(aText.data(), aText.data() + aText.size(), aOut);
    return error == std::errc() && end == aText.data() + aText.size() && std::isfinite(aOut);
}

/// Reads a number of 32 bits. A negative one becomes its two's complement pattern, which is large, so that
/// the check of the range tells it with the number that stands in the file.
inline bool readNumber(std::string_view aText, unsigned int& aOut) {
    if (aText.size() > 1 && aText.front() == '+' && aText[1] != '-') {
        aText.remove_prefix(1);
    }
    std::int64_t number = 0;
    auto const [end, error] = std::from_chars(aText.data(), aText.data() + aText.size(), number);
    if (error != std::errc() || end != aText.data() + aText.size() || number < INT32_MIN ||
        number > UINT32_MAX) {
        return false;
    }
    aOut = static_cast<std::uint32_t>(number);
    return true;
}

/// The type of a key whose value is a number. Boost's own conversion goes by the process's C++ locale, in
/// which "1.5" may be no number.
template <typename T>
class LockConfigurationValue : public boost::program_options::typed_value<T> {
public:
    LockConfigurationValue()
        : boost::program_options::typed_value<T>(nullptr) {}

    void xparse(boost::any& aStore, std::vector<std::string> const& aTokens) const override {
        boost::program_options::validators::check_first_occurrence(aStore);
        std::string const& text = boost::program_options::validators::get_single_string(aTokens);
        T number{};
        if (!readNumber(text, number)) {
            throw boost::program_options::invalid_option_value(text);
        }
        aStore = number;
    }
};

} // namespace libfieldwarden::lock
