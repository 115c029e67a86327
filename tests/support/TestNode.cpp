// SPDX-License-Identifier: Apache-2.0
// The thread and the dictionary of the scripted node.
#include "support/TestNode.h"

#include <velmor/kepla/canopen/SdoAbort.h>

#include <velmor/platform/Clock.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace libfieldwarden::test {

using velmor::kepla::canopen::CanFrame;
using velmor::kepla::canopen::CanLinkError;
using velmor::kepla::canopen::NmtCommand;
using velmor::kepla::canopen::NmtState;
using velmor::platform::Clock;
namespace sdoabort = velmor::kepla::canopen::sdoabort;

TestNode::TestNode(velmor::kepla::canopen::InProcessBus& aBus,
                   std::uint8_t aNode,
                   velmor::kepla::canopen::SdoServerSettings const& aSettings)
    : mNode(aNode)
    , mChannel(aBus.open("node" + std::to_string(aNode),
                         {{0x000}, {velmor::kepla::canopen::sdoRequestId(aNode)}, {0x700U + aNode}}))
    , mServer(aNode, *this, *this, aSettings)
    , mThread([this] { work(); }) {}

TestNode::~TestNode() {
    {
        std::lock_guard const lock(mMutex);
        mStop = true;
    }
    mChannel->interrupt();
    mThread.join();
}

void TestNode::work() {
    while (true) {
        std::optional<CanFrame> frame;
        try {
            frame = mChannel->receive(std::chrono::hours(1));
        } catch (CanLinkError const&) {
            std::this_thread::yield(); // A test has broken the link of this node, too.
        }
        {
            std::lock_guard const lock(mMutex);
            if (mStop) {
                return;
            }
        }
        if (!frame) {
            continue;
        }
        if (frame->remote) {
            answerGuarding();
        } else if (frame->id == 0) {
            onCommand(*frame);
        } else if (heeds()) {
            mServer.onFrame(*frame, Clock::current().now());
        }
    }
}

/// Counts a request.
/// @return Whether it is to be answered.
bool TestNode::heeds() {
    std::lock_guard const lock(mMutex);
    ++mRequests;
    mChanged.notify_all();
    if (mIgnored > 0) {
        --mIgnored;
        return false;
    }
    return !mDeaf;
}

void TestNode::onCommand(CanFrame const& aFrame) {
    std::lock_guard const lock(mMutex);
    if (aFrame.length >= 2 && (aFrame.data[1] == mNode || aFrame.data[1] == 0)) {
        mCommands.push_back(static_cast<NmtCommand>(aFrame.data[0]));
        mChanged.notify_all();
    }
}

void TestNode::answerGuarding() {
    std::function<std::optional<std::uint8_t>()> hook;
    {
        std::lock_guard const lock(mMutex);
        hook = mGuardHook;
    }
    if (auto const state = hook ? hook() : std::nullopt) {
        mChannel->send(CanFrame{0x700U + mNode, 1, {*state}});
    }
}

void TestNode::sendFrame(CanFrame const& aFrame) {
    try {
        mChannel->send(aFrame);
    } catch (CanLinkError const&) {
        mServer.reset();
    }
}

std::uint32_t TestNode::read(SdoObject aObject, Bytes& aData) {
    std::unique_lock lock(mMutex);
    if (auto const found = mReadHooks.find(aObject); found != mReadHooks.end()) {
        auto const hook = found->second;
        lock.unlock();
        hook();
        lock.lock();
    }
    if (auto const refused = mRefused.find(aObject); refused != mRefused.end()) {
        return refused->second;
    }
    auto const found = mObjects.find(aObject);
    if (found == mObjects.end()) {
        return sdoabort::kNoSuchObject;
    }
    aData = found->second;
    return 0;
}

std::uint32_t TestNode::write(SdoObject aObject, std::span<std::uint8_t const> aData) {
    Bytes const data(aData.begin(), aData.end());
    WriteHook hook;
    {
        std::lock_guard const lock(mMutex);
        mWrites.push_back(aObject);
        if (auto const found = mHooks.find(aObject); found != mHooks.end()) {
            hook = found->second;
        } else if (!mObjects.contains(aObject)) {
            return sdoabort::kNoSuchObject;
        } else {
            mObjects[aObject] = data;
            return 0;
        }
    }
    return hook(data);
}

void TestNode::set(SdoObject aObject, Bytes aData) {
    std::lock_guard const lock(mMutex);
    mObjects[aObject] = std::move(aData);
}

void TestNode::set16(SdoObject aObject, std::uint16_t aValue) {
    set(aObject, {static_cast<std::uint8_t>(aValue), static_cast<std::uint8_t>(aValue >> 8U)});
}

void TestNode::set32(SdoObject aObject, std::uint32_t aValue) {
    set(aObject, {static_cast<std::uint8_t>(aValue), static_cast<std::uint8_t>(aValue >> 8U),
                  static_cast<std::uint8_t>(aValue >> 16U), static_cast<std::uint8_t>(aValue >> 24U)});
}

void TestNode::remove(SdoObject aObject) {
    std::lock_guard const lock(mMutex);
    mObjects.erase(aObject);
}

TestNode::Bytes TestNode::get(SdoObject aObject) const {
    std::lock_guard const lock(mMutex);
    return mObjects.at(aObject);
}

void TestNode::refuseReads(SdoObject aObject, std::uint32_t aAbortCode) {
    std::lock_guard const lock(mMutex);
    mRefused[aObject] = aAbortCode;
}

void TestNode::onWrite(SdoObject aObject, WriteHook aHook) {
    std::lock_guard const lock(mMutex);
    mHooks[aObject] = std::move(aHook);
}

void TestNode::onRead(SdoObject aObject, std::function<void()> aHook) {
    std::lock_guard const lock(mMutex);
    mReadHooks[aObject] = std::move(aHook);
}

void TestNode::onGuard(std::function<std::optional<std::uint8_t>()> aHook) {
    std::lock_guard const lock(mMutex);
    mGuardHook = std::move(aHook);
}

void TestNode::setDeaf(bool aDeaf) {
    std::lock_guard const lock(mMutex);
    mDeaf = aDeaf;
}

void TestNode::ignoreRequests(int aCount) {
    std::lock_guard const lock(mMutex);
    mIgnored = aCount;
}

void TestNode::sendState(NmtState aState) {
    mChannel->send(CanFrame{0x700U + mNode, 1, {static_cast<std::uint8_t>(aState)}});
}

void TestNode::sendEmergency(Bytes const& aData) {
    CanFrame frame{0x080U + mNode, static_cast<std::uint8_t>(aData.size()), {}};
    std::copy(aData.begin(), aData.end(), frame.data.begin());
    mChannel->send(frame);
}

void TestNode::awaitRequests(std::size_t aCount) const {
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [&] { return mRequests >= aCount; });
}

std::size_t TestNode::requests() const {
    std::lock_guard const lock(mMutex);
    return mRequests;
}

std::vector<NmtCommand> TestNode::awaitCommands(std::size_t aCount) const {
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [&] { return mCommands.size() >= aCount; });
    return mCommands;
}

std::vector<TestNode::SdoObject> TestNode::writes() const {
    std::lock_guard const lock(mMutex);
    return mWrites;
}

} // namespace libfieldwarden::test
