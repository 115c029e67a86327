// SPDX-License-Identifier: Apache-2.0
// Opening the library where the options say, and leaving nothing behind.
#include "apps/fieldwarden/Session.h"

#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/WriteWholeFile.h"
#include "apps/fieldwarden/WrongUsage.h"
#include "simulator/instrument/Instrument.h"
#include "simulator/instrument/SimulatedBackend.h"

#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/ShimInterface.h>
#include <fieldwarden/ShimSysType.h>
#include <velmor/kepla/log/Configuration.h>
#include <velmor/platform/Backend.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

namespace libfieldwarden::app {

using velmor::kepla::log::Configuration;
using velmor::platform::Backend;

/// A folder of the run's own, removed with all that is in it.
class Session::ScratchDirectory {
public:
    ScratchDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "fieldwarden-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(),
                                    "Cannot make a folder like '" + name + "'");
        }
        mPath = name;
    }
    ~ScratchDirectory() {
        std::error_code leftBehind;
        std::filesystem::remove_all(mPath, leftBehind);
    }
    ScratchDirectory(ScratchDirectory const&) = delete;
    ScratchDirectory& operator=(ScratchDirectory const&) = delete;

    std::filesystem::path const& path() const noexcept { return mPath; }

private:
    std::filesystem::path mPath;
};

/// Keeps a second simulated instrument out of a folder: each would overwrite what the other's boards
/// remember.
class Session::FolderLock {
public:
    explicit FolderLock(std::filesystem::path const& aFolder)
        : mDescriptor(open(aFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (mDescriptor < 0 || flock(mDescriptor, LOCK_EX | LOCK_NB) != 0) {
            int const error = errno;
            if (mDescriptor >= 0) {
                ::close(mDescriptor);
            }
            if (error == EWOULDBLOCK) {
                throw WrongUsage("another fieldwarden has its simulated instrument in '" + aFolder.string() +
                                 "'; wait for its end or give another --data");
            }
            throw std::system_error(error, std::generic_category(), "Cannot lock '" + aFolder.string() + "'");
        }
    }
    ~FolderLock() { ::close(mDescriptor); }
    FolderLock(FolderLock const&) = delete;
    FolderLock& operator=(FolderLock const&) = delete;

private:
    int mDescriptor;
};

Session::Session(SessionOptions const& aOptions)
    : mOptions(aOptions)
    , mDataRoot(aOptions.dataDirectory.value_or("/data")) {
    if (aOptions.lock == LockKind::Mock) {
        mMockDirectory.emplace();
    } else if (std::filesystem::exists(MockDirectory::path())) {
        throw WrongUsage("the real lock is not to be had while '" + MockDirectory::path().string() +
                         "' exists; remove it with 'rm -r " + MockDirectory::path().string() +
                         "', or use --lock mock");
    }
    if (aOptions.simulate) {
        openOnSimulation(aOptions);
    } else {
        openOnInstrument(aOptions);
    }
    mLibrary = FieldwardenInterface::getInstance();
}

void Session::openOnInstrument(SessionOptions const& aOptions) {
    if (!aOptions.dataDirectory) {
        FieldwardenInterface::openInterface();
        return;
    }
    FieldwardenInterface::openInterface("can0", "/etc/libfieldwarden", "/data/factory",
                                        "/usr/share/firmware/Q47ShimBoard", "/opt/panorin/conf/instr/spect",
                                        "/usr/share/firmware/Q47TemperatureBoard",
                                        aOptions.dataDirectory->string());
}

void Session::openOnSimulation(SessionOptions const& aOptions) {
    if (!aOptions.dataDirectory) {
        mScratch = std::make_unique<ScratchDirectory>();
    } else {
        std::error_code error;
        std::filesystem::create_directories(*aOptions.dataDirectory, error);
        if (error) {
            throw std::system_error(error,
                                    "Cannot make the folder '" + aOptions.dataDirectory->string() + "'");
        }
        mFolderLock = std::make_unique<FolderLock>(*aOptions.dataDirectory);
    }
    mInstrument = std::make_shared<sim::Instrument>(sim::Instrument::Options{
        .folder = aOptions.dataDirectory ? *aOptions.dataDirectory : mScratch->path(),
        .timeScale = aOptions.timeScale,
        .cold = aOptions.cold});
    Backend::use(sim::makeSimulatedBackend(mInstrument));
    sim::Folders const& folders = mInstrument->folders();
    mDataRoot = folders.data;
    Configuration::redirectFiles(folders.root);
    FieldwardenInterface::openInterface("can0", folders.config.string(), folders.factory.string(),
                                        folders.shimFirmware.string(), folders.spectrometer.string(),
                                        folders.tempFirmware.string(), folders.data.string());
}

std::filesystem::path Session::dataLoggerFile() const {
    return mInstrument != nullptr ? mInstrument->folders().dataLogger
                                  : mDataRoot / "libfieldwarden" / "datalogger.sqlite";
}

std::filesystem::path Session::shimSystemFile() const {
    return mDataRoot / "libfieldwarden" / "shim-system";
}

int Session::chosenShimSystem() const {
    if (mOptions.shimSystem) {
        return *mOptions.shimSystem;
    }
    int remembered = 0;
    std::ifstream(shimSystemFile()) >> remembered;
    auto const first = static_cast<int>(ShimSysType::Wmxs1a);
    auto const last = static_cast<int>(ShimSysType::Wmxs2a);
    return remembered >= first && remembered <= last ? remembered : first;
}

ShimInterface& Session::shim() {
    ShimInterface& shim = *mLibrary->getShim();
    shim.setShimSystem(static_cast<ShimSysType>(chosenShimSystem()));
    return shim;
}

void Session::rememberShimSystem(int aSystem) const {
    std::filesystem::create_directories(shimSystemFile().parent_path());
    writeWholeFile(shimSystemFile(), std::to_string(aSystem) + "\n", "shim system");
}

Session::~Session() {
    try {
        close();
    } catch (std::exception const&) {
        // The error that brought us here is the one to tell.
    }
    if (mInstrument != nullptr) {
        Configuration::shutdown();
        Configuration::redirectFiles({});
        Backend::use(nullptr);
    }
}

void Session::close() {
    if (std::exchange(mLibrary, nullptr) != nullptr) {
        FieldwardenInterface::closeInterface();
    }
}

int Session::closeForSignal() {
    close();
    complain(mStop.name() + ", closed");
    return kLost;
}

} // namespace libfieldwarden::app
