// SPDX-License-Identifier: Apache-2.0
// Our SDO client against a server of others, and a client of others against our server.
#include "integration/canopen/SdoPeer.h"

#include "support/TestNode.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/CanOpenNodeClient.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/canopen/SdoAbort.h>

#include <gtest/gtest.h>

#include <memory>
#include <numeric>

namespace {

using libfieldwarden::test::fromHex;
using libfieldwarden::test::SdoPeer;
using libfieldwarden::test::TestNode;
using libfieldwarden::test::toHex;
using namespace velmor::kepla::canopen;

constexpr std::size_t kSizes[] = {1,  2,  3,   4,   5,   6,   7,   8,   13,   14,
                                  15, 68, 440, 441, 442, 888, 889, 890, 5000, 65536};

std::vector<std::uint8_t> pattern(std::size_t aSize) {
    std::vector<std::uint8_t> result(aSize);
    for (std::size_t i = 0; i < aSize; ++i) {
        result[i] = static_cast<std::uint8_t>(i * 7 + i / 251 + 1);
    }
    return result;
}

struct TheirServer : testing::Test {
    TheirServer() { peer.beServer(8); }

    InProcessBus bus;
    SdoPeer peer{bus};
    std::shared_ptr<CanOpenMaster> master = std::make_shared<CanOpenMaster>(bus.open("can0"), 1);
    CanOpenNodeClient client{master, 8};
};

std::uint32_t abortOf(std::function<void()> const& aOperation) {
    try {
        aOperation();
    } catch (SdoAbortError const& error) {
        return error.code();
    }
    return 0;
}

TEST_F(TheirServer, GivesUsNumbersAndTextsOfAllTypes) {
    peer.define(0x3001, "UNSIGNED8", {0xEF});
    peer.define(0x3002, "UNSIGNED16", {0xCD, 0xAB});
    peer.define(0x3003, "UNSIGNED32", {0xFE, 0xFF, 0xFF, 0xFF});
    peer.define(0x3004, "INTEGER32", {0xFE, 0xFF, 0xFF, 0xFF});
    peer.define(0x3005, "VISIBLE_STRING", {'Q', '4', '7'});
    peer.define(0x3006, "VISIBLE_STRING", pattern(300));
    EXPECT_EQ(client.readUInt8(0x3001, 0), 0xEF);
    EXPECT_EQ(client.readUInt16(0x3002, 0), 0xABCD);
    EXPECT_EQ(client.readUInt32(0x3003, 0), 0xFFFFFFFEU);
    EXPECT_EQ(client.readInt32(0x3004, 0), -2);
    EXPECT_EQ(client.readString(0x3005, 0), "Q47");
    std::vector<std::uint8_t> const text = pattern(300);
    EXPECT_EQ(client.readString(0x3006, 0), std::string(text.begin(), text.end()));
}

TEST_F(TheirServer, TakesNumbersOfAllTypes) {
    peer.define(0x3001, "UNSIGNED8", {0});
    peer.define(0x3002, "UNSIGNED16", {0, 0});
    peer.define(0x3003, "UNSIGNED32", {0, 0, 0, 0});
    peer.define(0x3004, "INTEGER32", {0, 0, 0, 0});
    client.writeUInt8(0x3001, 0, 0x12);
    client.writeUInt16(0x3002, 0, 0x3456);
    client.writeUInt32(0x3003, 0, 0x789ABCDE);
    client.writeInt32(0x3004, 0, -3);
    EXPECT_EQ(toHex(peer.get(0x3001)), "12");
    EXPECT_EQ(toHex(peer.get(0x3002)), "5634");
    EXPECT_EQ(toHex(peer.get(0x3003)), "debc9a78");
    EXPECT_EQ(toHex(peer.get(0x3004)), "fdffffff");
}

TEST_F(TheirServer, ExchangesDomainsOfAllSizesInSegmentsAndBlocks) {
    int index = 0x3100;
    for (std::size_t const size : kSizes) {
        for (SdoMode const mode : {SdoMode::Segmented, SdoMode::Block}) {
            std::vector<std::uint8_t> const data = pattern(size);
            SdoObject const object{static_cast<std::uint16_t>(++index), 0};
            peer.define(index, "DOMAIN", {0, 0, 0, 0, 0});
            CanOpenMaster::Turn turn(*master, 8);
            turn.download(object, data, mode);
            EXPECT_EQ(peer.get(index), data) << size;
            auto const back = turn.upload(object, 100000, mode);
            EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin(), data.end())) << size;
        }
    }
}

TEST_F(TheirServer, RefusesInWordsThatWeUnderstand) {
    peer.define(0x3001, "UNSIGNED8", {1}, "ro");
    peer.define(0x3002, "UNSIGNED8", {1}, "wo");
    EXPECT_EQ(abortOf([&] { client.readUInt8(0x4000, 0); }), sdoabort::kNoSuchObject);
    EXPECT_EQ(abortOf([&] { client.writeUInt8(0x4000, 0, 1); }), sdoabort::kNoSuchObject);
    EXPECT_EQ(abortOf([&] { client.writeUInt8(0x3001, 0, 2); }), sdoabort::kReadOnly);
    EXPECT_EQ(abortOf([&] { client.readUInt8(0x3002, 0); }), sdoabort::kWriteOnly);
    EXPECT_EQ(client.readUInt8(0x3001, 0), 1) << "and we go on";
}

struct TheirClient : testing::Test {
    TheirClient() { peer.command({{"do", "client"}, {"node", 8}}); }

    nlohmann::json upload(int aIndex, int aSubindex, bool aBlock) {
        return peer.command(
            {{"do", "upload"}, {"node", 8}, {"index", aIndex}, {"subindex", aSubindex}, {"block", aBlock}});
    }
    nlohmann::json download(int aIndex, int aSubindex, std::vector<std::uint8_t> const& aData, bool aBlock) {
        return peer.command({{"do", "download"},
                             {"node", 8},
                             {"index", aIndex},
                             {"subindex", aSubindex},
                             {"hex", toHex(aData)},
                             {"block", aBlock}});
    }

    InProcessBus bus;
    TestNode node{bus, 8};
    SdoPeer peer{bus};
};

TEST_F(TheirClient, ExchangesDataOfAllSizesInSegmentsAndBlocks) {
    for (std::size_t const size : kSizes) {
        for (bool const block : {false, true}) {
            std::vector<std::uint8_t> const data = pattern(size);
            node.set({0x3001, 1}, {});
            EXPECT_EQ(download(0x3001, 1, data, block), nlohmann::json::object()) << size << " " << block;
            EXPECT_EQ(node.get({0x3001, 1}), data) << size << " " << block;
            nlohmann::json const back = upload(0x3001, 1, block);
            ASSERT_TRUE(back.contains("hex")) << size << " " << block << " " << back;
            EXPECT_EQ(fromHex(back.at("hex").get<std::string>()), data) << size << " " << block;
        }
    }
}

TEST_F(TheirClient, UnderstandsOurRefusals) {
    node.refuseReads({0x3000, 1}, sdoabort::kHardware);
    EXPECT_EQ(upload(0x4000, 0, false), (nlohmann::json{{"code", sdoabort::kNoSuchObject}}));
    EXPECT_EQ(upload(0x4000, 0, true), (nlohmann::json{{"code", sdoabort::kNoSuchObject}}));
    EXPECT_EQ(upload(0x3000, 1, false), (nlohmann::json{{"code", sdoabort::kHardware}}));
    EXPECT_EQ(download(0x4000, 1, {1, 2, 3, 4, 5, 6}, false),
              (nlohmann::json{{"code", sdoabort::kNoSuchObject}}));
}

} // namespace
