// SPDX-License-Identifier: Apache-2.0
// Records the lock's parameters in the data logger.
#include "lock/LockParametersHelper.h"

#include "lock/LockParametersInterface.h"

#include <velmor/kepla/datalogger/DataLoggerInterface.h>
#include <velmor/platform/Clock.h>

#include <exception>
#include <utility>

using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::log::Severity;

LockParametersHelper::LockParametersHelper(
    std::shared_ptr<LockParametersInterface> aParameters,
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> aDataLogger)
    : Logger("LockParametersHelper", "Lock")
    , mParameters(std::move(aParameters))
    , mDataLogger(std::move(aDataLogger)) {}

void LockParametersHelper::pushLockParametersToDataLogger() {
    keplaDoLog(Severity::Debug, "+pushLockParametersToDataLogger", {});
    mTimestamp = velmor::platform::Clock::current().systemNow();
    createChannelPush("magnet_1H_frequency", DataLoggerUnit::Hertz, mParameters->magnet1HFrequency(),
                      "1H frequency of the magnet, as entered by the user in Panorin instsetup");
    createChannelPush("locked_threshold", DataLoggerUnit::Dimensionless, mParameters->lockedThreshold(),
                      "Threshold used to determine if locked");
    createChannelPush("fred/order1", DataLoggerUnit::Dimensionless, mParameters->fredCoefficientOrder1(),
                      "FRED coefficient, order 1");
    createChannelPush("fred/order2", DataLoggerUnit::Dimensionless, mParameters->fredCoefficientOrder2(),
                      "FRED coefficient, order 2");
    createChannelPush("fred/output_shift", DataLoggerUnit::Dimensionless, mParameters->fredOutputShift(),
                      "FRED output shift");
    pushPID("shimTargetTempPID", mParameters->lockToShimCoilTargetTemperaturePID());
    createChannelPush("shimTargetTempPID/feed_forward/slope", DataLoggerUnit::Dimensionless,
                      mParameters->lockToShimCoilTargetTemperatureFeedForwardSlope(),
                      "Slope used for feed forward");
    createChannelPush("shimTargetTempPID/feed_forward/offset", DataLoggerUnit::Dimensionless,
                      mParameters->lockToShimCoilTargetTemperatureFeedForwardOffset(),
                      "Offset used for feed forward");
    pushUseComputed(
        "Uses computed PID and locked threshold (1) or the legacy ones/ones from the lock.config "
        "file (0)");
    pushPID("softpid", mParameters->getToZeroPID());
    pushPID("fast", mParameters->pidSetByID(LockPIDSetID::Fast));
    pushPID("normal", mParameters->pidSetByID(LockPIDSetID::Normal));
    pushPID("slow", mParameters->pidSetByID(LockPIDSetID::Slow));
    // Intended: the same name and value go out a second time, with another description.
    pushUseComputed("1 if computed PID/threshold are used, 0 if defaults/overriden from lock.config");
    keplaDoLog(Severity::Debug, "-pushLockParametersToDataLogger", {});
}

void LockParametersHelper::pushUseComputed(std::string const& aDescription) const {
    createChannelPush("used_computed_pid_threshold", DataLoggerUnit::Boolean,
                      mParameters->useComputedPIDThreshold() ? 1.0 : 0.0, aDescription);
}

void LockParametersHelper::pushPID(std::string const& name,
                                   std::shared_ptr<LockParametersPIDSet> const& set) const {
    std::string const path = "pid/" + name + "/";
    createChannelPush(path + "p", DataLoggerUnit::Dimensionless, set->p(),
                      "P parameter of the PID set " + name);
    createChannelPush(path + "i", DataLoggerUnit::Dimensionless, set->i(),
                      "I parameter of the PID set " + name);
    createChannelPush(path + "d", DataLoggerUnit::Dimensionless, set->d(),
                      "D parameter of the PID set " + name);
}

void LockParametersHelper::createChannelPush(std::string const& name,
                                             DataLoggerUnit unit,
                                             double value,
                                             std::string const& description) const {
    try {
        DataLoggerChannelInfo const info({mSection, mGroup, name}, unit, DataLoggerStats::none(),
                                         DataLoggerStorageType::LongTerm, description);
        mDataLogger->createChannel(info)->push(value, mTimestamp);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to push value %f to %s/%s/%s channel. Error was %s.", {}, value,
                   mSection, mGroup, name, error.what());
    } catch (...) {
        keplaDoLog(Severity::Error, "Failed to push value %f to %s/%s/%s channel. Unspecified exception.", {},
                   value, mSection, mGroup, name);
    }
}
