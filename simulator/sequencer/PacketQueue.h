// SPDX-License-Identifier: Apache-2.0
// What waits in a DMA device to be read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

namespace libfieldwarden::sim {

/// Whole packets, of which the oldest is dropped when there are too many. Passive; one thread at a time.
class PacketQueue {
public:
    using Packet = std::vector<std::uint8_t>;

    /// @param aKept  How many packets there can be.
    explicit PacketQueue(std::size_t aKept)
        : mKept(aKept) {}

    void push(Packet aPacket) {
        if (mPackets.size() == mKept) {
            mPackets.pop_front();
            ++mDropped;
        }
        mPackets.push_back(std::move(aPacket));
    }

    bool empty() const noexcept { return mPackets.empty(); }
    std::size_t size() const noexcept { return mPackets.size(); }
    /// @return How many packets nobody read in time.
    std::size_t dropped() const noexcept { return mDropped; }

    /// Takes the oldest packet of a queue that is not empty.
    Packet pop() {
        Packet packet = std::move(mPackets.front());
        mPackets.pop_front();
        return packet;
    }

    void clear() noexcept { mPackets.clear(); }

private:
    std::size_t const mKept;
    std::size_t mDropped = 0;
    std::deque<Packet> mPackets;
};

} // namespace libfieldwarden::sim
