// SPDX-License-Identifier: Apache-2.0
// Switches the sequencer's stream of PID records on and off and queues what it delivers.
#pragma once

#include "lock/hardware/LockPIDStreamIfc.h"
#include "lock/hardware/LockStreamPIDData.h"
#include "lock/hardware/LockStreamPacketReader.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>
#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>

#include <boost/circular_buffer.hpp>

class LockHardwareInterface;

/// The PID records from the hardware. The queue has no limit; what is left in it when the stream stops is
/// taken by the next dequeueWait().
///
/// A stop wakes the dequeueWait() that waits, or else the next one, so that whoever supervises the stream can
/// end at once.
class LockPIDDataStream : public LockPIDStreamIfc, private virtual velmor::kepla::log::Logger {
public:
    using SeqlockDriver = velmor::q47::seqlock::SeqlockDriver;

    /// @param aHardware  Switches the stream.
    /// @param aDriver    Opens the device.
    explicit LockPIDDataStream(std::shared_ptr<LockHardwareInterface> aHardware,
                               std::shared_ptr<SeqlockDriver> aDriver = SeqlockDriver::current());
    ~LockPIDDataStream() override;
    LockPIDDataStream(LockPIDDataStream const&) = delete;
    LockPIDDataStream& operator=(LockPIDDataStream const&) = delete;

    void start() override;
    void stop() override;
    bool dequeueWait(std::unique_ptr<LockStreamPIDData>& aOut,
                     std::chrono::duration<double> aTimeout) override;

private:
    using Packet = LockStreamPacketReader::Packet;

    void decodeAndPush(Packet const& aPacket);
    std::unique_ptr<LockStreamPIDData> decodeSingle(Packet const& aPacket, std::size_t aOffset) const;
    void push(std::unique_ptr<LockStreamPIDData> aRecord);

    std::shared_ptr<LockHardwareInterface> const mHardware;
    std::shared_ptr<SeqlockDriver> const mDriver;
    velmor::platform::Clock& mClock = velmor::platform::Clock::current();
    std::mutex mMutex; ///< Guards the queue and mWake alone.
    std::condition_variable mArrived;
    boost::circular_buffer<std::unique_ptr<LockStreamPIDData>> mQueue; ///< Grows by doubling.
    bool mWake = false;                                                ///< A stop wants to be noticed.
    std::unique_ptr<LockStreamPacketReader> mReader;                   ///< Null while stopped.
};
