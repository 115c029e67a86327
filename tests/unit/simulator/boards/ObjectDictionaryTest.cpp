// SPDX-License-Identifier: Apache-2.0
// What a board's dictionary gives, takes and refuses.
#include "simulator/boards/ObjectDictionary.h"

#include <array>
#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::ObjectAccess;
using libfieldwarden::sim::ObjectDictionary;
using libfieldwarden::sim::ObjectRange;
using libfieldwarden::sim::ObjectRow;
using libfieldwarden::sim::ObjectType;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = ObjectDictionary::Bytes;
using SdoObject = ObjectDictionary::SdoObject;

constexpr std::array kTable{
    ObjectRow{0x2000, 0, 0, ObjectType::U8, ObjectAccess::ReadOnly, "read-only", 7},
    ObjectRow{0x2000, 1, 3, ObjectType::I32, ObjectAccess::ReadWrite, "signed", -2, ObjectRange{-100, 100}},
    ObjectRow{0x2001, 0, 0, ObjectType::U16, ObjectAccess::ReadWrite, "unsigned", 0x1234},
    ObjectRow{0x2002, 0, 0, ObjectType::U32, ObjectAccess::WriteOnly, "write-only"},
    ObjectRow{0x2003, 1, 1, ObjectType::Text, ObjectAccess::ReadOnly, "text", 0, {}, "warden"},
    ObjectRow{0x2004, 1, 1, ObjectType::Domain, ObjectAccess::ReadWrite, "domain", 0, ObjectRange{2, 4}},
};

class ObjectDictionaryTest : public testing::Test {
protected:
    Bytes read(SdoObject aObject) {
        Bytes data;
        EXPECT_EQ(mDictionary.read(aObject, data), 0U);
        return data;
    }
    std::uint32_t readCode(SdoObject aObject) {
        Bytes data;
        return mDictionary.read(aObject, data);
    }
    std::uint32_t write(SdoObject aObject, Bytes const& aData) { return mDictionary.write(aObject, aData); }

    ObjectDictionary mDictionary{kTable};
};

TEST_F(ObjectDictionaryTest, StartsFromPowerOnValuesInLittleEndian) {
    EXPECT_THAT(read({0x2000, 0}), ElementsAre(7));
    EXPECT_THAT(read({0x2000, 3}), ElementsAre(0xFE, 0xFF, 0xFF, 0xFF)); // -2
    EXPECT_THAT(read({0x2001, 0}), ElementsAre(0x34, 0x12));
    EXPECT_THAT(read({0x2003, 1}), ElementsAre('w', 'a', 'r', 'd', 'e', 'n'));
    EXPECT_THAT(read({0x2004, 1}), IsEmpty());
}

TEST_F(ObjectDictionaryTest, RefusesAnObjectThatItDoesNotHave) {
    EXPECT_EQ(readCode({0x1FFF, 0}), 0x06020000U);
    EXPECT_EQ(readCode({0x2005, 0}), 0x06020000U);
    EXPECT_EQ(write({0x2005, 0}, {1}), 0x06020000U);
}

TEST_F(ObjectDictionaryTest, RefusesASubindexThatItDoesNotHave) {
    EXPECT_EQ(readCode({0x2000, 4}), 0x06090011U);
    EXPECT_EQ(readCode({0x2003, 0}), 0x06090011U);
    EXPECT_EQ(write({0x2000, 4}, {1, 0, 0, 0}), 0x06090011U);
}

TEST_F(ObjectDictionaryTest, RefusesToWriteAReadOnlyObject) {
    EXPECT_EQ(write({0x2000, 0}, {7}), 0x06010002U);
    EXPECT_EQ(write({0x2003, 1}, {7}), 0x06010002U);
}

TEST_F(ObjectDictionaryTest, RefusesToReadAWriteOnlyObject) {
    EXPECT_EQ(readCode({0x2002, 0}), 0x06010001U);
    EXPECT_EQ(write({0x2002, 0}, {1, 0, 0, 0}), 0U);
}

TEST_F(ObjectDictionaryTest, RefusesAWrongLength) {
    EXPECT_EQ(write({0x2001, 0}, {1}), 0x06070010U);
    EXPECT_EQ(write({0x2001, 0}, {1, 2, 3, 4}), 0x06070010U);
    EXPECT_EQ(write({0x2001, 0}, {}), 0x06070010U);
    EXPECT_EQ(write({0x2004, 1}, {1}), 0x06070010U);
    EXPECT_EQ(write({0x2004, 1}, {1, 2, 3, 4, 5}), 0x06070010U);
}

TEST_F(ObjectDictionaryTest, RefusesAValueOutOfRangeAndTakesTheLimits) {
    EXPECT_EQ(write({0x2000, 1}, {101, 0, 0, 0}), 0x06090030U);
    EXPECT_EQ(write({0x2000, 1}, {0x9B, 0xFF, 0xFF, 0xFF}), 0x06090030U); // -101
    EXPECT_EQ(mDictionary.number({0x2000, 1}), -2);
    EXPECT_EQ(write({0x2000, 1}, {100, 0, 0, 0}), 0U);
    EXPECT_EQ(mDictionary.number({0x2000, 1}), 100);
    EXPECT_EQ(write({0x2000, 1}, {0x9C, 0xFF, 0xFF, 0xFF}), 0U); // -100
    EXPECT_EQ(mDictionary.number({0x2000, 1}), -100);
}

TEST_F(ObjectDictionaryTest, KeepsWhatIsWrittenForEachSubindex) {
    EXPECT_EQ(write({0x2000, 2}, {5, 0, 0, 0}), 0U);
    EXPECT_EQ(write({0x2004, 1}, {1, 2, 3}), 0U);
    EXPECT_THAT(read({0x2000, 1}), ElementsAre(0xFE, 0xFF, 0xFF, 0xFF));
    EXPECT_THAT(read({0x2000, 2}), ElementsAre(5, 0, 0, 0));
    EXPECT_THAT(read({0x2004, 1}), ElementsAre(1, 2, 3));
}

TEST_F(ObjectDictionaryTest, ReturnsToPowerOnValuesWithinTheRangeOfIndexes) {
    write({0x2000, 2}, {5, 0, 0, 0});
    write({0x2001, 0}, {5, 0});
    mDictionary.powerOn(0x2001, 0x2001);
    EXPECT_EQ(mDictionary.number({0x2000, 2}), 5);
    EXPECT_EQ(mDictionary.number({0x2001, 0}), 0x1234);
    mDictionary.powerOn();
    EXPECT_EQ(mDictionary.number({0x2000, 2}), -2);
}

TEST_F(ObjectDictionaryTest, TakesAnotherPowerOnValueFromTheModel) {
    mDictionary.setPowerOn({0x2001, 0}, 9);
    EXPECT_EQ(mDictionary.number({0x2001, 0}), 9);
    mDictionary.setNumber({0x2001, 0}, 10);
    mDictionary.powerOn();
    EXPECT_EQ(mDictionary.number({0x2001, 0}), 9);
}

TEST_F(ObjectDictionaryTest, ReadsFromTheModel) {
    mDictionary.onRead({0x2001, 0}, [] { return 0x0102; });
    mDictionary.onReadText({0x2003, 1}, [] { return std::string("x"); });
    EXPECT_THAT(read({0x2001, 0}), ElementsAre(0x02, 0x01));
    EXPECT_THAT(read({0x2003, 1}), ElementsAre('x'));
}

TEST_F(ObjectDictionaryTest, StoresNothingThatTheModelRefuses) {
    std::int64_t told = 0;
    mDictionary.onWrite({0x2000, 1}, [&](std::int64_t aNumber) {
        told = aNumber;
        return aNumber < 0 ? 0x08000022U : 0U;
    });
    EXPECT_EQ(write({0x2000, 1}, {0xFF, 0xFF, 0xFF, 0xFF}), 0x08000022U);
    EXPECT_EQ(told, -1);
    EXPECT_EQ(mDictionary.number({0x2000, 1}), -2);
    EXPECT_EQ(write({0x2000, 1}, {3, 0, 0, 0}), 0U);
    EXPECT_EQ(mDictionary.number({0x2000, 1}), 3);
}

TEST_F(ObjectDictionaryTest, DoesNotAskTheModelForWhatTheTableRefuses) {
    bool asked = false;
    mDictionary.onWrite({0x2000, 1}, [&](std::int64_t) {
        asked = true;
        return 0U;
    });
    EXPECT_EQ(write({0x2000, 1}, {101, 0, 0, 0}), 0x06090030U);
    EXPECT_FALSE(asked);
}

TEST_F(ObjectDictionaryTest, HidesWhatTheBoardDoesNotShow) {
    mDictionary.restrictTo([](std::uint16_t aIndex) { return aIndex != 0x2001; });
    EXPECT_EQ(readCode({0x2001, 0}), 0x06020000U);
    EXPECT_EQ(write({0x2001, 0}, {1, 0}), 0x06020000U);
    EXPECT_EQ(readCode({0x2000, 0}), 0U);
    mDictionary.restrictTo({});
    EXPECT_EQ(readCode({0x2001, 0}), 0U);
}

TEST_F(ObjectDictionaryTest, ListsItsObjectsInRisingOrder) {
    EXPECT_THAT(
        mDictionary.objects(),
        ElementsAre(SdoObject{0x2000, 0}, SdoObject{0x2000, 1}, SdoObject{0x2000, 2}, SdoObject{0x2000, 3},
                    SdoObject{0x2001, 0}, SdoObject{0x2002, 0}, SdoObject{0x2003, 1}, SdoObject{0x2004, 1}));
    EXPECT_EQ(mDictionary.row({0x2000, 2}).meaning, "signed");
}

TEST_F(ObjectDictionaryTest, TellsTheModelOfItsErrors) {
    EXPECT_THROW(mDictionary.setNumber({0x2009, 0}, 1), std::out_of_range);
    EXPECT_THROW((ObjectDictionary{kTable, kTable}), std::invalid_argument);
}

} // namespace
