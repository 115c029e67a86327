// SPDX-License-Identifier: Apache-2.0
// Holds what is thrown to its type and its words.
#pragma once

#include <exception>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// Asserts the type to the letter and the words of what an expression throws.
template <typename Exception, typename Action>
void expectThrow(Action const& aAction, std::string const& aWords) {
    try {
        aAction();
        ADD_FAILURE() << "nothing was thrown";
    } catch (std::exception const& error) {
        EXPECT_EQ(typeid(error), typeid(Exception)) << typeid(error).name();
        EXPECT_EQ(std::string(error.what()), aWords);
    }
}

} // namespace libfieldwarden::test
