// SPDX-License-Identifier: Apache-2.0
// Every number of the lock, as the lock code asks for it.
#pragma once

#include "lock/LockParametersPIDSet.h"

#include <fieldwarden/LockPIDSetID.h>

#include <cstdint>
#include <memory>
#include <string>

/// The parameters of the lock. The order of the virtual operations is fixed.
///
/// Any thread may read and write while others do: the state machine's thread reloads and stores computed
/// sets, callers of the service choose the set and tell the magnet's frequency, the thread of the PID stream
/// reads the locked threshold.
class LockParametersInterface {
public:
    /// Number of a PID set.
    using LockPIDSetID = ::LockPIDSetID;

    virtual ~LockParametersInterface() = default;

    /// Puts the defaults back and reads the configuration file, when there is one.
    /// @throws std::runtime_error  when the file cannot be understood; what it set before that stays.
    virtual void reload() = 0;

    /// @return The amplitude of the transmitter in mV peak to peak.
    virtual unsigned int transmitAmplitude_mVpp() const = 0;
    /// @return How many zeros the sequencer puts behind the points of an acquisition.
    virtual std::uint16_t fftZerosPadding() const = 0;
    /// @return The folder of the sequencer's program and window.
    virtual std::string firmwareRootPath() const = 0;
    /// @return How many samples the filter makes one of.
    virtual unsigned int decimation() const = 0;
    /// @return The sampling frequency in Hz, ahead of the decimation.
    virtual double samplingFrequency() const = 0;
    /// @return How many points the FFT has.
    virtual unsigned int fftLength() const = 0;

    /// @return The 1H frequency of the magnet in Hz; 0.0 while it is not known.
    virtual double magnet1HFrequency() const = 0;
    /// @param aFrequencyHz  The 1H frequency of the magnet.
    virtual void setMagnet1HFrequency(double aFrequencyHz) = 0;

    /// @return The PID set that is chosen.
    virtual std::shared_ptr<LockParametersPIDSet> currentPID() = 0;
    /// @return The number of the PID set that is chosen.
    virtual LockPIDSetID pidSetID() const = 0;
    /// Chooses a PID set.
    /// @throws std::invalid_argument  for another number; pidSetID() answers it all the same.
    virtual void setPIDSetID(LockPIDSetID aID) = 0;
    /// @return The set of the software loop that brings the FID to 0 Hz.
    virtual std::shared_ptr<LockParametersPIDSet> getToZeroPID() = 0;
    /// @return A PID set by its number.
    /// @throws std::invalid_argument  for another number.
    virtual std::shared_ptr<LockParametersPIDSet> pidSetByID(LockPIDSetID aID) const = 0;

    /// @return The mean PID input below which the lock counts as locked, in counts.
    virtual double lockedThreshold() const = 0;
    /// @return 19F frequency over 1H frequency.
    virtual double frequencyFactor1HTo19F() const = 0;
    /// @return Coefficient of FRED's linear term.
    virtual double fredCoefficientOrder1() const = 0;
    /// @return Coefficient of FRED's quadratic term.
    virtual double fredCoefficientOrder2() const = 0;
    /// @return FRED's output shift in bits, 0 to 31.
    virtual std::uint8_t fredOutputShift() const = 0;
    /// @return The folder of the lock's logs.
    virtual std::string pathRootLogs() const = 0;
    /// @return The part of the H0 output's range at which the user is warned.
    virtual double dacOutOfRangeWarningThreshold() const = 0;
    /// @return The part of the H0 output's range below which the warning goes.
    virtual double dacOutOfRangeWarningRearmThreshold() const = 0;
    /// @return The terms of the shim coil target temperature regulator.
    virtual std::shared_ptr<LockParametersPIDSet> lockToShimCoilTargetTemperaturePID() const = 0;
    /// @return The feed forward's slope: kelvin of target by kelvin of probe temperature.
    virtual double lockToShimCoilTargetTemperatureFeedForwardSlope() const = 0;
    /// @return The feed forward in K at a probe at 25 degrees Celsius.
    virtual double lockToShimCoilTargetTemperatureFeedForwardOffset() const = 0;
    /// @return The intermediate frequency of the receiver in Hz.
    virtual double intermediateFrequencyInHz() const = 0;
    /// @return Whether computed PID sets and threshold are used where there are some.
    virtual bool useComputedPIDThreshold() const = 0;

    /// Replaces PID sets and threshold for this run of the lock; ignored when computed ones are not used.
    virtual void setComputedPIDThreshold(double aThreshold,
                                         std::shared_ptr<LockParametersPIDSet> aNormal,
                                         std::shared_ptr<LockParametersPIDSet> aFast,
                                         std::shared_ptr<LockParametersPIDSet> aSlow) = 0;
};
