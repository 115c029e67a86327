// SPDX-License-Identifier: Apache-2.0
// The object dictionary of one node, reached by SDO transfers.
#pragma once

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/CanOpenNodeClientIfc.h>

#include <atomic>
#include <memory>
#include <span>

namespace velmor::kepla::canopen {

/// Client of one node. Several clients of one node may live side by side.
class CanOpenNodeClient final : public CanOpenNodeClientIfc {
public:
    using Progress = CanOpenMaster::Turn::Progress;

    /// The longest text or domain that is read, in bytes.
    static constexpr std::size_t kLargestRead = std::size_t{1} << 20U;

    /// @param aMaster  The master of the bus; not null.
    /// @param aNodeId  The node, 1 to 127.
    /// @throws std::invalid_argument  when the node is out of range or there is no master.
    CanOpenNodeClient(std::shared_ptr<CanOpenMaster> aMaster, unsigned char aNodeId);

    unsigned char nodeId() const override;
    std::uint32_t readUInt32(std::uint16_t aIndex, std::uint8_t aSubindex) override;
    std::uint16_t readUInt16(std::uint16_t aIndex, std::uint8_t aSubindex) override;
    std::uint8_t readUInt8(std::uint16_t aIndex, std::uint8_t aSubindex) override;
    std::int32_t readInt32(std::uint16_t aIndex, std::uint8_t aSubindex) override;
    std::string readString(std::uint16_t aIndex, std::uint8_t aSubindex) override;
    void writeBlock(std::uint16_t aIndex,
                    std::uint8_t aSubindex,
                    void const* aData,
                    std::size_t aSize) override;
    void writeUInt32(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint32_t aValue) override;
    void writeUInt16(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint16_t aValue) override;
    void writeUInt8(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint8_t aValue) override;
    void writeInt32(std::uint16_t aIndex, std::uint8_t aSubindex, std::int32_t aValue) override;

    /// Reads a domain as it comes, by block transfer where the node can do that.
    /// @throws SdoError, CanLinkError  as CanOpenNodeClientIfc.
    std::string readDomain(SdoObject aObject);

    /// Writes a domain, by block transfer where the node can do that.
    /// @param aProgress  Told about how many bytes are on their way.
    /// @throws SdoError, CanLinkError  as CanOpenNodeClientIfc.
    void writeDomain(SdoObject aObject, std::span<std::uint8_t const> aData, Progress const& aProgress = {});

private:
    template <typename Number>
    Number readNumber(SdoObject aObject);
    template <typename Number>
    void writeNumber(SdoObject aObject, Number aValue);
    template <typename Transfer>
    void preferBlock(Transfer aTransfer);

    std::shared_ptr<CanOpenMaster> const mMaster;
    unsigned char const mNodeId;
    std::atomic<bool> mKnowsBlocks{true}; ///< Until the node says that it does not know block transfers.
};

} // namespace velmor::kepla::canopen
