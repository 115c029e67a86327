// SPDX-License-Identifier: Apache-2.0
// Loads the window that the FID is multiplied with ahead of the FFT.
#pragma once

#include <memory>

class LockHardwareInterface;
class LockParametersInterface;

/// The apodisation window's way from its file into the sequencer. One thread at a time.
class LockWindow {
public:
    LockWindow(std::shared_ptr<LockHardwareInterface> aHardware,
               std::shared_ptr<LockParametersInterface> aParameters);

    /// Sets how many zeros stand behind the points of an acquisition and loads the window that goes with it.
    /// Blocks while files are copied.
    /// @param fftZeros  Number of zeros; there is a window for 0xFC11 alone.
    /// @throws std::invalid_argument  for another number of zeros.
    /// @throws std::runtime_error     when the window's file cannot be opened.
    void load(unsigned short fftZeros);

private:
    std::shared_ptr<LockHardwareInterface> mHardware;
    std::shared_ptr<LockParametersInterface> mParameters;
};
