// SPDX-License-Identifier: Apache-2.0
// The arithmetic of FRED and PID.
#include "simulator/sequencer/PidRegulator.h"

#include <algorithm>
#include <limits>

namespace libfieldwarden::sim {

namespace {

constexpr std::int64_t kGreatest48 = (std::int64_t{1} << 47) - 1;
constexpr std::int64_t kLeast48 = -(std::int64_t{1} << 47);

std::int64_t limited48(std::int64_t aValue) {
    return std::clamp(aValue, kLeast48, kGreatest48);
}

std::int64_t end64(bool aNegative) {
    return aNegative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

std::int64_t sum(std::int64_t aLeft, std::int64_t aRight) {
    std::int64_t result = 0;
    return __builtin_add_overflow(aLeft, aRight, &result) ? end64(aLeft < 0) : result;
}

std::int64_t product(std::int64_t aLeft, std::int64_t aRight) {
    std::int64_t result = 0;
    return __builtin_mul_overflow(aLeft, aRight, &result) ? end64((aLeft < 0) != (aRight < 0)) : result;
}

/// Shifts to the left, or with a negative number to the right; the ends stay the ends.
std::int64_t shifted(std::int64_t aValue, int aLeft) {
    return aLeft >= 0 ? product(aValue, std::int64_t{1} << std::min(aLeft, 62))
                      : aValue >> std::min(-aLeft, 63);
}

std::int32_t signed24(std::int32_t aValue) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(aValue) << 8) >> 8;
}

} // namespace

PidRegulator::Output PidRegulator::step(std::int64_t aInput,
                                        std::int64_t aMagnitude,
                                        Settings const& aSettings) {
    std::int64_t const deviation = limited48(aInput - aSettings.setPoint);
    std::int64_t error = deviation;
    if (aSettings.scaler) {
        double const scale = static_cast<double>(kScalerReference) /
                             static_cast<double>(std::max<std::int64_t>(aMagnitude, 1));
        error = static_cast<std::int64_t>(std::clamp(static_cast<double>(error) * scale,
                                                     static_cast<double>(kLeast48),
                                                     static_cast<double>(kGreatest48)));
    }
    std::int64_t const x = error >> std::min(aSettings.inputShift, 63U);
    std::size_t const order = std::min<std::size_t>(aSettings.derivativeOrder, kRemembered);
    std::int64_t const rise = order == 0 ? 0 : x - mInputs[order - 1];
    std::copy_backward(mInputs.begin(), mInputs.end() - 1, mInputs.end());
    mInputs.front() = x;

    mIntegral = sum(mIntegral, product(aSettings.i, x));
    std::int64_t const total = sum(mIntegral, sum(product(aSettings.p, x), product(aSettings.d, rise)));
    int const left = static_cast<int>(aSettings.outputShift) - static_cast<int>(kOutputPoint + kFractionBits);
    std::int64_t const wanted = sum(signed24(aSettings.outputOffset), shifted(total, left));
    std::int64_t const value = std::clamp<std::int64_t>(wanted, kLeastOutput, kGreatestOutput);
    if (value != wanted) {
        // Both have the same sign, so the difference fits.
        mIntegral = sum(mIntegral, shifted(value - wanted, -left));
    }
    return {.value = static_cast<std::int32_t>(value), .overflow = value != wanted, .error = deviation};
}

void PidRegulator::clear() noexcept {
    mIntegral = 0;
    mInputs.fill(0);
}

std::int64_t fredOutput(std::int64_t aOffset,
                        std::int32_t aOrder1,
                        std::int32_t aOrder2,
                        unsigned aShift,
                        bool aPolynomial,
                        std::int32_t aH0) {
    if (!aPolynomial) {
        return aOffset;
    }
    std::int64_t const h = aH0;
    std::int64_t const polynomial = (aOrder1 * h + aOrder2 * (h * h >> 23)) >> 31;
    return limited48(sum(aOffset, shifted(polynomial, static_cast<int>(aShift))));
}

} // namespace libfieldwarden::sim
