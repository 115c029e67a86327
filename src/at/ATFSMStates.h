// SPDX-License-Identifier: Apache-2.0
// The state machine of the adjustable temperature: events, states, who goes where. Runs on ATFSM's worker.
#pragma once

#include "at/ATFSMParameters.h"
#include "at/AtFsmControlerIfc.h"
#include "at/FlowForATFSMIfc.h"
#include "at/SampleExchangeInfo.h"
#include "at/StateWithRamp.h"

#include <velmor/kepla/log/Logger.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/intrusive_ptr.hpp>
#include <boost/mpl/list.hpp>
#include <boost/statechart/asynchronous_state_machine.hpp>
#include <boost/statechart/custom_reaction.hpp>
#include <boost/statechart/deep_history.hpp>
#include <boost/statechart/deferral.hpp>
#include <boost/statechart/event.hpp>
#include <boost/statechart/exception_translator.hpp>
#include <boost/statechart/fifo_scheduler.hpp>
#include <boost/statechart/state.hpp>
#include <boost/statechart/transition.hpp>

class ATFlowTable;
class TempBoardQ47Ifc;
class TemperatureListenerInterface;
class TemperatureStabilityMgr;

// NormalMetaState (deep history)                        SampleExchangeMetaState
//
//   Off ---enable---> BeginRamp_SetHoldFlow               SampleExchangeEnter --gas is off--> SampleExchange
//    |  \               | 0.3 s        \ disable                |                                 | complete
//    |   low target     v               \                       '------ complete ------.          v
//    |    \--> On-   RampTemperature- <----------------.                               '-> SampleExchangeExit
//    |         But-  AndFlow  --at target--> On         | enable or target
//    |         Target-  | disable             | disable |
//    |         TooLow   v                     v         |
//    |               RampToOffTemperatureAndFlow -------+
//    |                  | at target                     |
//    |                  v                               |
//    |               FlushBeforePowerOff ---------------+
//    |                  | 5 s                           |
//    |                  v                               |
//    '<---- 0.3 s -- HoldBeforePowerOff ----------------+
//                    HardPowerOff ----------------------'   from everywhere
//
// Every normal state goes to the exchange on EvPrepareTransfer; the way back leads to where it came from.
// Events that a state does not list are discarded.

struct EvEnable : boost::statechart::event<EvEnable> {};
struct EvDisable : boost::statechart::event<EvDisable> {};
/// The target itself is in ATFSMParameters.
struct EvSetTargetTemperature : boost::statechart::event<EvSetTargetTemperature> {};
struct EvAtTarget : boost::statechart::event<EvAtTarget> {
    explicit EvAtTarget(unsigned aRamp)
        : ramp(aRamp) {}
    unsigned ramp; ///< Serial number of the ramp that has arrived.
};
struct EvTimerTick : boost::statechart::event<EvTimerTick> {
    explicit EvTimerTick(std::chrono::milliseconds aElapsed)
        : elapsed(aElapsed) {}
    std::chrono::milliseconds elapsed; ///< Since the last tick.
};
struct EvHardPowerOff : boost::statechart::event<EvHardPowerOff> {};
struct EvPrepareTransfer : boost::statechart::event<EvPrepareTransfer> {};
/// Whether a sample is in the magnet is in ATFSMParameters.
struct EvCompleteTransfer : boost::statechart::event<EvCompleteTransfer> {};

struct NormalMetaState;
struct Off;
struct OnButTargetTooLow;
struct BeginRamp_SetHoldFlow; // NOLINT(readability-identifier-naming): its name in the log
struct RampTemperatureAndFlow;
struct On;
struct RampToOffTemperatureAndFlow;
struct FlushBeforePowerOff;
struct HoldBeforePowerOff;
struct HardPowerOff;
struct SampleExchangeMetaState;
struct SampleExchangeEnter;
struct SampleExchange;
struct SampleExchangeExit;

namespace libfieldwarden::at {

/// @return A new event, owned by the pointer.
template <typename Event, typename... Arguments>
boost::intrusive_ptr<boost::statechart::event_base const> made(Arguments... aArguments) {
    return {new Event(aArguments...)}; // NOLINT: boost::statechart counts the references in the event itself
}

/// What the machine works on; all but the exchange's information is there from the start.
struct ATFSMParts {
    std::shared_ptr<TempBoardQ47Ifc> board;
    std::shared_ptr<ATFlowTable> flows;
    std::shared_ptr<ATFSMParameters> parameters;
    std::shared_ptr<TemperatureListenerInterface> listener;
    std::shared_ptr<TemperatureStabilityMgr> stabilityMgr;
    std::shared_ptr<FlowForATFSMIfc> flowController;
    std::shared_ptr<SampleExchangeInfo> sampleExchangeInfo;
    std::shared_ptr<AtFsmControlerIfc> transfer;
};

/// A state's logger, which says when the state is left.
class ATStateLog : protected virtual velmor::kepla::log::Logger {
public:
    ATStateLog(ATStateLog const&) = delete;
    ATStateLog& operator=(ATStateLog const&) = delete;

protected:
    /// @param aExit      Line on exit; lives as long as the program.
    /// @param aSeverity  Its severity.
    explicit ATStateLog(char const* aExit,
                        velmor::kepla::log::Severity aSeverity = velmor::kepla::log::Severity::Debug);
    ~ATStateLog();

private:
    char const* mExit;
    velmor::kepla::log::Severity mSeverity;
};

/// Adds up the ticks since a state was entered.
class TimeInState {
public:
    /// @return The sum with this tick.
    std::chrono::nanoseconds add(std::chrono::milliseconds aElapsed) { return mSum += aElapsed; }

private:
    std::chrono::nanoseconds mSum{0};
};

/// The time of an exchange's step. It begins anew with each step that is accepted, but not with the same one
/// again: a box that accepts a step and does not follow makes no progress.
class StepTime {
public:
    void add(std::chrono::milliseconds aElapsed) { mElapsed += aElapsed; }
    /// Whether the next step may be taken.
    bool isOver() const { return mElapsed > std::chrono::milliseconds(500); }
    /// Whether the gas has not followed for too long.
    bool isTimeout() const { return mElapsed > std::chrono::milliseconds(10000); }
    /// @param aIndex  Software index of the step that was accepted.
    /// @param aHold   Its hold flow.
    void accept(std::uint8_t aIndex, bool aHold) {
        std::pair const step(aIndex, aHold);
        if (std::exchange(mAccepted, step) != step) {
            mElapsed = std::chrono::milliseconds(0);
        }
    }

private:
    std::chrono::milliseconds mElapsed{0};
    std::optional<std::pair<std::uint8_t, bool>> mAccepted;
};

} // namespace libfieldwarden::at

/// The outermost context. An exception that leaves a state ends the machine: heating and gas are made safe,
/// the listener is told of an error, a transfer that may have waited for the event gets its refusal, and the
/// machine begins anew in `Off`. Where the board refuses even that, each later event tries again first; the
/// gas stays on until the heating has ended.
class FSMAT : public boost::statechart::
                  asynchronous_state_machine<FSMAT, NormalMetaState, boost::statechart::fifo_scheduler<>>,
              protected virtual velmor::kepla::log::Logger {
public:
    FSMAT(my_context aContext, libfieldwarden::at::ATFSMParts aParts);
    ~FSMAT() override;
    FSMAT(FSMAT const&) = delete;
    FSMAT& operator=(FSMAT const&) = delete;

    std::shared_ptr<TempBoardQ47Ifc> const& board() const { return mParts.board; }
    std::shared_ptr<ATFlowTable> const& flows() const { return mParts.flows; }
    std::shared_ptr<ATFSMParameters> const& parameters() const { return mParts.parameters; }
    std::shared_ptr<TemperatureListenerInterface> const& listener() const { return mParts.listener; }
    std::shared_ptr<libfieldwarden::at::FlowForATFSMIfc> const& flowController() const {
        return mParts.flowController;
    }
    TemperatureStabilityMgr& stabilityMgr() const { return *mParts.stabilityMgr; }
    AtFsmControlerIfc& transfer() const { return *mParts.transfer; }

    /// @return What the present or last exchange found; null before the first one.
    std::shared_ptr<SampleExchangeInfo> const& sampleExchangeInfo() const {
        return mParts.sampleExchangeInfo;
    }
    void setSampleExchangeInfo(std::shared_ptr<SampleExchangeInfo> aInfo) {
        mParts.sampleExchangeInfo = std::move(aInfo);
    }

    /// @return Whether the target is one that can be regulated.
    bool isTargetAboveStartThreshold();

    /// @return The lower bound in K of board and flow table together.
    double lowestRegulated() const;

    /// @return The serial number of a ramp that begins.
    unsigned nextRamp() { return ++mLastRamp; }
    unsigned lastRamp() const { return mLastRamp; }

    /// Ends the heating where no gas was seen last.
    /// @return Whether gas was seen.
    bool watchGas();

    /// Ends the heating if it is on, and says that no gas flows.
    void endHeating();

private:
    using Machine = boost::statechart::state_machine<FSMAT, NormalMetaState>;

    void initiate_impl() override;
    void process_event_impl(boost::statechart::event_base const& aEvent) override;
    template <typename Step>
    void guarded(bool aSomebodyMayWait, Step const& aStep);
    void contain(bool aSomebodyMayWait, std::string const& aReason);
    bool isOfTransfer(boost::statechart::event_base const& aEvent) const;
    bool makeSafe() noexcept;
    bool endHeatingSomehow() noexcept;
    void beginAnew();

    libfieldwarden::at::ATFSMParts mParts;
    unsigned mLastRamp = 0;
    unsigned mLostEvents = 0;
};

// NOLINTBEGIN(readability-identifier-naming): boost::statechart wants the names `reactions` and `react`

struct NormalMetaState
    : boost::statechart::state<NormalMetaState, FSMAT, Off, boost::statechart::has_deep_history>,
      private libfieldwarden::at::ATStateLog {
    explicit NormalMetaState(my_context aContext);
};

struct SampleExchangeMetaState
    : boost::statechart::state<SampleExchangeMetaState, FSMAT, SampleExchangeEnter>,
      private libfieldwarden::at::ATStateLog {
    explicit SampleExchangeMetaState(my_context aContext);
};

struct Off : boost::statechart::state<Off, NormalMetaState>, private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::custom_reaction<EvEnable>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::transition<EvPrepareTransfer, SampleExchangeMetaState>>;
    explicit Off(my_context aContext);
    boost::statechart::result react(EvEnable const& aEvent);
};

struct OnButTargetTooLow : boost::statechart::state<OnButTargetTooLow, NormalMetaState>,
                           private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::custom_reaction<EvSetTargetTemperature>,
                         boost::statechart::transition<EvDisable, Off>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::transition<EvPrepareTransfer, SampleExchangeMetaState>>;
    explicit OnButTargetTooLow(my_context aContext);
    boost::statechart::result react(EvSetTargetTemperature const& aEvent);
};

struct BeginRamp_SetHoldFlow : boost::statechart::state<BeginRamp_SetHoldFlow, NormalMetaState>,
                               private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::transition<EvDisable, FlushBeforePowerOff>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::custom_reaction<EvTimerTick>,
                         boost::statechart::transition<EvPrepareTransfer, SampleExchangeMetaState>>;
    explicit BeginRamp_SetHoldFlow(my_context aContext);
    boost::statechart::result react(EvTimerTick const& aEvent);

private:
    libfieldwarden::at::TimeInState mTime;
};

struct RampTemperatureAndFlow : boost::statechart::state<RampTemperatureAndFlow, NormalMetaState>,
                                private libfieldwarden::at::ATStateLog,
                                private StateWithRamp {
    using reactions =
        boost::mpl::list<boost::statechart::custom_reaction<EvSetTargetTemperature>,
                         boost::statechart::transition<EvDisable, RampToOffTemperatureAndFlow>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::custom_reaction<EvTimerTick>,
                         boost::statechart::custom_reaction<EvAtTarget>,
                         boost::statechart::transition<EvPrepareTransfer, SampleExchangeMetaState>>;
    explicit RampTemperatureAndFlow(my_context aContext);
    boost::statechart::result react(EvSetTargetTemperature const& aEvent);
    boost::statechart::result react(EvTimerTick const& aEvent);
    boost::statechart::result react(EvAtTarget const& aEvent);

private:
    void begin();
};

/// Nothing is done here but to see at each tick that the gas still flows.
struct On : boost::statechart::state<On, NormalMetaState>, private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::transition<EvSetTargetTemperature, RampTemperatureAndFlow>,
                         boost::statechart::transition<EvDisable, RampToOffTemperatureAndFlow>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::custom_reaction<EvTimerTick>,
                         boost::statechart::transition<EvPrepareTransfer, SampleExchangeMetaState>>;
    explicit On(my_context aContext);
    boost::statechart::result react(EvTimerTick const& aEvent);
};

/// A target leads out of it even while the operator has disabled the regulation, as gas flows still; so it
/// does out of the next two.
struct RampToOffTemperatureAndFlow : boost::statechart::state<RampToOffTemperatureAndFlow, NormalMetaState>,
                                     private libfieldwarden::at::ATStateLog,
                                     private StateWithRamp {
    using reactions =
        boost::mpl::list<boost::statechart::transition<EvEnable, RampTemperatureAndFlow>,
                         boost::statechart::transition<EvSetTargetTemperature, RampTemperatureAndFlow>,
                         boost::statechart::custom_reaction<EvAtTarget>,
                         boost::statechart::custom_reaction<EvTimerTick>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::transition<EvPrepareTransfer, SampleExchangeMetaState>>;
    explicit RampToOffTemperatureAndFlow(my_context aContext);
    boost::statechart::result react(EvTimerTick const& aEvent);
    boost::statechart::result react(EvAtTarget const& aEvent);

private:
    double mTarget = 0.0; ///< Where the ramp to off ends, in K.
};

struct FlushBeforePowerOff : boost::statechart::state<FlushBeforePowerOff, NormalMetaState>,
                             private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::transition<EvEnable, RampTemperatureAndFlow>,
                         boost::statechart::transition<EvSetTargetTemperature, RampTemperatureAndFlow>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::custom_reaction<EvTimerTick>,
                         boost::statechart::transition<EvPrepareTransfer, SampleExchangeMetaState>>;
    explicit FlushBeforePowerOff(my_context aContext);
    boost::statechart::result react(EvTimerTick const& aEvent);

private:
    libfieldwarden::at::TimeInState mTime;
};

struct HoldBeforePowerOff : boost::statechart::state<HoldBeforePowerOff, NormalMetaState>,
                            private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::transition<EvEnable, RampTemperatureAndFlow>,
                         boost::statechart::transition<EvSetTargetTemperature, RampTemperatureAndFlow>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::custom_reaction<EvTimerTick>,
                         boost::statechart::transition<EvPrepareTransfer, SampleExchangeMetaState>>;
    explicit HoldBeforePowerOff(my_context aContext);
    boost::statechart::result react(EvTimerTick const& aEvent);

private:
    libfieldwarden::at::TimeInState mTime;
};

/// An operator who sets a target here restarts from the error.
struct HardPowerOff : boost::statechart::state<HardPowerOff, NormalMetaState>,
                      private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::transition<EvEnable, RampTemperatureAndFlow>,
                         boost::statechart::transition<EvSetTargetTemperature, RampTemperatureAndFlow>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::transition<EvPrepareTransfer, SampleExchangeMetaState>>;
    explicit HardPowerOff(my_context aContext);
};

struct SampleExchangeEnter : boost::statechart::state<SampleExchangeEnter, SampleExchangeMetaState>,
                             private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::transition<EvCompleteTransfer, SampleExchangeExit>,
                         boost::statechart::custom_reaction<EvTimerTick>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::deferral<EvEnable>,
                         boost::statechart::deferral<EvDisable>,
                         boost::statechart::deferral<EvSetTargetTemperature>>;
    explicit SampleExchangeEnter(my_context aContext);
    boost::statechart::result react(EvTimerTick const& aEvent);

private:
    bool readFlow(std::uint8_t& aIndex, bool& aHold);
    boost::statechart::result reduce(std::uint8_t aIndex, bool aHold);

    libfieldwarden::at::StepTime mTime;
};

struct SampleExchange : boost::statechart::state<SampleExchange, SampleExchangeMetaState>,
                        private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::custom_reaction<EvCompleteTransfer>,
                         boost::statechart::custom_reaction<EvPrepareTransfer>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::deferral<EvEnable>,
                         boost::statechart::deferral<EvDisable>,
                         boost::statechart::deferral<EvSetTargetTemperature>>;
    explicit SampleExchange(my_context aContext);
    boost::statechart::result react(EvCompleteTransfer const& aEvent);
    boost::statechart::result react(EvPrepareTransfer const& aEvent);
};

struct SampleExchangeExit : boost::statechart::state<SampleExchangeExit, SampleExchangeMetaState>,
                            private libfieldwarden::at::ATStateLog {
    using reactions =
        boost::mpl::list<boost::statechart::transition<EvPrepareTransfer, SampleExchangeEnter>,
                         boost::statechart::custom_reaction<EvTimerTick>,
                         boost::statechart::transition<EvHardPowerOff, HardPowerOff>,
                         boost::statechart::transition<boost::statechart::exception_thrown, HardPowerOff>,
                         boost::statechart::deferral<EvEnable>,
                         boost::statechart::deferral<EvDisable>,
                         boost::statechart::deferral<EvSetTargetTemperature>>;
    explicit SampleExchangeExit(my_context aContext);
    boost::statechart::result react(EvTimerTick const& aEvent);

private:
    boost::statechart::result arrive();
    boost::statechart::result raise(std::uint8_t aIndex, bool aHold);

    std::uint8_t mTargetIndex = 0; ///< Software index.
    bool mTargetHold = false;
    libfieldwarden::at::StepTime mTime;
};

// NOLINTEND(readability-identifier-naming)
