// SPDX-License-Identifier: Apache-2.0
// What the master knows of a node from the node's own signs of life.
#pragma once

#include <velmor/platform/Clock.h>

#include <cstdint>
#include <optional>

namespace velmor::kepla::canopen {

/// State of a node's network management, with the values of CiA 301 on the bus.
enum class NmtState : std::uint8_t {
    BootUp = 0x00,
    Stopped = 0x04,
    Operational = 0x05,
    PreOperational = 0x7F,
    Unknown = 0xFF, ///< Not heard of yet, or its heartbeat is missing.
};

/// Commands of network management, with the values of CiA 301 on the bus.
enum class NmtCommand : std::uint8_t {
    Start = 0x01,
    Stop = 0x02,
    PreOperational = 0x80,
    ResetNode = 0x81,
    ResetCommunication = 0x82,
};

/// What was heard of one node. Of node guarding the answers with the right toggle bit count, whoever asked.
struct NodeStatus {
    NmtState state = NmtState::Unknown;
    std::uint32_t bootUps = 0; ///< Boot-up messages since the master began.
    std::uint32_t signs = 0;   ///< Boot-ups, heartbeats and answers to node guarding together.
    std::optional<velmor::platform::Clock::TimePoint> lastSign = {}; ///< When the last of them came.
};

} // namespace velmor::kepla::canopen
