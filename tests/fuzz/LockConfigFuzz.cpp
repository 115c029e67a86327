// SPDX-License-Identifier: Apache-2.0
// Any bytes as the lock's configuration file: it is taken, or refused with words for the user, and the
// parameters are numbers that the hardware can have either way.
#include "fuzz/MemoryFile.h"
#include "lock/LockFrequencyUtils.h"
#include "lock/LockParameters.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

void expect(bool aHolds) {
    if (!aHolds) {
        std::abort();
    }
}

void expectNumbers(LockParametersPIDSet const& aSet) {
    expect(std::isfinite(aSet.p()) && std::isfinite(aSet.i()) && std::isfinite(aSet.d()));
}

void expectSound(LockParameters& aParameters) {
    expect(aParameters.fredOutputShift() <= 31);
    expect(std::isfinite(aParameters.lockedThreshold()));
    expect(std::isfinite(aParameters.frequencyFactor1HTo19F()));
    expect(std::isfinite(aParameters.lockToShimCoilTargetTemperatureFeedForwardOffset()));
    expect(std::isfinite(aParameters.lockToShimCoilTargetTemperatureFeedForwardSlope()));
    (void)LockFrequencyUtils::doubleToFredCoef(aParameters.fredCoefficientOrder1());
    (void)LockFrequencyUtils::doubleToFredCoef(aParameters.fredCoefficientOrder2());
    for (auto const id : {LockPIDSetID::Slow, LockPIDSetID::Fast, LockPIDSetID::Normal}) {
        expectNumbers(*aParameters.pidSetByID(id));
    }
    expectNumbers(*aParameters.currentPID());
    expectNumbers(*aParameters.lockToShimCoilTargetTemperaturePID());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize) {
    static libfieldwarden::test::MemoryFile file;
    file.fill(aData, aSize);
    LockParameters parameters(file.path());
    try {
        parameters.reload();
    } catch (std::runtime_error const& error) {
        std::string const words = error.what();
        expect(words.rfind("Could not process the lock configuration file.\nError was ", 0) == 0);
    }
    expectSound(parameters);

    // A mended file is read whole, whatever stood there before.
    static std::string const kMended = "[threshold]\nlocked = 5\n[global]\nuseComputed = 0\n";
    file.fill(reinterpret_cast<std::uint8_t const*>(kMended.data()),
              kMended.size()); // NOLINT: chars to bytes
    parameters.reload();
    expect(parameters.lockedThreshold() == 5.0);
    return 0;
}
