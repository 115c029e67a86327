// SPDX-License-Identifier: Apache-2.0
// Whose main board the factory hands out.
#include "support/FakeBackend.h"

#include <velmor/q47/mainboarddaemon/MainboardClientFactory.h>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::FakeBackendScope;
using velmor::q47::mainboarddaemon::MainboardClientFactory;
using velmor::q47::mainboarddaemon::MainboardInterface;
using velmor::q47::mainboarddaemon::StatusLedColour;

class SilentMainboard : public MainboardInterface {
public:
    void setStatusLed(int) override {}
    void setTxEnable(unsigned int, bool) override {}
    std::uint32_t txFrequencyWord(unsigned int) override { return 0; }
    void setTxFrequencyWord(unsigned int, std::uint32_t) override {}
    void setTxAmplitudeWord(std::uint32_t) override {}
};

TEST(MainboardClientFactory, HandsOutTheBackendsMainboard) {
    FakeBackendScope const backend;
    auto mainboard = std::make_shared<SilentMainboard>();
    backend->mainboardDoor = [&] { return mainboard; };
    EXPECT_EQ(MainboardClientFactory().mainboardClient(), mainboard);
}

TEST(MainboardClientFactory, TouchesNothingWhenMade) {
    FakeBackendScope const backend;
    EXPECT_NO_THROW(MainboardClientFactory());
    EXPECT_THROW(MainboardClientFactory().mainboardClient(), std::logic_error);
}

TEST(StatusLedColour, NumbersBlueAsTheBoardDoes) {
    EXPECT_EQ(int{StatusLedColour::blue}, 4);
}

} // namespace
