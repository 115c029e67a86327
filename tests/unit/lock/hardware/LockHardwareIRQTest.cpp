// SPDX-License-Identifier: Apache-2.0
// One interrupt among all: its mask, its status, and how a wait ends.
#include "lock/hardware/LockHardwareIRQ.h"
#include "support/ExpectThrow.h"
#include "support/FakeLockHardware.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace libfieldwarden::test {

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

constexpr char const* kAgain = "-waitFor: irq came but wasn't the one we where waiting for...waiting again";

class LockHardwareIRQTest : public testing::Test {
protected:
    /// Interrupts of others, each after so long; then this source's own.
    void foreignAfter(std::vector<int> aMilliseconds) {
        mHardware->onWait([this, times = std::move(aMilliseconds),
                           next = std::size_t{0}](milliseconds /*aTimeout*/) mutable {
            if (next < times.size()) {
                mClock->advance(milliseconds(times[next++]));
                return true;
            }
            mHardware->registers.statusFidDone->raise(true);
            return true;
        });
    }
    std::vector<std::string> takeWaits() {
        std::vector<std::string> lines = mHardware->takeJournal();
        std::erase_if(lines, [](std::string const& aLine) { return !aLine.starts_with("waitForIRQ"); });
        return lines;
    }

    LogCapture mLog;
    HandClockScope mClock;
    std::shared_ptr<FakeLockHardware> mHardware = std::make_shared<FakeLockHardware>();
    LockHardwareIRQ mIrq{mHardware, mHardware->irqMaskFidDone(), mHardware->statusFidDone()};
};

} // namespace

TEST_F(LockHardwareIRQTest, BearsTheNameOfItsStatus) {
    EXPECT_EQ(mIrq.name(), "status/fid_done");
    mIrq.waitFor(milliseconds(1));
    EXPECT_EQ(mLog.lines().at(0).name, "LockHardwareIRQ status/fid_done");
    EXPECT_EQ(mLog.lines().at(0).category, "Lock");
}

TEST_F(LockHardwareIRQTest, IsActiveWhileItsStatusIsSet) {
    EXPECT_FALSE(mIrq.isActive());
    mHardware->registers.statusFidDone->hold(true);
    EXPECT_TRUE(mIrq.isActive());
}

TEST_F(LockHardwareIRQTest, ResetClearsTheStatusThenMasksTheSource) {
    mHardware->registers.statusFidDone->hold(true);
    mHardware->registers.irqMaskFidDone->hold(true);
    mIrq.reset();
    EXPECT_THAT(mHardware->takeJournal(),
                ElementsAre("set status/fid_done = 1", "set irq/fid_done_mask = 0"));
    EXPECT_FALSE(mIrq.isActive());
}

TEST_F(LockHardwareIRQTest, LetsTheSourceThroughWhileItWaits) {
    EXPECT_TRUE(mIrq.waitFor(milliseconds(1000)));
    EXPECT_THAT(mHardware->takeJournal(),
                ElementsAre("set status/fid_done = 1", "set irq/fid_done_mask = 1", "waitForIRQ(1000 ms)",
                            "get status/fid_done = 1", "set irq/fid_done_mask = 0"));
    EXPECT_THAT(mLog.lines(), ElementsAre(line(Severity::Trace, "+waitFor"),
                                          line(Severity::Trace, "~waitFor: got an IRQ and it is ours :)"),
                                          line(Severity::Trace, "-waitFor: returns 1")));
}

TEST_F(LockHardwareIRQTest, SilenceIsTheSecondKindOfTimeout) {
    mHardware->onWait([](milliseconds /*aTimeout*/) { return false; });
    EXPECT_FALSE(mIrq.waitFor(milliseconds(1000)));
    EXPECT_THAT(mHardware->takeJournal(), ElementsAre("set status/fid_done = 1", "set irq/fid_done_mask = 1",
                                                      "waitForIRQ(1000 ms)", "set irq/fid_done_mask = 0"));
    EXPECT_THAT(mLog.lines(), ElementsAre(line(Severity::Trace, "+waitFor"),
                                          line(Severity::Warning, "-waitFor: timeout #2"),
                                          line(Severity::Trace, "-waitFor: returns 0")));
}

TEST_F(LockHardwareIRQTest, WaitsAgainAfterAForeignInterruptAndForTheWholeTime) {
    foreignAfter({400});
    EXPECT_TRUE(mIrq.waitFor(milliseconds(1000)));
    EXPECT_THAT(takeWaits(), ElementsAre("waitForIRQ(1000 ms)", "waitForIRQ(1000 ms)"));
    EXPECT_THAT(mLog.lines(), ElementsAre(line(Severity::Trace, "+waitFor"), line(Severity::Trace, kAgain),
                                          line(Severity::Trace, "~waitFor: got an IRQ and it is ours :)"),
                                          line(Severity::Trace, "-waitFor: returns 1")));
}

TEST_F(LockHardwareIRQTest, AForeignInterruptAtTheEndIsTheFirstKindOfTimeout) {
    foreignAfter({1000});
    EXPECT_FALSE(mIrq.waitFor(milliseconds(1000)));
    EXPECT_THAT(takeWaits(), ElementsAre("waitForIRQ(1000 ms)"));
    EXPECT_THAT(mLog.lines(), ElementsAre(line(Severity::Trace, "+waitFor"),
                                          line(Severity::Warning, "-waitFor: timeout #1"),
                                          line(Severity::Trace, "-waitFor: returns 0")));
    EXPECT_FALSE(mHardware->registers.irqMaskFidDone->value());
}

TEST_F(LockHardwareIRQTest, ForeignInterruptsUseUpTheTimeTogether) {
    foreignAfter({400, 599}); // 1 ms remains
    EXPECT_TRUE(mIrq.waitFor(milliseconds(1000)));
    EXPECT_EQ(takeWaits().size(), 3U);
    foreignAfter({400, 600}); // none
    EXPECT_FALSE(mIrq.waitFor(milliseconds(1000)));
    EXPECT_EQ(takeWaits().size(), 2U);
    EXPECT_TRUE(mLog.has(Severity::Warning, "-waitFor: timeout #1"));
}

TEST_F(LockHardwareIRQTest, AForeignInterruptEndsAWaitOfNoTime) {
    foreignAfter({0});
    EXPECT_FALSE(mIrq.waitFor(milliseconds(0)));
    EXPECT_TRUE(mLog.has(Severity::Warning, "-waitFor: timeout #1"));
}

TEST_F(LockHardwareIRQTest, AFailedWaitLeavesTheMask) {
    mHardware->fail("waitForIRQ", "Failed to wait for IRQ");
    expectThrow<std::runtime_error>([&] { mIrq.waitFor(milliseconds(1000)); }, "Failed to wait for IRQ");
    EXPECT_TRUE(mHardware->registers.irqMaskFidDone->value());
}

} // namespace libfieldwarden::test
