// SPDX-License-Identifier: Apache-2.0
// The searches of the lock signal: candidates, words, accesses and their ends.
#include "support/ExpectThrow.h"
#include "unit/lock/LockWorkflowsRig.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using libfieldwarden::lock::LockEndRequested;
using libfieldwarden::lock::LockProgress;
using libfieldwarden::test::expectThrow;
using libfieldwarden::test::line;
using libfieldwarden::test::LockRig;
using libfieldwarden::test::LockWait;
using libfieldwarden::test::LockWorkflowsRig;
using libfieldwarden::test::Severity;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

// With a factor of 0.5 the middle of the search is 80123000 / 2 = 40061500 Hz and its half width
// (81000000 - 80123000) / 2 = 438500 Hz.
constexpr double kFactor = 0.5;
constexpr long kCenter = 40061500;

class LockSearchTest : public LockWorkflowsRig {
protected:
    /// Lets no acquisition have an FID.
    void silence() { mRegisters.maxSliceMagnitude->hold(0); }
    std::chrono::nanoseconds elapsedDuring(std::function<void()> const& aWork) {
        auto const begin = mRig.clock->now();
        aWork();
        return mRig.clock->now() - begin;
    }
};

/// The software regulator's loop.
class LockToZeroTest : public LockSearchTest {
protected:
    LockToZeroTest() { mRegisters.fidMaxSlice->hold(1 << 29); }
    /// The words that were written to the H0 DAC, as numbers of 24 bits.
    std::vector<int> writtenH0() {
        std::vector<int> result;
        std::string const begin = "set data/dac_data = ";
        for (std::string const& text : mRig.takeActions()) {
            if (text.starts_with(begin)) {
                unsigned long const word = std::stoul(text.substr(begin.size()));
                EXPECT_EQ(word >> 24U, 0x40U); // the write command
                result.push_back(static_cast<int>(word << 8U) >> 8);
            }
        }
        return result;
    }
    std::vector<double> thresholds() const { return mRig.pushed("lock/softpid/MaxSlicePosThreshold"); }
};

} // namespace

TEST_F(LockSearchTest, SetsTheLockFrequency) {
    auto const took = elapsedDuring([&] { EXPECT_TRUE(mWorkflows.setLockFrequency(75000000.0)); });
    EXPECT_EQ(took, 150us);
    // 75000000 + 17142857.142857 Hz
    EXPECT_THAT(mRig.takeJournal(),
                ElementsAre("setTx(92142857.14285713, 100)", "get status/dds_pll_unlocked = 0",
                            "get status/dds_pll_unlocked = 0"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "Setting the lock frequency to 75000000.000000 HZ")));
}

TEST_F(LockSearchTest, GivesTheSynthesiserASecondChance) {
    mRegisters.statusPllDdsUnlocked->script({true, false});
    auto const took = elapsedDuring([&] { EXPECT_TRUE(mWorkflows.setLockFrequency(75000000.0)); });
    EXPECT_EQ(took, 300us);
    EXPECT_THAT(mRig.takeJournal(),
                ElementsAre("setTx(92142857.14285713, 100)", "get status/dds_pll_unlocked = 1",
                            "set status/dds_pll_unlocked = 1", "get status/dds_pll_unlocked = 0"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "Setting the lock frequency to 75000000.000000 HZ"),
                                     line(Severity::Trace,
                                          "Lock PLL DDS unlocked after change of the lock "
                                          "frequency, wait a bit and recheck")));
}

TEST_F(LockSearchTest, TellsASynthesiserThatStaysUnlocked) {
    mRegisters.statusPllDdsUnlocked->compute([] { return true; });
    EXPECT_FALSE(mWorkflows.setLockFrequency(75000000.0));
    EXPECT_EQ(lines().back(), line(Severity::Error,
                                   "Failed to set the lock frequency to 75000000.000000 Hz, "
                                   "PLL DDS is unlocked after the change"));
}

TEST_F(LockSearchTest, TellsASynthesiserThatUnlocksAtTheSecondLook) {
    mRegisters.statusPllDdsUnlocked->script({false, true});
    EXPECT_FALSE(mWorkflows.setLockFrequency(75000000.0));
}

TEST_F(LockSearchTest, FindsTheFIDAtZeroFieldOffset) {
    auto const took = elapsedDuring([&] { EXPECT_TRUE(mWorkflows.searchFid()); });
    EXPECT_EQ(took, 100ms + 30ms);
    EXPECT_THAT(mRig.takeJournal(),
                ElementsAre("set data/dac_data = 1073741824", "set status/fid_overflow = 1", "await FID done",
                            "get status/fid_overflow = 0", "look for FID", "dump 2__searchFid__0"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "Searching for lock FID"),
                                     line(Severity::Debug,
                                          "~searchFid tries value 0 that translates to H0 "
                                          "DAC DATA REG = 0x40000000"),
                                     line(Severity::Info, "-searchFid: fidFound = 1")));
}

TEST_F(LockSearchTest, TriesThreeValuesOfTheField) {
    silence();
    EXPECT_FALSE(mWorkflows.searchFid());
    EXPECT_THAT(
        lines(),
        ElementsAre(
            line(Severity::Info, "Searching for lock FID"),
            line(Severity::Debug, "~searchFid tries value 0 that translates to H0 DAC DATA REG = 0x40000000"),
            line(Severity::Debug,
                 "~searchFid tries value 4194304 that translates to H0 DAC DATA REG = 0x40400000"),
            line(Severity::Debug,
                 "~searchFid tries value -4194305 that translates to H0 DAC DATA REG = 0x40BFFFFF"),
            line(Severity::Info, "-searchFid: fidFound = 0")));
    EXPECT_THAT(dumps(), ElementsAre("2__searchFid__0", "2__searchFid__1", "2__searchFid__2"));
    EXPECT_EQ(mRegisters.dacData->value(), 0x40BFFFFFU); // the last value stays
}

TEST_F(LockSearchTest, StopsAtTheFieldThatHasTheFID) {
    mRegisters.maxSliceMagnitude->script({0, LockRig::kStrong});
    EXPECT_TRUE(mWorkflows.searchFid());
    EXPECT_THAT(dumps(), ElementsAre("2__searchFid__0", "2__searchFid__1"));
    EXPECT_EQ(mRegisters.dacData->value(), 0x40400000U);
}

TEST_F(LockSearchTest, TakesAnOverflowForAnFIDAndDumpsNothing) {
    silence();
    mRegisters.statusFidOverflow->compute([] { return true; });
    EXPECT_TRUE(mWorkflows.searchFid());
    EXPECT_THAT(dumps(), IsEmpty());
    EXPECT_EQ(mRegisters.dacData->value(), 0x40000000U);
    EXPECT_TRUE(mRig.log.has(Severity::Info, "~searchFid: FID overflow, considering we found the FID"));
    EXPECT_EQ(lines().back(), line(Severity::Info, "-searchFid: fidFound = 1"));
}

TEST_F(LockSearchTest, FailsWithoutAcquisitions) {
    mRig.hardware->waits({LockRig::kSilence});
    expectThrow<std::runtime_error>([&] { (void)mWorkflows.searchFid(); }, "Did not get a lock FID.");
    EXPECT_EQ(lines().back(), line(Severity::Error, "~searchFid: did not get FID done interrupt."));
}

TEST_F(LockSearchTest, LooksForTheFIDAtAFrequency) {
    EXPECT_TRUE(mWorkflows.searchField_isFIDAtFrequency(75000000.0));
    EXPECT_THAT(mRig.takeActions(),
                ElementsAre("setTx(92142857.14285713, 100)", "await FID done", "await FID done",
                            "set status/fid_overflow = 1", "await FID done"));
    EXPECT_THAT(
        lines(),
        ElementsAre(line(Severity::Debug, "searchField_isFIDAtFrequency(_19fFreq = 75000000.000000Hz)"),
                    line(Severity::Info, "Setting the lock frequency to 75000000.000000 HZ"),
                    line(Severity::Debug, "~searchField_isFIDAtFrequency: 1 acquisitions done"),
                    line(Severity::Debug, "~searchField_isFIDAtFrequency: 2 acquisitions done"),
                    line(Severity::Debug, "-searchField_isFIDAtFrequency: 1")));
}

TEST_F(LockSearchTest, IgnoresThatTheFirstTwoAcquisitionsAreMissing) {
    mRig.hardware->waits({LockRig::kSilence, LockRig::kSilence});
    EXPECT_TRUE(mWorkflows.searchField_isFIDAtFrequency(75000000.0));
    mRig.hardware->waits({{}, {}, LockRig::kSilence});
    EXPECT_FALSE(mWorkflows.searchField_isFIDAtFrequency(75000000.0));
}

TEST_F(LockSearchTest, GoesRoundBy75MegahertzWhenTheSynthesiserDoesNotLock) {
    mRegisters.statusPllDdsUnlocked->script({true, true, false});
    EXPECT_TRUE(mWorkflows.searchField_isFIDAtFrequency(70000000.0));
    EXPECT_TRUE(mRig.log.has(Severity::Warning, "Set lock Frequency workaround"));
    EXPECT_TRUE(
        mRig.log.has(Severity::Warning, "setLockFrequency workaround: 75MHz = 1, 70000000.000000Hz = 1"));
    EXPECT_THAT(frequencies(), ElementsAre(70000000, 75000000, 70000000));
}

TEST_F(LockSearchTest, GoesOnWhateverComesOfTheWayRound) {
    mRegisters.statusPllDdsUnlocked->script({true, true, true, true, true, true, false});
    EXPECT_TRUE(mWorkflows.searchField_isFIDAtFrequency(70000000.0));
    EXPECT_TRUE(
        mRig.log.has(Severity::Warning, "setLockFrequency workaround: 75MHz = 0, 70000000.000000Hz = 0"));
}

TEST_F(LockSearchTest, FailsWhenTheHardwareIsNoLongerReady) {
    mRegisters.statusSeqError->hold(true);
    mRegisters.statusDcCompOutOfRange->hold(true);
    expectThrow<std::runtime_error>([&] { (void)mWorkflows.searchField_isFIDAtFrequency(75000000.0); },
                                    "LOCK IS NOT READY ANYMORE");
    EXPECT_EQ(lines().back(), line(Severity::Error,
                                   "Lock not ready to work after frequency change, reason: DC "
                                   "comp out of range\nsequencer error is 0\n"));
}

TEST_F(LockSearchTest, WalksOutwardFromTheMiddle) {
    setFactor(kFactor);
    putSignalAt(kCenter - 4000.0 + 51.089); // 100 slices above the lower candidate at 4000 Hz
    // Base is the upper candidate all the same: 40065500 + 100 * 0.51089 = 40065551.089 Hz 19F,
    // twice that is 80131102.178 Hz 1H.
    EXPECT_NEAR(mWorkflows.searchField(), 80131102.178, 0.0005);
    auto const actions = mRig.hardware->journal();
    EXPECT_THAT(actions, Contains("set data/dac_data = 1073741824").Times(1));
    EXPECT_THAT(frequencies(), ElementsAre(kCenter, kCenter, kCenter + 2000, kCenter - 2000, kCenter + 4000,
                                           kCenter - 4000));
    EXPECT_EQ(mRig.log.count(Severity::Debug, "searchField: offset is 0.000000 Hz"), 1U);
    EXPECT_EQ(mRig.log.count(Severity::Debug, "searchField: offset is 2000.000000 Hz"), 1U);
    EXPECT_EQ(mRig.log.count(Severity::Debug, "searchField: offset is 4000.000000 Hz"), 1U);
    EXPECT_TRUE(mRig.log.has(Severity::Info, "Got a lock FID using frequency 40057500.000000Hz"));
    EXPECT_EQ(lines().back(),
              line(Severity::Info, "searchField: found signal at 1H frequency 80131102.178000Hz"));
    EXPECT_THAT(dumps(), IsEmpty());
}

TEST_F(LockSearchTest, TakesThePositionWithItsSign) {
    setFactor(kFactor);
    putSignalAt(kCenter + 2000.0 - 510.89); // 1000 slices below the upper candidate at 2000 Hz
    // (40063500 - 1000 * 0.51089) * 2 = 80125978.22 Hz
    EXPECT_NEAR(mWorkflows.searchField(), 80125978.22, 0.0005);
}

TEST_F(LockSearchTest, FindsNothingInTheWholeRange) {
    setFactor(kFactor);
    silence();
    expectThrow<std::runtime_error>([&] { (void)mWorkflows.searchField(); },
                                    "No lock signal has been found.\nPlease contact Velmor service.");
    EXPECT_EQ(lines().back(), line(Severity::Critical, "searchField: no lock signal has been found"));
    // offsets 0 to 436000 Hz, below 438500 - 2000 Hz: 219 of them, two frequencies each
    auto const tried = frequencies();
    ASSERT_EQ(tried.size(), 438U);
    EXPECT_EQ(tried[436], kCenter + 436000);
    EXPECT_EQ(tried[437], kCenter - 436000);
}

TEST_F(LockSearchTest, BlamesTheShimsWhenAllAreZero) {
    setFactor(0.01);
    silence();
    mShims->zero = true;
    expectThrow<std::runtime_error>([&] { (void)mWorkflows.searchField(); },
                                    "No lock signal has been found.\n"
                                    "It might be due to all shim gradients currently being set to zero.\n\n"
                                    "Please load a shim file (ldshim) and try to lock again.");
}

TEST_F(LockSearchTest, SearchesNothingInARangeOfLessThanAStep) {
    setFactor(0.002); // 877000 * 0.002 = 1754 Hz less 2000 Hz is below 0
    EXPECT_THROW((void)mWorkflows.searchField(), std::runtime_error);
    EXPECT_THAT(frequencies(), IsEmpty());
    EXPECT_EQ(lines().back(), line(Severity::Critical, "searchField: no lock signal has been found"));
}

TEST_F(LockSearchTest, TellsHowManyFrequenciesItHasTried) {
    setFactor(0.01); // 8770 less 2000 Hz: offsets 0, 2000, 4000, 6000
    silence();
    std::vector<unsigned int> done;
    mWorkflows.setProgressObserver([&](LockProgress const& aProgress) {
        EXPECT_EQ(aProgress.step, "Searching the field");
        EXPECT_EQ(aProgress.total, 8U);
        done.push_back(aProgress.done);
    });
    EXPECT_THROW((void)mWorkflows.searchField(), std::runtime_error);
    EXPECT_THAT(done, ElementsAre(0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U));
}

TEST_F(LockSearchTest, EndsInTheMiddleOfAFieldSearch) {
    setFactor(kFactor);
    int waits = 0;
    mRig.onCycle = [&] {
        if (++waits == 100) {
            mWorkflows.requestEnd();
        }
        mRegisters.maxSliceMagnitude->hold(0);
    };
    EXPECT_THROW((void)mWorkflows.searchField(), LockEndRequested);
    EXPECT_EQ(waits, 100);
}

TEST_F(LockSearchTest, KnowsTheWidthOfASlice) {
    EXPECT_DOUBLE_EQ(mWorkflows.maxSlicePositionToFrequency(1.0), 0.51089);
    EXPECT_DOUBLE_EQ(mWorkflows.maxSlicePositionToFrequency(-32768.0), -16740.84352);
}

TEST_F(LockToZeroTest, RegulatesTheFIDTowardZero) {
    mRegisters.dacData->hold(0x40000064);
    mRegisters.maxSlicePosition->script({100, 60, -20, 9});
    // Proportional 50, integral 500 a second, 30 ms between two acquisitions; the first has no time.
    //  100: 50 * -100                                            = -5000
    //   60: 50 * -60 + (500 * -60 * 0.03 = -900)                 = -3900
    //  -20: 50 * 20  + (-900 + 500 * 20 * 0.03 = -600)           =   400
    EXPECT_EQ(mWorkflows.moveFIDFrequencyToZero(), 400);
    EXPECT_THAT(mRig.pushed("lock/softpid/MaxSlicePos"), ElementsAre(100.0, 60.0, -20.0, 9.0));
    EXPECT_THAT(thresholds(), ElementsAre(10.0));
    EXPECT_THAT(
        lines(),
        ElementsAre(
            line(Severity::Info,
                 "entering soft PID loop to move FID frequency to zero, initial H0 value = 100.000000"),
            line(Severity::Debug, "maxSlicePos = 100"),
            line(Severity::Debug, "soft PID out = -5000.000000, translates to H0 DAC DATA REG = 0x40FFEC78"),
            line(Severity::Debug, "maxSlicePos = 60"),
            line(Severity::Debug, "soft PID out = -3900.000000, translates to H0 DAC DATA REG = 0x40FFF0C4"),
            line(Severity::Debug, "maxSlicePos = -20"),
            line(Severity::Debug, "soft PID out = 400.000000, translates to H0 DAC DATA REG = 0x40000190"),
            line(Severity::Debug, "maxSlicePos = 9"),
            line(Severity::Info, "maxSlicePos is now in the expected range, returning PID offset = 400")));
    EXPECT_THAT(writtenH0(), ElementsAre(-5000, -3900, 400));
}

TEST_F(LockToZeroTest, EndsBelowTenSlicesNotAtTen) {
    mRegisters.maxSlicePosition->script({-10, -9});
    EXPECT_EQ(mWorkflows.moveFIDFrequencyToZero(), 500); // 50 * 10, after one turn
    mRegisters.maxSlicePosition->script({10, 9});
    EXPECT_EQ(mWorkflows.moveFIDFrequencyToZero(), -500);
}

TEST_F(LockToZeroTest, ReturnsTheBareBitsOfTheDacWhenItIsAlreadyThere) {
    mRegisters.dacData->hold(0x40FFFFFF); // H0 is -1
    EXPECT_EQ(mWorkflows.moveFIDFrequencyToZero(), 16777215);
    EXPECT_THAT(writtenH0(), IsEmpty());
}

TEST_F(LockToZeroTest, TakesTheLeastPositionForNear) {
    // Intended: |-32768| has no room in 16 bits and is -32768 again.
    mRegisters.maxSlicePosition->hold(-32768);
    mRegisters.dacData->hold(7);
    EXPECT_EQ(mWorkflows.moveFIDFrequencyToZero(), 7);
}

TEST_F(LockToZeroTest, KeepsTheOutputInTheRangeOfTheDac) {
    mRig.cycle = 20000ms; // 50 * 32767 + 500 * 32767 * 20 is beyond 24 bits
    mRegisters.maxSlicePosition->script({-32767, -32767, 32767, 32767, 0});
    (void)mWorkflows.moveFIDFrequencyToZero();
    auto const written = writtenH0();
    EXPECT_THAT(written, Contains(8388607));
    EXPECT_THAT(written, Contains(-8388608));
}

TEST_F(LockToZeroTest, LoosensItsDemandAfterAMinute) {
    mRig.cycle = 900ms;
    mRegisters.maxSlicePosition->hold(50);
    // 60.3 s are over at the 67th acquisition: it begins to relax. Each further one adds 1, from 10:
    // 41 of them make 51, so that the 109th acquisition ends it, at 98.1 s.
    auto const took = elapsedDuring([&] { (void)mWorkflows.moveFIDFrequencyToZero(); });
    EXPECT_EQ(took, 109 * 900ms);
    EXPECT_EQ(mRig.log.count(Severity::Warning, "start RELAXING the maxSlicePosition threshold, which is 10"),
              1U);
    auto const pushed = thresholds();
    ASSERT_EQ(pushed.size(), 1U + 41U);
    EXPECT_EQ(pushed.front(), 10.0);
    EXPECT_EQ(pushed.back(), 51.0);
    EXPECT_TRUE(mRig.log.has(Severity::Info, "currentThreshold for maxSlicePosition is now 51"));
    EXPECT_THAT(lines(), Not(Contains(line(Severity::Warning,
                                           "end RELAXING the maxSlicePosition: reached "
                                           "relaxedThreshold that is 100"))));
}

TEST_F(LockToZeroTest, DoesNotLoosenAtAMinuteSharp) {
    mRig.cycle = 60000ms;
    mRegisters.maxSlicePosition->script({50, 50, 50});
    // at 60 s not yet; at 120 s it begins to relax, and goes on, since 120 s are not more than 120 s;
    // at 180 s the demand is 11, and the time is up
    expectThrow<std::runtime_error>([&] { (void)mWorkflows.moveFIDFrequencyToZero(); },
                                    "Could not move lock FID frequency near to zero");
    EXPECT_THAT(thresholds(), ElementsAre(10.0, 11.0));
    EXPECT_THAT(mRig.pushed("lock/softpid/MaxSlicePos"), ElementsAre(50.0, 50.0, 50.0));
}

TEST_F(LockToZeroTest, LoosensToAHundredSlicesAtMost) {
    mRig.cycle = 300ms;
    mRegisters.maxSlicePosition->hold(99);
    // begins after 201 acquisitions, 60.3 s; 90 more make 100, and the next is below it: 292
    EXPECT_EQ(elapsedDuring([&] { (void)mWorkflows.moveFIDFrequencyToZero(); }), 292 * 300ms);
    EXPECT_EQ(mRig.log.count(Severity::Warning,
                             "end RELAXING the maxSlicePosition: reached relaxedThreshold "
                             "that is 100"),
              1U);
    EXPECT_EQ(thresholds().size(), 1U + 90U);
}

TEST_F(LockToZeroTest, GivesUpAfterTwoMinutes) {
    mRig.cycle = 300ms;
    mRegisters.maxSlicePosition->hold(100);
    auto const took = elapsedDuring([&] {
        expectThrow<std::runtime_error>([&] { (void)mWorkflows.moveFIDFrequencyToZero(); },
                                        "Could not move lock FID frequency near to zero");
    });
    EXPECT_EQ(took, 401 * 300ms);                        // 120.3 s
    EXPECT_EQ(thresholds().size(), 1U + 90U);            // it stays at 100
    EXPECT_NE(mRegisters.dacData->value(), 0x40000000U); // the last output stays on the DAC
}

TEST_F(LockToZeroTest, MendsAnOverflowAndBeginsAnew) {
    mRegisters.fidShift->hold(6);
    mRegisters.maxSlicePosition->script({20, 20, 0});
    // The wait of the second turn overflows, and so does the first one of the search of the shift and its
    // first acquisition; then all are clean.
    mRegisters.statusFidOverflow->script({false, true, true, true, false});
    EXPECT_EQ(mWorkflows.moveFIDFrequencyToZero(), -1000);
    EXPECT_TRUE(mRig.log.has(
        Severity::Error,
        "moveFIDFrequencyToZero: caught and FID overflow, fixing it by running CIC shift optimization "
        "routine. Error: Lock FID overflow. Context is ensuring frequency of the lock FID is near zero: in "
        "the regulator loop"));
    EXPECT_EQ(mRegisters.fidShift->value(), 5);
    // no integral in the second output: the regulator was reset
    EXPECT_THAT(writtenH0(), ElementsAre(-1000, -1000));
}

TEST_F(LockToZeroTest, DoesNotLookAtTheTimeWhileItMendsAnOverflow) {
    mRig.cycle = 20000ms; // 13 acquisitions of the search of the shift alone take longer than two minutes
    mRegisters.fidShift->hold(6);
    mRegisters.statusFidOverflow->script({true, false});
    mRegisters.maxSlicePosition->hold(0);
    EXPECT_NO_THROW((void)mWorkflows.moveFIDFrequencyToZero());
}

TEST_F(LockToZeroTest, PassesAnOverflowAtEveryShiftOn) {
    mRegisters.fidShift->hold(3);
    mRegisters.statusFidOverflow->compute([] { return true; });
    expectThrow<std::out_of_range>([&] { (void)mWorkflows.moveFIDFrequencyToZero(); },
                                   "Failed to find a suitable CIC shift: FID always overflows");
}

TEST_F(LockToZeroTest, IgnoresThatThereIsNoFID) {
    mRegisters.maxSlicePosition->script({20, 15, 0});
    mRegisters.maxSliceMagnitude->script({LockRig::kStrong, 0, LockRig::kStrong}); // the second has none
    (void)mWorkflows.moveFIDFrequencyToZero();
    EXPECT_EQ(mRig.log.count(Severity::Error, "moveFIDFrequencyToZero: did not get an FID. Retry counter 3"),
              1U);
    EXPECT_EQ(mRig.log.count(Severity::Info, "Ignoring this lock FID error, counter = 99"), 1U);
    EXPECT_EQ(writtenH0().size(), 2U);
    mRegisters.maxSlicePosition->hold(5);
    mRig.hardware->waits({LockRig::kSilence});
    EXPECT_NO_THROW((void)mWorkflows.moveFIDFrequencyToZero());
}

TEST_F(LockToZeroTest, EndsWhenAskedTo) {
    mRegisters.maxSlicePosition->hold(500);
    int waits = 0;
    mRig.onCycle = [&] {
        if (++waits == 7) {
            mWorkflows.requestEnd();
        }
    };
    EXPECT_THROW((void)mWorkflows.moveFIDFrequencyToZero(), LockEndRequested);
    EXPECT_EQ(waits, 7);
}

TEST_F(LockToZeroTest, EndsAlsoWhileItMendsAnOverflow) {
    mRegisters.fidShift->hold(6);
    mRegisters.statusFidOverflow->script({true, false});
    int waits = 0;
    mRig.onCycle = [&] {
        if (++waits == 4) {
            mWorkflows.requestEnd();
        }
    };
    EXPECT_THROW((void)mWorkflows.moveFIDFrequencyToZero(), LockEndRequested);
    EXPECT_EQ(waits, 4);
}

TEST_F(LockToZeroTest, ScansTheFieldInSmallerSteps) {
    // With a factor of 0.004 the middle is 320492 Hz and the half width 3508 Hz: offsets 0, 1000 and 2000 are
    // below 3508 - 1000.
    setFactor(0.004);
    mRegisters.fidMaxSlice->hold(1 << 29);
    bool scanning = true;
    mRig.onCycle = [&] {
        auto const lockHz = std::lround(mRig.hardware->txFrequency() - 120000000.0 / 7.0);
        bool const seen = !scanning || lockHz == 319492 || lockHz == 322492;
        mRegisters.maxSliceMagnitude->hold(seen ? (1LL << 62) : 0);
        mRegisters.maxSlicePosition->hold(lockHz == 319492 ? 5 : -3);
    };
    mRig.streams->onDump = [&](std::string const& aName) { // the last one of the first pass
        scanning = scanning && !aName.starts_with("scanField_318492");
    };
    auto const points = mWorkflows.scanField();
    EXPECT_THAT(
        dumps(),
        ElementsAre("start_1__cic_setInitial", "scanField_320492.000000_0", "scanField_320492.000000_0",
                    "scanField_321492.000000_0", "scanField_319492.000000_1", "scanField_322492.000000_1",
                    "scanField_318492.000000_0", "scanField_0_before_moving_to_0",
                    "scanField_0_after_moving_to_0", "scanField_0_after_moving_to_0_and_cic_optimized",
                    "scanField_0_before_moving_to_0", "scanField_0_after_moving_to_0",
                    "scanField_0_after_moving_to_0_and_cic_optimized"));
    ASSERT_EQ(points.size(), 2U);
    // The hit at 319492 Hz has the upper candidate 321492 Hz as its base: 321492 + 5 * 0.51089.
    EXPECT_NEAR(points[0].frequency19F, 321494.55445, 1e-6);
    EXPECT_NEAR(points[0].frequency1H, 80373638.6125, 1e-3); // divided by 0.004
    EXPECT_EQ(points[0].maxSlicePosition, 5.0);
    EXPECT_EQ(points[0].maxSliceMagnitude, 4611686018427387904.0); // 2^62
    EXPECT_EQ(points[0].cicShiftAfterSetUp, 6);
    EXPECT_EQ(points[0].cicShiftAfterOptimize, 6);
    EXPECT_EQ(points[0].cicShiftAfterMovingToZero, 6);
    EXPECT_NEAR(points[1].frequency19F, 322490.46733, 1e-6); // 322492 - 3 * 0.51089
    EXPECT_THAT(lines(), Contains(line(Severity::Info, "Scanning field")).Times(1));
    EXPECT_THAT(lines(), Contains(line(Severity::Info, "scanField: testing 320492.000000 Hz")).Times(2));
    EXPECT_THAT(lines(),
                Contains(line(Severity::Info, "scanField: dumping FFT for 320492.000000 Hz")).Times(2));
    EXPECT_THAT(lines(),
                Contains(line(Severity::Info, "scanField: got a lock FID using frequency 319492.000000Hz")));
}

TEST_F(LockToZeroTest, KeepsTheThreeShiftsOfAPoint) {
    setFactor(0.002); // 1754 less 1000 Hz: offset 0 alone, so one frequency twice
    // setUp() overflows once; the peaks ask for 15 first and, the FID being at 0 Hz, for 16
    int setUps = 0;
    mRegisters.maxSliceMagnitude->hold(LockRig::kStrong);
    mRegisters.fidShift->onWrite([&](std::uint8_t aShift) { setUps += aShift == 6 ? 1 : 0; });
    mRegisters.statusFidOverflow->compute([&] { return setUps > 1 && mRegisters.fidShift->value() == 6; });
    mRegisters.fidMaxSlice->script({1 << 19, 1 << 28, 1 << 19, 1 << 28});
    auto const points = mWorkflows.scanField();
    ASSERT_EQ(points.size(), 2U);
    EXPECT_EQ(points[0].cicShiftAfterSetUp, 5);         // 6 overflows
    EXPECT_EQ(points[0].cicShiftAfterOptimize, 15);     // 29 - 19 + 5
    EXPECT_EQ(points[0].cicShiftAfterMovingToZero, 16); // 29 - 28 + 15
}

TEST_F(LockToZeroTest, FailsToScanOnAFrequencyThatCannotBeSet) {
    setFactor(0.002);
    mRig.streams->onDump = [&](std::string const& aName) {
        if (aName.starts_with("scanField_")) {
            mRegisters.statusPllDdsUnlocked->compute([] { return true; });
        }
    };
    mRig.onCycle = [&] { mRegisters.maxSliceMagnitude->hold(LockRig::kStrong); };
    // the second candidate of the first pass already meets the synthesiser that does not lock
    expectThrow<std::runtime_error>([&] { (void)mWorkflows.scanField(); }, "LOCK IS NOT READY ANYMORE");
    mRig.streams->onDump = nullptr;
    mRegisters.statusPllDdsUnlocked->hold(false);
    int dumpsLeft = 2; // the second pass begins behind the second dump of the first
    mRig.streams->onDump = [&](std::string const& aName) {
        if (aName.starts_with("scanField_") && --dumpsLeft == 0) {
            mRegisters.statusPllDdsUnlocked->compute([] { return true; });
        }
    };
    expectThrow<std::runtime_error>([&] { (void)mWorkflows.scanField(); },
                                    "Failed to set the lock frequency");
}

TEST_F(LockToZeroTest, ConvertsTheBoundsOfAScanAheadOfTheStart) {
    // The factor in force at the call decides the range, that of the file all else.
    libfieldwarden::test::writeFile(mDirectory.path() / "lock.config", "[factors]\n1HTo19F = 0.5\n");
    silence();
    std::vector<LockFieldScanPoint> points;
    EXPECT_NO_THROW(points = mWorkflows.scanField());
    EXPECT_THAT(points, IsEmpty());
    // 0.9407841 * 877000 = 825067.66 less 1000 Hz: offsets 0 to 824000, 825 of them, two frequencies each,
    // behind the reset's and the start's
    EXPECT_EQ(frequencies().size(), 2U + 1650U);
}

TEST_F(LockToZeroTest, EndsInTheMiddleOfAScan) {
    setFactor(kFactor);
    int waits = 0;
    mRig.onCycle = [&] {
        if (++waits == 50) {
            mWorkflows.requestEnd();
        }
        mRegisters.maxSliceMagnitude->hold(0);
    };
    EXPECT_THROW((void)mWorkflows.scanField(), LockEndRequested);
    EXPECT_EQ(waits, 50);
}
