// SPDX-License-Identifier: Apache-2.0
// What a subcommand that is asked once puts on standard output: text, bare values, or one JSON document.
#pragma once

#include <cmath>
#include <string>

#include <nlohmann/json.hpp>

namespace libfieldwarden::app {

/// The form in which an answer is wanted.
enum class Form { Text, Quiet, Json };

/// Writes text to standard output; it may reach the reader as late as flushOutput().
/// @return Whether somebody still reads: false once a pipe's reader has gone.
/// @throws std::system_error  when it cannot be written, as to a full disk.
bool print(std::string const& aText);

/// Writes a JSON document of schema 1, with the schema's number as its first member.
/// @throws std::system_error  as print().
void printJson(nlohmann::ordered_json const& aFields);

/// @return A number as JSON, which knows no infinity and no NaN: null for these.
inline nlohmann::ordered_json jsonNumber(double aNumber) {
    return std::isfinite(aNumber) ? nlohmann::ordered_json(aNumber) : nlohmann::ordered_json(nullptr);
}

/// Brings to the reader what print() still holds.
/// @throws std::system_error  as print().
void flushOutput();

/// Writes a message to standard error, with the program's name before it. Control characters, as of a name
/// that the user gave or that stands in a file, are shown as "\x1b" and the like.
void complain(std::string const& aText);

} // namespace libfieldwarden::app
