// SPDX-License-Identifier: Apache-2.0
// The lock's state machine with its worker and its queue.
#include "lock/LockFSM.h"

#include "lock/LockListenerSync.h"
#include "lock/LockParameters.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using libfieldwarden::lock::StartAndStopIfc;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;

namespace {

/// Hears the lock and lets a test wait for what it hears.
class Heard : public LockInterfaceListener {
public:
    void error(std::string const& aText) override { add("error: " + aText); }
    void warningsChanged() override { add("warningsChanged"); }
    void doing(std::string const& aText) override { add("doing: " + aText); }
    void state(int aStatus) override { add("state " + std::to_string(aStatus)); }
    void updateLockPIDSet(int aPIDSet) override { add("pidset " + std::to_string(aPIDSet)); }
    void lost(int aStatus) override { add("lost " + std::to_string(aStatus)); }

    /// Waits until something was heard as often as told.
    void await(std::string const& aWhat, std::ptrdiff_t aTimes = 1) {
        std::unique_lock lock(mMutex);
        mNews.wait(lock, [&] { return std::count(mHeard.begin(), mHeard.end(), aWhat) >= aTimes; });
    }
    std::vector<std::string> heard() {
        std::lock_guard const lock(mMutex);
        return mHeard;
    }
    void forget() {
        std::lock_guard const lock(mMutex);
        mHeard.clear();
    }

private:
    void add(std::string aWhat) {
        std::lock_guard const lock(mMutex);
        mHeard.push_back(std::move(aWhat));
        mNews.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mNews;
    std::vector<std::string> mHeard;
};

/// Workflows or streams, and what a test has them do.
struct Worked : StartAndStopIfc {
    void start() override {
        ++starts;
        onStart();
    }
    void stop() override {
        ++stops;
        onStop();
    }

    std::function<void()> onStart = [] {};
    std::function<void()> onStop = [] {};
    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
};

/// Parameters that let a test wait until the machine has looked for the magnet's frequency.
class WatchedParameters : public LockParameters {
public:
    WatchedParameters()
        : ::velmor::kepla::log::Logger("LockParameters", "")
        , LockParameters("/nowhere/lock.config") {}

    double magnet1HFrequency() const override {
        double const hertz = LockParameters::magnet1HFrequency();
        std::lock_guard const lock(mMutex);
        ++mLooks;
        mLooked.notify_all();
        return hertz;
    }
    void awaitLook() {
        std::unique_lock lock(mMutex);
        mLooked.wait(lock, [this] { return mLooks > 0; });
    }

private:
    mutable std::mutex mMutex;
    mutable std::condition_variable mLooked;
    mutable int mLooks = 0;
};

/// The machine on workflows and streams of the test's making.
class TestedFSM : public LockFSM {
public:
    TestedFSM(std::shared_ptr<Worked> aWorkflows,
              std::shared_ptr<Worked> aStreams,
              std::shared_ptr<LockParametersInterface> const& aParameters,
              std::shared_ptr<LockListenerSync> aListener,
              std::function<void()> aEndSteps,
              bool aStartNow)
        : Logger("LockFSM", "Lock")
        , LockFSM(std::shared_ptr<StartAndStopIfc>(std::move(aWorkflows)),
                  std::shared_ptr<StartAndStopIfc>(std::move(aStreams)),
                  aParameters,
                  std::move(aListener),
                  std::move(aEndSteps),
                  aStartNow) {}
};

class LockFSMTest : public testing::Test {
protected:
    LockFSMTest() { mListener->setListener(&mHeard); }

    /// Makes the machine and waits until it has entered its first state.
    void make(bool aStartNow = false) {
        mFSM = std::make_unique<TestedFSM>(
            mWorkflows, mStreams, mParameters, mListener, [this] { mEndSteps(); }, aStartNow);
        mHeard.await("doing: stopped");
    }
    void known() { mParameters->setMagnet1HFrequency(80.123e6); }

    LogCapture mLog;
    Heard mHeard;
    std::shared_ptr<Worked> mWorkflows = std::make_shared<Worked>();
    std::shared_ptr<Worked> mStreams = std::make_shared<Worked>();
    std::shared_ptr<WatchedParameters> mParameters = std::make_shared<WatchedParameters>();
    std::shared_ptr<LockListenerSync> mListener = std::make_shared<LockListenerSync>();
    std::function<void()> mEndSteps = [] {};
    std::unique_ptr<TestedFSM> mFSM;
};

constexpr char const* kRegulating = "doing: lock is regulating, not yet locked";

TEST_F(LockFSMTest, StartsAndStops) {
    known();
    make();
    mHeard.forget();
    mFSM->start();
    mHeard.await(kRegulating);
    EXPECT_THAT(mHeard.heard(), ElementsAre("doing: Starting the lock", "state 2", "doing: starting",
                                            "state 2", kRegulating));
    mHeard.forget();
    mFSM->stop();
    mHeard.await("doing: stopped");
    EXPECT_THAT(mHeard.heard(), ElementsAre("doing: Stopping the lock", "state 2", "doing: stopping",
                                            "state 0", "doing: stopped"));
    EXPECT_EQ(mWorkflows->stops, 1);
    EXPECT_EQ(mStreams->stops, 1);
}

TEST_F(LockFSMTest, TellsOfItselfWhenItIsMade) {
    make();
    mFSM.reset();
    auto const heard = mHeard.heard();
    // The maker's thread tells "" and 0, the worker 0 and "stopped", in an order of their own.
    EXPECT_THAT(heard, testing::UnorderedElementsAre("doing: ", "state 0", "state 0", "doing: stopped"));
}

TEST_F(LockFSMTest, StartsByItselfWhenToldSo) {
    known();
    make(true);
    mHeard.await(kRegulating);
    EXPECT_EQ(mWorkflows->starts, 1);
    // Entered when it is made, and again with the reset.
    EXPECT_EQ(mLog.count(Severity::Debug, "Entering STOPPED state"), 2U);
    EXPECT_TRUE(mLog.has(Severity::Info, "+restart"));
}

TEST_F(LockFSMTest, RestsUntilTheMagnetsFrequencyIsTold) {
    make();
    mFSM->start();
    mParameters->awaitLook();
    mFSM->notifyPIDSetChanged(); // is lost there
    known();
    mFSM->notifyMagnetFrequencyHasBeenSet();
    mHeard.await(kRegulating);
    EXPECT_EQ(mWorkflows->starts, 1);
    EXPECT_EQ(mWorkflows->stops, 0);
}

TEST_F(LockFSMTest, LogsWhatItIsAskedFor) {
    make();
    mLog.clear();
    mFSM->start();
    mFSM->stop();
    mFSM->restart();
    mFSM->notifyHardwareError();
    mFSM->notifyPIDSetChanged();
    mFSM->notifyMagnetFrequencyHasBeenSet();
    using libfieldwarden::test::CapturedLine;
    auto const line = [](char const* aText) { return CapturedLine{Severity::Info, aText, {}, {}}; };
    EXPECT_THAT(mLog.linesOf("LockFSM"),
                ElementsAre(line("+start"), line("+stop"), line("+restart"), line("+notifyHardwareError"),
                            line("+notifyPIDSetChanged"), line("+notifyMagnetFrequencyHasBeenSet")));
    mFSM.reset();
    EXPECT_EQ(mLog.count(Severity::Info, "LockFSM destructor"), 1U);
}

TEST_F(LockFSMTest, RestartsOnANewPIDSet) {
    known();
    make(true);
    mHeard.await(kRegulating);
    mFSM->notifyPIDSetChanged();
    mHeard.await(kRegulating, 2);
    EXPECT_EQ(mWorkflows->starts, 2);
    EXPECT_EQ(mWorkflows->stops, 1);
}

TEST_F(LockFSMTest, HandlesAStopAskedForInALongStartAfterIt) {
    known();
    make();
    std::promise<void> goOn;
    mWorkflows->onStart = [&] { goOn.get_future().wait(); };
    mFSM->start();
    mHeard.await("doing: starting");
    mFSM->stop();
    goOn.set_value();
    mHeard.await("doing: stopped", 2);
    EXPECT_EQ(mStreams->starts, 1);
    EXPECT_EQ(mStreams->stops, 1);
}

TEST_F(LockFSMTest, EndsWithTheRunningStepHoweverManyEventsWait) {
    known();
    make();
    std::promise<void> end;
    mWorkflows->onStart = [&] {
        end.get_future().wait();
        throw std::runtime_error("asked to end");
    };
    mEndSteps = [&] { end.set_value(); };
    mFSM->start();
    mHeard.await("doing: starting");
    for (int i = 0; i < 50'000; ++i) {
        mFSM->restart(); // two events
    }
    mFSM.reset();
    EXPECT_EQ(mWorkflows->starts, 1);
    EXPECT_EQ(mStreams->starts, 0);
}

TEST_F(LockFSMTest, LosesNoEventAndNoStateUnderLoad) {
    known();
    make();
    auto const send = [this](std::uint32_t aSeed) {
        std::mt19937 random(aSeed);
        std::array<std::function<void()>, 5> const events{
            [this] { mFSM->start(); }, [this] { mFSM->stop(); }, [this] { mFSM->notifyHardwareError(); },
            [this] { mFSM->notifyPIDSetChanged(); }, [this] { mFSM->notifyMagnetFrequencyHasBeenSet(); }};
        for (int i = 0; i < 25'000; ++i) {
            events.at(static_cast<std::size_t>(random()) % events.size())();
        }
    };
    mListener->removeListener(); // not a test of how quickly the words are stored
    std::vector<std::thread> senders;
    for (std::uint32_t seed = 0; seed < 4; ++seed) {
        senders.emplace_back(send, seed);
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    // Behind them all: a hardware error tells itself in every state, and the lock still starts.
    mListener->setListener(&mHeard);
    mHeard.forget();
    mFSM->notifyHardwareError();
    mHeard.await("doing: hardware error");
    mFSM->restart();
    mHeard.await(kRegulating);
    EXPECT_GT(mWorkflows->starts, 100);
    EXPECT_THAT(mLog.linesUpTo(Severity::Critical), testing::IsEmpty());
}

TEST_F(LockFSMTest, BeginsAnewWhenSomethingUnknownEscapesAState) {
    known();
    make();
    mWorkflows->onStart = [] { throw 7; }; // NOLINT(hicpp-exception-baseclass)
    mFSM->start();
    mHeard.await("doing: stopped", 2);
    EXPECT_TRUE(mLog.has(Severity::Critical,
                         "The lock state machine failed and begins anew, 0 waiting events are lost: an "
                         "exception of an unknown type"));
    mWorkflows->onStart = [] {};
    mFSM->start();
    mHeard.await(kRegulating);
}

TEST_F(LockFSMTest, CountsTheEventsThatAreLostWithAState) {
    known();
    make();
    std::promise<void> queued;
    mWorkflows->onStart = [&] {
        queued.get_future().wait();
        throw 7; // NOLINT(hicpp-exception-baseclass)
    };
    mFSM->start();
    mHeard.await("doing: starting");
    mFSM->notifyPIDSetChanged();
    mFSM->notifyPIDSetChanged();
    queued.set_value();
    mHeard.await("doing: stopped", 2);
    EXPECT_TRUE(mLog.has(Severity::Critical,
                         "The lock state machine failed and begins anew, 2 waiting events are lost: an "
                         "exception of an unknown type"));
}

} // namespace
