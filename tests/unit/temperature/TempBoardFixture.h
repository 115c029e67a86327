// SPDX-License-Identifier: Apache-2.0
// The temperature board on a scripted object dictionary.
#pragma once

#include "temperature/TempBoardQ47.h"

#include "support/ExpectThrow.h"
#include "support/FakeCanOpenNode.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/SilentMaster.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// The board itself, but for its bus.
class ScriptedTempBoard : private virtual velmor::kepla::log::Logger, public TempBoardQ47 {
public:
    ScriptedTempBoard(std::shared_ptr<FakeCanOpenNode> aNode,
                      std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> const& aMaster)
        : Logger("TempBoardQ47(canID = " + std::to_string(aNode->nodeId()) + ")", "Temperature")
        , TempBoardQ47(aMaster, nullptr, "/firmware", aNode->nodeId())
        , mNode(std::move(aNode)) {}

    std::shared_ptr<velmor::kepla::canopen::CanOpenNodeClientIfc> canopenClient() const override {
        return mNode;
    }

private:
    std::shared_ptr<FakeCanOpenNode> mNode;
};

/// A board whose dictionary is empty but for what the test puts there.
class TempBoardTest : public testing::Test {
protected:
    TempBoardTest() { mLog.clear(); }

    /// The board with its VT mode known, so that a test sees only what it asks for.
    void know(VTMode aMode) {
        mBoard->setVTMode(aMode);
        mNode->takeCalls();
        mLog.clear();
    }

    std::vector<std::string> calls() { return mNode->takeCalls(); }

    /// The lines since the last question.
    std::vector<CapturedLine> lines() {
        auto all = mLog.linesOf("TempBoardQ47(canID = 7)");
        mLog.clear();
        return all;
    }

    /// First, so that it waits on the machine's clock and not on the one of the test.
    std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> mMaster = makeSilentMaster();
    HandClockScope mClock;
    LogCapture mLog;
    std::shared_ptr<FakeCanOpenNode> mNode = std::make_shared<FakeCanOpenNode>(static_cast<unsigned char>(7));
    std::shared_ptr<ScriptedTempBoard> mBoard = std::make_shared<ScriptedTempBoard>(mNode, mMaster);
};

} // namespace libfieldwarden::test
