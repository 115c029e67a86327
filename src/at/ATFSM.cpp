// SPDX-License-Identifier: Apache-2.0
// The front of the state machine of the adjustable temperature, and its worker.
#include "at/ATFSM.h"

#include "at/AtToFsm.h"
#include "temperature/TemperatureListenerSync.h"

#include <velmor/kepla/utils/ThreadName.h>

#include <exception>
#include <utility>

using libfieldwarden::at::ATFSMParts;
using libfieldwarden::at::FlowForATFSMIfc;
using libfieldwarden::at::made;
using velmor::kepla::log::Severity;

ATFSM::ATFSM(std::shared_ptr<TempBoardQ47Ifc> aBoard,
             std::shared_ptr<ATFlowTable> aFlows,
             std::shared_ptr<TemperatureListenerSync> aListener,
             std::shared_ptr<TemperatureStabilityMgr> aStabilityMgr,
             std::shared_ptr<FlowForATFSMIfc> aFlowController)
    : Logger("ATFSM", "Temperature")
    , mParameters(std::make_shared<ATFSMParameters>())
    , mTransfer(std::make_shared<AtToFsm>())
    , mScheduler(true) // the worker waits for events instead of ending with the last one
    , mProcessor(mScheduler.create_processor<FSMAT>(
          ATFSMParts{std::move(aBoard), std::move(aFlows), mParameters, std::move(aListener),
                     std::move(aStabilityMgr), std::move(aFlowController), nullptr, mTransfer})) {
    mScheduler.initiate_processor(mProcessor);
    mThread = boost::thread([this] { work(); });
}

ATFSM::~ATFSM() {
    try {
        mClosing = true; // Events that wait are dropped.
        mScheduler.terminate();
        if (mThread.joinable()) {
            keplaDoLog(Severity::Info, "Waiting for ATFSM thread to finish", {});
            mThread.join();
        }
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "Exception in ATFSM destructor: %s", {}, failure.what());
    } catch (...) {
        keplaDoLog(Severity::Error, "Unspecified exception in ATFSM destructor", {});
    }
}

void ATFSM::work() {
    velmor::kepla::utils::nameThisThread("at-fsm");
    while (!mClosing && !mScheduler.terminated()) {
        runOneEvent();
    }
}

/// Runs one event, or waits for it. The machine itself deals with what its states throw.
void ATFSM::runOneEvent() {
    try {
        mScheduler(1);
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Critical, "The worker of the AT state machine failed and goes on: %s", {},
                   failure.what());
    } catch (...) {
        keplaDoLog(Severity::Critical, "The worker of the AT state machine failed and goes on: %s", {},
                   "an exception of an unknown type");
    }
}

template <typename Event, typename... Arguments>
void ATFSM::queue(Arguments... aArguments) {
    mScheduler.queue_event(mProcessor, made<Event>(aArguments...));
}

void ATFSM::enable() {
    keplaDoLog(Severity::Info, "+enable", {});
    queue<EvEnable>();
}

void ATFSM::disable() {
    keplaDoLog(Severity::Info, "+disable", {});
    queue<EvDisable>();
}

void ATFSM::hardPowerOff() {
    keplaDoLog(Severity::Warning, "+hardPowerOff", {});
    queue<EvHardPowerOff>();
}

void ATFSM::timerTick(std::chrono::milliseconds aElapsed) {
    keplaDoLog(Severity::Trace, "+timerTick(elapsedMs = %u)", {}, aElapsed.count());
    queue<EvTimerTick>(aElapsed);
}

void ATFSM::setTarget(double aKelvin) {
    keplaDoLog(Severity::Info, "+setTarget(target = %f)", {}, aKelvin);
    mParameters->setTargetTemperature(aKelvin);
    queue<EvSetTargetTemperature>();
}

void ATFSM::prepareTransfer() {
    keplaDoLog(Severity::Trace, "+prepareTransfer", {});
    mTransfer->resetPrepareOrCompleteTransfer();
    queue<EvPrepareTransfer>();
}

void ATFSM::completeTransfer(bool aSampleInMagnet) {
    keplaDoLog(Severity::Trace, "+completeTransfer(sample_in_magnet = %d)", {}, aSampleInMagnet);
    mTransfer->resetPrepareOrCompleteTransfer();
    mParameters->setSampleInMagnet(aSampleInMagnet);
    queue<EvCompleteTransfer>();
}

bool ATFSM::waitPrepareOrCompleteTransfer() {
    return mTransfer->waitForCompleteOrPrepareTransfer();
}
