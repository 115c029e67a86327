// SPDX-License-Identifier: Apache-2.0
// Which objects a shim board's dictionary has, in the order of the dump.
#include "shim/ShimDictionaryDump.h"

#include "dump/DictionaryDump.h"

using libfieldwarden::dump::ObjectRange;
using enum libfieldwarden::dump::ObjectType;

namespace libfieldwarden::shimboardq47 {

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
    {0x1F51, 0, 0, U8},
    {0x1F51, 1, 1, U32},
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
    // Intended: always 17 sources, whatever number the board reports, and that number read as 8 bits.
    {0x3000, 0, 0, U8},
    {0x3000, 1, 17, I32},
    // Intended: the block of set currents read as one number.
    {0x3001, 0, 0, U8},
    {0x3001, 1, 1, I32},
    {0x3002, 0, 0, U8},
    {0x3002, 1, 5, I32},
    {0x3003, 0, 0, U8},
    {0x3003, 1, 1, U16},
    {0x3004, 0, 1, U8},
};

} // namespace

std::basic_ostream<char>& dumpCANopenDicOjbForLog(
    std::shared_ptr<velmor::kepla::canopen::CanOpenNodeClientIfc> const& aClient,
    std::basic_ostream<char>& aStream) {
    return libfieldwarden::dump::writeDictionary(aClient, aStream, kObjects);
}

} // namespace libfieldwarden::shimboardq47
