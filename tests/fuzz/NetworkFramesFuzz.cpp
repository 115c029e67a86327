// SPDX-License-Identifier: Apache-2.0
// Any frames on the bus to the master: heartbeats, boot-ups, node guarding and emergencies of every length
// and content, also damaged ones. It takes them, keeps a state that exists for every node, and goes on
// serving.
//
// The input is a row of frames of eleven bytes: two of the identifier, the uppermost bit making it a remote
// frame, one of the length (modulo 9), eight of data.
#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/EmergencyMessage.h>
#include <velmor/kepla/canopen/InProcessBus.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

using namespace velmor::kepla::canopen;

namespace {

constexpr std::size_t kFrameBytes = 11;
constexpr std::uint32_t kLastIdentifier = 0x7FF;
constexpr std::uint8_t kRemote = 0x80;
constexpr unsigned char kWitness = 127;

CanFrame frameOf(std::span<std::uint8_t const> aBytes) {
    CanFrame frame;
    frame.id = (static_cast<std::uint32_t>(aBytes[0]) << 8U | aBytes[1]) & kLastIdentifier;
    frame.length = static_cast<std::uint8_t>(aBytes[2] % 9);
    frame.remote = (aBytes[0] & kRemote) != 0;
    for (std::size_t i = 0; i < frame.data.size() && !frame.remote; ++i) {
        frame.data[i] = aBytes[3 + i];
    }
    return frame;
}

void decodeAlone(CanFrame const& aFrame) {
    if (auto const message = EmergencyMessage::decode(aFrame)) {
        if (message->node < 1 || message->node > 127 || message->registerWords().empty()) {
            std::abort();
        }
        (void)message->words();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize) {
    InProcessBus bus;
    CanOpenMaster master(bus.open("master"), 1);
    auto const node = bus.open("node");
    std::span<std::uint8_t const> rest(aData, aSize);
    while (rest.size() >= kFrameBytes) {
        CanFrame const frame = frameOf(rest);
        decodeAlone(frame);
        node->send(frame);
        rest = rest.subspan(kFrameBytes);
    }
    // The last one comes when the master has taken all before it. A boot-up counts whatever was before.
    auto const signsBefore = master.status(kWitness).signs;
    node->send({.id = 0x700U + kWitness, .length = 1, .data = {static_cast<std::uint8_t>(NmtState::BootUp)}});
    if (!master.awaitStatus(
            kWitness, [&](NodeStatus const& aStatus) { return aStatus.signs > signsBefore; },
            std::chrono::seconds(5))) {
        std::abort();
    }
    for (int number = 1; number <= 127; ++number) {
        (void)master.status(static_cast<unsigned char>(number));
    }
    return 0;
}
