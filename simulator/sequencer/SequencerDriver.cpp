// SPDX-License-Identifier: Apache-2.0
// Files, devices and thread around the simulated sequencer.
#include "simulator/sequencer/SequencerDriver.h"

#include <velmor/kepla/utils/ThreadName.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <span>
#include <streambuf>
#include <utility>
#include <vector>

namespace libfieldwarden::sim {

using velmor::q47::seqlock::kNextPacket;
using velmor::q47::seqlock::kSetPacketMode;
using velmor::q47::seqlock::Notification;
using velmor::q47::seqlock::StreamDevice;

namespace {

/// @return The register of a file; none when the file is not a register's.
std::optional<SequencerRegister> registerAt(std::string const& aPath) {
    std::string_view const path(aPath);
    if (!path.starts_with(SequencerDriver::kRegisters)) {
        return std::nullopt;
    }
    return RegisterFile::find(path.substr(SequencerDriver::kRegisters.size()));
}

} // namespace

/// The notification file as somebody has it open.
class SequencerDriver::EventFile final : public Notification {
public:
    explicit EventFile(std::shared_ptr<SequencerDriver> aDriver)
        : mDriver(std::move(aDriver)) {}

    ssize_t read(char* aBuffer, std::size_t aSize) override {
        auto const lock = mDriver->enter();
        mSeen = mDriver->mSequencer.interrupts();
        std::string const text = std::to_string(*mSeen) + "\n";
        std::size_t const bytes = std::min(aSize, text.size());
        std::copy_n(text.begin(), bytes, aBuffer);
        return static_cast<ssize_t>(bytes);
    }

    int wait(std::chrono::seconds aSeconds, std::chrono::microseconds aMicroseconds) override {
        auto lock = mDriver->enter();
        bool const came = mDriver->mClock->waitFor(mDriver->mEvents, lock, aSeconds + aMicroseconds,
                                                   [&] { return mSeen != mDriver->mSequencer.interrupts(); });
        return came ? 1 : 0;
    }

private:
    std::shared_ptr<SequencerDriver> const mDriver;
    std::optional<std::uint64_t> mSeen; ///< None before the first read: ready at once.
};

/// Collects what is written to a memory device. Each flush hands over all of it so far.
class SequencerDriver::MemoryBuffer final : public std::streambuf {
public:
    MemoryBuffer(std::shared_ptr<SequencerDriver> aDriver, bool aProgram)
        : mDriver(std::move(aDriver))
        , mProgram(aProgram) {}
    ~MemoryBuffer() override { MemoryBuffer::sync(); }
    MemoryBuffer(MemoryBuffer const&) = delete;
    MemoryBuffer& operator=(MemoryBuffer const&) = delete;

protected:
    int_type overflow(int_type aCharacter) override {
        if (!traits_type::eq_int_type(aCharacter, traits_type::eof())) {
            mImage.push_back(static_cast<std::uint8_t>(traits_type::to_char_type(aCharacter)));
            mFresh = true;
        }
        return traits_type::not_eof(aCharacter);
    }

    std::streamsize xsputn(char const* aCharacters, std::streamsize aCount) override {
        mImage.insert(mImage.end(), aCharacters, aCharacters + aCount);
        mFresh = mFresh || aCount > 0;
        return aCount;
    }

    int sync() override {
        if (!std::exchange(mFresh, false)) {
            return 0;
        }
        auto const lock = mDriver->enter();
        if (mProgram) {
            mDriver->mSequencer.loadProgram(mImage);
        } else {
            mDriver->mSequencer.loadWindow(mImage);
        }
        mDriver->changed();
        return 0;
    }

private:
    std::shared_ptr<SequencerDriver> const mDriver;
    bool const mProgram; ///< Or else the window.
    bool mFresh = false;
    std::vector<std::uint8_t> mImage;
};

class SequencerDriver::MemoryStream final : public std::ostream {
public:
    MemoryStream(std::shared_ptr<SequencerDriver> aDriver, bool aProgram)
        : std::ostream(nullptr)
        , mBuffer(std::move(aDriver), aProgram) {
        init(&mBuffer);
    }

private:
    MemoryBuffer mBuffer;
};

/// A DMA device as somebody has it open.
class SequencerDriver::Device final : public StreamDevice {
public:
    Device(std::shared_ptr<SequencerDriver> aDriver, std::string aPath, PacketQueue& aQueue)
        : mDriver(std::move(aDriver))
        , mPath(std::move(aPath))
        , mQueue(aQueue) {}

    int ioctl(unsigned long aRequest, unsigned long aArgument) override {
        auto const lock = mDriver->enter();
        if (int const error = mDriver->faults().ioctlErrno(mPath); error != 0) {
            return failure(error);
        }
        if (aRequest == kSetPacketMode) {
            mPacketMode = aArgument != 0;
            return 0;
        }
        if (aRequest == kNextPacket) {
            if (!mPacketMode) {
                return failure(EINVAL);
            }
            mPacket.reset();
            return 0;
        }
        return failure(ENOTTY);
    }

    ssize_t read(unsigned char* aBuffer, std::size_t aSize) override {
        auto const lock = mDriver->enter();
        if (int const error = mDriver->faults().readErrno(mPath); error != 0) {
            return failure(error);
        }
        if (mDriver->faults().endlessStreams()) {
            std::memset(aBuffer, 0, aSize);
            return static_cast<ssize_t>(aSize);
        }
        if (!takePacket()) {
            return failure(EAGAIN);
        }
        std::size_t const bytes = std::min(aSize, mPacket->size() - mRead);
        std::copy_n(mPacket->begin() + static_cast<std::ptrdiff_t>(mRead), bytes, aBuffer);
        mRead += bytes;
        if (!mPacketMode && mRead == mPacket->size()) {
            mPacket.reset();
        }
        return static_cast<ssize_t>(bytes);
    }

    int waitReadable(std::chrono::seconds aTimeout) override {
        auto lock = mDriver->enter();
        bool const readable = mDriver->mClock->waitFor(mDriver->mEvents, lock, aTimeout, [&] {
            return mPacket || !mQueue.empty() || mDriver->faults().endlessStreams() ||
                   mDriver->faults().readErrno(mPath) != 0;
        });
        return readable ? 1 : 0;
    }

private:
    static int failure(int aErrno) noexcept {
        errno = aErrno;
        return -1;
    }

    /// @return Whether there is a packet at hand, be it at its end.
    bool takePacket() {
        if (mPacket) {
            return true;
        }
        if (mQueue.empty()) {
            return false;
        }
        mPacket = mQueue.pop();
        mRead = 0;
        if (std::size_t const rest = mDriver->faults().takeTruncation(mPath); rest < mPacket->size()) {
            mPacket->resize(rest);
        }
        return true;
    }

    std::shared_ptr<SequencerDriver> const mDriver;
    std::string const mPath;
    PacketQueue& mQueue; ///< The driver's.
    bool mPacketMode = false;
    std::optional<PacketQueue::Packet> mPacket; ///< The one being read, to be left by the next packet call.
    std::size_t mRead = 0;
};

SequencerDriver::SequencerDriver(std::shared_ptr<Clock> aClock,
                                 std::shared_ptr<Magnet> aMagnet,
                                 std::shared_ptr<Mainboard> aMainboard,
                                 Sequencer::Options const& aOptions,
                                 Pace aPace)
    : mClock(std::move(aClock))
    , mMagnet(std::move(aMagnet))
    , mMainboard(std::move(aMainboard))
    , mSequencer(aOptions, *mMagnet, *mMainboard, mFaults) {
    mMainboard->setTransmitterObserver([this] {
        auto const lock = enter();
        mSequencer.transmitterChanged(mClock->now());
        changed();
    });
    if (aPace == Pace::Clock) {
        mThread = std::thread([this] { run(); });
    }
}

SequencerDriver::~SequencerDriver() {
    mMainboard->setTransmitterObserver(nullptr);
    {
        auto const lock = enter();
        mStop = true;
        mWork.notify_all();
    }
    if (mThread.joinable()) {
        mThread.join();
    }
}

void SequencerDriver::run() {
    velmor::kepla::utils::nameThisThread("sim-sequencer");
    auto lock = enter();
    while (!mStop) {
        auto const due = mSequencer.due();
        if (!due) {
            mWork.wait(lock);
        } else if (mClock->now() < *due) {
            mClock->waitUntil(mWork, lock, *due);
        } else {
            mSequencer.skipTo(mClock->now());
            mSequencer.advance();
            mEvents.notify_all();
            lock.unlock();
            lock = enter();
        }
    }
}

bool SequencerDriver::step() {
    auto const lock = enter();
    if (!mSequencer.due()) {
        return false;
    }
    std::uint64_t const before = mSequencer.acquisitions();
    while (mSequencer.due() && mSequencer.acquisitions() == before && !mFaults.stoppedAcquisition()) {
        mSequencer.advance();
    }
    mEvents.notify_all();
    return true;
}

std::int32_t SequencerDriver::h0Count() {
    auto const lock = enter();
    return mSequencer.h0Count();
}

std::unique_lock<std::mutex> SequencerDriver::enter() {
    std::lock_guard const turn(mTurn);
    return std::unique_lock(mMutex);
}

/// Something happened under the lock that the thread or a waiting reader may have to know.
void SequencerDriver::changed() {
    mWork.notify_all();
    mEvents.notify_all();
}

bool SequencerDriver::available(std::string const& aPath) const {
    if (int const error = mFaults.openErrno(aPath); error != 0) {
        errno = error;
        return false;
    }
    return true;
}

bool SequencerDriver::canRead(std::string const& aPath) {
    return available(aPath) && (registerAt(aPath) || aPath == kNotification);
}

bool SequencerDriver::canWrite(std::string const& aPath) {
    auto const reg = registerAt(aPath);
    return available(aPath) && reg && RegisterFile::row(*reg).access != RegisterFile::Access::ReadOnly;
}

std::string SequencerDriver::readRegister(std::string const& aPath) {
    auto const reg = registerAt(aPath);
    if (!reg || !available(aPath)) {
        return {};
    }
    auto const lock = enter();
    return mSequencer.read(*reg, mClock->now());
}

void SequencerDriver::writeRegister(std::string const& aPath, std::string const& aText) {
    auto const reg = registerAt(aPath);
    if (!reg || !available(aPath)) {
        return;
    }
    auto const lock = enter();
    mSequencer.write(*reg, aText, mClock->now());
    changed();
}

std::unique_ptr<Notification> SequencerDriver::openNotification(std::string const& aPath) {
    if (!available(aPath)) {
        return nullptr;
    }
    if (aPath != kNotification) {
        errno = ENOENT;
        return nullptr;
    }
    return std::make_unique<EventFile>(shared_from_this());
}

std::unique_ptr<std::ostream> SequencerDriver::openMemory(std::string const& aPath) {
    if (!available(aPath) || (aPath != kProgramDevice && aPath != kWindowDevice)) {
        auto closed = std::make_unique<std::ostream>(nullptr);
        closed->setstate(std::ios::failbit);
        return closed;
    }
    return std::make_unique<MemoryStream>(shared_from_this(), aPath == kProgramDevice);
}

std::unique_ptr<StreamDevice> SequencerDriver::openStream(std::string const& aPath) {
    if (!available(aPath)) {
        return nullptr;
    }
    struct Place {
        std::string_view path;
        PacketQueue& queue;
    };
    for (Place const& place : {Place{kTimeDomainDevice, mSequencer.timeDomain()},
                               Place{kFrequencyDomainDevice, mSequencer.frequencyDomain()},
                               Place{kRecordDevice, mSequencer.records()}}) {
        if (aPath == place.path) {
            return std::make_unique<Device>(shared_from_this(), aPath, place.queue);
        }
    }
    errno = ENOENT;
    return nullptr;
}

} // namespace libfieldwarden::sim
