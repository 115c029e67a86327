// SPDX-License-Identifier: Apache-2.0
// CAN frames through a raw socket of the Linux kernel, with every fault of the link made an error.
#pragma once

#include <velmor/kepla/canopen/CanChannel.h>
#include <velmor/kepla/canopen/CanSocketApi.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace velmor::kepla::canopen {

/// A CAN interface of the machine, such as "can0". Only the frames that a CANopen master wants come up: SDO
/// answers (0x581 to 0x5FF), boot-up, heartbeat and node guarding with its remote frames (0x701 to 0x77F),
/// and emergencies (0x081 to 0x0FF).
///
/// A fault of the link (interface down or gone, bus-off, transmit queue full) closes the socket and thereby
/// gives up what it still holds; the next operation opens a new one, or throws the reason why that is not
/// possible yet. So no frame from before an outage comes late, and traffic goes on with the first operation
/// after the link is back.
class SocketCanChannel final : public CanChannel, private virtual velmor::kepla::log::Logger {
public:
    /// How long send() waits for room in the kernel's queue.
    static constexpr velmor::platform::Clock::Duration kSendTimeout = std::chrono::milliseconds(100);

    /// Opens the interface. May be called from any thread.
    /// @param aInterface  Name of the interface.
    /// @param aApi        The system calls.
    /// @throws CanLinkError  when there is no such interface, it is down or bus-off, or the kernel has no
    /// CAN.
    explicit SocketCanChannel(std::string aInterface,
                              std::shared_ptr<CanSocketApi> aApi = CanSocketApi::posix());
    ~SocketCanChannel() override;
    SocketCanChannel(SocketCanChannel const&) = delete;
    SocketCanChannel& operator=(SocketCanChannel const&) = delete;

    std::string name() const override;
    void send(CanFrame const& aFrame) override;
    std::optional<CanFrame> receive(velmor::platform::Clock::Duration aTimeout) override;
    void interrupt() override;

private:
    class Socket;
    class Wake;

    std::shared_ptr<Socket> openSocket() const;
    std::shared_ptr<Socket> current();
    void giveUp(std::shared_ptr<Socket> const& aSocket);
    [[noreturn]] void fail(std::shared_ptr<Socket> const& aSocket, int aError);
    bool waitReadable(std::shared_ptr<Socket> const& aSocket, velmor::platform::Clock::Duration aTime);
    std::optional<CanFrame> take(std::shared_ptr<Socket> const& aSocket, bool aWait);
    void heed(std::shared_ptr<Socket> const& aSocket, can_frame const& aErrorFrame);

    std::string const mName;
    std::shared_ptr<CanSocketApi> const mApi;
    velmor::platform::Clock& mClock;
    std::unique_ptr<Wake> const mWake;
    std::atomic<bool> mInterrupted{false};
    std::mutex mMutex;               ///< Guards mSocket; never held across a system call that waits.
    std::shared_ptr<Socket> mSocket; ///< Null after a fault.
};

} // namespace velmor::kepla::canopen
