// SPDX-License-Identifier: Apache-2.0
// The library, open on the instrument or on a simulated one, for as long as a subcommand runs.
#pragma once

#include "apps/fieldwarden/MockDirectory.h"
#include "apps/fieldwarden/StopSignal.h"

#include <filesystem>
#include <memory>
#include <optional>

class FieldwardenInterface;
class ShimInterface;

namespace libfieldwarden::sim {
class Instrument;
}

namespace libfieldwarden::app {

/// Which lock the library shall take.
enum class LockKind { Mock, Real };

/// What every subcommand that opens the library may be told.
struct SessionOptions {
    bool simulate = false;
    LockKind lock = LockKind::Real;
    double timeScale = 1.0; ///< Only with simulate.
    bool cold = false;      ///< Only with simulate: all that is tempered begins at the room's temperature.
    std::optional<std::filesystem::path>
        dataDirectory;             ///< Of the simulated instrument, or the real data root.
    std::optional<int> shimSystem; ///< 8 to 11; otherwise the one that was chosen last.
};

/// Opens the library in its constructor and closes it in close(), or at the latest in its destructor.
///
/// From construction to destruction Ctrl-C and SIGTERM are requests, which the subcommand obeys when its work
/// allows it: the process does not end before the instrument is down and the run's own files are removed.
class Session {
public:
    /// @throws WrongUsage      when the options contradict each other or what stands on the machine.
    /// @throws std::exception  what the library throws.
    explicit Session(SessionOptions const& aOptions);
    ~Session();
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    FieldwardenInterface& library() const noexcept { return *mLibrary; }

    /// Whether the user wants the end, and how to wait for that.
    StopSignal const& stop() const noexcept { return mStop; }

    /// Sets the shim system that the options or an earlier run chose; 8 where none did.
    /// @return The shim service, ready for gradients.
    /// @throws std::exception  what the library throws.
    ShimInterface& shim();

    /// @return The data logger's file, which a reader may open beside the library.
    std::filesystem::path dataLoggerFile() const;

    /// Keeps a shim system for later runs, beside the instrument's data.
    /// @throws std::runtime_error  when that cannot be written.
    void rememberShimSystem(int aSystem) const;

    /// Brings the instrument down.
    /// @throws std::exception  what the library throws.
    void close();

    /// Brings the instrument down before the work is done, and says which signal wanted that.
    /// @return What to tell the shell.
    /// @throws std::exception  what the library throws.
    int closeForSignal();

private:
    class ScratchDirectory;
    class FolderLock;

    void openOnInstrument(SessionOptions const& aOptions);
    void openOnSimulation(SessionOptions const& aOptions);
    std::filesystem::path shimSystemFile() const;
    int chosenShimSystem() const;

    StopSignal mStop; ///< The first, so that it outlives all that has to be removed.
    SessionOptions mOptions;
    std::filesystem::path mDataRoot; ///< What the library was opened with.
    std::optional<MockDirectory> mMockDirectory;
    std::unique_ptr<ScratchDirectory> mScratch; ///< Null when the user named a folder.
    std::unique_ptr<FolderLock> mFolderLock;    ///< Null when he did not, and on the instrument.
    std::shared_ptr<sim::Instrument> mInstrument;
    FieldwardenInterface* mLibrary = nullptr;
};

} // namespace libfieldwarden::app
