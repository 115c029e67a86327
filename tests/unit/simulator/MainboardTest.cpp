// SPDX-License-Identifier: Apache-2.0
// The simulated main board.
#include "simulator/mainboard/Mainboard.h"

#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::Mainboard;

TEST(SimulatedMainboard, StartsDarkAndSilent) {
    Mainboard const board;
    EXPECT_EQ(board.statusLed(), 0);
    EXPECT_EQ(board.txAmplitudeWord(), 0U);
    for (unsigned int channel = 0; channel < Mainboard::kTxChannels; ++channel) {
        EXPECT_FALSE(board.txChannel(channel).enabled);
        EXPECT_EQ(board.txChannel(channel).frequencyWord, 0U);
    }
}

TEST(SimulatedMainboard, KeepsWhatIsSetForEachChannel) {
    Mainboard board;
    board.setStatusLed(4);
    board.setTxEnable(1, true);
    board.setTxFrequencyWord(1, 0xFFFFFFFFU);
    board.setTxAmplitudeWord(1234);
    EXPECT_EQ(board.statusLed(), 4);
    EXPECT_TRUE(board.txChannel(1).enabled);
    EXPECT_EQ(board.txFrequencyWord(1), 0xFFFFFFFFU);
    EXPECT_EQ(board.txAmplitudeWord(), 1234U);
    EXPECT_FALSE(board.txChannel(0).enabled);
    EXPECT_EQ(board.txFrequencyWord(0), 0U);
}

TEST(SimulatedMainboard, RefusesAChannelThatItDoesNotHave) {
    Mainboard board;
    EXPECT_THAT([&] { board.setTxEnable(2, true); },
                testing::ThrowsMessage<std::runtime_error>("The main board has no transmitter channel 2"));
    EXPECT_THROW(board.txFrequencyWord(2), std::runtime_error);
    EXPECT_THROW(board.setTxFrequencyWord(2, 1), std::runtime_error);
}

} // namespace
