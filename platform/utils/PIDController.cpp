// SPDX-License-Identifier: Apache-2.0
// The difference equation of the software PID regulator.
#include <velmor/kepla/utils/PIDController.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace velmor::kepla::utils {

PIDController::PIDController(double aP, double aI, double aD, double aLowerLimit, double aUpperLimit)
    : mClock(velmor::platform::Clock::current())
    , mP(aP)
    , mI(aI)
    , mD(aD)
    , mLowerLimit(aLowerLimit)
    , mUpperLimit(aUpperLimit) {
    if (aLowerLimit > aUpperLimit) {
        throw std::invalid_argument("PIDController: the lower output limit is above the upper one");
    }
}

double PIDController::calculate(double aSetPoint, double aMeasured) {
    double const error = aSetPoint - aMeasured;
    if (std::isnan(error)) {
        return mOutput;
    }
    auto const now = mClock.now();
    double derivative = 0.0;
    if (mFormer) {
        double const seconds = std::chrono::duration<double>(now - mFormer->time).count();
        mIntegral = std::clamp(mIntegral + mI * error * seconds, mLowerLimit, mUpperLimit);
        derivative = seconds > 0.0 ? (error - mFormer->error) / seconds : 0.0;
    }
    mFormer = Step{now, error};
    mOutput = std::clamp(mP * error + mIntegral + mD * derivative, mLowerLimit, mUpperLimit);
    return mOutput;
}

void PIDController::reset() noexcept {
    mIntegral = 0.0;
    mOutput = 0.0;
    mFormer.reset();
}

} // namespace velmor::kepla::utils
