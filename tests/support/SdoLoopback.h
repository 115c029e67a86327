// SPDX-License-Identifier: Apache-2.0
// An SDO client and an SDO server back to back, without a bus: what one sends, the other gets.
#pragma once

#include <velmor/kepla/canopen/SdoClientCore.h>
#include <velmor/kepla/canopen/SdoServerCore.h>

#include <cstdint>
#include <map>
#include <span>
#include <utility>
#include <vector>

namespace libfieldwarden::test {

/// Keeps the frames that a core wants to send.
class FrameRecorder final : public velmor::kepla::canopen::SdoFrameSink {
public:
    virtual ~FrameRecorder() = default;
    void sendFrame(velmor::kepla::canopen::CanFrame const& aFrame) override { mFrames.push_back(aFrame); }

    /// @return The frames since the last call; the recorder is empty afterwards.
    std::vector<velmor::kepla::canopen::CanFrame> take() { return std::exchange(mFrames, {}); }

    std::vector<velmor::kepla::canopen::CanFrame>& frames() noexcept { return mFrames; }

private:
    std::vector<velmor::kepla::canopen::CanFrame> mFrames;
};

/// A dictionary of plain bytes. Objects that were never stored do not exist.
class ByteDictionary final : public velmor::kepla::canopen::ObjectDictionaryIfc {
public:
    using Object = velmor::kepla::canopen::SdoObject;
    using Bytes = std::vector<std::uint8_t>;

    Bytes& at(Object aObject) { return mObjects[{aObject.index, aObject.subindex}]; }

    std::uint32_t read(Object aObject, Bytes& aData) override {
        auto const entry = mObjects.find({aObject.index, aObject.subindex});
        if (entry == mObjects.end()) {
            return velmor::kepla::canopen::sdoabort::kNoSuchObject;
        }
        aData.assign(entry->second.begin(), entry->second.end());
        return 0;
    }

    std::uint32_t write(Object aObject, std::span<std::uint8_t const> aData) override {
        auto const entry = mObjects.find({aObject.index, aObject.subindex});
        if (entry == mObjects.end()) {
            return velmor::kepla::canopen::sdoabort::kNoSuchObject;
        }
        entry->second.assign(aData.begin(), aData.end());
        return 0;
    }

private:
    std::map<std::pair<std::uint16_t, std::uint8_t>, Bytes> mObjects;
};

/// Client and server of node 8. Time stands still.
class SdoLoopback {
public:
    explicit SdoLoopback(velmor::kepla::canopen::ObjectDictionaryIfc& aDictionary,
                         velmor::kepla::canopen::SdoServerSettings const& aServer = {},
                         velmor::kepla::canopen::SdoClientSettings const& aClient = {})
        : client(8, mRequests, aClient)
        , server(8, aDictionary, mAnswers, aServer) {}

    /// Carries frames to and fro until there are none.
    void run() {
        while (!mRequests.frames().empty() || !mAnswers.frames().empty()) {
            for (auto const& frame : mRequests.take()) {
                server.onFrame(frame, now);
                ++requests;
            }
            for (auto const& frame : mAnswers.take()) {
                client.onFrame(frame, now);
                ++answers;
            }
        }
    }

private:
    FrameRecorder mRequests;
    FrameRecorder mAnswers;

public:
    velmor::platform::Clock::TimePoint now{std::chrono::hours(1)};
    velmor::kepla::canopen::SdoClientCore client;
    velmor::kepla::canopen::SdoServerCore server;
    std::size_t requests = 0; ///< Frames that the client has sent.
    std::size_t answers = 0;  ///< Frames that the server has sent.
};

} // namespace libfieldwarden::test
