// SPDX-License-Identifier: Apache-2.0
// From packets of the PID stream to queued records.
#include "lock/hardware/LockPIDDataStream.h"

#include "lock/hardware/LockHardwareInterface.h"
#include "lock/hardware/PidRecord.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

using libfieldwarden::lock::PidRecord;
using velmor::kepla::log::Severity;

LockPIDDataStream::LockPIDDataStream(std::shared_ptr<LockHardwareInterface> aHardware,
                                     std::shared_ptr<SeqlockDriver> aDriver)
    : Logger("LockPIDDataStream", "Lock")
    , mHardware(std::move(aHardware))
    , mDriver(std::move(aDriver)) {}

// The reader goes first: its thread pushes to the queue.
LockPIDDataStream::~LockPIDDataStream() {
    mReader.reset();
}

void LockPIDDataStream::start() {
    if (mReader) {
        keplaDoLog(Severity::Critical, "LockPIDDataStream already started", {});
        throw std::runtime_error("Cannot start the lock PID data stream: it is already started");
    }
    {
        std::lock_guard const lock(mMutex);
        mWake = false;
    }
    // Kept once all has gone well, so that a start that fails can be tried again.
    auto reader = std::make_unique<LockStreamPacketReader>(
        "/dev/lock_dma_pid", 124, [this](std::unique_ptr<Packet> aPacket) { decodeAndPush(*aPacket); },
        mDriver);
    reader->flush();
    mHardware->pidItfEnable()->set(true);
    mReader = std::move(reader);
}

void LockPIDDataStream::stop() {
    {
        std::lock_guard const lock(mMutex);
        mWake = true;
    }
    mArrived.notify_all();
    mReader.reset();
    mHardware->pidItfEnable()->set(false);
}

bool LockPIDDataStream::dequeueWait(std::unique_ptr<LockStreamPIDData>& aOut,
                                    std::chrono::duration<double> aTimeout) {
    auto const timeout = std::chrono::duration_cast<velmor::platform::Clock::Duration>(aTimeout);
    std::unique_lock lock(mMutex);
    mClock.waitFor(mArrived, lock, timeout, [this] { return !mQueue.empty() || mWake; });
    mWake = false;
    if (mQueue.empty()) {
        return false;
    }
    aOut = std::move(mQueue.front());
    mQueue.pop_front();
    return true;
}

// ------------------------------------------------------------------------------------ on the reader's thread

void LockPIDDataStream::decodeAndPush(Packet const& aPacket) {
    if (aPacket.size() < PidRecord::kSize) {
        throw std::invalid_argument("Cannot decode lock PID stream packet: packet size is " +
                                    std::to_string(aPacket.size()) + " but at least 16 bytes are expected");
    }
    for (std::size_t offset = 0; offset + PidRecord::kSize <= aPacket.size(); offset += PidRecord::kSize) {
        push(decodeSingle(aPacket, offset));
    }
}

std::unique_ptr<LockStreamPIDData> LockPIDDataStream::decodeSingle(Packet const& aPacket,
                                                                   std::size_t aOffset) const {
    if (aOffset + PidRecord::kSize > aPacket.size()) {
        keplaDoLog(
            Severity::Error,
            "Cannot decode lock PID stream packed: packet size is %lu, offset is %lu but need at least "
            "16 bytes",
            {}, aPacket.size(), aOffset);
        throw std::invalid_argument("Got invalid data from lock");
    }
    PidRecord const record = libfieldwarden::lock::decodePidRecord(aPacket.data() + aOffset);
    keplaDoLog(Severity::Trace, "Decoded maxSlice = %u, pid out = %d, pid in = %d, phaseOut = %f", {},
               record.maxSlice, record.pidDataOut, record.pidDataIn, record.phase);
    return std::make_unique<LockStreamPIDData>(record.maxSlice, record.pidDataOut, record.pidDataIn,
                                               record.phase);
}

void LockPIDDataStream::push(std::unique_ptr<LockStreamPIDData> aRecord) {
    {
        std::lock_guard const lock(mMutex);
        if (mQueue.full()) {
            mQueue.set_capacity(std::max<std::size_t>(64, 2 * mQueue.capacity()));
        }
        mQueue.push_back(std::move(aRecord));
    }
    mArrived.notify_one();
}
