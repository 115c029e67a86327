// SPDX-License-Identifier: Apache-2.0
// The lock's news on their way to the daemon.
#include "lock/LockListenerSync.h"

#include "support/Eventually.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::eventually;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Writes down what it hears.
class Heard : public LockInterfaceListener {
public:
    void error(std::string const& aText) override { heard.push_back("error " + aText); }
    void warningsChanged() override { heard.emplace_back("warningsChanged"); }
    void doing(std::string const& aText) override { heard.push_back("doing " + aText); }
    void state(int aStatus) override { heard.push_back("state " + std::to_string(aStatus)); }
    void updateLockPIDSet(int aPIDSet) override { heard.push_back("pidset " + std::to_string(aPIDSet)); }
    void lost(int aStatus) override { heard.push_back("lost " + std::to_string(aStatus)); }

    std::vector<std::string> heard;
};

class LockListenerSyncTest : public testing::Test {
protected:
    LogCapture mLog;
    LockListenerSync mSync;
    Heard mListener;
};

/// Every operation of the listener with what it logs and what is heard of it.
struct Operation {
    std::function<void(LockInterfaceListener&)> call;
    CapturedLine line;
    std::string heard;
};

std::vector<Operation> const& operations() {
    static std::vector<Operation> const kAll{
        {[](auto& aTo) { aTo.lost(2); }, {Severity::Info, "+lost(status = 2)", {}, {}}, "lost 2"},
        {[](auto& aTo) { aTo.updateLockPIDSet(1); },
         {Severity::Info, "+updateLockPIDSet(status = 1)", {}, {}},
         "pidset 1"},
        {[](auto& aTo) { aTo.state(6); }, {Severity::Info, "+state(status = 6)", {}, {}}, "state 6"},
        {[](auto& aTo) { aTo.doing("this"); }, {Severity::Info, "+doing(what = this)", {}, {}}, "doing this"},
        {[](auto& aTo) { aTo.warningsChanged(); },
         {Severity::Warning, "+warningsChanged()", {}, {}},
         "warningsChanged"},
        {[](auto& aTo) { aTo.error("that"); },
         {Severity::Error, "+error(what = that)", {}, {}},
         "error that"},
    };
    return kAll;
}

TEST_F(LockListenerSyncTest, LogsEveryCallAndHandsItOn) {
    mSync.setListener(&mListener);
    for (Operation const& operation : operations()) {
        mLog.clear();
        mListener.heard.clear();
        operation.call(mSync);
        EXPECT_THAT(mLog.linesOf("LockListenerSync"), ElementsAre(operation.line));
        EXPECT_EQ(mLog.lines().front().category, "Lock");
        EXPECT_THAT(mListener.heard, ElementsAre(operation.heard));
    }
}

TEST_F(LockListenerSyncTest, LogsEveryCallWhenNobodyListens) {
    for (Operation const& operation : operations()) {
        mLog.clear();
        operation.call(mSync);
        EXPECT_THAT(mLog.linesOf("LockListenerSync"), ElementsAre(operation.line));
    }
}

TEST_F(LockListenerSyncTest, KeepsTheStatusWhenNobodyListens) {
    EXPECT_EQ(mSync.lastState(), 0);
    mSync.state(1);
    EXPECT_EQ(mSync.lastState(), 1);
}

TEST_F(LockListenerSyncTest, DoesNotTellANewListenerTheStatusOfBefore) {
    mSync.state(1);
    mSync.setListener(&mListener);
    EXPECT_THAT(mListener.heard, IsEmpty());
    EXPECT_TRUE(mLog.has(Severity::Debug, "LockQ47::setListener"));
}

TEST_F(LockListenerSyncTest, RefusesNoListenerAndKeepsTheFormerOne) {
    mSync.setListener(&mListener);
    EXPECT_THAT([this] { mSync.setListener(nullptr); },
                testing::ThrowsMessage<std::invalid_argument>(
                    "setListener(nullptr): please use removeListener instead"));
    EXPECT_TRUE(
        mLog.has(Severity::Critical, "LockQ47::setListener: got nullptr, use removeListener instead"));
    mSync.lost(1);
    EXPECT_THAT(mListener.heard, ElementsAre("lost 1"));
}

TEST_F(LockListenerSyncTest, RemovesTheListenerTwiceWithoutHarm) {
    mSync.setListener(&mListener);
    mSync.removeListener();
    mSync.removeListener();
    EXPECT_EQ(mLog.count(Severity::Debug, "-LockQ47::removeListener"), 2U);
    mSync.state(2);
    EXPECT_THAT(mListener.heard, IsEmpty());
}

TEST_F(LockListenerSyncTest, SurvivesAListenerThatThrows) {
    class Thrower : public Heard {
        void state(int /*aStatus*/) override { throw std::runtime_error("daemon trouble"); }
        void doing(std::string const& /*aText*/) override { throw 7; } // NOLINT(hicpp-exception-baseclass)
    } thrower;
    mSync.setListener(&thrower);
    mSync.state(1);
    mSync.doing("x");
    mSync.lost(1);
    EXPECT_EQ(mSync.lastState(), 1);
    EXPECT_TRUE(mLog.has(Severity::Error, "The lock's listener failed in state: daemon trouble"));
    EXPECT_TRUE(mLog.has(Severity::Error, "The lock's listener failed in doing"));
    EXPECT_THAT(thrower.heard, ElementsAre("lost 1"));
}

TEST_F(LockListenerSyncTest, LetsAListenerAskForTheStatusThatItIsTold) {
    class Asker : public Heard {
    public:
        explicit Asker(LockListenerSync const& aSync)
            : mSync(aSync) {}
        void state(int aStatus) override {
            heard.push_back("state " + std::to_string(aStatus) + ", last " +
                            std::to_string(mSync.lastState()));
        }

    private:
        LockListenerSync const& mSync;
    } asker(mSync);
    mSync.setListener(&asker);
    mSync.state(6);
    EXPECT_THAT(asker.heard, ElementsAre("state 6, last 6"));
}

TEST_F(LockListenerSyncTest, KeepsTheOtherSpeakersWaitingForASlowListener) {
    class Slow : public Heard {
    public:
        void error(std::string const& aText) override {
            entered.set_value();
            goOn.get_future().wait();
            Heard::error(aText);
        }
        std::promise<void> entered;
        std::promise<void> goOn;
    } slow;
    mSync.setListener(&slow);
    std::thread first([this] { mSync.error("first"); });
    slow.entered.get_future().wait();
    std::thread second([this] { mSync.lost(1); });
    std::thread remover([this] { mSync.removeListener(); });
    EXPECT_TRUE(eventually([this] { return mLog.has(Severity::Info, "+lost(status = 1)"); }));
    EXPECT_FALSE(mLog.has(Severity::Debug, "-LockQ47::removeListener")); // a call is under way
    slow.goOn.set_value();
    for (std::thread* thread : {&first, &second, &remover}) {
        thread->join();
    }
    EXPECT_EQ(slow.heard.front(), "error first"); // "lost" comes behind it, or not at all
}

TEST_F(LockListenerSyncTest, HasNoCallUnderWayOnceTheListenerIsRemoved) {
    class Counter : public Heard {
    public:
        void lost(int /*aStatus*/) override {
            inside = true;
            ++calls;
            inside = false;
        }
        std::atomic<bool> inside{false};
        std::atomic<int> calls{0};
    } counter;
    mSync.setListener(&counter);
    std::thread speaker([this] {
        for (int i = 0; i < 2000; ++i) {
            mSync.lost(i % 3);
        }
    });
    while (counter.calls == 0) {
        std::this_thread::yield();
    }
    mSync.removeListener();
    EXPECT_FALSE(counter.inside);
    int const calls = counter.calls;
    speaker.join();
    EXPECT_EQ(counter.calls, calls);
}

} // namespace
