// SPDX-License-Identifier: Apache-2.0
// The raw CAN socket: opening it, waiting on it, and what each of its errors means.
#include <velmor/kepla/canopen/SocketCanChannel.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace velmor::kepla::canopen {

using velmor::kepla::log::Severity;
using velmor::platform::Clock;

namespace {

/// Pause between two attempts to put a frame into a full queue: about eight frames leave meanwhile at
/// 1 Mbit/s.
constexpr Clock::Duration kQueuePause = std::chrono::milliseconds(1);

/// How long a receive sleeps in the read itself before it waits for the socket and for an interrupt together:
/// an answer that comes within this time costs one system call instead of two.
constexpr Clock::Duration kReadPatience = std::chrono::milliseconds(10);

constexpr canid_t kFunctionCode = 0x780U | CAN_EFF_FLAG | CAN_RTR_FLAG; ///< Everything but the node.

/// Emergencies, SDO answers, signs of life of all nodes (CiA 301, pre-defined connection set), and the remote
/// frames by which others guard nodes.
constexpr std::array<can_filter, 3> kWanted{{
    {0x080U, kFunctionCode},
    {0x580U, kFunctionCode},
    {0x700U, kFunctionCode & ~CAN_RTR_FLAG},
}};

/// Faults of the controller that are worth a frame each. Single bus errors are not: a bus without a second
/// participant would yield thousands a second.
constexpr can_err_mask_t kErrors =
    CAN_ERR_TX_TIMEOUT | CAN_ERR_CRTL | CAN_ERR_BUSOFF | CAN_ERR_RESTARTED; // linux/can/error.h

std::string words(int aError) {
    return std::generic_category().message(aError);
}

CanLinkError::Reason reasonOf(int aError) {
    switch (aError) {
        case ENODEV:
        case ENXIO:
        case EAFNOSUPPORT:
        case EPROTONOSUPPORT:
            return CanLinkError::Reason::InterfaceMissing;
        case ENETDOWN:
            return CanLinkError::Reason::InterfaceDown;
        case EAGAIN:
        case ENOBUFS:
            return CanLinkError::Reason::TransmitQueueFull;
        default:
            return CanLinkError::Reason::Io;
    }
}

/// @return The wait in whole milliseconds for poll(2), rounded up, so that a short wait is no busy loop.
int pollTimeout(Clock::Duration aDuration) {
    auto const milliseconds = std::chrono::ceil<std::chrono::milliseconds>(aDuration).count();
    return static_cast<int>(std::clamp<std::int64_t>(milliseconds, 0, std::numeric_limits<int>::max()));
}

Clock::TimePoint deadlineAfter(Clock::TimePoint aNow, Clock::Duration aDuration) {
    return aDuration > Clock::TimePoint::max() - aNow ? Clock::TimePoint::max() : aNow + aDuration;
}

} // namespace

/// Owner of one open socket.
class SocketCanChannel::Socket {
public:
    Socket(std::shared_ptr<CanSocketApi> aApi, int aDescriptor)
        : descriptor(aDescriptor)
        , mApi(std::move(aApi)) {}
    ~Socket() { mApi->close(descriptor); }
    Socket(Socket const&) = delete;
    Socket& operator=(Socket const&) = delete;

    int const descriptor;
    unsigned dropped = 0; ///< What the kernel has dropped so far. The receiver's own.
    bool passive = false; ///< The controller counts so many errors that it only listens. The receiver's own.

private:
    std::shared_ptr<CanSocketApi> mApi;
};

/// Ends a poll from another thread.
class SocketCanChannel::Wake {
public:
    Wake()
        : descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (descriptor < 0) {
            throw std::system_error(errno, std::generic_category(), "Cannot make an event descriptor");
        }
    }
    ~Wake() { ::close(descriptor); }
    Wake(Wake const&) = delete;
    Wake& operator=(Wake const&) = delete;

    // Neither can fail in a way that matters: a full counter wakes as well, an empty one has nothing to
    // clear.
    void set() const noexcept { static_cast<void>(::eventfd_write(descriptor, 1)); }
    void clear() const noexcept {
        eventfd_t ignored = 0;
        static_cast<void>(::eventfd_read(descriptor, &ignored));
    }

    int const descriptor;
};

SocketCanChannel::SocketCanChannel(std::string aInterface, std::shared_ptr<CanSocketApi> aApi)
    : Logger("SocketCanChannel", "CANopen")
    , mName(std::move(aInterface))
    , mApi(std::move(aApi))
    , mClock(Clock::current())
    , mWake(std::make_unique<Wake>())
    , mSocket(openSocket()) {}

SocketCanChannel::~SocketCanChannel() = default;

std::string SocketCanChannel::name() const {
    return mName;
}

std::shared_ptr<SocketCanChannel::Socket> SocketCanChannel::openSocket() const {
    auto const refuse = [this](CanLinkError::Reason aReason, std::string const& aWhy) {
        throw CanLinkError(aReason, "Cannot open CAN interface '" + mName + "': " + aWhy);
    };
    auto const check = [&](int aResult) {
        if (aResult < 0) {
            int const error = errno;
            refuse(reasonOf(error), words(error));
        }
        return aResult;
    };

    auto socket = std::make_shared<Socket>(mApi, check(mApi->open()));
    int const descriptor = socket->descriptor;
    int const index = check(mApi->interfaceIndex(descriptor, mName.c_str()));
    auto const flags = static_cast<unsigned>(check(mApi->interfaceFlags(descriptor, mName.c_str())));
    if ((flags & IFF_UP) == 0) {
        refuse(CanLinkError::Reason::InterfaceDown, words(ENETDOWN));
    }
    if ((flags & IFF_RUNNING) == 0) {
        refuse(CanLinkError::Reason::BusOff, "The controller is bus-off");
    }
    int const tellDrops = 1;
    timeval const patience{0, std::chrono::duration_cast<std::chrono::microseconds>(kReadPatience).count()};
    check(mApi->setOption(descriptor, SOL_CAN_RAW, CAN_RAW_FILTER, kWanted.data(), sizeof(kWanted)));
    check(mApi->setOption(descriptor, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &kErrors, sizeof(kErrors)));
    check(mApi->setOption(descriptor, SOL_SOCKET, SO_RXQ_OVFL, &tellDrops, sizeof(tellDrops)));
    check(mApi->setOption(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)));
    check(mApi->bind(descriptor, index));
    return socket;
}

std::shared_ptr<SocketCanChannel::Socket> SocketCanChannel::current() {
    std::lock_guard const lock(mMutex);
    if (mSocket == nullptr) {
        mSocket = openSocket();
    }
    return mSocket;
}

/// Drops a faulty socket, unless another thread has done so already; a receiver that waits on it looks anew.
void SocketCanChannel::giveUp(std::shared_ptr<Socket> const& aSocket) {
    std::lock_guard const lock(mMutex);
    if (mSocket == aSocket) {
        mSocket.reset();
        mWake->set();
    }
}

void SocketCanChannel::fail(std::shared_ptr<Socket> const& aSocket, int aError) {
    giveUp(aSocket);
    throw CanLinkError(reasonOf(aError), "CAN interface '" + mName + "' failed: " + words(aError));
}

void SocketCanChannel::send(CanFrame const& aFrame) {
    if (aFrame.id > CAN_SFF_MASK || aFrame.length > CAN_MAX_DLEN) {
        throw std::invalid_argument("A CAN frame has an identifier up to 0x7FF and up to 8 bytes");
    }
    can_frame frame{};
    frame.can_id = aFrame.id | (aFrame.remote ? CAN_RTR_FLAG : 0U);
    frame.len = aFrame.length;
    if (!aFrame.remote) {
        std::copy_n(aFrame.data.begin(), aFrame.length, frame.data);
    }

    std::shared_ptr<Socket> const socket = current();
    std::optional<Clock::TimePoint> deadline;
    while (mApi->write(socket->descriptor, frame) < 0) {
        int const error = errno;
        if (error == EINTR) {
            continue;
        }
        if (error != EAGAIN && error != ENOBUFS) {
            fail(socket, error);
        }
        Clock::TimePoint const now = mClock.now();
        if (!deadline) {
            deadline = now + kSendTimeout;
        } else if (now >= *deadline) {
            giveUp(socket);
            throw CanLinkError(CanLinkError::Reason::TransmitQueueFull,
                               "CAN interface '" + mName + "' failed: The transmit queue is full");
        }
        mClock.sleepFor(kQueuePause);
    }
}

std::optional<CanFrame> SocketCanChannel::receive(Clock::Duration aTimeout) {
    Clock::TimePoint const deadline = deadlineAfter(mClock.now(), aTimeout);
    for (Clock::Duration left = aTimeout;; left = deadline - mClock.now()) {
        if (mInterrupted.load() && mInterrupted.exchange(false)) {
            return std::nullopt;
        }
        std::shared_ptr<Socket> const socket = current();
        if (left >= kReadPatience) {
            if (std::optional<CanFrame> frame = take(socket, true)) {
                return frame;
            }
            left = deadline - mClock.now();
        }
        if (waitReadable(socket, left)) {
            if (std::optional<CanFrame> frame = take(socket, false)) {
                return frame;
            }
        } else if (left <= Clock::Duration::zero()) {
            return std::nullopt;
        }
    }
}

/// Waits until the socket has something to read, or another thread wants this one to look up.
/// @return Whether it has.
bool SocketCanChannel::waitReadable(std::shared_ptr<Socket> const& aSocket, Clock::Duration aTime) {
    std::array<pollfd, 2> entries{{{aSocket->descriptor, POLLIN, 0}, {mWake->descriptor, POLLIN, 0}}};
    int const ready = mApi->poll(entries.data(), entries.size(), pollTimeout(aTime));
    if (ready < 0) {
        int const error = errno;
        if (error != EINTR) {
            fail(aSocket, error);
        }
        return false;
    }
    if (entries[1].revents != 0) {
        mWake->clear();
    }
    return entries[0].revents != 0;
}

/// Takes one frame.
/// @param aWait  Whether to wait a moment for it.
/// @return None when there was none for the caller.
std::optional<CanFrame> SocketCanChannel::take(std::shared_ptr<Socket> const& aSocket, bool aWait) {
    can_frame frame{};
    unsigned dropped = aSocket->dropped;
    ssize_t const size = mApi->read(aSocket->descriptor, aWait, frame, dropped);
    if (size < 0) {
        int const error = errno;
        if (error == EAGAIN || error == EINTR) {
            return std::nullopt;
        }
        fail(aSocket, error);
    }
    if (dropped != aSocket->dropped) {
        keplaDoLog(Severity::Warning, "CAN interface '%s' has lost %u received frames", {}, mName,
                   dropped - aSocket->dropped);
        aSocket->dropped = dropped;
    }
    if (size != sizeof(can_frame)) {
        return std::nullopt;
    }
    if ((frame.can_id & CAN_ERR_FLAG) != 0) {
        heed(aSocket, frame);
        return std::nullopt;
    }
    constexpr canid_t kNode = 0x7FU;
    CanFrame result;
    result.id = frame.can_id & ~CAN_RTR_FLAG;
    result.length = frame.len;
    result.remote = (frame.can_id & CAN_RTR_FLAG) != 0;
    if ((result.id & kNode) == 0 || result.id > CAN_SFF_MASK || result.length > CAN_MAX_DLEN) {
        return std::nullopt;
    }
    if (!result.remote) {
        std::copy_n(frame.data, frame.len, result.data.begin());
    }
    return result;
}

/// Acts on an error frame, which is the controller's own news and never on the bus.
void SocketCanChannel::heed(std::shared_ptr<Socket> const& aSocket, can_frame const& aErrorFrame) {
    constexpr std::uint8_t kAnyPassive = CAN_ERR_CRTL_RX_PASSIVE | CAN_ERR_CRTL_TX_PASSIVE;
    if ((aErrorFrame.can_id & CAN_ERR_BUSOFF) != 0) {
        giveUp(aSocket);
        throw CanLinkError(CanLinkError::Reason::BusOff,
                           "CAN interface '" + mName + "' failed: The controller is bus-off");
    }
    if ((aErrorFrame.can_id & CAN_ERR_TX_TIMEOUT) != 0) {
        giveUp(aSocket);
        throw CanLinkError(CanLinkError::Reason::TransmitQueueFull,
                           "CAN interface '" + mName + "' failed: The controller could not send in time");
    }
    if ((aErrorFrame.can_id & CAN_ERR_CRTL) == 0) {
        return;
    }
    std::uint8_t const state = aErrorFrame.data[1];
    if ((state & CAN_ERR_CRTL_RX_OVERFLOW) != 0) {
        keplaDoLog(Severity::Warning, "CAN interface '%s': the controller has lost received frames", {},
                   mName);
    }
    if ((state & kAnyPassive) != 0 && !aSocket->passive) {
        aSocket->passive = true;
        keplaDoLog(Severity::Warning, "CAN interface '%s' is error passive: is the bus connected?", {},
                   mName);
    } else if ((state & CAN_ERR_CRTL_ACTIVE) != 0 && aSocket->passive) {
        aSocket->passive = false;
        keplaDoLog(Severity::Info, "CAN interface '%s' is error active again", {}, mName);
    }
}

void SocketCanChannel::interrupt() {
    mInterrupted.store(true);
    mWake->set();
}

} // namespace velmor::kepla::canopen
