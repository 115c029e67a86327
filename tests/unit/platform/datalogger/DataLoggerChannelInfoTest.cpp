// SPDX-License-Identifier: Apache-2.0
// What describes a channel, and which descriptions are refused.
#include <velmor/kepla/datalogger/DataLoggerChannelInfo.h>

#include <chrono>
#include <limits>
#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using velmor::kepla::datalogger::DataLoggerChannelInfo;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;

DataLoggerChannelInfo channelAt(std::vector<std::string> aPath) {
    return {std::move(aPath), DataLoggerUnit::Kelvin, DataLoggerStats::none(),
            DataLoggerStorageType::ShortTerm, ""};
}

TEST(DataLoggerStats, OfNoneHaveNoPeriod) {
    EXPECT_TRUE(DataLoggerStats::none().isNone());
    EXPECT_EQ(DataLoggerStats::none().period(), 0s);
}

TEST(DataLoggerStats, RefuseAPeriodThatIsNone) {
    EXPECT_THROW(DataLoggerStats(DataLoggerStorageType::LongTerm, 0s), std::invalid_argument);
    EXPECT_THROW(DataLoggerStats(DataLoggerStorageType::LongTerm, -1s), std::invalid_argument);
    EXPECT_THROW(DataLoggerStats(DataLoggerStorageType::None, 1s), std::invalid_argument);
}

TEST(DataLoggerChannelInfo, JoinsItsPathToAName) {
    EXPECT_EQ(channelAt({"lock"}).name(), "lock");
    EXPECT_EQ(channelAt({"shimboard", "8", "temperature", "dacs_upper"}).name(),
              "shimboard/8/temperature/dacs_upper");
    EXPECT_EQ(channelAt({"lock", "parameters", "pid/fast/p"}).name(), "lock/parameters/pid/fast/p");
}

TEST(DataLoggerChannelInfo, RefusesAPathWithoutPartsOrWithAnEmptyOne) {
    EXPECT_THROW(channelAt({}), std::invalid_argument);
    EXPECT_THROW(channelAt({"lock", ""}), std::invalid_argument);
}

TEST(DataLoggerChannelInfo, TakesTheWholeListOfArgumentsInItsOrder) {
    double const smallest = std::numeric_limits<double>::min();
    double const largest = std::numeric_limits<double>::max();
    DataLoggerChannelInfo const full({"shimboard", "8"}, DataLoggerUnit::Kelvin,
                                     DataLoggerStats(DataLoggerStorageType::LongTerm, 600s),
                                     DataLoggerStorageType::ShortTerm, "board", 0us, smallest, largest,
                                     smallest, largest, {}, true, 0.001, 0.0, 1.0, false);
    DataLoggerChannelInfo const shortForm({"shimboard", "8"}, DataLoggerUnit::Kelvin,
                                          DataLoggerStats(DataLoggerStorageType::LongTerm, 600s),
                                          DataLoggerStorageType::ShortTerm, "board");
    EXPECT_EQ(full, shortForm);
}

} // namespace
