// SPDX-License-Identifier: Apache-2.0
// What the command makes of the lock's calls.
#include "apps/fieldwarden/LockEvents.h"
#include "lock/LockMock.h"
#include "support/HandClockScope.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>

namespace {

using libfieldwarden::app::Event;
using libfieldwarden::app::EventQueue;
using libfieldwarden::app::LockEvents;
using libfieldwarden::app::Tone;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;

class LockEventsTest : public testing::Test {
protected:
    void make() {
        mLock = std::make_unique<LockMock>(mDirectory.path(), nullptr);
        mClock->awaitWaiters(1);
        mEvents = std::make_unique<LockEvents>(*mLock, mQueue);
    }
    Event only() {
        auto events = mQueue.take();
        EXPECT_EQ(events.size(), 1U);
        mEvents->describe(events.at(0));
        return events.at(0);
    }

    TemporaryDirectory mDirectory;
    HandClockScope mClock;
    EventQueue mQueue;
    std::unique_ptr<LockMock> mLock;
    std::unique_ptr<LockEvents> mEvents;
};

TEST_F(LockEventsTest, TellsWarningsAsTheyAreWhenTheyArePrinted) {
    make();
    writeFile(mDirectory.path() / "warnings", "too warm\n");
    mClock->advanceToNextDeadline();
    mClock->awaitWaiters(1);
    Event const event = only();
    EXPECT_EQ(event.source, "lock");
    EXPECT_EQ(event.name, "warningsChanged");
    EXPECT_EQ(event.text, "warnings: 'too warm', critical: none");
    EXPECT_EQ(event.fields["warnings"], "too warm\n");
    EXPECT_EQ(event.fields["criticalWarnings"], "");
    EXPECT_EQ(event.tone, Tone::Warning);
}

TEST_F(LockEventsTest, KnowsOfWarningsThatWereThereBeforeItListened) {
    writeFile(mDirectory.path() / "critical_warnings", "quench");
    make();
    EXPECT_TRUE(mEvents->hasWarnings());
    mEvents->warningsChanged();
    EXPECT_EQ(only().tone, Tone::Alarm);
}

TEST_F(LockEventsTest, KeepsAnyTextOnOneLine) {
    make();
    mEvents->error("one\ntwo\x1b[31m" + std::string(1000, 'x'));
    Event const event = only();
    EXPECT_THAT(event.text, testing::StartsWith("error: one two [31mxxx"));
    EXPECT_THAT(event.text, testing::EndsWith("... (1012 characters)"));
    EXPECT_EQ(event.text.find('\n'), std::string::npos);
}

TEST_F(LockEventsTest, PutsTheNumbersOfTheLockIntoWords) {
    make();
    mEvents->state(1);
    EXPECT_EQ(only().text, "state: locked");
    mEvents->state(6);
    EXPECT_EQ(only().tone, Tone::Alarm);
    mEvents->lost(1);
    EXPECT_EQ(only().text, "lock lost");
    mEvents->updateLockPIDSet(2);
    EXPECT_EQ(only().text, "PID set: normal");
    mEvents->state(99);
    EXPECT_EQ(only().text, "state: unknown");
}

TEST_F(LockEventsTest, StopsListeningAtItsEnd) {
    make();
    mEvents.reset();
    writeFile(mDirectory.path() / "warnings", "unheard");
    mClock->advanceToNextDeadline();
    mClock->awaitWaiters(1);
    EXPECT_TRUE(mQueue.take().empty());
}

} // namespace
