// SPDX-License-Identifier: Apache-2.0
// The table of gas flows: what it takes from a record and what it answers.
#include "at/ATFlowTable.h"
#include "support/LogCapture.h"

#include <velmor/kepla/mds/Mds.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using ::testing::ElementsAre;
using velmor::kepla::mds::Mds;
using Bounds = std::pair<double, double>;

std::string group(std::string const& aName, std::vector<std::string> const& aValues) {
    std::string text = "<group name=\"" + aName + "\"><value>1</value><value>1</value>";
    for (std::string const& value : aValues) {
        text += "<value>" + value + "</value>";
    }
    return text + "</group>";
}

std::string range(std::string const& aMin, std::string const& aMax) {
    return group("TemperatureRange", {aMin, aMax});
}

std::string flow(std::string const& aFrom, std::string const& aTo, std::string const& aFlow) {
    return group("FlowForTemperature", {aFrom, aTo, aFlow});
}

class ATFlowTableTest : public ::testing::Test {
protected:
    void fill(std::string const& aGroups) {
        mTable.setTableFromMDS(Mds::parse("<record>" + aGroups + "</record>"));
    }

    LogCapture mLog;
    ATFlowTable mTable;
};

TEST_F(ATFlowTableTest, KnowsOnlyNoGasAtFirst) {
    EXPECT_EQ(mTable.temperatureRange(), Bounds(0.0, 0.0));
    EXPECT_EQ(mTable.flowTemperatureRange(), Bounds(0.0, 0.0));
    EXPECT_EQ(mTable.flowByIndex(0), 0.0);
    EXPECT_THROW(mTable.flowByIndex(1), std::out_of_range);
    EXPECT_EQ(mTable.asXmlForPanorin(), "<flows><flow valueLiterPerHour=\"0\" /></flows>");
}

TEST_F(ATFlowTableTest, GivesFlowsTheirIndexesInAscendingOrder) {
    fill(range("280", "400") + flow("300", "350", "500") + flow("250", "300", "250.5") +
         flow("350", "420", "500.00005"));
    EXPECT_EQ(mTable.temperatureRange(), Bounds(280.0, 400.0));
    EXPECT_EQ(mTable.flowTemperatureRange(), Bounds(250.0, 420.0));
    EXPECT_EQ(mTable.flowByIndex(1), 250.5);
    EXPECT_EQ(mTable.flowByIndex(2), 500.0);
    EXPECT_THROW(mTable.flowByIndex(3), std::out_of_range);
    EXPECT_THROW(mTable.flowByIndex(200), std::out_of_range);
    EXPECT_EQ(mTable.flowForTemperature(360.0).index, 2U) << "within the tolerance of 0.0001 l/h";
    EXPECT_EQ(mTable.flowForTemperature(360.0).flow, 500.00005);
    EXPECT_THAT(mLog.lines(),
                ElementsAre(CapturedLine{Severity::Info,
                                         "Temperature range described in VTU mds is from 280.000000 to "
                                         "400.000000 Kelvin",
                                         {},
                                         {}},
                            CapturedLine{Severity::Info, "Flow 500.000000 is assigned index 2", {}, {}},
                            CapturedLine{Severity::Info, "Flow 250.500000 is assigned index 1", {}, {}},
                            CapturedLine{Severity::Info, "Flow 500.000050 is assigned index 2", {}, {}}));
    EXPECT_EQ(mLog.lines().front().name, "ATFlowTable");
    EXPECT_EQ(mLog.lines().front().category, "Temperature");
}

TEST_F(ATFlowTableTest, TakesTheEarlierOfTwoEntriesThatFit) {
    fill(range("280", "400") + flow("300", "350", "500") + flow("250", "300", "250.5"));
    EXPECT_EQ(mTable.flowForTemperature(300.0).flow, 500.0);
    EXPECT_EQ(mTable.flowForTemperature(299.999).flow, 250.5);
    EXPECT_EQ(mTable.flowForTemperature(350.0).flow, 500.0);
}

TEST_F(ATFlowTableTest, RefusesATemperatureOutsideOfAllEntries) {
    fill(range("280", "400") + flow("300", "350", "500"));
    try {
        mTable.flowForTemperature(350.5);
        ADD_FAILURE();
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(), "The temperature of 350.5K cannot be set on this device.");
    }
    EXPECT_TRUE(mLog.has(Severity::Error, "There is no flow range for the temperature 350.500000 Kelvin"));
}

TEST_F(ATFlowTableTest, FindsTheIndexOfAFlow) {
    fill(range("280", "400") + flow("300", "350", "500"));
    EXPECT_EQ(mTable.indexForFlow(0.0), 0);
    EXPECT_EQ(mTable.indexForFlow(499.99995), 1);
    try {
        mTable.indexForFlow(499.9);
        ADD_FAILURE();
    } catch (std::out_of_range const& error) {
        EXPECT_STREQ(error.what(), "A probe gas flow of 499.900000 l/h is not possible.");
    }
    EXPECT_TRUE(mLog.has(Severity::Error, "No flow index has been found for the flow 499.900000"));
}

TEST_F(ATFlowTableTest, TellsItsFlowsAsXml) {
    fill(range("280", "400") + flow("300", "350", "500") + flow("250", "300", "250.5"));
    std::string const xml =
        "<flows><flow valueLiterPerHour=\"0\" /><flow valueLiterPerHour=\"250.5\" />"
        "<flow valueLiterPerHour=\"500\" /></flows>";
    EXPECT_EQ(mTable.asXmlForPanorin(), xml);
    EXPECT_TRUE(mLog.has(Severity::Trace, "asXmlForPanorin returns '" + xml + "'"));
}

TEST_F(ATFlowTableTest, BeginsWithGasJustAboveAnEntryWithout) {
    fill(range("200", "400") + flow("250", "300", "0") + flow("300", "400", "500"));
    EXPECT_DOUBLE_EQ(mTable.lowestTemperatureWithFlow(), 300.0000001);
    EXPECT_TRUE(mLog.has(
        Severity::Warning,
        "Flow table entry with flow 0 goes to 300.000000K, using this + epsilon a minimal temperature"));
}

TEST_F(ATFlowTableTest, BeginsWithGasAtTheLowestEntryThatHasSome) {
    fill(range("200", "400") + flow("320", "400", "500") + flow("310", "320", "200") +
         flow("250", "300", "0"));
    EXPECT_EQ(mTable.lowestTemperatureWithFlow(), 310.0);
}

TEST_F(ATFlowTableTest, NeverBeginsWithGasWhereThereIsNone) {
    fill(range("200", "400") + flow("250", "300", "0"));
    EXPECT_EQ(mTable.lowestTemperatureWithFlow(), std::numeric_limits<double>::max());
    EXPECT_TRUE(mLog.has(Severity::Error, "lowestTemperatureWithFlow: no entry without gas flow > 0"));
}

// ------------------------------------------------------------------------------------------ bad records

TEST_F(ATFlowTableTest, KeepsTheEntriesWithoutARange) {
    fill(flow("300", "350", "500"));
    // The range is that of 0 K to 0 K and of 300 K to 350 K: none.
    EXPECT_EQ(mTable.temperatureRange(), Bounds(0.0, 0.0));
    EXPECT_EQ(mTable.flowByIndex(1), 500.0);
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Provided VTU MDS has 0 TemperatureRange groups when exactly one was expected"));
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Invalid temperature range: found minimum is greater than found "
                         "maximum.\nMin = 300.000000 and max = 0.000000"));
}

TEST_F(ATFlowTableTest, TakesNoneOfTwoRanges) {
    fill(range("280", "400") + range("280", "400") + flow("300", "350", "500"));
    EXPECT_EQ(mTable.temperatureRange(), Bounds(0.0, 0.0));
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Provided VTU MDS has 2 TemperatureRange groups when exactly one was expected"));
}

TEST_F(ATFlowTableTest, TakesNoRangeThatIsTooShort) {
    fill(group("TemperatureRange", {"280"}) + flow("300", "350", "500"));
    EXPECT_EQ(mTable.temperatureRange(), Bounds(0.0, 0.0));
    EXPECT_TRUE(
        mLog.has(Severity::Error,
                 "The TemperatureRange group in the VTU MDS has only 3 values, but at least 4 are expected"));
}

TEST_F(ATFlowTableTest, LogsARangeThatIsUpsideDownTwice) {
    fill(range("400", "280") + flow("200", "500", "500"));
    EXPECT_EQ(mTable.temperatureRange(), Bounds(0.0, 0.0));
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "The TemperatureRange group in the VTU MDS provides invalid min/max "
                         "values.\nMin is greater than max.\nMin = 400.000000 and max = "
                         "280.000000"));
    EXPECT_TRUE(mLog.has(Severity::Info,
                         "Temperature range described in VTU mds is from 400.000000 to 280.000000 Kelvin"));
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Invalid temperature range: found minimum is greater than found "
                         "maximum.\nMin = 400.000000 and max = 280.000000"));
}

TEST_F(ATFlowTableTest, PassesOverAnEntryThatIsTooShort) {
    fill(range("280", "400") + group("FlowForTemperature", {"300", "350"}) + flow("300", "350", "500"));
    EXPECT_EQ(mTable.flowByIndex(1), 500.0);
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "A FlowForTemperature group has 4 values when at least 5 are "
                         "expected.This group will be ignored."));
}

TEST_F(ATFlowTableTest, PassesOverAFlowBelowNone) {
    fill(range("280", "400") + flow("300", "320", "-5") + flow("320", "350", "500"));
    EXPECT_EQ(mTable.flowByIndex(0), 0.0);
    EXPECT_EQ(mTable.flowByIndex(1), 500.0);
    EXPECT_EQ(mTable.temperatureRange(), Bounds(320.0, 350.0));
    EXPECT_TRUE(
        mLog.has(Severity::Error,
                 "A FlowForTemperature group has the flow -5.000000 l/h. This group will be ignored."));
}

TEST_F(ATFlowTableTest, HasNoRangeWithoutEntries) {
    fill(range("280", "400"));
    EXPECT_EQ(mTable.temperatureRange(), Bounds(0.0, 0.0));
    EXPECT_EQ(mTable.asXmlForPanorin(), "<flows><flow valueLiterPerHour=\"0\" /></flows>");
}

TEST_F(ATFlowTableTest, PassesOnAValueThatIsNoNumber) {
    EXPECT_THROW(fill(range("cold", "400")), std::invalid_argument);
    EXPECT_THROW(fill(range("280", "400") + flow("300", "350", "much")), std::invalid_argument);
}

TEST_F(ATFlowTableTest, ForgetsWhatItHeldWhenItIsFilledAgain) {
    fill(range("280", "400") + flow("300", "350", "500"));
    fill(range("290", "390") + flow("200", "500", "300"));
    EXPECT_EQ(mTable.temperatureRange(), Bounds(290.0, 390.0));
    EXPECT_EQ(mTable.flowByIndex(1), 300.0);
    EXPECT_THROW(mTable.flowByIndex(2), std::out_of_range);
}

} // namespace
