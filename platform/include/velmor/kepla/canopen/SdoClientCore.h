// SPDX-License-Identifier: Apache-2.0
// The client's side of the SDO protocol (CiA 301 7.2.4) as a passive machine: frames and time go in by call,
// frames come out through a sink. Threads, channels and retries stand around it.
#pragma once

#include <velmor/kepla/canopen/CanFrame.h>
#include <velmor/kepla/canopen/SdoAbort.h>
#include <velmor/kepla/canopen/SdoFrameSink.h>
#include <velmor/kepla/canopen/SdoTypes.h>
#include <velmor/platform/Clock.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace velmor::kepla::canopen {

/// How a transfer ended.
enum class SdoOutcome {
    Done,          ///< Whole and checked.
    Aborted,       ///< The node gave it up, with its abort code.
    TimedOut,      ///< The node did not answer in time. Whether a write took place is not known.
    ProtocolError, ///< The node answered against the protocol; this client gave up with the abort code.
    Cancelled,     ///< cancel() was called, or the sink threw.
};

/// The end of a transfer.
struct SdoResult {
    SdoOutcome outcome = SdoOutcome::Cancelled;
    std::uint32_t abortCode = 0; ///< Of the node or of this client; 0 when done.
    bool requestSent =
        false;            ///< False: the node has never seen the request, and even a write may be repeated.
    bool refused = false; ///< Aborted in answer to the request itself: nothing has been transferred.
    bool sizeIsOpen = false; ///< The node sent four bytes without saying how many of them count.
    char const* words = "";  ///< What happened, for the user; static text.
};

/// Frames that were not an answer to what was asked, by why.
struct SdoDropCounts {
    std::uint64_t foreign = 0;     ///< The identifier is another node's.
    std::uint64_t malformed = 0;   ///< Not 8 bytes long.
    std::uint64_t unsolicited = 0; ///< Nothing was asked.
    std::uint64_t stale = 0;       ///< Came before the answer to the synchronising read.
    std::uint64_t otherObject = 0; ///< Answer or abort for another object.
    std::uint64_t misfit = 0;      ///< The command does not fit what is under way.
    std::uint64_t duplicate = 0;   ///< The same answer once more.

    std::uint64_t total() const noexcept {
        return foreign + malformed + unsolicited + stale + otherObject + misfit + duplicate;
    }
};

/// What can be set of an SDO client.
struct SdoClientSettings {
    using Duration = velmor::platform::Clock::Duration;

    /// The longest wait for each answer of the node.
    Duration responseTimeout = std::chrono::seconds(1);

    /// A request whose first answer could not be told from a second copy of the last answer is preceded by a
    /// synchronising read when the last answer is not older than this. A bus repeats a frame at once, if at
    /// all: at 125 kbit/s a second copy comes within 1.3 ms. 0 trusts the bus never to repeat a frame.
    Duration duplicateWindow = std::chrono::milliseconds(5);

    /// Segments that the node may send in one go, 2 to 127. Up to 63 the first byte of no segment can be
    /// mistaken for the command of an answer that opens a transfer, so that what is left of a block that was
    /// given up can never pass for the answer to the next request.
    std::uint8_t uploadBlockSize = 63;
};

/// One SDO client for one node on the default SDO channel, one transfer at a time.
///
/// How late answers are kept away from the next request. The protocol has no transaction number: an answer
/// that opens a transfer names its object, segments and acknowledgements name nothing. So an answer can be
/// told from a late one by its object or its command alone, and a late answer for the same object not at all.
/// What CAN does guarantee is order: the frames of one identifier never overtake each other. Hence, whenever
/// something of an earlier transfer may still be under way (a time-out, a transfer given up by this client,
/// an answer that fitted nothing), the next request is preceded by a synchronising read of an object that
/// nothing under way can be about, and everything that comes before its answer is dropped. Such objects are
/// 1000:00, 1001:00, 1018:00 and 1018:01, which every node has, and after further failures 1000:01 to
/// 1000:04, which no node has, and whose abort names them just as well. They take turns, so that an
/// unanswered synchronising read cannot pass for the next one. A second copy of an answer that was already
/// taken is met in the same way: see SdoClientSettings::duplicateWindow. Not to be told apart at all are the
/// answers to a second client that uses the same SDO channel, which CiA 301 forbids, and copies that overtake
/// later frames, which CAN cannot do.
///
/// An expedited transfer allocates nothing. A large one grows its buffer with what has come, never with what
/// was announced.
///
/// Not for several threads at a time. Nothing blocks, unless the sink does. When the sink throws, the
/// transfer ends as Cancelled and the exception passes through.
class SdoClientCore {
public:
    using TimePoint = velmor::platform::Clock::TimePoint;
    using Duration = velmor::platform::Clock::Duration;

    /// @param aNode      The node, 1 to 127.
    /// @param aSink      Takes the frames; outlives this.
    /// @throws std::invalid_argument  when the node or the block size are out of range.
    SdoClientCore(std::uint8_t aNode, SdoFrameSink& aSink, SdoClientSettings const& aSettings = {});
    SdoClientCore(SdoClientCore const&) = delete;
    SdoClientCore& operator=(SdoClientCore const&) = delete;

    /// Begins to read an object.
    /// @param aObject  The object.
    /// @param aLimit   The most bytes to accept; a larger object is given up with abort code 0x05040005.
    /// @param aNow     The time.
    /// @throws std::logic_error  while a transfer is under way.
    void startUpload(SdoObject aObject,
                     std::size_t aLimit,
                     TimePoint aNow,
                     SdoMode aMode = SdoMode::Segmented);

    /// Begins to write an object. Nothing is ever sent twice but what the node asks for again in a block
    /// transfer.
    /// @param aObject  The object.
    /// @param aData    The bytes; must stay as they are until the transfer has ended.
    /// @param aMode    Block is taken as Segmented when there are no bytes.
    /// @param aNow     The time.
    /// @throws std::logic_error       while a transfer is under way.
    /// @throws std::invalid_argument  for 4 GiB and more.
    void startDownload(SdoObject aObject, std::span<std::uint8_t const> aData, SdoMode aMode, TimePoint aNow);

    /// A frame has come. To be called for every frame of the node, also when nothing is under way.
    /// @param aNow  The time.
    /// @return Whether a transfer ended with it.
    bool onFrame(CanFrame const& aFrame, TimePoint aNow);

    /// Time has gone on.
    /// @return Whether the transfer has timed out by that.
    bool onTime(TimePoint aNow);

    /// Gives the transfer under way up and tells the node.
    void cancel();

    /// The node has just started (boot-up message): nothing that it sent before can come any more, so the
    /// next request needs no synchronising read. Nothing happens while a transfer is under way.
    void nodeRestarted() noexcept;

    /// @return Whether a transfer is under way.
    bool busy() const noexcept { return mPhase != Phase::Idle; }

    /// @return When the answer under way is overdue and onTime() must be called; meaningful while busy.
    TimePoint deadline() const noexcept { return mDeadline; }

    /// @return How the last transfer ended.
    SdoResult const& result() const noexcept { return mResult; }

    /// @return What the last upload brought; valid until the next start, empty unless it is done.
    std::span<std::uint8_t const> data() const noexcept;

    /// Throws what the last transfer ended with, unless it is done.
    /// @throws SdoAbortError     when the node gave it up.
    /// @throws SdoTimeoutError   when the node did not answer.
    /// @throws SdoProtocolError  when the node broke the protocol, and after cancel().
    void throwUnlessDone() const;

    /// @return The node, 1 to 127.
    std::uint8_t node() const noexcept { return mNode; }

    /// @return The object of the last or the present transfer.
    SdoObject object() const noexcept { return mObject; }

    /// @return Frames dropped so far.
    SdoDropCounts const& dropCounts() const noexcept { return mDropCounts; }

    /// @return Bytes of memory that the upload buffer holds.
    std::size_t bufferCapacity() const noexcept { return mBuffer.capacity(); }

private:
    enum class Phase : std::uint8_t {
        Idle,
        Synchronise,     ///< Waits for the answer to the synchronising read.
        UploadInit,      ///< Waits for the answer that opens an upload.
        UploadSegment,   ///< Waits for a segment.
        DownloadInit,    ///< Waits for the acknowledgement of the request or of expedited data.
        DownloadSegment, ///< Waits for the acknowledgement of a segment.
        BlockUpInit,     ///< Waits for the answer that opens a block upload.
        BlockUpSegments, ///< Collects segments.
        BlockUpEnd,      ///< Waits for size and check sum.
        BlockDownInit,   ///< Waits for the answer that opens a block download.
        BlockDownAck,    ///< Waits for the confirmation of the segments sent.
        BlockDownEnd,    ///< Waits for the confirmation of the end.
    };
    enum class Direction : std::uint8_t { Upload, Download };

    void requireIdle() const;
    void begin(SdoObject aObject, Direction aDirection, SdoMode aMode, TimePoint aNow);
    bool lastAnswerCouldPassForFirst(TimePoint aNow) const noexcept;
    SdoObject nextSynchronisingObject() noexcept;
    void sendSynchronisingRead(TimePoint aNow);
    void sendInitiate(TimePoint aNow);

    bool dispatch(CanFrame const& aFrame, TimePoint aNow);
    bool onAbort(CanFrame const& aFrame, TimePoint aNow);
    bool onSynchronise(CanFrame const& aFrame, TimePoint aNow);
    bool onUploadInit(CanFrame const& aFrame, TimePoint aNow);
    bool onUploadSegment(CanFrame const& aFrame, TimePoint aNow);
    bool onDownloadInit(CanFrame const& aFrame, TimePoint aNow);
    bool onDownloadSegment(CanFrame const& aFrame, TimePoint aNow);
    bool onBlockUpInit(CanFrame const& aFrame, TimePoint aNow);
    bool onBlockUpSegment(CanFrame const& aFrame, TimePoint aNow);
    bool onBlockUpEnd(CanFrame const& aFrame, TimePoint aNow);
    bool onBlockDownInit(CanFrame const& aFrame, TimePoint aNow);
    bool onBlockDownAck(CanFrame const& aFrame, TimePoint aNow);
    bool onBlockDownEnd(CanFrame const& aFrame, TimePoint aNow);

    void sendUploadSegmentRequest(TimePoint aNow);
    void sendDownloadSegment(TimePoint aNow);
    void sendBlockSegments(TimePoint aNow);
    bool acknowledgeBlock(TimePoint aNow);
    bool acceptBlockSegment(CanFrame const& aFrame, TimePoint aNow);

    void accept(CanFrame const& aFrame, TimePoint aNow) noexcept;
    bool isSecondCopy(CanFrame const& aFrame) const noexcept;
    bool drop(std::uint64_t& aCount) noexcept;
    bool dropMisfit(CanFrame const& aFrame) noexcept;
    bool done();
    bool breakOff(std::uint32_t aCode, char const* aWords);
    void finish(SdoOutcome aOutcome, std::uint32_t aCode, char const* aWords) noexcept;
    void send(std::array<std::uint8_t, 8> const& aData);
    void sendAbort(SdoObject aObject, std::uint32_t aCode);

    std::uint8_t const mNode;
    SdoFrameSink& mSink;
    SdoClientSettings const mSettings;

    Phase mPhase = Phase::Idle;
    Direction mDirection = Direction::Upload;
    SdoMode mMode = SdoMode::Segmented;
    SdoObject mObject;
    TimePoint mDeadline;

    std::vector<std::uint8_t> mBuffer; ///< What an upload has brought so far.
    std::size_t mLimit = 0;
    std::span<std::uint8_t const> mSource; ///< What a download sends.
    std::size_t mSent = 0;                 ///< Bytes of it acknowledged, or on the way in the last segment.
    std::size_t mSegmentSize = 0;          ///< Bytes in the segment under way.
    bool mSizeKnown = false;
    std::uint32_t mAnnounced = 0; ///< Size that the node has announced.
    bool mToggle = false;

    bool mCrc = false;                   ///< Both sides can do the check sum.
    std::uint8_t mBlockSize = 0;         ///< Segments in a block of the download, as the node wants it.
    std::uint8_t mSequence = 0;          ///< Last segment of the block: received in order, or sent.
    bool mLastSegment = false;           ///< The segment with the end mark was received in order, or sent.
    std::uint8_t mBlocksWithoutGain = 0; ///< In a row.

    bool mSynchroniseNext = false;        ///< Something of an earlier transfer may be under way.
    SdoObject mStaleObject;               ///< What it is about.
    SdoObject mSynchronisingObject;       ///< What is or was last read to synchronise.
    std::uint32_t mSynchronisingTurn = 0; ///< Next candidate.
    CanFrame mLastFrame;                  ///< The last frame of the node that was used.
    TimePoint mLastFrameTime;
    bool mLastFrameValid = false;

    SdoResult mResult;
    SdoDropCounts mDropCounts;
};

} // namespace velmor::kepla::canopen
