// SPDX-License-Identifier: Apache-2.0
// The lock's state machine: its events, its states and who goes where. It runs on the worker of LockFSM.
#pragma once

#include "lock/LockStatus.h"

#include <velmor/kepla/log/Logger.h>

#include <memory>
#include <string>

#include <boost/intrusive_ptr.hpp>
#include <boost/mpl/list.hpp>
#include <boost/statechart/asynchronous_state_machine.hpp>
#include <boost/statechart/custom_reaction.hpp>
#include <boost/statechart/event.hpp>
#include <boost/statechart/fifo_scheduler.hpp>
#include <boost/statechart/state.hpp>
#include <boost/statechart/transition.hpp>

class LockListenerSync;
class LockParametersInterface;

// All states are outermost ones, and all work is done in their constructors. A dash discards its event;
// "again" is a real re-entry. "Waiting" stands for WaitingForMagnetFrequency, "Frequency" for
// EvGotMagnetFrequency and "PIDSet" for EvGotPIDSetChanged.
//
// clang-format off
//
//   state \ event | Start    Stop      Started  Stopped  Reset    Frequency   PIDSet      HardwareError
//   --------------+------------------------------------------------------------------------------------
//   Stopped       | Waiting  again     -        -        again    again       again       HardwareError
//   Waiting       | -        Stopped   -        -        Stopped  Starting    -           HardwareError
//   Starting      | -        Stopping  Started  -        Stopped  Restarting  Restarting  HardwareError
//   Started       | -        Stopping  -        -        Stopped  Restarting  Restarting  HardwareError
//   Stopping      | -        again     -        Stopped  Stopped  -           -           HardwareError
//   Restarting    | Waiting  Stopping  -        Stopped  Stopped  again       again       HardwareError
//   HardwareError | Waiting  Stopped   -        -        Stopped  again       again       again
//
// clang-format on
//
// A reset leaves `Started` without stopping anything, and so do a stop and a reset the state `HardwareError`:
// the next start resets the hardware.

struct EvStart : boost::statechart::event<EvStart> {};
struct EvStop : boost::statechart::event<EvStop> {};
struct EvStarted : boost::statechart::event<EvStarted> {};
struct EvStopped : boost::statechart::event<EvStopped> {};
struct EvReset : boost::statechart::event<EvReset> {};
struct EvHardwareError : boost::statechart::event<EvHardwareError> {};
struct EvGotPIDSetChanged : boost::statechart::event<EvGotPIDSetChanged> {};
struct EvGotMagnetFrequency : boost::statechart::event<EvGotMagnetFrequency> {};

namespace libfieldwarden::lock {

/// @return A new event, owned by the pointer.
template <typename Event>
boost::intrusive_ptr<boost::statechart::event_base const> made() {
    return {new Event()}; // NOLINT: boost::statechart counts the references in the event itself
}

/// What the machine starts and stops: the workflows and the streams.
class StartAndStopIfc {
public:
    virtual ~StartAndStopIfc() = default;
    virtual void start() = 0;
    virtual void stop() = 0;
};

/// A state's logger: tells that the state is entered when it is made, and that it is left when it goes.
class StateLog : protected velmor::kepla::log::Logger {
protected:
    /// @param aName   Of the logger.
    /// @param aEntry  Line on entry.
    /// @param aExit   Line on exit; must live as long as the program.
    StateLog(char const* aName, char const* aEntry, char const* aExit);
    ~StateLog();
    StateLog(StateLog const&) = delete;
    StateLog& operator=(StateLog const&) = delete;

private:
    char const* mExit;
};

} // namespace libfieldwarden::lock

struct Stopped;
struct WaitingForMagnetFrequency;
struct Starting;
struct Started;
struct Stopping;
struct Restarting;
struct HardwareError;

/// The outermost context: what the states work on. Only the worker touches it.
class FSM : public boost::statechart::asynchronous_state_machine<FSM, Stopped> {
public:
    FSM(my_context aContext,
        std::shared_ptr<libfieldwarden::lock::StartAndStopIfc> aWorkflows,
        std::shared_ptr<LockListenerSync> aListener,
        std::shared_ptr<libfieldwarden::lock::StartAndStopIfc> aStreams,
        std::shared_ptr<LockParametersInterface> aParameters);

    /// @return Whether the magnet's frequency has been told.
    bool magnetFrequencyKnown() const;

    /// Starts the workflows, then the streams.
    void startLock();
    /// Stops the streams, then the workflows.
    void stopLock();

    /// Tells the listener status and activity, in this order.
    void tell(libfieldwarden::lock::LockStatus aStatus, char const* aDoing);
    /// Tells the listener the status error, then the words.
    void tellError(std::string const& aWords);

private:
    std::shared_ptr<libfieldwarden::lock::StartAndStopIfc> mWorkflows;
    std::shared_ptr<LockListenerSync> mListener;
    std::shared_ptr<libfieldwarden::lock::StartAndStopIfc> mStreams;
    std::shared_ptr<LockParametersInterface> mParameters;
};

// NOLINTBEGIN(readability-identifier-naming): boost::statechart wants the name `reactions`

struct Stopped : boost::statechart::state<Stopped, FSM>, private libfieldwarden::lock::StateLog {
    using reactions = boost::mpl::list<boost::statechart::transition<EvStart, WaitingForMagnetFrequency>,
                                       boost::statechart::transition<EvStop, Stopped>,
                                       boost::statechart::transition<EvReset, Stopped>,
                                       boost::statechart::transition<EvGotMagnetFrequency, Stopped>,
                                       boost::statechart::transition<EvGotPIDSetChanged, Stopped>,
                                       boost::statechart::transition<EvHardwareError, HardwareError>>;
    explicit Stopped(my_context aContext);
};

struct WaitingForMagnetFrequency : boost::statechart::state<WaitingForMagnetFrequency, FSM>,
                                   private libfieldwarden::lock::StateLog {
    using reactions = boost::mpl::list<boost::statechart::transition<EvStop, Stopped>,
                                       boost::statechart::transition<EvReset, Stopped>,
                                       boost::statechart::transition<EvGotMagnetFrequency, Starting>,
                                       boost::statechart::transition<EvHardwareError, HardwareError>>;
    explicit WaitingForMagnetFrequency(my_context aContext);
};

struct Starting : boost::statechart::state<Starting, FSM>, private libfieldwarden::lock::StateLog {
    using reactions = boost::mpl::list<boost::statechart::transition<EvStop, Stopping>,
                                       boost::statechart::transition<EvStarted, Started>,
                                       boost::statechart::transition<EvReset, Stopped>,
                                       boost::statechart::transition<EvGotMagnetFrequency, Restarting>,
                                       boost::statechart::transition<EvGotPIDSetChanged, Restarting>,
                                       boost::statechart::transition<EvHardwareError, HardwareError>>;
    explicit Starting(my_context aContext);
};

struct Started : boost::statechart::state<Started, FSM>, private libfieldwarden::lock::StateLog {
    using reactions = boost::mpl::list<boost::statechart::transition<EvStop, Stopping>,
                                       boost::statechart::transition<EvReset, Stopped>,
                                       boost::statechart::transition<EvGotMagnetFrequency, Restarting>,
                                       boost::statechart::transition<EvGotPIDSetChanged, Restarting>,
                                       boost::statechart::transition<EvHardwareError, HardwareError>>;
    explicit Started(my_context aContext);
};

struct Stopping : boost::statechart::state<Stopping, FSM>, private libfieldwarden::lock::StateLog {
    using reactions = boost::mpl::list<boost::statechart::transition<EvStop, Stopping>,
                                       boost::statechart::transition<EvStopped, Stopped>,
                                       boost::statechart::transition<EvReset, Stopped>,
                                       boost::statechart::transition<EvHardwareError, HardwareError>>;
    explicit Stopping(my_context aContext);
};

struct Restarting : boost::statechart::state<Restarting, FSM>, private libfieldwarden::lock::StateLog {
    using reactions = boost::mpl::list<boost::statechart::transition<EvStart, WaitingForMagnetFrequency>,
                                       boost::statechart::transition<EvStop, Stopping>,
                                       boost::statechart::transition<EvStopped, Stopped>,
                                       boost::statechart::transition<EvReset, Stopped>,
                                       boost::statechart::transition<EvGotMagnetFrequency, Restarting>,
                                       boost::statechart::transition<EvGotPIDSetChanged, Restarting>,
                                       boost::statechart::transition<EvHardwareError, HardwareError>>;
    explicit Restarting(my_context aContext);
};

struct HardwareError : boost::statechart::state<HardwareError, FSM>, private libfieldwarden::lock::StateLog {
    using reactions = boost::mpl::list<boost::statechart::transition<EvStart, WaitingForMagnetFrequency>,
                                       boost::statechart::transition<EvStop, Stopped>,
                                       boost::statechart::transition<EvReset, Stopped>,
                                       boost::statechart::transition<EvGotMagnetFrequency, HardwareError>,
                                       boost::statechart::transition<EvGotPIDSetChanged, HardwareError>,
                                       boost::statechart::transition<EvHardwareError, HardwareError>>;
    explicit HardwareError(my_context aContext);
};

// NOLINTEND(readability-identifier-naming)
