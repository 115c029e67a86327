// SPDX-License-Identifier: Apache-2.0
// How far a long step is: a bar that is drawn anew on a terminal, otherwise a line a step.
#pragma once

#include <string>

namespace libfieldwarden::app {

/// Shows progress on standard error. One thread.
class ProgressBar {
public:
    /// Redraws only where standard error is a terminal and NO_COLOR is not set.
    ProgressBar();
    ~ProgressBar();
    ProgressBar(ProgressBar const&) = delete;
    ProgressBar& operator=(ProgressBar const&) = delete;

    /// @param aStep   In words.
    /// @param aDone   Parts that are behind.
    /// @param aTotal  Parts of the whole; 0 when nobody knows.
    void show(std::string const& aStep, unsigned aDone, unsigned aTotal);

    /// Draws one line of text in place of the bar, as far as it fits; only where the bar is redrawn.
    void showLine(std::string const& aText);

    /// Takes the bar off, so that something else can be printed.
    void clear();

    bool redraws() const noexcept { return mRedraws; }

private:
    bool const mRedraws;
    bool mDrawn = false;
    std::string mStep;
};

/// @param aWidth  Between the brackets.
/// @return Such as "[#####---------------]".
std::string barText(unsigned aDone, unsigned aTotal, unsigned aWidth = 20);

} // namespace libfieldwarden::app
