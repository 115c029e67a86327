// SPDX-License-Identifier: Apache-2.0
// A CANopen node on the in-process bus whose every answer a test can script.
#pragma once

#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/canopen/NodeStatus.h>
#include <velmor/kepla/canopen/ObjectDictionaryIfc.h>
#include <velmor/kepla/canopen/SdoServerCore.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace libfieldwarden::test {

/// Serves a dictionary from a thread of its own. Strict: an object that the test has not given is refused.
/// All operations may be called from any thread.
class TestNode final : private velmor::kepla::canopen::ObjectDictionaryIfc,
                       private velmor::kepla::canopen::SdoFrameSink {
public:
    using Bytes = std::vector<std::uint8_t>;
    using SdoObject = velmor::kepla::canopen::SdoObject;
    using WriteHook = std::function<std::uint32_t(Bytes const&)>;

    TestNode(velmor::kepla::canopen::InProcessBus& aBus,
             std::uint8_t aNode,
             velmor::kepla::canopen::SdoServerSettings const& aSettings = {});
    ~TestNode() override;
    TestNode(TestNode const&) = delete;
    TestNode& operator=(TestNode const&) = delete;

    /// Gives the node an object.
    void set(SdoObject aObject, Bytes aData);
    void set8(SdoObject aObject, std::uint8_t aValue) { set(aObject, {aValue}); }
    void set16(SdoObject aObject, std::uint16_t aValue);
    void set32(SdoObject aObject, std::uint32_t aValue);
    void setText(SdoObject aObject, std::string const& aText) {
        set(aObject, Bytes(aText.begin(), aText.end()));
    }
    void remove(SdoObject aObject);
    Bytes get(SdoObject aObject) const;

    /// Makes reads of an object fail.
    void refuseReads(SdoObject aObject, std::uint32_t aAbortCode);

    /// Lets a function take the writes of an object, on the node's thread; it gives back 0 or an abort code.
    void onWrite(SdoObject aObject, WriteHook aHook);

    /// Calls a function before each read of an object, on the node's thread.
    void onRead(SdoObject aObject, std::function<void()> aHook);

    /// Does not answer SDO requests any more; they are still counted.
    void setDeaf(bool aDeaf);

    /// Does not answer the next requests; they are still counted.
    void ignoreRequests(int aCount);

    // What a node sends of its own accord.
    void sendBootUp() { sendState(velmor::kepla::canopen::NmtState::BootUp); }
    void sendState(velmor::kepla::canopen::NmtState aState);
    void sendEmergency(Bytes const& aData);

    /// Lets a function answer to node guarding, on the node's thread: it gives back the byte to send, or
    /// none.
    void onGuard(std::function<std::optional<std::uint8_t>()> aHook);
    void sendRaw(velmor::kepla::canopen::CanFrame const& aFrame) { mChannel->send(aFrame); }

    /// Waits until so many SDO requests have come in all.
    void awaitRequests(std::size_t aCount) const;
    std::size_t requests() const;

    /// Waits until so many commands of network management for this node have come in all.
    /// @return All commands so far.
    std::vector<velmor::kepla::canopen::NmtCommand> awaitCommands(std::size_t aCount) const;

    /// Objects written so far, in order.
    std::vector<SdoObject> writes() const;

private:
    struct Order {
        bool operator()(SdoObject const& aLeft, SdoObject const& aRight) const {
            return std::pair(aLeft.index, aLeft.subindex) < std::pair(aRight.index, aRight.subindex);
        }
    };

    std::uint32_t read(SdoObject aObject, Bytes& aData) override;
    std::uint32_t write(SdoObject aObject, std::span<std::uint8_t const> aData) override;
    void sendFrame(velmor::kepla::canopen::CanFrame const& aFrame) override;
    void work();
    void onCommand(velmor::kepla::canopen::CanFrame const& aFrame);
    void answerGuarding();
    bool heeds();

    std::uint8_t const mNode;
    std::unique_ptr<velmor::kepla::canopen::CanChannel> const mChannel;
    velmor::kepla::canopen::SdoServerCore mServer;

    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::map<SdoObject, Bytes, Order> mObjects;
    std::map<SdoObject, std::uint32_t, Order> mRefused;
    std::map<SdoObject, WriteHook, Order> mHooks;
    std::map<SdoObject, std::function<void()>, Order> mReadHooks;
    std::function<std::optional<std::uint8_t>()> mGuardHook;
    std::vector<SdoObject> mWrites;
    std::vector<velmor::kepla::canopen::NmtCommand> mCommands;
    std::size_t mRequests = 0;
    int mIgnored = 0;
    bool mDeaf = false;
    bool mStop = false;
    std::thread mThread;
};

} // namespace libfieldwarden::test
