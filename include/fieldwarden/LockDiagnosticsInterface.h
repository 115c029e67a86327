// SPDX-License-Identifier: Apache-2.0
// A look behind the lock, for service engineers: registers, dumps, the field scan, progress of a start.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <fieldwarden/Export.h>

namespace libfieldwarden {

/// One register of the lock sequencer as text.
struct LockRegisterText {
    std::string name;  ///< Such as "data/fid_shift".
    std::string value; ///< Or why it could not be read.
    bool readable = true;
};

/// What the lock saw at a frequency with a signal.
struct LockScanPoint {
    double frequency19F = 0.0;         ///< Of the peak, in Hz.
    double frequency1H = 0.0;          ///< The same as 1H frequency, in Hz.
    double slicePosition = 0.0;        ///< Slice of the FFT in which it was first seen.
    double sliceMagnitude = 0.0;       ///< Its magnitude in counts.
    unsigned int cicShiftSetUp = 0;    ///< Shift of the decimation filter without overflow.
    unsigned int cicShiftOptimize = 0; ///< The best one there.
    unsigned int cicShiftAtZero = 0;   ///< The best one with the signal brought to 0 Hz.
};

/// How far a long step of the lock is.
struct LockStepProgress {
    std::string step;       ///< In words.
    unsigned int done = 0;  ///< Parts that are behind.
    unsigned int total = 0; ///< Parts of the whole at most: a step that finds what it seeks ends early.
};

/// Hears of progress, on the thread that does the step; to be quick, and not to call the lock. What it throws
/// ends a scan and comes out of it, and fails a start when it is a std::exception.
using LockProgressListener = std::function<void(LockStepProgress const&)>;

/// Diagnosis of a lock. A LockInterface that offers it can be cast to it; the mock lock does not. Not for the
/// everyday work of a daemon: a scan and a dump need the lock hardware for themselves or share it with the
/// running lock.
class FIELDWARDEN_API LockDiagnosticsInterface {
public:
    virtual ~LockDiagnosticsInterface() = default;

    /// @return All registers of the sequencer, in the order of its register map.
    /// Thread: any; blocks for the accesses.
    virtual std::vector<LockRegisterText> readRegisters() = 0;

    /// Has FID and FFT dumped into a folder, as "lock_fid_NAME.h5" and "lock_fft_NAME.h5".
    /// @param aName  Tells the files from others; no path in it.
    /// @return The folder.
    /// @throws std::runtime_error when one of the files has not come; the log says why.
    /// Thread: any; blocks for two dumps, up to two minutes when no data come.
    virtual std::string dumpSignal(std::string const& aName) = 0;

    /// Walks the whole frequency range and looks closer at each signal. The lock must be stopped.
    /// @return The frequencies with a signal, in the order in which they were found.
    /// @throws std::exception what stopped it.
    /// Thread: any; blocks for many minutes.
    virtual std::vector<LockScanPoint> scanFrequencies(LockProgressListener aListener) = 0;

    /// Sets who hears of the progress of starts; nobody at first. To be called while the lock is stopped.
    /// Thread: any; does not block.
    virtual void setProgressListener(LockProgressListener aListener) = 0;
};

} // namespace libfieldwarden
