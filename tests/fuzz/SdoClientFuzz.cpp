// SPDX-License-Identifier: Apache-2.0
// Any answers of a node to the SDO client: it stays within its memory, ends every transfer, and is ready for
// the next one.
//
// The input: the first byte chooses the request (bits 0 to 1: upload, block upload, download, block download;
// bits 2 to 3: size of what is written; bit 4: what is accepted is next to unlimited), then come steps. A
// step is one byte: 0xFF lets 300 ms pass, 0xFE begins the next request with the byte behind it as its
// choice, 0xFD plays the honest node for what was sent last; any other byte is the length of a frame (modulo
// 9), with the data bytes of the frame behind it. corpus/sdo_client is made by corpus/make-sdo-client-seeds.
#include "support/SdoLoopback.h"

#include <velmor/kepla/canopen/SdoError.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <span>

using namespace velmor::kepla::canopen;

namespace {

constexpr std::size_t kLimit = 256;
constexpr SdoObject kObject{0x3000, 0x01};

void require(bool aHolds) {
    if (!aHolds) {
        std::abort();
    }
}

class Fuzz {
public:
    explicit Fuzz(std::span<std::uint8_t const> aInput)
        : mInput(aInput) {
        mDictionary.at(kObject).assign(30, 0x11);
        mDictionary.at({0x1000, 0}).assign(4, 0x22);
    }

    void run() {
        begin();
        while (!mInput.empty()) {
            step();
            require(mClient.bufferCapacity() <= 64 + 16 * mBytesIn + 2 * kLimit);
            require(mRequests.frames().size() < 10'000);
        }
        // Whatever came, the transfer ends with the time, and the next request succeeds.
        mNow = std::max(mNow, mClient.deadline());
        mClient.onTime(mNow);
        require(!mClient.busy());
        describe();
        mRequests.take();
        mServer.reset();
        mClient.startUpload(kObject, mSource.size(), mNow);
        while (mClient.busy() && !mRequests.frames().empty()) {
            playNode();
        }
        require(mClient.result().outcome == SdoOutcome::Done);
        require(mClient.data().size() == mDictionary.at(kObject).size());
    }

private:
    std::uint8_t next() {
        if (mInput.empty()) {
            return 0;
        }
        std::uint8_t const byte = mInput.front();
        mInput = mInput.subspan(1);
        return byte;
    }

    void begin() {
        std::uint8_t const choice = next();
        if (mClient.busy()) {
            mClient.cancel();
        }
        describe();
        SdoMode const mode = (choice & 1U) != 0 ? SdoMode::Block : SdoMode::Segmented;
        if ((choice & 2U) == 0) {
            mClient.startUpload(
                kObject, (choice & 16U) != 0 ? std::numeric_limits<std::size_t>::max() : kLimit, mNow, mode);
        } else {
            static constexpr std::array<std::size_t, 4> kSizes{0, 3, 30, 2000};
            mClient.startDownload(kObject, std::span(mSource).first(kSizes[(choice >> 2U) & 3U]), mode, mNow);
        }
    }

    void step() {
        std::uint8_t const kind = next();
        if (kind == 0xFF) {
            mNow += std::chrono::milliseconds(300);
            mClient.onTime(mNow);
            return;
        }
        if (kind == 0xFE) {
            begin();
            return;
        }
        if (kind == 0xFD) {
            playNode();
            return;
        }
        CanFrame frame{0x588, static_cast<std::uint8_t>(kind % 9), {}};
        for (std::size_t i = 0; i < frame.length; ++i) {
            frame.data[i] = next();
        }
        mBytesIn += frame.length;
        mClient.onFrame(frame, mNow);
    }

    void playNode() {
        for (CanFrame const& frame : mRequests.take()) {
            mServer.onFrame(frame, mNow);
        }
        for (CanFrame const& frame : mAnswers.take()) {
            mBytesIn += frame.length;
            mClient.onFrame(frame, mNow);
        }
    }

    void describe() const {
        try {
            mClient.throwUnlessDone();
        } catch (SdoError const& error) {
            require(error.node() == 8);
        }
    }

    std::span<std::uint8_t const> mInput;
    std::array<std::uint8_t, 2000> mSource{};
    libfieldwarden::test::ByteDictionary mDictionary;
    libfieldwarden::test::FrameRecorder mRequests;
    libfieldwarden::test::FrameRecorder mAnswers;
    SdoClientCore mClient{8, mRequests};
    SdoServerCore mServer{8, mDictionary, mAnswers};
    velmor::platform::Clock::TimePoint mNow{std::chrono::hours(1)};
    std::size_t mBytesIn = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize) {
    Fuzz({aData, aSize}).run();
    return 0;
}
