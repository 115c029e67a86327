// SPDX-License-Identifier: Apache-2.0
// The bus within the process: queues, arbitration, occupation of the bus, faults.
#include <velmor/kepla/canopen/CanFrameBits.h>
#include <velmor/kepla/canopen/InProcessBus.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace velmor::kepla::canopen {

using velmor::platform::Clock;

namespace {

using Duration = Clock::Duration;
using TimePoint = Clock::TimePoint;
using Reason = CanLinkError::Reason;

constexpr TimePoint kNever = TimePoint::max();

/// The most by which a participant may lag behind the bus: see Port::lag.
constexpr Duration kMaximalLag = std::chrono::milliseconds(10);

/// Looks at an empty queue before a receiver goes to sleep: at the most, and where looking was in vain
/// lately. The most is some 20 us, which is what falling asleep and waking costs.
constexpr unsigned kMostLooks = 400;
constexpr unsigned kFewestLooks = 8;

void relax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield"); // NOLINT(hicpp-no-assembler)
#endif
}

/// A frame in a receiver's queue.
struct Received {
    CanFrame frame;
    TimePoint arrival; ///< With a bit rate.
};

/// Received frames in order, at most so many; memory comes with the first frames.
class FrameQueue {
public:
    explicit FrameQueue(std::size_t aLimit)
        : mLimit(aLimit) {}

    bool empty() const noexcept { return mSize == 0; }

    bool push(Received const& aFrame) {
        if (mSize == mFrames.size()) {
            if (mSize == mLimit) {
                return false;
            }
            std::rotate(mFrames.begin(), mFrames.begin() + static_cast<std::ptrdiff_t>(mFirst),
                        mFrames.end());
            mFirst = 0;
            mFrames.resize(std::min(mLimit, std::max<std::size_t>(16, 2 * mSize)));
        }
        mFrames[(mFirst + mSize) % mFrames.size()] = aFrame;
        ++mSize;
        return true;
    }

    Received pop() noexcept {
        Received const frame = mFrames[mFirst];
        mFirst = (mFirst + 1) % mFrames.size();
        --mSize;
        return frame;
    }

    void clear() noexcept { mSize = 0; }

private:
    std::size_t mLimit;
    std::vector<Received> mFrames;
    std::size_t mFirst = 0;
    std::size_t mSize = 0;
};

std::string_view wordsOf(Reason aReason) {
    switch (aReason) {
        case Reason::InterfaceMissing:
            return "No such device";
        case Reason::InterfaceDown:
            return "Network is down";
        case Reason::BusOff:
            return "The controller is bus-off";
        case Reason::TransmitQueueFull:
            return "The transmit queue is full";
        case Reason::Io:
            break;
    }
    return "Input/output error";
}

/// Whether it is a node that sends this frame (predefined connection set, CiA 301 7.3.3). A remote frame of
/// one of its identifiers is for the node, not from it.
bool comesFrom(CanFrame const& aFrame, std::uint8_t aNode) noexcept {
    if (aFrame.remote) {
        return false;
    }
    switch (aFrame.id & 0x780U) {
        case 0x080: // emergency
        case 0x180: // transmit PDO 1 to 4
        case 0x280:
        case 0x380:
        case 0x480:
        case 0x580: // SDO answer
        case 0x700: // boot-up, heartbeat, answer to node guarding
            return (aFrame.id & 0x7FU) == aNode;
        default:
            return false;
    }
}

/// Whether a frame wins the bus from another (ISO 11898-1, arbitration field: identifier, remote bit).
bool moreUrgent(CanFrame const& aFrame, CanFrame const& aOther) noexcept {
    return aFrame.id != aOther.id ? aFrame.id < aOther.id : !aFrame.remote && aOther.remote;
}

} // namespace

class InProcessBus::Shared {
public:
    /// What the bus keeps of a channel.
    struct Port {
        Port(std::string aName, std::vector<CanFilter> aFilters, std::size_t aQueue)
            : name(std::move(aName))
            , filters(std::move(aFilters))
            , received(aQueue) {}

        std::string const name;
        std::vector<CanFilter> const filters;
        FrameQueue received;
        std::size_t waitingFrames = 0; ///< Own frames that wait for the bus.
        std::optional<Reason> fault;
        bool interrupted = false;
        bool sleeping = false;             ///< Its reader sleeps.
        std::atomic<bool> changed = false; ///< There is something for its reader to look at.
        unsigned looks = kFewestLooks;     ///< Before its reader goes to sleep; its reader's.
        Duration lag{}; ///< By how much its reader woke too late for the frame it has last waited for.
        std::condition_variable wake; ///< Of its reader.
        std::condition_variable room; ///< Of its senders that wait for room.
    };
    using PortPtr = std::shared_ptr<Port>;

    Shared(InProcessBusSettings const& aSettings, Clock& aClock)
        : mSettings(aSettings)
        , mClock(aClock)
        , mBitRate(aSettings.bitRate) {}

    PortPtr open(std::string const& aName, std::vector<CanFilter> aFilters) {
        std::lock_guard const lock(mMutex);
        auto port = std::make_shared<Port>(aName, std::move(aFilters), mSettings.receiveQueue);
        port->fault = faultOf(aName);
        if (port->fault == Reason::InterfaceMissing || port->fault == Reason::InterfaceDown) {
            throw CanLinkError(*port->fault, "Cannot open CAN interface '" + aName +
                                                 "': " + std::string(wordsOf(*port->fault)));
        }
        mPorts.push_back(port);
        return port;
    }

    void close(PortPtr const& aPort) {
        std::lock_guard const lock(mMutex);
        loseWaiting(*aPort);
        std::erase(mPorts, aPort);
    }

    void send(Port& aPort, CanFrame const& aFrame);
    std::optional<CanFrame> receive(Port& aPort, Duration aTimeout);

    void interrupt(Port& aPort) {
        std::unique_lock lock(mMutex);
        aPort.interrupted = true;
        touch(aPort);
        wakeTouched(lock);
    }

    void setBitRate(std::uint32_t aBitRate) {
        std::unique_lock lock(mMutex);
        moveOn();
        mBitRate = aBitRate;
        touchAll();
        wakeTouched(lock);
    }

    void hold(bool aHeld) {
        std::unique_lock lock(mMutex);
        moveOn();
        mHeld = aHeld;
        if (!aHeld) {
            mBusFree = std::max(mBusFree, mClock.now());
        }
        moveOn();
        touchAll();
        wakeTouched(lock);
    }

    FaultId inject(BusFault aFault) {
        std::lock_guard const lock(mMutex);
        mFaults.emplace_back(++mLastFault, std::move(aFault));
        return mLastFault;
    }

    void heal(FaultId aFault) {
        std::lock_guard const lock(mMutex);
        std::erase_if(mFaults, [&](auto const& aEntry) { return aEntry.first == aFault; });
    }

    void healAll() {
        std::lock_guard const lock(mMutex);
        mFaults.clear();
        mSilent.clear();
        mBroken.clear();
        for (PortPtr const& port : mPorts) {
            port->fault.reset();
        }
    }

    void silence(std::uint8_t aNode, bool aSilent) {
        std::lock_guard const lock(mMutex);
        if (aSilent) {
            mSilent.insert(aNode);
        } else {
            mSilent.erase(aNode);
        }
    }

    void failLink(Reason aReason, std::string const& aName) {
        std::unique_lock lock(mMutex);
        moveOn();
        mBroken.insert_or_assign(aName, aReason);
        for (PortPtr const& port : mPorts) {
            if (aName.empty() || port->name == aName) {
                port->fault = aReason;
                loseWaiting(*port);
                if (aReason != Reason::TransmitQueueFull) {
                    port->received.clear();
                }
                touch(*port);
            }
        }
        wakeTouched(lock);
    }

    void mendLink(std::string const& aName) {
        std::lock_guard const lock(mMutex);
        if (aName.empty()) {
            mBroken.clear();
        } else {
            mBroken.erase(aName);
        }
        for (PortPtr const& port : mPorts) {
            port->fault = faultOf(port->name);
        }
    }

    BusCounters counters() {
        std::unique_lock lock(mMutex);
        moveOn();
        wakeTouched(lock);
        return mCounters;
    }

private:
    /// A frame that waits for the bus, or is on it.
    struct Waiting {
        CanFrame frame;
        Port* sender = nullptr;
        TimePoint ready; ///< Not before.
    };

    std::optional<Reason> faultOf(std::string const& aName) const {
        if (auto const own = mBroken.find(aName); own != mBroken.end()) {
            return own->second;
        }
        auto const all = mBroken.find({});
        return all != mBroken.end() ? std::optional(all->second) : std::nullopt;
    }

    void loseWaiting(Port& aPort) {
        mCounters.dropped += std::erase_if(mWaiting, [&](Waiting const& w) { return w.sender == &aPort; });
        if (mOnBus && mOnBus->sender == &aPort) {
            mOnBus.reset();
            ++mCounters.dropped;
        }
        aPort.waitingFrames = 0;
        aPort.room.notify_all();
    }

    static void throwIf(Port const& aPort, bool aSending) {
        if (aPort.fault && (aSending || aPort.fault != Reason::TransmitQueueFull)) {
            throw CanLinkError(*aPort.fault, "CAN interface '" + aPort.name +
                                                 "' failed: " + std::string(wordsOf(*aPort.fault)));
        }
    }

    static bool wants(Port const& aPort, CanFrame const& aFrame) {
        return aPort.filters.empty() ||
               std::any_of(aPort.filters.begin(), aPort.filters.end(), [&](CanFilter const& aFilter) {
                   return (aFrame.id & aFilter.mask) == (aFilter.id & aFilter.mask);
               });
    }

    bool reaches(Port const& aPort, Waiting const& aWaiting) const {
        return &aPort != aWaiting.sender && wants(aPort, aWaiting.frame);
    }

    /// Whether a frame that reaches the port is on its way. If not, none comes before somebody sends again.
    bool concerns(Port const& aPort) const {
        return (mOnBus && reaches(aPort, *mOnBus)) ||
               std::any_of(mWaiting.begin(), mWaiting.end(),
                           [&](Waiting const& aWaiting) { return reaches(aPort, aWaiting); });
    }

    /// There is nothing that a frame would have to wait for or that could happen to it.
    bool plain() const noexcept {
        return mBitRate == 0 && mWaiting.empty() && !mOnBus && !mHeld && mFaults.empty() && mSilent.empty();
    }

    /// Marks a port as having something to look at; wakeTouched() follows.
    void touch(Port& aPort) noexcept {
        aPort.changed.store(true, std::memory_order_release);
        mTouched = mTouched || aPort.sleeping;
    }

    void touchAll() noexcept {
        for (PortPtr const& port : mPorts) {
            touch(*port);
        }
    }

    /// Wakes the sleepers among the touched ports, after the lock is given back, so that they do not wake
    /// only to wait for it.
    void wakeTouched(std::unique_lock<std::mutex>& aLock) {
        if (!mTouched) {
            return;
        }
        mTouched = false;
        std::array<PortPtr, 4> woken;
        std::size_t count = 0;
        for (PortPtr const& port : mPorts) {
            if (!port->sleeping || !port->changed.load(std::memory_order_relaxed)) {
                continue;
            }
            if (count < woken.size()) {
                woken[count++] = port;
            } else {
                port->wake.notify_all();
            }
        }
        aLock.unlock();
        for (std::size_t i = 0; i < count; ++i) {
            woken[i]->wake.notify_all();
        }
        aLock.lock();
    }

    void deliver(CanFrame const& aFrame, Port const* aSender, TimePoint aArrival) {
        for (PortPtr const& port : mPorts) {
            if (port.get() == aSender || !wants(*port, aFrame)) {
                continue;
            }
            if (port->fault && port->fault != Reason::TransmitQueueFull) {
                ++mCounters.dropped;
            } else if (port->received.push({aFrame, aArrival})) {
                ++mCounters.delivered;
                touch(*port);
            } else {
                ++mCounters.overflowed;
            }
        }
    }

    void queueWithFaults(Port& aPort, CanFrame const& aFrame);
    void waitForRoom(std::unique_lock<std::mutex>& aLock, Port& aPort);
    void moveOn();
    void arbitrate(TimePoint aStart);
    TimePoint nextEvent() const;
    void sleep(std::unique_lock<std::mutex>& aLock, Port& aPort, TimePoint aUntil);
    CanFrame take(Port& aPort, TimePoint aEntered);
    static void lookForChange(std::unique_lock<std::mutex>& aLock, Port& aPort);

    InProcessBusSettings const mSettings;
    Clock& mClock;

    std::mutex mMutex; ///< Guards all below and the ports.
    std::uint32_t mBitRate;
    std::vector<PortPtr> mPorts;
    std::vector<Waiting> mWaiting; ///< In the order in which they were sent.
    std::optional<Waiting> mOnBus; ///< With a bit rate: the frame on the bus.
    TimePoint mArrival;            ///< Its end.
    TimePoint mBusFree;            ///< When the next frame may start.
    bool mHeld = false;
    bool mTouched = false; ///< Some touched port sleeps.
    std::vector<std::pair<FaultId, BusFault>> mFaults;
    FaultId mLastFault = 0;
    std::set<std::uint8_t> mSilent;
    std::map<std::string, Reason> mBroken; ///< By channel name; empty: all.
    BusCounters mCounters;
};

void InProcessBus::Shared::send(Port& aPort, CanFrame const& aFrame) {
    if (aFrame.id > 0x7FF || aFrame.length > aFrame.data.size()) {
        throw std::invalid_argument("A CAN frame has an identifier up to 0x7FF and up to 8 bytes");
    }
    std::unique_lock lock(mMutex);
    throwIf(aPort, true);
    if (plain()) {
        ++mCounters.sent;
        deliver(aFrame, &aPort, {});
    } else {
        waitForRoom(lock, aPort);
        ++mCounters.sent;
        queueWithFaults(aPort, aFrame);
        moveOn();
        touchAll(); // the receivers reckon anew how long to sleep
    }
    wakeTouched(lock);
}

void InProcessBus::Shared::waitForRoom(std::unique_lock<std::mutex>& aLock, Port& aPort) {
    TimePoint const deadline = mClock.now() + mSettings.sendTimeout;
    while (true) {
        moveOn();
        wakeTouched(aLock);
        throwIf(aPort, true);
        if (aPort.waitingFrames < mSettings.transmitQueue) {
            return;
        }
        if (mClock.now() >= deadline) {
            throw CanLinkError(Reason::TransmitQueueFull,
                               "CAN interface '" + aPort.name +
                                   "' failed: " + std::string(wordsOf(Reason::TransmitQueueFull)));
        }
        mClock.waitUntil(aPort.room, aLock, std::min(deadline, nextEvent()));
    }
}

/// Puts a frame into the line for the bus, or what the faults leave of it.
void InProcessBus::Shared::queueWithFaults(Port& aPort, CanFrame const& aFrame) {
    Waiting waiting{aFrame, &aPort, mClock.now() - aPort.lag};
    std::size_t copies = 1;
    if (std::any_of(mSilent.begin(), mSilent.end(),
                    [&](std::uint8_t aNode) { return comesFrom(aFrame, aNode); })) {
        ++mCounters.dropped;
        return;
    }
    for (auto& [id, fault] : mFaults) {
        if (fault.count == 0 || (fault.matches && !fault.matches(aFrame))) {
            continue;
        }
        if (fault.skip > 0) {
            --fault.skip;
            continue;
        }
        fault.count -= fault.count == BusFault::kAlways ? 0U : 1U;
        switch (fault.action) {
            case BusFault::Action::Drop:
                ++mCounters.dropped;
                return;
            case BusFault::Action::Duplicate:
                ++mCounters.duplicated;
                copies = 2;
                break;
            case BusFault::Action::Corrupt:
                ++mCounters.corrupted;
                for (std::size_t i = 0; i < aFrame.length && !aFrame.remote; ++i) {
                    waiting.frame.data[i] ^= fault.corruption[i];
                }
                break;
            case BusFault::Action::Delay:
                ++mCounters.delayed;
                waiting.ready += fault.delay;
                break;
        }
        break;
    }
    mWaiting.insert(mWaiting.end(), copies, waiting);
    aPort.waitingFrames += copies;
}

/// Brings the bus to the present: frames arrive, the next ones start.
void InProcessBus::Shared::moveOn() {
    if (mWaiting.empty() && !mOnBus) {
        return;
    }
    TimePoint const now = mClock.now();
    while (true) {
        if (mOnBus) {
            if (now < mArrival) {
                return;
            }
            Waiting const arrived = *mOnBus;
            mOnBus.reset();
            deliver(arrived.frame, arrived.sender, mArrival);
        }
        TimePoint const start = nextEvent();
        if (start > now) {
            return;
        }
        arbitrate(start);
    }
}

/// Lets the most urgent of the frames that wait at this time have the bus.
void InProcessBus::Shared::arbitrate(TimePoint aStart) {
    auto winner = mWaiting.end();
    for (auto waiting = mWaiting.begin(); waiting != mWaiting.end(); ++waiting) {
        if (waiting->ready <= aStart &&
            (winner == mWaiting.end() || moreUrgent(waiting->frame, winner->frame))) {
            winner = waiting;
        }
    }
    Port& sender = *winner->sender;
    --sender.waitingFrames;
    sender.room.notify_all();
    mOnBus = *winner;
    mWaiting.erase(winner);
    mArrival = aStart;
    mBusFree = aStart;
    if (mBitRate != 0) {
        auto const durationOf = [&](std::uint64_t aBits) {
            return Duration(static_cast<Duration::rep>(aBits * 1'000'000'000U / mBitRate));
        };
        unsigned const bits = canFrameBits(mOnBus->frame);
        mArrival += durationOf(bits);
        mBusFree += durationOf(bits + kCanInterframeBits);
        mCounters.bits += bits + kCanInterframeBits;
    }
}

/// When something happens by itself: the frame on the bus arrives, or the next one starts.
TimePoint InProcessBus::Shared::nextEvent() const {
    if (mOnBus) {
        return mArrival;
    }
    TimePoint ready = kNever;
    if (!mHeld) {
        for (Waiting const& waiting : mWaiting) {
            ready = std::min(ready, waiting.ready);
        }
    }
    return std::max(ready, mBusFree);
}

std::optional<CanFrame> InProcessBus::Shared::receive(Port& aPort, Duration aTimeout) {
    std::unique_lock lock(mMutex);
    TimePoint const entered = mBitRate != 0 ? mClock.now() - aPort.lag : TimePoint{};
    TimePoint deadline = kNever;
    bool looked = false;
    while (true) {
        aPort.changed.store(false, std::memory_order_relaxed);
        moveOn();
        wakeTouched(lock);
        throwIf(aPort, false);
        if (std::exchange(aPort.interrupted, false)) {
            return std::nullopt;
        }
        if (!aPort.received.empty()) {
            return take(aPort, entered);
        }
        if (aTimeout <= Duration::zero()) {
            return std::nullopt;
        }
        if (!std::exchange(looked, true) && plain()) {
            lookForChange(lock, aPort);
            continue;
        }
        TimePoint const now = mClock.now();
        if (deadline == kNever && aTimeout < kNever - now) {
            deadline = now + aTimeout;
        }
        if (now >= deadline) {
            return std::nullopt;
        }
        sleep(lock, aPort, std::min(deadline, concerns(aPort) ? nextEvent() : kNever));
    }
}

/// Takes a frame out of the queue. A thread of this process wakes later than the hardware of a node would
/// notice the frame; what the port sends next is dated back by that much, so that the bus keeps its speed
/// whatever the machine's timers and its load are. Only the lateness of a reader that had waited for the
/// frame counts.
CanFrame InProcessBus::Shared::take(Port& aPort, TimePoint aEntered) {
    Received const received = aPort.received.pop();
    if (mBitRate == 0) {
        aPort.lag = {};
    } else {
        aPort.lag = aEntered <= received.arrival ? std::min(kMaximalLag, mClock.now() - received.arrival)
                                                 : Duration{};
    }
    return received.frame;
}

/// Sleeps until something changes for the port or the time has come.
void InProcessBus::Shared::sleep(std::unique_lock<std::mutex>& aLock, Port& aPort, TimePoint aUntil) {
    if (aPort.changed.load(std::memory_order_relaxed)) {
        return; // while the lock was given back
    }
    aPort.sleeping = true;
    if (aUntil == kNever) {
        aPort.wake.wait(aLock);
    } else {
        mClock.waitUntil(aPort.wake, aLock, aUntil);
    }
    aPort.sleeping = false;
}

/// Looks for a while whether something comes, before the reader goes to sleep: for longer where that was of
/// use lately, for next to nothing on an idle bus.
void InProcessBus::Shared::lookForChange(std::unique_lock<std::mutex>& aLock, Port& aPort) {
    aLock.unlock();
    unsigned left = aPort.looks;
    while (left > 0 && !aPort.changed.load(std::memory_order_acquire)) {
        relax();
        --left;
    }
    aPort.looks = left > 0 ? std::min(kMostLooks, 2 * aPort.looks) : std::max(kFewestLooks, aPort.looks / 2);
    aLock.lock();
}

class InProcessBus::Channel final : public CanChannel {
public:
    Channel(std::shared_ptr<Shared> aBus, Shared::PortPtr aPort)
        : mBus(std::move(aBus))
        , mPort(std::move(aPort)) {}
    ~Channel() override { mBus->close(mPort); }
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;

    std::string name() const override { return mPort->name; }
    void send(CanFrame const& aFrame) override { mBus->send(*mPort, aFrame); }
    std::optional<CanFrame> receive(Duration aTimeout) override { return mBus->receive(*mPort, aTimeout); }
    void interrupt() override { mBus->interrupt(*mPort); }

private:
    std::shared_ptr<Shared> mBus;
    Shared::PortPtr mPort;
};

InProcessBus::InProcessBus(InProcessBusSettings const& aSettings, Clock& aClock)
    : mShared(std::make_shared<Shared>(aSettings, aClock)) {
    if (aSettings.transmitQueue == 0 || aSettings.receiveQueue == 0) {
        throw std::invalid_argument("A CAN bus needs room for at least one frame");
    }
}

InProcessBus::~InProcessBus() = default;

std::unique_ptr<CanChannel> InProcessBus::open(std::string const& aName, std::vector<CanFilter> aFilters) {
    return std::make_unique<Channel>(mShared, mShared->open(aName, std::move(aFilters)));
}

void InProcessBus::setBitRate(std::uint32_t aBitRate) {
    mShared->setBitRate(aBitRate);
}

void InProcessBus::hold() {
    mShared->hold(true);
}

void InProcessBus::release() {
    mShared->hold(false);
}

InProcessBus::FaultId InProcessBus::inject(BusFault aFault) {
    return mShared->inject(std::move(aFault));
}

void InProcessBus::heal(FaultId aFault) {
    mShared->heal(aFault);
}

void InProcessBus::healAll() {
    mShared->healAll();
}

void InProcessBus::silence(std::uint8_t aNode, bool aSilent) {
    mShared->silence(aNode, aSilent);
}

void InProcessBus::failLink(CanLinkError::Reason aReason, std::string const& aName) {
    mShared->failLink(aReason, aName);
}

void InProcessBus::mendLink(std::string const& aName) {
    mShared->mendLink(aName);
}

BusCounters InProcessBus::counters() const {
    return mShared->counters();
}

} // namespace velmor::kepla::canopen
