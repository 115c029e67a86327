// SPDX-License-Identifier: Apache-2.0
// The simulated shim board with a CANopen client that others wrote.
#include "integration/canopen/SdoPeer.h"
#include "simulator/boards/CanNode.h"
#include "simulator/boards/ShimBoard.h"
#include "support/Eventually.h"
#include "unit/simulator/boards/PackedImage.h"

#include <velmor/kepla/canopen/InProcessBus.h>

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::CanNode;
using libfieldwarden::sim::ObjectAccess;
using libfieldwarden::sim::ShimBoard;
using libfieldwarden::test::eventually;
using libfieldwarden::test::PlainImage;
using libfieldwarden::test::SdoPeer;
using libfieldwarden::test::toHex;
using nlohmann::json;
using Bytes = std::vector<std::uint8_t>;

class ShimBoardPeerTest : public testing::Test {
protected:
    ShimBoardPeerTest() {
        mPeer.command({{"do", "client"}, {"node", 8}});
        mNode = std::make_unique<CanNode>(mBus.open("node 8"), std::uint8_t{8}, mBoard);
    }

    json upload(int aIndex, int aSubindex, bool aBlock = false) {
        return mPeer.command(
            {{"do", "upload"}, {"node", 8}, {"index", aIndex}, {"subindex", aSubindex}, {"block", aBlock}});
    }
    std::string uploaded(int aIndex, int aSubindex, bool aBlock = false) {
        json const result = upload(aIndex, aSubindex, aBlock);
        return result.contains("hex") ? result.at("hex").get<std::string>() : result.dump();
    }
    json download(int aIndex, int aSubindex, Bytes const& aData, bool aBlock = false) {
        return mPeer.command({{"do", "download"},
                              {"node", 8},
                              {"index", aIndex},
                              {"subindex", aSubindex},
                              {"hex", toHex(aData)},
                              {"block", aBlock}});
    }

    velmor::kepla::canopen::InProcessBus mBus;
    std::shared_ptr<ShimBoard> mBoard = std::make_shared<ShimBoard>(ShimBoard::Options{});
    SdoPeer mPeer{mBus};
    std::unique_ptr<CanNode> mNode; ///< Made when the peer is ready for frames.
};

json const kDone = json::object();

TEST_F(ShimBoardPeerTest, GivesNumbersAndTexts) {
    EXPECT_EQ(uploaded(0x3000, 0), "11");
    EXPECT_EQ(uploaded(0x1018, 4), "f82b0700"); // 470008
    EXPECT_EQ(uploaded(0x3003, 1), "c05d");     // 24000
    EXPECT_EQ(uploaded(0x200B, 1), toHex(Bytes{'Q', '4', '7', '-', 'S', 'H', 'I', 'M'}));
}

TEST_F(ShimBoardPeerTest, GivesEveryObjectThatCanBeRead) {
    for (auto const object : mBoard->dictionary().objects()) {
        if (mBoard->dictionary().row(object).access != ObjectAccess::WriteOnly) {
            EXPECT_TRUE(upload(object.index, object.subindex).contains("hex"))
                << std::hex << object.index << ':' << int{object.subindex};
        }
    }
}

TEST_F(ShimBoardPeerTest, TakesCurrentsInSegmentsAndBlocks) {
    for (bool const block : {false, true}) {
        Bytes currents(68);
        currents[64] = block ? 0x10 : 0x20; // source 17
        EXPECT_EQ(download(0x3001, 1, currents, block), kDone);
        EXPECT_EQ(uploaded(0x3000, 17), block ? "10000000" : "20000000");
    }
}

TEST_F(ShimBoardPeerTest, ExchangesItsRecordInSegmentsAndBlocks) {
    for (bool const block : {false, true}) {
        Bytes record(5000);
        for (std::size_t byte = 0; byte < record.size(); ++byte) {
            record[byte] = static_cast<std::uint8_t>(byte * 13 + (block ? 1 : 0));
        }
        EXPECT_EQ(download(0x2200, 1, record, block), kDone);
        EXPECT_EQ(uploaded(0x2200, 1, block), toHex(record));
    }
}

TEST_F(ShimBoardPeerTest, RefusesInWordsThatOthersUnderstand) {
    EXPECT_EQ(upload(0x4000, 0), (json{{"code", 0x06020000}}));
    EXPECT_EQ(upload(0x3000, 18), (json{{"code", 0x06090011}}));
    EXPECT_EQ(upload(0x1F50, 1), (json{{"code", 0x06010001}}));
    EXPECT_EQ(download(0x3000, 1, {1, 0, 0, 0}), (json{{"code", 0x06010002}}));
    EXPECT_EQ(download(0x1017, 0, {1}), (json{{"code", 0x06070010}}));
    EXPECT_EQ(download(0x1F51, 1, {9}), (json{{"code", 0x06090030}}));
    EXPECT_EQ(uploaded(0x3000, 0), "11") << "and it goes on";
}

TEST_F(ShimBoardPeerTest, TakesNewFirmware) {
    EXPECT_EQ(download(0x1F51, 1, {0}), kDone);
    EXPECT_TRUE(eventually([&] { return !mBoard->programRuns(); }));
    EXPECT_TRUE(
        eventually([&] { return mNode->state() == velmor::kepla::canopen::NmtState::PreOperational; }));
    EXPECT_EQ(download(0x1F51, 1, {3}), kDone);
    EXPECT_TRUE(eventually([&] { return uploaded(0x1F57, 1) == "02000000"; })); // empty, no longer busy
    EXPECT_EQ(download(0x1F50, 1, PlainImage{.programSize = 40'000}.packed(), true), kDone);
    EXPECT_TRUE(eventually([&] { return uploaded(0x1F57, 1) == "00000000"; }));
    EXPECT_EQ(download(0x1F51, 1, {1}), kDone);
    EXPECT_TRUE(eventually([&] { return mBoard->programRuns(); }));
    EXPECT_TRUE(
        eventually([&] { return mNode->state() == velmor::kepla::canopen::NmtState::PreOperational; }));
    EXPECT_EQ(uploaded(0x1F56, 1), "d0070000"); // 2000
}

} // namespace
