// SPDX-License-Identifier: Apache-2.0
// A CAN bus within this process: between the master and the simulated boards, with the arbitration, the speed
// and the faults of a real one.
#pragma once

#include <velmor/kepla/canopen/CanChannel.h>
#include <velmor/kepla/canopen/CanFrame.h>
#include <velmor/kepla/canopen/CanLinkError.h>
#include <velmor/platform/Clock.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace velmor::kepla::canopen {

/// Which frames a channel wants: those whose identifier equals this one in the bits of the mask.
struct CanFilter {
    std::uint32_t id = 0;
    std::uint32_t mask = 0x7FF;
};

/// What can be set of a bus.
struct InProcessBusSettings {
    using Duration = velmor::platform::Clock::Duration;

    std::uint32_t bitRate = 0;       ///< bit/s; 0: frames take no time.
    std::size_t transmitQueue = 128; ///< Frames of a channel that may wait for the bus, at least 1.
    std::size_t receiveQueue = 4096; ///< Frames that a channel holds for its reader; further ones are lost.
    Duration sendTimeout = std::chrono::milliseconds(100); ///< Longest wait for room in the transmit queue.
};

/// Something that goes wrong with frames.
struct BusFault {
    enum class Action {
        Drop,      ///< The frame is lost.
        Duplicate, ///< The frame comes twice.
        Corrupt,   ///< Its data bytes are changed, as by a board with bad memory; a remote frame has none.
        Delay,     ///< It is held back in the sender, so that others overtake it.
    };
    static constexpr std::size_t kAlways = std::numeric_limits<std::size_t>::max();

    Action action = Action::Drop;
    std::function<bool(CanFrame const&)> matches{}; ///< Which frames; empty: all. Must not use the bus.
    std::size_t skip = 0;                           ///< Matching frames that pass before the first is hit.
    std::size_t count = 1;                          ///< Matching frames that are hit.
    velmor::platform::Clock::Duration delay{};      ///< For Delay.
    std::array<std::uint8_t, 8> corruption{};       ///< For Corrupt: bits to turn over.
};

/// What a bus has seen so far.
struct BusCounters {
    std::uint64_t sent = 0;      ///< Frames that channels gave it.
    std::uint64_t delivered = 0; ///< Frames put into a channel's receive queue.
    std::uint64_t dropped = 0;   ///< Lost by a fault, a silent node or a broken link.
    std::uint64_t duplicated = 0;
    std::uint64_t corrupted = 0;
    std::uint64_t delayed = 0;
    std::uint64_t overflowed = 0; ///< Lost because a receive queue was full.
    std::uint64_t bits = 0;       ///< Bits on the bus, interframe spaces with them; only with a bit rate.
};

/// The bus. Channels keep it alive, so that it may be closed before them.
///
/// Of the frames that wait for the bus the lowest identifier goes first, a data frame before a remote frame
/// of the same identifier, and among equal ones the one that was sent first. Without a bit rate the bus is
/// never occupied: a frame is in the queues of its receivers when send() returns. With a bit rate a frame
/// occupies the bus of the process's clock for its exact length, stuff bits and interframe space counted.
/// There is no thread: whoever sends or receives moves the bus on, so an idle bus does nothing. A reader that
/// wakes late for its frame, as threads do, sends its next frame as of the time at which it should have
/// woken: so the bus carries what its bit rate allows on a busy machine too.
///
/// All operations may be called from any thread and do not block, but for send() and receive() of the
/// channels.
class InProcessBus {
public:
    using Duration = velmor::platform::Clock::Duration;
    using FaultId = std::uint64_t;

    /// @param aSettings  How the bus behaves.
    /// @param aClock     The time of everybody on the bus; outlives it.
    /// @throws std::invalid_argument  when a queue has no room at all.
    explicit InProcessBus(InProcessBusSettings const& aSettings = {},
                          velmor::platform::Clock& aClock = velmor::platform::Clock::current());
    ~InProcessBus();
    InProcessBus(InProcessBus const&) = delete;
    InProcessBus& operator=(InProcessBus const&) = delete;

    /// Makes a channel.
    /// @param aName     Its name in messages and faults, such as "can0".
    /// @param aFilters  The frames that it receives: those that match one of these; empty: all.
    /// @throws CanLinkError  while failLink() keeps that name missing or down.
    std::unique_ptr<CanChannel> open(std::string const& aName, std::vector<CanFilter> aFilters = {});

    /// Sets the speed for the frames to come.
    /// @param aBitRate  bit/s; 0: frames take no time.
    void setBitRate(std::uint32_t aBitRate);

    /// Keeps the bus occupied, so that frames wait, until release().
    void hold();

    /// Ends hold(): what waits goes out in the order of arbitration.
    void release();

    /// Lets something go wrong. Of several faults that match a frame, the first one hits it.
    /// @return A handle for heal().
    FaultId inject(BusFault aFault);

    /// Takes a fault back.
    void heal(FaultId aFault);

    /// Takes all faults back, silent nodes and broken links with them.
    void healAll();

    /// Loses everything that a node sends (SDO answers, PDOs, heartbeat, emergencies), as when it is
    /// unplugged.
    /// @param aNode    The node, 1 to 127.
    /// @param aSilent  Whether it is silent from now on.
    void silence(std::uint8_t aNode, bool aSilent = true);

    /// Breaks the link of channels: their operations throw, blocked ones at once, what waits in their queues
    /// is lost.
    /// @param aReason  How; with TransmitQueueFull only sending is broken.
    /// @param aName    Of the channels; empty: all.
    void failLink(CanLinkError::Reason aReason, std::string const& aName = {});

    /// Ends failLink().
    /// @param aName  Of the channels; empty: all.
    void mendLink(std::string const& aName = {});

    /// @return What the bus has seen so far.
    BusCounters counters() const;

private:
    class Shared;
    class Channel;

    std::shared_ptr<Shared> mShared;
};

} // namespace velmor::kepla::canopen
