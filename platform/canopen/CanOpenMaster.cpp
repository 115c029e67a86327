// SPDX-License-Identifier: Apache-2.0
// Receiving in turns, and what each frame of the bus means to the master.
#include <velmor/kepla/canopen/CanOpenMaster.h>

#include <velmor/kepla/canopen/EmergencyMessage.h>
#include <velmor/kepla/canopen/SdoError.h>
#include <velmor/kepla/utils/ThreadName.h>
#include <velmor/platform/Backend.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace velmor::kepla::canopen {

using velmor::kepla::log::Severity;
using velmor::platform::Clock;

namespace {

constexpr unsigned kNodes = 127;

/// Function codes of the pre-defined connection set (CiA 301): the identifier without the node.
constexpr std::uint32_t kNodeMask = 0x07F;
constexpr std::uint32_t kNmt = 0x000;
constexpr std::uint32_t kEmergency = 0x080;
constexpr std::uint32_t kSdoAnswer = 0x580;
constexpr std::uint32_t kErrorControl = 0x700;

/// How long the bus must be without a transfer until the thread receives again: so it does not come between
/// the transfers of a series. On the machine's own clock, for it is about processor time only.
constexpr Clock::Duration kQuietTime = std::chrono::milliseconds(20);

/// Pause between two attempts to receive on a broken link.
constexpr Clock::Duration kLinkRetry = std::chrono::milliseconds(100);

/// Longest single wait for a frame where nothing else is due.
constexpr Clock::Duration kLongWait = std::chrono::hours(1);

/// The settings as the process's clock needs them: a simulated board has only the machine's time for an
/// answer.
SdoClientSettings patient(SdoClientSettings aSettings) {
    aSettings.responseTimeout = Clock::current().patience(aSettings.responseTimeout);
    return aSettings;
}

} // namespace

/// Somebody who sleeps until another one has received his frame.
struct CanOpenMaster::Waiter {
    std::condition_variable changed;
    std::exception_ptr fault; ///< The link broke while he slept.
};

/// Tells a node's heartbeats from its answers to node guarding, and the answers that count from those that do
/// not. Both come with the same identifier. The toggle bit is 0 in a heartbeat and in the first answer after
/// a boot-up, and alternates from answer to answer; an answer that repeats it is handled as if it had not
/// been received (CiA 301, node guarding).
class GuardToggle {
public:
    /// Somebody asks the node.
    void onRequest() noexcept { mAsked = true; }

    void onBootUp() noexcept {
        mLast = true;
        mAsked = false;
        mGuards = false;
    }

    /// @param aToggle  The toggle bit of a state that the node has sent.
    /// @return Whether it counts.
    bool onState(bool aToggle) noexcept {
        bool const asked = std::exchange(mAsked, false);
        if (!aToggle && !asked && !mGuards) {
            return true; // A heartbeat.
        }
        if (mLast != aToggle) {
            mLast = aToggle;
            mGuards = mGuards || aToggle;
            return true;
        }
        if (aToggle || (asked && mGuards)) {
            return false;
        }
        mGuards = false; // Zeros that nobody has asked for: the node has begun to send its heartbeat.
        return true;
    }

private:
    std::optional<bool> mLast; ///< Toggle bit of the last answer, as far as known.
    bool mAsked = false;       ///< Somebody has asked since the node's last sign.
    bool mGuards = false;      ///< It has given an answer that can be no heartbeat, the bit being 1.
};

/// What the master keeps of one node.
struct CanOpenMaster::Node final : SdoFrameSink {
    /// Answers that have not been looked at yet. Larger than the longest series that a node may send unasked,
    /// the 127 segments of a block.
    class Inbox {
    public:
        bool empty() const noexcept { return mFirst == mEnd; }
        bool push(CanFrame const& aFrame) noexcept {
            if (mEnd - mFirst == mFrames.size()) {
                return false;
            }
            mFrames[mEnd++ % mFrames.size()] = aFrame;
            return true;
        }
        CanFrame pop() noexcept { return mFrames[mFirst++ % mFrames.size()]; }

    private:
        std::array<CanFrame, 256> mFrames{};
        std::size_t mFirst = 0;
        std::size_t mEnd = 0;
    };

    explicit Node(CanOpenMaster& aMaster)
        : master(aMaster) {}
    virtual ~Node() = default;
    Node(Node const&) = delete;
    Node& operator=(Node const&) = delete;
    void sendFrame(CanFrame const& aFrame) override {
        master.send(aFrame);
        ++framesSent;
    }

    CanOpenMaster& master;
    std::mutex turn; ///< Held by the turn under way, which alone uses the next two.
    std::unique_ptr<SdoClientCore>
        sdo; ///< Made with the first turn; outlives it, for it remembers what is late.
    std::size_t framesSent = 0;

    // Guarded by the master's mutex.
    std::unique_ptr<Inbox> inbox; ///< Made with the first turn.
    Waiter waiter;                ///< The turn's.
    NodeStatus status;
    GuardToggle guardToggle;
    Clock::Duration heartbeatTime{};
    Clock::TimePoint heartbeatDue;
    bool silent = false;     ///< The heartbeat is missing, which has been told.
    bool unanswered = false; ///< A transfer got no answer, and nothing was heard since.
};

std::shared_ptr<CanOpenMaster> CanOpenMaster::make(std::string const& aInterface, unsigned char aNodeId) {
    return std::make_shared<CanOpenMaster>(velmor::platform::Backend::current()->openCanChannel(aInterface),
                                           aNodeId);
}

CanOpenMaster::CanOpenMaster(std::unique_ptr<CanChannel> aChannel,
                             unsigned char aNodeId,
                             SdoClientSettings const& aSettings)
    : Logger("CanOpenMaster", "CANopen")
    , mChannel(std::move(aChannel))
    , mNodeId(aNodeId)
    , mSettings(patient(aSettings))
    , mClock(Clock::current())
    , mNodes([this] {
        std::vector<std::unique_ptr<Node>> nodes(kNodes + 1);
        std::generate(nodes.begin(), nodes.end(), [this] { return std::make_unique<Node>(*this); });
        return nodes;
    }()) {
    if (mChannel == nullptr) {
        throw std::invalid_argument("The CANopen master needs a CAN channel");
    }
    static_cast<void>(node(aNodeId));
    mThread = std::thread([this] { work(); });
}

CanOpenMaster::~CanOpenMaster() {
    {
        std::lock_guard const lock(mMutex);
        mStop = true;
        mQuiet.notify_all();
    }
    mChannel->interrupt();
    mThread.join();
}

std::string CanOpenMaster::interfaceName() const {
    return mChannel->name();
}

CanOpenMaster::Node& CanOpenMaster::node(unsigned char aNode) const {
    if (aNode == 0 || aNode > kNodes) {
        throw std::invalid_argument("A CANopen node is 1 to 127, not " + std::to_string(aNode));
    }
    return *mNodes[aNode];
}

// ---------------------------------------------------------------------------------------------- turns

CanOpenMaster::Turn::Turn(CanOpenMaster& aMaster, unsigned char aNode)
    : mMaster(aMaster)
    , mNode(aMaster.node(aNode))
    , mExclusive(mNode.turn) {
    if (mNode.sdo == nullptr) {
        mNode.sdo = std::make_unique<SdoClientCore>(aNode, mNode, mMaster.mSettings);
    }
    Lock lock(mMaster.mMutex);
    if (mNode.inbox == nullptr) {
        mNode.inbox = std::make_unique<Node::Inbox>();
    }
    ++mMaster.mActive;
    ++mMaster.mTurns;
    while (!mNode.inbox->empty()) { // Late ones. The protocol core must know of them.
        CanFrame const late = mNode.inbox->pop();
        lock.unlock();
        mNode.sdo->onFrame(late, mMaster.mClock.now());
        lock.lock();
    }
}

CanOpenMaster::Turn::~Turn() {
    std::lock_guard const lock(mMaster.mMutex);
    --mMaster.mActive;
}

std::span<std::uint8_t const> CanOpenMaster::Turn::upload(SdoObject aObject,
                                                          std::size_t aLimit,
                                                          SdoMode aMode) {
    SdoClientCore& sdo = *mNode.sdo;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (mMaster.givesUp(mNode)) {
            throw SdoTimeoutError(mNode.sdo->node(), aObject, "it left another request without an answer");
        }
        sdo.startUpload(aObject, aLimit, mMaster.mClock.now(), aMode);
        run();
        if (sdo.result().outcome != SdoOutcome::TimedOut) {
            break;
        }
    }
    sdo.throwUnlessDone();
    return sdo.data();
}

bool CanOpenMaster::Turn::sizeIsOpen() const noexcept {
    return mNode.sdo->result().sizeIsOpen;
}

void CanOpenMaster::Turn::download(SdoObject aObject,
                                   std::span<std::uint8_t const> aData,
                                   SdoMode aMode,
                                   Progress const& aProgress) {
    SdoClientCore& sdo = *mNode.sdo;
    for (int attempt = 0; attempt < 2; ++attempt) {
        sdo.startDownload(aObject, aData, aMode, mMaster.mClock.now());
        run(aProgress);
        if (sdo.result().outcome != SdoOutcome::TimedOut || sdo.result().requestSent) {
            break;
        }
    }
    sdo.throwUnlessDone();
}

/// Carries the transfer that has been started to its end.
void CanOpenMaster::Turn::run(Progress const& aProgress) {
    constexpr std::size_t kSegmentBytes = 7;
    SdoClientCore& sdo = *mNode.sdo;
    mNode.framesSent = 0;
    try {
        while (sdo.busy()) {
            if (auto const frame = receive(sdo.deadline())) {
                sdo.onFrame(*frame, mMaster.mClock.now());
            } else {
                sdo.onTime(mMaster.mClock.now());
                noteTimeOut();
            }
            if (aProgress) {
                aProgress(mNode.framesSent * kSegmentBytes);
            }
        }
    } catch (...) {
        try {
            sdo.cancel(); // Does nothing where the core has ended the transfer itself.
        } catch (CanLinkError const&) {
            // The node need not be told over a link that is broken.
        }
        throw;
    }
}

/// Keeps that the node has not answered, where its time was up.
void CanOpenMaster::Turn::noteTimeOut() {
    if (mNode.sdo->result().outcome == SdoOutcome::TimedOut) {
        std::lock_guard const lock(mMaster.mMutex);
        mNode.unanswered = true;
    }
}

std::optional<CanFrame> CanOpenMaster::Turn::receive(Clock::TimePoint aDeadline) {
    Lock lock(mMaster.mMutex);
    if (!mMaster.await(lock, mNode.waiter, aDeadline, [this] { return !mNode.inbox->empty(); })) {
        return std::nullopt;
    }
    return mNode.inbox->pop();
}

bool CanOpenMaster::givesUp(Node const& aNode) const {
    std::lock_guard const lock(mMutex);
    return mHasty && aNode.unanswered;
}

void CanOpenMaster::hasten() {
    std::lock_guard const lock(mMutex);
    mHasty = true;
}

void CanOpenMaster::send(CanFrame const& aFrame) {
    try {
        mChannel->send(aFrame);
    } catch (CanLinkError const& error) {
        std::lock_guard const lock(mMutex);
        linkLost(error.what());
        throw;
    }
}

// ---------------------------------------------------------------------------------------------- receiving

/// Waits until something has been received that makes a condition true: by receiving where nobody else does,
/// asleep otherwise.
/// @return Whether the condition holds.
template <typename Done>
bool CanOpenMaster::await(Lock& aLock, Waiter& aWaiter, TimePoint aDeadline, Done aDone) {
    struct Successor { // However this ends: if nobody receives, the next one who sleeps must.
        CanOpenMaster& master;
        ~Successor() { master.appoint(); }
    } const successor{*this};
    while (!aDone()) {
        if (aWaiter.fault != nullptr) {
            std::rethrow_exception(std::exchange(aWaiter.fault, nullptr));
        }
        if (mClock.now() >= aDeadline) {
            return false;
        }
        if (mReceiving) {
            mWaiters.push_back(&aWaiter);
            mClock.waitUntil(aWaiter.changed, aLock, aDeadline);
            std::erase(mWaiters, &aWaiter);
        } else {
            receiveOnce(aLock, aDeadline);
        }
    }
    aWaiter.fault = nullptr;
    return true;
}

/// Receives one frame, if one comes in time, and hands it to whom it concerns.
/// @throws CanLinkError  when the link is broken; the others who wait get the same error.
void CanOpenMaster::receiveOnce(Lock& aLock, TimePoint aDeadline) {
    std::optional<CanFrame> frame;
    std::exception_ptr fault;
    std::string why;
    mReceiving = true;
    aLock.unlock();
    try {
        frame = mChannel->receive(std::max(aDeadline - mClock.now(), Clock::Duration::zero()));
    } catch (std::exception const& error) {
        fault = std::current_exception();
        why = error.what();
    }
    aLock.lock();
    mReceiving = false;
    if (fault != nullptr) {
        linkLost(why.c_str());
        spread(fault);
        std::rethrow_exception(fault);
    }
    if (frame) {
        if (std::exchange(mLinkDown, false)) {
            keplaDoLog(Severity::Warning, "The CAN link is back: '%s'", {}, mChannel->name());
        }
        dispatch(*frame);
    }
}

/// Wakes one who sleeps to receive, where nobody does.
void CanOpenMaster::appoint() {
    if (!mReceiving && !mWaiters.empty()) {
        mWaiters.front()->changed.notify_one();
    }
}

void CanOpenMaster::linkLost(char const* aWhy) {
    if (!std::exchange(mLinkDown, true)) {
        keplaDoLog(Severity::Error, "The CAN link is lost: %s", {}, aWhy);
    }
}

void CanOpenMaster::spread(std::exception_ptr const& aFault) {
    for (Waiter* const waiter : mWaiters) {
        waiter->fault = aFault;
        waiter->changed.notify_one();
    }
}

void CanOpenMaster::work() {
    velmor::kepla::utils::nameThisThread("canopen");
    Lock lock(mMutex);
    while (true) {
        waitForQuiet(lock);
        if (mStop) {
            return;
        }
        try {
            receiveOnce(lock, std::min(checkHeartbeats(), mClock.now() + kLongWait));
        } catch (std::exception const&) { // Told where it was noticed.
            mClock.waitFor(mQuiet, lock, kLinkRetry, [this] { return mStop; });
        }
        appoint();
    }
}

/// Returns when transfers are neither under way nor have begun within the quiet time, and nobody receives; or
/// at the end.
void CanOpenMaster::waitForQuiet(Lock& aLock) {
    Clock& real = Clock::real();
    while (!mStop && (mActive != 0 || mReceiving || std::exchange(mTurnsSeen, mTurns) != mTurns)) {
        real.waitUntil(mQuiet, aLock, real.now() + kQuietTime);
        checkHeartbeats();
    }
}

// ---------------------------------------------------------------------------------------------- frames

void CanOpenMaster::dispatch(CanFrame const& aFrame) {
    if ((aFrame.id & kNodeMask) == 0) {
        return;
    }
    if (aFrame.remote) {
        if ((aFrame.id & ~kNodeMask) == kErrorControl) { // Another one guards the node.
            mNodes[aFrame.id & kNodeMask]->guardToggle.onRequest();
        }
        return;
    }
    std::uint32_t const function = aFrame.id & ~kNodeMask;
    if (function == kSdoAnswer || function == kErrorControl || function == kEmergency) {
        mNodes[aFrame.id & kNodeMask]->unanswered = false;
    }
    switch (function) {
        case kSdoAnswer:
            return dispatchAnswer(aFrame);
        case kErrorControl:
            return dispatchSign(aFrame);
        case kEmergency:
            return dispatchEmergency(aFrame);
        default:
            return;
    }
}

void CanOpenMaster::dispatchAnswer(CanFrame const& aFrame) {
    Node& sender = *mNodes[aFrame.id & kNodeMask];
    if (sender.inbox != nullptr && sender.inbox->push(aFrame)) {
        sender.waiter.changed.notify_one();
    } else {
        keplaDoLog(Severity::Trace, "Node %u: an answer that nobody waits for", {}, aFrame.id & kNodeMask);
    }
}

void CanOpenMaster::dispatchSign(CanFrame const& aFrame) {
    constexpr std::uint8_t kStateMask = 0x7F;
    constexpr std::uint8_t kToggle = 0x80;
    if (aFrame.length < 1) {
        return;
    }
    unsigned const number = aFrame.id & kNodeMask;
    Node& sender = *mNodes[number];
    bool const bootUp = aFrame.data[0] == static_cast<std::uint8_t>(NmtState::BootUp);
    auto const state = static_cast<NmtState>(aFrame.data[0] & kStateMask);
    if (bootUp) {
        sender.guardToggle.onBootUp();
    } else if (!sender.guardToggle.onState((aFrame.data[0] & kToggle) != 0)) {
        keplaDoLog(Severity::Warning, "Node %u: an answer to node guarding repeats the toggle bit", {},
                   number);
        return;
    }
    sender.status.lastSign = mClock.now();
    ++sender.status.signs;
    if (bootUp) {
        ++sender.status.bootUps;
        keplaDoLog(Severity::Info, "Node %u has booted", {}, number);
    } else if (state != sender.status.state) {
        keplaDoLog(Severity::Debug, "Node %u is in state 0x%02X", {}, number, aFrame.data[0] & kStateMask);
    }
    sender.status.state = state;
    sender.heartbeatDue = *sender.status.lastSign + sender.heartbeatTime;
    if (std::exchange(sender.silent, false)) {
        keplaDoLog(Severity::Info, "Node %u: the heartbeat is back", {}, number);
    }
    for (Waiter* const waiter : mWaiters) {
        waiter->changed.notify_one();
    }
}

void CanOpenMaster::dispatchEmergency(CanFrame const& aFrame) {
    auto const message = EmergencyMessage::decode(aFrame);
    if (!message) {
        return;
    }
    if (message->code == 0) {
        keplaDoLog(Severity::Info, "Node %u: the emergency is over, error register 0x%02X (%s)", {},
                   message->node, message->errorRegister, message->registerWords());
        return;
    }
    auto const& data = message->manufacturer;
    keplaDoLog(Severity::Error,
               "Node %u: emergency 0x%04X (%s), error register 0x%02X (%s), data %02X %02X %02X %02X %02X",
               {}, message->node, message->code, std::string(message->words()), message->errorRegister,
               message->registerWords(), data[0], data[1], data[2], data[3], data[4]);
}

// ---------------------------------------------------------------------------------------------- network

void CanOpenMaster::command(NmtCommand aCommand, unsigned char aNode) {
    if (aNode != 0) {
        static_cast<void>(node(aNode));
    }
    send(CanFrame{kNmt, 2, {static_cast<std::uint8_t>(aCommand), aNode}});
}

void CanOpenMaster::guard(unsigned char aNode) {
    Node& asked = node(aNode);
    {
        std::lock_guard const lock(mMutex);
        asked.guardToggle.onRequest();
    }
    send(CanFrame{.id = kErrorControl + aNode, .length = 1, .remote = true});
}

NodeStatus CanOpenMaster::status(unsigned char aNode) const {
    std::lock_guard const lock(mMutex);
    return node(aNode).status;
}

bool CanOpenMaster::awaitStatus(unsigned char aNode,
                                std::function<bool(NodeStatus const&)> const& aWanted,
                                Clock::Duration aTime) {
    Node const& wanted = node(aNode);
    Waiter self;
    Lock lock(mMutex);
    TimePoint const deadline = mClock.now() + aTime;
    ++mActive;
    ++mTurns;
    struct End {
        CanOpenMaster& master;
        ~End() { --master.mActive; }
    } const end{*this};
    while (true) {
        try {
            return await(lock, self, deadline, [&] { return aWanted(wanted.status); });
        } catch (CanLinkError const&) { // Told where it was noticed; the link may come back in time.
            TimePoint const again = std::min(deadline, mClock.now() + kLinkRetry);
            mClock.waitUntil(self.changed, lock, again);
        }
    }
}

void CanOpenMaster::superviseHeartbeat(unsigned char aNode, Clock::Duration aTime) {
    Node& supervised = node(aNode);
    {
        std::lock_guard const lock(mMutex);
        supervised.heartbeatTime = aTime;
        supervised.heartbeatDue = mClock.now() + aTime;
        supervised.silent = false;
        mSupervising = std::any_of(mNodes.begin(), mNodes.end(), [](auto const& aEach) {
            return aEach->heartbeatTime > Clock::Duration::zero();
        });
    }
    mChannel->interrupt(); // The thread may sleep longer than the new time.
}

/// Tells of nodes that have become silent.
/// @return When the next one is due.
CanOpenMaster::TimePoint CanOpenMaster::checkHeartbeats() {
    TimePoint next = TimePoint::max();
    if (!mSupervising) {
        return next;
    }
    TimePoint const now = mClock.now();
    for (unsigned number = 1; number <= kNodes; ++number) {
        Node& supervised = *mNodes[number];
        if (supervised.heartbeatTime <= Clock::Duration::zero() || supervised.silent) {
            continue;
        }
        if (now >= supervised.heartbeatDue) {
            supervised.silent = true;
            supervised.status.state = NmtState::Unknown;
            keplaDoLog(
                Severity::Warning, "Node %u: no heartbeat for %d ms", {}, number,
                std::chrono::duration_cast<std::chrono::milliseconds>(supervised.heartbeatTime).count());
        } else {
            next = std::min(next, supervised.heartbeatDue);
        }
    }
    return next;
}

} // namespace velmor::kepla::canopen
