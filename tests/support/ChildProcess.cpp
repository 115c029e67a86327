// SPDX-License-Identifier: Apache-2.0
// Starting, reading and ending another program.
#include "support/ChildProcess.h"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

namespace libfieldwarden::test {

namespace {

constexpr int kDeadlineMs = 30'000;
constexpr int kCannotRun = 127;

[[noreturn]] void failWithErrno(char const* aDoing) {
    throw std::system_error(errno, std::generic_category(), aDoing);
}

} // namespace

ChildProcess::ChildProcess(std::vector<std::string> aCommand)
    : mCommand(std::move(aCommand)) {
    std::vector<char*> arguments;
    arguments.reserve(mCommand.size() + 1);
    for (std::string& argument : mCommand) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);

    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        failWithErrno("pipe2");
    }
    mPipe = ends[0];
    mId = ::fork();
    if (mId == 0) {
        // Only what is allowed between fork and exec in a program with threads.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(ends[1], STDOUT_FILENO);
        ::dup2(ends[1], STDERR_FILENO);
        ::execvp(arguments[0], arguments.data());
        ::_exit(kCannotRun);
    }
    int const forkError = errno;
    ::close(ends[1]);
    if (mId < 0) {
        closePipe();
        errno = forkError;
        failWithErrno("fork");
    }
}

ChildProcess::~ChildProcess() {
    kill();
    closePipe();
}

std::string const& ChildProcess::waitForOutput(std::string const& aText) {
    while (mOutput.find(aText) == std::string::npos) {
        if (!readMore()) {
            throw std::runtime_error(mCommand.front() + " ended without '" + aText + "': " + mOutput);
        }
    }
    return mOutput;
}

int ChildProcess::waitForExit() {
    while (readMore()) {
    }
    if (mId > 0) {
        while (::waitpid(mId, &mStatus, 0) < 0 && errno == EINTR) {
        }
        mId = -1;
    }
    return WIFEXITED(mStatus) ? WEXITSTATUS(mStatus) : 128 + WTERMSIG(mStatus);
}

void ChildProcess::kill() {
    if (mId > 0) {
        ::kill(mId, SIGKILL);
        while (::waitpid(mId, &mStatus, 0) < 0 && errno == EINTR) {
        }
        mId = -1;
    }
}

bool ChildProcess::readMore() {
    pollfd waiting{mPipe, POLLIN, 0};
    int ready = 0;
    while ((ready = ::poll(&waiting, 1, kDeadlineMs)) < 0 && errno == EINTR) {
    }
    if (ready == 0) {
        throw std::runtime_error(mCommand.front() + " said nothing more in time, after: " + mOutput);
    }
    std::array<char, 4096> buffer{};
    ssize_t const count = ::read(mPipe, buffer.data(), buffer.size());
    if (count < 0) {
        failWithErrno("read");
    }
    mOutput.append(buffer.data(), static_cast<std::size_t>(count));
    return count > 0;
}

void ChildProcess::closePipe() noexcept {
    ::close(std::exchange(mPipe, -1));
}

ProgramResult runProgram(std::vector<std::string> aCommand) {
    ChildProcess child(std::move(aCommand));
    int const exitCode = child.waitForExit();
    return {exitCode, child.output()};
}

} // namespace libfieldwarden::test
