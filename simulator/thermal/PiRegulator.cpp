// SPDX-License-Identifier: Apache-2.0
// One sample of the regulator.
#include "simulator/thermal/PiRegulator.h"

#include <algorithm>

namespace libfieldwarden::sim {

void PiRegulator::setTerms(Terms const& aTerms) {
    mTerms = aTerms;
    mIntegral = std::clamp(mIntegral, mTerms.lowest, mTerms.highest);
}

void PiRegulator::preset(double aOutput) {
    mIntegral = std::clamp(aOutput, mTerms.lowest, mTerms.highest);
    mOutput = mIntegral;
    mState = State::Regulates;
}

double PiRegulator::sample(double aTarget, double aMeasured, double aSeconds) {
    double const error = aTarget - aMeasured;
    double const wanted = mTerms.gain * error + mIntegral;
    mOutput = std::clamp(wanted, mTerms.lowest, mTerms.highest);
    mState = wanted < mTerms.lowest    ? State::AtLowerLimit
             : wanted > mTerms.highest ? State::AtUpperLimit
                                       : State::Regulates;
    bool const leadsBack =
        (mState == State::AtLowerLimit && error > 0.0) || (mState == State::AtUpperLimit && error < 0.0);
    if (mTerms.integralTime > 0.0 && (mState == State::Regulates || leadsBack)) {
        mIntegral = std::clamp(mIntegral + mTerms.gain * error * aSeconds / mTerms.integralTime,
                               mTerms.lowest, mTerms.highest);
    }
    return mOutput;
}

void PiRegulator::off() {
    mIntegral = 0.0;
    mOutput = 0.0;
    mState = State::Off;
}

} // namespace libfieldwarden::sim
