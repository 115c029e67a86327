// SPDX-License-Identifier: Apache-2.0
// The library, open on the instrument or on a simulated one, for as long as a subcommand runs.
#pragma once

#include "apps/fieldwarden/MockDirectory.h"

#include <filesystem>
#include <memory>
#include <optional>

class FieldwardenInterface;

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
    std::optional<std::filesystem::path>
        dataDirectory; ///< Of the simulated instrument, or the real data root.
};

/// Opens the library in its constructor and closes it in close(), or at the latest in its destructor.
class Session {
public:
    /// @throws WrongUsage      when the options contradict each other or what stands on the machine.
    /// @throws std::exception  what the library throws.
    explicit Session(SessionOptions const& aOptions);
    ~Session();
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    FieldwardenInterface& library() const noexcept { return *mLibrary; }

    /// Brings the instrument down.
    /// @throws std::exception  what the library throws.
    void close();

private:
    class ScratchDirectory;

    void openOnInstrument(SessionOptions const& aOptions);
    void openOnSimulation(SessionOptions const& aOptions);

    std::optional<MockDirectory> mMockDirectory;
    std::unique_ptr<ScratchDirectory> mScratch; ///< Null when the user named a folder.
    std::shared_ptr<sim::Instrument> mInstrument;
    FieldwardenInterface* mLibrary = nullptr;
};

} // namespace libfieldwarden::app
