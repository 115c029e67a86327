// SPDX-License-Identifier: Apache-2.0
// Puts a simulated board on a CAN bus: network management, signs of life, emergencies and the SDO server.
#pragma once

#include "simulator/boards/BoardFaults.h"
#include "simulator/boards/BoardModelIfc.h"

#include <velmor/kepla/canopen/CanChannel.h>
#include <velmor/kepla/canopen/NodeStatus.h>
#include <velmor/kepla/canopen/SdoFrameSink.h>
#include <velmor/kepla/canopen/SdoServerCore.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <vector>

namespace libfieldwarden::sim {

/// A CANopen slave (CiA 301) with its own thread, "sim-node-" and the node number, which sleeps while nothing
/// comes and nothing is due.
///
/// ```
///            (boot-up message)         start
///   Starting ────────────────> Pre-op <─────> Operational      restart from each state: node reset,
///      ^                          │   pre-op       │           program control, fault
///      └── restart                └──> Stopped <───┘ stop
/// ```
///
/// | State       | SDO | signs of life | emergencies |
/// |-------------|-----|---------------|-------------|
/// | Starting    | no  | no            | no          |
/// | Pre-op      | yes | yes           | yes         |
/// | Operational | yes | yes           | yes         |
/// | Stopped     | no  | yes           | no          |
///
/// Signs of life are the heartbeat while its period (0x1017) is not 0, and the answers to node guarding while
/// it is 0, for CiA 301 does not allow both at a time. The board does not send process data.
class CanNode final : private velmor::kepla::canopen::SdoFrameSink,
                      private virtual velmor::kepla::log::Logger {
public:
    using Clock = velmor::platform::Clock;
    using NmtState = velmor::kepla::canopen::NmtState;

    /// Switches the board on: the boot-up message is the first that the thread sends.
    /// @param aChannel  The bus; not null. Its time and that of the node should be the same clock's.
    /// @param aNode     The node number, 1 to 127.
    /// @param aModel    The board; not null. The node is the one who drives it.
    /// @param aClock    Time for everything; outlives the node.
    /// @throws std::invalid_argument  when the node is out of range or channel or board are missing.
    CanNode(std::unique_ptr<velmor::kepla::canopen::CanChannel> aChannel,
            std::uint8_t aNode,
            std::shared_ptr<BoardModelIfc> aModel,
            Clock& aClock = Clock::current());

    /// Ends the thread; does not wait for what was to be sent later.
    virtual ~CanNode();
    CanNode(CanNode const&) = delete;
    CanNode& operator=(CanNode const&) = delete;

    std::uint8_t nodeId() const noexcept { return mNode; }

    /// @return The state of the network management; Unknown while the board starts. Any thread.
    NmtState state() const noexcept { return mState; }

    /// What goes wrong between board and bus. Any thread.
    BoardFaults& faults() noexcept { return mFaults; }

private:
    using CanFrame = velmor::kepla::canopen::CanFrame;
    using TimePoint = Clock::TimePoint;

    /// The board's dictionary with the faults in front of it.
    class FaultyDictionary final : public velmor::kepla::canopen::ObjectDictionaryIfc {
    public:
        FaultyDictionary(BoardModelIfc& aModel, BoardFaults const& aFaults)
            : mModel(aModel)
            , mFaults(aFaults) {}

        std::uint32_t read(velmor::kepla::canopen::SdoObject aObject,
                           std::vector<std::uint8_t>& aData) override;
        std::uint32_t write(velmor::kepla::canopen::SdoObject aObject,
                            std::span<std::uint8_t const> aData) override;
        std::unique_ptr<velmor::kepla::canopen::ObjectWriteStream> openStream(
            velmor::kepla::canopen::SdoObject aObject, std::optional<std::uint32_t> aSize) override;

    private:
        BoardModelIfc& mModel;
        BoardFaults const& mFaults;
    };

    struct Waiting {
        TimePoint due;
        CanFrame frame;
    };

    void sendFrame(CanFrame const& aFrame) override;

    void work();
    void listen(Clock::Duration aTime);
    TimePoint doDue();
    void onFrame(CanFrame const& aFrame);
    void onCommand(std::uint8_t aCommand);
    void onSdo(CanFrame const& aFrame);
    void restart(BoardModelIfc::Start aWhy);
    void resetCommunication();
    void comeUp();
    void beat(TimePoint aNow);
    void sendEmergencies();
    void sendWaiting(TimePoint aNow);
    void answerGuarding();
    void sendState(std::uint8_t aToggle = 0);
    void transmit(CanFrame const& aFrame);
    void linkLost(char const* aWhy);
    bool servesSdo() const;

    std::unique_ptr<velmor::kepla::canopen::CanChannel> const mChannel;
    std::uint8_t const mNode;
    std::shared_ptr<BoardModelIfc> const mModel;
    Clock& mClock;
    BoardFaults mFaults;
    std::atomic<NmtState> mState{NmtState::Unknown};

    // Only the node's thread uses these.
    FaultyDictionary mDictionary;
    velmor::kepla::canopen::SdoServerCore mServer;
    std::deque<Waiting> mWaiting; ///< Answers that leave later, in their order.
    TimePoint mUpAt;              ///< When the board has started; meaningful while it starts.
    bool mRestartWanted = false;  ///< The board restarts when its answers have left.
    Clock::Duration mHeartbeatPeriod{};
    TimePoint mHeartbeatDue;
    std::uint8_t mGuardToggle = 0; ///< Of the next answer to node guarding: 0 or 0x80.
    bool mLinkDown = false;

    std::atomic<bool> mStop{false};
    std::mutex mPauseMutex;
    std::condition_variable mPause; ///< Notified only at the end.
    std::thread mThread;
};

} // namespace libfieldwarden::sim
