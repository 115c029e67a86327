// SPDX-License-Identifier: Apache-2.0
// The PID stream: its records, its queue, and the way from the device.
#include "lock/hardware/LockPIDDataStream.h"

#include "lock/hardware/PidRecord.h"
#include "support/Eventually.h"
#include "support/FakeLockHardware.h"
#include "support/FakeStreamDevice.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/VirtualOrder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <rapidcheck/gtest.h>

using libfieldwarden::lock::decodePidRecord;
using libfieldwarden::lock::PidRecord;
using libfieldwarden::test::eventually;
using libfieldwarden::test::FakeLockHardware;
using libfieldwarden::test::FakeSeqlockDriver;
using libfieldwarden::test::FakeStream;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::Severity;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::ThrowsMessage;

namespace {

using Wire = std::array<unsigned char, PidRecord::kSize>;

/// A record of which only some bytes matter.
PidRecord decoded(std::size_t aOffset, std::vector<unsigned char> const& aBytes, unsigned char aRest = 0) {
    Wire wire;
    wire.fill(aRest);
    std::copy(aBytes.begin(), aBytes.end(), wire.begin() + static_cast<std::ptrdiff_t>(aOffset));
    return decodePidRecord(wire.data());
}

// ------------------------------------------------------------------------------------------------ decoding

TEST(PidRecord, DoesNotLookAtTheReservedByte) {
    PidRecord const record = decoded(0, {0xFF});
    EXPECT_EQ(record.phase, 0.0);
    EXPECT_EQ(record.pidDataIn, 0);
    EXPECT_EQ(record.pidDataOut, 0);
    EXPECT_EQ(record.maxSlice, 0);
}

TEST(PidRecord, TakesThePhaseAsFixedPointWith29FractionBits) {
    EXPECT_EQ(decoded(1, {0x00, 0x00, 0x00, 0x20}).phase, 1.0);  // 2^29 / 2^29
    EXPECT_EQ(decoded(1, {0x00, 0x00, 0x00, 0xE0}).phase, -1.0); // -2^29 / 2^29
    EXPECT_EQ(decoded(1, {0x00, 0x00, 0x00, 0x80}).phase, -4.0); // -2^31 / 2^29
    EXPECT_EQ(decoded(1, {0x01, 0x00, 0x00, 0x00}).phase, 1.0 / 536870912.0);
    EXPECT_EQ(decoded(1, {0x00, 0x00, 0x01, 0x00}).phase, 0.0001220703125); // 2^16 / 2^29 = 2^-13
}

TEST(PidRecord, TakesTheInputAsTheHardwarePacksIt) {
    EXPECT_EQ(decoded(5, {0, 0, 0, 0, 0, 5}).pidDataIn, 5);
    EXPECT_EQ(decoded(5, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}).pidDataIn, -1);
    EXPECT_EQ(decoded(5, {0, 0, 0x12, 0x34, 0x56, 0x78}).pidDataIn, 0x12345678);
    // Bytes 6 and 7 share a position: (1 | 2) << 24 = 50331648.
    EXPECT_EQ(decoded(5, {0, 1, 2, 0, 0, 0}).pidDataIn, 50331648);
    EXPECT_EQ(decoded(5, {0, 1, 0, 0, 0, 0}).pidDataIn, 16777216);
    // Bit 31 is the sign: -2^31.
    EXPECT_EQ(decoded(5, {0, 0, 0x80, 0, 0, 0}).pidDataIn, -2147483648LL);
    EXPECT_EQ(decoded(5, {0, 0x80, 0, 0, 0, 0}).pidDataIn, -2147483648LL);
    // Byte 5 adds bits 32 to 39: 1 * 2^32, 127 * 2^32, 128 * 2^32.
    EXPECT_EQ(decoded(5, {0x01, 0, 0, 0, 0, 0}).pidDataIn, 4294967296LL);
    EXPECT_EQ(decoded(5, {0x7F, 0, 0, 0, 0, 0}).pidDataIn, 545460846592LL);
    EXPECT_EQ(decoded(5, {0x80, 0, 0, 0, 0, 0}).pidDataIn, 549755813888LL);
    // Where the sign is set already, it adds nothing.
    EXPECT_EQ(decoded(5, {0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}).pidDataIn, -2);
}

TEST(PidRecord, TakesTheOutputAs24BitsWithSign) {
    EXPECT_EQ(decoded(11, {0xFF, 0xFF, 0xFF}).pidDataOut, -1);
    EXPECT_EQ(decoded(11, {0x7F, 0xFF, 0xFF}).pidDataOut, 8388607);
    EXPECT_EQ(decoded(11, {0x80, 0x00, 0x00}).pidDataOut, -8388608);
    EXPECT_EQ(decoded(11, {0x01, 0x02, 0x03}).pidDataOut, 66051); // 1 * 65536 + 2 * 256 + 3
}

TEST(PidRecord, TakesTheSliceAs16BitsWithoutSign) {
    EXPECT_EQ(decoded(14, {0x01, 0x02}).maxSlice, 258);
    EXPECT_EQ(decoded(14, {0xFF, 0xFF}).maxSlice, 65535);
}

TEST(PidRecord, KeepsItsFieldsApart) {
    PidRecord const record = decoded(11, {0x00, 0x00, 0x00}, 0xFF);
    EXPECT_EQ(record.phase, -1.0 / 536870912.0);
    EXPECT_EQ(record.pidDataIn, -1);
    EXPECT_EQ(record.pidDataOut, 0);
    EXPECT_EQ(record.maxSlice, 65535);
}

/// The rules for the input, step by step on whole words.
long long inputByTheRules(Wire const& aWire) {
    std::uint32_t const word = (std::uint32_t{aWire[6]} | std::uint32_t{aWire[7]}) << 24U |
                               std::uint32_t{aWire[8]} << 16U | std::uint32_t{aWire[9]} << 8U | aWire[10];
    std::uint64_t whole = word;
    if ((word & 0x80000000U) != 0) {
        whole |= 0xFFFFFFFF00000000U;
    }
    whole |= std::uint64_t{aWire[5]} << 32U;
    std::uint64_t const low48 = whole & 0xFFFFFFFFFFFFU;
    return static_cast<long long>(low48) - ((low48 >> 47U) != 0 ? 1LL << 48U : 0);
}

RC_GTEST_PROP(PidRecord, DecodesAnyBytesByTheRules, ()) {
    auto const wire = *rc::gen::container<Wire>(rc::gen::arbitrary<unsigned char>());
    PidRecord const record = decodePidRecord(wire.data());
    RC_ASSERT(record.pidDataIn == inputByTheRules(wire));
    int const out = wire[11] * 65536 + wire[12] * 256 + wire[13];
    RC_ASSERT(record.pidDataOut == (out >= 8388608 ? out - 16777216 : out));
    RC_ASSERT(record.maxSlice == wire[14] * 256 + wire[15]);
}

// --------------------------------------------------------------------------------------------- the stream

TEST(LockPIDStreamIfc, KeepsItsOrder) {
    using I = LockPIDStreamIfc;
    // The destructor stands behind the operations here, so they begin at the first slot.
    using libfieldwarden::test::row;
    std::vector<libfieldwarden::test::Operation> const operations{
        row<void()>("start", &I::start),
        row<void()>("stop", &I::stop),
        row<bool(std::unique_ptr<LockStreamPIDData>&, std::chrono::duration<double>)>("dequeueWait",
                                                                                      &I::dequeueWait),
    };
    for (std::size_t index = 0; index < operations.size(); ++index) {
        EXPECT_EQ(operations[index].slot, index) << operations[index].name;
    }
}

/// A record with a slice to know it by.
std::vector<unsigned char> recordOf(std::uint16_t aSlice) {
    std::vector<unsigned char> wire(PidRecord::kSize);
    wire[14] = static_cast<unsigned char>(aSlice >> 8U);
    wire[15] = static_cast<unsigned char>(aSlice & 0xFFU);
    return wire;
}

class LockPIDDataStreamTest : public testing::Test {
protected:
    LockPIDDataStreamTest() { mDevice->limitWaits(std::chrono::milliseconds(1)); }

    /// Sends a packet of records, the slices counted from aFirst, and a tail.
    void send(std::uint16_t aFirst, std::size_t aCount, std::size_t aTail = 0) {
        std::vector<unsigned char> packet;
        for (std::size_t record = 0; record < aCount; ++record) {
            auto const wire = recordOf(static_cast<std::uint16_t>(aFirst + record));
            packet.insert(packet.end(), wire.begin(), wire.end());
        }
        packet.resize(packet.size() + aTail);
        mDevice->add(packet);
    }

    /// @return The slice of the next record; -1 when there is none for long.
    int next() {
        std::unique_ptr<LockStreamPIDData> record;
        return mStream.dequeueWait(record, seconds(20)) ? record->maxSlice() : -1;
    }
    bool nothingMore() {
        std::unique_ptr<LockStreamPIDData> record;
        return !mStream.dequeueWait(record, seconds(0)) && record == nullptr;
    }

    LogCapture mLog;
    std::shared_ptr<FakeSeqlockDriver> mDriver = std::make_shared<FakeSeqlockDriver>();
    std::shared_ptr<FakeStream> mDevice = mDriver->stream("/dev/lock_dma_pid");
    std::shared_ptr<FakeLockHardware> mHardware = std::make_shared<FakeLockHardware>();
    LockPIDDataStream mStream{mHardware, mDriver};
};

TEST_F(LockPIDDataStreamTest, SwitchesTheStreamOnBehindTheFlush) {
    send(1, 1); // from before
    bool flushed = false;
    mHardware->registers.pidItfEnable->onWrite(
        [&](bool aOn) { flushed = aOn && mDevice->waitingPackets() == 0; });
    mStream.start();
    EXPECT_TRUE(flushed);
    EXPECT_THAT(mHardware->takeJournal(), ElementsAre("set log/pid_itf_enable = 1"));
    EXPECT_TRUE(nothingMore());
    mStream.stop();
}

TEST_F(LockPIDDataStreamTest, SwitchesTheStreamOffBehindTheEndOfTheReader) {
    mStream.start();
    std::size_t open = 1;
    mHardware->registers.pidItfEnable->onWrite([&](bool /*aOn*/) { open = mDevice->openDevices(); });
    mHardware->takeJournal();
    mStream.stop();
    EXPECT_EQ(open, 0U);
    EXPECT_THAT(mHardware->takeJournal(), ElementsAre("set log/pid_itf_enable = 0"));
}

TEST_F(LockPIDDataStreamTest, OnlyWritesTheRegisterWhenItIsStopped) {
    mStream.stop();
    mStream.stop();
    EXPECT_THAT(mHardware->takeJournal(),
                ElementsAre("set log/pid_itf_enable = 0", "set log/pid_itf_enable = 0"));
}

TEST_F(LockPIDDataStreamTest, RefusesToStartTwice) {
    mStream.start();
    EXPECT_THAT(
        [this] { mStream.start(); },
        ThrowsMessage<std::runtime_error>("Cannot start the lock PID data stream: it is already started"));
    EXPECT_TRUE(mLog.has(Severity::Critical, "LockPIDDataStream already started"));
    send(7, 1);
    EXPECT_EQ(next(), 7); // and still runs
}

TEST_F(LockPIDDataStreamTest, StaysStoppedWithoutADevice) {
    mDevice->fail(FakeStream::Fault::Open, EACCES);
    EXPECT_THAT([this] { mStream.start(); }, ThrowsMessage<std::runtime_error>("Failed to open input file"));
    mDevice->fail(FakeStream::Fault::Open, 0);
    mStream.start();
}

TEST_F(LockPIDDataStreamTest, StaysStoppedWhenTheDeviceCannotBeFlushed) {
    send(1, 1);
    mDevice->fail(FakeStream::Fault::NextPacket, EIO);
    EXPECT_THAT([this] { mStream.start(); }, ThrowsMessage<std::runtime_error>("Could not flush data"));
    EXPECT_THAT(mHardware->takeActions(), testing::IsEmpty());
    EXPECT_EQ(mDevice->openDevices(), 0U);
    mDevice->fail(FakeStream::Fault::NextPacket, 0);
    mStream.start();
    EXPECT_THAT(mHardware->takeActions(), ElementsAre("set log/pid_itf_enable = 1"));
    send(7, 1);
    EXPECT_EQ(next(), 7);
}

TEST_F(LockPIDDataStreamTest, StaysStoppedWhenTheHardwareCannotBeSwitchedOn) {
    mHardware->registers.pidItfEnable->onWrite([](bool /*aOn*/) { throw std::runtime_error("no bus"); });
    EXPECT_THAT([this] { mStream.start(); }, ThrowsMessage<std::runtime_error>("no bus"));
    EXPECT_EQ(mDevice->openDevices(), 0U);
    mHardware->registers.pidItfEnable->onWrite(nullptr);
    mStream.start();
    send(7, 1);
    EXPECT_EQ(next(), 7);
}

TEST_F(LockPIDDataStreamTest, TakesEveryWholeRecordOfAPacket) {
    mStream.start();
    send(1, 1);
    send(2, 2);
    send(4, 2, 8); // 40 bytes: two records, 8 bytes dropped
    send(6, 20);   // more than the expected 124 bytes
    for (int slice = 1; slice < 26; ++slice) {
        EXPECT_EQ(next(), slice);
    }
    EXPECT_TRUE(nothingMore());
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), testing::IsEmpty());
    EXPECT_TRUE(
        mLog.has(Severity::Trace, "Decoded maxSlice = 3, pid out = 0, pid in = 0, phaseOut = 0.000000"));
}

TEST_F(LockPIDDataStreamTest, GoesOnAfterAPacketThatIsTooShort) {
    mStream.start();
    send(0, 0, 15);
    send(9, 1);
    EXPECT_EQ(next(), 9);
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Exception occurred while reading/processing a packet. Exception was "
                         "Cannot decode lock PID stream packet: packet size is 15 but at least "
                         "16 bytes are expected"));
}

TEST_F(LockPIDDataStreamTest, TellsOfEachEmptyPacketAndGoesOnAtOnce) {
    mStream.start();
    auto const begin = std::chrono::steady_clock::now();
    for (int packet = 0; packet < 4; ++packet) {
        send(0, 0);
    }
    send(9, 1);
    EXPECT_EQ(next(), 9);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(15)); // one that rests does so for 30 s
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), testing::SizeIs(4));
    EXPECT_EQ(mLog.count(Severity::Error,
                         "Exception occurred while reading/processing a packet. Exception was "
                         "Cannot decode lock PID stream packet: packet size is 0 but at least "
                         "16 bytes are expected"),
              4U);
}

TEST_F(LockPIDDataStreamTest, KeepsTheRecordsThatAreLeftAtAStop) {
    mStream.start();
    send(1, 3);
    EXPECT_EQ(next(), 1);
    mStream.stop();
    EXPECT_EQ(next(), 2);
    EXPECT_EQ(next(), 3);
}

TEST_F(LockPIDDataStreamTest, LosesNoRecordThatComesRightBehindTheStart) {
    for (std::uint16_t round = 0; round < 50; ++round) {
        mHardware->registers.pidItfEnable->onWrite([&](bool aOn) {
            if (aOn) {
                send(round, 1);
            }
        });
        mStream.start();
        EXPECT_EQ(next(), round);
        mStream.stop();
    }
}

TEST_F(LockPIDDataStreamTest, StartsAtOnceThoughTheReaderWaitsForData) {
    mDevice->limitWaits(std::chrono::hours(1)); // as long as asked for: a second
    auto const begin = std::chrono::steady_clock::now();
    for (int round = 0; round < 3; ++round) {
        mStream.start();
        mDevice->add({}); // ends the wait
        mStream.stop();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(20)); // a flush behind a read takes 30 s each
}

/// Waits on a clock that is moved by hand.
class LockPIDDataStreamWait : public testing::Test {
protected:
    HandClockScope mClock;
    std::shared_ptr<FakeSeqlockDriver> mDriver = std::make_shared<FakeSeqlockDriver>();
    std::shared_ptr<FakeLockHardware> mHardware = std::make_shared<FakeLockHardware>();
    LockPIDDataStream mStream{mHardware, mDriver};
};

TEST_F(LockPIDDataStreamWait, EndsWithoutARecordWhenTheTimeIsUp) {
    std::atomic<int> answer{-1};
    std::thread waiter([&] {
        std::unique_ptr<LockStreamPIDData> record;
        answer = mStream.dequeueWait(record, std::chrono::duration<double>(1.0)) ? 1 : 0;
    });
    mClock->awaitWaiters(1);
    mClock->advance(std::chrono::milliseconds(999));
    EXPECT_EQ(answer, -1);
    mClock->advance(std::chrono::milliseconds(1));
    waiter.join();
    EXPECT_EQ(answer, 0);
}

TEST_F(LockPIDDataStreamWait, EndsAtAStop) {
    auto const begin = mClock->now();
    std::thread waiter([&] {
        std::unique_ptr<LockStreamPIDData> record;
        EXPECT_FALSE(mStream.dequeueWait(record, seconds(1)));
    });
    mClock->awaitWaiters(1);
    mStream.stop();
    waiter.join();
    EXPECT_EQ(mClock->now(), begin);
}

TEST_F(LockPIDDataStreamWait, EndsAtAStopThatCameJustBefore) {
    mStream.stop();
    std::unique_ptr<LockStreamPIDData> record;
    EXPECT_FALSE(mStream.dequeueWait(record, seconds(1))); // does not wait
}

} // namespace
