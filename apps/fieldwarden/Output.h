// SPDX-License-Identifier: Apache-2.0
// What a subcommand that is asked once puts on standard output: text, bare values, or one JSON document.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace libfieldwarden::app {

/// The form in which an answer is wanted.
enum class Form { Text, Quiet, Json };

/// Writes text to standard output.
/// @throws std::runtime_error  when it cannot be written, as to a full disk; a reader that has gone is no
/// error.
void print(std::string const& aText);

/// Writes a JSON document of schema 1, with the schema's number as its first member.
void printJson(nlohmann::ordered_json const& aFields);

/// Writes a message to standard error, with the program's name before it.
void complain(std::string const& aText);

} // namespace libfieldwarden::app
