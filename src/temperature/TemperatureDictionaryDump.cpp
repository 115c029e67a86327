// SPDX-License-Identifier: Apache-2.0
// Which objects the temperature board's dictionary has, in the order of the dump.
#include "temperature/TemperatureDictionaryDump.h"

#include "dump/DictionaryDump.h"

using libfieldwarden::dump::ObjectRange;
using enum libfieldwarden::dump::ObjectType;

namespace libfieldwarden::tempboardq47 {

namespace {

constexpr ObjectRange kObjects[] = {
    {0x1018, 0, 0, U8},
    {0x1018, 1, 4, U32},
    {0x1200, 0, 0, U8},
    {0x1200, 1, 2, U32},
    {0x1800, 0, 0, U8},
    {0x1800, 1, 1, U32},
    {0x1800, 2, 2, U8},
    {0x1A00, 0, 0, U8},
    {0x1A00, 1, 1, U32},
    {0x1F50, 0, 0, U8},
    {0x1F51, 0, 1, U8},
    {0x1F55, 0, 0, U8},
    {0x1F55, 1, 1, U32},
    {0x1F56, 0, 0, U8},
    {0x1F56, 1, 1, U32},
    {0x1F57, 0, 0, U8},
    {0x1F57, 1, 1, U32},
    {0x2000, 0, 0, U8},
    {0x2000, 1, 5, U32},
    {0x200A, 0, 0, U8},
    {0x200A, 1, 1, U32},
    {0x200B, 0, 0, U8},
    {0x200B, 1, 1, STR},
    {0x200C, 0, 0, U8},
    {0x200C, 1, 4, U32},
    {0x200D, 0, 0, U8},
    {0x200D, 1, 2, STR},
    {0x2100, 0, 4, U8},
    {0x3000, 0, 0, U8},
    {0x3000, 1, 1, STR},
    {0x3001, 0, 0, U8},
    {0x3001, 1, 7, U16},
    {0x3002, 0, 0, U8},
    {0x3002, 1, 6, U16},
    {0x3003, 0, 7, U8},
    {0x3004, 0, 0, U8},
    // Intended: the target at subindex 1 can only be written.
    {0x3004, 2, 7, U16},
    {0x3006, 0, 8, U8},
    {0x3010, 0, 0, U8},
    {0x3010, 1, 6, U16},
    {0x3101, 0, 0, U8},
    {0x3101, 1, 3, U16},
    {0x3102, 0, 0, U8},
    {0x3102, 1, 2, U16},
    {0x3103, 0, 2, U8},
    {0x3104, 0, 0, U8},
    {0x3104, 1, 3, U16},
    {0x3106, 0, 2, U8},
    {0x3110, 0, 0, U8},
    // Intended: 32 bits with sign, while an update of the firmware knows them as 16 bits.
    {0x3110, 1, 2, I32},
    {0x3111, 0, 0, U8},
    {0x3111, 1, 5, U16},
    {0x3201, 0, 0, U8},
    {0x3201, 1, 7, U16},
    {0x3202, 0, 0, U8},
    {0x3202, 1, 1, U16},
    {0x3203, 0, 2, U8},
    {0x3204, 0, 0, U8},
    {0x3204, 1, 3, U16},
    {0x3205, 0, 2, U8},
    {0x3206, 0, 2, U8},
    {0x3207, 0, 0, U8},
    {0x3207, 1, 3, U16},
    {0x3210, 0, 0, U8},
    {0x3210, 1, 3, U16},
    {0x3301, 0, 0, U8},
    {0x3301, 1, 3, I32},
    {0x3302, 0, 0, U8},
    {0x3302, 1, 1, U16},
    {0x3303, 0, 7, U8},
    {0x3304, 0, 0, U8},
    {0x3304, 1, 7, I32},
    {0x3305, 0, 0, U8},
    {0x3305, 1, 3, I32},
    {0x3306, 0, 0, U8},
    {0x3306, 1, 4, U16},
    {0x3310, 0, 0, U8},
    {0x3310, 1, 1, U16},
    {0x3312, 0, 3, U8},
    {0x3401, 0, 6, U8},
    {0x3402, 0, 0, U8},
    {0x3402, 1, 4, U16},
    {0x3501, 0, 0, U8},
    {0x3501, 1, 9, I32},
    {0x5000, 0, 0, U8},
    {0x5000, 1, 4, U16},
    {0x5001, 0, 0, U8},
    {0x5001, 1, 4, U16},
    {0x5002, 0, 0, U8},
    {0x5002, 1, 4, U16},
    {0x50D0, 0, 0, U8},
    {0x50D0, 1, 8, U16},
    {0x50D1, 0, 0, U8},
    {0x50D1, 1, 8, I32},
};

} // namespace

std::basic_ostream<char>& dumpCANopenDicOjbForLog(
    std::shared_ptr<velmor::kepla::canopen::CanOpenNodeClientIfc> const& aClient,
    std::basic_ostream<char>& aStream) {
    return libfieldwarden::dump::writeDictionary(aClient, aStream, kObjects);
}

} // namespace libfieldwarden::tempboardq47
