// SPDX-License-Identifier: Apache-2.0
// State machine, poll and users at the gas at once.
#include "unit/at/FlowControllerRig.h"

#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using libfieldwarden::test::FlowControllerRig;

constexpr int kRounds = 200;

class FlowControllerThreadsTest : public FlowControllerRig {};

TEST_F(FlowControllerThreadsTest, ServesAllWhoAskAtOnce) {
    auto const controller = makePolled<AtFlowBoxV2>();
    std::vector<std::thread> callers;
    auto const repeat = [&callers](std::function<void(int)> aWhat) {
        callers.emplace_back([what = std::move(aWhat)] {
            for (int round = 0; round < kRounds; ++round) {
                what(round);
            }
        });
    };
    repeat([&](int aRound) {
        EXPECT_TRUE(controller->setFlowFromSM(static_cast<unsigned char>(aRound % 4), true));
    });
    repeat([&](int /*aRound*/) { controller->pollATFlowBox(); });
    repeat([&](int aRound) {
        if (aRound % 2 == 0) {
            controller->setFlowByUser(200.0 * (aRound % 4));
        } else {
            controller->resetFlowFromUser();
        }
    });
    repeat([&](int aRound) {
        controller->setStrictMode(aRound % 2 == 0);
        controller->setFlowFromSMSampleExchange(1, true);
    });
    repeat([&](int /*aRound*/) {
        EXPECT_LE(controller->actualFlowIndex().first, 3);
        EXPECT_LE(controller->getActualFlow(), 600.0);
        EXPECT_LE(controller->userDefinedFlow().second, 3);
        EXPECT_NE(controller->state(), FlowController::FlowState::Error);
    });
    for (std::thread& caller : callers) {
        caller.join();
    }
    controller->resetFlowFromUser();
    EXPECT_TRUE(controller->setFlowFromSM(2, true));
    EXPECT_EQ(controller->actualFlowIndex(), (std::pair<unsigned char, bool>(2, true)));
    controller->pollATFlowBox();
    EXPECT_EQ(controller->state(), FlowController::FlowState::ControlledByFSM);
}

} // namespace
