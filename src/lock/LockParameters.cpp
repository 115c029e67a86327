// SPDX-License-Identifier: Apache-2.0
// The numbers of the lock and their configuration file.
#include "lock/LockParameters.h"

#include "lock/LockConfigurationValue.h"
#include "lock/LockParametersPIDStaticSet.h"
#include "lock/loadPID.h"

#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <boost/program_options/options_description.hpp>
#include <boost/program_options/parsers.hpp>

namespace options = boost::program_options;

using libfieldwarden::lock::LockConfigurationValue;
using velmor::kepla::log::Severity;

namespace {

constexpr unsigned int kGreatestFredShift = 31;

std::shared_ptr<LockParametersPIDSet> makeSet(double aP, double aI, double aD) {
    return std::make_shared<LockParametersPIDStaticSet>(aP, aI, aD);
}

/// A key of the configuration file whose value is a double.
struct DoubleKey {
    char const* key;
    char const* description;
};

constexpr std::array kDoubleKeys{
    DoubleKey{"pid.normal.i", "I value for normal PID set"},
    DoubleKey{"pid.normal.p", "P value for normal PID set"},
    DoubleKey{"pid.normal.d", "D value for normal PID set"},
    DoubleKey{"pid.slow.i", "I value for slow PID set"},
    DoubleKey{"pid.slow.p", "P value for slow PID set"},
    DoubleKey{"pid.slow.d", "D value for slow PID set"},
    DoubleKey{"pid.fast.i", "I value for fast PID set"},
    DoubleKey{"pid.fast.p", "P value for fast PID set"},
    DoubleKey{"pid.fast.d", "D value for fast PID set"},
    DoubleKey{"factors.1HTo19F", "factor from 1H to 19F"},
    DoubleKey{"fred.order1", "first order coefficient for FRED"},
    DoubleKey{"fred.order2", "second order coefficient for FRED"},
    DoubleKey{"threshold.locked",
              "Threshold on the PID, abs value must be lower than this to be considered locked"},
    DoubleKey{"shimCoilTargetTemperature.p", "P value for the shim coil target temperature PID"},
    DoubleKey{"shimCoilTargetTemperature.i", "I value for the shim coil target temperature PID"},
    DoubleKey{"shimCoilTargetTemperature.d", "D value for the shim coil target temperature PID"},
    DoubleKey{"shimCoilTargetTemperature.ffOffset",
              "Offset of the linear expression used in the shim coil target temperature feed forward"},
    DoubleKey{"shimCoilTargetTemperature.ffSlope",
              "Slope of the linear expression used in the shim coil target temperature feed forward"},
};

options::options_description describeFile() {
    options::options_description file("Lock Configuration File");
    auto add = file.add_options();
    for (auto const& [key, description] : kDoubleKeys) {
        add(key, new LockConfigurationValue<double>(), description); // NOLINT: the description owns it
    }
    add("global.useComputed", options::value<bool>(),
        "If PID should be computed or defaults/those from this file be used");
    add("fred.outputShift", new LockConfigurationValue<unsigned int>(), // NOLINT: the description owns it
        "FRED output shift, 5 bits");
    return file;
}

/// Boost replaces placeholders such as "%value%" in the words of its errors, and does so for ever where the
/// text that it puts in holds the same placeholder.
void refusePlaceholder(std::string_view aLine) {
    static constexpr std::array<std::string_view, 6> kPlaceholders{
        "%canonical_option%", "%invalid_line%", "%option%", "%original_token%", "%prefix%", "%value%"};
    auto const setting = aLine.substr(0, aLine.find('#'));
    for (auto const placeholder : kPlaceholders) {
        if (setting.find(placeholder) != std::string_view::npos) {
            throw std::runtime_error("the options configuration file contains an invalid line '" +
                                     std::string(setting) + "'");
        }
    }
}

} // namespace

LockParameters::LockParameters(std::string path)
    : Logger("LockParameters", "Lock")
    , mPath(std::move(path))
    , mDefaultSlow(makeSet(0.0, -200.0, 0.0))
    , mDefaultFast(makeSet(-200.0, -1200.0, 0.0))
    , mDefaultNormal(makeSet(0.0, -400.0, 0.0))
    , mDefaultShimCoil(makeSet(0.0, 0.0, 0.0))
    , mSlow(mDefaultSlow)
    , mFast(mDefaultFast)
    , mNormal(mDefaultNormal)
    , mCurrent(mNormal)
    , mToZero(makeSet(50.0, 500.0, 0.0))
    , mShimCoilPID(makeSet(0.0, 0.0, 0.0)) {}

void LockParameters::reload() {
    {
        std::lock_guard const lock(mSetsMutex);
        mNormal = mDefaultNormal;
        mSlow = mDefaultSlow;
        mFast = mDefaultFast;
        mShimCoilPID = mDefaultShimCoil;
    }
    mFactor = mDefaultFactor;
    mLockedThreshold = mDefaultLockedThreshold;
    mUseComputed = true;
    mFeedForwardOffset = 0.0;
    mFeedForwardSlope = 0.0;
    // Intended: FRED's numbers and the computed threshold stay as they are, so that what was taken out of the
    // file holds until the process ends.
    overrideFromFile(mPath);
}

void LockParameters::overrideFromFile(std::string const& path) {
    keplaDoLog(Severity::Info, "+overrideFromFile(path='%s')", {}, path);
    std::ifstream file(path);
    if (!file) {
        keplaDoLog(Severity::Warning, "Could not open the configuration file, will not override parameters",
                   {});
        return;
    }
    try {
        overrideFrom(parseFile(file));
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Could not process the lock configuration file at '%s' because %s", {},
                   path, error.what());
        throw std::runtime_error(std::string("Could not process the lock configuration file.\nError was ") +
                                 error.what());
    }
}

options::variables_map LockParameters::parseFile(std::istream& aFile) const {
    constexpr bool kAllowUnregistered = true;
    options::options_description const description = describeFile();
    std::stringstream text;
    for (std::string line; std::getline(aFile, line);) {
        refusePlaceholder(line);
        text << line << '\n';
    }
    if (aFile.bad()) { // a folder opens like a file and fails only here
        throw std::runtime_error("the file cannot be read");
    }
    options::variables_map values;
    options::store(options::parse_config_file(text, description, kAllowUnregistered), values);
    options::notify(values);
    return values;
}

void LockParameters::overrideFrom(options::variables_map const& aValues) {
    overrideSet(aValues, "pid.", "normal", mNormal);
    overrideSet(aValues, "pid.", "slow", mSlow);
    overrideSet(aValues, "pid.", "fast", mFast);
    if (aValues.count("global.useComputed") != 0) {
        mUseComputed = aValues["global.useComputed"].as<bool>();
        keplaDoLog(Severity::Info, "Use computed PID/Threshold flag overriden with value %d", {},
                   mUseComputed.load());
    }
    setPIDSetID(mPidSetID); // the chosen set follows the new ones
    if (aValues.count("factors.1HTo19F") != 0) {
        mFactor = aValues["factors.1HTo19F"].as<double>();
        keplaDoLog(Severity::Info, "Frequency factor 1H to 19F overriden with value %.17f", {},
                   mFactor.load());
    }
    if (aValues.count("fred.order1") != 0) {
        mFredOrder1 = aValues["fred.order1"].as<double>();
        keplaDoLog(Severity::Info, "FRED coefficient order 1 overriden with value %.17f", {},
                   mFredOrder1.load());
    }
    if (aValues.count("fred.order2") != 0) {
        mFredOrder2 = aValues["fred.order2"].as<double>();
        keplaDoLog(Severity::Info, "FRED coefficient order 2 overriden with value %.17f", {},
                   mFredOrder2.load());
    }
    if (aValues.count("fred.outputShift") != 0) {
        overrideFredOutputShift(aValues["fred.outputShift"].as<unsigned int>());
    }
    if (aValues.count("threshold.locked") != 0) {
        mLockedThreshold = aValues["threshold.locked"].as<double>();
        keplaDoLog(Severity::Info, "Locked threshold overriden with value %f", {}, mLockedThreshold.load());
    }
    overrideSet(aValues, "", "shimCoilTargetTemperature", mShimCoilPID);
    if (aValues.count("shimCoilTargetTemperature.ffOffset") != 0) {
        mFeedForwardOffset = aValues["shimCoilTargetTemperature.ffOffset"].as<double>();
        keplaDoLog(Severity::Info, "Shim coil target temperature feed forward offset is %f", {},
                   mFeedForwardOffset.load());
    }
    if (aValues.count("shimCoilTargetTemperature.ffSlope") != 0) {
        mFeedForwardSlope = aValues["shimCoilTargetTemperature.ffSlope"].as<double>();
        keplaDoLog(Severity::Info, "Shim coil target temperature feed forward slope is %f", {},
                   mFeedForwardSlope.load());
    }
}

void LockParameters::overrideFredOutputShift(unsigned int aShift) {
    if (aShift > kGreatestFredShift) {
        keplaDoLog(Severity::Error,
                   "Invalid value for fred.outputShift. Got %d but must be within 0 and 31 included.", {},
                   aShift);
        throw std::invalid_argument("Invalid value for lock parameter fred.outputShift");
    }
    mFredShift = static_cast<std::uint8_t>(aShift);
    keplaDoLog(Severity::Info, "FRED output shift overriden with value %u", {}, aShift);
}

void LockParameters::overrideSet(options::variables_map const& aValues,
                                 std::string const& aPrefix,
                                 std::string const& aName,
                                 PIDSet& aSet) {
    PIDSet set = copyOf(aSet);
    loadPID(aValues, aPrefix, aName, set);
    std::lock_guard const lock(mSetsMutex);
    aSet = std::move(set);
}

LockParameters::PIDSet LockParameters::copyOf(PIDSet const& aSet) const {
    std::lock_guard const lock(mSetsMutex);
    return aSet;
}

/// Where the set of a number is kept; null for another number.
LockParameters::PIDSet const* LockParameters::setOf(LockPIDSetID aID) const {
    switch (aID) {
        case LockPIDSetID::Slow:
            return &mSlow;
        case LockPIDSetID::Fast:
            return &mFast;
        case LockPIDSetID::Normal:
            return &mNormal;
    }
    return nullptr;
}

void LockParameters::setPIDSetID(LockPIDSetID aID) {
    std::lock_guard const lock(mSetsMutex);
    mPidSetID = aID; // Intended: stored even when it is refused.
    PIDSet const* const set = setOf(aID);
    if (set == nullptr) {
        throw std::invalid_argument("Unknown lock PID set");
    }
    mCurrent = *set;
}

LockParameters::PIDSet LockParameters::pidSetByID(LockPIDSetID aID) const {
    PIDSet const* const set = setOf(aID);
    if (set == nullptr) {
        keplaDoLog(Severity::Error, "LockParameters::pidSetByID(id = %d): unknown id", {},
                   static_cast<int>(aID));
        throw std::invalid_argument("Unknown LockPIDSetID");
    }
    return copyOf(*set);
}

void LockParameters::setComputedPIDThreshold(double aThreshold,
                                             std::shared_ptr<LockParametersPIDSet> aNormal,
                                             std::shared_ptr<LockParametersPIDSet> aFast,
                                             std::shared_ptr<LockParametersPIDSet> aSlow) {
    if (!mUseComputed) {
        keplaDoLog(Severity::Warning, "setComputedPIDThreshold: ignored, as mUseComputed is %d", {},
                   mUseComputed.load());
        return;
    }
    // Intended: the closing bracket is missing.
    keplaDoLog(Severity::Info,
               "setComputedPIDThreshold(threshold = %f, normal PID = (%f, %f, %f), fast PID = (%f, %f, %f), "
               "slow PID = (%f, %f, %f)",
               {}, aThreshold, aNormal->p(), aNormal->i(), aNormal->d(), aFast->p(), aFast->i(), aFast->d(),
               aSlow->p(), aSlow->i(), aSlow->d());
    mComputedThreshold = aThreshold;
    {
        std::lock_guard const lock(mSetsMutex);
        mNormal = std::move(aNormal);
        mFast = std::move(aFast);
        mSlow = std::move(aSlow);
    }
    setPIDSetID(mPidSetID);
}

unsigned int LockParameters::transmitAmplitude_mVpp() const {
    return 100;
}

std::uint16_t LockParameters::fftZerosPadding() const {
    return 0xFC11;
}

std::string LockParameters::firmwareRootPath() const {
    return "/usr/share/firmware/Q47Lock";
}

unsigned int LockParameters::decimation() const {
    return 2048;
}

double LockParameters::samplingFrequency() const {
    return 68571428.0;
}

unsigned int LockParameters::fftLength() const {
    return 65536;
}

double LockParameters::magnet1HFrequency() const {
    return mMagnet1HFrequency;
}

void LockParameters::setMagnet1HFrequency(double aFrequencyHz) {
    mMagnet1HFrequency = aFrequencyHz;
}

LockParameters::PIDSet LockParameters::currentPID() {
    return copyOf(mCurrent);
}

LockParameters::LockPIDSetID LockParameters::pidSetID() const {
    return mPidSetID;
}

LockParameters::PIDSet LockParameters::getToZeroPID() {
    return mToZero;
}

double LockParameters::lockedThreshold() const {
    return mUseComputed ? mComputedThreshold : mLockedThreshold;
}

double LockParameters::frequencyFactor1HTo19F() const {
    return mFactor;
}

double LockParameters::fredCoefficientOrder1() const {
    return mFredOrder1;
}

double LockParameters::fredCoefficientOrder2() const {
    return mFredOrder2;
}

std::uint8_t LockParameters::fredOutputShift() const {
    return mFredShift;
}

std::string LockParameters::pathRootLogs() const {
    return mPathRootLogs;
}

double LockParameters::dacOutOfRangeWarningThreshold() const {
    return 0.9;
}

double LockParameters::dacOutOfRangeWarningRearmThreshold() const {
    return 0.85;
}

LockParameters::PIDSet LockParameters::lockToShimCoilTargetTemperaturePID() const {
    return copyOf(mShimCoilPID);
}

double LockParameters::lockToShimCoilTargetTemperatureFeedForwardSlope() const {
    return mFeedForwardSlope;
}

double LockParameters::lockToShimCoilTargetTemperatureFeedForwardOffset() const {
    return mFeedForwardOffset;
}

double LockParameters::intermediateFrequencyInHz() const {
    return mIntermediateFrequency;
}

bool LockParameters::useComputedPIDThreshold() const {
    return mUseComputed;
}
