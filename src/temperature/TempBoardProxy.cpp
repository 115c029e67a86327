// SPDX-License-Identifier: Apache-2.0
// The temperature board's channels, and which operation pushes, tells or remembers what.
#include "temperature/TempBoardProxy.h"

#include "temperature/TemperatureListenerSync.h"

#include <velmor/kepla/datalogger/DataLoggerInterface.h>
#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <span>
#include <stdexcept>
#include <string_view>

#include <fmt/format.h>

using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::log::Severity;
using velmor::kepla::utils::PeriodicCallerManagerIfc;
using velmor::platform::Clock;

namespace {

constexpr double kPollPeriodSeconds = 10.0;
constexpr std::chrono::seconds kStatisticsPeriod{600};
/// The target of the shim coils at which their temperature is passed on as it is.
constexpr double kNominalShimKelvin = 298.15;

constexpr unsigned char kMagnetSensors = 6;
constexpr unsigned char kIsoBoxSensors = 6;
constexpr unsigned char kShimSensors = 2;
constexpr unsigned char kShimTargets = 3;

/// What stands for one member of a family in its path and its description.
struct Member {
    std::string_view name;
    std::string_view text{};
};

constexpr Member kSingle[]{{""}};
constexpr Member kNumbers[]{{"1"}, {"2"}};
constexpr Member kPositions[]{{"Left_ST19"}, {"Right_ST27"}, {"Front_ST29"},
                              {"Back_ST28"}, {"Top_ST30"},   {"Bottom_ST26"}};
// Intended: five names for the board's six sensors. The sixth object is also the interface board's status.
constexpr Member kIsoBoxNames[]{
    {"1_reference", "Subindex 1 PT100 at CH10/ST16 - Reference IsoBox Temperature"},
    {"2_local_thermistor_reference", "Subindex 2 PT100 at CH12/ST12 - Local, Thermistor reference"},
    {"3_heatsink_airflow", "Subindex 3 PT100 at CH9/ST15 - CH9, Heatsink airflow"},
    {"4_IF_electronics", "Subindex 4 PT100 at CH8/ST23  - IF Electronics"},
    {"5_VT_mix_gas_exhaust", "SubIndex 5 PT100 at CH11/ST11 - VT mix gas at exhaust"},
};

enum class Statistics : std::uint8_t { Shared, Without };

/// A part of a path or a description with "{n}" replaced by a member's number from 1 on, "{name}" by its name
/// and "{text}" by its text.
std::string expand(std::string_view aPattern, std::size_t aNumber, Member const& aMember) {
    return fmt::format(fmt::runtime(aPattern), fmt::arg("n", aNumber), fmt::arg("name", aMember.name),
                       fmt::arg("text", aMember.text));
}

} // namespace

/// One line of the table of channels.
struct TempBoardProxy::ChannelFamily {
    std::array<std::string_view, 3> path; ///< Behind "temperatureBoard"; empty parts are left out.
    std::span<Member const> members;
    DataLoggerUnit unit;
    Statistics statistics;
    DataLoggerStorageType storage;
    std::string_view description;
};

using enum DataLoggerUnit;
using enum DataLoggerStorageType;
using enum Statistics;

// Readings, and targets that somebody moves, come all the time; targets that are read once are kept for long.
// clang-format off
constexpr TempBoardProxy::ChannelFamily TempBoardProxy::kChannelFamilies[kSignals]{
    {{"magnet", "{name}", "temperature"},                 kPositions,   Kelvin,        Shared,  ShortTerm,
     "Magnet temperature sensor {n}, position {name}"},
    {{"magnet", "{name}", "heater_voltage"},              kPositions,   Volt,          Shared,  ShortTerm,
     "Magnet heater {n} voltage, position {name}"},
    {{"magnet", "{name}", "target_temperature"},          kPositions,   Kelvin,        Without, LongTerm,
     "Target temperature for the sensor {n}, position {name}"},
    {{"magnet", "temperature", "global"},                 kSingle,      Kelvin,        Shared,  ShortTerm,
     "average of the 6 magnet temperature sensors"},
    {{"shim", "temperature", "global"},                   kSingle,      Kelvin,        Shared,  ShortTerm,
     "average of the 2 shim temperature sensors"},
    {{"shim", "temperature", "{n}"},                      kNumbers,     Kelvin,        Shared,  ShortTerm,
     "Shim temperature sensor {n}"},
    {{"shim", "temperature", "{n}_target"},               kNumbers,     Kelvin,        Without, ShortTerm,
     "Target temperature for shim temperature sensor {n}"},
    {{"shim", "heating_mat", "current"},                  kSingle,      Ampere,        Shared,  ShortTerm,
     "Current to the shim heating mat"},
    {{"shim", "heating_mat", "power"},                    kSingle,      Watt,          Shared,  ShortTerm,
     "Instantaneous power sent to the shim heating mat"},
    {{"isobox", "temperature", "global"},                 kSingle,      Kelvin,        Shared,  ShortTerm,
     "average of the 6 iso box temperature sensors"},
    {{"isobox", "temperature", "{name}"},                 kIsoBoxNames, Kelvin,        Shared,  ShortTerm,
     "{text}"},
    {{"isobox", "peltier", "current_percent"},            kSingle,      Dimensionless, Shared,  ShortTerm,
     "Percentage of the maximum current that flows through the IosBox peltier"}, // intended: "IosBox", and a share of 1
    {{"isobox", "fan", "speed"},                          kSingle,      Dimensionless, Without, ShortTerm,
     "0 = off, 1 = 12V, 2 = 16V"},
    {{"isobox", "temperature_target"},                    kSingle,      Kelvin,        Without, LongTerm,
     "Target temperature for the iso box"},
    {{"probe", "temperature"},                            kSingle,      Kelvin,        Shared,  ShortTerm,
     "Probe's temperature. Only available on AT systems."},
    {{"probe", "heating_spiral", "temperature"},          kSingle,      Kelvin,        Shared,  ShortTerm,
     "Temperature of the spiral used to heat the probe gas"},
    {{"probe", "exhaust", "temperature"},                 kSingle,      Kelvin,        Shared,  ShortTerm,
     "Temperature of the exhaust gas"},
    {{"probe", "target_temperature"},                     kSingle,      Kelvin,        Without, ShortTerm,
     "Target temperature for the probe. Doesn't immediately reflect the one set by the user (ramp)."},
    {{"probe", "heating_spiral", "power"},                kSingle,      Watt,          Shared,  ShortTerm,
     "The power injected in the heating spiral"},
    {{"probe", "heating_spiral", "regulation_enabled"},   kSingle,      Boolean,       Shared,  ShortTerm,
     "Is the heating spiral temperature regulation enabled or not"},
    {{"probe", "temperature_regulation_enabled"},         kSingle,      Boolean,       Shared,  ShortTerm,
     "Is the temperature regulation of the probe enabled or not?"},
    {{"probe", "gas_overcurrent_count"},                  kSingle,      Dimensionless, Shared,  ShortTerm,
     "Number of overcurrent condition that occurred. Not cumulative, value since last data point."},
    {{"probe", "heating_spiral", "target_temperature"},   kSingle,      Kelvin,        Without, ShortTerm,
     "Target temperature for the heating spiral"},
    {{"probe", "gas_flow_index"},                         kSingle,      Dimensionless, Shared,  ShortTerm,
     "Index of the gas flow set on the board. 0 is off, 1 is hold gas, 2-4 are th"}, // intended: cut short
};
// clang-format on

TempBoardProxy::TempBoardProxy(std::shared_ptr<TempBoardQ47Ifc> aBoard,
                               std::shared_ptr<TemperatureListenerSync> aListener,
                               std::shared_ptr<DataLoggerInterface> const& aDataLogger,
                               std::shared_ptr<PeriodicCallerManagerIfc> aPeriodicCallers)
    : Logger("TempBoardProxy", "Temperature")
    , mClock(Clock::current())
    , mBoard(std::move(aBoard))
    , mListener(std::move(aListener))
    , mPeriodicCallers(std::move(aPeriodicCallers)) {
    createChannels(*aDataLogger);
}

TempBoardProxy::~TempBoardProxy() {
    mPollHandle.reset();
}

void TempBoardProxy::init() {
    mPollHandle = mPeriodicCallers->createPeriodicCaller(kPollPeriodSeconds, [this] { poll(); });
    singleShot();
}

// ---------------------------------------------------------------------------------------------- channels

void TempBoardProxy::createChannels(DataLoggerInterface& aDataLogger) {
    DataLoggerStats const shared(DataLoggerStorageType::LongTerm, kStatisticsPeriod);
    DataLoggerStats const none = DataLoggerStats::none();
    for (std::size_t signal = 0; signal < kSignals; ++signal) {
        ChannelFamily const& family = kChannelFamilies[signal];
        for (std::size_t number = 1; number <= family.members.size(); ++number) {
            Member const& member = family.members[number - 1];
            std::vector<std::string> path{"temperatureBoard"};
            for (std::string_view const part : family.path) {
                if (!part.empty()) {
                    path.push_back(expand(part, number, member));
                }
            }
            mChannels[signal].push_back(aDataLogger.createChannel(
                {std::move(path), family.unit, family.statistics == Statistics::Shared ? shared : none,
                 family.storage, expand(family.description, number, member)}));
        }
    }
}

/// Pushes a value that was just read or written. An index without a channel, as that of an id that the board
/// knows and the table does not, pushes nothing; id - 2 of a small id wraps and is none either.
void TempBoardProxy::record(Signal aSignal, std::size_t aIndex, double aValue) const {
    auto const& family = mChannels[static_cast<std::size_t>(aSignal)];
    if (aIndex < family.size()) {
        family[aIndex]->push(aValue, mClock.systemNow());
    }
}

// ------------------------------------------------------------------------------------- magnet and iso box

double TempBoardProxy::magnetTemperature() const {
    double const kelvin = mBoard->magnetTemperature();
    record(Signal::Magnet, 0, kelvin);
    mListener->magnetTemperatureChanged(kelvin);
    return kelvin;
}

double TempBoardProxy::magnetTemperatureSensor(unsigned char aId) const {
    double const kelvin = mBoard->magnetTemperatureSensor(aId);
    record(Signal::MagnetSensor, std::size_t{aId} - 1, kelvin);
    return kelvin;
}

double TempBoardProxy::magnetHeaterVoltage(unsigned char aId) const {
    double const volt = mBoard->magnetHeaterVoltage(aId);
    record(Signal::MagnetHeaterVoltage, std::size_t{aId} - 1, volt);
    return volt;
}

double TempBoardProxy::targetMagnetTemperature(unsigned char aId) const {
    if (aId < mMagnetTargets.size()) {
        if (auto const known = mMagnetTargets[aId].get()) {
            return *known;
        }
    }
    double const kelvin = mBoard->targetMagnetTemperature(aId);
    pushTargetMagnetTemperature(aId, kelvin);
    return kelvin;
}

void TempBoardProxy::pushTargetMagnetTemperature(unsigned char aId, double aKelvin) const {
    if (aId < mMagnetTargets.size()) {
        mMagnetTargets[aId].set(aKelvin);
    }
    // Intended: off by two, so that id 2 goes to the channel of position 1, and ids 0 and 1 to none.
    record(Signal::MagnetTarget, std::size_t{aId} - 2, aKelvin);
}

void TempBoardProxy::setTargetMagnetTemperature(double aTemperature) {
    mBoard->setTargetMagnetTemperature(aTemperature); // Intended: what is remembered stays.
}

double TempBoardProxy::isoBoxTemperature() const {
    double const kelvin = mBoard->isoBoxTemperature();
    record(Signal::IsoBox, 0, kelvin);
    return kelvin;
}

double TempBoardProxy::isoBoxTemperatureSensor(unsigned char aId) const {
    double const kelvin = mBoard->isoBoxTemperatureSensor(aId);
    record(Signal::IsoBoxSensor, std::size_t{aId} - 1, kelvin);
    return kelvin;
}

double TempBoardProxy::isoBoxTargetTemperature() const {
    if (auto const known = mIsoBoxTarget.get()) {
        return *known;
    }
    double const kelvin = mBoard->isoBoxTargetTemperature();
    mIsoBoxTarget.set(kelvin);
    record(Signal::IsoBoxTarget, 0, kelvin);
    return kelvin;
}

unsigned char TempBoardProxy::isoBoxFanSpeed() const {
    unsigned char const speed = mBoard->isoBoxFanSpeed();
    record(Signal::IsoBoxFanSpeed, 0, speed);
    return speed;
}

double TempBoardProxy::isoBoxPeltierCurrentPercent() const {
    double const share = mBoard->isoBoxPeltierCurrentPercent();
    record(Signal::IsoBoxPeltierCurrent, 0, share);
    return share;
}

IsoBoxTemperingMode TempBoardProxy::isoBoxTemperingMode() const {
    return mBoard->isoBoxTemperingMode();
}

void TempBoardProxy::setIsoBoxTemperingMode(IsoBoxTemperingMode aMode) {
    mBoard->setIsoBoxTemperingMode(aMode);
}

// --------------------------------------------------------------------------------------------- shim coils

double TempBoardProxy::shimTemperature() const {
    double const measured = mBoard->shimTemperature();
    record(Signal::Shim, 0, measured);
    // The lock moves the target; that shall not show as a change of the coils' temperature.
    double const corrected = measured + kNominalShimKelvin - mBoard->shimTargetTemperature(1, false);
    mListener->coilTemperatureChanged(corrected);
    return corrected;
}

double TempBoardProxy::shimTemperatureSensor(unsigned char aId) const {
    double const kelvin = mBoard->shimTemperatureSensor(aId);
    record(Signal::ShimSensor, std::size_t{aId} - 1, kelvin);
    return kelvin;
}

double TempBoardProxy::shimTargetTemperature(unsigned char aId, bool aFromHardware) const {
    std::size_t const index = std::size_t{aId} - 1;
    if (index >= mShimTargets.size()) {
        keplaDoLog(Severity::Error, "Invalid shimTargetTemperature ID has been provided: %u", {}, aId);
        throw std::runtime_error("Invalid id provided for shimTargetTemperature");
    }
    if (!aFromHardware) {
        if (auto const known = mShimTargets[index].get()) {
            return *known;
        }
    }
    keplaDoLog(Severity::Trace, "shimTargetTemperature(id = %u): reading it from HW", {}, aId);
    double const kelvin = mBoard->shimTargetTemperature(aId, aFromHardware);
    mShimTargets[index].set(kelvin);
    record(Signal::ShimTarget, std::size_t{aId} - 2,
           kelvin); // Intended: off by two, id 1 goes to no channel.
    return kelvin;
}

void TempBoardProxy::setShimTargetTemperature(unsigned char aId, double aKelvin) {
    mBoard->setShimTargetTemperature(aId, aKelvin);
    if (std::size_t const index = std::size_t{aId} - 1; index < mShimTargets.size()) {
        mShimTargets[index].set(aKelvin);
    }
    if (aId == 1) {
        // The target of both sensors.
        for (std::size_t sensor = 0; sensor < kShimSensors; ++sensor) {
            record(Signal::ShimTarget, sensor, aKelvin);
        }
    } else {
        record(Signal::ShimTarget, std::size_t{aId} - 2, aKelvin); // Intended: off by two.
    }
}

ShimTemperingMode TempBoardProxy::shimTemperingMode() const {
    return mBoard->shimTemperingMode();
}

void TempBoardProxy::setShimTemperingMode(ShimTemperingMode aMode) {
    mBoard->setShimTemperingMode(aMode);
}

// ----------------------------------------------------------------------------------- probe and probe gas

double TempBoardProxy::probeTemperature() {
    double const kelvin = mBoard->probeTemperature();
    record(Signal::Probe, 0, kelvin);
    mListener->probeTemperatureChanged(kelvin);
    return kelvin;
}

double TempBoardProxy::targetProbeTemperature() const {
    if (auto const known = mProbeTarget.get()) {
        return *known;
    }
    double const kelvin = mBoard->targetProbeTemperature();
    mProbeTarget.set(kelvin);
    record(Signal::ProbeTarget, 0, kelvin);
    return kelvin;
}

void TempBoardProxy::setTargetProbeTemperature(double aKelvin) {
    mBoard->setTargetProbeTemperature(aKelvin);
    record(Signal::ProbeTarget, 0, aKelvin);
    mProbeTarget.set(aKelvin);
}

bool TempBoardProxy::probeTemperatureRegulation() {
    bool const enabled = mBoard->probeTemperatureRegulation();
    record(Signal::ProbeRegulation, 0, enabled ? 1.0 : 0.0);
    return enabled;
}

void TempBoardProxy::setProbeTemperatureRegulation(bool aEnabled) {
    mBoard->setProbeTemperatureRegulation(aEnabled);
    record(Signal::ProbeRegulation, 0, aEnabled ? 1.0 : 0.0);
}

double TempBoardProxy::probeGasHeatingSpiralTemperature() {
    double const kelvin = mBoard->probeGasHeatingSpiralTemperature();
    record(Signal::SpiralTemperature, 0, kelvin);
    return kelvin;
}

double TempBoardProxy::probeGasHeatingSpiralTargetTemperature() {
    double const kelvin = mBoard->probeGasHeatingSpiralTargetTemperature();
    record(Signal::SpiralTarget, 0, kelvin);
    return kelvin;
}

void TempBoardProxy::setProbeGasHeatingSpiralTargetTemperature(double aKelvin) {
    mBoard->setProbeGasHeatingSpiralTargetTemperature(aKelvin);
    record(Signal::SpiralTarget, 0, aKelvin);
}

double TempBoardProxy::probeGasHeatingSpiralPower() {
    double const watt = mBoard->probeGasHeatingSpiralPower();
    record(Signal::SpiralPower, 0, watt);
    mListener->probeActualPowerChanged(watt);
    return watt;
}

void TempBoardProxy::setProbeGasHeatingSpiralPower(double aWatt) {
    mBoard->setProbeGasHeatingSpiralPower(aWatt);
    record(Signal::SpiralPower, 0, aWatt);
}

bool TempBoardProxy::probeGasHeatingSpiralRegulation() {
    bool const enabled = mBoard->probeGasHeatingSpiralRegulation();
    record(Signal::SpiralRegulation, 0, enabled ? 1.0 : 0.0);
    return enabled;
}

void TempBoardProxy::setProbeGasHeatingSpiralRegulation(bool aEnabled) {
    mBoard->setProbeGasHeatingSpiralRegulation(aEnabled);
    record(Signal::SpiralRegulation, 0, aEnabled ? 1.0 : 0.0);
}

unsigned TempBoardProxy::probeGasOvercurrentCountSinceLastRead() {
    unsigned const count = mBoard->probeGasOvercurrentCountSinceLastRead();
    record(Signal::OvercurrentCount, 0, count);
    return count;
}

double TempBoardProxy::probeGasExhaustTemperature() {
    double const kelvin = mBoard->probeGasExhaustTemperature();
    record(Signal::Exhaust, 0, kelvin);
    return kelvin;
}

unsigned char TempBoardProxy::probeGasFlow() {
    unsigned char const index = mBoard->probeGasFlow();
    record(Signal::GasFlowIndex, 0, index);
    return index;
}

void TempBoardProxy::setProbeGasFlow(unsigned char aFlowIndex) {
    mBoard->setProbeGasFlow(aFlowIndex);
    record(Signal::GasFlowIndex, 0, aFlowIndex);
}

std::pair<double, double> TempBoardProxy::probeGasRegulatedTemperatureRange() const {
    return mBoard->probeGasRegulatedTemperatureRange();
}

unsigned char TempBoardProxy::probeGasHeatingTimeout() const {
    return mBoard->probeGasHeatingTimeout();
}

void TempBoardProxy::setProbeGasHeatingTimeout(unsigned char aSeconds) {
    mBoard->setProbeGasHeatingTimeout(aSeconds);
}

unsigned char TempBoardProxy::guessedFlowBoxEcl() {
    return mBoard->guessedFlowBoxEcl();
}

// -------------------------------------------------------------------------------------------- board itself

std::string TempBoardProxy::mds() {
    return mBoard->mds();
}

std::string TempBoardProxy::mdsOfATFlowBox() {
    return mBoard->mdsOfATFlowBox();
}

VTMode TempBoardProxy::vtMode() {
    return mBoard->vtMode();
}

void TempBoardProxy::setVTMode(VTMode aMode) {
    mBoard->setVTMode(aMode);
}

bool TempBoardProxy::setupSavedOnEEPROM() const {
    return mBoard->setupSavedOnEEPROM();
}

void TempBoardProxy::saveSetupToEEPROM() const {
    mBoard->saveSetupToEEPROM();
}

void TempBoardProxy::dumpCANopenValues(std::string const& aDirectory) {
    mBoard->dumpCANopenValues(aDirectory);
}

// ---------------------------------------------------------------------------------------- poll and targets

void TempBoardProxy::guarded(char const* aCall, std::function<void()> const& aRead) const {
    try {
        aRead();
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "poll: %s failed with error %s", {}, aCall, error.what());
    } catch (...) {
        keplaDoLog(Severity::Error, "poll: %s failed with unknown error", {}, aCall);
    }
}

void TempBoardProxy::poll() {
    keplaDoLog(Severity::Trace, "+poll", {});
    for (unsigned char id = 1; id <= kMagnetSensors; ++id) {
        guarded("magnetHeaterVoltage(id)", [&] { magnetHeaterVoltage(id); });
    }
    guarded("isoBoxPeltierCurrentPercent()", [this] { isoBoxPeltierCurrentPercent(); });
    guarded("isoBoxTemperature()", [this] { isoBoxTemperature(); });
    guarded("isoBoxFanSpeed()", [this] { isoBoxFanSpeed(); });
    for (unsigned char id = 1; id <= kIsoBoxSensors; ++id) {
        guarded("isoBoxTemperatureSensor(id)", [&] { isoBoxTemperatureSensor(id); });
    }
    for (unsigned char id = 1; id <= kShimSensors; ++id) {
        guarded("shimTemperatureSensor(id)", [&] { shimTemperatureSensor(id); });
    }
    guarded("probeGasHeatingSpiralTemperature()", [this] { probeGasHeatingSpiralTemperature(); });
    guarded("probeGasHeatingSpiralPower()", [this] { probeGasHeatingSpiralPower(); });
    guarded("probeGasHeatingSpiralRegulation()", [this] { probeGasHeatingSpiralRegulation(); });
    guarded("probeGasOvercurrentCountSinceLastRead()", [this] { probeGasOvercurrentCountSinceLastRead(); });
    guarded("probeGasExhaustTemperature()", [this] { probeGasExhaustTemperature(); });
    guarded("probeGasHeatingSpiralTargetTemperature()", [this] { probeGasHeatingSpiralTargetTemperature(); });
    keplaDoLog(Severity::Trace, "-poll", {});
}

void TempBoardProxy::singleShot() {
    keplaDoLog(Severity::Debug, "+singleShot", {});
    try {
        targetMagnetTemperature(1);
        isoBoxTargetTemperature();
        for (unsigned char id = 1; id <= kMagnetSensors; ++id) {
            targetMagnetTemperature(id);
        }
        for (unsigned char id = 1; id <= kShimTargets; ++id) {
            shimTargetTemperature(id, true);
        }
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "singleShot failed with error %s", {}, error.what());
    } catch (...) {
        keplaDoLog(Severity::Error, "singleShot failed with unknown error", {});
    }
    keplaDoLog(Severity::Debug, "-singleShot", {});
}
