// SPDX-License-Identifier: Apache-2.0
// The entry of the library: the open count, the checks of a second open, and the start of the logging.
#include <fieldwarden/FieldwardenInterface.h>

#include "interface/FieldwardenInterfaceQ47.h"

#include <velmor/kepla/log/Configuration.h>
#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>

using velmor::kepla::log::Configuration;
using velmor::kepla::log::keplaDoLog;
using velmor::kepla::log::LoggerImpl;
using velmor::kepla::log::Severity;

namespace {

constexpr char const* kVolatileLogFile = "/var/log/libFieldwarden.log";
constexpr char const* kPersistentLogFile = "/data/logs/libFieldwarden.nvlog";
constexpr unsigned int kLogFileSizeKiB = 1024;

void refuseReopen() {
    throw std::invalid_argument("Cannot re-open the FieldwardenInterface with different parameters");
}

} // namespace

/// What the process has one of.
struct FieldwardenInterface::ProcessState {
    std::atomic<FieldwardenInterfaceQ47*> mQ47{nullptr}; ///< Non-null exactly while open; owned.
    std::uint32_t openCount = 0;                         ///< Opens not yet matched by a close.
    std::mutex openCloseMutex;                           ///< Serialises open and close; not recursive.
    std::shared_ptr<LoggerImpl> loggerImpl;              ///< Made once, lives until the process ends.

    void startLogging();
    void open(std::string const& aCanIfc,
              std::string const& aConfigRoot,
              std::string const& aFactoryRoot,
              std::string const& aShimFirmwareRoot,
              std::string const& aTsConfigRoot,
              std::string const& aTempFirmwareRoot,
              std::string const& aDataRoot);
    void reopen(std::string const& aCanIfc, std::string const& aConfigRoot);
};

FieldwardenInterface::ProcessState& FieldwardenInterface::processState() {
    static ProcessState sState;
    return sState;
}

void FieldwardenInterface::openInterface() {
    openInterface("can0", "/etc/libfieldwarden", "/data/factory", "/usr/share/firmware/Q47ShimBoard",
                  "/opt/panorin/conf/instr/spect", "/usr/share/firmware/Q47TemperatureBoard", "/data");
}

void FieldwardenInterface::openInterface(std::string const& aCanIfc,
                                         std::string const& aConfigRoot,
                                         std::string const& aFactoryRoot,
                                         std::string const& aShimFirmwareRoot,
                                         std::string const& aTsConfigRoot,
                                         std::string const& aTempFirmwareRoot,
                                         std::string const& aDataRoot) {
    ProcessState& state = processState();
    std::lock_guard const lock(state.openCloseMutex);
    if (state.openCount == 0) {
        state.open(aCanIfc, aConfigRoot, aFactoryRoot, aShimFirmwareRoot, aTsConfigRoot, aTempFirmwareRoot,
                   aDataRoot);
    } else {
        state.reopen(aCanIfc, aConfigRoot);
    }
}

void FieldwardenInterface::ProcessState::startLogging() {
    if (Configuration::isInitialized()) {
        return;
    }
    loggerImpl = std::make_shared<LoggerImpl>();
    Configuration::initHosted(loggerImpl, false, kVolatileLogFile, Severity::Debug, kPersistentLogFile,
                              Severity::Error, kLogFileSizeKiB);
}

void FieldwardenInterface::ProcessState::open(std::string const& aCanIfc,
                                              std::string const& aConfigRoot,
                                              std::string const& aFactoryRoot,
                                              std::string const& aShimFirmwareRoot,
                                              std::string const& aTsConfigRoot,
                                              std::string const& aTempFirmwareRoot,
                                              std::string const& aDataRoot) {
    startLogging();
    // Intended: the closing bracket is missing, and log readers know the line so.
    keplaDoLog(Severity::Debug,
               "FieldwardenInterface::openInterface(canIfc='%s', configRoot='%s', factoryRoot='%s', "
               "tsConfigRoot='%s'",
               {}, aCanIfc, aConfigRoot, aFactoryRoot, aTsConfigRoot);
    if (mQ47 != nullptr) {
        keplaDoLog(Severity::Warning, "FieldwardenInterface is already open, ignoring", {});
        return;
    }
    mQ47 = std::make_unique<FieldwardenInterfaceQ47>(aCanIfc, aConfigRoot, aFactoryRoot, aShimFirmwareRoot,
                                                     aTsConfigRoot, aTempFirmwareRoot, aDataRoot)
               .release();
    openCount = 1;
}

void FieldwardenInterface::ProcessState::reopen(std::string const& aCanIfc, std::string const& aConfigRoot) {
    // Intended: the count goes up before the checks and stays up when they refuse, so that the caller of a
    // refused open has to close it like any other.
    ++openCount;
    keplaDoLog(Severity::Debug, "openInterface: already open, check parameters. Open count = %u", {},
               openCount);
    FieldwardenInterfaceQ47 const& open = *mQ47;
    if (aCanIfc != open.canInterface()) {
        keplaDoLog(Severity::Critical,
                   "openInterface: currently open with CAN interface %s, second open requested %s", {},
                   open.canInterface(), aCanIfc);
        refuseReopen();
    }
    if (aConfigRoot != open.configRoot()) {
        keplaDoLog(Severity::Critical,
                   "openInterface: currently open with config root %s, second open requested %s", {},
                   open.configRoot(), aConfigRoot);
        refuseReopen();
    }
}

void FieldwardenInterface::closeInterface() {
    ProcessState& state = processState();
    std::lock_guard const lock(state.openCloseMutex);
    keplaDoLog(Severity::Debug, "FieldwardenInterface::closeInterface", {});
    if (state.openCount > 1) {
        keplaDoLog(Severity::Debug, "closeInterface: open count = %u > 1, not closing", {}, state.openCount);
        --state.openCount;
        return;
    }
    if (state.mQ47 == nullptr) {
        keplaDoLog(Severity::Critical, "FieldwardenInterface mQ47 ptr is nullptr but should not", {});
        throw std::runtime_error("FieldwardenInterface::closeInterface unexpected internal state");
    }
    // A concurrent getInstance() must find the library closed before the destruction begins.
    std::unique_ptr<FieldwardenInterfaceQ47> last(state.mQ47.exchange(nullptr));
    state.openCount = 0;
    last.reset();
    keplaDoLog(Severity::Info, "closeInterface: actually closed", {});
}

FieldwardenInterface* FieldwardenInterface::getInstance() {
    // Without the mutex: it is held for as long as an open or close takes.
    if (FieldwardenInterfaceQ47* const open = processState().mQ47; open != nullptr) {
        return open;
    }
    keplaDoLog(Severity::Critical, "FieldwardenInterface is not open", {});
    throw std::runtime_error("FieldwardenInterface is not open");
}
