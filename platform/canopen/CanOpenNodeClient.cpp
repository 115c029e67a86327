// SPDX-License-Identifier: Apache-2.0
// Numbers and texts of the object dictionary as bytes on the bus.
#include <velmor/kepla/canopen/CanOpenNodeClient.h>

#include <velmor/kepla/canopen/SdoAbort.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace velmor::kepla::canopen {

namespace {

constexpr std::size_t kExpedited = 4; ///< Bytes that fit into the request itself.

/// More than any number has, so that an answer of a wrong size is read and told instead of cut off.
constexpr std::size_t kNumberLimit = 64;

} // namespace

CanOpenNodeClient::CanOpenNodeClient(std::shared_ptr<CanOpenMaster> aMaster, unsigned char aNodeId)
    : mMaster(std::move(aMaster))
    , mNodeId(aNodeId) {
    if (mMaster == nullptr) {
        throw std::invalid_argument("A CANopen node client needs a master");
    }
    static_cast<void>(mMaster->status(aNodeId)); // Throws for a number that no node can have.
}

unsigned char CanOpenNodeClient::nodeId() const {
    return mNodeId;
}

template <typename Number>
Number CanOpenNodeClient::readNumber(SdoObject aObject) {
    using Unsigned = std::make_unsigned_t<Number>;
    CanOpenMaster::Turn turn(*mMaster, mNodeId);
    std::span<std::uint8_t const> bytes = turn.upload(aObject, kNumberLimit);
    if (turn.sizeIsOpen()) {
        bytes = bytes.first(std::min(bytes.size(), sizeof(Number))); // The type tells what the node does not.
    }
    if (bytes.empty() || bytes.size() > sizeof(Number)) {
        throw SdoProtocolError(mNodeId, aObject,
                               "The answer has " + std::to_string(bytes.size()) + " bytes instead of " +
                                   std::to_string(sizeof(Number)));
    }
    bool const negative = std::is_signed_v<Number> && (bytes.back() & 0x80U) != 0;
    Unsigned value = negative ? static_cast<Unsigned>(-1) : Unsigned{0};
    for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte) {
        value = static_cast<Unsigned>((static_cast<std::uint64_t>(value) << 8U) | *byte);
    }
    return static_cast<Number>(value);
}

template <typename Number>
void CanOpenNodeClient::writeNumber(SdoObject aObject, Number aValue) {
    std::array<std::uint8_t, sizeof(Number)> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(aValue) >> (8 * i));
    }
    CanOpenMaster::Turn turn(*mMaster, mNodeId);
    turn.download(aObject, bytes, SdoMode::Segmented);
}

/// Tries a transfer as block transfer, and as segmented one where the node refuses the very request for want
/// of that command. The same abort in the middle of a transfer is a failure like any other: a write must not
/// begin again by itself.
template <typename Transfer>
void CanOpenNodeClient::preferBlock(Transfer aTransfer) {
    if (mKnowsBlocks) {
        try {
            return aTransfer(SdoMode::Block);
        } catch (SdoAbortError const& error) {
            if (error.code() != sdoabort::kCommandSpecifier || !error.refused()) {
                throw;
            }
            mKnowsBlocks = false;
        }
    }
    aTransfer(SdoMode::Segmented);
}

std::uint32_t CanOpenNodeClient::readUInt32(std::uint16_t aIndex, std::uint8_t aSubindex) {
    return readNumber<std::uint32_t>({aIndex, aSubindex});
}

std::uint16_t CanOpenNodeClient::readUInt16(std::uint16_t aIndex, std::uint8_t aSubindex) {
    return readNumber<std::uint16_t>({aIndex, aSubindex});
}

std::uint8_t CanOpenNodeClient::readUInt8(std::uint16_t aIndex, std::uint8_t aSubindex) {
    return readNumber<std::uint8_t>({aIndex, aSubindex});
}

std::int32_t CanOpenNodeClient::readInt32(std::uint16_t aIndex, std::uint8_t aSubindex) {
    return readNumber<std::int32_t>({aIndex, aSubindex});
}

std::string CanOpenNodeClient::readString(std::uint16_t aIndex, std::uint8_t aSubindex) {
    CanOpenMaster::Turn turn(*mMaster, mNodeId);
    std::span<std::uint8_t const> const bytes = turn.upload({aIndex, aSubindex}, kLargestRead);
    std::string text(bytes.begin(), bytes.end());
    text.erase(text.find_last_not_of('\0') + 1);
    return text;
}

std::string CanOpenNodeClient::readDomain(SdoObject aObject) {
    std::string result;
    preferBlock([&](SdoMode aMode) {
        CanOpenMaster::Turn turn(*mMaster, mNodeId);
        std::span<std::uint8_t const> const bytes = turn.upload(aObject, kLargestRead, aMode);
        result.assign(bytes.begin(), bytes.end());
    });
    return result;
}

void CanOpenNodeClient::writeDomain(SdoObject aObject,
                                    std::span<std::uint8_t const> aData,
                                    Progress const& aProgress) {
    auto const write = [&](SdoMode aMode) {
        CanOpenMaster::Turn turn(*mMaster, mNodeId);
        turn.download(aObject, aData, aMode, aProgress);
    };
    if (aData.size() <= kExpedited) {
        write(SdoMode::Segmented);
    } else {
        preferBlock(write);
    }
}

void CanOpenNodeClient::writeBlock(std::uint16_t aIndex,
                                   std::uint8_t aSubindex,
                                   void const* aData,
                                   std::size_t aSize) {
    writeDomain({aIndex, aSubindex}, {static_cast<std::uint8_t const*>(aData), aSize});
}

void CanOpenNodeClient::writeUInt32(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint32_t aValue) {
    writeNumber({aIndex, aSubindex}, aValue);
}

void CanOpenNodeClient::writeUInt16(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint16_t aValue) {
    writeNumber({aIndex, aSubindex}, aValue);
}

void CanOpenNodeClient::writeUInt8(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint8_t aValue) {
    writeNumber({aIndex, aSubindex}, aValue);
}

void CanOpenNodeClient::writeInt32(std::uint16_t aIndex, std::uint8_t aSubindex, std::int32_t aValue) {
    writeNumber({aIndex, aSubindex}, static_cast<std::uint32_t>(aValue));
}

} // namespace velmor::kepla::canopen
