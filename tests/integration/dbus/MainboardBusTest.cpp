// SPDX-License-Identifier: Apache-2.0
// The client of the main board daemon on a real bus: what it says, and what becomes of it when others go.
#include "integration/dbus/FakeMainboardDaemon.h"
#include "support/DBusDaemon.h"
#include "support/ProcessResources.h"

#include <velmor/q47/mainboarddaemon/MainboardDBusClient.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::DBusDaemon;
using libfieldwarden::test::FakeMainboardDaemon;
using libfieldwarden::test::ProcessResources;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;
using velmor::q47::mainboarddaemon::MainboardDBusClient;
using Manner = FakeMainboardDaemon::Manner;

// The sanitizers' builds are slow: what is to be answered gets more time than the five seconds of the
// instrument.
constexpr seconds kLong{30};

template <typename Call>
void expectFailure(Call aCall,
                   DBusDaemon const& aBus,
                   std::string const& aMethod,
                   std::string const& aReason) {
    EXPECT_THAT(aCall, ThrowsMessage<std::runtime_error>(AllOf(HasSubstr(aBus.address()),
                                                               HasSubstr("com.velmor.q47.mainboarddaemon"),
                                                               HasSubstr(aMethod), HasSubstr(aReason))));
}

TEST(MainboardOnTheBus, CallsTheMethodOfEachOperation) {
    DBusDaemon const bus;
    FakeMainboardDaemon const daemon(bus.address(), Manner::Answers);
    MainboardDBusClient client(bus.address(), kLong);
    client.setStatusLed(4);
    client.setTxEnable(1, true);
    EXPECT_EQ(client.txFrequencyWord(1), 0x40000000U);
    client.setTxFrequencyWord(1, 0xFFFFFFFFU); // 2^32 - 1 = 4294967295
    client.setTxAmplitudeWord(2047);
    EXPECT_THAT(
        daemon.calls(),
        ElementsAre("SetStatusLed(4,)", "SetTxEnable(uint32 1, true)", "TxFrequencyWord(uint32 1,)",
                    "SetTxFrequencyWord(uint32 1, uint32 4294967295)", "SetTxAmplitudeWord(uint32 2047,)"));
}

TEST(MainboardOnTheBus, NamesWhatFailsWhenTheDaemonIsAbsent) {
    DBusDaemon const bus;
    MainboardDBusClient client(bus.address(), kLong);
    expectFailure([&] { client.txFrequencyWord(1); }, bus, "TxFrequencyWord", "ServiceUnknown");
}

TEST(MainboardOnTheBus, PassesOnTheWordsOfADaemonThatRefuses) {
    DBusDaemon const bus;
    FakeMainboardDaemon const daemon(bus.address(), Manner::Refuses);
    MainboardDBusClient client(bus.address(), kLong);
    expectFailure([&] { client.setTxEnable(1, false); }, bus, "SetTxEnable", "the transmitter is on fire");
    expectFailure([&] { client.txFrequencyWord(1); }, bus, "TxFrequencyWord", "the transmitter is on fire");
    EXPECT_EQ(daemon.calls().size(), 2U) << "a refused call must not be made again";
}

TEST(MainboardOnTheBus, GivesUpADaemonThatNeverAnswers) {
    DBusDaemon const bus;
    {
        FakeMainboardDaemon const daemon(bus.address(), Manner::StaysSilent);
        MainboardDBusClient client(bus.address(), milliseconds(200));
        expectFailure([&] { client.setStatusLed(4); }, bus, "SetStatusLed", "no answer within 200 ms");
        expectFailure([&] { client.setStatusLed(4); }, bus, "SetStatusLed", "no answer within 200 ms");
    }
}

TEST(MainboardOnTheBus, FindsTheDaemonAgainAfterItsRestart) {
    DBusDaemon const bus;
    MainboardDBusClient client(bus.address(), kLong);
    {
        FakeMainboardDaemon const daemon(bus.address(), Manner::Answers);
        EXPECT_NO_THROW(client.setStatusLed(4));
    }
    EXPECT_THROW(client.setStatusLed(4), std::runtime_error);
    FakeMainboardDaemon const daemon(bus.address(), Manner::Answers);
    client.setStatusLed(4);
    EXPECT_THAT(daemon.calls(), ElementsAre("SetStatusLed(4,)"));
}

TEST(MainboardOnTheBus, ConnectsAnewAfterTheBusHasGone) {
    DBusDaemon bus;
    std::optional<FakeMainboardDaemon> daemon(std::in_place, bus.address(), Manner::Answers);
    MainboardDBusClient client(bus.address(), kLong);
    EXPECT_EQ(client.txFrequencyWord(1), 0x40000000U);

    bus.stop();
    expectFailure([&] { client.txFrequencyWord(1); }, bus, "TxFrequencyWord", "Cannot connect");
    daemon.reset();

    bus.start();
    daemon.emplace(bus.address(), Manner::Answers);
    EXPECT_EQ(client.txFrequencyWord(1), 0x40000000U);
}

TEST(MainboardOnTheBus, DoesNotMissACallWhenTheBusWasReplacedInBetween) {
    DBusDaemon bus;
    std::optional<FakeMainboardDaemon> daemon(std::in_place, bus.address(), Manner::Answers);
    MainboardDBusClient client(bus.address(), kLong);
    client.setStatusLed(4);

    bus.stop();
    daemon.reset();
    bus.start();
    daemon.emplace(bus.address(), Manner::Answers);
    client.setStatusLed(4);
    EXPECT_THAT(daemon->calls(), ElementsAre("SetStatusLed(4,)"));
}

TEST(MainboardOnTheBus, ServesSeveralThreadsInTurn) {
    DBusDaemon const bus;
    FakeMainboardDaemon const daemon(bus.address(), Manner::Answers);
    MainboardDBusClient client(bus.address(), kLong);
    std::atomic<int> wrong = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                for (int call = 0; call < 25; ++call) {
                    wrong += client.txFrequencyWord(1) == 0x40000000U ? 0 : 1;
                }
            });
        }
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(daemon.calls().size(), 100U); // 4 threads, 25 calls each
}

TEST(MainboardOnTheBus, LeavesNothingBehind) {
    DBusDaemon bus;
    FakeMainboardDaemon const daemon(bus.address(), Manner::Answers);
    auto const openAndClose = [&] {
        MainboardDBusClient client(bus.address(), kLong);
        client.setStatusLed(4);
    };
    openAndClose();
    auto const before = ProcessResources::now();
    for (int i = 0; i < 50; ++i) {
        openAndClose();
    }
    EXPECT_TRUE(ProcessResources::settledTo(before).isNotAbove(before));
}

} // namespace
