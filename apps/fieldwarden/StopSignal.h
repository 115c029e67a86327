// SPDX-License-Identifier: Apache-2.0
// Ctrl-C, SIGTERM and the end of the terminal as a request that can be waited for.
#pragma once

#include <atomic>
#include <string>

#include <csignal>

namespace libfieldwarden::app {

/// Catches SIGINT, SIGTERM and, unless it was ignored as under nohup, SIGHUP from construction to
/// destruction. A second one of a kind while the first is being obeyed ends the process the hard way, as a
/// user who presses Ctrl-C twice expects. One object at a time.
class StopSignal {
public:
    StopSignal();
    ~StopSignal();
    StopSignal(StopSignal const&) = delete;
    StopSignal& operator=(StopSignal const&) = delete;

    /// @return A descriptor that becomes readable when a signal has come.
    int descriptor() const noexcept { return mPipe[0]; }

    /// @return Whether one has come.
    bool came() const { return !name().empty(); }

    /// @return "Ctrl-C", "SIGTERM" or "SIGHUP" for the one that came; empty while none has.
    std::string name() const;

private:
    int mPipe[2] = {-1, -1};
    struct sigaction mFormerInterrupt {};
    struct sigaction mFormerTerminate {};
    struct sigaction mFormerHangUp {};
};

} // namespace libfieldwarden::app
