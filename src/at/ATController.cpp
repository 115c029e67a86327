// SPDX-License-Identifier: Apache-2.0
// How the option is found and started, guarded, driven by time, and switched off.
#include "at/ATController.h"

#include "at/ATFSM.h"
#include "at/ATFlowTable.h"
#include "at/ATRange.h"
#include "at/AtFlowBoxPrototype.h"
#include "at/AtFlowBoxV1.h"
#include "at/AtFlowBoxV2.h"
#include "at/FlowController.h"
#include "temperature/ATHardPowerOff.h"
#include "temperature/TemperatureListenerSync.h"
#include "temperature/TemperatureStabilityMgr.h"

#include <fieldwarden/LockForTemperatureIfc.h>
#include <velmor/kepla/mds/Mds.h>
#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>
#include <velmor/platform/Clock.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <stdexcept>
#include <utility>

using libfieldwarden::temperature::ATHardPowerOff;
using std::chrono::milliseconds;
using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::log::Severity;
using velmor::kepla::mds::Mds;
using velmor::kepla::utils::PeriodicCallerIfc;
using velmor::kepla::utils::PeriodicCallerManagerIfc;
using velmor::platform::Clock;

namespace {

constexpr double kTickPeriodSeconds = 1.0;
/// After how long without a word from the library the board ends the heating by itself.
constexpr unsigned char kHeatingTimeoutSeconds = 240;

/// What the board guesses of the flow box on its port expander.
enum class FlowBoxEcl : unsigned char {
    Unknown = 0,
    V1 = 10,
    V2 = 20,
    V2Later = 30,
    NotConnected = 99,
    NotEnabled = 255,
};

/// Lets periodic calls through only when all is there that they need: until then they are left out.
class GatedCallers final : public PeriodicCallerManagerIfc {
public:
    explicit GatedCallers(std::shared_ptr<PeriodicCallerManagerIfc> aCallers)
        : mCallers(std::move(aCallers)) {}

    std::unique_ptr<PeriodicCallerIfc> createPeriodicCaller(double aPeriodSeconds,
                                                            std::function<void()> aCallback) override {
        return mCallers->createPeriodicCaller(aPeriodSeconds,
                                              [open = mOpen, callback = std::move(aCallback)] {
                                                  if (*open) {
                                                      callback();
                                                  }
                                              });
    }
    void open() { *mOpen = true; }

private:
    std::shared_ptr<PeriodicCallerManagerIfc> mCallers;
    std::shared_ptr<std::atomic<bool>> mOpen = std::make_shared<std::atomic<bool>>(false);
};

} // namespace

ATController::ATController(std::shared_ptr<TempBoardQ47Ifc> aBoard,
                           std::shared_ptr<TemperatureListenerSync> aListener,
                           std::shared_ptr<PeriodicCallerManagerIfc> const& aPeriodicCallers,
                           std::string const& aVtuMds,
                           std::shared_ptr<DataLoggerInterface> const& aDataLogger)
    : Logger("ATController", "Temperature")
    , mClock(Clock::current())
    , mBoard(std::move(aBoard))
    , mFlowTable(std::make_shared<ATFlowTable>())
    , mRange(std::make_shared<ATRange>(mBoard, mFlowTable))
    , mLastTick(mClock.now())
    , mListener(std::move(aListener))
    , mStabilityMgr(std::make_shared<TemperatureStabilityMgr>(mListener))
    , mIsInStabilityWindow(
          [this](double aKelvin) { return std::abs(aKelvin - mTargetTemperature) < mStabilityTolerance; })
    , mLastTemperatures(mStabilityWindow) {
    detectOption(aVtuMds, aPeriodicCallers, aDataLogger);
    configureBoard();
    if (!hasAT()) {
        keplaDoLog(Severity::Info, "System doesn't have AT", {});
        return;
    }
    keplaDoLog(Severity::Info, "System has AT option: starting it", {});
    startOption(*aPeriodicCallers);
}

ATController::~ATController() {
    keplaDoLog(Severity::Info, "~ATController: destructor", {});
    if (!hasAT()) {
        return;
    }
    mTimerCaller.reset();
    mPollCaller.reset();
    try {
        setEnabled(false);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to disable AT in the ATController destructor. Error was %s", {},
                   error.what());
    }
}

// -------------------------------------------------------------------------------------------- which option

void ATController::detectOption(std::string const& aVtuMds,
                                std::shared_ptr<PeriodicCallerManagerIfc> const& aPeriodicCallers,
                                std::shared_ptr<DataLoggerInterface> const& aDataLogger) {
    try {
        Mds const mds = Mds::parse(aVtuMds);
        if (auto box = detectFlowBox(mds)) {
            // A poll of the flow box that comes while a slow board answers must not find half a table.
            auto const callers = std::make_shared<GatedCallers>(aPeriodicCallers);
            mFlowController = std::make_shared<FlowController>(mBoard, mFlowTable, mListener, std::move(box),
                                                               callers, aDataLogger);
            mFlowTable->setTableFromMDS(mds);
            callers->open();
        }
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error,
                   "Failed to parse VTU MDS, will consider system doesn't have the AT option. Error was %s",
                   {}, error.what());
        mVTMode = VTMode::None;
        mFlowController.reset();
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

std::unique_ptr<AtFlowBoxIfc> ATController::detectFlowBox(Mds const& aMds) {
    mVTMode = vtModeFromATMDS(aMds);
    switch (mVTMode) {
        case VTMode::Prototype:
            return std::make_unique<AtFlowBoxPrototype>();
        case VTMode::PortExpander:
            return guessFlowBox();
        default:
            keplaDoLog(Severity::Error, "Unsupported VT mode, no associated flow box", {});
            return {};
    }
}

std::unique_ptr<AtFlowBoxIfc> ATController::guessFlowBox() {
    mBoard->setVTMode(VTMode::PortExpander); // It looks for the box only then.
    unsigned char const ecl = mBoard->guessedFlowBoxEcl();
    keplaDoLog(Severity::Debug, "The VT board guesses that the AT Flow box is of type %u", {}, ecl);
    switch (static_cast<FlowBoxEcl>(ecl)) {
        case FlowBoxEcl::Unknown:
            keplaDoLog(Severity::Error,
                       "VT board guesses ECL 0 but AT option MDS says I2C, continuing with I2C V1", {});
            return std::make_unique<AtFlowBoxV1>();
        case FlowBoxEcl::V1:
            keplaDoLog(Severity::Info, "VT board guesses AT Flow Box V1", {});
            return std::make_unique<AtFlowBoxV1>();
        case FlowBoxEcl::V2:
        case FlowBoxEcl::V2Later:
            keplaDoLog(Severity::Info, "VT board guesses ATFlowBoxV2", {});
            return std::make_unique<AtFlowBoxV2>();
        case FlowBoxEcl::NotConnected:
            keplaDoLog(Severity::Error, "Expects an I2C AT Flow Box but port expander is not detected", {});
            throw std::runtime_error("AT Flow box not connected");
        case FlowBoxEcl::NotEnabled:
            keplaDoLog(Severity::Error, "AT mode has not enabled, no flow box detection possible", {});
            throw std::runtime_error("AT not enabled");
        default:
            keplaDoLog(Severity::Error, "unknown value for AT Flow Box detection", {});
            throw std::runtime_error("AT Flow Box not detected. Please check the wiring and try again.");
    }
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

void ATController::startOption(PeriodicCallerManagerIfc& aPeriodicCallers) {
    ATHardPowerOff(mBoard);
    mBoard->setProbeGasHeatingTimeout(kHeatingTimeoutSeconds);
    mATFSM = std::make_shared<ATFSM>(mBoard, mFlowTable, mListener, mStabilityMgr, mFlowController);
    setEnabled(false);
    mTargetTemperature = temperatureRange().first;
    mLastTick = mClock.now();
    mTimerCaller = aPeriodicCallers.createPeriodicCaller(kTickPeriodSeconds, [this] { tick(); });
    mPollCaller = aPeriodicCallers.createPeriodicCaller(static_cast<double>(mPollPeriod.count()) / 1000.0,
                                                        [this] { poll(); });
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
    std::lock_guard const lock(mMutex);
    if (aEnabled && mLock && !mLock->shimCoilTargetTemperatureRegulationArmed()) {
        keplaDoLog(Severity::Error,
                   "User requests to enable AT but the shim coil target temperature regulator is not armed: "
                   "denied",
                   {});
        throw std::runtime_error("The lock must be enabled and locked before AT operation can be started.");
    }
    if (aEnabled) {
        mATFSM->enable();
    } else {
        mATFSM->disable();
    }
    mEnabled = aEnabled;
}

void ATController::setTargetTemperature(double aKelvin) {
    keplaDoLog(Severity::Info, "setTargetTemperature(temperatureInKelvin = %f", {},
               aKelvin); // Intended: open.
    checkHasAT("setTargetTemperature");
    auto const range = temperatureRange();
    if (!(aKelvin >= range.first && aKelvin <= range.second)) { // So that what is no number stays out, too.
        keplaDoLog(Severity::Error, "Requested temperature (%f) it outside of range (%fK to %fK)", {},
                   aKelvin, range.first, range.second); // Intended: "it".
        throw std::invalid_argument("Target temperature is outside of allowed range.");
    }
    std::lock_guard const lock(mMutex);
    mTargetTemperature = aKelvin;
    mATFSM->setTarget(aKelvin);
    mListener->probeTargetTemperatureChanged(aKelvin);
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

// --------------------------------------------------------------------------------------- ticks and stability

void ATController::tick() {
    auto const now = mClock.now();
    mATFSM->timerTick(std::chrono::duration_cast<milliseconds>(now - mLastTick));
    mLastTick = now;
}

void ATController::poll() {
    keplaDoLog(Severity::Trace, "+poll", {});
    double const kelvin = mBoard->probeTemperature();
    mLastTemperatures.push_front(kelvin);
    if (mLastTemperatures.size() >= mStabilityWindow) {
        mStable = std::all_of(mLastTemperatures.begin(), mLastTemperatures.end(), mIsInStabilityWindow);
    }
    mStabilityMgr->push(mStable);
    keplaDoLog(Severity::Trace, "Probe's temperature is %fK and considered stable = %d", {}, kelvin,
               mStable.load());
}

// -------------------------------------------------------------------------------------------- gas, exchange

void ATController::setFlowOverrideByUser(double aLiterPerHour) {
    checkHasAT("setFlowOverrideByUser");
    mFlowController->setFlowByUser(aLiterPerHour);
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
    if (hasAT()) {
        mATFSM->prepareTransfer();
        keplaDoLog(Severity::Debug, "waiting for FSM to process the prepareTransfer request", {});
        if (!mATFSM->waitPrepareOrCompleteTransfer()) {
            throw std::runtime_error("Could not prepare for a sample transfer");
        }
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
    if (hasAT()) {
        mATFSM->completeTransfer(aSampleInMagnet);
        if (aSampleInMagnet) {
            keplaDoLog(Severity::Debug, "waiting for FSM to process the completeTransfer", {});
            if (!mATFSM->waitPrepareOrCompleteTransfer()) {
                keplaDoLog(Severity::Error,
                           "FSM did not left the sample exchange state within 10 seconds --> error", {});
                throw std::runtime_error("Could not restore AT operation after sample exchange");
            }
        }
    }
    mInSampleTransferMode = false;
}
