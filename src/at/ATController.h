// SPDX-License-Identifier: Apache-2.0
// The front of the adjustable temperature option (AT) towards the temperature service.
#pragma once

#include "temperature/TempBoardQ47Ifc.h"

#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <boost/circular_buffer.hpp>

class ATFSM;
class ATFlowTable;
class ATRange;
class AtFlowBoxIfc;
class FlowController;
class LockForTemperatureIfc;
class TemperatureListenerSync;
class TemperatureStabilityMgr;
namespace velmor::kepla::datalogger {
class DataLoggerInterface;
}
namespace velmor::kepla::mds {
class Mds;
}
namespace velmor::kepla::utils {
class PeriodicCallerIfc;
class PeriodicCallerManagerIfc;
} // namespace velmor::kepla::utils
namespace velmor::platform {
class Clock;
}

/// Finds out at start whether the system has the option and which flow box, and is its one front from then
/// on: it checks targets, asks the lock before the regulation starts, drives the state machine's time and
/// judges whether the probe is stable. Without the option it is inert: what would regulate refuses with one
/// message, ranges are empty, and the sample exchange keeps its mode so that callers need not care.
///
/// Any thread may call. What sets gas or reads the range blocks for transfers to the board, the sample
/// exchange for at most 10 s. The listener hears of a new target while enabling and targets are locked: a
/// callback must not set either on the same thread.
class ATController : private virtual velmor::kepla::log::Logger {
public:
    /// Sets the board up for what the record says, see saveSetupToEEPROM(). With the option, heating and gas
    /// are switched off and the regulation waits to be enabled. Blocks for these transfers.
    /// @param aBoard            The temperature board; not null.
    /// @param aListener         Who is told; not null.
    /// @param aPeriodicCallers  Runs ticks and polls of a system with the option.
    /// @param aVtuMds           Text of the record of the variable temperature unit; one that cannot be read
    ///                          makes a system without the option.
    /// @param aDataLogger       Makes the channels of a system with the option.
    /// @throws std::runtime_error  when the board does not answer.
    ATController(std::shared_ptr<TempBoardQ47Ifc> aBoard,
                 std::shared_ptr<TemperatureListenerSync> aListener,
                 std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const& aPeriodicCallers,
                 std::string const& aVtuMds,
                 std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger);
    /// Ends ticks and polls, disables the regulation, and leaves heating and gas off.
    ~ATController();
    ATController(ATController const&) = delete;
    ATController& operator=(ATController const&) = delete;

    /// @return Whether the system has the option.
    bool hasAT() const;

    /// @param aContext  What was to be done, for the log.
    /// @throws std::runtime_error  on a system without the option.
    void checkHasAT(std::string const& aContext) const;

    /// @param aLock  Is asked before the regulation starts; null for none, which is not asked.
    void setLock(std::shared_ptr<LockForTemperatureIfc> aLock);

    /// Switches the regulation on or off.
    /// @throws std::runtime_error  without the option, and when the lock is not ready for it.
    void setEnabled(bool aEnabled);

    /// @return Whether the regulation was switched on last.
    bool enabled() const { return mEnabled; }

    /// @param aKelvin  Target in K, within temperatureRange(), both ends included.
    /// @throws std::runtime_error     without the option.
    /// @throws std::invalid_argument  when it is outside of the range.
    void setTargetTemperature(double aKelvin);

    /// @return Target in K; 0.0 without the option.
    double targetTemperature() const { return mTargetTemperature; }

    /// @return Lowest and highest target in K.
    std::pair<double, double> temperatureRange() const;

    /// Narrows the range from below; a target that is left outside goes along.
    /// @param aKelvin  Limit in K, not negative.
    /// @throws std::invalid_argument  when it is negative.
    /// @throws std::runtime_error     when a target would have to go along on a system without the option.
    void setProbeTemperatureMin(double aKelvin);

    /// As setProbeTemperatureMin(), from above.
    void setProbeTemperatureMax(double aKelvin);

    /// Puts a flow in the place of the state machine's. Blocks 0.3 s longer when the hold gas must come
    /// first.
    /// @param aLiterPerHour  Flow in l/h, one of the table's.
    /// @throws std::runtime_error  without the option.
    /// @throws std::out_of_range   when the table has no such flow.
    void setFlowOverrideByUser(double aLiterPerHour);

    /// @return The possible flows as XML; only that of 0 l/h without the option.
    std::string flowsAsXmlForPanorin() const;

    /// @return Whether the probe's last five readings, one a second, were all within 0.5 K of the target;
    /// false without the option. Never blocks.
    bool isStable() const { return mStable; }

    /// Makes ready for the exchange of a sample: gas and heating go, and come back in completeTransfer(). A
    /// second call only logs. Blocks 10 s at most.
    /// @throws std::runtime_error  with a flow box of the prototype generation, and when the gas does not
    /// follow.
    void prepareTransfer();

    /// Goes back from the exchange of a sample. A second call only logs. Blocks 10 s at most with a sample in
    /// the magnet; without one the gas stays off and nobody waits.
    /// @param aSampleInMagnet  Whether a sample is in the magnet now.
    /// @throws std::runtime_error  as prepareTransfer().
    void completeTransfer(bool aSampleInMagnet);

    /// @return Whether a sample is being exchanged.
    bool isInSampleTransferMode() const { return mInSampleTransferMode; }

    /// @throws std::runtime_error  with a flow box of the prototype generation.
    void checkAutomationAllowed();

private:
    void detectOption(std::string const& aVtuMds,
                      std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const& aPeriodicCallers,
                      std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger);
    VTMode vtModeFromATMDS(velmor::kepla::mds::Mds const& aMds) const;
    std::unique_ptr<AtFlowBoxIfc> detectFlowBox(velmor::kepla::mds::Mds const& aMds);
    std::unique_ptr<AtFlowBoxIfc> guessFlowBox();
    void configureBoard();
    void startOption(velmor::kepla::utils::PeriodicCallerManagerIfc& aPeriodicCallers);
    void tick();
    void poll();

    velmor::platform::Clock& mClock;
    std::shared_ptr<TempBoardQ47Ifc> mBoard;
    std::shared_ptr<LockForTemperatureIfc> mLock; ///< Null until setLock().
    std::shared_ptr<ATFlowTable> mFlowTable;
    std::shared_ptr<ATRange> mRange;
    std::mutex mMutex; ///< Guards enabling, target and lock; not recursive.
    VTMode mVTMode = VTMode::None;
    std::atomic<double> mTargetTemperature{0.0}; ///< In K.
    std::atomic<bool> mEnabled{false};
    std::chrono::steady_clock::time_point mLastTick;
    std::shared_ptr<TemperatureListenerSync> mListener;
    std::shared_ptr<TemperatureStabilityMgr> mStabilityMgr;
    std::shared_ptr<ATFSM> mATFSM;                   ///< Null without the option.
    std::shared_ptr<FlowController> mFlowController; ///< Null without the option.
    std::chrono::milliseconds const mPollPeriod{1000};
    double const mStabilityTolerance = 0.5;   ///< In K.
    std::uint32_t const mStabilityWindow = 5; ///< Readings.
    std::function<bool(double)> const mIsInStabilityWindow;
    std::atomic<bool> mStable{false};
    boost::circular_buffer<double> mLastTemperatures; ///< In K, the most recent first.
    std::atomic<bool> mInSampleTransferMode{false};
    /// Last, so that the calls end before anything goes that they use.
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> mTimerCaller;
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> mPollCaller;
};
