// SPDX-License-Identifier: Apache-2.0
// The socket to the peer and the two threads that carry frames.
#include "integration/canopen/SdoPeer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace libfieldwarden::test {

using velmor::kepla::canopen::CanFrame;

namespace {

constexpr std::uint8_t kFrame = 0;
constexpr std::uint8_t kCommand = 1;
constexpr int kStartTimeoutMs = 60000;

void put32(std::uint8_t* aInto, std::size_t aValue) {
    for (unsigned i = 0; i < 4; ++i) {
        aInto[i] = static_cast<std::uint8_t>(aValue >> (8 * i));
    }
}

/// Listens at a path, starts the peer, and takes its connection.
int connectedPeer(std::string const& aPath, std::unique_ptr<ChildProcess>& aProcess) {
    int const listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (aPath.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("the path of the peer's socket is too long");
    }
    std::memcpy(address.sun_path, aPath.c_str(), aPath.size() + 1);
    void* const untyped = &address;
    int result = -1;
    if (::bind(listener, static_cast<sockaddr*>(untyped), sizeof(address)) == 0 &&
        ::listen(listener, 1) == 0) {
        aProcess = std::make_unique<ChildProcess>(
            std::vector<std::string>{"node", FIELDWARDEN_PEER_SCRIPT, aPath, FIELDWARDEN_PEER_MODULES});
        pollfd entry{listener, POLLIN, 0};
        if (::poll(&entry, 1, kStartTimeoutMs) == 1) {
            result = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        }
    }
    ::close(listener);
    if (result < 0) {
        throw std::runtime_error("the peer does not connect");
    }
    return result;
}

} // namespace

std::string toHex(std::span<std::uint8_t const> aData) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string result;
    for (std::uint8_t const each : aData) {
        result += kDigits[each >> 4U];
        result += kDigits[each & 0xFU];
    }
    return result;
}

std::vector<std::uint8_t> fromHex(std::string const& aText) {
    std::vector<std::uint8_t> result;
    for (std::size_t i = 0; i + 1 < aText.size(); i += 2) {
        result.push_back(static_cast<std::uint8_t>(std::stoul(aText.substr(i, 2), nullptr, 16)));
    }
    return result;
}

SdoPeer::SdoPeer(velmor::kepla::canopen::InProcessBus& aBus)
    : mChannel(aBus.open("peer"))
    , mSocket(connectedPeer((mFolder.path() / "peer").string(), mProcess))
    , mToPeer([this] { carryToPeer(); })
    , mFromPeer([this] { carryFromPeer(); }) {}

SdoPeer::~SdoPeer() {
    {
        std::lock_guard const lock(mMutex);
        mStop = true;
    }
    mChannel->interrupt();
    ::shutdown(mSocket, SHUT_RDWR);
    mToPeer.join();
    mFromPeer.join();
    ::close(mSocket);
}

nlohmann::json SdoPeer::command(nlohmann::json const& aCommand) {
    std::string const text = aCommand.dump();
    std::vector<std::uint8_t> const payload(text.begin(), text.end());
    write(kCommand, payload);
    std::unique_lock lock(mMutex);
    if (!mChanged.wait_for(lock, std::chrono::seconds(60), [&] { return !mResults.empty() || mEnded; }) ||
        mResults.empty()) {
        throw std::runtime_error("the peer does not answer to " + text.substr(0, 100));
    }
    nlohmann::json result = std::move(mResults.front());
    mResults.pop_front();
    return result;
}

void SdoPeer::define(int aIndex,
                     std::string const& aType,
                     std::vector<std::uint8_t> const& aData,
                     std::string const& aAccess) {
    command(
        {{"do", "define"}, {"index", aIndex}, {"type", aType}, {"hex", toHex(aData)}, {"access", aAccess}});
}

std::vector<std::uint8_t> SdoPeer::get(int aIndex) {
    return fromHex(command({{"do", "get"}, {"index", aIndex}}).at("hex").get<std::string>());
}

void SdoPeer::write(std::uint8_t aKind, std::span<std::uint8_t const> aPayload) {
    std::vector<std::uint8_t> message(5);
    put32(message.data(), aPayload.size() + 1);
    message[4] = aKind;
    message.insert(message.end(), aPayload.begin(), aPayload.end());
    std::lock_guard const lock(mWriting);
    for (std::size_t sent = 0; sent < message.size();) {
        ssize_t const step = ::send(mSocket, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
        if (step <= 0) {
            return; // The peer has gone, which the reader notices.
        }
        sent += static_cast<std::size_t>(step);
    }
}

bool SdoPeer::readFully(std::span<std::uint8_t> aInto) const {
    return aInto.empty() ||
           ::recv(mSocket, aInto.data(), aInto.size(), MSG_WAITALL) == static_cast<ssize_t>(aInto.size());
}

void SdoPeer::carryToPeer() {
    while (true) {
        std::optional<CanFrame> const frame = mChannel->receive(std::chrono::hours(1));
        {
            std::lock_guard const lock(mMutex);
            if (mStop) {
                return;
            }
        }
        if (frame && !frame->remote) { // The framing has no remote frames.
            std::vector<std::uint8_t> payload{static_cast<std::uint8_t>(frame->id),
                                              static_cast<std::uint8_t>(frame->id >> 8U)};
            payload.insert(payload.end(), frame->data.begin(), frame->data.begin() + frame->length);
            write(kFrame, payload);
        }
    }
}

void SdoPeer::carryFromPeer() {
    std::array<std::uint8_t, 5> head{};
    std::vector<std::uint8_t> payload;
    while (readFully(head)) {
        std::size_t length = 0;
        for (unsigned i = 4; i-- > 0;) {
            length = length << 8U | head[i];
        }
        payload.resize(length - 1);
        if (!readFully(payload)) {
            break;
        }
        if (head[4] == kFrame && payload.size() >= 2 && payload.size() <= 10) {
            CanFrame frame;
            frame.id = static_cast<std::uint32_t>(payload[0] | payload[1] << 8U);
            frame.length = static_cast<std::uint8_t>(payload.size() - 2);
            std::copy(payload.begin() + 2, payload.end(), frame.data.begin());
            mChannel->send(frame);
        } else if (head[4] == kCommand) {
            std::lock_guard const lock(mMutex);
            mResults.push_back(nlohmann::json::parse(payload.begin(), payload.end()));
            mChanged.notify_all();
        }
    }
    std::lock_guard const lock(mMutex);
    mEnded = true;
    mChanged.notify_all();
}

} // namespace libfieldwarden::test
