// SPDX-License-Identifier: Apache-2.0
// Finds out whether the system has the option, and refuses what only the option could do.
#include "at/ATController.h"

#include "at/ATFlowTable.h"
#include "at/ATRange.h"
#include "temperature/TemperatureListenerSync.h"
#include "temperature/TemperatureStabilityMgr.h"

#include <fieldwarden/LockForTemperatureIfc.h>
#include <velmor/kepla/mds/Mds.h>

#include <cstdint>
#include <exception>
#include <limits>
#include <stdexcept>

using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::log::Severity;
using velmor::kepla::mds::Mds;
using velmor::kepla::utils::PeriodicCallerManagerIfc;

ATController::ATController(std::shared_ptr<TempBoardQ47Ifc> aBoard,
                           std::shared_ptr<TemperatureListenerSync> aListener,
                           std::shared_ptr<PeriodicCallerManagerIfc> const& /*aPeriodicCallers*/,
                           std::string const& aVtuMds,
                           std::shared_ptr<DataLoggerInterface> const& /*aDataLogger*/)
    : Logger("ATController", "Temperature")
    , mBoard(std::move(aBoard))
    , mFlowTable(std::make_shared<ATFlowTable>())
    , mRange(std::make_shared<ATRange>(mBoard, mFlowTable))
    , mListener(std::move(aListener))
    , mStabilityMgr(std::make_shared<TemperatureStabilityMgr>(mListener)) {
    detectOption(aVtuMds);
    configureBoard();
    keplaDoLog(Severity::Info, "System doesn't have AT", {});
}

ATController::~ATController() {
    keplaDoLog(Severity::Info, "~ATController: destructor", {});
}

// -------------------------------------------------------------------------------------------- which option

void ATController::detectOption(std::string const& aVtuMds) {
    try {
        mVTMode = vtModeFromATMDS(Mds::parse(aVtuMds));
        if (hasAT()) {
            keplaDoLog(Severity::Warning,
                       "The VTU MDS asks for VTMode = %d, which this version doesn't support: will consider "
                       "system doesn't have the AT option.",
                       {}, static_cast<int>(mVTMode));
            mVTMode = VTMode::None;
        } else {
            keplaDoLog(Severity::Error, "Unsupported VT mode, no associated flow box", {});
        }
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error,
                   "Failed to parse VTU MDS, will consider system doesn't have the AT option. Error was %s",
                   {}, error.what());
        mVTMode = VTMode::None;
    }
}

VTMode ATController::vtModeFromATMDS(Mds const& aMds) const {
    constexpr unsigned kIdentifier = 1;
    auto const groups = aMds.groups().getByName("FlowController");
    if (groups.empty()) {
        return VTMode::Prototype; // records of that generation have none
    }
    if (groups.size() > 1) {
        // Intended: "FlowCOntroller".
        keplaDoLog(Severity::Error,
                   "The VTU MDS contains more than one (actually %u) FlowCOntroller group. This is not "
                   "allowed. Will consider the system has no AT option",
                   {}, groups.size());
        return VTMode::None;
    }
    int identifier = 0;
    try {
        identifier = groups.front().asInt(kIdentifier);
        // The board knows the mode as a byte; another number must not become one of its modes.
        if (identifier < -1 || identifier >= std::numeric_limits<std::uint8_t>::max()) {
            throw std::out_of_range("no mode of the board");
        }
    } catch (std::exception const&) {
        keplaDoLog(Severity::Info,
                   "The VTU MDS advertises an invalid flow controller identifier (%d): will consider the "
                   "system has no AT",
                   {}, identifier);
        return VTMode::None;
    }
    auto const mode = static_cast<VTMode>(identifier + 1);
    keplaDoLog(Severity::Info, "Got VTMode = %d from VTU MDS with FlowController group.", {},
               static_cast<int>(mode));
    return mode;
}

void ATController::configureBoard() {
    keplaDoLog(Severity::Debug, "Configuring the board, with mVTMode = %d", {}, static_cast<int>(mVTMode));
    mBoard->setVTMode(mVTMode);
    if (!mBoard->setupSavedOnEEPROM()) {
        keplaDoLog(Severity::Warning,
                   "Board's current configuration is different from the one saved on the board: updating it",
                   {});
        mBoard->saveSetupToEEPROM();
    }
}

bool ATController::hasAT() const {
    return mVTMode == VTMode::Prototype || mVTMode == VTMode::PortExpander;
}

void ATController::checkHasAT(std::string const& aContext) const {
    if (!hasAT()) {
        keplaDoLog(Severity::Error, "Tried an AT related operation on a system without AT. Context is %s", {},
                   aContext);
        throw std::runtime_error("This system doesn't feature the adjustable temperature option.");
    }
}

// --------------------------------------------------------------------------------------------- regulation

void ATController::setLock(std::shared_ptr<LockForTemperatureIfc> aLock) {
    std::unique_lock lock(mMutex);
    mLock.swap(aLock);
    lock.unlock(); // The former one goes without our mutex.
}

void ATController::setEnabled(bool aEnabled) {
    keplaDoLog(Severity::Info, "setEnabled(enabled = %d)", {}, aEnabled);
    checkHasAT("setEnabled");
}

void ATController::setTargetTemperature(double aKelvin) {
    keplaDoLog(Severity::Info, "setTargetTemperature(temperatureInKelvin = %f", {},
               aKelvin); // Intended: open.
    checkHasAT("setTargetTemperature");
}

std::pair<double, double> ATController::temperatureRange() const {
    return mRange->range();
}

void ATController::setProbeTemperatureMin(double aKelvin) {
    keplaDoLog(Severity::Info, "setProbeTemperatureMin = %fK", {}, aKelvin);
    mRange->setProbeMin(aKelvin);
    if (double const lowest = temperatureRange().first; lowest > targetTemperature()) {
        setTargetTemperature(lowest);
    }
}

void ATController::setProbeTemperatureMax(double aKelvin) {
    keplaDoLog(Severity::Info, "setProbeTemperatureMax = %fK", {}, aKelvin);
    mRange->setProbeMax(aKelvin);
    if (double const highest = temperatureRange().second; highest < targetTemperature()) {
        setTargetTemperature(highest);
    }
}

// -------------------------------------------------------------------------------------------- gas, exchange

// NOLINTNEXTLINE(readability-make-member-function-const): sets the flow where there is gas
void ATController::setFlowOverrideByUser(double /*aLiterPerHour*/) {
    checkHasAT("setFlowOverrideByUser");
}

std::string ATController::flowsAsXmlForPanorin() const {
    return mFlowTable->asXmlForPanorin();
}

void ATController::checkAutomationAllowed() {
    if (mVTMode == VTMode::Prototype) {
        keplaDoLog(Severity::Error, "automation not allowed because system has a prototype flow box", {});
        throw std::runtime_error(
            "Combination of adjustable temperature and automation is not supported on this system.");
    }
}

void ATController::prepareTransfer() {
    keplaDoLog(Severity::Info, "+prepareTransfer", {});
    checkAutomationAllowed();
    if (mInSampleTransferMode) {
        keplaDoLog(Severity::Warning, "prepareTransfer called but already in sample exchange mode", {});
        return;
    }
    mInSampleTransferMode = true;
}

void ATController::completeTransfer(bool aSampleInMagnet) {
    keplaDoLog(Severity::Info, "+completeTransfer(sample_in_magnet = %d)", {}, aSampleInMagnet);
    checkAutomationAllowed();
    if (!mInSampleTransferMode) {
        keplaDoLog(Severity::Warning, "completeTransfer called but not in sample exchange mode", {});
        return;
    }
    mInSampleTransferMode = false;
}
