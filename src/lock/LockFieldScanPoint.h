// SPDX-License-Identifier: Apache-2.0
// What a scan of the field saw at one frequency.
#pragma once

#include <cstdint>

/// One point of a field scan with an FID.
struct LockFieldScanPoint {
    double frequency19F = 0.0;                  ///< The peak's 19F frequency in Hz.
    double frequency1H = 0.0;                   ///< The same as 1H frequency in Hz.
    double maxSlicePosition = 0.0;              ///< The peak's slice when the FID was first seen.
    double maxSliceMagnitude = 0.0;             ///< The peak's magnitude in counts.
    std::uint8_t cicShiftAfterSetUp = 0;        ///< CIC shift without overflow.
    std::uint8_t cicShiftAfterOptimize = 0;     ///< CIC shift from the peak.
    std::uint8_t cicShiftAfterMovingToZero = 0; ///< CIC shift from the peak, the FID being at 0 Hz.
};
