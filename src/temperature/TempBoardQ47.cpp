// SPDX-License-Identifier: Apache-2.0
// Scales and types of the temperature board's objects, and what happens around an update of its firmware.
#include "temperature/TempBoardQ47.h"

#include "dump/DictionaryDump.h"
#include "temperature/ATHardPowerOff.h"
#include "temperature/TemperatureDictionaryDump.h"

#include <velmor/kepla/utils/SaturatedToInt32.h>
#include <velmor/platform/Clock.h>
#include <velmor/units/Units.h>

#include <chrono>
#include <cmath>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <utility>

using namespace std::chrono_literals;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::deviceid::DeviceIdServiceContributorIfc;
using velmor::kepla::log::Severity;
using velmor::kepla::utils::saturatedToInt32;
using velmor::platform::Clock;

namespace {

constexpr std::uint16_t kMagnetTemperatures = 0x3001;
constexpr std::uint16_t kMagnetHeaters = 0x3002;
constexpr std::uint16_t kMagnetTargets = 0x3004;
constexpr std::uint16_t kShimTemperatures = 0x3101;
constexpr std::uint16_t kShimTargets = 0x3104;
constexpr std::uint16_t kIsoBoxTemperatures = 0x3201;
constexpr std::uint16_t kIsoBoxPeltier = 0x3202;
constexpr std::uint16_t kIsoBoxTarget = 0x3204;
constexpr std::uint16_t kIsoBoxFan = 0x3205;
constexpr std::uint16_t kProbeTemperatures = 0x3301;
constexpr std::uint16_t kSpiralPower = 0x3302;
constexpr std::uint16_t kProbeControl = 0x3303;
constexpr std::uint16_t kProbeTargets = 0x3304;
constexpr std::uint16_t kSetup = 0x3401;

// Subindexes where one index holds different things.
constexpr std::uint8_t kInterfaceBoardStatus = 6; // of kIsoBoxTemperatures
constexpr std::uint8_t kProbe = 1;                // of kProbeTemperatures and kProbeTargets
constexpr std::uint8_t kSpiral = 2;               // of the same
constexpr std::uint8_t kExhaust = 3;              // of kProbeTemperatures
constexpr std::uint8_t kRegulatedLower = 4;       // of kProbeTargets
constexpr std::uint8_t kRegulatedUpper = 6;       // of kProbeTargets
constexpr std::uint8_t kSpiralRegulation = 1;     // of kProbeControl
constexpr std::uint8_t kProbeRegulation = 2;
constexpr std::uint8_t kFlowIndex = 3;
constexpr std::uint8_t kOvercurrentCount = 4;
constexpr std::uint8_t kHeatingTimeout = 6;
constexpr std::uint8_t kFlowBoxEcl = 7;
constexpr std::uint8_t kPIDParametersStatus = 1; // of kSetup
constexpr std::uint8_t kIsoBoxTemperingMode = 3;
constexpr std::uint8_t kShimTemperingMode = 4;
constexpr std::uint8_t kVTMode = 5;
constexpr std::uint8_t kEEPROM = 6;

constexpr unsigned kExpectedPIDParametersStatus = 3;

constexpr auto kInterfaceBoardPatience = 20s;
constexpr auto kInterfaceBoardPause = 250ms;
/// The status of the interface board's data is above it when they are there.
constexpr unsigned kNoInterfaceBoardData = 127;

bool isOneOf(unsigned char aId, unsigned char aLast) {
    return aId >= 1 && aId <= aLast;
}

std::uint8_t following(unsigned char aId) {
    return static_cast<std::uint8_t>(aId + 1);
}

/// The thousandths of a value, of which the board takes the low 16 bits. Negative values and NaN give 0, as
/// the instrument's processor does it; a plain cast would leave them undefined.
std::uint16_t thousandthsInLowWord(double aValue) {
    double const thousandths = aValue * 1000.0;
    if (std::isnan(thousandths) || thousandths <= 0.0) {
        return 0;
    }
    constexpr double kLargest = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint16_t>(static_cast<std::uint32_t>(std::fmin(thousandths, kLargest)) & 0xFFFFU);
}

/// A temperature in K as thousandths of a degree Celsius.
std::int32_t milliCelsius(double aKelvin) {
    return saturatedToInt32(velmor::units::kelvinToCelsius(aKelvin) * 1000.0);
}

} // namespace

TempBoardQ47::TempBoardQ47(std::shared_ptr<CanOpenMaster> const& aMaster,
                           std::shared_ptr<DeviceIdServiceContributorIfc> aContributor,
                           std::string const& aFirmwareRoot,
                           unsigned char aCanId)
    : Logger("TempBoardQ47(canID = " + std::to_string(aCanId) + ")", "Temperature")
    , CortexMCanOpenNodeClient(aMaster,
                               aCanId,
                               aFirmwareRoot + "/" + "build.info",
                               aFirmwareRoot + "/" + "Q47_VT_CAN_update.bin.gz",
                               std::move(aContributor)) {}

double TempBoardQ47::temperature(std::uint16_t aIndex, std::uint8_t aSubindex) const {
    return velmor::units::milliCelsiusToKelvin(canopenClient()->readUInt16(aIndex, aSubindex));
}

double TempBoardQ47::temperatureInt32(std::uint16_t aIndex, std::uint8_t aSubindex) const {
    return velmor::units::milliCelsiusToKelvin(canopenClient()->readInt32(aIndex, aSubindex));
}

// ----------------------------------------------------------------------------------------------- records

std::string TempBoardQ47::mds() {
    return CortexMCanOpenNodeClient::mds();
}

std::string TempBoardQ47::mdsOfATFlowBox() {
    throw std::runtime_error("Not implemented");
}

// ------------------------------------------------------------------------------------------------ magnet

double TempBoardQ47::magnetTemperature() const {
    return temperature(kMagnetTemperatures, 1);
}

double TempBoardQ47::magnetTemperatureSensor(unsigned char aId) const {
    if (!isOneOf(aId, 6)) {
        throw std::runtime_error("Unknown sensor requested");
    }
    return temperature(kMagnetTemperatures, following(aId));
}

double TempBoardQ47::magnetHeaterVoltage(unsigned char aId) const {
    if (!isOneOf(aId, 6)) {
        throw std::invalid_argument("Unknown magnet heater voltage requested");
    }
    return canopenClient()->readUInt16(kMagnetHeaters, aId) / 1000.0;
}

double TempBoardQ47::targetMagnetTemperature(unsigned char aId) const {
    if (!isOneOf(aId, 7)) {
        throw std::invalid_argument("Invalid target magnet temperature requested");
    }
    return temperature(kMagnetTargets, following(aId));
}

void TempBoardQ47::setTargetMagnetTemperature(double aTemperature) {
    // Intended: the only target that is not converted from kelvin.
    canopenClient()->writeUInt16(kMagnetTargets, 1, thousandthsInLowWord(aTemperature));
}

// -------------------------------------------------------------------------------------------- shim coils

double TempBoardQ47::shimTemperature() const {
    return temperature(kShimTemperatures, 1);
}

double TempBoardQ47::shimTemperatureSensor(unsigned char aId) const {
    if (!isOneOf(aId, 2)) {
        throw std::runtime_error("Unknown sensor requested");
    }
    return temperature(kShimTemperatures, following(aId));
}

double TempBoardQ47::shimTargetTemperature(unsigned char aId, bool /*aFromHardware*/) const {
    if (!isOneOf(aId, 3)) {
        throw std::invalid_argument("Unknown shim target temperature requested");
    }
    return temperature(kShimTargets, aId);
}

void TempBoardQ47::setShimTargetTemperature(unsigned char aId, double aKelvin) {
    keplaDoLog(Severity::Info, "setShimTargetTemperature(id = %u, kelvin = %f)", {}, aId, aKelvin);
    if (!isOneOf(aId, 3)) {
        throw std::invalid_argument("Unknown shim target temperature requested");
    }
    canopenClient()->writeUInt16(kShimTargets, aId,
                                 thousandthsInLowWord(velmor::units::kelvinToCelsius(aKelvin)));
}

ShimTemperingMode TempBoardQ47::shimTemperingMode() const {
    std::uint8_t const mode = canopenClient()->readUInt8(kSetup, kShimTemperingMode);
    keplaDoLog(Severity::Info, "Shim tempering mode is currently %u", {}, mode);
    if (mode > static_cast<std::uint8_t>(ShimTemperingMode::Mode1)) {
        keplaDoLog(Severity::Error, "Unknown value for shim tempering mode (0x3401, 0x4): 0x%02X", {}, mode);
        throw std::runtime_error("Unknown value for shim tempering mode");
    }
    return static_cast<ShimTemperingMode>(mode);
}

void TempBoardQ47::setShimTemperingMode(ShimTemperingMode aMode) {
    auto const mode = static_cast<std::uint8_t>(aMode);
    keplaDoLog(Severity::Info, "Shim tempering mode will be set to %u", {}, mode);
    canopenClient()->writeUInt8(kSetup, kShimTemperingMode, mode);
}

// ----------------------------------------------------------------------------------------------- iso box

double TempBoardQ47::isoBoxTemperature() const {
    return temperature(kIsoBoxTemperatures, 1);
}

double TempBoardQ47::isoBoxTemperatureSensor(unsigned char aId) const {
    if (!isOneOf(aId, 6)) {
        throw std::runtime_error("Unknown sensor requested");
    }
    // Intended: the id itself, unlike the other sensors, so that 1 is the iso box and 6 the status of the
    // interface board's data.
    return temperature(kIsoBoxTemperatures, aId);
}

double TempBoardQ47::isoBoxTargetTemperature() const {
    return temperature(kIsoBoxTarget, 1);
}

unsigned char TempBoardQ47::isoBoxFanSpeed() const {
    return canopenClient()->readUInt8(kIsoBoxFan, 1);
}

double TempBoardQ47::isoBoxPeltierCurrentPercent() const {
    return canopenClient()->readUInt16(kIsoBoxPeltier, 1) / 10000.0;
}

IsoBoxTemperingMode TempBoardQ47::isoBoxTemperingMode() const {
    std::uint8_t const mode = canopenClient()->readUInt8(kSetup, kIsoBoxTemperingMode);
    keplaDoLog(Severity::Info, "Iso box tempering mode is currently %u", {}, mode);
    return static_cast<IsoBoxTemperingMode>(mode);
}

void TempBoardQ47::setIsoBoxTemperingMode(IsoBoxTemperingMode aMode) {
    auto const mode = static_cast<std::uint8_t>(aMode);
    keplaDoLog(Severity::Info, "Iso box tempering mode will be set to %u", {}, mode);
    canopenClient()->writeUInt8(kSetup, kIsoBoxTemperingMode, mode);
}

// --------------------------------------------------------------------------------------- the AT option

VTMode TempBoardQ47::vtMode() {
    if (int const known = mVTMode; known != kVTModeUnknown) {
        return static_cast<VTMode>(known);
    }
    keplaDoLog(Severity::Debug, "Reading VT mode from hardware", {});
    std::uint8_t const mode = canopenClient()->readUInt8(kSetup, kVTMode);
    keplaDoLog(Severity::Info, "VT mode is currently: %u", {}, mode);
    if (mode > static_cast<std::uint8_t>(VTMode::PortExpander)) {
        keplaDoLog(Severity::Error, "Unknown value for the VT mode (0x3401, 0x05): 0x%02X", {}, mode);
        throw std::runtime_error("Unknown value for the VT mode");
    }
    // What was set meanwhile is newer than what was read.
    int known = kVTModeUnknown;
    return static_cast<VTMode>(mVTMode.compare_exchange_strong(known, mode) ? mode : known);
}

void TempBoardQ47::setVTMode(VTMode aMode) {
    auto const mode = static_cast<std::uint8_t>(aMode);
    keplaDoLog(Severity::Info, "VT Mode will be set to %u", {}, mode);
    canopenClient()->writeUInt8(kSetup, kVTMode, mode);
    mVTMode = mode;
}

bool TempBoardQ47::hasAT() {
    return vtMode() != VTMode::None;
}

void TempBoardQ47::checkForATMode() {
    if (!hasAT()) {
        throw std::runtime_error(
            "This system doesn't have the AT option: the requested operation cannot be performed");
    }
}

// ----------------------------------------------------------------------------------------- probe and gas

double TempBoardQ47::probeTemperature() {
    double const kelvin = hasAT() ? temperatureInt32(kProbeTemperatures, kProbe) : 0.0;
    keplaDoLog(Severity::Trace, "Probe temperature is %.f Kelvin", {}, kelvin);
    return kelvin;
}

double TempBoardQ47::probeGasHeatingSpiralTemperature() {
    double const kelvin = hasAT() ? temperatureInt32(kProbeTemperatures, kSpiral) : 0.0;
    keplaDoLog(Severity::Trace, "Gas heating spiral temperature is %.f Kelvin", {}, kelvin);
    return kelvin;
}

double TempBoardQ47::probeGasExhaustTemperature() {
    double const kelvin = hasAT() ? temperatureInt32(kProbeTemperatures, kExhaust) : 0.0;
    keplaDoLog(Severity::Trace, "Gas exhaust temperature is %.f Kelvin", {}, kelvin);
    return kelvin;
}

double TempBoardQ47::targetProbeTemperature() const {
    return temperatureInt32(kProbeTargets, kProbe);
}

void TempBoardQ47::setTargetProbeTemperature(double aKelvin) {
    checkForATMode();
    canopenClient()->writeInt32(kProbeTargets, kProbe, milliCelsius(aKelvin));
}

bool TempBoardQ47::probeTemperatureRegulation() {
    return hasAT() && canopenClient()->readUInt8(kProbeControl, kProbeRegulation) != 0;
}

void TempBoardQ47::setProbeTemperatureRegulation(bool aEnabled) {
    keplaDoLog(Severity::Info, "Set probe temperature regulation to enabled = %d", {}, aEnabled);
    checkForATMode();
    canopenClient()->writeUInt8(kProbeControl, kProbeRegulation, aEnabled ? 1 : 0);
}

double TempBoardQ47::probeGasHeatingSpiralPower() {
    double const watt = hasAT() ? canopenClient()->readUInt16(kSpiralPower, 1) / 1000.0 : 0.0;
    keplaDoLog(Severity::Trace, "Probe gas heating spiral power is %.f Watt", {}, watt);
    return watt;
}

void TempBoardQ47::setProbeGasHeatingSpiralPower(double aWatt) {
    keplaDoLog(Severity::Info, "Set probe gas heating spiral power to %.f Watt", {}, aWatt);
    checkForATMode();
    canopenClient()->writeUInt16(kSpiralPower, 1, thousandthsInLowWord(aWatt));
}

bool TempBoardQ47::probeGasHeatingSpiralRegulation() {
    bool const enabled = hasAT() && canopenClient()->readUInt8(kProbeControl, kSpiralRegulation) != 0;
    keplaDoLog(Severity::Trace, "Probe gas heating spiral regulation enabled is %d", {}, enabled);
    return enabled;
}

void TempBoardQ47::setProbeGasHeatingSpiralRegulation(bool aEnabled) {
    keplaDoLog(Severity::Info, "Set probe gas heating spiral regulation enabled to %d", {}, aEnabled);
    checkForATMode();
    // Intended: not the object that the getter reads.
    canopenClient()->writeUInt8(kProbeTemperatures, kSpiral, aEnabled ? 1 : 0);
}

double TempBoardQ47::probeGasHeatingSpiralTargetTemperature() {
    checkForATMode();
    return temperatureInt32(kProbeTargets, kSpiral);
}

void TempBoardQ47::setProbeGasHeatingSpiralTargetTemperature(double aKelvin) {
    keplaDoLog(Severity::Info, "Setting probe gas heating spiral target temperature to %.f", {}, aKelvin);
    checkForATMode();
    // Intended: written without sign, unlike the target of the probe.
    canopenClient()->writeUInt32(kProbeTargets, kSpiral, static_cast<std::uint32_t>(milliCelsius(aKelvin)));
}

unsigned TempBoardQ47::probeGasOvercurrentCountSinceLastRead() {
    unsigned const count = canopenClient()->readUInt8(kProbeControl, kOvercurrentCount);
    if (count != 0) {
        keplaDoLog(Severity::Error, "Over current conditions count = %u", {}, count);
    }
    return count;
}

unsigned char TempBoardQ47::probeGasFlow() {
    unsigned char const flowIndex = canopenClient()->readUInt8(kProbeControl, kFlowIndex);
    keplaDoLog(Severity::Trace, "probeGasFlow() = %u", {}, flowIndex);
    return flowIndex;
}

void TempBoardQ47::setProbeGasFlow(unsigned char aFlowIndex) {
    keplaDoLog(Severity::Debug, "setProbeGasFlow(flowIndex = %u)", {}, aFlowIndex);
    // The value that is remembered must be the one that was written last, whoever else writes one.
    std::lock_guard const lock(mFlowMutex);
    if (aFlowIndex == mFlowIndex) {
        return;
    }
    canopenClient()->writeUInt8(kProbeControl, kFlowIndex, aFlowIndex);
    mFlowIndex = aFlowIndex;
}

std::pair<double, double> TempBoardQ47::probeGasRegulatedTemperatureRange() const {
    return mRegulatedRange;
}

unsigned char TempBoardQ47::probeGasHeatingTimeout() const {
    unsigned char const seconds = canopenClient()->readUInt8(kProbeControl, kHeatingTimeout);
    keplaDoLog(Severity::Debug, "probeGasHeatingTimeout = %u seconds", {}, seconds);
    return seconds;
}

void TempBoardQ47::setProbeGasHeatingTimeout(unsigned char aSeconds) {
    keplaDoLog(Severity::Info, "setProbeGasHeatingTimeout(seconds = %u)", {}, aSeconds);
    canopenClient()->writeUInt8(kProbeControl, kHeatingTimeout, aSeconds);
}

unsigned char TempBoardQ47::guessedFlowBoxEcl() {
    unsigned char const ecl = canopenClient()->readUInt8(kProbeControl, kFlowBoxEcl);
    keplaDoLog(Severity::Debug, "guessedFlowBoxEcl = %u", {}, ecl);
    return ecl;
}

// ------------------------------------------------------------------------------------------------ EEPROM

bool TempBoardQ47::setupSavedOnEEPROM() const {
    bool const saved = canopenClient()->readUInt8(kSetup, kEEPROM) == 1;
    keplaDoLog(Severity::Info, "Current board configuration is saved on EEPROM: %d", {}, saved);
    return saved;
}

void TempBoardQ47::saveSetupToEEPROM() const {
    keplaDoLog(Severity::Info, "Saving the current setup to TemperatureBoard's EEPROM", {});
    canopenClient()->writeUInt8(kSetup, kEEPROM, 1);
}

// ------------------------------------------------------------------------------------- hooks of the base

void TempBoardQ47::afterPrepare() {
    keplaDoLog(Severity::Info, "afterPrepare: reading static values once from the board", {});
    mRegulatedRange.first = temperatureInt32(kProbeTargets, kRegulatedLower);
    mRegulatedRange.second = temperatureInt32(kProbeTargets, kRegulatedUpper);
    std::lock_guard const lock(mFlowMutex);
    mFlowIndex = probeGasFlow();
}

void TempBoardQ47::preFirmwareUpdate(bool aProgramRuns) {
    if (!aProgramRuns) {
        return;
    }
    for (SavedValues* const saved : {&mSavedMagnet, &mSavedShim, &mSavedIsoBox}) {
        save(*saved);
    }
    try {
        if (hasAT()) {
            libfieldwarden::temperature::ATHardPowerOff(shared_from_this());
        }
    } catch (...) {
        keplaDoLog(Severity::Error,
                   "Failed to check if hasAT or to perform the ATHardPowerOff, still continue with firmware "
                   "update",
                   {});
    }
}

void TempBoardQ47::postFirmwareUpdate() {
    for (SavedValues const* const saved : {&mSavedMagnet, &mSavedShim, &mSavedIsoBox}) {
        restore(*saved);
    }
    if (!waitForDataFromInterfaceBoard()) {
        return;
    }
    unsigned const status = canopenClient()->readUInt8(kSetup, kPIDParametersStatus);
    if (status != kExpectedPIDParametersStatus) {
        keplaDoLog(Severity::Warning,
                   "Default PID parameters status is %u but 3 was expected: but doing nothing", {}, status);
    }
}

void TempBoardQ47::save(SavedValues& aSaved) {
    keplaDoLog(Severity::Trace, "Saving values for index 0x%X before firmware upgrade", {}, aSaved.index);
    for (std::size_t subindex = 1; subindex < aSaved.values.size(); ++subindex) {
        aSaved.values[subindex - 1] =
            canopenClient()->readUInt16(aSaved.index, static_cast<std::uint8_t>(subindex));
        keplaDoLog(Severity::Trace, "Read value %d", {}, aSaved.values[subindex - 1]);
    }
}

void TempBoardQ47::restore(SavedValues const& aSaved) {
    keplaDoLog(Severity::Trace, "Restoring values for index 0x%X after firmware upgrade", {}, aSaved.index);
    for (std::size_t position = 0; position + 1 < aSaved.values.size(); ++position) {
        canopenClient()->writeUInt16(aSaved.index, static_cast<std::uint8_t>(position + 1),
                                     aSaved.values[position]);
        keplaDoLog(Severity::Trace, "Restored value %d", {}, aSaved.values[position]);
    }
}

bool TempBoardQ47::waitForDataFromInterfaceBoard() {
    keplaDoLog(Severity::Debug, "checking/waiting for data from interface board to be ready", {});
    Clock& clock = Clock::current();
    auto const start = clock.now();
    bool ready = false;
    while (true) {
        unsigned const status = canopenClient()->readUInt16(kIsoBoxTemperatures, kInterfaceBoardStatus);
        keplaDoLog(Severity::Trace, "IF board data read status (0x3201/0x06) is %u", {}, status);
        ready = status > kNoInterfaceBoardData;
        if (ready) {
            break;
        }
        if (clock.now() - start > kInterfaceBoardPatience) {
            keplaDoLog(
                Severity::Critical,
                "After 20s the data from the Interface Board have not been read, status is still 0x%04X", {},
                status);
            break;
        }
        clock.sleepFor(kInterfaceBoardPause);
    }
    keplaDoLog(Severity::Info, "data from interface board ready is %d", {}, ready);
    return ready;
}

// -------------------------------------------------------------------------------------------------- dump

void TempBoardQ47::dumpCANopenValues(std::string const& aDirectory) {
    try {
        auto const path = std::filesystem::path(aDirectory) / "canopen_temperature.dump";
        libfieldwarden::dump::writeFile(path, [this](std::ostream& aStream) {
            libfieldwarden::tempboardq47::dumpCANopenDicOjbForLog(canopenClient(), aStream);
        });
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to dump CanOpen values with '%s'", {}, error.what());
    }
}
