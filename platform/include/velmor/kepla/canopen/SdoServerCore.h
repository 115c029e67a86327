// SPDX-License-Identifier: Apache-2.0
// The node's side of the SDO protocol (CiA 301 7.2.4) as a passive machine, for simulated boards and for
// tests of the client.
#pragma once

#include <velmor/kepla/canopen/CanFrame.h>
#include <velmor/kepla/canopen/ObjectDictionaryIfc.h>
#include <velmor/kepla/canopen/SdoFrameSink.h>
#include <velmor/kepla/canopen/SdoTypes.h>
#include <velmor/platform/Clock.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace velmor::kepla::canopen {

/// What a node's SDO server can do; the defaults are everything.
struct SdoServerSettings {
    using Duration = velmor::platform::Clock::Duration;

    Duration requestTimeout = std::chrono::seconds(1);   ///< Longest wait for the client within a transfer.
    std::uint32_t maximalDownload = 16U * 1024U * 1024U; ///< Bytes that a client may write without a stream.
    std::uint8_t blockSize = 127;                        ///< Segments that it takes in one go, 1 to 127.
    bool blockTransfers = true;                          ///< Else block requests are refused.
    bool checkSums = true;                               ///< Of block transfers.
    bool announceSizes = true;                           ///< Of uploads.
};

/// One SDO server on the default SDO channel of a node, one transfer at a time; a new request ends the
/// transfer before. Requests that fit nothing are refused while a transfer is under way and ignored else.
///
/// An expedited transfer allocates nothing but what the dictionary allocates. A download's buffer grows with
/// what has come.
///
/// Not for several threads at a time. Nothing blocks, unless the sink or the dictionary do; their exceptions
/// pass through.
class SdoServerCore {
public:
    using TimePoint = velmor::platform::Clock::TimePoint;

    /// @param aNode        The node, 1 to 127.
    /// @param aDictionary  The objects; outlives this.
    /// @param aSink        Takes the frames; outlives this.
    /// @throws std::invalid_argument  when the node or the block size are out of range.
    SdoServerCore(std::uint8_t aNode,
                  ObjectDictionaryIfc& aDictionary,
                  SdoFrameSink& aSink,
                  SdoServerSettings const& aSettings = {});
    SdoServerCore(SdoServerCore const&) = delete;
    SdoServerCore& operator=(SdoServerCore const&) = delete;

    /// A frame has come; frames with another identifier are ignored.
    /// @param aNow  The time.
    void onFrame(CanFrame const& aFrame, TimePoint aNow);

    /// Time has gone on: a transfer whose client is overdue is given up.
    void onTime(TimePoint aNow);

    /// Forgets the transfer under way without a word, as a node does that restarts.
    void reset() noexcept;

    /// @return Whether a transfer of more than one frame is under way.
    bool busy() const noexcept { return mPhase != Phase::Idle; }

    /// @return When the client is overdue; meaningful while busy.
    TimePoint deadline() const noexcept { return mDeadline; }

private:
    enum class Phase : std::uint8_t {
        Idle,
        UploadSegments,
        DownloadSegments,
        BlockUpStart,      ///< Waits for the word to begin.
        BlockUpAck,        ///< Waits for the confirmation of a block.
        BlockUpEnd,        ///< Waits for the confirmation of the end.
        BlockDownSegments, ///< Collects segments.
        BlockDownEnd,      ///< Waits for size and check sum.
    };
    using Bytes = std::array<std::uint8_t, 8>;

    void onRequest(Bytes const& aData);
    void onUploadInit(Bytes const& aData);
    void answerUpload();
    void onUploadSegment(Bytes const& aData);
    void onDownloadInit(Bytes const& aData);
    void onDownloadSegment(Bytes const& aData);
    void onBlockUpload(Bytes const& aData);
    void onBlockUpInit(Bytes const& aData);
    void onBlockUpAck(Bytes const& aData);
    void sendBlockSegments();
    void onBlockDownload(Bytes const& aData);
    void onBlockDownSegment(Bytes const& aData);
    void onBlockDownEnd(Bytes const& aData);

    bool openDownload(bool aSizeKnown, std::uint32_t aSize);
    bool passOn();
    bool complete(std::size_t aUnused);
    void misfit();
    void send(Bytes const& aData);
    void abort(std::uint32_t aCode);

    std::uint8_t const mNode;
    ObjectDictionaryIfc& mDictionary;
    SdoFrameSink& mSink;
    SdoServerSettings const mSettings;

    Phase mPhase = Phase::Idle;
    SdoObject mObject;
    TimePoint mDeadline;
    std::vector<std::uint8_t> mBuffer; ///< What is read out, or what came in and was not passed on.
    std::size_t mPosition = 0; ///< Bytes of an upload that have arrived; bytes of a download passed on.
    bool mSizeKnown = false;
    std::uint32_t mAnnounced = 0;
    bool mToggle = false;
    bool mCrc = false;
    std::uint16_t mCrcSoFar = 0; ///< Of what was passed on.
    std::uint8_t mBlockSize = 0; ///< Of the block under way.
    std::uint8_t mSequence = 0;  ///< Last segment of the block: sent, or received in order.
    bool mLastSegment = false;   ///< The segment with the end mark was sent, or received in order.
    Bytes mLastRequest{};        ///< Within a block download, by which a second copy is known.
    std::unique_ptr<ObjectWriteStream> mStream;
};

} // namespace velmor::kepla::canopen
