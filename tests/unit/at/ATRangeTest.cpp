// SPDX-License-Identifier: Apache-2.0
// How board, flow table and operator narrow the probe's range.
#include "at/ATFlowTable.h"
#include "at/ATRange.h"
#include "support/FakeTempBoard.h"

#include <velmor/kepla/mds/Mds.h>

#include <limits>
#include <memory>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::FakeTempBoard;
using libfieldwarden::test::makeTempBoard;
using velmor::kepla::mds::Mds;
using Bounds = std::pair<double, double>;

class ATRangeTest : public ::testing::Test {
protected:
    ATRangeTest() {
        mFlowTable->setTableFromMDS(Mds::parse(
            "<record><group name=\"TemperatureRange\"><value/><value/><value>280</value><value>360</value>"
            "</group><group name=\"FlowForTemperature\"><value/><value/><value>270</value>"
            "<value>370</value><value>200</value></group></record>"));
        mBoard->set("probeGasRegulatedTemperatureRange", FakeTempBoard::Range{275.0, 365.0});
    }

    std::shared_ptr<FakeTempBoard> mBoard = makeTempBoard();
    std::shared_ptr<ATFlowTable> mFlowTable = std::make_shared<ATFlowTable>();
    ATRange mRange{mBoard, mFlowTable};
};

TEST_F(ATRangeTest, IsTheTablesWhereThatIsTheNarrowest) {
    EXPECT_EQ(mRange.range(), Bounds(280.0, 360.0));
}

TEST_F(ATRangeTest, AsksTheBoardEachTime) {
    mBoard->set("probeGasRegulatedTemperatureRange", FakeTempBoard::Range{285.0, 350.0});
    EXPECT_EQ(mRange.range(), Bounds(285.0, 350.0));
    mBoard->set("probeGasRegulatedTemperatureRange", FakeTempBoard::Range{286.0, 349.0});
    EXPECT_EQ(mRange.range(), Bounds(286.0, 349.0));
}

TEST_F(ATRangeTest, IsNarrowedByTheOperator) {
    mRange.setProbeMin(300.0);
    mRange.setProbeMax(320.0);
    EXPECT_EQ(mRange.range(), Bounds(300.0, 320.0));
    mRange.setProbeMin(0.0);
    mRange.setProbeMax(1000.0);
    EXPECT_EQ(mRange.range(), Bounds(280.0, 360.0));
}

TEST_F(ATRangeTest, MayLeaveNoRoom) {
    mRange.setProbeMax(0.0);
    EXPECT_EQ(mRange.range(), Bounds(280.0, 0.0));
}

TEST_F(ATRangeTest, RefusesNegativeLimits) {
    try {
        mRange.setProbeMin(-0.001);
        ADD_FAILURE();
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(), "Minimal probe's temperature must be higher than 0K");
    }
    try {
        mRange.setProbeMax(-0.001);
        ADD_FAILURE();
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(), "Maximal probe's temperature must be higher than 0K");
    }
    EXPECT_EQ(mRange.range(), Bounds(280.0, 360.0));
}

TEST_F(ATRangeTest, IsNotWidenedByALimitThatIsNoNumber) {
    mRange.setProbeMin(std::numeric_limits<double>::quiet_NaN());
    mRange.setProbeMax(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(mRange.range(), Bounds(280.0, 360.0));
}

} // namespace
