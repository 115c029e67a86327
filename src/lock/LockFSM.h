// SPDX-License-Identifier: Apache-2.0
// The thread on which the lock is started and stopped, and the queue by which everybody asks it to.
#pragma once

#include "lock/LockFSMStates.h"
#include "lock/LockProgress.h"

#include <fieldwarden/LockInternalNotifierIfc.h>
#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <functional>
#include <memory>

#include <boost/statechart/fifo_scheduler.hpp>
#include <boost/thread/thread.hpp>

class LockHardwareHelper;
class LockHardwareInterface;
class LockListenerSync;
class LockParametersInterface;
class LockStreams;
class LockWorkflows;
class ShimForLockIfc;

/// The lock's state machine with its worker. All operations queue an event and return at once; what comes of
/// it is told to the listener. LockFSMStates.h has the diagram.
///
/// Any thread may call. The destructor waits for the running step of a state, which ends at its next wait.
class LockFSM : public LockInternalNotifierIfc, protected virtual velmor::kepla::log::Logger {
public:
    /// @param aHardware, aHelper, aParameters, aStreams, aShim  What the workflows need.
    /// @param aListener  Hears the outcome.
    /// @param aStartNow  Whether the lock starts by itself, as soon as the magnet's frequency is known.
    LockFSM(std::shared_ptr<LockHardwareInterface> aHardware,
            std::shared_ptr<LockHardwareHelper> aHelper,
            std::shared_ptr<LockParametersInterface> const& aParameters,
            std::shared_ptr<LockListenerSync> aListener,
            std::shared_ptr<LockStreams> aStreams,
            std::shared_ptr<ShimForLockIfc> aShim,
            bool aStartNow);
    ~LockFSM() override;
    LockFSM(LockFSM const&) = delete;
    LockFSM& operator=(LockFSM const&) = delete;

    void notifyHardwareError() override;

    void start();
    void stop();
    void restart();
    void notifyPIDSetChanged();
    void notifyMagnetFrequencyHasBeenSet();

    /// Sets who hears of the progress of starts. Not while one runs.
    void setProgressObserver(libfieldwarden::lock::LockProgressObserver aObserver);

protected:
    /// The machine on other things to start and stop.
    /// @param aEndSteps  Asks the running step to end; called by the destructor.
    LockFSM(std::shared_ptr<libfieldwarden::lock::StartAndStopIfc> aWorkflows,
            std::shared_ptr<libfieldwarden::lock::StartAndStopIfc> aStreams,
            std::shared_ptr<LockParametersInterface> const& aParameters,
            std::shared_ptr<LockListenerSync> aListener,
            std::function<void()> aEndSteps,
            bool aStartNow);

private:
    using Scheduler = boost::statechart::fifo_scheduler<>;

    LockFSM(std::shared_ptr<LockWorkflows> aWorkflows,
            std::shared_ptr<LockParametersInterface> const& aParameters,
            std::shared_ptr<LockListenerSync> aListener,
            std::shared_ptr<LockStreams> aStreams,
            bool aStartNow);

    template <typename Event>
    void queue();
    void work();
    void runOneEvent();
    void beginAnew(char const* aReason);

    std::shared_ptr<LockWorkflows> mWorkflows; ///< Null on other things to start and stop.
    std::shared_ptr<LockListenerSync> mListener;
    std::function<void()> mEndSteps;
    std::atomic<bool> mClosing{false};
    std::atomic<long> mWaiting{1}; ///< Jobs in the scheduler's queue; the first one makes the processor.
    Scheduler mScheduler;
    Scheduler::processor_handle mProcessor;
    boost::thread mThread;
};
