// SPDX-License-Identifier: Apache-2.0
// Finds the largest gain of the sequencer's decimation filter at which the lock's FID does not overflow.
#pragma once

#include "lock/LockEndRequest.h"

#include <velmor/kepla/log/Logger.h>

#include <cstdint>
#include <memory>

class LockHardwareHelper;
class LockHardwareInterface;
namespace velmor::kepla::datalogger {
class DataLoggerChannelIfc;
}

/// The search of the CIC shift: too much of it and the FID overflows, too little and resolution is lost. The
/// register holds the state, the object none. For the thread of the lock's state machine.
class LockCICShift : private virtual velmor::kepla::log::Logger {
public:
    /// @param aEnd  Looked at between two waits; may be null.
    LockCICShift(std::shared_ptr<LockHardwareInterface> aHardware,
                 std::shared_ptr<LockHardwareHelper> aHelper,
                 std::shared_ptr<libfieldwarden::lock::LockEndRequest const> aEnd = nullptr);

    /// Sets the shift from which the searches go. Does not wait.
    void setInitial();

    /// Goes down from the initial shift until the FID does not overflow. Blocks for two acquisitions a shift,
    /// each at most 1 s.
    /// @throws std::out_of_range   when it overflows at every shift that is tried.
    /// @throws std::runtime_error  when there is no acquisition, or no FID.
    void setUp();

    /// Sets the shift that brings the peak near full scale, and goes down from there until ten acquisitions
    /// pass without an overflow. Blocks for the acquisitions, each at most 1 s.
    /// @throws std::out_of_range   when the FID overflows at every shift that is tried.
    /// @throws std::runtime_error  when there is no acquisition, or no FID.
    void optimize();

    /// @param aValue  Any number; a negative one has its sign bit set.
    /// @return The index of the highest bit that is set; 0 for 0.
    static unsigned int fls(int aValue);

private:
    unsigned int shiftFromPeak(std::uint8_t aStart);
    unsigned int cleanAcquisitions(std::uint8_t aShift);
    void failWithoutFID();
    void push(double aShift);
    void checkEnd() const;

    std::shared_ptr<LockHardwareInterface> mHardware;
    std::shared_ptr<LockHardwareHelper> mHelper;
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc> mChannelCicShift;
    std::shared_ptr<libfieldwarden::lock::LockEndRequest const> mEnd;
};
