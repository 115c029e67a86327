// SPDX-License-Identifier: Apache-2.0
// The lock's way from a switched-off sequencer to a running hardware regulator, and the searches on it.
#pragma once

#include "lock/LockAcquisitionsIfc.h"
#include "lock/LockEndRequest.h"
#include "lock/LockFieldScanPoint.h"
#include "lock/LockProgress.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class LockHardwareHelper;
class LockHardwareInterface;
class LockParametersInterface;
class ShimForLockIfc;
class LockCICShift;
namespace velmor::kepla::datalogger {
class DataLoggerChannelIfc;
}
namespace velmor::kepla::utils {
class PIDController;
}

/// Start and stop of the lock, and the searches of the lock signal.
///
/// One operation at a time, on the thread of the lock's state machine, or on the caller's for scanField() and
/// startForTests(); only requestEnd() may come from any thread. The operations block for many seconds. What
/// they throw has words for the user. Nothing is rolled back after a failure: each start begins with a reset.
class LockWorkflows : private virtual velmor::kepla::log::Logger {
public:
    /// @param aStreams  Makes the dumps and measures the slope.
    LockWorkflows(std::shared_ptr<LockHardwareInterface> aHardware,
                  std::shared_ptr<LockHardwareHelper> aHelper,
                  std::shared_ptr<LockParametersInterface> aParameters,
                  std::shared_ptr<libfieldwarden::lock::LockAcquisitionsIfc> aStreams,
                  std::shared_ptr<ShimForLockIfc> aShim);

    /// Starts the lock: from the reset over the search of the FID to the running hardware regulator. Whether
    /// it is locked, the streams tell later.
    /// @throws std::exception  with the words for the user, on any failure.
    void start();

    /// Only brings the hardware up, as startHardware().
    void startForTests();

    /// Resets the sequencer, sets the transmitter, and loads window and program.
    /// @throws std::runtime_error  when the lock frequency cannot be set, and what the hardware throws.
    void startHardware();

    /// Stops the sequencer's clock. Streams, H0 output and regulator stay as they are.
    void stop();

    /// Sets the lock frequency. Blocks for less than a millisecond.
    /// @param frequencyHz  19F frequency in Hz.
    /// @return Whether the synthesiser's PLL stays locked.
    bool setLockFrequency(double frequencyHz);

    /// Looks for the FID at three values of the H0 output, at the present lock frequency.
    /// @return Whether there is one. The H0 output keeps the last value.
    /// @throws std::runtime_error  when there is no acquisition.
    bool searchFid();

    /// Walks the lock frequency outward from the middle of the range until there is an FID.
    /// @return The 1H frequency at which it sits, in Hz.
    /// @throws std::runtime_error  when there is none, or the hardware is no longer ready.
    double searchField();

    /// @param frequency19F  A lock frequency in Hz.
    /// @return Whether there is an FID at it.
    /// @throws std::runtime_error  when the hardware is no longer ready.
    bool searchField_isFIDAtFrequency(double frequency19F); // NOLINT(readability-identifier-naming)

    /// Brings the FID near 0 Hz with a software regulator on the H0 output. Blocks for two minutes at most.
    /// @return The value of the H0 output that holds it there.
    /// @throws std::runtime_error  when it takes longer.
    /// @throws std::out_of_range   when the FID overflows at every CIC shift.
    int moveFIDFrequencyToZero();

    /// Looks at the whole range of lock frequencies. Blocks for minutes.
    /// @return The frequencies with an FID and what was seen there.
    std::vector<LockFieldScanPoint> scanField();

    /// @param position  A slice of the spectrum.
    /// @return Its distance from 0 Hz in Hz.
    double maxSlicePositionToFrequency(double position) const;

    /// Asks the running operation to end: it throws LockEndRequested ahead of its next wait, and so does
    /// every later one. Any thread; does not block.
    void requestEnd() noexcept;

    /// Sets who hears of the progress of the operations; nobody at first. Not during an operation.
    void setProgressObserver(libfieldwarden::lock::LockProgressObserver aObserver);

private:
    using ChannelPointer = std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc>;

    ChannelPointer makeChannel(std::vector<std::string> aPath, char const* aDescription) const;

    void letSettle();
    [[noreturn]] void searchFieldAndTellUser();
    std::string adviceFor(double aFoundMHz) const;
    void awaitPhaseCorrection();
    void computePidFromSlope();
    void enableFred();
    void startHardwarePid(int aH0Offset);

    bool isFIDAtH0(int aH0, unsigned int& aDumpCounter);
    void awaitFIDForSoftPid(velmor::kepla::utils::PIDController& aController);
    double searchCenter19F() const;
    double searchHalfWidth19F() const;
    LockFieldScanPoint lookAtPeak(double aBase19F) const;
    std::vector<LockFieldScanPoint> findScanPoints(double aCenter19F, double aLimit);
    void completeScanPoint(LockFieldScanPoint& aPoint, LockCICShift& aCicShift);

    void push(ChannelPointer const& aChannel, double aValue) const;
    void checkEnd() const;
    void tell(std::string_view aStep, unsigned int aDone, unsigned int aTotal) const;

    double const mFieldSearchMax1H = 81000000.0;
    double const mFieldSearchCenter1H = 80123000.0;
    std::shared_ptr<LockHardwareInterface> mHardware;
    std::shared_ptr<LockHardwareHelper> mHelper;
    std::shared_ptr<LockParametersInterface> mParameters;
    std::shared_ptr<libfieldwarden::lock::LockAcquisitionsIfc> mStreams;
    std::shared_ptr<ShimForLockIfc> mShim;
    ChannelPointer mChannelMaxSlicePos;
    ChannelPointer mChannelMaxSlicePosThreshold;
    ChannelPointer mChannelSlope0Crossing;
    ChannelPointer mChannelPTerm;
    ChannelPointer mChannelITerm;
    ChannelPointer mChannelDTerm;
    velmor::platform::Clock& mClock;
    std::shared_ptr<libfieldwarden::lock::LockEndRequest> mEnd =
        std::make_shared<libfieldwarden::lock::LockEndRequest>();
    libfieldwarden::lock::LockProgressObserver mProgress;
};
