// SPDX-License-Identifier: Apache-2.0
// The record of the lock's parameters in the data logger.
#include "lock/LockParametersHelper.h"

#include "lock/LockParameters.h"
#include "lock/LockParametersPIDStaticSet.h"

#include "support/FakeDataLogger.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::FakeDataLogger;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using testing::ElementsAre;
using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;

/// A line to be expected, whichever logger it comes from.
CapturedLine line(Severity aSeverity, std::string const& aText) {
    return {aSeverity, aText, {}, {}};
}

/// A data logger that is broken.
class BrokenDataLogger : public DataLoggerInterface {
public:
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc> createChannel(
        DataLoggerChannelInfo const& /*aInfo*/) override {
        if (throwNumber) {
            throw 7; // NOLINT: somebody does
        }
        throw std::runtime_error("the disk is full");
    }
    bool throwNumber = false;
};

class LockParametersHelperTest : public testing::Test {
protected:
    std::vector<std::tuple<std::string, double, std::string>> pushed() {
        std::vector<std::tuple<std::string, double, std::string>> result;
        for (auto const& info : mDataLogger->infos()) {
            EXPECT_TRUE(info.stats.isNone());
            EXPECT_EQ(info.storageType, DataLoggerStorageType::LongTerm);
            EXPECT_EQ(info.path.size(), 3U);
            EXPECT_EQ(info.path[0], "lock");
            EXPECT_EQ(info.path[1], "parameters");
            auto const pushes = mDataLogger->pushes(info.name());
            EXPECT_FALSE(pushes.empty());
            EXPECT_EQ(pushes.back().time, mClock->systemNow());
            result.emplace_back(info.path[2], pushes.back().value, info.description);
        }
        return result;
    }

    HandClockScope mClock;
    LogCapture mLog;
    std::shared_ptr<LockParameters> mParameters =
        std::make_shared<LockParameters>("/nonexistent/lock.config");
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    LockParametersHelper mHelper{mParameters, mDataLogger};
};

} // namespace

TEST_F(LockParametersHelperTest, PushesAllParametersInTheirOrder) {
    mParameters->setMagnet1HFrequency(79996000.0);
    mHelper.pushLockParametersToDataLogger();
    using Row = std::tuple<std::string, double, std::string>;
    std::string const words =
        "Uses computed PID and locked threshold (1) or the legacy ones/ones from the "
        "lock.config file (0)";
    EXPECT_THAT(
        pushed(),
        ElementsAre(Row{"magnet_1H_frequency", 79996000.0,
                        "1H frequency of the magnet, as entered by the user in Panorin instsetup"},
                    Row{"locked_threshold", 4800000.0, "Threshold used to determine if locked"},
                    Row{"fred/order1", 0.0, "FRED coefficient, order 1"},
                    Row{"fred/order2", 0.0, "FRED coefficient, order 2"},
                    Row{"fred/output_shift", 0.0, "FRED output shift"},
                    Row{"pid/shimTargetTempPID/p", 0.0, "P parameter of the PID set shimTargetTempPID"},
                    Row{"pid/shimTargetTempPID/i", 0.0, "I parameter of the PID set shimTargetTempPID"},
                    Row{"pid/shimTargetTempPID/d", 0.0, "D parameter of the PID set shimTargetTempPID"},
                    Row{"shimTargetTempPID/feed_forward/slope", 0.0, "Slope used for feed forward"},
                    Row{"shimTargetTempPID/feed_forward/offset", 0.0, "Offset used for feed forward"},
                    Row{"used_computed_pid_threshold", 1.0, words},
                    Row{"pid/softpid/p", 50.0, "P parameter of the PID set softpid"},
                    Row{"pid/softpid/i", 500.0, "I parameter of the PID set softpid"},
                    Row{"pid/softpid/d", 0.0, "D parameter of the PID set softpid"},
                    Row{"pid/fast/p", -200.0, "P parameter of the PID set fast"},
                    Row{"pid/fast/i", -1200.0, "I parameter of the PID set fast"},
                    Row{"pid/fast/d", 0.0, "D parameter of the PID set fast"},
                    Row{"pid/normal/p", 0.0, "P parameter of the PID set normal"},
                    Row{"pid/normal/i", -400.0, "I parameter of the PID set normal"},
                    Row{"pid/normal/d", 0.0, "D parameter of the PID set normal"},
                    Row{"pid/slow/p", 0.0, "P parameter of the PID set slow"},
                    Row{"pid/slow/i", -200.0, "I parameter of the PID set slow"},
                    Row{"pid/slow/d", 0.0, "D parameter of the PID set slow"},
                    Row{"used_computed_pid_threshold", 1.0,
                        "1 if computed PID/threshold are used, 0 if defaults/overriden from lock.config"}));
    EXPECT_THAT(mLog.linesOf("LockParametersHelper"),
                ElementsAre(line(Severity::Debug, "+pushLockParametersToDataLogger"),
                            line(Severity::Debug, "-pushLockParametersToDataLogger")));
    EXPECT_EQ(mLog.lines().front().category, "Lock");
}

TEST_F(LockParametersHelperTest, KeepsTheTermsInPlainNumbers) {
    mHelper.pushPID("set", std::make_shared<LockParametersPIDStaticSet>(1.0, 2.0, 3.0));
    for (auto const& info : mDataLogger->infos()) {
        EXPECT_EQ(info.unit, DataLoggerUnit::Dimensionless);
    }
    EXPECT_EQ(mDataLogger->pushes("lock/parameters/pid/set/p").back().value, 1.0);
    EXPECT_EQ(mDataLogger->pushes("lock/parameters/pid/set/i").back().value, 2.0);
    EXPECT_EQ(mDataLogger->pushes("lock/parameters/pid/set/d").back().value, 3.0);
}

TEST_F(LockParametersHelperTest, TakesTheTimeAnewForEachRecord) {
    mHelper.pushLockParametersToDataLogger();
    auto const first = mClock->systemNow();
    mClock->advance(std::chrono::minutes(1));
    mHelper.pushLockParametersToDataLogger();
    auto const pushes = mDataLogger->pushes("lock/parameters/locked_threshold");
    EXPECT_EQ(pushes.back().time, first + std::chrono::minutes(1));
}

TEST_F(LockParametersHelperTest, GoesOnWhenTheDataLoggerFails) {
    auto const broken = std::make_shared<BrokenDataLogger>();
    LockParametersHelper helper(mParameters, broken);
    helper.pushLockParametersToDataLogger();
    EXPECT_EQ(mLog.linesUpTo(Severity::Error).size(), 24U);
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Failed to push value 4800000.000000 to "
                         "lock/parameters/locked_threshold channel. Error was the disk is "
                         "full."));
    broken->throwNumber = true;
    mLog.clear();
    helper.createChannelPush("name", DataLoggerUnit::Dimensionless, 1.5, "words");
    EXPECT_THAT(mLog.lines(), ElementsAre(line(Severity::Error,
                                               "Failed to push value 1.500000 to lock/parameters/name "
                                               "channel. Unspecified exception.")));
}
