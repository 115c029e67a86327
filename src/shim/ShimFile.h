// SPDX-License-Identifier: Apache-2.0
// The reader of shim files: plain text, a gradient and its value in units on each line.
#pragma once

#include "shim/ShimGradientsTOSK.h"

#include <velmor/kepla/log/Logger.h>

#include <memory>
#include <string>

/// The content of one shim file.
///
/// A line is empty, a comment (its very first character is '#'), or a name, one or more blanks and an
/// integer, at its end perhaps a CR. Lines are never trimmed: what stands before the first blank is the name,
/// even nothing at all. Gradients that the file does not name are 0; of a name given twice the last line
/// holds.
///
/// The static operations may be called from any thread. Reading blocks as long as the file system needs.
class ShimFile : private virtual velmor::kepla::log::Logger {
public:
    /// Reads the whole file.
    /// @throws std::invalid_argument  when the file cannot be opened or read.
    /// @throws std::runtime_error     at the first bad line; the words name its number.
    explicit ShimFile(std::string const& aPath);

    /// @return What was read, in units; shared with this object.
    std::shared_ptr<ShimGradientsTOSK> gradients();

    /// Reads a file. Throws as the constructor does; nothing is handed out then.
    static std::shared_ptr<ShimGradientsTOSK> parse(std::string const& aPath);

    /// Reads one line, without its LF.
    /// @param aLineNumber  From 1, for the words of a failure.
    /// @param aName        Takes the name as soon as it is found, so also when the value then fails.
    /// @param aValue       Takes the value in units.
    /// @return Whether the line carries a gradient.
    /// @throws std::runtime_error  when it is neither empty nor a comment nor a gradient line.
    static bool parseLine(std::string const& aLine,
                          unsigned int aLineNumber,
                          std::string& aName,
                          int& aValue);

private:
    std::shared_ptr<ShimGradientsTOSK> mGradients;
};
