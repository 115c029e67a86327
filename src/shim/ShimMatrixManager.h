// SPDX-License-Identifier: Apache-2.0
// Chooses and loads the matrix file of a shim system.
#pragma once

#include "shim/ShimMatrixTOSK.h"

#include <fieldwarden/ShimSysType.h>
#include <velmor/kepla/log/Logger.h>

#include <memory>
#include <string>

/// Knows the matrix file of each shim system, and a file that overrides them all for service purposes.
///
/// Nothing is kept between calls: each get() loads its file again, and a failure changes nothing. Any thread
/// may call; loading blocks as long as the file system needs.
class ShimMatrixManager : private virtual velmor::kepla::log::Logger {
public:
    /// @param aMatrixDirectory      Folder of the matrix files.
    /// @param aEnforcedMatrixPath   File that is loaded for every type while it exists; empty for none.
    ShimMatrixManager(std::string const& aMatrixDirectory, std::string aEnforcedMatrixPath);

    /// @return The name of the system's matrix file, without a folder.
    /// @throws std::invalid_argument  for a type that is none of the four.
    std::string fileNameFromType(ShimSysType aType) const;

    /// Loads the enforced file if anything exists at its path, whatever the type, otherwise the system's
    /// file.
    /// @throws std::invalid_argument  for a type that is none of the four.
    /// @throws std::runtime_error     when the file cannot be loaded; the log says why. There is no second
    /// choice.
    std::shared_ptr<ShimMatrixTOSK> get(ShimSysType aType) const;

    /// Loads a file.
    /// @throws std::runtime_error  when it cannot be loaded; the log says why.
    std::shared_ptr<ShimMatrixTOSK> loadMatrix(std::string const& aPath) const;

private:
    std::string mMatrixDirectory;
    std::string mEnforcedMatrixPath;
};
