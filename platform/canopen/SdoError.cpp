// SPDX-License-Identifier: Apache-2.0
// The words of failed SDO transfers.
#include <velmor/kepla/canopen/SdoAbort.h>
#include <velmor/kepla/canopen/SdoError.h>

#include <fmt/format.h>

namespace velmor::kepla::canopen {

std::string describeSdoAbort(std::uint32_t aCode) {
    return fmt::format("SDO abort 0x{:08x}: {}", aCode, sdoAbortWords(aCode));
}

SdoError::SdoError(std::uint8_t aNode, SdoObject aObject, std::string const& aWords)
    : std::runtime_error(
          fmt::format("node {}, object 0x{:04x}:{:02x}: {}", aNode, aObject.index, aObject.subindex, aWords))
    , mNode(aNode)
    , mObject(aObject) {}

SdoAbortError::SdoAbortError(std::uint8_t aNode, SdoObject aObject, std::uint32_t aCode, bool aRefused)
    : SdoError(aNode, aObject, describeSdoAbort(aCode))
    , mCode(aCode)
    , mRefused(aRefused) {}

} // namespace velmor::kepla::canopen
