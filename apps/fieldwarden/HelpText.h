// SPDX-License-Identifier: Apache-2.0
// How `--help` looks: 80 columns, our own usage lines, and nothing of the parser's own remarks.
#pragma once

#include <cstddef>
#include <map>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

namespace libfieldwarden::app {

/// The parser's formatter for all subcommands.
class HelpText : public CLI::Formatter {
public:
    /// What follows the program's name in a usage line.
    using Usage = std::map<CLI::App const*, std::string>;

    /// @param aUsage  Of every subcommand; outlives this object.
    explicit HelpText(Usage const& aUsage)
        : mUsage(aUsage) {
        column_width(kNameColumn);
    }

    std::string make_usage(CLI::App const* aCommand, std::string /*aName*/) const override {
        return "\n" + wrapped("Usage: fieldwarden " + mUsage.at(aCommand), kColumns) + "\n";
    }
    std::string make_option_name(CLI::Option const* aOption, bool aIsPositional) const override {
        return aIsPositional ? aOption->get_type_name() : Formatter::make_option_name(aOption, false);
    }
    std::string make_option_opts(CLI::Option const* aOption) const override {
        bool const bare = aOption->get_positional() || aOption->get_type_size() == 0;
        return bare ? "" : " " + aOption->get_type_name();
    }
    std::string make_option_desc(CLI::Option const* aOption) const override {
        return wrapped(aOption->get_description(), kColumns - kNameColumn);
    }
    std::string make_footer(CLI::App const* aCommand) const override {
        std::string const footer = aCommand->get_footer();
        return footer.empty() ? "" : wrapped(footer, kColumns) + "\n";
    }

private:
    static constexpr std::size_t kColumns = 80;
    static constexpr std::size_t kNameColumn = 24;

    static std::string wrapped(std::string const& aText, std::size_t aWidth) {
        std::istringstream words(aText);
        std::string lines;
        std::size_t column = 0;
        for (std::string word, more; words >> word; column += word.size()) {
            while (word.front() == '[' && word.back() != ']' && words >> more) {
                word += " " + more; // An option and its value stay together.
            }
            bool const fits = column + 1 + word.size() <= aWidth;
            lines += column == 0 ? "" : fits ? " " : "\n";
            column = fits && column != 0 ? column + 1 : 0;
            lines += word;
        }
        return lines;
    }

    Usage const& mUsage;
};

} // namespace libfieldwarden::app
