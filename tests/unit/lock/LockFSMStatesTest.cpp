// SPDX-License-Identifier: Apache-2.0
// The lock's whole transition table, every state times every event, run in one thread.
#include "lock/LockFSMStates.h"

#include "lock/LockListenerSync.h"
#include "lock/LockParametersInterface.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/intrusive_ptr.hpp>

using libfieldwarden::lock::made;
using libfieldwarden::lock::StartAndStopIfc;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

using Event = boost::intrusive_ptr<boost::statechart::event_base const>;
using Journal = std::vector<std::string>;

/// Everything that happens, in one order: calls of the listener, and starts and stops.
class Heard : public LockInterfaceListener {
public:
    explicit Heard(Journal& aJournal)
        : mJournal(aJournal) {}
    void error(std::string const& aText) override { mJournal.push_back("error: " + aText); }
    void warningsChanged() override { mJournal.emplace_back("warningsChanged"); }
    void doing(std::string const& aText) override { mJournal.push_back("doing: " + aText); }
    void state(int aStatus) override { mJournal.push_back("state " + std::to_string(aStatus)); }
    void updateLockPIDSet(int /*aPIDSet*/) override { mJournal.emplace_back("updateLockPIDSet"); }
    void lost(int /*aStatus*/) override { mJournal.emplace_back("lost"); }

private:
    Journal& mJournal;
};

/// Workflows or streams that write down their calls; a test may have more done in them.
class Worked : public StartAndStopIfc {
public:
    Worked(std::string aName, Journal& aJournal)
        : mName(std::move(aName))
        , mJournal(aJournal) {}
    void start() override {
        mJournal.push_back(mName + " start");
        onStart();
    }
    void stop() override {
        mJournal.push_back(mName + " stop");
        onStop();
    }

    std::function<void()> onStart = [] {};
    std::function<void()> onStop = [] {};

private:
    std::string mName;
    Journal& mJournal;
};

/// The one number that the states look at.
class Frequency : public LockParametersInterface {
public:
    double magnet1HFrequency() const override { return hertz; }
    void setMagnet1HFrequency(double aFrequencyHz) override { hertz = aFrequencyHz; }

    void reload() override { unexpected(); }
    unsigned int transmitAmplitude_mVpp() const override { return unexpected(); }
    std::uint16_t fftZerosPadding() const override { return static_cast<std::uint16_t>(unexpected()); }
    std::string firmwareRootPath() const override { return std::to_string(unexpected()); }
    unsigned int decimation() const override { return unexpected(); }
    double samplingFrequency() const override { return unexpected(); }
    unsigned int fftLength() const override { return unexpected(); }
    std::shared_ptr<LockParametersPIDSet> currentPID() override { return noSet(); }
    LockPIDSetID pidSetID() const override { return static_cast<LockPIDSetID>(unexpected()); }
    void setPIDSetID(LockPIDSetID /*aID*/) override { unexpected(); }
    std::shared_ptr<LockParametersPIDSet> getToZeroPID() override { return noSet(); }
    std::shared_ptr<LockParametersPIDSet> pidSetByID(LockPIDSetID /*aID*/) const override { return noSet(); }
    double lockedThreshold() const override { return unexpected(); }
    double frequencyFactor1HTo19F() const override { return unexpected(); }
    double fredCoefficientOrder1() const override { return unexpected(); }
    double fredCoefficientOrder2() const override { return unexpected(); }
    std::uint8_t fredOutputShift() const override { return static_cast<std::uint8_t>(unexpected()); }
    std::string pathRootLogs() const override { return std::to_string(unexpected()); }
    double dacOutOfRangeWarningThreshold() const override { return unexpected(); }
    double dacOutOfRangeWarningRearmThreshold() const override { return unexpected(); }
    std::shared_ptr<LockParametersPIDSet> lockToShimCoilTargetTemperaturePID() const override {
        return noSet();
    }
    double lockToShimCoilTargetTemperatureFeedForwardSlope() const override { return unexpected(); }
    double lockToShimCoilTargetTemperatureFeedForwardOffset() const override { return unexpected(); }
    double intermediateFrequencyInHz() const override { return unexpected(); }
    bool useComputedPIDThreshold() const override { return unexpected() != 0; }
    void setComputedPIDThreshold(double /*aThreshold*/,
                                 std::shared_ptr<LockParametersPIDSet> /*aNormal*/,
                                 std::shared_ptr<LockParametersPIDSet> /*aFast*/,
                                 std::shared_ptr<LockParametersPIDSet> /*aSlow*/) override {
        unexpected();
    }

    double hertz = 0.0;

private:
    static unsigned int unexpected() { throw std::logic_error("the states have no use for this parameter"); }
    static std::shared_ptr<LockParametersPIDSet> noSet() {
        unexpected();
        return nullptr;
    }
};

constexpr std::array kEventNames{"EvStart", "EvStop",         "EvStarted",          "EvStopped",
                                 "EvReset", "EvGotFrequency", "EvGotPIDSetChanged", "EvHardwareError"};

Event makeEvent(std::size_t aColumn) {
    static std::array<Event (*)(), kEventNames.size()> const kMakers{made<EvStart>,
                                                                     made<EvStop>,
                                                                     made<EvStarted>,
                                                                     made<EvStopped>,
                                                                     made<EvReset>,
                                                                     made<EvGotMagnetFrequency>,
                                                                     made<EvGotPIDSetChanged>,
                                                                     made<EvHardwareError>};
    return kMakers.at(aColumn)();
}

/// What a state does on entry: its log lines of entry and exit, and what is heard in between.
struct StateRow {
    std::string name;
    std::string logger;
    std::string entry;
    std::string exit;
    Journal heard;
};

StateRow const kStopped{"Stopped",
                        "Lock FSM: Stopped state",
                        "Entering STOPPED state",
                        "Exiting STOPPED state",
                        {"state 0", "doing: stopped"}};
StateRow const kWaiting{"WaitingForMagnetFrequency",
                        "Lock FSM: Waiting for Magnet Frequency state",
                        "Entering WAITING FOR MAGNET FREQUENCY state",
                        "Exiting waiting for magnet frequency",
                        {}};
StateRow const kStarting{"Starting",
                         "Lock FSM: Starting state",
                         "Entering STARTING state",
                         "Exiting STARTING state",
                         {"state 2", "doing: starting", "workflows start", "streams start"}};
StateRow const kStarted{"Started",
                        "Lock FSM: Started",
                        "Entering STARTED state",
                        "Exiting STARTED state",
                        {"state 2", "doing: lock is regulating, not yet locked"}};
StateRow const kStopping{"Stopping",
                         "Lock FSM: Stopping",
                         "Entering STOPPING state",
                         "Leaving STOPPING state",
                         {"state 2", "doing: stopping", "streams stop", "workflows stop"}};
StateRow const kRestarting{"Restarting",
                           "Lock FSM: Restarting",
                           "Entering RESTARTING state",
                           "Leaving RESTARTING state",
                           {"state 2", "doing: restarting", "streams stop", "workflows stop"}};
StateRow const kHardwareError{"HardwareError",
                              "Lock FSM: Hardware Error state",
                              "Entering HARDWARE ERROR state",
                              "Exiting HARDWARE ERROR state",
                              {"state 6", "doing: hardware error"}};

/// The machine, driven by hand.
class Machine {
public:
    Machine()
        : mWorkflows(std::make_shared<Worked>("workflows", journal))
        , mStreams(std::make_shared<Worked>("streams", journal))
        , mHeard(journal) {
        mListener->setListener(&mHeard);
        mProcessor = mScheduler.create_processor<FSM>(std::shared_ptr<StartAndStopIfc>(mWorkflows), mListener,
                                                      std::shared_ptr<StartAndStopIfc>(mStreams),
                                                      std::shared_ptr<LockParametersInterface>(mFrequency));
        mScheduler.initiate_processor(mProcessor);
        mScheduler();
    }

    /// Handles an event and all that it brings about.
    void handle(Event const& aEvent) {
        mScheduler.queue_event(mProcessor, aEvent);
        mScheduler();
    }
    template <typename Kind>
    void handle() {
        handle(made<Kind>());
    }

    /// From within a state's entry: has the machine handle an event ahead of what the state posts itself.
    void post(Event const& aEvent) { fsm().post_event_impl(aEvent); }

    template <typename State>
    bool in() {
        return fsm().state_cast<State const*>() != nullptr;
    }

    Worked& workflows() { return *mWorkflows; }
    Worked& streams() { return *mStreams; }
    Frequency& frequency() { return *mFrequency; }

    LogCapture log;
    Journal journal;

private:
    using Scheduler = boost::statechart::fifo_scheduler<>;

    FSM& fsm() { return dynamic_cast<FSM&>(**mProcessor.lock()); }

    std::shared_ptr<Worked> mWorkflows;
    std::shared_ptr<Worked> mStreams;
    std::shared_ptr<Frequency> mFrequency = std::make_shared<Frequency>();
    std::shared_ptr<LockListenerSync> mListener = std::make_shared<LockListenerSync>();
    Heard mHeard;
    Scheduler mScheduler{false};
    Scheduler::processor_handle mProcessor;
};

using Path = std::vector<StateRow const*>;

/// The states that pass by themselves are met in their entry: the event is posted there, ahead of their own.
void deliverInStarting(Machine& aMachine, Event const& aEvent) {
    bool first = true;
    aMachine.workflows().onStart = [&aMachine, aEvent, first]() mutable {
        if (std::exchange(first, false)) {
            aMachine.journal.emplace_back("--");
            aMachine.post(aEvent);
        }
    };
    aMachine.frequency().hertz = 80e6;
    aMachine.handle<EvStart>();
}

void deliverInAStop(Machine& aMachine, Event const& aEvent) {
    bool first = true;
    aMachine.streams().onStop = [&aMachine, aEvent, first]() mutable {
        if (std::exchange(first, false)) {
            aMachine.journal.emplace_back("--");
            aMachine.post(aEvent);
        }
    };
}

void start(Machine& aMachine) {
    aMachine.frequency().hertz = 80e6;
    aMachine.handle<EvStart>();
}

void mark(Machine& aMachine) {
    aMachine.log.clear();
    aMachine.journal.emplace_back("--");
}

/// What was heard behind the mark.
Journal behindMark(Journal const& aJournal) {
    auto const last = std::find(aJournal.rbegin(), aJournal.rend(), "--");
    return {last.base(), aJournal.end()};
}

/// The entry and exit lines of the states, in order.
Journal passages(LogCapture const& aLog) {
    Journal lines;
    for (auto const& line : aLog.lines()) {
        if (line.name.starts_with("Lock FSM: ") && line.severity == Severity::Debug &&
            line.text != "we do have a magnet frequency, go ahead") {
            EXPECT_EQ(line.category, "Lock");
            lines.push_back(line.name + ": " + line.text);
        }
    }
    return lines;
}

/// The lines that a walk must leave: the exit of each state, the entry of the next.
Journal expectedPassages(StateRow const& aFrom, Path const& aPath) {
    Journal lines;
    StateRow const* from = &aFrom;
    for (StateRow const* to : aPath) {
        lines.push_back(from->logger + ": " + from->exit);
        lines.push_back(to->logger + ": " + to->entry);
        from = to;
    }
    return lines;
}

Journal expectedHeard(Path const& aPath) {
    Journal heard;
    for (StateRow const* state : aPath) {
        heard.insert(heard.end(), state->heard.begin(), state->heard.end());
    }
    return heard;
}

/// States that rest: the event comes from outside.
struct RestingRow {
    StateRow const* state;
    void (*reach)(Machine&);
    std::array<Path, kEventNames.size()> entered;
};

Path const kNone{};

// Columns: EvStart, EvStop, EvStarted, EvStopped, EvReset, EvGotMagnetFrequency, EvGotPIDSetChanged,
// EvHardwareError. A state that passes by itself is followed by where its own event leads; a frequency is
// known unless told otherwise.
std::vector<RestingRow> const& restingRows() {
    static std::vector<RestingRow> const kRows{
        {&kStopped,
         [](Machine& aMachine) { aMachine.frequency().hertz = 80e6; },
         {Path{&kWaiting, &kStarting, &kStarted}, Path{&kStopped}, kNone, kNone, Path{&kStopped},
          Path{&kStopped}, Path{&kStopped}, Path{&kHardwareError}}},
        {&kWaiting,
         [](Machine& aMachine) { aMachine.handle<EvStart>(); },
         {kNone, Path{&kStopped}, kNone, kNone, Path{&kStopped}, Path{&kStarting, &kStarted}, kNone,
          Path{&kHardwareError}}},
        {&kStarted,
         start,
         {kNone, Path{&kStopping, &kStopped}, kNone, kNone, Path{&kStopped},
          Path{&kRestarting, &kWaiting, &kStarting, &kStarted},
          Path{&kRestarting, &kWaiting, &kStarting, &kStarted}, Path{&kHardwareError}}},
        {&kHardwareError,
         [](Machine& aMachine) {
             start(aMachine);
             aMachine.handle<EvHardwareError>();
         },
         {Path{&kWaiting, &kStarting, &kStarted}, Path{&kStopped}, kNone, kNone, Path{&kStopped},
          Path{&kHardwareError}, Path{&kHardwareError}, Path{&kHardwareError}}},
    };
    return kRows;
}

TEST(LockFSMStates, RestingStatesGoWhereTheTableSays) {
    for (RestingRow const& row : restingRows()) {
        for (std::size_t column = 0; column < kEventNames.size(); ++column) {
            SCOPED_TRACE(row.state->name + " + " + kEventNames.at(column));
            Machine machine;
            row.reach(machine);
            mark(machine);
            machine.handle(makeEvent(column));
            Path const& path = row.entered.at(column);
            EXPECT_THAT(passages(machine.log), ElementsAreArray(expectedPassages(*row.state, path)));
            EXPECT_THAT(behindMark(machine.journal), ElementsAreArray(expectedHeard(path)));
        }
    }
}

/// States that pass by themselves: the event is handled ahead of the state's own one, which then meets the
/// state that the event has led to.
struct PassingRow {
    StateRow const* state;
    void (*deliver)(Machine&, Event const&);
    std::array<Path, kEventNames.size()> entered;
};

std::vector<PassingRow> const& passingRows() {
    static std::vector<PassingRow> const kRows{
        // Its own event, EvStarted, is discarded everywhere but in Starting.
        {&kStarting,
         deliverInStarting,
         {Path{&kStarted}, Path{&kStopping, &kStopped}, Path{&kStarted}, Path{&kStarted}, Path{&kStopped},
          Path{&kRestarting, &kWaiting, &kStarting, &kStarted},
          Path{&kRestarting, &kWaiting, &kStarting, &kStarted}, Path{&kHardwareError}}},
        // Its own event is EvStopped.
        {&kStopping,
         [](Machine& aMachine, Event const& aEvent) {
             start(aMachine);
             deliverInAStop(aMachine, aEvent);
             aMachine.handle<EvStop>();
         },
         {Path{&kStopped}, Path{&kStopping, &kStopped}, Path{&kStopped}, Path{&kStopped}, Path{&kStopped},
          Path{&kStopped}, Path{&kStopped}, Path{&kHardwareError}}},
        // Its own event is EvStart, which leads on from Stopped and from HardwareError.
        {&kRestarting,
         [](Machine& aMachine, Event const& aEvent) {
             start(aMachine);
             deliverInAStop(aMachine, aEvent);
             aMachine.handle<EvGotPIDSetChanged>();
         },
         {Path{&kWaiting, &kStarting, &kStarted}, Path{&kStopping, &kStopped},
          Path{&kWaiting, &kStarting, &kStarted}, Path{&kStopped, &kWaiting, &kStarting, &kStarted},
          Path{&kStopped, &kWaiting, &kStarting, &kStarted},
          Path{&kRestarting, &kWaiting, &kStarting, &kStarted},
          Path{&kRestarting, &kWaiting, &kStarting, &kStarted},
          Path{&kHardwareError, &kWaiting, &kStarting, &kStarted}}},
    };
    return kRows;
}

/// The last steps of the walk.
Journal lastPassages(LogCapture const& aLog, std::size_t aEntries) {
    Journal const all = passages(aLog);
    return {all.end() - static_cast<std::ptrdiff_t>(2 * aEntries), all.end()};
}

TEST(LockFSMStates, PassingStatesGoWhereTheTableSays) {
    for (PassingRow const& row : passingRows()) {
        for (std::size_t column = 0; column < kEventNames.size(); ++column) {
            SCOPED_TRACE(row.state->name + " + " + kEventNames.at(column));
            Machine machine;
            row.deliver(machine, makeEvent(column));
            Path const& path = row.entered.at(column);
            EXPECT_THAT(lastPassages(machine.log, path.size()),
                        ElementsAreArray(expectedPassages(*row.state, path)));
            // The rest of the state's own entry comes first: the second start or stop.
            Journal heard{row.state->heard.back()};
            Journal const then = expectedHeard(path);
            heard.insert(heard.end(), then.begin(), then.end());
            EXPECT_THAT(behindMark(machine.journal), ElementsAreArray(heard));
        }
    }
}

TEST(LockFSMStates, BeginsStopped) {
    Machine machine;
    EXPECT_TRUE(machine.in<Stopped>());
    EXPECT_THAT(machine.journal, ElementsAre("state 0", "doing: stopped"));
    EXPECT_TRUE(machine.log.has(Severity::Debug, "Entering STOPPED state"));
}

TEST(LockFSMStates, WaitsForTheMagnetsFrequency) {
    Machine machine;
    machine.handle<EvStart>();
    EXPECT_TRUE(machine.in<WaitingForMagnetFrequency>());
    EXPECT_FALSE(machine.log.has(Severity::Debug, "we do have a magnet frequency, go ahead"));
    machine.handle<EvGotMagnetFrequency>();
    EXPECT_TRUE(machine.in<Started>());
}

TEST(LockFSMStates, GoesAheadWithAFrequencyThatIsKnown) {
    Machine machine;
    start(machine);
    EXPECT_TRUE(machine.in<Started>());
    EXPECT_TRUE(machine.log.has(Severity::Debug, "we do have a magnet frequency, go ahead"));
}

/// A failure of one step: who fails, what is logged and what is heard behind the status.
struct FailureRow {
    char const* what;
    void (*arrange)(Machine&);
    void (*provoke)(Machine&);
    char const* line;
    Journal heard;
};

std::vector<FailureRow> const& failureRows() {
    static auto const fail = [] { throw std::runtime_error("no power"); };
    static std::vector<FailureRow> const kRows{
        {"the workflows' start",
         [](Machine& aMachine) { aMachine.workflows().onStart = fail; },
         start,
         "Starting the lock failed with error: no power",
         {"state 2", "doing: starting", "workflows start", "state 6",
          "error: Could not start the lock: no power", "state 0", "doing: stopped"}},
        {"the streams' start",
         [](Machine& aMachine) { aMachine.streams().onStart = fail; },
         start,
         "Starting the lock failed with error: no power",
         {"state 2", "doing: starting", "workflows start", "streams start", "state 6",
          "error: Could not start the lock: no power", "state 0", "doing: stopped"}},
        {"the streams' stop",
         [](Machine& aMachine) {
             start(aMachine);
             aMachine.streams().onStop = fail;
         },
         [](Machine& aMachine) { aMachine.handle<EvStop>(); },
         "Failed to stop the lock: no power",
         {"state 2", "doing: stopping", "streams stop", "state 6", "error: Failed to stop the lock: no power",
          "state 0", "doing: stopped"}},
        {"the workflows' stop for a restart",
         [](Machine& aMachine) {
             start(aMachine);
             aMachine.workflows().onStop = fail;
         },
         [](Machine& aMachine) { aMachine.handle<EvGotMagnetFrequency>(); },
         "Failed to stop the lock for restart: no power",
         {"state 2", "doing: restarting", "streams stop", "workflows stop", "state 6",
          "error: Failed to stop the lock for restart purpose: no power", "state 0", "doing: stopped"}},
    };
    return kRows;
}

TEST(LockFSMStates, TellFailuresAndEndStopped) {
    for (FailureRow const& row : failureRows()) {
        SCOPED_TRACE(row.what);
        Machine machine;
        row.arrange(machine);
        mark(machine);
        row.provoke(machine);
        EXPECT_TRUE(machine.log.has(Severity::Error, row.line));
        EXPECT_THAT(behindMark(machine.journal), ElementsAreArray(row.heard));
        EXPECT_TRUE(machine.in<Stopped>());
    }
}

TEST(LockFSMStates, StartAgainAfterAFailure) {
    Machine machine;
    machine.workflows().onStart = [] { throw std::runtime_error("no power"); };
    start(machine);
    machine.workflows().onStart = [] {};
    start(machine);
    EXPECT_TRUE(machine.in<Started>());
}

} // namespace
