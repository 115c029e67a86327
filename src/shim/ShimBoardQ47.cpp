// SPDX-License-Identifier: Apache-2.0
// How a shim board's currents are set and proven, and what of the board goes to the data logger.
#include "shim/ShimBoardQ47.h"

#include "dump/DictionaryDump.h"
#include "shim/ShimDictionaryDump.h"

#include <velmor/platform/Clock.h>
#include <velmor/units/Units.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <fmt/printf.h>

using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::deviceid::DeviceIdServiceContributorIfc;
using velmor::kepla::log::Severity;
using velmor::kepla::utils::PeriodicCallerManagerIfc;
using velmor::platform::Clock;

namespace {

constexpr std::uint16_t kActualCurrents = 0x3000;
constexpr std::uint16_t kSetCurrents = 0x3001;
constexpr std::uint16_t kTemperatures = 0x3002;
constexpr std::uint16_t kCalibration = 0x3004;

/// A source that is out of order reports this plus an error code.
constexpr int kErrorBase = 10000000;
/// The largest value that reading takes for a current. Intended: reading back draws the line one higher.
constexpr int kLargestCurrent = kErrorBase - 1;
/// In uA; a smaller difference between set and actual current is none.
constexpr int kTolerance = 2;

constexpr double kTemperaturePeriodSeconds = 60.0;

struct Sensor {
    char const* channel;
    char const* description;
};
constexpr std::array<Sensor, 5> kSensors{{
    {"dacs_upper", "Temperature at DACs onboard area 1 (upper part of board)"},
    {"dacs_bottom", "Temperature at DACs onboard area 1 (lower part of board)"},
    {"heatsink_bottom", "Temperature at lower part of board's heatsink"},
    {"heatsink_middle", "Temperature at middle part of board's heatsink"},
    {"heatsink_upper", "Temperature at upper part of board's heatsink"},
}};

} // namespace

ShimBoardQ47::ShimBoardQ47(std::shared_ptr<CanOpenMaster> const& aMaster,
                           unsigned char aCanId,
                           std::string const& aFirmwareRoot,
                           std::shared_ptr<DataLoggerInterface> const& aDataLogger,
                           std::shared_ptr<PeriodicCallerManagerIfc> aPeriodicCallers,
                           std::shared_ptr<DeviceIdServiceContributorIfc> aContributor)
    : Logger("ShimBoardQ47(canID = " + std::to_string(aCanId) + ")", "Shim")
    , CortexMCanOpenNodeClient(aMaster,
                               aCanId,
                               aFirmwareRoot + "/" + "build.info",
                               aFirmwareRoot + "/" + "Q47_Shim_CAN_update.bin.gz",
                               std::move(aContributor))
    , mCanId(aCanId)
    , mPeriodicCallers(std::move(aPeriodicCallers)) {
    keplaDoLog(Severity::Trace, "~ShimBoardQ47 constructor", {});
    initializeDataLogger(aDataLogger);
}

ShimBoardQ47::~ShimBoardQ47() {
    keplaDoLog(Severity::Trace, "~ShimBoardQ47 destructor", {});
}

void ShimBoardQ47::initializeDataLogger(std::shared_ptr<DataLoggerInterface> const& aDataLogger) {
    constexpr double kNoLower = DataLoggerChannelInfo::kNoLowerLimit;
    constexpr double kNoUpper = DataLoggerChannelInfo::kNoUpperLimit;
    std::string const node = std::to_string(canopenClient()->nodeId());
    auto const create = [&](std::vector<std::string> aPath, DataLoggerUnit aUnit,
                            DataLoggerStats const& aStats, char const* aDescription) {
        return aDataLogger->createChannel({std::move(aPath),
                                           aUnit,
                                           aStats,
                                           DataLoggerStorageType::ShortTerm,
                                           aDescription,
                                           std::chrono::microseconds{0},
                                           kNoLower,
                                           kNoUpper,
                                           kNoLower,
                                           kNoUpper,
                                           {},
                                           true,
                                           0.001,
                                           0.0,
                                           1.0,
                                           false});
    };
    DataLoggerStats const stats(DataLoggerStorageType::LongTerm, std::chrono::seconds{600});
    mTemperatureChannels.clear();
    for (Sensor const& sensor : kSensors) {
        mTemperatureChannels.push_back(create({"shimboard", node, "temperature", sensor.channel},
                                              DataLoggerUnit::Kelvin, stats, sensor.description));
    }
    mCalibrationChannel = create(
        {"shimboard", node, "calibration_offset"}, DataLoggerUnit::Dimensionless, DataLoggerStats::none(),
        "CanOpen index 0x3004 sub index 1. < 128 -> not calibrated or EEPROM read error. > 128 means "
        "calibrated and data successfully read from EEPROM.");
}

// ---------------------------------------------------------------------------------------------- currents

unsigned ShimBoardQ47::getCurrentSourcesCount() {
    if (!mSourceCountKnown) {
        keplaDoLog(Severity::Trace, "~getCurrentSourcesCount: not read yet, asking the hardware", {});
        // Intended: asked for as 16 bits, of which 8 count.
        mSourceCount = static_cast<unsigned char>(canopenClient()->readUInt16(kActualCurrents, 0) & 0xFFU);
        keplaDoLog(Severity::Info, "~getCurrentSourcesCount: read %d from hardware", {}, mSourceCount.load());
        mSourceCountKnown = true;
    }
    return mSourceCount;
}

int ShimBoardQ47::getShimCurrent(int aSourceIndex) {
    keplaDoLog(Severity::Trace, "+getShimCurrent(sourceIndex = %d)", {}, aSourceIndex);
    if (aSourceIndex > 0 && static_cast<unsigned>(aSourceIndex) <= getCurrentSourcesCount()) {
        int const current =
            canopenClient()->readInt32(kActualCurrents, static_cast<std::uint8_t>(aSourceIndex));
        keplaDoLog(Severity::Info, "-getShimCurrent(sourceIndex = %d) = %d", {}, aSourceIndex, current);
        return current;
    }
    keplaDoLog(Severity::Error, "-getShimCurrent(sourceIndex = %d): invalid source index", {}, aSourceIndex);
    throw std::invalid_argument("Invalid shim current source index");
}

void ShimBoardQ47::getShimCurrents(std::vector<int>& aCurrents) {
    keplaDoLog(Severity::Trace, "+getShimCurrents", {});
    aCurrents.resize(getCurrentSourcesCount(), 0);
    auto const client = canopenClient();
    for (std::size_t source = 1; source <= aCurrents.size(); ++source) {
        aCurrents[source - 1] = client->readInt32(kActualCurrents, static_cast<std::uint8_t>(source));
    }
    for (std::size_t source = 1; source <= aCurrents.size(); ++source) {
        int const value = aCurrents[source - 1];
        if (value <= kLargestCurrent) {
            keplaDoLog(Severity::Info, "~getShimCurrents: shim[%d] = %d uA", {}, source, value);
            continue;
        }
        keplaDoLog(Severity::Critical,
                   "getShimCurrents: shim[%d] = %duA which is an error code. Consider it is set to zero.", {},
                   source, value);
        // Intended: the element behind the faulty source is zeroed, so that the read back still sees the
        // code.
        if (source < aCurrents.size()) {
            aCurrents[source] = 0;
        }
    }
    keplaDoLog(Severity::Trace, "-getShimCurrents", {});
}

void ShimBoardQ47::setShimCurrents(std::vector<int> const& aCurrents) {
    // Intended: the parenthesis stays open.
    keplaDoLog(Severity::Trace, "+setShimCurrents(currents.size() = %d", {}, aCurrents.size());
    unsigned const sources = getCurrentSourcesCount();
    if (aCurrents.size() != sources) {
        keplaDoLog(Severity::Error, "~setShimCurrents: currents.size() = %d but has %d sources", {},
                   aCurrents.size(), sources);
        throw std::invalid_argument(
            fmt::sprintf("Got %u shim values but needs %d", aCurrents.size(), sources));
    }
    for (std::size_t position = 0; position < aCurrents.size(); ++position) {
        keplaDoLog(Severity::Info, "~setShimCurrents: shim[%d] = %d uA", {}, position, aCurrents[position]);
    }
    try {
        writeShimCurrents(aCurrents);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "setShimCurrents: SDO upload failed with %s", {}, error.what());
        // Intended: what the read back finds is more telling, and takes the place of the write's failure.
        readBackShimCurrents(aCurrents);
        throw;
    }
    readBackShimCurrents(aCurrents);
    keplaDoLog(Severity::Trace, "-setShimCurrents", {});
}

void ShimBoardQ47::writeShimCurrents(std::vector<int> const& aCurrents) {
    std::vector<std::uint8_t> block;
    block.reserve(aCurrents.size() * sizeof(std::int32_t));
    for (int const current : aCurrents) {
        for (unsigned shift = 0; shift < 32; shift += 8) {
            block.push_back(static_cast<std::uint8_t>(static_cast<std::uint32_t>(current) >> shift));
        }
    }
    canopenClient()->writeBlock(kSetCurrents, 1, block.data(), block.size());
}

void ShimBoardQ47::readBackShimCurrents(std::vector<int> const& aRequested) {
    keplaDoLog(Severity::Trace, "+readBackShimCurrents", {});
    std::vector<int> actual;
    getShimCurrents(actual);
    if (actual.size() != aRequested.size()) {
        // Intended: "%ul" writes an l behind each number.
        keplaDoLog(Severity::Critical, "Read back %ul shim currents but expected %ul", {}, actual.size(),
                   aRequested.size());
        throw std::runtime_error("Mismatch in number of shim currents that have been read back");
    }
    std::ostringstream problems;
    for (std::size_t position = 0; position < actual.size(); ++position) {
        // Intended: a value of exactly the base is a current here, while getShimCurrents() calls it an error.
        if (actual[position] > kErrorBase) {
            problems << "Error code " << actual[position] - kErrorBase << " on source " << position + 1
                     << '\n';
            continue;
        }
        auto const difference = static_cast<std::int64_t>(actual[position]) - aRequested[position];
        if (std::abs(difference) >= kTolerance) {
            problems << "Source " << position + 1 << " value has a difference of " << difference
                     << "uA to requested value\n";
        }
    }
    if (std::string const text = problems.str(); !text.empty()) {
        keplaDoLog(Severity::Error, "%s", {}, text);
        throw std::runtime_error(text);
    }
}

// ------------------------------------------------------------------------- temperatures and calibration

double ShimBoardQ47::temperature(unsigned char aId) {
    if (aId < 1 || aId > kSensors.size()) {
        throw std::invalid_argument("Shim board temperature sensor ID must be between 1 and 5");
    }
    return velmor::units::milliCelsiusToKelvin(canopenClient()->readInt32(kTemperatures, aId));
}

void ShimBoardQ47::readTemperatures() {
    keplaDoLog(Severity::Trace, "+readTemperatures", {});
    for (std::size_t sensor = 0; sensor < kSensors.size(); ++sensor) {
        try {
            double const kelvin = temperature(static_cast<unsigned char>(sensor + 1));
            mTemperatureChannels[sensor]->push(kelvin, Clock::current().systemNow());
        } catch (std::exception const& error) {
            // Intended: the sensor is counted from 0 here.
            keplaDoLog(Severity::Warning, "Could not read temperature sensor %d. Error: %s", {}, sensor,
                       error.what());
        }
    }
}

unsigned ShimBoardQ47::calibrationOffset() const {
    return canopenClient()->readUInt8(kCalibration, 1);
}

// ------------------------------------------------------------------------------------- hooks of the base

void ShimBoardQ47::preFirmwareUpdate(bool aProgramRuns) {
    if (aProgramRuns) {
        getShimCurrents(mSavedCurrents);
    }
}

void ShimBoardQ47::postFirmwareUpdate() {
    if (mSavedCurrents.empty()) {
        return;
    }
    try {
        setShimCurrents(mSavedCurrents); // Intended: they stay saved.
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Critical,
                   "Failed to restore the shim currents after a firmware update. Reason was: %s", {},
                   error.what());
    }
}

void ShimBoardQ47::afterPrepare() {
    mPeriodicJob =
        mPeriodicCallers->createPeriodicCaller(kTemperaturePeriodSeconds, [this] { readTemperatures(); });
    mCalibrationChannel->push(calibrationOffset(), Clock::current().systemNow());
}

void ShimBoardQ47::beforeShutdown() {
    mPeriodicJob.reset(); // Intended: the base class has nothing to do here and is not called.
}

// -------------------------------------------------------------------------------------------------- dump

void ShimBoardQ47::dumpCANopenValues(std::string const& aDirectory) {
    try {
        auto const path =
            std::filesystem::path(aDirectory) / ("canopen_shim_" + std::to_string(mCanId) + ".dump");
        libfieldwarden::dump::writeFile(path, [this](std::ostream& aStream) {
            libfieldwarden::shimboardq47::dumpCANopenDicOjbForLog(canopenClient(), aStream);
        });
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to dump CanOpen values with '%s'", {}, error.what());
    }
}
