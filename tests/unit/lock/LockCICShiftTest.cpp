// SPDX-License-Identifier: Apache-2.0
// Both searches of the CIC shift: their words, their accesses and their ends.
#include "lock/LockCICShift.h"

#include "support/ExpectThrow.h"
#include "unit/lock/LockRig.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::lock::LockEndRequest;
using libfieldwarden::lock::LockEndRequested;
using libfieldwarden::test::expectThrow;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::line;
using libfieldwarden::test::LockRig;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;

constexpr char const* kNoFID = "Lock set up: no FID found while setting the CIC shift up";
constexpr char const* kNoShift = "Failed to find a suitable CIC shift: FID always overflows";

class LockCICShiftTest : public testing::Test {
protected:
    auto lines() const { return mRig.log.linesOf("LockCICShift"); }
    std::vector<double> pushed() const { return mRig.pushed("lock/cic_shift"); }
    /// The shifts that were written, in their order.
    std::vector<std::string> writtenShifts() {
        auto actions = mRig.takeActions();
        std::erase_if(actions, [](auto const& aLine) { return !aLine.starts_with("set data/fid_shift = "); });
        for (auto& action : actions) {
            action.erase(0, std::string("set data/fid_shift = ").size());
        }
        return actions;
    }
    /// What a search from a shift makes of a peak, none of its acquisitions overflowing.
    int shiftFor(std::int32_t aPeak, std::uint8_t aStart) {
        mRegisters.fidShift->hold(aStart);
        mRegisters.fidMaxSlice->hold(aPeak);
        mRig.log.clear();
        mShift.optimize();
        return mRegisters.fidShift->value();
    }

    LockRig mRig;
    libfieldwarden::test::FakeLockHardware::Registers const& mRegisters = mRig.hardware->registers;
    LockCICShift mShift{mRig.hardware, mRig.helper};
};

} // namespace

TEST_F(LockCICShiftTest, DescribesItsChannel) {
    ASSERT_EQ(mRig.dataLogger->infos().size(), 1U);
    auto const info = mRig.dataLogger->infos().front();
    EXPECT_THAT(info.path, ElementsAre("lock", "cic_shift"));
    EXPECT_EQ(info.unit, DataLoggerUnit::Dimensionless);
    EXPECT_TRUE(info.stats.isNone());
    EXPECT_EQ(info.storageType, DataLoggerStorageType::LongTerm);
    EXPECT_EQ(info.description, "CIC shift used to have maximal ADC resolution on the lock FID.");
}

TEST_F(LockCICShiftTest, BeginsAtSixAndWaitsForNothing) {
    mShift.setInitial();
    EXPECT_THAT(mRig.takeJournal(), ElementsAre("set data/fid_shift = 6"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "+setInitial")));
    EXPECT_EQ(lines().front().category, "Lock");
    EXPECT_THAT(pushed(), IsEmpty());
}

TEST_F(LockCICShiftTest, SetsUpAtOnceWhenNothingOverflows) {
    mShift.setUp();
    EXPECT_THAT(mRig.takeJournal(),
                ElementsAre("set data/fid_shift = 6", "set status/fid_overflow = 1", "await FID done",
                            "await FID done", "look for FID", "get status/fid_overflow = 0"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "+setUp"),
                                     line(Severity::Debug, "~setUp: setting CIC shift to 6"),
                                     line(Severity::Info,
                                          "~setUp: CIC shift 6 got us an FID without "
                                          "overflow, set up DONE"),
                                     line(Severity::Info, "-setUp: using CIC shift 6")));
    EXPECT_THAT(mRig.dataLogger->pushes("lock/cic_shift"),
                ElementsAre(FakeDataLogger::Push{6.0, mRig.clock->systemNow()}));
}

TEST_F(LockCICShiftTest, GoesDownWhileItOverflows) {
    mRegisters.statusFidOverflow->script({true, true, false});
    mShift.setUp();
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Info, "+setUp"),
                                     line(Severity::Debug, "~setUp: setting CIC shift to 6"),
                                     line(Severity::Info,
                                          "~setUp: FID overflow detected with CIC shift 6, reducing "
                                          "it and trying again"),
                                     line(Severity::Debug, "~setUp: setting CIC shift to 5"),
                                     line(Severity::Info,
                                          "~setUp: FID overflow detected with CIC shift 5, reducing "
                                          "it and trying again"),
                                     line(Severity::Debug, "~setUp: setting CIC shift to 4"),
                                     line(Severity::Info,
                                          "~setUp: CIC shift 4 got us an FID without overflow, set "
                                          "up DONE"),
                                     line(Severity::Info, "-setUp: using CIC shift 4")));
    EXPECT_THAT(writtenShifts(), ElementsAre("6", "5", "4"));
    EXPECT_THAT(pushed(), ElementsAre(4.0));
}

TEST_F(LockCICShiftTest, NeverTriesZero) {
    mRegisters.statusFidOverflow->compute([] { return true; });
    expectThrow<std::out_of_range>([&] { mShift.setUp(); },
                                   "Lock FID overflow even with lowest possible CIC shift");
    EXPECT_THAT(writtenShifts(), ElementsAre("6", "5", "4", "3", "2", "1"));
    EXPECT_EQ(lines().back(),
              line(Severity::Error, "Could not get rid of FID overflow even with CIC shift set to 0"));
    EXPECT_THAT(pushed(), ElementsAre(0.0));
    EXPECT_EQ(mRegisters.fidShift->value(), 1);
}

TEST_F(LockCICShiftTest, FailsToSetUpWithoutAcquisitions) {
    for (unsigned int counter : {0U, 1U}) {
        mRig.log.clear();
        if (counter == 0) {
            mRig.hardware->waits({LockRig::kSilence});
        } else {
            mRig.hardware->waits({{}, LockRig::kSilence});
        }
        expectThrow<std::runtime_error>([&] { mShift.setUp(); },
                                        "Failed to start the lock. Please try again.\n"
                                        "If the problem persists, contact Velmor Service");
        EXPECT_EQ(lines().back(), line(Severity::Error, "~setUp: did not get FID done interrupt, counter = " +
                                                            std::to_string(counter)));
    }
    EXPECT_THAT(pushed(), IsEmpty());
}

TEST_F(LockCICShiftTest, FailsToSetUpWithoutAnFID) {
    mRegisters.maxSliceMagnitude->hold(0);
    expectThrow<std::runtime_error>([&] { mShift.setUp(); }, kNoFID);
    EXPECT_EQ(lines().back(),
              line(Severity::Error, "~setUp: got FID interrupt but no FID has been detected"));
}

TEST_F(LockCICShiftTest, BringsThePeakToBit29) {
    // 1 << 20 at shift 6 has its highest bit at 20: 29 - 20 + 6 = 15, where it stands at 20 + 9 = 29
    EXPECT_EQ(shiftFor(1 << 20, 6), 15);
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Info, "+optimize"),
                            line(Severity::Debug, "~optimize: will start with a CIC shift of 6"),
                            line(Severity::Info, "~optimize: got an FID max slice of 1048576"),
                            line(Severity::Debug, "~optimize: which means mostSignificantBitIndex is 20"),
                            line(Severity::Info, "~optimize: using a CIC shift value of 15"),
                            line(Severity::Warning,
                                 "-optimize: CIC shift is now set to 15 and no overflow detected.")));
    EXPECT_THAT(pushed(), ElementsAre(15.0));
    std::vector<std::string> expected{"get data/fid_shift = 6", "set status/fid_overflow = 1",
                                      "await FID done",         "get status/fid_overflow = 0",
                                      "look for FID",           "get data/fid_max_slice = 1048576",
                                      "set data/fid_shift = 15"};
    for (int acquisition = 0; acquisition < 10; ++acquisition) {
        expected.insert(expected.end(), {"await FID done", "look for FID", "get status/fid_overflow = 0"});
    }
    EXPECT_EQ(mRig.takeJournal(), expected);
}

TEST_F(LockCICShiftTest, ComputesTheShiftFromEveryPeak) {
    EXPECT_EQ(shiftFor((1 << 21) - 1, 6), 15); // 2097151 has its highest bit at 20, too
    EXPECT_EQ(shiftFor(1 << 21, 6), 14);       // 29 - 21 + 6
    EXPECT_EQ(shiftFor(1 << 29, 10), 10);      // it is there
    EXPECT_EQ(shiftFor((1 << 30) + 5, 10), 9); // one too many
    EXPECT_EQ(shiftFor(-1, 6), 4);             // a negative peak counts as bit 31: 29 - 31 + 6
    EXPECT_EQ(shiftFor(1, 2), 31);             // 29 - 0 + 2, the greatest shift
    EXPECT_EQ(shiftFor(0, 2), 31);             // no bit counts as bit 0
    EXPECT_THAT(mRig.log.linesUpTo(Severity::Error), IsEmpty());
}

TEST_F(LockCICShiftTest, TellsAShiftOutOfRangeAndUsesItsLowBitsAllTheSame) {
    EXPECT_EQ(shiftFor(1, 3), 32); // 29 - 0 + 3
    EXPECT_TRUE(mRig.log.has(Severity::Error,
                             "~optimize: computed shift is 32 and this is out of [0..31] range. "
                             "mostSignificantBitIndex = 0, original shift is 3"));
    EXPECT_EQ(shiftFor(0, 6), 35); // 29 - 0 + 6
    EXPECT_TRUE(mRig.log.has(Severity::Error,
                             "~optimize: computed shift is 35 and this is out of [0..31] range. "
                             "mostSignificantBitIndex = 0, original shift is 6"));
    EXPECT_TRUE(
        mRig.log.has(Severity::Warning, "-optimize: CIC shift is now set to 35 and no overflow detected."));
}

TEST_F(LockCICShiftTest, UsesTheLowBitsOfANegativeShift) {
    EXPECT_EQ(shiftFor(-1, 0), 254); // 29 - 31 + 0 = -2
    EXPECT_TRUE(mRig.log.has(Severity::Error,
                             "~optimize: computed shift is -2 and this is out of [0..31] range. "
                             "mostSignificantBitIndex = 31, original shift is 0"));
    EXPECT_THAT(writtenShifts(), ElementsAre("254"));
}

TEST_F(LockCICShiftTest, StartsFromThePresentShiftWhenThatOverflows) {
    mRegisters.fidShift->hold(5);
    mRegisters.statusFidOverflow->script({true, true, false}); // the first wait, shift 5, shift 4
    mShift.optimize();
    EXPECT_THAT(
        lines(),
        ElementsAre(
            line(Severity::Info, "+optimize"),
            line(Severity::Debug, "~optimize: will start with a CIC shift of 5"),
            line(Severity::Error,
                 "Caught out of range exception: already in overflow, try to reduce it. Exception was: "
                 "Lock FID overflow. Context is lock CIC shift optimization"),
            line(Severity::Info, "~optimize: using a CIC shift value of 5"),
            line(Severity::Info,
                 "~optimize: FID overflow detected with CIC shift 5, reducing it and trying again"),
            line(Severity::Info, "~optimize: using a CIC shift value of 4"),
            line(Severity::Warning, "-optimize: CIC shift is now set to 4 and no overflow detected.")));
    EXPECT_THAT(pushed(), ElementsAre(4.0));
}

TEST_F(LockCICShiftTest, HasNowhereToGoFromAnOverflowAtZero) {
    mRegisters.statusFidOverflow->script({true});
    expectThrow<std::out_of_range>([&] { mShift.optimize(); }, kNoShift);
    EXPECT_THAT(writtenShifts(), IsEmpty());
    EXPECT_EQ(lines().back(), line(Severity::Error,
                                   "-optimize: could not get rid of FID overflow even with "
                                   "lowest CIC shift"));
    EXPECT_THAT(pushed(), ElementsAre(0.0));
}

TEST_F(LockCICShiftTest, CountsTenAnewAfterAnOverflowOnTheTenth) {
    // the first wait, nine clean ones, the tenth overflows; then ten clean ones at the lower shift
    mRegisters.statusFidOverflow->script(
        {false, false, false, false, false, false, false, false, false, false, true, false});
    EXPECT_EQ(shiftFor(1 << 20, 6), 14);
    EXPECT_EQ(mRig.log.count(Severity::Info,
                             "~optimize: FID overflow detected with CIC shift 15, reducing "
                             "it and trying again"),
              1U);
    auto const actions = mRig.takeActions();
    EXPECT_EQ(std::count(actions.begin(), actions.end(), "await FID done"), 1 + 10 + 10);
}

TEST_F(LockCICShiftTest, GoesDownToNothingOnAnOverflowThatStays) {
    mRegisters.fidMaxSlice->hold(1 << 29);
    mRegisters.fidShift->hold(3);
    mRegisters.statusFidOverflow->script({false, true});
    expectThrow<std::out_of_range>([&] { mShift.optimize(); }, kNoShift);
    EXPECT_THAT(writtenShifts(), ElementsAre("3", "2", "1")); // and never cleared on the way
    EXPECT_EQ(mRegisters.fidShift->value(), 1);
}

TEST_F(LockCICShiftTest, PassesTheFailureOfTheFirstWaitOn) {
    mRig.hardware->waits({LockRig::kSilence});
    expectThrow<std::runtime_error>([&] { mShift.optimize(); },
                                    "Did not get a lock FID in time. Context is lock CIC shift optimization");
    EXPECT_THAT(writtenShifts(), IsEmpty());
}

TEST_F(LockCICShiftTest, FailsToOptimizeWithoutAcquisitions) {
    mRegisters.fidMaxSlice->hold(1 << 29);
    mRegisters.fidShift->hold(10);
    mRig.hardware->waits({{}, {}, {}, LockRig::kSilence}); // the first wait, two clean ones
    expectThrow<std::runtime_error>([&] { mShift.optimize(); },
                                    "Lock set up: did not receive the FID done interrupt");
    EXPECT_EQ(lines().back(),
              line(Severity::Error, "~optimize: did not get FID done interrupt, counter = 2"));
}

TEST_F(LockCICShiftTest, FailsToOptimizeWithoutAnFID) {
    mRegisters.fidMaxSlice->hold(1 << 29);
    mRegisters.fidShift->hold(10);
    mRegisters.maxSliceMagnitude->script({LockRig::kStrong, 0});
    expectThrow<std::runtime_error>([&] { mShift.optimize(); }, kNoFID);
    EXPECT_EQ(lines().back(),
              line(Severity::Error, "~optimize: got FID interrupt but no FID has been detected"));
}

TEST_F(LockCICShiftTest, KnowsTheHighestBitOfANumber) {
    EXPECT_EQ(LockCICShift::fls(0), 0U);
    EXPECT_EQ(LockCICShift::fls(1), 0U);
    EXPECT_EQ(LockCICShift::fls(2), 1U);
    EXPECT_EQ(LockCICShift::fls(3), 1U);
    EXPECT_EQ(LockCICShift::fls(0x7FFFFFFF), 30U);
    EXPECT_EQ(LockCICShift::fls(-1), 31U);
    EXPECT_EQ(LockCICShift::fls(-2147483647 - 1), 31U);
    for (unsigned int bit = 1; bit < 31; ++bit) {
        EXPECT_EQ(LockCICShift::fls(1 << bit), bit);
        EXPECT_EQ(LockCICShift::fls((1 << bit) - 1), bit - 1);
    }
}

TEST_F(LockCICShiftTest, EndsAheadOfItsNextWaitWhenAskedTo) {
    for (int waitsBefore : {0, 1, 5}) {
        auto const end = std::make_shared<LockEndRequest>();
        LockCICShift shift(mRig.hardware, mRig.helper, end);
        int waits = 0;
        mRig.onCycle = [&] {
            if (++waits == waitsBefore) {
                end->request();
            }
        };
        if (waitsBefore == 0) {
            end->request();
        }
        mRegisters.statusFidOverflow->script({false, true}); // never content
        mRegisters.fidMaxSlice->hold(1 << 29);
        mRegisters.fidShift->hold(30);
        EXPECT_THROW(shift.optimize(), LockEndRequested);
        EXPECT_EQ(waits, waitsBefore);
    }
    auto const end = std::make_shared<LockEndRequest>();
    end->request();
    expectThrow<LockEndRequested>([&] { LockCICShift(mRig.hardware, mRig.helper, end).setUp(); },
                                  "The lock start was asked to end.");
}
