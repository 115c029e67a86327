// SPDX-License-Identifier: Apache-2.0
// What the states of the lock do on entry.
#include "lock/LockFSMStates.h"

#include "lock/LockListenerSync.h"
#include "lock/LockParametersInterface.h"

#include <exception>
#include <string>
#include <utility>

using libfieldwarden::lock::LockStatus;
using libfieldwarden::lock::made;
using libfieldwarden::lock::StartAndStopIfc;
using libfieldwarden::lock::StateLog;
using velmor::kepla::log::Severity;

StateLog::StateLog(char const* aName, char const* aEntry, char const* aExit)
    : Logger(aName, "Lock")
    , mExit(aExit) {
    keplaDoLog(Severity::Debug, aEntry, {});
}

StateLog::~StateLog() {
    keplaDoLog(Severity::Debug, mExit, {});
}

FSM::FSM(my_context aContext,
         std::shared_ptr<StartAndStopIfc> aWorkflows,
         std::shared_ptr<LockListenerSync> aListener,
         std::shared_ptr<StartAndStopIfc> aStreams,
         std::shared_ptr<LockParametersInterface> aParameters)
    : my_base(aContext)
    , mWorkflows(std::move(aWorkflows))
    , mListener(std::move(aListener))
    , mStreams(std::move(aStreams))
    , mParameters(std::move(aParameters)) {}

bool FSM::magnetFrequencyKnown() const {
    return mParameters->magnet1HFrequency() != 0.0;
}

void FSM::startLock() {
    mWorkflows->start();
    mStreams->start();
}

void FSM::stopLock() {
    mStreams->stop();
    mWorkflows->stop();
}

void FSM::tell(LockStatus aStatus, char const* aDoing) {
    mListener->state(static_cast<int>(aStatus));
    mListener->doing(aDoing);
}

void FSM::tellError(std::string const& aWords) {
    mListener->state(static_cast<int>(LockStatus::Error));
    mListener->error(aWords);
}

Stopped::Stopped(my_context aContext)
    : my_base(aContext)
    , StateLog("Lock FSM: Stopped state", "Entering STOPPED state", "Exiting STOPPED state") {
    outermost_context().tell(LockStatus::Stopped, "stopped");
}

WaitingForMagnetFrequency::WaitingForMagnetFrequency(my_context aContext)
    : my_base(aContext)
    , StateLog("Lock FSM: Waiting for Magnet Frequency state",
               "Entering WAITING FOR MAGNET FREQUENCY state",
               "Exiting waiting for magnet frequency") {
    if (outermost_context().magnetFrequencyKnown()) {
        keplaDoLog(Severity::Debug, "we do have a magnet frequency, go ahead", {});
        post_event(made<EvGotMagnetFrequency>());
    }
}

Starting::Starting(my_context aContext)
    : my_base(aContext)
    , StateLog("Lock FSM: Starting state", "Entering STARTING state", "Exiting STARTING state") {
    FSM& lock = outermost_context();
    lock.tell(LockStatus::Running, "starting");
    try {
        lock.startLock();
        post_event(made<EvStarted>());
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "Starting the lock failed with error: %s", {}, failure.what());
        lock.tellError(std::string("Could not start the lock: ") + failure.what());
        post_event(made<EvReset>());
    }
}

Started::Started(my_context aContext)
    : my_base(aContext)
    , StateLog("Lock FSM: Started", "Entering STARTED state", "Exiting STARTED state") {
    outermost_context().tell(LockStatus::Running, "lock is regulating, not yet locked");
}

Stopping::Stopping(my_context aContext)
    : my_base(aContext)
    , StateLog("Lock FSM: Stopping", "Entering STOPPING state", "Leaving STOPPING state") {
    FSM& lock = outermost_context();
    lock.tell(LockStatus::Running, "stopping");
    try {
        lock.stopLock();
        post_event(made<EvStopped>());
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "Failed to stop the lock: %s", {}, failure.what());
        lock.tellError(std::string("Failed to stop the lock: ") + failure.what());
        post_event(made<EvReset>());
    }
}

Restarting::Restarting(my_context aContext)
    : my_base(aContext)
    , StateLog("Lock FSM: Restarting", "Entering RESTARTING state", "Leaving RESTARTING state") {
    FSM& lock = outermost_context();
    lock.tell(LockStatus::Running, "restarting");
    try {
        lock.stopLock();
        post_event(made<EvStart>());
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "Failed to stop the lock for restart: %s", {}, failure.what());
        lock.tellError(std::string("Failed to stop the lock for restart purpose: ") + failure.what());
        post_event(made<EvReset>());
    }
}

HardwareError::HardwareError(my_context aContext)
    : my_base(aContext)
    , StateLog(
          "Lock FSM: Hardware Error state", "Entering HARDWARE ERROR state", "Exiting HARDWARE ERROR state") {
    outermost_context().tell(LockStatus::Error, "hardware error");
}
