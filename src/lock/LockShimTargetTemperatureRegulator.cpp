// SPDX-License-Identifier: Apache-2.0
// The slow loop from the lock's correction to the shim coils' temperature.
#include "lock/LockShimTargetTemperatureRegulator.h"

#include "lock/LockParametersInterface.h"

#include <fieldwarden/ShimTargetTemperatureIfc.h>
#include <velmor/kepla/datalogger/DataLoggerChannelIfc.h>
#include <velmor/kepla/datalogger/DataLoggerInterface.h>

#include <chrono>
#include <cmath>
#include <cstddef>
#include <numeric>
#include <utility>

using velmor::kepla::datalogger::DataLoggerChannelIfc;
using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::log::Severity;
using velmor::platform::Clock;

namespace {

constexpr std::size_t kAverageCapacity = 300; ///< Samples.
constexpr double kZeroCelsius = 273.15;
constexpr double kFeedForwardCelsius = 25.0; ///< Where the feed forward is its offset alone.
constexpr double kMicrosecondsPerSecond = 1000000.0;

std::shared_ptr<DataLoggerChannelIfc> makeChannel(DataLoggerInterface& aDataLogger,
                                                  char const* aName,
                                                  char const* aDescription) {
    return aDataLogger.createChannel({{"lock", "shimTargetTempPID", aName},
                                      DataLoggerUnit::Dimensionless,
                                      DataLoggerStats::none(),
                                      DataLoggerStorageType::ShortTerm,
                                      aDescription});
}

void push(std::shared_ptr<DataLoggerChannelIfc> const& aChannel, double aValue) {
    aChannel->push(aValue, Clock::current().systemNow());
}

} // namespace

LockShimTargetTemperatureRegulator::LockShimTargetTemperatureRegulator(
    std::shared_ptr<LockParametersInterface> aParameters,
    std::shared_ptr<ShimTargetTemperatureIfc> aShimTarget,
    std::shared_ptr<DataLoggerInterface> const& aDataLogger)
    : Logger("LockShimTargetTemperatureRegulator", "Lock")
    , mParameters(std::move(aParameters))
    , mShimTarget(std::move(aShimTarget))
    , mSamples(kAverageCapacity)
    , mChannelOutput(makeChannel(
          *aDataLogger,
          "output",
          "Raw output of the PID regulator, is the delta to be applied to the current target temperature"))
    , mChannelTargetTemp(
          makeChannel(*aDataLogger, "target_temp", "The target temperature set on the hardware"))
    , mChannelError(makeChannel(
          *aDataLogger,
          "error",
          "Delta of the PID input (i.e. lock PID output) and it's reference value (value on locked)."))
    , mChannelIntegral(makeChannel(*aDataLogger, "integral", "mTi"))
    , mChannelProportional(makeChannel(*aDataLogger, "proportional", "mKp * error"))
    , mChannelDerivative(makeChannel(*aDataLogger, "derivative", "mKd * (error - mPrevError) / dT"))
    , mChannelFeedForward(makeChannel(*aDataLogger, "feed_forward", "The value used as feed forward"))
    , mChannelInputAveraged(
          makeChannel(*aDataLogger,
                      "input_averaged",
                      "The averaged PID input (i.e. lock PID output) used as input to this PID")) {}

double LockShimTargetTemperatureRegulator::feedForward() {
    double const offset = mParameters->lockToShimCoilTargetTemperatureFeedForwardOffset();
    double const slope = mParameters->lockToShimCoilTargetTemperatureFeedForwardSlope();
    double const probe = mShimTarget->probeTemperature();
    double const value = offset + ((probe - kZeroCelsius) - kFeedForwardCelsius) * slope;
    push(mChannelFeedForward, value);
    return value;
}

void LockShimTargetTemperatureRegulator::start() {
    keplaDoLog(Severity::Debug, "start invoked started = %d", {}, static_cast<int>(mStarted));
    if (mStarted) {
        keplaDoLog(Severity::Trace, "Shim target temperature regulator RESUMED", {});
        return;
    }
    keplaDoLog(Severity::Info, "Shim target temperature regulator STARTS", {});
    readParameters();
    mArmed = false;
    double const target = mShimTarget->shimTargetTemperature(true);
    mCurrentTarget = target;
    mBaseTarget = target;
    keplaDoLog(Severity::Info, "shim target temperature on regulator start = %fK", {}, target);
    mInitialFeedForward = feedForward();
    keplaDoLog(Severity::Info, "initial feed-forward bias is %fK", {}, mInitialFeedForward);
    limitOutput(target);
    // Intended: after a reset of the target this takes the feed forward off a second time.
    mBaseTarget -= mInitialFeedForward;
    keplaDoLog(Severity::Info,
               "Shim target temp PID output will be in range [%f...%f]K.\nActual target temperature will be "
               "%fK + Feed forward %f + PID output",
               {}, mOutputMin, mOutputMax, mBaseTarget, mInitialFeedForward);
    mPrevError = 0.0;
    mIntegral = 0.0;
    mLastTime = Clock::current().now();
    mStarted = true;
}

void LockShimTargetTemperatureRegulator::readParameters() {
    auto const terms = mParameters->lockToShimCoilTargetTemperaturePID();
    mKp = terms->p();
    mKi = terms->i();
    mKd = terms->d();
    keplaDoLog(Severity::Info, "using kP=%E, kI=%E, kD=%E, ffOffset=%E, ffSlope=%E", {}, mKp, mKi, mKd,
               mParameters->lockToShimCoilTargetTemperatureFeedForwardOffset(),
               mParameters->lockToShimCoilTargetTemperatureFeedForwardSlope());
}

/// Sets the output's limits such that the target stays near the default one; a target that is not goes there.
void LockShimTargetTemperatureRegulator::limitOutput(double aTarget) {
    double const low = mDefaultTarget - mMaxDeviation;
    double const high = mDefaultTarget + mMaxDeviation;
    if (aTarget < low || aTarget > high) {
        keplaDoLog(Severity::Error,
                   "The shim target temperature (%fK) is out of the allowed range [%f...%f]K.\nResetting the "
                   "target to default (%fK)",
                   {}, aTarget, low, high, mDefaultTarget);
        mBaseTarget = mDefaultTarget - mInitialFeedForward;
        mShimTarget->setShimTargetTemperature(mDefaultTarget);
        mCurrentTarget = mDefaultTarget;
        mOutputMax = mMaxDeviation;
        mOutputMin = -mMaxDeviation;
    } else {
        keplaDoLog(Severity::Info,
                   "Adjusting the PID output range based on the current shim target temperature (%fK)", {},
                   aTarget);
        mOutputMin = low - mBaseTarget;
        mOutputMax = high - mBaseTarget;
    }
}

void LockShimTargetTemperatureRegulator::stop() {
    keplaDoLog(Severity::Info, "Shim target temperature regulator STOPS", {});
    mStarted = false;
    mArmed = false;
}

void LockShimTargetTemperatureRegulator::pause() {
    // Intended: nothing. The regulation goes on through a lost lock, integral and all.
}

bool LockShimTargetTemperatureRegulator::armed() const {
    return mArmed;
}

void LockShimTargetTemperatureRegulator::pushLockPIDDataOut(int aPidDataOut) {
    if (!mStarted) {
        return;
    }
    auto const now = Clock::current().now();
    if (!mArmed) {
        takeReference(aPidDataOut, now);
        return;
    }
    mAverage = average(aPidDataOut);
    if (now - mLastTime <= std::chrono::seconds(mAveragingPeriod)) {
        keplaDoLog(Severity::Trace, "not doing PID: keep averaging until time period elapsed", {});
        return;
    }
    moveTarget(now);
}

void LockShimTargetTemperatureRegulator::takeReference(int aPidDataOut, TimePoint aNow) {
    mSetPoint = aPidDataOut;
    keplaDoLog(Severity::Info, "Initial DAC value is %f", {}, mSetPoint);
    mArmed = true;
    mLastTime = aNow;
    mAverage = 0.0;
    mSamples.clear();
}

/// The mean of the last samples with this one; it runs on through the steps of the regulator.
double LockShimTargetTemperatureRegulator::average(int aPidDataOut) {
    mSamples.push_back(aPidDataOut);
    return std::accumulate(mSamples.begin(), mSamples.end(), 0.0) / static_cast<double>(mSamples.size());
}

void LockShimTargetTemperatureRegulator::moveTarget(TimePoint aNow) {
    push(mChannelInputAveraged, mAverage);
    double const output = doPID(mSetPoint, mAverage);
    push(mChannelOutput, output);
    double const target = mBaseTarget + feedForward() + output;
    if (!std::isfinite(target)) { // Out of gains near the largest number: it must not reach the board.
        keplaDoLog(Severity::Error, "The new shim target temperature would be %f: it stays at %fK", {},
                   target, mCurrentTarget);
        mIntegral = 0.0;
        mPrevError = 0.0;
        mLastTime = aNow;
        return;
    }
    push(mChannelTargetTemp, target);
    mShimTarget->setShimTargetTemperature(target);
    mCurrentTarget = target;
    mLastTime = aNow;
}

double LockShimTargetTemperatureRegulator::doPID(double aSetPoint, double aValue) {
    keplaDoLog(Severity::Trace, "+doPID(setpoint=%f, pv=%f)", {}, aSetPoint, aValue);
    double const error = aSetPoint - aValue;
    push(mChannelError, error);
    auto const now = Clock::current().now();
    auto const elapsed = std::chrono::duration_cast<std::chrono::microseconds>(now - mLastTime);
    double const dT = static_cast<double>(elapsed.count()) / kMicrosecondsPerSecond;
    if (dT <= 0.0) {
        keplaDoLog(Severity::Error, "dT is lower than or equal to zero: no change", {});
        return aValue; // intended: the value itself, and not the last output
    }
    mIntegral += error * mKi * dT;
    push(mChannelIntegral, mIntegral);
    double const proportional = error * mKp;
    push(mChannelProportional, proportional);
    double const derivative = ((error - mPrevError) * mKd) / dT;
    push(mChannelDerivative, derivative);
    double const output = limited(proportional + mIntegral + derivative);
    mPrevError = error;
    mLastTime = now;
    return output;
}

double LockShimTargetTemperatureRegulator::limited(double aOutput) const {
    if (aOutput > mOutputMax) {
        keplaDoLog(Severity::Warning, "PID output restricted to max. Reached value was %f and max is %f", {},
                   aOutput, mOutputMax);
        return mOutputMax;
    }
    if (aOutput < mOutputMin) {
        keplaDoLog(Severity::Warning, "PID output restricted to min. Reached value was %f and min is %f", {},
                   aOutput, mOutputMin);
        return mOutputMin;
    }
    return aOutput;
}
