// SPDX-License-Identifier: Apache-2.0
// What every driver of the lock sequencer must do, on system calls or in this process. A rig brings the
// driver and what is behind it:
//
//   INSTANTIATE_TYPED_TEST_SUITE_P(Posix, SeqlockDriverContract, PosixDriverRig);
#pragma once

#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <string>

#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// A driver with what is behind it. The rig of each kind of driver derives from this.
///
/// The driver has, below "/sys/class/misc/seqlock/", "pid/p_term" to read and write, "data/fid_max_slice" to
/// read only and "irq/irq_notification"; "/dev/seqlock" and "/dev/lock_dma_pid".
class SeqlockDriverRig {
public:
    virtual ~SeqlockDriverRig() = default;

    virtual velmor::q47::seqlock::SeqlockDriver& driver() = 0;

    /// An interrupt comes of a source that is not masked.
    virtual void interrupt() = 0;

    /// A packet of at least 8 bytes comes to the DMA device of the PID records.
    virtual void packet() = 0;

    /// @return Whether a program has reached the sequencer.
    virtual bool programCame() = 0;

    /// Runs what only a driver that obeys permissions can show; a rig that cannot leaves it out.
    virtual bool obeysPermissions() const { return true; }
};

template <typename Rig>
class SeqlockDriverContract : public testing::Test {
protected:
    static constexpr char const* kReadWrite = "/sys/class/misc/seqlock/pid/p_term";
    static constexpr char const* kReadOnly = "/sys/class/misc/seqlock/data/fid_max_slice";
    static constexpr char const* kMissing = "/sys/class/misc/seqlock/none/none";
    static constexpr char const* kEvents = "/sys/class/misc/seqlock/irq/irq_notification";
    static constexpr char const* kRecords = "/dev/lock_dma_pid";

    velmor::q47::seqlock::SeqlockDriver& driver() { return mRig.driver(); }

    int number(char const* aPath) { return std::stoi(driver().readRegister(aPath)); }

    static bool came(velmor::q47::seqlock::Notification& aEvents) {
        return aEvents.wait(std::chrono::seconds(0), std::chrono::microseconds(0)) > 0;
    }
    static void arm(velmor::q47::seqlock::Notification& aEvents) {
        std::array<char, 100> ignored{};
        aEvents.read(ignored.data(), ignored.size());
    }
    static bool readable(velmor::q47::seqlock::StreamDevice& aDevice) {
        return aDevice.waitReadable(std::chrono::seconds(0)) > 0;
    }

    Rig mRig;
};

TYPED_TEST_SUITE_P(SeqlockDriverContract);

TYPED_TEST_P(SeqlockDriverContract, ReadsWhatWasWritten) {
    this->driver().writeRegister(this->kReadWrite, "12345");
    EXPECT_EQ(this->number(this->kReadWrite), 12345);
    this->driver().writeRegister(this->kReadWrite, "7"); // a shorter text leaves nothing of the longer
    EXPECT_EQ(this->number(this->kReadWrite), 7);
}

TYPED_TEST_P(SeqlockDriverContract, TestsAFileWithoutTouchingIt) {
    this->driver().writeRegister(this->kReadWrite, "12345");
    EXPECT_TRUE(this->driver().canRead(this->kReadWrite));
    EXPECT_TRUE(this->driver().canWrite(this->kReadWrite));
    EXPECT_EQ(this->number(this->kReadWrite), 12345);
}

TYPED_TEST_P(SeqlockDriverContract, RefusesToWriteWhatIsReadOnly) {
    if (!this->mRig.obeysPermissions()) {
        GTEST_SKIP() << "permissions mean nothing here";
    }
    std::string const before = this->driver().readRegister(this->kReadOnly);
    EXPECT_TRUE(this->driver().canRead(this->kReadOnly));
    EXPECT_FALSE(this->driver().canWrite(this->kReadOnly));
    EXPECT_NO_THROW(this->driver().writeRegister(this->kReadOnly, "99"));
    EXPECT_EQ(this->driver().readRegister(this->kReadOnly), before);
}

TYPED_TEST_P(SeqlockDriverContract, KnowsNoFileThatIsMissing) {
    EXPECT_FALSE(this->driver().canRead(this->kMissing));
    EXPECT_FALSE(this->driver().canWrite(this->kMissing));
    EXPECT_EQ(this->driver().readRegister(this->kMissing), "");
    EXPECT_NO_THROW(this->driver().writeRegister(this->kMissing, "1"));
    EXPECT_FALSE(this->driver().canRead(this->kMissing));
}

TYPED_TEST_P(SeqlockDriverContract, TellsWhyADeviceCannotBeOpened) {
    errno = 0;
    EXPECT_FALSE(this->driver().openNotification(this->kMissing));
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_FALSE(this->driver().openStream("/dev/none/none"));
    EXPECT_EQ(errno, ENOENT);
    auto const memory = this->driver().openMemory("/dev/none/none");
    ASSERT_TRUE(memory);
    EXPECT_TRUE(memory->fail());
}

TYPED_TEST_P(SeqlockDriverContract, TellsOfAnInterruptThatComesAfterTheRead) {
    auto const events = this->driver().openNotification(this->kEvents);
    ASSERT_TRUE(events);
    this->arm(*events);
    EXPECT_FALSE(this->came(*events));
    this->mRig.interrupt();
    EXPECT_TRUE(this->came(*events));
    EXPECT_TRUE(this->came(*events)); // until it is read
    this->arm(*events);
    EXPECT_FALSE(this->came(*events));
}

TYPED_TEST_P(SeqlockDriverContract, TellsEveryoneWhoHasTheNotificationOpen) {
    auto const first = this->driver().openNotification(this->kEvents);
    ASSERT_TRUE(first);
    this->arm(*first);
    auto const second = this->driver().openNotification(this->kEvents);
    ASSERT_TRUE(second);
    this->mRig.interrupt();
    EXPECT_TRUE(this->came(*first));
    EXPECT_TRUE(this->came(*second));
}

TYPED_TEST_P(SeqlockDriverContract, BringsAProgramToTheSequencerWithTheFlush) {
    auto const memory = this->driver().openMemory("/dev/seqlock");
    ASSERT_TRUE(memory->good());
    *memory << "a program";
    EXPECT_FALSE(this->mRig.programCame());
    memory->flush();
    EXPECT_TRUE(memory->good());
    EXPECT_TRUE(this->mRig.programCame());
}

TYPED_TEST_P(SeqlockDriverContract, ReadsAStreamWithoutBlocking) {
    auto const device = this->driver().openStream(this->kRecords);
    ASSERT_TRUE(device);
    std::array<unsigned char, 4> bytes{};
    EXPECT_FALSE(this->readable(*device));
    errno = 0;
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EAGAIN);
    this->mRig.packet();
    EXPECT_TRUE(this->readable(*device));
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), 4);
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), 4); // goes on where it was
}

TYPED_TEST_P(SeqlockDriverContract, RefusesARequestThatItDoesNotKnow) {
    auto const device = this->driver().openStream(this->kRecords);
    ASSERT_TRUE(device);
    errno = 0;
    EXPECT_EQ(device->ioctl(0x1234, 0), -1);
    EXPECT_EQ(errno, ENOTTY);
}

REGISTER_TYPED_TEST_SUITE_P(SeqlockDriverContract,
                            ReadsWhatWasWritten,
                            TestsAFileWithoutTouchingIt,
                            RefusesToWriteWhatIsReadOnly,
                            KnowsNoFileThatIsMissing,
                            TellsWhyADeviceCannotBeOpened,
                            TellsOfAnInterruptThatComesAfterTheRead,
                            TellsEveryoneWhoHasTheNotificationOpen,
                            BringsAProgramToTheSequencerWithTheFlush,
                            ReadsAStreamWithoutBlocking,
                            RefusesARequestThatItDoesNotKnow);

} // namespace libfieldwarden::test
