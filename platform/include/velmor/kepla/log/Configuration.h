// SPDX-License-Identifier: Apache-2.0
// The process's log sinks: where lines go, and from which severity on.
#pragma once

#include <velmor/kepla/log/LoggerImpl.h>
#include <velmor/kepla/log/Severity.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace velmor::kepla::log {

/// A destination of log lines. Called from any thread, also from several at once.
class Sink {
public:
    virtual ~Sink() = default;

    /// Takes a line at least as urgent as the level that the sink was installed with. Must not throw.
    virtual void write(Line const& aLine) noexcept = 0;

    /// Brings everything taken so far to its destination.
    virtual void flush() noexcept {}
};

/// A sink with the least urgent severity that it takes.
struct SinkAtLevel {
    std::shared_ptr<Sink> sink;
    Severity level = Severity::Trace;
};

/// The process-wide logging set-up. All operations may be called from any thread.
class Configuration {
public:
    /// Whether a host or an earlier call has set the logging up.
    static bool isInitialized() noexcept;

    /// Installs two log files, as a service that has no host does. When the logging is set up already nothing
    /// changes.
    ///
    /// A file that cannot be opened or written is told once on standard error, tried again with later lines,
    /// and never disturbs the caller.
    /// @param aReceiver       Takes the lines of loggers without a receiver of their own.
    /// @param aConsole        Whether the lines go to standard error too, at the more verbose of the two
    /// levels.
    /// @param aFile1, aLevel1 First file and the least urgent severity in it.
    /// @param aFile2, aLevel2 Second file and the least urgent severity in it.
    /// @param aRotateKiB      Size in KiB at which a file is rotated; three old ones are kept. 0: never.
    /// @return A handle on the set-up, which lasts whether or not the caller keeps it.
    static std::shared_ptr<Configuration> initHosted(std::shared_ptr<LoggerImplInterface> aReceiver,
                                                     bool aConsole,
                                                     std::string const& aFile1,
                                                     Severity aLevel1,
                                                     std::string const& aFile2,
                                                     Severity aLevel2,
                                                     unsigned int aRotateKiB);

    /// Installs sinks of the host's choice. When the logging is set up already nothing changes.
    /// @return A handle as initHosted() returns it.
    static std::shared_ptr<Configuration> initWith(std::vector<SinkAtLevel> aSinks);

    /// Makes the log files of a later initHosted() go below a folder: "/var/log/x.log" becomes
    /// aRoot + "/var/log/x.log". For a simulated instrument, whose files live in one folder of their own.
    /// @param aRoot  The folder; empty to end the redirection.
    static void redirectFiles(std::filesystem::path const& aRoot);

    /// Flushes and removes all sinks; isInitialized() answers false afterwards. For the end of a process and
    /// for tests.
    static void shutdown() noexcept;

    /// Hands a line to every sink that wants it: the end of the road for LoggerImpl.
    static void deliver(Line const& aLine) noexcept;

    /// Hands a line of a logger without a receiver of its own to the one given at the set-up.
    static void receive(Line const& aLine) noexcept;

    Configuration(Configuration const&) = delete;
    Configuration& operator=(Configuration const&) = delete;
    ~Configuration();

private:
    struct Process;
    static Process& process() noexcept;
    Configuration(std::shared_ptr<LoggerImplInterface> aReceiver, std::vector<SinkAtLevel> aSinks);
    static std::shared_ptr<Configuration> install(std::shared_ptr<LoggerImplInterface> aReceiver,
                                                  std::vector<SinkAtLevel> aSinks);
    static std::shared_ptr<Configuration> current() noexcept;
    void toSinks(Line const& aLine) const noexcept;

    std::shared_ptr<LoggerImplInterface> mReceiver;
    std::vector<SinkAtLevel> mSinks;
};

} // namespace velmor::kepla::log
