// SPDX-License-Identifier: Apache-2.0
// Takes the drift of the field out of the lock's correction by moving the target temperature of the shim
// coils.
#pragma once

#include "lock/LockShimTargetTemperatureRegulatorIfc.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <atomic>
#include <memory>

#include <boost/circular_buffer.hpp>

class LockParametersInterface;
class ShimTargetTemperatureIfc;
namespace velmor::kepla::datalogger {
class DataLoggerChannelIfc;
class DataLoggerInterface;
} // namespace velmor::kepla::datalogger

/// A very slow loop on top of the lock: it averages the output of the lock's PID and, every ten seconds at
/// the most, moves the shim coils' target temperature such that the output stays at the value that it had
/// when the lock had just become stable. The target is
///
///     base + feed forward(probe temperature) + PID(reference - average)
///
/// within half a kelvin of 298.15 K. The PID is the parallel form; its integral is not limited, intended.
///
///   idle --start--> started --first sample, which is the reference--> armed, regulating
///   started, armed --stop--> idle
///
/// All but armed() come from the thread of the PID stream, or while that does not run. Nothing is caught:
/// what the temperature side throws goes to the caller. No allocation in an operation but start().
class LockShimTargetTemperatureRegulator : public LockShimTargetTemperatureRegulatorIfc,
                                           private virtual velmor::kepla::log::Logger {
public:
    LockShimTargetTemperatureRegulator(
        std::shared_ptr<LockParametersInterface> aParameters,
        std::shared_ptr<ShimTargetTemperatureIfc> aShimTarget,
        std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger);

    void start() override;
    void stop() override;
    void pause() override;
    void pushLockPIDDataOut(int aPidDataOut) override;
    bool armed() const override;

private:
    using Channel = std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc>;
    using TimePoint = velmor::platform::Clock::TimePoint;

    void readParameters();
    void limitOutput(double aTarget);
    void takeReference(int aPidDataOut, TimePoint aNow);
    double average(int aPidDataOut);
    void moveTarget(TimePoint aNow);
    double feedForward();
    double doPID(double aSetPoint, double aValue);
    double limited(double aOutput) const;

    std::shared_ptr<LockParametersInterface> mParameters;
    std::shared_ptr<ShimTargetTemperatureIfc> mShimTarget;
    double mSetPoint = 0.0; ///< Counts.
    std::atomic<bool> mStarted{false};
    std::atomic<bool> mArmed{false};
    double mCurrentTarget = 0.0; ///< K, as all temperatures here.
    double const mDefaultTarget = 298.15;
    double const mMaxDeviation = 0.5;
    double mBaseTarget = 298.15;
    double mOutputMax = 0.5;
    double mOutputMin = -0.5;
    double mKp = 0.0; ///< K a count.
    double mKi = 0.0; ///< K a count and second.
    double mKd = 0.0; ///< K s a count.
    double mPrevError = 0.0;
    double mIntegral = 0.0;
    TimePoint mLastTime;
    double mInitialFeedForward = 0.0;
    long long const mAveragingPeriod = 10; ///< Seconds.
    double mAverage = 0.0;
    boost::circular_buffer<int> mSamples;
    Channel mChannelOutput;
    Channel mChannelTargetTemp;
    Channel mChannelError;
    Channel mChannelIntegral;
    Channel mChannelProportional;
    Channel mChannelDerivative;
    Channel mChannelFeedForward;
    Channel mChannelInputAveraged;
};
