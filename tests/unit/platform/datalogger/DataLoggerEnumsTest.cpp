// SPDX-License-Identifier: Apache-2.0
// Numbers and texts of units, storage types and states: both stand in files.
#include <velmor/kepla/datalogger/DataLoggerStatusCode.h>
#include <velmor/kepla/datalogger/DataLoggerStorageType.h>
#include <velmor/kepla/datalogger/DataLoggerUnit.h>

#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using velmor::kepla::datalogger::DataLoggerStatusCode;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::utils::EnumTexts;
using velmor::kepla::utils::EnumUtils;

template <typename T>
class DataLoggerEnum : public testing::Test {};
using Enums = testing::Types<DataLoggerStatusCode, DataLoggerStorageType, DataLoggerUnit>;
TYPED_TEST_SUITE(DataLoggerEnum, Enums);

TYPED_TEST(DataLoggerEnum, GivesEveryTextBackAsItsValue) {
    for (auto const& entry : EnumTexts<TypeParam>::kTexts) {
        EXPECT_EQ(EnumUtils<TypeParam>::to_string(entry.value), entry.text);
        EXPECT_EQ(EnumUtils<TypeParam>::parse(entry.text), entry.value);
    }
}

TYPED_TEST(DataLoggerEnum, RefusesAnUnknownValue) {
    try {
        EnumUtils<TypeParam>::to_string(static_cast<TypeParam>(200));
        FAIL();
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(), "Requested enum value not found.");
    }
}

TEST(DataLoggerUnit, HasTheNumbersThatTheChannelsUse) {
    EXPECT_EQ(EnumUtils<DataLoggerUnit>::to_string(DataLoggerUnit{1}), "K");
    EXPECT_EQ(EnumUtils<DataLoggerUnit>::to_string(DataLoggerUnit{7}), "m3/s");
    EXPECT_EQ(EnumUtils<DataLoggerUnit>::to_string(DataLoggerUnit{16}), "1");
    EXPECT_EQ(EnumUtils<DataLoggerUnit>::to_string(DataLoggerUnit{35}), "bool");
    EXPECT_EQ(EnumUtils<DataLoggerUnit>::count(), 13U);
}

TEST(DataLoggerStorageType, HasTheNumbersThatTheChannelsUse) {
    EXPECT_EQ(DataLoggerStorageType{1}, DataLoggerStorageType::ShortTerm);
    EXPECT_EQ(DataLoggerStorageType{2}, DataLoggerStorageType::LongTerm);
    EXPECT_EQ(EnumUtils<DataLoggerStorageType>::count(), 3U);
}

TEST(DataLoggerStatusCode, BeginsWithGood) {
    EXPECT_EQ(DataLoggerStatusCode{0}, DataLoggerStatusCode::Good);
    EXPECT_EQ(EnumUtils<DataLoggerStatusCode>::count(), 5U);
}

} // namespace
