// SPDX-License-Identifier: Apache-2.0
// A CANopen stack written by others, in a process of its own, as a participant of the in-process bus.
#pragma once

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

#include <velmor/kepla/canopen/CanChannel.h>
#include <velmor/kepla/canopen/InProcessBus.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace libfieldwarden::test {

/// Runs sdo_peer.js, which tells the framing, and carries frames between it and the bus. Every wait has a
/// deadline far beyond what a loaded machine needs.
class SdoPeer {
public:
    /// @throws std::runtime_error  when the peer does not come up.
    explicit SdoPeer(velmor::kepla::canopen::InProcessBus& aBus);
    ~SdoPeer();
    SdoPeer(SdoPeer const&) = delete;
    SdoPeer& operator=(SdoPeer const&) = delete;

    /// Carries out a command of sdo_peer.js. For one thread at a time.
    /// @return Its result.
    nlohmann::json command(nlohmann::json const& aCommand);

    /// Makes the peer the SDO server of a node.
    void beServer(int aNode) { command({{"do", "server"}, {"node", aNode}}); }
    void define(int aIndex,
                std::string const& aType,
                std::vector<std::uint8_t> const& aData,
                std::string const& aAccess = "rw");
    std::vector<std::uint8_t> get(int aIndex);

private:
    void write(std::uint8_t aKind, std::span<std::uint8_t const> aPayload);
    bool readFully(std::span<std::uint8_t> aInto) const;
    void carryToPeer();
    void carryFromPeer();

    TemporaryDirectory mFolder;
    std::unique_ptr<velmor::kepla::canopen::CanChannel> mChannel;
    std::unique_ptr<ChildProcess> mProcess; ///< Filled in while the next member is made.
    int mSocket = -1;

    std::mutex mWriting;
    std::mutex mMutex; ///< Guards the members up to the threads.
    std::condition_variable mChanged;
    std::deque<nlohmann::json> mResults;
    bool mStop = false;
    bool mEnded = false;
    std::thread mToPeer;
    std::thread mFromPeer;
};

/// Bytes as hexadecimal digits and back.
std::string toHex(std::span<std::uint8_t const> aData);
std::vector<std::uint8_t> fromHex(std::string const& aText);

} // namespace libfieldwarden::test
