// SPDX-License-Identifier: Apache-2.0
// The simulated sequencer behind the door that its kernel driver has on the instrument.
#pragma once

#include "simulator/sequencer/Sequencer.h"
#include "simulator/sequencer/SequencerFaults.h"

#include <velmor/platform/Clock.h>
#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace libfieldwarden::sim {

/// Runs a Sequencer on a clock and shows it as the register tree "/sys/class/misc/seqlock/" with its
/// notification file "irq/irq_notification", and the devices "/dev/seqlock", "/dev/seqlock-window",
/// "/dev/lock_dma_td", "/dev/lock_dma_fd" and "/dev/lock_dma_pid".
///
/// As in sysfs, a register file gives its text with a newline at the end and refuses what does not parse; a
/// notification file that was never read is ready at once. The queues of packets belong to the devices, not
/// to who has them open, and keep at most Sequencer::kKeptRecordPackets or kKeptBlocks packets, of which the
/// oldest goes first.
///
/// All operations may be called from any thread. What is open keeps the driver alive.
class SequencerDriver final : public velmor::q47::seqlock::SeqlockDriver,
                              public std::enable_shared_from_this<SequencerDriver> {
public:
    using Clock = velmor::platform::Clock;

    /// Who moves the sequencer on.
    enum class Pace {
        Clock, ///< A thread of the driver's own, at the times of the clock; it rests while nothing runs.
        Hand,  ///< Nobody but step().
    };

    static constexpr std::string_view kRegisters = "/sys/class/misc/seqlock/";
    static constexpr std::string_view kNotification = "/sys/class/misc/seqlock/irq/irq_notification";
    static constexpr std::string_view kProgramDevice = "/dev/seqlock";
    static constexpr std::string_view kWindowDevice = "/dev/seqlock-window";
    static constexpr std::string_view kTimeDomainDevice = "/dev/lock_dma_td";
    static constexpr std::string_view kFrequencyDomainDevice = "/dev/lock_dma_fd";
    static constexpr std::string_view kRecordDevice = "/dev/lock_dma_pid";

    /// Has the main board tell it of its transmitter. To be made as a shared object, which keeps all these.
    /// @param aClock      The time.
    /// @param aMagnet     The magnet that the lock sees.
    /// @param aMainboard  The main board whose transmitter excites the lock.
    SequencerDriver(std::shared_ptr<Clock> aClock,
                    std::shared_ptr<Magnet> aMagnet,
                    std::shared_ptr<Mainboard> aMainboard,
                    Sequencer::Options const& aOptions,
                    Pace aPace);

    ~SequencerDriver() override;
    SequencerDriver(SequencerDriver const&) = delete;
    SequencerDriver& operator=(SequencerDriver const&) = delete;

    bool canRead(std::string const& aPath) override;
    bool canWrite(std::string const& aPath) override;
    std::string readRegister(std::string const& aPath) override;
    void writeRegister(std::string const& aPath, std::string const& aText) override;
    std::unique_ptr<velmor::q47::seqlock::Notification> openNotification(std::string const& aPath) override;
    std::unique_ptr<std::ostream> openMemory(std::string const& aPath) override;
    std::unique_ptr<velmor::q47::seqlock::StreamDevice> openStream(std::string const& aPath) override;

    /// Takes the sequencer to the end of the acquisition that runs, without regard for the clock.
    /// @return Whether one ran.
    bool step();

    /// @return What goes wrong in the sequencer and its driver.
    SequencerFaults& faults() noexcept { return mFaults; }

    /// @return What the H0 converter puts out.
    std::int32_t h0Count();

private:
    class EventFile;
    class MemoryBuffer;
    class MemoryStream;
    class Device;

    void run();
    [[nodiscard]] std::unique_lock<std::mutex> enter();
    bool available(std::string const& aPath) const;
    void changed();

    std::shared_ptr<Clock> const mClock;
    std::shared_ptr<Magnet> const mMagnet;
    std::shared_ptr<Mainboard> const mMainboard;
    SequencerFaults mFaults;

    /// Taken ahead of the other mutex by all who want that, so that the thread cannot keep the rest out when
    /// it is late and takes it again at once.
    std::mutex mTurn;
    std::mutex mMutex; ///< Guards all below.
    Sequencer mSequencer;
    bool mStop = false;
    std::condition_variable mWork;   ///< Something to do for the thread, or to stop.
    std::condition_variable mEvents; ///< An interrupt or a packet.
    std::thread mThread;
};

} // namespace libfieldwarden::sim
