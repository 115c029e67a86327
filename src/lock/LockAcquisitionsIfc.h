// SPDX-License-Identifier: Apache-2.0
// What the workflows want of the lock signal's streams: dumps, and the slope of the spectrum.
#pragma once

#include <string>

namespace libfieldwarden::lock {

/// Acquisitions of the lock signal. Any thread; each call blocks for its acquisitions and throws what they
/// throw.
class LockAcquisitionsIfc {
public:
    virtual ~LockAcquisitionsIfc() = default;

    /// Dumps the spectrum, then the FID.
    /// @param aName  What tells the dump's files from others.
    virtual void dumpFFTandFID(std::string const& aName) = 0;

    /// @return The slope of the spectrum's imaginary part at its zero crossing, in counts per point.
    virtual double fftSlopeAt0Crossing() = 0;
};

} // namespace libfieldwarden::lock
