// SPDX-License-Identifier: Apache-2.0
// The thread on which the adjustable temperature is regulated, and the queue by which everybody asks it to.
#pragma once

#include "at/ATFSMStates.h"

#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <chrono>
#include <memory>

#include <boost/statechart/fifo_scheduler.hpp>
#include <boost/thread/thread.hpp>

class TemperatureListenerSync;

/// The front of the machine. All operations queue an event and return at once, but for the one that waits.
///
/// Any thread may call. The destructor waits for the running reaction, and leaves heating and gas off.
class ATFSM : private virtual velmor::kepla::log::Logger {
public:
    /// @param aBoard           The temperature board of a system with the option; not null.
    /// @param aFlows           The table of gas flows; not null.
    /// @param aListener        Who is told; not null.
    /// @param aStabilityMgr    Begins anew with each ramp; not null.
    /// @param aFlowController  Sets the gas; not null.
    ATFSM(std::shared_ptr<TempBoardQ47Ifc> aBoard,
          std::shared_ptr<ATFlowTable> aFlows,
          std::shared_ptr<TemperatureListenerSync> aListener,
          std::shared_ptr<TemperatureStabilityMgr> aStabilityMgr,
          std::shared_ptr<libfieldwarden::at::FlowForATFSMIfc> aFlowController);
    ~ATFSM();
    ATFSM(ATFSM const&) = delete;
    ATFSM& operator=(ATFSM const&) = delete;

    void enable();
    void disable();

    /// Heating and gas off, at once.
    void hardPowerOff();

    /// @param aElapsed  Since the last tick.
    void timerTick(std::chrono::milliseconds aElapsed);

    /// @param aKelvin  The new target in K.
    void setTarget(double aKelvin);

    /// Asks for the exchange of a sample; waitPrepareOrCompleteTransfer() tells the outcome.
    void prepareTransfer();

    /// Asks for the way back from it; the outcome as above.
    /// @param aSampleInMagnet  Whether a sample is in the magnet now.
    void completeTransfer(bool aSampleInMagnet);

    /// Blocks until there is a verdict, 10 s at most.
    /// @return Whether the last request was fulfilled.
    bool waitPrepareOrCompleteTransfer();

private:
    using Scheduler = boost::statechart::fifo_scheduler<>;

    template <typename Event, typename... Arguments>
    void queue(Arguments... aArguments);
    void work();
    void runOneEvent();

    std::shared_ptr<ATFSMParameters> mParameters;
    std::shared_ptr<AtFsmControlerIfc> mTransfer;
    std::atomic<bool> mClosing{false};
    Scheduler mScheduler;
    Scheduler::processor_handle mProcessor;
    boost::thread mThread;
};
