// SPDX-License-Identifier: Apache-2.0
// A shim board on a scripted object dictionary, and what its accesses look like.
#pragma once

#include "shim/ShimBoardQ47.h"

#include "support/ExpectThrow.h"
#include "support/FakeCanOpenNode.h"
#include "support/FakeDataLogger.h"
#include "support/FakePeriodicCallers.h"
#include "support/LogCapture.h"
#include "support/SilentMaster.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace libfieldwarden::test {

constexpr std::size_t kSources = 17;

/// A node with 17 sources at 0 uA and sensors at 25 degrees Celsius, whose sources take what is written to
/// them.
inline std::shared_ptr<FakeCanOpenNode> makeShimNode(unsigned char aNodeId) {
    auto node = std::make_shared<FakeCanOpenNode>(aNodeId);
    node->set(0x3000, 0, kSources);
    for (std::uint8_t source = 1; source <= kSources; ++source) {
        node->set(0x3000, source, 0);
    }
    for (std::uint8_t sensor = 1; sensor <= 5; ++sensor) {
        node->set(0x3002, sensor, 25000);
    }
    node->set(0x3004, 1, 200);
    node->onWrite(0x3001, 1, [board = node.get()](FakeCanOpenNode::Bytes const& aBytes) {
        for (std::size_t source = 0; source * 4 + 3 < aBytes.size(); ++source) {
            std::uint32_t word = 0;
            for (std::size_t byte = 4; byte-- > 0;) {
                word = (word << 8U) | aBytes[source * 4 + byte];
            }
            board->set(0x3000, static_cast<std::uint8_t>(source + 1), static_cast<std::int32_t>(word));
        }
    });
    return node;
}

/// The board itself, but for its bus.
class ScriptedShimBoard : private virtual velmor::kepla::log::Logger, public ShimBoardQ47 {
public:
    ScriptedShimBoard(std::shared_ptr<FakeCanOpenNode> aNode,
                      std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> const& aMaster,
                      std::shared_ptr<FakeDataLogger> const& aDataLogger,
                      std::shared_ptr<FakePeriodicCallers> const& aPeriodicCallers,
                      std::function<void()> aOnPrepare = {})
        : Logger("ShimBoardQ47(canID = " + std::to_string(aNode->nodeId()) + ")", "Shim")
        , ShimBoardQ47(aMaster, aNode->nodeId(), "/firmware", aDataLogger, aPeriodicCallers, nullptr)
        , mNode(std::move(aNode))
        , mOnPrepare(std::move(aOnPrepare)) {}

    std::shared_ptr<velmor::kepla::canopen::CanOpenNodeClientIfc> canopenClient() const override {
        return mNode;
    }
    void prepare() override {
        if (mOnPrepare) {
            mOnPrepare();
        }
        afterPrepare();
    }

private:
    std::shared_ptr<FakeCanOpenNode> mNode;
    std::function<void()> mOnPrepare;
};

/// The access that sets all currents.
inline std::string writing(std::vector<int> const& aCurrents) {
    std::string text = "writeBlock 3001:01 ";
    for (int const current : aCurrents) {
        auto const word = static_cast<std::uint32_t>(current);
        text += fmt::format("{:02X}{:02X}{:02X}{:02X}", word & 0xFFU, (word >> 8U) & 0xFFU,
                            (word >> 16U) & 0xFFU, word >> 24U);
    }
    return text;
}

/// The accesses that read the currents of all sources, behind those of aBefore.
inline std::vector<std::string> readingAll(std::vector<std::string> aBefore = {}) {
    for (std::size_t source = 1; source <= kSources; ++source) {
        aBefore.push_back(fmt::format("readInt32 3000:{:02X}", source));
    }
    return aBefore;
}

/// 17 currents of 0 uA but for the first ones.
inline std::vector<int> currents(std::vector<int> aFirst) {
    aFirst.resize(kSources, 0);
    return aFirst;
}

} // namespace libfieldwarden::test
