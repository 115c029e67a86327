// SPDX-License-Identifier: Apache-2.0
// Packets out of a DMA device, one a call and in the background.
#include "lock/hardware/LockStreamPacketReader.h"

#include "support/Eventually.h"
#include "support/FakeStreamDevice.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/ProcessResources.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::eventually;
using libfieldwarden::test::FakeSeqlockDriver;
using libfieldwarden::test::FakeStream;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::ProcessResources;
using libfieldwarden::test::Severity;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ThrowsMessage;
using Fault = FakeStream::Fault;
using Packet = LockStreamPacketReader::Packet;

namespace {

constexpr char const* kDevice = "/dev/lock_dma_pid";

CapturedLine line(Severity aSeverity, std::string aText) {
    return {aSeverity, std::move(aText), {}, {}};
}

Packet bytes(std::size_t aCount, unsigned char aFirst = 0) {
    Packet packet(aCount);
    std::iota(packet.begin(), packet.end(), aFirst);
    return packet;
}

class LockStreamPacketReaderTest : public testing::Test {
protected:
    LockStreamPacketReaderTest() {
        // Waits pass at once, but the clock tells that they took their time.
        mStream->onWait([this](seconds aTimeout) {
            mClock->advance(aTimeout);
            return 0;
        });
    }

    LockStreamPacketReader makeSingle(unsigned int aSize = 16) { return {kDevice, aSize, mDriver}; }

    std::vector<CapturedLine> lines() const {
        return mLog.linesOf("LockStreamPacketReader on /dev/lock_dma_pid");
    }

    HandClockScope mClock;
    LogCapture mLog;
    std::shared_ptr<FakeSeqlockDriver> mDriver = std::make_shared<FakeSeqlockDriver>();
    std::shared_ptr<FakeStream> mStream = mDriver->stream(kDevice);
};

// ----------------------------------------------------------------------------------------------- opening

TEST_F(LockStreamPacketReaderTest, OpensTheDeviceInPacketModeAndClosesIt) {
    {
        auto const reader = makeSingle();
        EXPECT_EQ(mStream->openDevices(), 1U);
        EXPECT_THAT(mStream->journal(), ElementsAre("packet mode 1"));
    }
    EXPECT_EQ(mStream->openDevices(), 0U);
}

TEST_F(LockStreamPacketReaderTest, TellsOfADeviceThatCannotBeOpened) {
    EXPECT_THAT([this] { LockStreamPacketReader("/dev/missing", 16, mDriver); },
                ThrowsMessage<std::runtime_error>("Failed to open input file"));
    EXPECT_THAT(mLog.linesOf("LockStreamPacketReader on /dev/missing"),
                ElementsAre(line(Severity::Error,
                                 "Failed to open input file '/dev/missing' with error 2"))); // ENOENT
    EXPECT_EQ(mLog.lines().front().category, "Lock");
}

TEST_F(LockStreamPacketReaderTest, TellsOfADeviceWithoutPacketsAndClosesIt) {
    mStream->fail(Fault::PacketMode, ENOTTY);
    EXPECT_THAT([this] { makeSingle(); },
                ThrowsMessage<std::runtime_error>("Failed to enable packet mode on input file"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Error,
                                          "Failed to enable packet mode on input file '/dev/lock_dma_pid', "
                                          "error was 25"))); // ENOTTY
    EXPECT_EQ(mStream->openDevices(), 0U);
}

// ------------------------------------------------------------------------------------------- single packets

TEST_F(LockStreamPacketReaderTest, ReadsAPacketOfTheExpectedSizeWithoutGrowing) {
    auto reader = makeSingle(16);
    mStream->add(bytes(16));
    mLog.clear();
    EXPECT_EQ(*reader.readSingle(seconds(30)), bytes(16));
    // 16 bytes into 17, and the end into the one that is left.
    EXPECT_THAT(mStream->journal(), ElementsAre("packet mode 1", "next packet", "read 17", "read 1"));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Trace, "read returned 16"), line(Severity::Trace, "read 16 bytes"),
                            line(Severity::Trace, "read returned 0"),
                            line(Severity::Trace, "got a buffer of 16 bytes, processing it")));
}

TEST_F(LockStreamPacketReaderTest, DoublesTheBufferOnceForTwoBytesMore) {
    auto reader = makeSingle(16);
    mStream->add(bytes(18));
    mLog.clear();
    EXPECT_EQ(*reader.readSingle(seconds(30)), bytes(18));
    // 17 bytes fill the buffer; 34 - 17 = 17 are free then, one of which is taken.
    EXPECT_THAT(mStream->journal(),
                ElementsAre("packet mode 1", "next packet", "read 17", "read 17", "read 16"));
    EXPECT_EQ(mLog.count(Severity::Trace, "increased packet read buffer"), 1U);
}

TEST_F(LockStreamPacketReaderTest, ReadsAPacketThatComesByteByByte) {
    auto reader = makeSingle(3);
    mStream->limitReads(1);
    mStream->add(bytes(100));
    EXPECT_EQ(*reader.readSingle(seconds(30)), bytes(100));
}

TEST_F(LockStreamPacketReaderTest, ReadsAnEmptyPacket) {
    auto reader = makeSingle(0);
    mStream->add({});
    EXPECT_THAT(*reader.readSingle(seconds(30)), IsEmpty());
}

TEST_F(LockStreamPacketReaderTest, ReadsOnePacketAfterTheOther) {
    auto reader = makeSingle();
    mStream->add(bytes(16, 1));
    mStream->add(bytes(8, 100));
    EXPECT_EQ(*reader.readSingle(seconds(30)), bytes(16, 1));
    EXPECT_EQ(*reader.readSingle(seconds(30)), bytes(8, 100));
}

TEST_F(LockStreamPacketReaderTest, WaitsForDataThatAreNotThereYet) {
    auto reader = makeSingle();
    mStream->onWait([this](seconds aTimeout) {
        mClock->advance(aTimeout);
        mStream->add(bytes(16));
        return 1;
    });
    mLog.clear();
    EXPECT_EQ(*reader.readSingle(seconds(30)), bytes(16));
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Trace, "read returned -1"), line(Severity::Trace, "+waitForData"),
                            line(Severity::Trace, "~waitForData: gotIt = 1"),
                            line(Severity::Trace, "read returned 16"), line(Severity::Trace, "read 16 bytes"),
                            line(Severity::Trace, "read returned 0"),
                            line(Severity::Trace, "got a buffer of 16 bytes, processing it")));
}

TEST_F(LockStreamPacketReaderTest, GivesASilentDeviceUpWhenTheTimeIsUp) {
    auto reader = makeSingle();
    auto const begin = mClock->now();
    mLog.clear();
    EXPECT_THAT([&] { reader.readSingle(seconds(30)); },
                ThrowsMessage<std::runtime_error>("Failed to read data"));
    EXPECT_EQ(mClock->now() - begin, seconds(30));
    EXPECT_THAT(
        mLog.linesUpTo(Severity::Debug),
        ElementsAre(line(Severity::Warning,
                         "Timed out while reading packet, end of packet not reached. Read 0 bytes.")));
    EXPECT_TRUE(mLog.has(Severity::Trace, "~waitForData: gotIt = 0")); // no error in itself
}

TEST_F(LockStreamPacketReaderTest, SaysHowMuchOfACutPacketCame) {
    auto reader = makeSingle();
    mStream->add(bytes(5), false);
    EXPECT_THAT([&] { reader.readSingle(seconds(2)); },
                ThrowsMessage<std::runtime_error>("Failed to read data"));
    EXPECT_TRUE(mLog.has(Severity::Warning,
                         "Timed out while reading packet, end of packet not reached. Read 5 bytes."));
}

TEST_F(LockStreamPacketReaderTest, FailsAtOnceWhenThereIsNoTime) {
    auto reader = makeSingle();
    mStream->add(bytes(16));
    EXPECT_THAT([&] { reader.readSingle(seconds(0)); },
                ThrowsMessage<std::runtime_error>("Failed to read data"));
    EXPECT_TRUE(mLog.has(Severity::Warning,
                         "Timed out while reading packet, end of packet not reached. Read 0 bytes."));
    EXPECT_THAT(mStream->journal(), ElementsAre("packet mode 1", "next packet"));
}

TEST_F(LockStreamPacketReaderTest, GivesAPacketUpThatHasMoreThan64MiB) {
    auto reader = makeSingle(16);
    // Were it not for the size, the time would be up after 25 reads.
    mStream->deliverForEver([this] { mClock->advance(std::chrono::milliseconds(1200)); });
    mLog.clear();
    EXPECT_THAT([&] { reader.readSingle(seconds(30)); },
                ThrowsMessage<std::runtime_error>("Failed to read data"));
    EXPECT_THAT(mLog.linesUpTo(Severity::Debug),
                ElementsAre(line(Severity::Warning,
                                 "Timed out while reading packet, end of packet not reached. Read "
                                 "67108864 bytes."))); // 64 * 1024 * 1024
    // 17 bytes, doubled 21 times: 17 * 2^21 = 35,651,584. Then 67,108,864 - 35,651,584 = 31,457,280 are left.
    auto const journal = mStream->journal();
    ASSERT_EQ(journal.size(), 2U + 23U);
    EXPECT_EQ(journal[2], "read 17");
    EXPECT_EQ(journal[23], "read 17825792"); // 17 * 2^20: the buffer has 17 * 2^21
    EXPECT_EQ(journal[24], "read 31457280");
}

TEST_F(LockStreamPacketReaderTest, TellsOfADeviceThatDoesNotStepOn) {
    auto reader = makeSingle();
    mStream->fail(Fault::NextPacket, EIO);
    mLog.clear();
    EXPECT_THAT([&] { reader.readSingle(seconds(30)); },
                ThrowsMessage<std::runtime_error>("Failed to switch to next packet"));
    EXPECT_THAT(lines(), ElementsAre(line(
                             Severity::Error,
                             "Failed to switch to next packet on file '/dev/lock_dma_pid' with error 5")));
}

TEST_F(LockStreamPacketReaderTest, TellsOfADeviceThatVanishes) {
    auto reader = makeSingle();
    mStream->fail(Fault::Read, ENODEV);
    mLog.clear();
    EXPECT_THAT([&] { reader.readSingle(seconds(30)); },
                ThrowsMessage<std::runtime_error>("Error while reading data from input. Error 19")); // ENODEV
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "read returned -1"),
                                     line(Severity::Error, "read failed with 19")));
}

TEST_F(LockStreamPacketReaderTest, TellsOfADeviceThatCannotBeWaitedFor) {
    auto reader = makeSingle();
    mStream->fail(Fault::Wait, EINTR);
    EXPECT_THAT([&] { reader.readSingle(seconds(30)); },
                ThrowsMessage<std::runtime_error>("Cannot wait for data: waiting failed"));
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "~waitForData: select call failed on /dev/lock_dma_pid with errno is 4")); // EINTR
}

TEST_F(LockStreamPacketReaderTest, EndsASingleReadWhenItIsToStop) {
    auto reader = makeSingle();
    mStream->onWait([&](seconds /*aTimeout*/) {
        reader.requestStop();
        return 0;
    });
    auto const begin = mClock->now();
    EXPECT_THAT([&] { reader.readSingle(seconds(30)); },
                ThrowsMessage<std::runtime_error>("Failed to read data"));
    EXPECT_THAT([&] { reader.readSingle(seconds(30)); },
                ThrowsMessage<std::runtime_error>("Failed to read data"));
    EXPECT_EQ(mClock->now(), begin);
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), IsEmpty());
}

// ------------------------------------------------------------------------------------------------- flushing

TEST_F(LockStreamPacketReaderTest, FlushReadsAnEmptyDeviceTwice) {
    auto reader = makeSingle();
    mLog.clear();
    reader.flush();
    EXPECT_THAT(mStream->journal(), ElementsAre("packet mode 1", "read 4096", "read 4096"));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "+flush"),
                                     line(Severity::Debug, "flush: no more packets to read, done"),
                                     line(Severity::Trace, "-flush")));
}

TEST_F(LockStreamPacketReaderTest, FlushThrowsAwayEveryPacketThatIsPending) {
    auto reader = makeSingle();
    mStream->add(bytes(16));
    mStream->add(bytes(10000));
    mStream->add({});
    mStream->add(bytes(3), false);
    reader.flush();
    mStream->add(bytes(2, 50)); // the rest of the last one
    mStream->add(bytes(16, 7));
    EXPECT_EQ(*reader.readSingle(seconds(30)), bytes(16, 7));
}

TEST_F(LockStreamPacketReaderTest, FlushGivesADeviceThatDeliversForEverUp) {
    auto reader = makeSingle();
    mStream->deliverForEver([this] { mClock->advance(seconds(1)); });
    auto const begin = mClock->now();
    mLog.clear();
    EXPECT_THAT([&] { reader.flush(); }, ThrowsMessage<std::runtime_error>("Could not flush data"));
    EXPECT_EQ(mClock->now() - begin, seconds(30));
    EXPECT_THAT(lines(), ElementsAre(line(Severity::Trace, "+flush"),
                                     line(Severity::Error,
                                          "Failed to flush input file '/dev/lock_dma_pid': still data after "
                                          "reading for 30 seconds")));
}

TEST_F(LockStreamPacketReaderTest, FlushFailsAtOnceWhenTheDeviceDoesNotStepOn) {
    auto reader = makeSingle();
    mStream->add(bytes(16));
    mStream->fail(Fault::NextPacket, EIO);
    auto const begin = mClock->now();
    mLog.clear();
    EXPECT_THAT([&] { reader.flush(); }, ThrowsMessage<std::runtime_error>("Could not flush data"));
    EXPECT_EQ(mClock->now(), begin);
    EXPECT_THAT(lines(),
                ElementsAre(line(Severity::Trace, "+flush"),
                            line(Severity::Warning,
                                 "flush: failed to switch to next packet, considered flushed.On file "
                                 "'/dev/lock_dma_pid' with error 5"),
                            line(Severity::Error,
                                 "Failed to flush input file '/dev/lock_dma_pid': still data after "
                                 "reading for 30 seconds")));
}

// --------------------------------------------------------------------------------------------- background

/// Collects packets.
class Collector {
public:
    LockStreamPacketReader::Processor processor() {
        return [this](std::unique_ptr<Packet> aPacket) {
            std::lock_guard const lock(mMutex);
            mPackets.push_back(std::move(*aPacket));
        };
    }
    std::vector<Packet> packets() {
        std::lock_guard const lock(mMutex);
        return mPackets;
    }

private:
    std::mutex mMutex;
    std::vector<Packet> mPackets;
};

/// The background on real time and a device that wakes at once.
class LockStreamPacketReaderThread : public testing::Test {
protected:
    LockStreamPacketReaderThread() { mStream->limitWaits(std::chrono::milliseconds(1)); }

    LogCapture mLog;
    std::shared_ptr<FakeSeqlockDriver> mDriver = std::make_shared<FakeSeqlockDriver>();
    std::shared_ptr<FakeStream> mStream = mDriver->stream(kDevice);
    Collector mCollector;
};

TEST_F(LockStreamPacketReaderThread, RefusesToReadSinglePackets) {
    LockStreamPacketReader reader(kDevice, 16, mCollector.processor(), mDriver);
    EXPECT_THAT(
        [&] { reader.readSingle(seconds(30)); },
        ThrowsMessage<std::logic_error>("Cannot read single packet: already running in background thread"));
}

TEST_F(LockStreamPacketReaderThread, HandsOverWhatComesAfterTheFlush) {
    mStream->add(bytes(16, 1)); // stale
    LockStreamPacketReader reader(kDevice, 16, mCollector.processor(), mDriver);
    mStream->awaitWaits(1);
    mStream->add(bytes(16, 2));
    mStream->add(bytes(16, 3));
    EXPECT_TRUE(eventually([&] { return mCollector.packets().size() == 2; }));
    EXPECT_THAT(mCollector.packets(), ElementsAre(bytes(16, 2), bytes(16, 3)));
    EXPECT_TRUE(mLog.has(Severity::Trace, "entering readerThread"));
    EXPECT_TRUE(mLog.has(Severity::Trace, "processing buffer"));
    EXPECT_TRUE(eventually([&] { return mLog.count(Severity::Trace, "processing completed") == 2; }));
}

TEST_F(LockStreamPacketReaderThread, LeavesNothingBehind) {
    auto const comeAndGo = [this] {
        LockStreamPacketReader const reader(kDevice, 16, mCollector.processor(), mDriver);
    };
    comeAndGo(); // The first thread of a process may bring one of the thread sanitizer's own.
    auto const before = ProcessResources::now();
    for (int round = 0; round < 20; ++round) {
        comeAndGo();
    }
    EXPECT_TRUE(ProcessResources::settledTo(before).isNotAbove(before));
    EXPECT_EQ(mStream->openDevices(), 0U);
    EXPECT_EQ(mLog.count(Severity::Trace, "leaving readerThread"), 21U);
}

TEST_F(LockStreamPacketReaderThread, GoesOnAfterACallbackThatThrows) {
    std::atomic<int> calls{0};
    LockStreamPacketReader reader(
        kDevice, 16,
        [&](std::unique_ptr<Packet> /*aPacket*/) {
            if (++calls == 2) {
                throw 7;
            }
            throw std::invalid_argument("not my taste");
        },
        mDriver);
    mStream->awaitWaits(1);
    mStream->add(bytes(16));
    mStream->awaitWaits(2);
    mStream->add(bytes(16));
    EXPECT_TRUE(eventually([&] { return calls == 2; }));
    EXPECT_TRUE(eventually([&] {
        return mLog.has(Severity::Error,
                        "Exception occurred while reading/processing a packet. "
                        "Exception was not my taste") &&
               mLog.has(Severity::Error,
                        "Exception occurred while reading/processing a packet. "
                        "Exception was of an unknown type");
    }));
}

TEST_F(LockStreamPacketReaderThread, GoesOnAfterADeviceThatFailedOnce) {
    mStream->fail(Fault::NextPacket, EIO, 1);
    LockStreamPacketReader reader(kDevice, 16, mCollector.processor(), mDriver);
    mStream->awaitWaits(1);
    mStream->add(bytes(16, 9));
    EXPECT_TRUE(eventually([&] { return !mCollector.packets().empty(); }));
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Exception occurred while reading/processing a packet. Exception "
                         "was Failed to switch to next packet"));
}

TEST_F(LockStreamPacketReaderThread, ToleratesNobodyToTakeThePackets) {
    LockStreamPacketReader reader(kDevice, 16, LockStreamPacketReader::Processor(), mDriver);
    mStream->awaitWaits(1);
    mStream->add(bytes(16));
    EXPECT_TRUE(eventually([&] { return mLog.has(Severity::Trace, "processing completed"); }));
}

TEST_F(LockStreamPacketReaderThread, LosesAndTearsNoPacketWhenSomebodyFlushesMeanwhile) {
    LockStreamPacketReader reader(kDevice, 64, mCollector.processor(), mDriver);
    mStream->limitReads(5);
    std::atomic<bool> done{false};
    std::thread feeder([&] {
        for (unsigned int round = 0; round < 500; ++round) {
            mStream->add(Packet(64, static_cast<unsigned char>(round)));
        }
        done = true;
    });
    while (!done) {
        reader.flush();
        std::this_thread::yield();
    }
    feeder.join();
    reader.flush();
    mStream->add(bytes(64, 1));
    EXPECT_TRUE(eventually([&] {
        auto const packets = mCollector.packets();
        return !packets.empty() && packets.back() == bytes(64, 1);
    }));
    for (Packet const& packet : mCollector.packets()) {
        ASSERT_EQ(packet.size(), 64U); // taken whole
        if (packet != bytes(64, 1)) {
            EXPECT_EQ(packet, Packet(64, packet.front()));
        }
    }
}

TEST_F(LockStreamPacketReaderThread, ForgetsTheHalfOfAPacketThatSomebodyFlushed) {
    LockStreamPacketReader reader(kDevice, 16, mCollector.processor(), mDriver);
    mStream->awaitWaits(1);
    mStream->add(bytes(5), false); // read, then waited for its rest
    mStream->awaitWaits(2);
    mStream->add(bytes(3, 5)); // may be read by either
    reader.flush();
    mStream->add(bytes(16, 42));
    EXPECT_TRUE(eventually(
        [&] { return !mCollector.packets().empty() && mCollector.packets().back() == bytes(16, 42); }));
    for (Packet const& packet : mCollector.packets()) {
        EXPECT_THAT(packet, testing::AnyOf(bytes(8), bytes(16, 42)));
    }
}

/// The background on a clock that is moved by hand.
class LockStreamPacketReaderOnHandClock : public testing::Test {
protected:
    std::size_t exceptions() const {
        return mLog.count(Severity::Error,
                          "Exception occurred while reading/processing a packet. Exception "
                          "was Failed to switch to next packet");
    }
    std::size_t refusals() const {
        return mLog.count(Severity::Error,
                          "Exception occurred while reading/processing a packet. Exception was too short");
    }
    /// Has every wait end at once with nothing, and take no time.
    void waitForNothing() {
        mStream->onWait([](seconds /*aTimeout*/) {
            std::this_thread::yield();
            return 0;
        });
    }
    /// Ends the wait under way, and with it the thread.
    void stop(LockStreamPacketReader& aReader) {
        mClock->awaitWaiters(1);
        aReader.requestStop();
        mClock->advance(seconds(1));
    }

    HandClockScope mClock;
    LogCapture mLog;
    std::shared_ptr<FakeSeqlockDriver> mDriver = std::make_shared<FakeSeqlockDriver>();
    std::shared_ptr<FakeStream> mStream = mDriver->stream(kDevice);
    Collector mCollector;
    /// Refuses packets that are too short.
    LockStreamPacketReader::Processor mPicky = [collect =
                                                    mCollector.processor()](std::unique_ptr<Packet> aPacket) {
        if (aPacket->size() < 16) {
            throw std::invalid_argument("too short");
        }
        collect(std::move(aPacket));
    };
};

TEST_F(LockStreamPacketReaderOnHandClock, TellsOfASilentDeviceEvery30Seconds) {
    LockStreamPacketReader reader(kDevice, 16, mCollector.processor(), mDriver);
    for (int second = 0; second < 60; ++second) {
        EXPECT_EQ(mClock->advanceToNextDeadline(), seconds(1));
    }
    mClock->awaitWaiters(1);
    EXPECT_EQ(mLog.count(Severity::Error,
                         "Exception occurred while reading/processing a packet. Exception "
                         "was Failed to read data"),
              2U);
    EXPECT_EQ(mLog.linesUpTo(Severity::Error).size(), 2U);
    reader.requestStop();
    mClock->advance(seconds(1)); // the wait under way ends, and with it the thread
}

TEST_F(LockStreamPacketReaderOnHandClock, TellsOfADeviceThatFailsAtOnceEvery30Seconds) {
    mStream->fail(Fault::NextPacket, EIO);
    LockStreamPacketReader reader(kDevice, 16, mCollector.processor(), mDriver);
    mClock->awaitWaiters(1);
    EXPECT_EQ(exceptions(), 2U); // tried again at once, then left alone
    mClock->advance(seconds(29));
    mClock->awaitWaiters(1);
    EXPECT_EQ(exceptions(), 2U);
    mClock->advance(seconds(1));
    EXPECT_TRUE(eventually([&] { return exceptions() == 3; }));
    mClock->awaitWaiters(1);
    EXPECT_EQ(exceptions(), 3U);
}

TEST_F(LockStreamPacketReaderOnHandClock, EndsAtOnceWhileADeviceIsLeftAlone) {
    mStream->fail(Fault::NextPacket, EIO);
    auto const begin = mClock->now();
    {
        LockStreamPacketReader const reader(kDevice, 16, mCollector.processor(), mDriver);
        mClock->awaitWaiters(1);
    }
    EXPECT_EQ(mClock->now(), begin);
}

TEST_F(LockStreamPacketReaderOnHandClock, EndsAtOnceBetweenPacketsThatTheCallbackRefuses) {
    waitForNothing();
    auto const begin = mClock->now();
    {
        LockStreamPacketReader const reader(kDevice, 16, mPicky, mDriver);
        mStream->awaitWaits(1);
        for (int packet = 0; packet < 1000; ++packet) {
            mStream->add({});
        }
    }
    EXPECT_EQ(mClock->now(), begin);
    EXPECT_EQ(mLog.count(Severity::Trace, "leaving readerThread"), 1U);
}

TEST_F(LockStreamPacketReaderOnHandClock, WorksPacketsOffAtOnceThoughTheCallbackRefusesSome) {
    auto const begin = mClock->now();
    LockStreamPacketReader reader(kDevice, 16, mPicky, mDriver);
    mClock->awaitWaiters(1);
    for (std::size_t const size : {15U, 0U, 8U, 0U, 1U}) {
        mStream->add(bytes(size));
    }
    mStream->add(bytes(16, 9));
    EXPECT_TRUE(eventually([&] { return !mCollector.packets().empty(); }));
    EXPECT_THAT(mCollector.packets(), ElementsAre(bytes(16, 9)));
    EXPECT_EQ(mClock->now(), begin);
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), testing::SizeIs(5));
    EXPECT_EQ(refusals(), 5U); // a line each
    stop(reader);
}

TEST_F(LockStreamPacketReaderOnHandClock, ReadsOnBehindABadPacketThatFollowsASilence) {
    LockStreamPacketReader reader(kDevice, 16, mPicky, mDriver);
    for (int second = 0; second < 30; ++second) {
        mClock->advanceToNextDeadline();
    }
    EXPECT_TRUE(eventually([&] {
        return mLog.has(Severity::Error,
                        "Exception occurred while reading/processing a packet. Exception was "
                        "Failed to read data");
    }));
    mClock->awaitWaiters(1);
    auto const begin = mClock->now();
    mStream->add(bytes(3));
    mStream->add(bytes(16, 9));
    EXPECT_TRUE(eventually([&] { return !mCollector.packets().empty(); }));
    EXPECT_EQ(mClock->now(), begin);
    EXPECT_EQ(refusals(), 1U);
    stop(reader);
}

TEST_F(LockStreamPacketReaderOnHandClock, ReadsOnBehindWaitsThatASignalInterrupted) {
    auto const begin = mClock->now();
    mStream->fail(Fault::Wait, EINTR, 3);
    LockStreamPacketReader reader(kDevice, 16, mPicky, mDriver);
    EXPECT_TRUE(eventually([&] {
        return mLog.count(Severity::Error,
                          "Exception occurred while reading/processing a packet. Exception was "
                          "Cannot wait for data: waiting failed") == 3U;
    }));
    mStream->add(bytes(16, 9));
    EXPECT_TRUE(eventually([&] { return !mCollector.packets().empty(); }));
    EXPECT_EQ(mClock->now(), begin);
    stop(reader);
}

TEST_F(LockStreamPacketReaderOnHandClock, LeavesADeviceAloneThatCannotBeWaitedFor) {
    mStream->fail(Fault::Wait, EIO);
    LockStreamPacketReader reader(kDevice, 16, mPicky, mDriver);
    mClock->awaitWaiters(1);
    EXPECT_EQ(mLog.count(Severity::Error,
                         "~waitForData: select call failed on /dev/lock_dma_pid with errno is 5"), // EIO
              2U);
}

TEST_F(LockStreamPacketReaderOnHandClock, LeavesADeviceAloneThatDoesNotEndItsPackets) {
    auto const begin = mClock->now();
    {
        LockStreamPacketReader const reader(kDevice, 16, mPicky, mDriver);
        mClock->awaitWaiters(1);
        mStream->deliverForEver([] {});
        mStream->add({}); // ends the wait
        std::string const words =
            "Timed out while reading packet, end of packet not reached. Read 67108864 "
            "bytes.";
        EXPECT_TRUE(eventually([&] { return mLog.count(Severity::Warning, words) == 2U; }));
        mClock->awaitWaiters(1);                                 // at rest
        EXPECT_EQ(mLog.linesUpTo(Severity::Warning).size(), 4U); // and the exception, twice
    }
    EXPECT_EQ(mClock->now(), begin);
}

TEST_F(LockStreamPacketReaderOnHandClock, EndsAPacketWithoutAnEndWhenItIsToStop) {
    waitForNothing();
    auto const begin = mClock->now();
    {
        LockStreamPacketReader const reader(kDevice, 16, mPicky, mDriver);
        mStream->awaitWaits(1);
        mStream->limitReads(1); // byte by byte it would take long
        mStream->add(Packet(1000000), false);
    }
    EXPECT_EQ(mClock->now(), begin);
}

TEST_F(LockStreamPacketReaderOnHandClock, ReadsPacketsThoughItsFirstFlushFailed) {
    mStream->add(bytes(16)); // stale, and the device does not step on from it
    mStream->fail(Fault::NextPacket, EIO, 1);
    LockStreamPacketReader reader(kDevice, 16, mPicky, mDriver);
    mClock->awaitWaiters(1);
    EXPECT_EQ(mLog.count(Severity::Error,
                         "Exception occurred while reading/processing a packet. Exception was "
                         "Could not flush data"),
              1U);
    mStream->add(bytes(3));
    mStream->add(bytes(16, 9));
    EXPECT_TRUE(eventually([&] { return !mCollector.packets().empty(); }));
    EXPECT_THAT(mCollector.packets(), ElementsAre(bytes(16, 9)));
    stop(reader);
}

TEST_F(LockStreamPacketReaderOnHandClock, LetsAFlushInThoughThePacketsNeverEnd) {
    LockStreamPacketReader reader(kDevice, 16, mPicky, mDriver);
    mClock->awaitWaiters(1);
    mStream->deliverForEver([this] { mClock->advance(seconds(10)); }); // the time is up before the size is
    mStream->add({});                                                  // ends the wait
    EXPECT_THAT([&] { reader.flush(); }, ThrowsMessage<std::runtime_error>("Could not flush data"));
}

TEST_F(LockStreamPacketReaderOnHandClock, LivesThroughAFlushThatFails) {
    mStream->deliverForEver([&] { mClock->advance(seconds(10)); });
    LockStreamPacketReader reader(kDevice, 16, mCollector.processor(), mDriver);
    EXPECT_TRUE(eventually([&] {
        return mLog.has(Severity::Error,
                        "Exception occurred while reading/processing a packet. Exception was "
                        "Could not flush data");
    }));
}

} // namespace
