// SPDX-License-Identifier: Apache-2.0
// The bar of long steps.
#include "apps/fieldwarden/ProgressBar.h"

#include "apps/fieldwarden/Output.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>
#include <unistd.h>

namespace libfieldwarden::app {

namespace {

constexpr unsigned kWidth = 20;
constexpr char const* kBeginOfClearedLine = "\r\033[K";

bool terminalForRedrawing() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment.
    char const* const noColour = std::getenv("NO_COLOR");
    return ::isatty(STDERR_FILENO) == 1 && (noColour == nullptr || *noColour == '\0');
}

} // namespace

std::string barText(unsigned aDone, unsigned aTotal) {
    unsigned const filled = aTotal == 0 ? 0 : std::min(kWidth, kWidth * std::min(aDone, aTotal) / aTotal);
    return "[" + std::string(filled, '#') + std::string(kWidth - filled, '-') + "]";
}

ProgressBar::ProgressBar()
    : mRedraws(terminalForRedrawing()) {}

ProgressBar::~ProgressBar() {
    clear();
}

void ProgressBar::show(std::string const& aStep, unsigned aDone, unsigned aTotal) {
    if (mRedraws) {
        fmt::print(stderr, "{}{} {} {}/{}", kBeginOfClearedLine, barText(aDone, aTotal), aStep, aDone,
                   aTotal);
        std::fflush(stderr);
        mDrawn = true;
    } else if (aStep != mStep) {
        complain(aStep);
    }
    mStep = aStep;
}

void ProgressBar::clear() {
    if (mDrawn) {
        fmt::print(stderr, "{}", kBeginOfClearedLine);
        std::fflush(stderr);
        mDrawn = false;
    }
}

} // namespace libfieldwarden::app
