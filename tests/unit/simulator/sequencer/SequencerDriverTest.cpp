// SPDX-License-Identifier: Apache-2.0
// Files and devices of the simulated sequencer's driver: interrupts, packets, errors, threads.
#include "SequencerFixture.h"

#include "support/Eventually.h"

#include <atomic>
#include <cerrno>
#include <thread>

namespace libfieldwarden::sim {

namespace {

using velmor::q47::seqlock::kNextPacket;
using velmor::q47::seqlock::kSetPacketMode;
using velmor::q47::seqlock::Notification;

class SequencerDriverTest : public SequencerFixture {
protected:
    static constexpr char const* kEvents = "/sys/class/misc/seqlock/irq/irq_notification";

    static bool ready(Notification& aNotification) {
        return aNotification.wait(std::chrono::seconds(0), std::chrono::microseconds(0)) > 0;
    }
    /// Waits for the next packet of a sequencer that runs by itself.
    static bool arrives(velmor::q47::seqlock::StreamDevice& aDevice) {
        EXPECT_EQ(aDevice.ioctl(kNextPacket, 0), 0);
        return test::eventually([&] { return aDevice.waitReadable(std::chrono::seconds(0)) > 0; });
    }
    static void arm(Notification& aNotification) {
        std::array<char, 100> text{};
        EXPECT_GT(aNotification.read(text.data(), text.size()), 0);
    }
};

TEST_F(SequencerDriverTest, HasARegisterForEachPathAndNoOther) {
    make(magnetAt(0.0));
    EXPECT_TRUE(mDriver->canRead(path("pid/p_term")));
    EXPECT_TRUE(mDriver->canWrite(path("pid/p_term")));
    EXPECT_TRUE(mDriver->canRead(path("data/max_slice_position")));
    EXPECT_FALSE(mDriver->canWrite(path("data/max_slice_position")));
    EXPECT_TRUE(mDriver->canRead(kEvents));
    EXPECT_FALSE(mDriver->canWrite(kEvents));
    EXPECT_FALSE(mDriver->canRead(path("pid/setpoint")));
    EXPECT_FALSE(mDriver->canRead("/sys/class/misc/seqlock"));
    EXPECT_FALSE(mDriver->canRead("pid/p_term"));
    EXPECT_EQ(mDriver->readRegister(path("pid/none")), "");
    mDriver->writeRegister(path("pid/none"), "1");
}

TEST_F(SequencerDriverTest, RefusesToWriteWhatIsReadOnly) {
    make(magnetAt(100.0));
    step();
    EXPECT_EQ(position(), 100);
    write("data/max_slice_position", 7);
    EXPECT_EQ(position(), 100);
}

TEST_F(SequencerDriverTest, TakesTheUnsignedTextOfASignedNumber) {
    make(magnetAt(0.0));
    mDriver->writeRegister(path("pid/i_term"), "4294966879");
    EXPECT_EQ(mDriver->readRegister(path("pid/i_term")), "-417\n");
    mDriver->writeRegister(path("pid/i_term"), "rubbish");
    EXPECT_EQ(mDriver->readRegister(path("pid/i_term")), "-417\n");
}

TEST_F(SequencerDriverTest, IsReadyForAnInterruptThatIsNewerThanTheRead) {
    make(magnetAt(0.0));
    auto const events = mDriver->openNotification(kEvents);
    ASSERT_TRUE(events);
    EXPECT_TRUE(ready(*events)); // Never read.
    arm(*events);
    EXPECT_FALSE(ready(*events));
    step();
    EXPECT_FALSE(ready(*events)); // Masked.
    write("irq/fid_done_mask", 1);
    EXPECT_FALSE(ready(*events)); // The status is set, but that is not new.
    step();
    EXPECT_TRUE(ready(*events));
    EXPECT_TRUE(ready(*events));
    arm(*events);
    EXPECT_FALSE(ready(*events));
    step(); // A second FID is a second interrupt, cleared or not.
    EXPECT_TRUE(ready(*events));
    write("irq/fid_done_mask", 0);
    arm(*events);
    step();
    EXPECT_FALSE(ready(*events));
}

TEST_F(SequencerDriverTest, InterruptsForEachSourceThatIsLetThrough) {
    make(magnetAt(0.0), 17);
    auto const events = mDriver->openNotification(kEvents);
    arm(*events);
    write("irq/dds_pll_unlocked_mask", 1);
    mClock->advance(std::chrono::milliseconds(1));
    write("status/dds_pll_unlocked", 1);
    mMainboard->setTxFrequencyWord(1, kTransmitterWord);
    EXPECT_TRUE(ready(*events));
    arm(*events);
    write("irq/fid_overflow_mask", 1);
    step();
    EXPECT_TRUE(ready(*events));
    write("control/seq_clock_enable", 0);
    arm(*events);
    write("irq/seq_error_mask", 1);
    load("/dev/seqlock", "no program");
    EXPECT_TRUE(ready(*events));
    arm(*events);
    write("control/seq_irq_test", 1);
    EXPECT_FALSE(ready(*events));
    write("control/seq_irq_test_enable", 1);
    write("control/seq_irq_test", 1);
    EXPECT_TRUE(ready(*events));
}

TEST_F(SequencerDriverTest, WakesEveryoneWhoWaitsForTheInterrupt) {
    make(magnetAt(0.0), 15, SequencerDriver::Pace::Clock);
    write("irq/fid_done_mask", 1);
    std::atomic<int> woken = 0;
    auto const wait = [&] {
        auto const events = mDriver->openNotification(kEvents);
        arm(*events);
        woken += events->wait(std::chrono::seconds(1), std::chrono::microseconds(0));
    };
    std::thread first(wait);
    std::thread second(wait);
    mClock->awaitWaiters(3); // Both, and the sequencer itself.
    mClock->advance(kLongerThanACycle);
    first.join();
    second.join();
    EXPECT_EQ(woken, 2);
}

TEST_F(SequencerDriverTest, GivesUpWaitingWhenTheTimeIsUp) {
    make(magnetAt(0.0), 15, SequencerDriver::Pace::Clock);
    mDriver->faults().setStoppedAcquisition(true);
    write("irq/fid_done_mask", 1);
    auto const events = mDriver->openNotification(kEvents);
    arm(*events);
    std::atomic<int> result = -1;
    std::thread waiter(
        [&] { result = events->wait(std::chrono::seconds(1), std::chrono::microseconds(500'000)); });
    mClock->awaitWaiters(2);
    mClock->advance(std::chrono::milliseconds(1499));
    EXPECT_EQ(result, -1);
    mClock->advance(std::chrono::milliseconds(1));
    waiter.join();
    EXPECT_EQ(result, 0);
}

TEST_F(SequencerDriverTest, KeepsTheBoundariesOfPackets) {
    make(magnetAt(0.0));
    auto const device = open("/dev/lock_dma_pid");
    write("log/pid_itf_enable", 1);
    Bytes bytes(100);
    errno = 0;
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(device->waitReadable(std::chrono::seconds(0)), 0);
    step(2);
    EXPECT_GT(device->waitReadable(std::chrono::seconds(0)), 0);
    EXPECT_EQ(device->read(bytes.data(), 10), 10);
    EXPECT_EQ(device->read(bytes.data(), 10), 6);
    EXPECT_EQ(device->read(bytes.data(), 10), 0); // The end, as often as one asks.
    EXPECT_EQ(device->read(bytes.data(), 10), 0);
    EXPECT_GT(device->waitReadable(std::chrono::seconds(0)), 0);
    EXPECT_EQ(device->ioctl(kNextPacket, 0), 0);
    EXPECT_EQ(device->read(bytes.data(), 5), 5);
    EXPECT_EQ(device->ioctl(kNextPacket, 0), 0); // The rest is skipped.
    EXPECT_EQ(device->read(bytes.data(), 5), -1);
    EXPECT_EQ(device->ioctl(kNextPacket, 0), 0); // Nothing to skip: the next one still comes.
    step();
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), 16);
}

TEST_F(SequencerDriverTest, RunsPacketsTogetherWithoutPacketMode) {
    make(magnetAt(0.0));
    auto const device = mDriver->openStream("/dev/lock_dma_pid");
    write("log/pid_itf_enable", 1);
    step(2);
    Bytes bytes(100);
    errno = 0;
    EXPECT_EQ(device->ioctl(kNextPacket, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), 16);
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), 16);
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), -1);
}

TEST_F(SequencerDriverTest, KnowsTwoRequests) {
    make(magnetAt(0.0));
    auto const device = mDriver->openStream("/dev/lock_dma_td");
    errno = 0;
    EXPECT_EQ(device->ioctl(0x1234, 0), -1);
    EXPECT_EQ(errno, ENOTTY);
    mDriver->faults().failIoctl("/dev/lock_dma_td", EIO);
    EXPECT_EQ(device->ioctl(kSetPacketMode, 1), -1);
    EXPECT_EQ(errno, EIO);
    mDriver->faults().failIoctl("/dev/lock_dma_td", 0);
    EXPECT_EQ(device->ioctl(kSetPacketMode, 1), 0);
}

TEST_F(SequencerDriverTest, DropsTheOldestBlocksThatNobodyReads) {
    make(magnetAt(0.0), 1);
    write("log/time_domain_itf", 1);
    step(10);
    auto const device = open("/dev/lock_dma_td");
    std::size_t blocks = 0;
    while (!packet(*device).empty()) {
        ++blocks;
    }
    EXPECT_EQ(blocks, Sequencer::kKeptBlocks);
}

TEST_F(SequencerDriverTest, CutsThePacketsThatItIsToldTo) {
    make(magnetAt(0.0));
    auto const device = open("/dev/lock_dma_pid");
    write("log/pid_itf_enable", 1);
    mDriver->faults().truncateNextPackets(9);
    step(2);
    EXPECT_EQ(packet(*device).size(), 9U);
    EXPECT_EQ(packet(*device).size(), 16U);
}

TEST_F(SequencerDriverTest, StopsItsRecordsAlone) {
    make(magnetAt(0.0));
    auto const device = open("/dev/lock_dma_pid");
    write("log/pid_itf_enable", 1);
    mDriver->faults().setStoppedPidStream(true);
    step(2);
    EXPECT_TRUE(packet(*device).empty());
    EXPECT_EQ(read("status/fid_done"), 1);
    mDriver->faults().clear();
    step();
    EXPECT_EQ(packet(*device).size(), 16U);
}

TEST_F(SequencerDriverTest, DeliversForEver) {
    make(magnetAt(0.0));
    auto const device = open("/dev/lock_dma_pid");
    mDriver->faults().setEndlessStreams(true);
    Bytes bytes(4096);
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), 4096);
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), 4096);
    EXPECT_GT(device->waitReadable(std::chrono::seconds(0)), 0);
}

TEST_F(SequencerDriverTest, TellsWhyADeviceCannotBeOpenedOrRead) {
    make(magnetAt(0.0));
    errno = 0;
    EXPECT_FALSE(mDriver->openStream("/dev/lock_dma_xx"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(mDriver->openNotification(path("irq/fid_done_mask")));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(mDriver->openMemory("/dev/null")->fail());

    auto const device = open("/dev/lock_dma_pid");
    auto& faults = mDriver->faults();
    faults.refuseOpening("/dev/lock_dma_pid", ENODEV);
    EXPECT_FALSE(mDriver->openStream("/dev/lock_dma_pid"));
    EXPECT_EQ(errno, ENODEV);
    faults.refuseOpening(kEvents, EMFILE);
    EXPECT_FALSE(mDriver->openNotification(kEvents));
    EXPECT_EQ(errno, EMFILE);
    faults.refuseOpening("/dev/seqlock", EACCES);
    EXPECT_TRUE(mDriver->openMemory("/dev/seqlock")->fail());
    faults.refuseOpening(path("pid/p_term"), EACCES);
    EXPECT_FALSE(mDriver->canRead(path("pid/p_term")));
    EXPECT_EQ(mDriver->readRegister(path("pid/p_term")), "");
    faults.failRead("/dev/lock_dma_pid", EIO);
    Bytes bytes(4);
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_GT(device->waitReadable(std::chrono::seconds(0)), 0); // So that a reader learns of it.
    faults.clear();
    EXPECT_TRUE(mDriver->canRead(path("pid/p_term")));
}

TEST_F(SequencerDriverTest, HandsAMemoryOverWithTheFlush) {
    make(magnetAt(0.0));
    write("control/seq_clock_enable", 0);
    auto const stream = mDriver->openMemory("/dev/seqlock");
    stream->put('x');
    EXPECT_EQ(read("status/seq_error"), 0);
    stream->flush();
    EXPECT_TRUE(stream->good());
    EXPECT_EQ(read("status/seq_error"), 1);
}

TEST_F(SequencerDriverTest, OutlivesItsOwnerWhileADeviceIsOpen) {
    make(magnetAt(0.0), 15, SequencerDriver::Pace::Clock);
    write("log/pid_itf_enable", 1);
    auto const device = open("/dev/lock_dma_pid");
    mClock->awaitWaiters(1);
    mDriver.reset();
    mMagnet.reset();
    mMainboard.reset();
    mClock->advance(kLongerThanACycle);
    EXPECT_GT(device->waitReadable(std::chrono::seconds(100)), 0);
}

TEST_F(SequencerDriverTest, CatchesUpWhenTheTimeLeaps) {
    make(magnetAt(0.0), 15, SequencerDriver::Pace::Clock);
    write("log/pid_itf_enable", 1);
    auto const device = open("/dev/lock_dma_pid");
    mClock->awaitWaiters(1);
    mClock->advance(std::chrono::milliseconds(301)); // Ten cycles.
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(arrives(*device));
        EXPECT_EQ(packet(*device).size(), 16U);
    }
    mClock->awaitWaiters(1);
    EXPECT_TRUE(packet(*device).empty());
}

TEST_F(SequencerDriverTest, LeavesOutWhatIsTooLate) {
    make(magnetAt(0.0), 15, SequencerDriver::Pace::Clock);
    write("log/pid_itf_enable", 1);
    mClock->awaitWaiters(1);
    mClock->advance(std::chrono::hours(1)); // More than a hundred thousand cycles.
    mClock->awaitWaiters(1);
    auto const device = open("/dev/lock_dma_pid");
    EXPECT_EQ(packet(*device).size(), 16U);
    EXPECT_TRUE(packet(*device).empty());
}

TEST_F(SequencerDriverTest, ServesManyThreads) {
    make(magnetAt(0.0), 15, SequencerDriver::Pace::Clock);
    write("irq/fid_done_mask", 1);
    write("log/pid_itf_enable", 1);
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                EXPECT_GE(magnitude(), 0);
                write("status/fid_done", 1);
                mMainboard->setTxAmplitudeWord(kAmplitudeWord);
            }
        });
    }
    auto const device = open("/dev/lock_dma_pid");
    for (int cycle = 0; cycle < 20; ++cycle) {
        mClock->awaitWaiters(1);
        mClock->advance(kLongerThanACycle);
        ASSERT_TRUE(arrives(*device));
        EXPECT_EQ(packet(*device).size(), 16U);
    }
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
}

} // namespace

} // namespace libfieldwarden::sim
