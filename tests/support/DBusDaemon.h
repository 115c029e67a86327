// SPDX-License-Identifier: Apache-2.0
// A real message bus that a test has for itself.
#pragma once

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

#include <optional>
#include <string>

namespace libfieldwarden::test {

/// Runs dbus-daemon with a configuration of its own on a socket in a folder of its own. Ready when made,
/// ended with the object.
class DBusDaemon {
public:
    /// A bus on which anyone may do anything.
    DBusDaemon();

    /// A bus that denies what the system bus denies, with one more policy file.
    /// @param aPolicyFile  Path of the file.
    explicit DBusDaemon(std::filesystem::path const& aPolicyFile);

    /// @return The address of the bus; the same after a restart.
    std::string address() const;

    /// Ends the bus at once, as a crash would.
    void stop();

    /// Starts it again at the same address.
    void start();

private:
    void start(std::string const& aPolicy);

    TemporaryDirectory mDirectory;
    std::optional<ChildProcess> mDaemon;
};

} // namespace libfieldwarden::test
