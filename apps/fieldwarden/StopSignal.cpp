// SPDX-License-Identifier: Apache-2.0
// The self-pipe behind the stop signals.
#include "apps/fieldwarden/StopSignal.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace libfieldwarden::app {

namespace {

std::atomic<int> sSignal{0};
std::atomic<int> sPipe{-1};

void onSignal(int aSignal) {
    int const formerErrno = errno;
    sSignal = aSignal;
    char const wake = 1;
    [[maybe_unused]] auto const written = write(sPipe, &wake, 1);
    errno = formerErrno;
}

} // namespace

StopSignal::StopSignal() {
    if (pipe2(mPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category(), "Cannot make a pipe for signals");
    }
    sSignal = 0;
    sPipe = mPipe[1];
    struct sigaction action {};
    action.sa_handler = onSignal;
    // Once only: the second signal meets the default, which ends the process.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, &mFormerInterrupt);
    sigaction(SIGTERM, &action, &mFormerTerminate);
    sigaction(SIGHUP, nullptr, &mFormerHangUp);
    if (mFormerHangUp.sa_handler != SIG_IGN) {
        sigaction(SIGHUP, &action, nullptr);
    }
}

StopSignal::~StopSignal() {
    sigaction(SIGINT, &mFormerInterrupt, nullptr);
    sigaction(SIGTERM, &mFormerTerminate, nullptr);
    sigaction(SIGHUP, &mFormerHangUp, nullptr);
    sPipe = -1;
    close(mPipe[0]);
    close(mPipe[1]);
}

std::string StopSignal::name() const {
    switch (sSignal) {
        case SIGINT:
            return "Ctrl-C";
        case SIGTERM:
            return "SIGTERM";
        case SIGHUP:
            return "SIGHUP";
        default:
            return {};
    }
}

} // namespace libfieldwarden::app
