// SPDX-License-Identifier: Apache-2.0
// The bar of long steps.
#include "apps/fieldwarden/ProgressBar.h"

#include "apps/fieldwarden/Output.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace libfieldwarden::app {

namespace {

constexpr std::size_t kUsualColumns = 79;
constexpr char const* kBeginOfClearedLine = "\r\033[K";

bool terminalForRedrawing() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment.
    char const* const noColour = std::getenv("NO_COLOR");
    return ::isatty(STDERR_FILENO) == 1 && (noColour == nullptr || *noColour == '\0');
}

} // namespace

std::string barText(unsigned aDone, unsigned aTotal, unsigned aWidth) {
    unsigned const filled = aTotal == 0 ? 0 : std::min(aWidth, aWidth * std::min(aDone, aTotal) / aTotal);
    return "[" + std::string(filled, '#') + std::string(aWidth - filled, '-') + "]";
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

void ProgressBar::showLine(std::string const& aText) {
    if (!mRedraws) {
        return;
    }
    winsize window{};
    std::size_t const columns = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 1
                                    ? window.ws_col - 1U
                                    : kUsualColumns;
    fmt::print(stderr, "{}{}", kBeginOfClearedLine, aText.substr(0, columns));
    std::fflush(stderr);
    mDrawn = true;
}

void ProgressBar::clear() {
    if (mDrawn) {
        fmt::print(stderr, "{}", kBeginOfClearedLine);
        std::fflush(stderr);
        mDrawn = false;
    }
}

} // namespace libfieldwarden::app
