// SPDX-License-Identifier: Apache-2.0
// The error of a user who asked for something that cannot be.
#pragma once

#include <stdexcept>

namespace libfieldwarden::app {

/// Ends the command with exit code 2 and the words on standard error.
class WrongUsage : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace libfieldwarden::app
