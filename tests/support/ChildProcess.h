// SPDX-License-Identifier: Apache-2.0
// Another program, run beside a test and read through a pipe.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace libfieldwarden::test {

/// Runs a program; its standard output and, unless told otherwise, its error output come through a pipe.
/// Killed and waited for at the end. Every wait has a deadline far beyond what a loaded machine needs. For
/// one thread.
class ChildProcess {
public:
    /// @param aCommand  Program, looked up in PATH, and its arguments.
    explicit ChildProcess(std::vector<std::string> aCommand);
    ~ChildProcess();
    ChildProcess(ChildProcess const&) = delete;
    ChildProcess& operator=(ChildProcess const&) = delete;

    /// Reads until a text has come.
    /// @return All that has come so far.
    /// @throws std::runtime_error  when the program ends without it or the deadline passes.
    std::string const& waitForOutput(std::string const& aText);

    /// Reads to the end and waits for the program.
    /// @return Its exit code, or 128 plus the number of the signal that ended it.
    int waitForExit();

    /// Ends the program at once and waits for it.
    void kill();

    std::string const& output() const noexcept { return mOutput; }
    pid_t id() const noexcept { return mId; }

private:
    /// @return Whether more came before the end of the output.
    bool readMore();
    void closePipe() noexcept;

    std::vector<std::string> mCommand;
    pid_t mId = -1;
    int mPipe = -1;
    int mStatus = 0;
    std::string mOutput;
};

/// What a program that has ended leaves.
struct ProgramResult {
    int exitCode;
    std::string output;
};

/// Runs a program to its end.
ProgramResult runProgram(std::vector<std::string> aCommand);

} // namespace libfieldwarden::test
