// SPDX-License-Identifier: Apache-2.0
// DMA devices that a test fills with packets and makes fail.
#pragma once

#include <velmor/platform/Clock.h>
#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace libfieldwarden::test {

/// What is behind a device: packets wait here whether or not somebody has it open. Any thread.
///
/// As in the driver, a read delivers of the packet under way, or takes the next one; at its end come zeros,
/// until an ioctl steps on. An ioctl in mid-packet drops the rest.
class FakeStream {
public:
    using Bytes = std::vector<unsigned char>;

    /// What the device was asked, for tests of the order: "ioctl 4004e601 1", "read", "wait 1".
    using Journal = std::vector<std::string>;

    /// One way for a device to fail. An errno of 0 is none.
    enum class Fault { Open, PacketMode, NextPacket, Read, Wait };

    /// @param aEnd  Whether the packet's end comes with it, or it goes on with the next bytes.
    void add(Bytes aBytes, bool aEnd = true) {
        {
            std::lock_guard const lock(mMutex);
            if (mPieces.empty() || mPieces.back().ended) {
                mPieces.push_back({});
            }
            auto& packet = mPieces.back();
            packet.bytes.insert(packet.bytes.end(), aBytes.begin(), aBytes.end());
            packet.ended = aEnd;
        }
        mNews.notify_all();
    }

    /// The next calls of a kind fail with an errno.
    /// @param aTimes  How many; all from now on without.
    void fail(Fault aFault, int aErrno, std::optional<unsigned> aTimes = std::nullopt) {
        {
            std::lock_guard const lock(mMutex);
            mFaults[aFault] = {aErrno, aTimes};
        }
        mNews.notify_all();
    }

    /// Lets a read deliver at most so many bytes.
    void limitReads(std::size_t aBytes) {
        std::lock_guard const lock(mMutex);
        mLimit = aBytes;
    }

    /// Has the device deliver zeros for ever; what happens before each such read may move a clock.
    void deliverForEver(std::function<void()> aBeforeRead) {
        std::lock_guard const lock(mMutex);
        mEndless = std::move(aBeforeRead);
    }

    /// What a wait does when there is nothing to read, in place of waiting on the clock; answers as the wait.
    void onWait(std::function<int(std::chrono::seconds)> aWait) {
        std::lock_guard const lock(mMutex);
        mOnWait = std::move(aWait);
    }

    /// Ends waits earlier than asked for, so that a reader of real time soon looks at what else there is.
    void limitWaits(std::chrono::milliseconds aLongest) {
        std::lock_guard const lock(mMutex);
        mLongestWait = aLongest;
    }

    /// Waits until somebody waits for data for the first time, or for as many times as told.
    void awaitWaits(std::size_t aCount) {
        std::unique_lock lock(mMutex);
        mWaited.wait(lock, [&] { return mWaits >= aCount; });
    }

    Journal journal() const {
        std::lock_guard const lock(mMutex);
        return mJournal;
    }
    std::size_t openDevices() const {
        std::lock_guard const lock(mMutex);
        return mOpen;
    }
    std::size_t waitingPackets() const {
        std::lock_guard const lock(mMutex);
        return mPieces.size();
    }

private:
    friend class FakeStreamDevice;
    friend class FakeSeqlockDriver;

    struct Piece {
        Bytes bytes;
        bool ended = false;
    };
    struct Failure {
        int number = 0;
        std::optional<unsigned> times;
    };

    /// @return The errno of a call; the mutex is held.
    int faultOf(Fault aFault) {
        auto& failure = mFaults[aFault];
        if (failure.times && (*failure.times)-- == 0) {
            failure = {};
        }
        return failure.number;
    }

    mutable std::mutex mMutex;
    std::condition_variable mNews;
    std::condition_variable mWaited;
    std::deque<Piece> mPieces; ///< The first one is under way when mTaken.
    bool mTaken = false;
    std::size_t mRead = 0;
    std::size_t mLimit = SIZE_MAX;
    std::chrono::milliseconds mLongestWait = std::chrono::hours(1);
    std::function<void()> mEndless;
    std::function<int(std::chrono::seconds)> mOnWait;
    std::map<Fault, Failure> mFaults;
    Journal mJournal;
    std::size_t mWaits = 0;
    std::size_t mOpen = 0;
};

/// An open device on a FakeStream.
class FakeStreamDevice final : public velmor::q47::seqlock::StreamDevice {
public:
    explicit FakeStreamDevice(std::shared_ptr<FakeStream> aStream)
        : mStream(std::move(aStream)) {
        std::lock_guard const lock(mStream->mMutex);
        ++mStream->mOpen;
    }
    ~FakeStreamDevice() override {
        std::lock_guard const lock(mStream->mMutex);
        --mStream->mOpen;
    }

    int ioctl(unsigned long aRequest, unsigned long aArgument) override {
        using namespace velmor::q47::seqlock;
        std::lock_guard const lock(mStream->mMutex);
        FakeStream& stream = *mStream;
        if (aRequest == kSetPacketMode) {
            note("packet mode " + std::to_string(aArgument));
            return answer(stream.faultOf(FakeStream::Fault::PacketMode), 0);
        }
        if (aRequest != kNextPacket) {
            return answer(ENOTTY, 0);
        }
        note("next packet");
        int const fault = stream.faultOf(FakeStream::Fault::NextPacket);
        if (fault == 0 && std::exchange(stream.mTaken, false)) {
            stream.mPieces.pop_front();
            stream.mRead = 0;
        }
        return answer(fault, 0);
    }

    ssize_t read(unsigned char* aBuffer, std::size_t aSize) override {
        std::unique_lock lock(mStream->mMutex);
        FakeStream& stream = *mStream;
        note("read " + std::to_string(aSize));
        if (auto const before = stream.mEndless) {
            lock.unlock();
            before();
            std::fill_n(aBuffer, aSize, static_cast<unsigned char>(0));
            return static_cast<ssize_t>(aSize);
        }
        if (int const fault = stream.faultOf(FakeStream::Fault::Read); fault != 0) {
            return answer(fault, 0);
        }
        if (!readable()) {
            return answer(EAGAIN, 0);
        }
        stream.mTaken = true;
        auto const& packet = stream.mPieces.front();
        std::size_t const count = std::min({aSize, stream.mLimit, packet.bytes.size() - stream.mRead});
        std::copy_n(packet.bytes.begin() + static_cast<std::ptrdiff_t>(stream.mRead), count, aBuffer);
        stream.mRead += count;
        return static_cast<ssize_t>(count);
    }

    int waitReadable(std::chrono::seconds aTimeout) override {
        std::unique_lock lock(mStream->mMutex);
        FakeStream& stream = *mStream;
        note("wait " + std::to_string(aTimeout.count()));
        ++stream.mWaits;
        stream.mWaited.notify_all();
        if (int const fault = stream.faultOf(FakeStream::Fault::Wait); fault != 0) {
            return answer(fault, 0);
        }
        if (auto const wait = stream.mOnWait; wait && !readable()) {
            lock.unlock();
            return wait(aTimeout);
        }
        auto& clock = velmor::platform::Clock::current();
        auto const longest = std::min<std::chrono::milliseconds>(aTimeout, stream.mLongestWait);
        bool const came = clock.waitFor(stream.mNews, lock, longest, [&] { return readable(); });
        return came ? 1 : 0;
    }

private:
    /// Whether a read would deliver bytes or the end of a packet; the mutex is held.
    bool readable() const {
        return !mStream->mPieces.empty() &&
               (mStream->mPieces.front().ended || mStream->mRead < mStream->mPieces.front().bytes.size());
    }
    void note(std::string aLine) const {
        if (mStream->mJournal.size() < 1000) {
            mStream->mJournal.push_back(std::move(aLine));
        }
    }
    static int answer(int aErrno, int aResult) {
        if (aErrno != 0) {
            errno = aErrno;
            return -1;
        }
        return aResult;
    }

    std::shared_ptr<FakeStream> mStream;
};

/// A driver that has streams and nothing else. Any thread; streams are added before use.
class FakeSeqlockDriver final : public velmor::q47::seqlock::SeqlockDriver {
public:
    /// @return The stream behind a device; from now on there is such a device.
    std::shared_ptr<FakeStream> stream(std::string const& aPath) {
        std::lock_guard const lock(mMutex);
        auto& stream = mStreams[aPath];
        if (!stream) {
            stream = std::make_shared<FakeStream>();
        }
        return stream;
    }

    std::unique_ptr<velmor::q47::seqlock::StreamDevice> openStream(std::string const& aPath) override {
        std::shared_ptr<FakeStream> found;
        {
            std::lock_guard const lock(mMutex);
            if (auto const entry = mStreams.find(aPath); entry != mStreams.end()) {
                found = entry->second;
            }
        }
        int fault = ENOENT;
        if (found) {
            std::lock_guard const lock(found->mMutex);
            fault = found->faultOf(FakeStream::Fault::Open);
        }
        if (fault != 0) {
            errno = fault;
            return nullptr;
        }
        return std::make_unique<FakeStreamDevice>(std::move(found));
    }

    bool canRead(std::string const& /*aPath*/) override { return unexpected<bool>("canRead"); }
    bool canWrite(std::string const& /*aPath*/) override { return unexpected<bool>("canWrite"); }
    std::string readRegister(std::string const& /*aPath*/) override {
        return unexpected<std::string>("readRegister");
    }
    void writeRegister(std::string const& /*aPath*/, std::string const& /*aText*/) override {
        unexpected<void>("writeRegister");
    }
    std::unique_ptr<velmor::q47::seqlock::Notification> openNotification(
        std::string const& /*aPath*/) override {
        return unexpected<std::unique_ptr<velmor::q47::seqlock::Notification>>("openNotification");
    }
    std::unique_ptr<std::ostream> openMemory(std::string const& /*aPath*/) override {
        return unexpected<std::unique_ptr<std::ostream>>("openMemory");
    }

private:
    template <typename Result>
    static Result unexpected(char const* aName) {
        throw std::logic_error(std::string("FakeSeqlockDriver: ") + aName + " was not expected");
    }

    std::mutex mMutex;
    std::map<std::string, std::shared_ptr<FakeStream>> mStreams;
};

} // namespace libfieldwarden::test
