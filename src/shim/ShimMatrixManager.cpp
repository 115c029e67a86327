// SPDX-License-Identifier: Apache-2.0
// From a shim system to its loaded matrix.
#include "shim/ShimMatrixManager.h"

#include <array>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

using velmor::kepla::log::Severity;

namespace {

struct MatrixFile {
    ShimSysType type;
    char const* name;
};

constexpr std::array kMatrixFiles{
    MatrixFile{ShimSysType::Wmxs1a, "wmxs1a.dat"},
    MatrixFile{ShimSysType::Wmxs1b, "wmxs1b.dat"},
    MatrixFile{ShimSysType::Wmxs1c, "wmxs1c.dat"},
    MatrixFile{ShimSysType::Wmxs2a, "wmxs2a.dat"},
};

/// Any kind of object counts. What cannot be looked at does not exist.
bool existsAt(std::string const& aPath) {
    std::error_code ignored;
    return std::filesystem::exists(aPath, ignored);
}

} // namespace

ShimMatrixManager::ShimMatrixManager(std::string const& aMatrixDirectory, std::string aEnforcedMatrixPath)
    : Logger("ShimMatrixManager", "Shim")
    , mMatrixDirectory(aMatrixDirectory)
    , mEnforcedMatrixPath(std::move(aEnforcedMatrixPath)) {}

std::string ShimMatrixManager::fileNameFromType(ShimSysType aType) const {
    for (MatrixFile const& file : kMatrixFiles) {
        if (file.type == aType) {
            return file.name;
        }
    }
    keplaDoLog(Severity::Error, "Unsupported shim system type: %d", {}, static_cast<int>(aType));
    throw std::invalid_argument("The provided shim system is not supported");
}

std::shared_ptr<ShimMatrixTOSK> ShimMatrixManager::get(ShimSysType aType) const {
    keplaDoLog(Severity::Debug, "get(shimsys = %d)", {}, static_cast<int>(aType));
    if (!mEnforcedMatrixPath.empty()) {
        keplaDoLog(Severity::Trace, "Enforced matrix at path %s", {}, mEnforcedMatrixPath);
        if (existsAt(mEnforcedMatrixPath)) {
            // Intended: it wins for every type, and the type is not even looked at.
            keplaDoLog(Severity::Warning, "Loading enforced matrix at path %s", {}, mEnforcedMatrixPath);
            return loadMatrix(mEnforcedMatrixPath);
        }
        // "does't" is intended: log readers know the line so.
        keplaDoLog(Severity::Debug, "Enforced matrix file does't exist, loading normal matrix", {});
    }
    std::string const path = (std::filesystem::path(mMatrixDirectory) / fileNameFromType(aType)).string();
    keplaDoLog(Severity::Debug, "Loading matrix at path %s", {}, path);
    return loadMatrix(path);
}

std::shared_ptr<ShimMatrixTOSK> ShimMatrixManager::loadMatrix(std::string const& aPath) const {
    try {
        return std::make_shared<ShimMatrixTOSK>(aPath);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to load shim matrix at %s with error %s", {}, aPath,
                   error.what());
        throw std::runtime_error("Could not load the shim matrix"); // the cause stands in the log only
    }
}
