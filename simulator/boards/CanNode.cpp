// SPDX-License-Identifier: Apache-2.0
// The loop of a simulated node, and what it does with each frame.
#include "simulator/boards/CanNode.h"

#include <velmor/kepla/canopen/CanLinkError.h>
#include <velmor/kepla/canopen/SdoAbort.h>
#include <velmor/kepla/utils/ThreadName.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace libfieldwarden::sim {

using namespace velmor::kepla::canopen;
using velmor::kepla::log::Severity;

namespace {

// Identifiers of the pre-defined connection set (CiA 301 7.3.5).
constexpr std::uint32_t kNmtId = 0x000;
constexpr std::uint32_t kEmergencyId = 0x080;
constexpr std::uint32_t kErrorControlId = 0x700;

/// The bit by which two answers to node guarding in a row differ.
constexpr std::uint8_t kToggle = 0x80;

/// Longest sleep where nothing is due.
constexpr velmor::platform::Clock::Duration kLongWait = std::chrono::hours(1);

/// Pause between two attempts to receive on a broken link.
constexpr velmor::platform::Clock::Duration kLinkRetry = std::chrono::milliseconds(100);

/// Refuses what is written piece by piece.
class RefusingStream final : public ObjectWriteStream {
public:
    explicit RefusingStream(std::uint32_t aCode)
        : mCode(aCode) {}
    std::uint32_t write(std::span<std::uint8_t const> /*aData*/) override { return mCode; }
    std::uint32_t finish() override { return mCode; }

private:
    std::uint32_t mCode;
};

std::uint8_t checked(std::uint8_t aNode) {
    if (aNode < 1 || aNode > 127) {
        throw std::invalid_argument("A CANopen node is 1 to 127, not " + std::to_string(aNode));
    }
    return aNode;
}

template <typename Pointer>
Pointer checked(Pointer aPointer, char const* aWhat) {
    if (aPointer == nullptr) {
        throw std::invalid_argument(std::string("A simulated node needs a ") + aWhat);
    }
    return aPointer;
}

} // namespace

// ---------------------------------------------------------------------------------------------- dictionary

std::uint32_t CanNode::FaultyDictionary::read(SdoObject aObject, std::vector<std::uint8_t>& aData) {
    if (std::uint32_t const code = mFaults.abortCode(aObject); code != sdoabort::kNone) {
        return code;
    }
    std::uint32_t const result = mModel.read(aObject, aData);
    if (auto const size = mFaults.answerSize(aObject); size && result == sdoabort::kNone) {
        aData.resize(*size);
    }
    return result;
}

std::uint32_t CanNode::FaultyDictionary::write(SdoObject aObject, std::span<std::uint8_t const> aData) {
    std::uint32_t const code = mFaults.abortCode(aObject);
    return code != sdoabort::kNone ? code : mModel.write(aObject, aData);
}

std::unique_ptr<ObjectWriteStream> CanNode::FaultyDictionary::openStream(SdoObject aObject,
                                                                         std::optional<std::uint32_t> aSize) {
    if (std::uint32_t const code = mFaults.abortCode(aObject); code != sdoabort::kNone) {
        return std::make_unique<RefusingStream>(code);
    }
    return mModel.openStream(aObject, aSize);
}

// ---------------------------------------------------------------------------------------------- life

CanNode::CanNode(std::unique_ptr<CanChannel> aChannel,
                 std::uint8_t aNode,
                 std::shared_ptr<BoardModelIfc> aModel,
                 Clock& aClock)
    : Logger("CanNode(node " + std::to_string(aNode) + ")", "Simulator")
    , mChannel(checked(std::move(aChannel), "channel"))
    , mNode(checked(aNode))
    , mModel(checked(std::move(aModel), "board"))
    , mClock(aClock)
    , mDictionary(*mModel, mFaults)
    , mServer(aNode, mDictionary, *this) {
    mModel->setWaker([this] { mChannel->interrupt(); });
    mThread = std::thread([this] { work(); });
}

CanNode::~CanNode() {
    mModel->setWaker({});
    {
        std::lock_guard const lock(mPauseMutex);
        mStop = true;
        mPause.notify_all();
    }
    mChannel->interrupt();
    mThread.join();
}

void CanNode::work() {
    velmor::kepla::utils::nameThisThread("sim-node-" + std::to_string(mNode));
    comeUp();
    while (!mStop) {
        TimePoint const next = doDue();
        listen(std::clamp(next - mClock.now(), Clock::Duration::zero(), kLongWait));
    }
}

/// Receives one frame, if one comes in time.
void CanNode::listen(Clock::Duration aTime) {
    try {
        std::optional<CanFrame> const frame = mChannel->receive(aTime);
        mLinkDown = false;
        if (frame && !mFaults.silent()) {
            onFrame(*frame);
        }
    } catch (CanLinkError const& error) {
        linkLost(error.what());
        std::unique_lock lock(mPauseMutex);
        mClock.waitFor(mPause, lock, kLinkRetry, [this] { return mStop.load(); });
    }
}

/// Does what the time asks for.
/// @return When there will be something next.
CanNode::TimePoint CanNode::doDue() {
    TimePoint const now = mClock.now();
    TimePoint next = mModel->advance(now);
    if (mModel->takeRestartRequest()) {
        mRestartWanted = true;
    }
    sendWaiting(now);
    if (mRestartWanted && mWaiting.empty()) {
        restart(BoardModelIfc::Start::ProgramControl);
    }
    if (mState == NmtState::Unknown && now >= mUpAt) {
        comeUp();
    }
    if (mState == NmtState::Unknown) {
        return std::min(next, mUpAt);
    }
    sendEmergencies();
    mServer.onTime(now);
    beat(now);
    if (mHeartbeatPeriod > Clock::Duration::zero()) {
        next = std::min(next, mHeartbeatDue);
    }
    if (mServer.busy()) {
        next = std::min(next, mServer.deadline());
    }
    if (!mWaiting.empty()) {
        next = std::min(next, mWaiting.front().due);
    }
    return next;
}

void CanNode::restart(BoardModelIfc::Start aWhy) {
    keplaDoLog(Severity::Debug, "~restart: reason %d", {}, static_cast<int>(aWhy));
    mState = NmtState::Unknown;
    mRestartWanted = false;
    mWaiting.clear();
    mServer.reset();
    mModel->restart(aWhy);
    mUpAt = mClock.now() + mModel->startTime();
}

void CanNode::resetCommunication() {
    mWaiting.clear();
    mServer.reset();
    mModel->resetCommunication();
    comeUp();
}

void CanNode::comeUp() {
    mState = NmtState::BootUp;
    sendState();
    mState = NmtState::PreOperational;
    mHeartbeatPeriod = {};
    mGuardToggle = 0;
    beat(mClock.now());
}

// ---------------------------------------------------------------------------------------------- receiving

void CanNode::onFrame(CanFrame const& aFrame) {
    if (mState == NmtState::Unknown) {
        return;
    }
    if (aFrame.remote) {
        if (aFrame.id == kErrorControlId + mNode) {
            answerGuarding();
        }
    } else if (aFrame.id == kNmtId && aFrame.length == 2) {
        if (aFrame.data[1] == 0 || aFrame.data[1] == mNode) {
            onCommand(aFrame.data[0]);
        }
    } else if (aFrame.id == sdoRequestId(mNode) && servesSdo()) {
        onSdo(aFrame);
    }
}

void CanNode::onCommand(std::uint8_t aCommand) {
    switch (static_cast<NmtCommand>(aCommand)) {
        case NmtCommand::Start:
            mState = NmtState::Operational;
            break;
        case NmtCommand::Stop:
            mState = NmtState::Stopped;
            mServer.reset();
            mWaiting.clear();
            break;
        case NmtCommand::PreOperational:
            mState = NmtState::PreOperational;
            break;
        case NmtCommand::ResetNode:
            restart(BoardModelIfc::Start::Network);
            break;
        case NmtCommand::ResetCommunication:
            resetCommunication();
            break;
        default:
            break; // Not for this kind of node.
    }
}

void CanNode::onSdo(CanFrame const& aFrame) {
    if (mFaults.takeRestart()) {
        restart(BoardModelIfc::Start::Fault);
        return;
    }
    mServer.onFrame(aFrame, mClock.now());
}

bool CanNode::servesSdo() const {
    return mState == NmtState::PreOperational || mState == NmtState::Operational;
}

// ---------------------------------------------------------------------------------------------- sending

/// An answer of the SDO server.
void CanNode::sendFrame(CanFrame const& aFrame) {
    TimePoint const now = mClock.now();
    TimePoint const due = std::max(now + mFaults.answerDelay(), mModel->answerTime());
    if (due <= now && mWaiting.empty()) {
        transmit(aFrame);
    } else {
        mWaiting.push_back({due, aFrame});
    }
}

void CanNode::sendWaiting(TimePoint aNow) {
    while (!mWaiting.empty() && mWaiting.front().due <= aNow) {
        transmit(mWaiting.front().frame);
        mWaiting.pop_front();
    }
}

void CanNode::sendEmergencies() {
    std::vector<Emergency> const emergencies = mModel->takeEmergencies();
    if (!servesSdo()) {
        return; // A stopped node keeps its faults to itself.
    }
    for (Emergency const& each : emergencies) {
        CanFrame frame{kEmergencyId + mNode,
                       8,
                       {static_cast<std::uint8_t>(each.code & 0xFFU),
                        static_cast<std::uint8_t>(each.code >> 8U), each.errorRegister}};
        std::copy(each.manufacturer.begin(), each.manufacturer.end(), frame.data.begin() + 3);
        transmit(frame);
    }
}

/// Sends a heartbeat when it is time for one. A new period begins when it is written.
void CanNode::beat(TimePoint aNow) {
    if (Clock::Duration const period = mModel->heartbeatPeriod(); period != mHeartbeatPeriod) {
        mHeartbeatPeriod = period;
        mHeartbeatDue = aNow + period;
    }
    if (mHeartbeatPeriod <= Clock::Duration::zero() || aNow < mHeartbeatDue) {
        return;
    }
    sendState();
    mHeartbeatDue += mHeartbeatPeriod;
    if (mHeartbeatDue <= aNow) { // Beats that were missed are not made up for.
        mHeartbeatDue = aNow + mHeartbeatPeriod;
    }
}

void CanNode::answerGuarding() {
    if (mModel->heartbeatPeriod() > Clock::Duration::zero()) {
        return;
    }
    sendState(mGuardToggle);
    mGuardToggle ^= kToggle;
}

void CanNode::sendState(std::uint8_t aToggle) {
    auto const state = static_cast<std::uint8_t>(mState.load());
    transmit({kErrorControlId + mNode, 1, {static_cast<std::uint8_t>(state | aToggle)}});
}

void CanNode::transmit(CanFrame const& aFrame) {
    if (mFaults.silent() || mFaults.takeLoss()) {
        return;
    }
    try {
        mChannel->send(aFrame);
    } catch (CanLinkError const& error) { // The frame is lost, as on a bus that nobody acknowledges.
        linkLost(error.what());
    }
}

void CanNode::linkLost(char const* aWhy) {
    if (!std::exchange(mLinkDown, true)) {
        keplaDoLog(Severity::Warning, "The node has lost its bus: %s", {}, aWhy);
    }
}

} // namespace libfieldwarden::sim
