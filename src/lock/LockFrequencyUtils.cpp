// SPDX-License-Identifier: Apache-2.0
// The arithmetic between 1H and 19F frequencies, slices of the FFT and words of registers.
#include "lock/LockFrequencyUtils.h"

#include "lock/LockParametersInterface.h"

#include <velmor/kepla/utils/SaturatedToInt32.h>

namespace {

constexpr double kFredOne = 2147483648.0; // 2^31
constexpr double kLockDDSOffsetHz = 17142857.0;

} // namespace

std::int32_t LockFrequencyUtils::doubleToFredCoef(double aCoefficient) {
    return velmor::kepla::utils::saturatedToInt32(aCoefficient * kFredOne);
}

double LockFrequencyUtils::fftMaxSliceToHertz(unsigned short aSlice,
                                              std::shared_ptr<LockParametersInterface> const& aParameters) {
    double const points =
        static_cast<double>(aParameters->decimation()) * static_cast<double>(aParameters->fftLength());
    return aSlice * aParameters->samplingFrequency() / points;
}

double LockFrequencyUtils::desiredToLockDDS(double aFrequencyHz) {
    return aFrequencyHz + kLockDDSOffsetHz;
}

double LockFrequencyUtils::freq19Fto1H(double a19FHz,
                                       std::shared_ptr<LockParametersInterface> const& aParameters) {
    return a19FHz / aParameters->frequencyFactor1HTo19F();
}

double LockFrequencyUtils::freq1Hto19F(double a1HHz,
                                       std::shared_ptr<LockParametersInterface> const& aParameters) {
    return aParameters->frequencyFactor1HTo19F() * a1HHz;
}
