// SPDX-License-Identifier: Apache-2.0
// Watches the running lock: decides from the PID stream whether it is locked, keeps the dumps of FID and FFT.
#pragma once

#include "lock/LockAcquisitionsIfc.h"
#include "lock/LockLost.h"
#include "lock/hardware/LockFFTDump.h"
#include "lock/hardware/LockFIDDump.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/kepla/utils/Defer.h>
#include <velmor/platform/Clock.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <boost/circular_buffer.hpp>

class LockHardwareInterface;
class LockInternalNotifierIfc;
class LockListenerSync;
class LockPIDStreamIfc;
class LockParametersInterface;
class LockShimTargetTemperatureRegulatorIfc;
class LockStreamPIDData;
namespace velmor::kepla::datalogger {
class DataLoggerChannelIfc;
class DataLoggerInterface;
} // namespace velmor::kepla::datalogger
namespace velmor::kepla::utils {
class PeriodicCallerIfc;
class PeriodicCallerManagerIfc;
} // namespace velmor::kepla::utils

/// Supervision of the running lock. A thread takes every record of the PID stream; from them come the locked
/// state, the lost lock, the warning of the H0 output's range, the data logger's channels and the input of
/// the shim coils' temperature regulator. No record for 60 s is a hardware error.
///
/// start() and stop() come from the state machine's thread. Everything else may be called from any thread;
/// what waits says so. The destructor ends thread, regular dumps and a dump under way within about a second.
class LockStreams : public libfieldwarden::lock::LockAcquisitionsIfc,
                    private virtual velmor::kepla::log::Logger {
public:
    /// @param aHardware         Switches what the streams carry.
    /// @param aPIDStream        The PID records.
    /// @param aListener         Hears status and warnings.
    /// @param aParameters       Has the threshold, the limits of the warning and the folder of the dumps.
    /// @param aRegulator        Takes the outputs of the hardware regulator.
    /// @param aDataLogger       Makes the channels.
    /// @param aPeriodicManager  Calls for the regular dumps.
    /// @throws std::filesystem::filesystem_error  when the folder of the dumps cannot be made.
    LockStreams(std::shared_ptr<LockHardwareInterface> aHardware,
                std::shared_ptr<LockPIDStreamIfc> aPIDStream,
                std::shared_ptr<LockListenerSync> aListener,
                std::shared_ptr<LockParametersInterface> const& aParameters,
                std::shared_ptr<LockShimTargetTemperatureRegulatorIfc> aRegulator,
                std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger,
                std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> aPeriodicManager);
    ~LockStreams() override;
    LockStreams(LockStreams const&) = delete;
    LockStreams& operator=(LockStreams const&) = delete;

    /// Sets who is told of a hardware error. Waits for such a call that is under way, so that the former one
    /// is not called any more after the return.
    /// @param aNotifier  May be null.
    void setInternalNotifier(std::shared_ptr<LockInternalNotifierIfc>&& aNotifier);

    /// Starts stream, supervision and regular dumps; only warns when they run.
    /// Blocks for the flush of the stream, at most 90 s where the device does not stop delivering.
    /// @throws std::runtime_error  when the stream cannot be started, or what comes behind it: nothing runs
    ///                             then, and the next start() begins anew.
    void start();

    /// Stops all of it and tells the listener. Waits for the record and the regular dump under way.
    /// @throws std::runtime_error  when the stream cannot be switched off; the supervision has ended all the
    ///                             same, but the listener has not been told.
    void stop();

    /// @return Whether the lock is locked.
    bool locked() const;

    /// @return The latched state of a lost lock.
    std::shared_ptr<LockLost> lostMgr() const;

    /// @return The sign of the last output of the hardware regulator, 1 or -1.
    int outputDACSign() const;

    /// @return 2 while the H0 output nears the end of its range, else 0.
    int outputRangeWarning() const;

    /// @return Whether the data have stopped coming since the last start.
    bool pidDataTimedOut() const;

    /// @return The folder of the dumps, as it lies in the file system.
    std::filesystem::path const& dumpDirectory() const { return mDumpDirectory; }

    /// Have a dump made, soon; return at once.
    /// @param aName  Becomes part of the file's name.
    void requestDumpFID(std::string const& aName);
    void requestDumpFFT(std::string const& aName);

    /// Makes both dumps now. Blocks for as long as the sequencer takes, at most 30 s for a flush and 30 s for
    /// the data, of each. A failure is logged only.
    /// @param aName  Becomes part of the files' names.
    void dumpFFTandFID(std::string const& aName) override;

    /// Measures the FFT at its zero crossing. Blocks like a dump.
    /// @return The slope of the imaginary part in counts a point.
    /// @throws std::runtime_error  when no data come.
    double fftSlopeAt0Crossing() override;

    /// Makes a dump or a measurement of the slope that is under way, and every later one, fail within a
    /// second: for those who close. Does not block.
    void requestEnd() noexcept;

private:
    using Clock = velmor::platform::Clock;
    using Channel = std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc>;

    void initializeDataLogger(velmor::kepla::datalogger::DataLoggerInterface& aDataLogger);
    void startPIDStream();
    void startDumps();
    void abandonPIDStream();
    void stopPIDStream();
    void haltPIDStream();
    void pidStreamThread();
    void superviseStream();
    void discardUntilHalted();
    void handleTimeout(int& aRetries);
    void handleSample(LockStreamPIDData const& aSample);
    bool lockedWith(long long aPidDataIn);
    bool thresholdComparator(double aMean) const;
    void checkH0DacRange(int aOutput);
    void pushToDataLogger(LockStreamPIDData const& aSample);
    void updateLocked(bool aLocked);
    void changeLocked(bool aLocked);
    void notifyHardwareError();
    void doDumpFFT(std::string const& aName);
    void doDumpFID(std::string const& aName);

    std::atomic<bool> mLocked{false};
    bool mStartedFlag = false;
    std::shared_ptr<LockHardwareInterface> const mHardware;
    std::shared_ptr<LockPIDStreamIfc> const mPIDStream;
    std::shared_ptr<LockListenerSync> const mListener;
    std::shared_ptr<LockParametersInterface> const mParameters;
    Clock& mClock = Clock::current();

    double mDataInMean = 0.0;
    boost::circular_buffer<int> mDataInWindow{100}; ///< The last inputs of the hardware regulator.
    std::size_t const mMeanCount = 50;              ///< Means that must pass.
    std::function<bool(double)> const mComparator;
    bool mWithinThreshold = false;
    boost::circular_buffer<double> mMeanWindow{mMeanCount}; ///< The last means, newest first.

    std::thread mThread;
    std::atomic<bool> mStopThread{false}; ///< The supervision ends.
    std::atomic<bool> mHalted{false};     ///< The stream has been stopped, or never was started.
    LockFFTDump mFFTDump;
    LockFIDDump mFIDDump;

    std::atomic<int> mWarningState{0};
    int const mDacFullScale = 8388607;
    int const mWarningThreshold;
    int const mRearmThreshold;
    std::atomic<int> mDacSign{1};
    std::shared_ptr<LockLost> const mLost;
    Channel mChannelDataIn;
    Channel mChannelDataOut;
    Channel mChannelMaxSlice;
    Channel mChannelPhase;
    Channel mChannelLocked;
    Clock::TimePoint mLastPush = mClock.now();
    std::shared_ptr<LockShimTargetTemperatureRegulatorIfc> const mRegulator;
    std::filesystem::path const mDumpDirectory;
    std::mutex mDumpMutex; ///< Covers every acquisition and dump.
    std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const mPeriodicManager;
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> mPeriodicDump;
    std::atomic<bool> mPidDataTimedOut{false};

    std::mutex mNotifierMutex; ///< Guards the two below; not held while the notifier is called.
    std::condition_variable mNotified;
    bool mNotifying = false;
    std::shared_ptr<LockInternalNotifierIfc> mNotifier;

    bool mStartRegulator = false;
    Clock::TimePoint mLockedSince;

    // Last, so that their threads have ended before anything goes that a dump needs.
    velmor::kepla::utils::Defer<std::string> mDeferFFT;
    velmor::kepla::utils::Defer<std::string> mDeferFID;
};
