// SPDX-License-Identifier: Apache-2.0
// The one CANopen master on a bus: it hands every node's frames to whoever waits for them.
#pragma once

#include <velmor/kepla/canopen/CanChannel.h>
#include <velmor/kepla/canopen/NodeStatus.h>
#include <velmor/kepla/canopen/SdoClientCore.h>
#include <velmor/kepla/canopen/SdoTypes.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace velmor::kepla::canopen {

/// Master of a CANopen network: network management, signs of life, emergencies, and the traffic of SDO
/// transfers, one at a time with each node and with different nodes at the same time.
///
/// Whoever waits for a frame receives from the channel itself and hands on what belongs to others; only one
/// does so at a time, the others sleep until their frame has come or it is their turn to receive. The thread
/// "canopen" receives while nobody waits. So an answer reaches the thread that asked without a detour, and a
/// heartbeat is never missed.
///
/// The loss of the link and its return are logged once each. The first frame after the loss is the return.
///
/// All operations may be called from any thread.
class CanOpenMaster final : private virtual velmor::kepla::log::Logger {
    struct Node;
    struct Waiter;

public:
    /// Makes the master on a CAN interface of the current backend. Blocks while the interface is opened.
    /// @param aInterface  Name of the interface, such as "can0".
    /// @param aNodeId     The master's own node number, 1 to 127.
    /// @throws std::runtime_error     when the interface cannot be opened; a CanLinkError on the instrument.
    /// @throws std::invalid_argument  when the node number is out of range.
    static std::shared_ptr<CanOpenMaster> make(std::string const& aInterface, unsigned char aNodeId);

    /// @param aChannel  The bus; not null.
    /// @param aNodeId   The master's own node number, 1 to 127.
    /// @param aSettings Of the transfers with every node.
    /// @throws std::invalid_argument  when the node number is out of range or there is no channel.
    CanOpenMaster(std::unique_ptr<CanChannel> aChannel,
                  unsigned char aNodeId,
                  SdoClientSettings const& aSettings = {});

    /// Ends the thread. Nothing may wait for a frame any more.
    ~CanOpenMaster();
    CanOpenMaster(CanOpenMaster const&) = delete;
    CanOpenMaster& operator=(CanOpenMaster const&) = delete;

    /// @return The name of the interface. Never blocks.
    std::string interfaceName() const;

    /// @return The master's own node number.
    unsigned char nodeId() const noexcept { return mNodeId; }

    /// The right to transfer with one node, from its making to its end. Belongs to one thread.
    class Turn {
    public:
        /// Told now and then, by the thread of the turn, about how many bytes are on their way.
        using Progress = std::function<void(std::size_t aBytes)>;

        /// Waits until no other turn with that node is under way.
        /// @param aMaster  The master; outlives the turn.
        /// @param aNode    The node, 1 to 127.
        /// @throws std::invalid_argument  when the node is out of range.
        Turn(CanOpenMaster& aMaster, unsigned char aNode);
        ~Turn();
        Turn(Turn const&) = delete;
        Turn& operator=(Turn const&) = delete;

        /// Reads an object. An answer that does not come is asked for once more.
        /// @param aLimit  The most bytes to accept.
        /// @return The bytes; valid until the next transfer of this turn.
        /// @throws SdoError      when the node refuses, does not answer, or breaks the protocol.
        /// @throws CanLinkError  when the link is broken.
        std::span<std::uint8_t const> upload(SdoObject aObject,
                                             std::size_t aLimit,
                                             SdoMode aMode = SdoMode::Segmented);

        /// @return Whether the last upload brought four bytes of which the node did not say how many count:
        ///         CiA 301 lets it leave that to whoever knows the object's type.
        bool sizeIsOpen() const noexcept;

        /// Writes an object. Never repeated, unless the node cannot have seen it.
        /// @throws SdoError      when the node refuses, does not answer, or breaks the protocol. Without an
        ///                       answer it is not known whether the node has taken the bytes.
        /// @throws CanLinkError  when the link is broken.
        void download(SdoObject aObject,
                      std::span<std::uint8_t const> aData,
                      SdoMode aMode,
                      Progress const& aProgress = {});

    private:
        void run(Progress const& aProgress = {});
        void noteTimeOut();
        std::optional<CanFrame> receive(velmor::platform::Clock::TimePoint aDeadline);

        CanOpenMaster& mMaster;
        Node& mNode;
        std::unique_lock<std::mutex> mExclusive;
    };

    /// For an owner on its way down, that no silent board may hold up for minutes: from now on what is to be
    /// read of a node that left a transfer without an answer fails at once with an SdoTimeoutError, until
    /// something is heard of the node again. Writes are tried all the same, each for its time.
    void hasten();

    /// Sends a command of network management. Nodes do not acknowledge it.
    /// @param aNode  The node, 1 to 127; 0 for all.
    /// @throws std::invalid_argument  when the node is out of range.
    /// @throws CanLinkError           as CanChannel::send().
    void command(NmtCommand aCommand, unsigned char aNode);

    /// Asks a node for a sign of life by node guarding (CiA 301, with a remote frame). Does not wait for the
    /// answer, which counts in status() and ends awaitStatus(). An answer that repeats the toggle bit of the
    /// answer before is passed over and logged. Nodes that send a heartbeat need not answer.
    /// @param aNode  The node, 1 to 127.
    /// @throws std::invalid_argument  when the node is out of range.
    /// @throws CanLinkError           as CanChannel::send().
    void guard(unsigned char aNode);

    /// @param aNode  The node, 1 to 127.
    /// @return What was heard of it. Never blocks for long.
    NodeStatus status(unsigned char aNode) const;

    /// Waits for a sign of life.
    /// @param aNode    The node, 1 to 127.
    /// @param aWanted  Asked at every sign whether this is the one.
    /// @param aTime    The longest wait.
    /// @return Whether it came. A broken link only prolongs the wait.
    bool awaitStatus(unsigned char aNode,
                     std::function<bool(NodeStatus const&)> const& aWanted,
                     velmor::platform::Clock::Duration aTime);

    /// Supervises a node's heartbeat: its absence and its return are logged, and the absence makes the state
    /// unknown.
    /// @param aNode  The node, 1 to 127.
    /// @param aTime  How long the node may be silent; 0 ends the supervision.
    void superviseHeartbeat(unsigned char aNode, velmor::platform::Clock::Duration aTime);

private:
    using Lock = std::unique_lock<std::mutex>;
    using TimePoint = velmor::platform::Clock::TimePoint;

    Node& node(unsigned char aNode) const;
    bool givesUp(Node const& aNode) const;
    void send(CanFrame const& aFrame);
    template <typename Done>
    bool await(Lock& aLock, Waiter& aWaiter, TimePoint aDeadline, Done aDone);
    void receiveOnce(Lock& aLock, TimePoint aDeadline);
    void appoint();
    void dispatch(CanFrame const& aFrame);
    void dispatchAnswer(CanFrame const& aFrame);
    void dispatchSign(CanFrame const& aFrame);
    void dispatchEmergency(CanFrame const& aFrame);
    void linkLost(char const* aWhy);
    void spread(std::exception_ptr const& aFault);
    TimePoint checkHeartbeats();
    void work();
    void waitForQuiet(Lock& aLock);

    std::unique_ptr<CanChannel> const mChannel;
    unsigned char const mNodeId;
    SdoClientSettings const mSettings;
    velmor::platform::Clock& mClock;
    std::vector<std::unique_ptr<Node>> const mNodes; ///< By node number.

    mutable std::mutex mMutex; ///< Guards all below and what the nodes hold; never held while receiving.
    bool mReceiving = false;   ///< Somebody is in the channel's receive().
    bool mLinkDown = false;
    bool mHasty = false;          ///< Silent nodes are not waited for again.
    unsigned mActive = 0;         ///< Turns and waits under way.
    std::uint64_t mTurns = 0;     ///< Turns and waits begun so far.
    std::uint64_t mTurnsSeen = 0; ///< That number when the thread last looked.
    bool mSupervising = false;    ///< Some node's heartbeat is supervised.
    std::vector<Waiter*> mWaiters;
    std::condition_variable mQuiet; ///< Notified only at the end.
    bool mStop = false;
    std::thread mThread;
};

} // namespace velmor::kepla::canopen
