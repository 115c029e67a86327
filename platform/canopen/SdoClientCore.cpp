// SPDX-License-Identifier: Apache-2.0
// The SDO client: one handler for each phase of a transfer, and the rules that keep late answers out.
#include "SdoFrames.h"

#include <velmor/kepla/canopen/SdoClientCore.h>
#include <velmor/kepla/canopen/SdoError.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

namespace velmor::kepla::canopen {

using namespace sdoframes;

namespace {

constexpr std::size_t kFirstCapacity = 64;            ///< Bytes that the upload buffer always has room for.
constexpr std::size_t kKeptCapacity = 64UL * 1024UL;  ///< A larger buffer goes back before the next transfer.
constexpr std::uint8_t kMaximalBlocksWithoutGain = 8; ///< In a row, before a block transfer is hopeless.

/// What a synchronising read asks for, in turn: first what every node has, then what no node has.
constexpr std::array<SdoObject, 8> kSynchronisingObjects{{
    {0x1000, 0x00}, // device type
    {0x1001, 0x00}, // error register
    {0x1018, 0x00}, // number of identity entries
    {0x1018, 0x01}, // vendor
    {0x1000, 0x01},
    {0x1000, 0x02},
    {0x1000, 0x03},
    {0x1000, 0x04},
}};

bool opensUpload(std::uint8_t aCommand) noexcept {
    return (aCommand & 0xF0U) == 0x40;
}

bool opensDownload(std::uint8_t aCommand) noexcept {
    return aCommand == 0x60;
}

bool opensBlockUpload(std::uint8_t aCommand) noexcept {
    return (aCommand & 0xF9U) == 0xC0;
}

bool opensBlockDownload(std::uint8_t aCommand) noexcept {
    return (aCommand & 0xFBU) == 0xA0;
}

/// Whether bytes 1 to 3 of an answer name an object.
bool namesObject(std::uint8_t aCommand) noexcept {
    return opensUpload(aCommand) || opensDownload(aCommand) || opensBlockUpload(aCommand) ||
           opensBlockDownload(aCommand) || aCommand == kAbort;
}

bool validBlockSize(unsigned aSize) noexcept {
    return aSize >= 1 && aSize <= kMaximalBlock;
}

} // namespace

SdoClientCore::SdoClientCore(std::uint8_t aNode, SdoFrameSink& aSink, SdoClientSettings const& aSettings)
    : mNode(aNode)
    , mSink(aSink)
    , mSettings(aSettings) {
    if (aNode < 1 || aNode > 127) {
        throw std::invalid_argument("A CANopen node number must be between 1 and 127");
    }
    if (aSettings.uploadBlockSize < 2 || aSettings.uploadBlockSize > kMaximalBlock) {
        throw std::invalid_argument("The block size of an SDO upload must be between 2 and 127");
    }
    mBuffer.reserve(kFirstCapacity);
}

void SdoClientCore::startUpload(SdoObject aObject, std::size_t aLimit, TimePoint aNow, SdoMode aMode) {
    requireIdle();
    mLimit = aLimit;
    begin(aObject, Direction::Upload, aMode, aNow);
}

void SdoClientCore::startDownload(SdoObject aObject,
                                  std::span<std::uint8_t const> aData,
                                  SdoMode aMode,
                                  TimePoint aNow) {
    if (aData.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::invalid_argument("An SDO transfer carries less than 4 GiB");
    }
    requireIdle();
    mSource = aData;
    begin(aObject, Direction::Download, aData.empty() ? SdoMode::Segmented : aMode, aNow);
}

void SdoClientCore::requireIdle() const {
    if (busy()) {
        throw std::logic_error("An SDO transfer with this node is under way");
    }
}

void SdoClientCore::begin(SdoObject aObject, Direction aDirection, SdoMode aMode, TimePoint aNow) {
    if (mBuffer.capacity() > kKeptCapacity) {
        mBuffer = std::vector<std::uint8_t>();
        mBuffer.reserve(kFirstCapacity);
    }
    mBuffer.clear();
    mObject = aObject;
    mDirection = aDirection;
    mMode = aMode;
    mResult = {};
    if (mSynchroniseNext || lastAnswerCouldPassForFirst(aNow)) {
        sendSynchronisingRead(aNow);
    } else {
        sendInitiate(aNow);
    }
}

bool SdoClientCore::lastAnswerCouldPassForFirst(TimePoint aNow) const noexcept {
    if (!mLastFrameValid || aNow - mLastFrameTime >= mSettings.duplicateWindow ||
        objectOf(mLastFrame.data) != mObject) {
        return false;
    }
    std::uint8_t const command = mLastFrame.data[0];
    if (command == kAbort) {
        return true;
    }
    if (mMode == SdoMode::Block) {
        return mDirection == Direction::Upload ? opensBlockUpload(command) : opensBlockDownload(command);
    }
    return mDirection == Direction::Upload ? opensUpload(command) : opensDownload(command);
}

SdoObject SdoClientCore::nextSynchronisingObject() noexcept {
    SdoObject object;
    do {
        object = kSynchronisingObjects[mSynchronisingTurn];
        mSynchronisingTurn = (mSynchronisingTurn + 1) % kSynchronisingObjects.size();
    } while (object == mObject || object == mStaleObject);
    return object;
}

void SdoClientCore::sendSynchronisingRead(TimePoint aNow) {
    mSynchroniseNext = true; // until it is answered
    mSynchronisingObject = nextSynchronisingObject();
    mPhase = Phase::Synchronise;
    mDeadline = aNow + mSettings.responseTimeout;
    send(withObject(0x40, mSynchronisingObject));
}

void SdoClientCore::sendInitiate(TimePoint aNow) {
    mStaleObject = mObject;
    mResult.requestSent = true;
    mDeadline = aNow + mSettings.responseTimeout;
    mToggle = false;
    mSizeKnown = false;
    mSequence = 0;
    mLastSegment = false;
    mBlocksWithoutGain = 0;
    mSent = 0;
    if (mDirection == Direction::Upload) {
        if (mMode == SdoMode::Segmented) {
            mPhase = Phase::UploadInit;
            send(withObject(0x40, mObject));
        } else {
            mPhase = Phase::BlockUpInit;
            Bytes request = withObject(0xA4, mObject); // with check sum, without a switch to segments
            request[4] = mSettings.uploadBlockSize;
            send(request);
        }
        return;
    }
    auto const size = static_cast<std::uint32_t>(mSource.size());
    if (mMode == SdoMode::Block) {
        mPhase = Phase::BlockDownInit;
        Bytes request = withObject(0xC6, mObject); // with check sum and size
        setNumber(request, size);
        send(request);
    } else if (size >= 1 && size <= kExpeditedBytes) {
        mPhase = Phase::DownloadInit;
        Bytes request = withObject(0x23U | expeditedSize(size), mObject);
        std::copy(mSource.begin(), mSource.end(), request.begin() + 4);
        send(request);
    } else {
        mPhase = Phase::DownloadInit;
        Bytes request = withObject(0x21, mObject); // with size
        setNumber(request, size);
        send(request);
    }
}

bool SdoClientCore::onFrame(CanFrame const& aFrame, TimePoint aNow) {
    if (aFrame.id != sdoAnswerId(mNode)) {
        ++mDropCounts.foreign;
        return false;
    }
    if (aFrame.length != kFrameLength || aFrame.remote) {
        return drop(mDropCounts.malformed);
    }
    return dispatch(aFrame, aNow);
}

bool SdoClientCore::dispatch(CanFrame const& aFrame, TimePoint aNow) {
    if (mPhase == Phase::Idle) {
        return drop(isSecondCopy(aFrame) ? mDropCounts.duplicate : mDropCounts.unsolicited);
    }
    if (mPhase == Phase::Synchronise) {
        return onSynchronise(aFrame, aNow);
    }
    if (aFrame.data[0] == kAbort) {
        return onAbort(aFrame, aNow);
    }
    switch (mPhase) {
        case Phase::UploadInit:
            return onUploadInit(aFrame, aNow);
        case Phase::UploadSegment:
            return onUploadSegment(aFrame, aNow);
        case Phase::DownloadInit:
            return onDownloadInit(aFrame, aNow);
        case Phase::DownloadSegment:
            return onDownloadSegment(aFrame, aNow);
        case Phase::BlockUpInit:
            return onBlockUpInit(aFrame, aNow);
        case Phase::BlockUpSegments:
            return onBlockUpSegment(aFrame, aNow);
        case Phase::BlockUpEnd:
            return onBlockUpEnd(aFrame, aNow);
        case Phase::BlockDownInit:
            return onBlockDownInit(aFrame, aNow);
        case Phase::BlockDownAck:
            return onBlockDownAck(aFrame, aNow);
        case Phase::BlockDownEnd:
            return onBlockDownEnd(aFrame, aNow);
        case Phase::Idle:
        case Phase::Synchronise:
            break;
    }
    return false;
}

bool SdoClientCore::onSynchronise(CanFrame const& aFrame, TimePoint aNow) {
    std::uint8_t const command = aFrame.data[0];
    if ((!opensUpload(command) && command != kAbort) || objectOf(aFrame.data) != mSynchronisingObject) {
        ++mDropCounts.stale;
        return false;
    }
    accept(aFrame, aNow);
    // Nothing older can come any more. The next synchronising read begins with another object, so that a
    // second copy of this answer cannot pass for its answer.
    mSynchroniseNext = false;
    mSynchronisingTurn = mSynchronisingObject == kSynchronisingObjects[0] ? 1 : 0;
    constexpr unsigned kExpedited = 0x02;
    if (command != kAbort && (command & kExpedited) == 0) {
        sendAbort(mSynchronisingObject, sdoabort::kGeneral); // its segments are of no interest
    }
    sendInitiate(aNow);
    return false;
}

bool SdoClientCore::onAbort(CanFrame const& aFrame, TimePoint aNow) {
    if (objectOf(aFrame.data) != mObject) {
        return drop(isSecondCopy(aFrame) ? mDropCounts.duplicate : mDropCounts.otherObject);
    }
    // Behind an answer that refuses the request nothing follows. In the middle of a transfer, the node may
    // answer what was sent before its abort came.
    mResult.refused = mPhase == Phase::UploadInit || mPhase == Phase::DownloadInit ||
                      mPhase == Phase::BlockUpInit || mPhase == Phase::BlockDownInit;
    mSynchroniseNext = mSynchroniseNext || !mResult.refused;
    accept(aFrame, aNow);
    finish(SdoOutcome::Aborted, numberOf(aFrame.data), "the node gave the transfer up");
    return true;
}

bool SdoClientCore::onUploadInit(CanFrame const& aFrame, TimePoint aNow) {
    std::uint8_t const command = aFrame.data[0];
    if (!opensUpload(command) || objectOf(aFrame.data) != mObject) {
        return dropMisfit(aFrame);
    }
    accept(aFrame, aNow);
    bool const expedited = (command & 0x02U) != 0;
    bool const sizeIndicated = (command & 0x01U) != 0;
    if (expedited) {
        std::size_t const size = kExpeditedBytes - (sizeIndicated ? (command >> 2U) & 3U : 0U);
        mResult.sizeIsOpen = !sizeIndicated;
        if (size > mLimit) {
            return breakOff(sdoabort::kOutOfMemory, "the node sent more than this object may have");
        }
        mBuffer.assign(aFrame.data.begin() + 4, aFrame.data.begin() + 4 + static_cast<std::ptrdiff_t>(size));
        return done();
    }
    mSizeKnown = sizeIndicated;
    mAnnounced = sizeIndicated ? numberOf(aFrame.data) : 0;
    if (mSizeKnown && mAnnounced > mLimit) {
        return breakOff(sdoabort::kOutOfMemory, "the node announced more than this object may have");
    }
    sendUploadSegmentRequest(aNow);
    return false;
}

void SdoClientCore::sendUploadSegmentRequest(TimePoint aNow) {
    mPhase = Phase::UploadSegment;
    mDeadline = aNow + mSettings.responseTimeout;
    send({static_cast<std::uint8_t>(mToggle ? 0x70 : 0x60)});
}

bool SdoClientCore::onUploadSegment(CanFrame const& aFrame, TimePoint aNow) {
    std::uint8_t const command = aFrame.data[0];
    if ((command & 0xE0U) != 0) {
        return dropMisfit(aFrame);
    }
    if (((command & 0x10U) != 0) != mToggle) {
        // A second copy is forgiven, since CAN may repeat a frame; other data with the old toggle bit are
        // not.
        return isSecondCopy(aFrame)
                   ? drop(mDropCounts.duplicate)
                   : breakOff(sdoabort::kToggleBit, "the node sent a segment with the wrong toggle bit");
    }
    accept(aFrame, aNow);
    bool const last = (command & 0x01U) != 0;
    std::size_t const size = kSegmentBytes - ((command >> 1U) & 7U);
    if (mBuffer.size() + size > mLimit) {
        return breakOff(sdoabort::kOutOfMemory, "the node sent more than this object may have");
    }
    if (mSizeKnown && mBuffer.size() + size > mAnnounced) {
        return breakOff(sdoabort::kTooLong, "the node sent more than it had announced");
    }
    if (size == 0 && !last) {
        return breakOff(sdoabort::kLength, "the node sent an empty segment that is not the last");
    }
    mBuffer.insert(mBuffer.end(), aFrame.data.begin() + 1,
                   aFrame.data.begin() + 1 + static_cast<std::ptrdiff_t>(size));
    if (!last) {
        mToggle = !mToggle;
        sendUploadSegmentRequest(aNow);
        return false;
    }
    if (mSizeKnown && mBuffer.size() < mAnnounced) {
        return breakOff(sdoabort::kTooShort, "the node sent less than it had announced");
    }
    return done();
}

bool SdoClientCore::onDownloadInit(CanFrame const& aFrame, TimePoint aNow) {
    if (!opensDownload(aFrame.data[0]) || objectOf(aFrame.data) != mObject) {
        return dropMisfit(aFrame);
    }
    accept(aFrame, aNow);
    if (!mSource.empty() && mSource.size() <= kExpeditedBytes) {
        return done();
    }
    sendDownloadSegment(aNow);
    return false;
}

void SdoClientCore::sendDownloadSegment(TimePoint aNow) {
    mSegmentSize = std::min(kSegmentBytes, mSource.size() - mSent);
    bool const last = mSent + mSegmentSize == mSource.size();
    Bytes segment{static_cast<std::uint8_t>((mToggle ? 0x10U : 0U) | ((kSegmentBytes - mSegmentSize) << 1U) |
                                            (last ? 1U : 0U))};
    std::copy_n(mSource.begin() + static_cast<std::ptrdiff_t>(mSent), mSegmentSize, segment.begin() + 1);
    mPhase = Phase::DownloadSegment;
    mDeadline = aNow + mSettings.responseTimeout;
    send(segment);
}

bool SdoClientCore::onDownloadSegment(CanFrame const& aFrame, TimePoint aNow) {
    std::uint8_t const command = aFrame.data[0];
    if ((command & 0xEFU) != 0x20) {
        return dropMisfit(aFrame);
    }
    if (((command & 0x10U) != 0) != mToggle) {
        return isSecondCopy(aFrame)
                   ? drop(mDropCounts.duplicate)
                   : breakOff(sdoabort::kToggleBit, "the node acknowledged with the wrong toggle bit");
    }
    accept(aFrame, aNow);
    mSent += mSegmentSize;
    if (mSent == mSource.size()) {
        return done();
    }
    mToggle = !mToggle;
    sendDownloadSegment(aNow);
    return false;
}

bool SdoClientCore::onBlockUpInit(CanFrame const& aFrame, TimePoint aNow) {
    std::uint8_t const command = aFrame.data[0];
    if (!opensBlockUpload(command) || objectOf(aFrame.data) != mObject) {
        return dropMisfit(aFrame);
    }
    accept(aFrame, aNow);
    mCrc = (command & 0x04U) != 0;
    mSizeKnown = (command & 0x02U) != 0;
    mAnnounced = mSizeKnown ? numberOf(aFrame.data) : 0;
    if (mSizeKnown && mAnnounced > mLimit) {
        return breakOff(sdoabort::kOutOfMemory, "the node announced more than this object may have");
    }
    mPhase = Phase::BlockUpSegments;
    mDeadline = aNow + mSettings.responseTimeout;
    send({0xA3});
    return false;
}

bool SdoClientCore::onBlockUpSegment(CanFrame const& aFrame, TimePoint aNow) {
    std::uint8_t const sequence = aFrame.data[0] & kSequenceMask;
    bool const last = (aFrame.data[0] & kLastSegment) != 0;
    if (sequence == 0 || sequence > mSettings.uploadBlockSize) {
        return dropMisfit(aFrame);
    }
    if (sequence == mSequence + 1) {
        if (acceptBlockSegment(aFrame, aNow)) {
            return true;
        }
        mDeadline = aNow + mSettings.responseTimeout;
    } else if (sequence <= mSequence || isSecondCopy(aFrame)) {
        return drop(mDropCounts.duplicate);
    } else {
        accept(aFrame,
               aNow); // behind a gap: of no use, and no reason to wait longer, but it may end the block
    }
    return (last || sequence == mSettings.uploadBlockSize) && acknowledgeBlock(aNow);
}

bool SdoClientCore::acceptBlockSegment(CanFrame const& aFrame, TimePoint aNow) {
    accept(aFrame, aNow);
    // Behind the last byte there may be padding within a segment, but no further segment.
    if (!mBuffer.empty() && mBuffer.size() >= mLimit) {
        return breakOff(sdoabort::kOutOfMemory, "the node sent more than this object may have");
    }
    if (mSizeKnown && !mBuffer.empty() && mBuffer.size() >= mAnnounced) {
        return breakOff(sdoabort::kTooLong, "the node sent more than it had announced");
    }
    mBuffer.insert(mBuffer.end(), aFrame.data.begin() + 1, aFrame.data.end());
    ++mSequence;
    mLastSegment = (aFrame.data[0] & kLastSegment) != 0;
    return false;
}

/// Tells the node which segment of the block was the last that came in order; it repeats the others.
bool SdoClientCore::acknowledgeBlock(TimePoint aNow) {
    mBlocksWithoutGain = mSequence == 0 ? static_cast<std::uint8_t>(mBlocksWithoutGain + 1) : std::uint8_t{0};
    if (mBlocksWithoutGain > kMaximalBlocksWithoutGain) {
        return breakOff(sdoabort::kSequenceNumber, "the node never sends the first segment of the block");
    }
    Bytes const acknowledgement{0xA2, mSequence, mSettings.uploadBlockSize};
    mSequence = 0;
    if (mLastSegment) {
        mPhase = Phase::BlockUpEnd;
    }
    mDeadline = aNow + mSettings.responseTimeout;
    send(acknowledgement);
    return false;
}

bool SdoClientCore::onBlockUpEnd(CanFrame const& aFrame, TimePoint aNow) {
    std::uint8_t const command = aFrame.data[0];
    if ((command & 0xE3U) != 0xC1 || isSecondCopy(aFrame)) {
        return dropMisfit(aFrame);
    }
    accept(aFrame, aNow);
    mBuffer.resize(mBuffer.size() - ((command >> 2U) & 7U));
    if (mSizeKnown && mBuffer.size() > mAnnounced) {
        return breakOff(sdoabort::kTooLong, "the node sent more than it had announced");
    }
    if (mSizeKnown && mBuffer.size() < mAnnounced) {
        return breakOff(sdoabort::kTooShort, "the node sent less than it had announced");
    }
    if (mBuffer.size() > mLimit) {
        return breakOff(sdoabort::kOutOfMemory, "the node sent more than this object may have");
    }
    auto const crc = static_cast<std::uint16_t>(aFrame.data[1] | (aFrame.data[2] << 8U));
    if (mCrc && crc != sdoCrc(0, mBuffer)) {
        return breakOff(sdoabort::kCrc, "the check sum of the data is wrong");
    }
    send({0xA1});
    return done();
}

bool SdoClientCore::onBlockDownInit(CanFrame const& aFrame, TimePoint aNow) {
    std::uint8_t const command = aFrame.data[0];
    if (!opensBlockDownload(command) || objectOf(aFrame.data) != mObject) {
        return dropMisfit(aFrame);
    }
    accept(aFrame, aNow);
    mCrc = (command & 0x04U) != 0;
    mBlockSize = aFrame.data[4];
    if (!validBlockSize(mBlockSize)) {
        return breakOff(sdoabort::kBlockSize, "the node asked for an impossible block size");
    }
    sendBlockSegments(aNow);
    return false;
}

void SdoClientCore::sendBlockSegments(TimePoint aNow) {
    mPhase = Phase::BlockDownAck;
    mDeadline = aNow + mSettings.responseTimeout;
    mLastSegment = false;
    std::size_t position = mSent;
    for (mSequence = 0; mSequence < mBlockSize && !mLastSegment;) {
        std::size_t const size = std::min(kSegmentBytes, mSource.size() - position);
        mLastSegment = position + size == mSource.size();
        ++mSequence;
        Bytes segment{static_cast<std::uint8_t>(mSequence | (mLastSegment ? kLastSegment : 0U))};
        std::copy_n(mSource.begin() + static_cast<std::ptrdiff_t>(position), size, segment.begin() + 1);
        position += size;
        send(segment);
    }
}

bool SdoClientCore::onBlockDownAck(CanFrame const& aFrame, TimePoint aNow) {
    if (aFrame.data[0] != 0xA2) {
        return dropMisfit(aFrame);
    }
    // A second copy of an acknowledgement cannot be told from the acknowledgement of the next block. It does
    // no harm: the data stay in order, and only the node's word on size and check sum at the end makes a
    // success.
    accept(aFrame, aNow);
    std::uint8_t const received = aFrame.data[1];
    if (received > mSequence) {
        return breakOff(sdoabort::kSequenceNumber, "the node acknowledged a segment that was never sent");
    }
    if (mLastSegment && received == mSequence) {
        mPhase = Phase::BlockDownEnd;
        mDeadline = aNow + mSettings.responseTimeout;
        std::uint16_t const crc = mCrc ? sdoCrc(0, mSource) : std::uint16_t{0};
        send({static_cast<std::uint8_t>(0xC1U | (unusedOfLastSegment(mSource.size()) << 2U)),
              static_cast<std::uint8_t>(crc & 0xFFU), static_cast<std::uint8_t>(crc >> 8U)});
        return false;
    }
    mBlockSize = aFrame.data[2];
    if (!validBlockSize(mBlockSize)) {
        return breakOff(sdoabort::kBlockSize, "the node asked for an impossible block size");
    }
    mBlocksWithoutGain = received == 0 ? static_cast<std::uint8_t>(mBlocksWithoutGain + 1) : std::uint8_t{0};
    if (mBlocksWithoutGain > kMaximalBlocksWithoutGain) {
        return breakOff(sdoabort::kSequenceNumber, "the node never takes the first segment of the block");
    }
    mSent += received * kSegmentBytes;
    sendBlockSegments(aNow);
    return false;
}

bool SdoClientCore::onBlockDownEnd(CanFrame const& aFrame, TimePoint aNow) {
    if (aFrame.data[0] != 0xA1) {
        return dropMisfit(aFrame);
    }
    accept(aFrame, aNow);
    return done();
}

bool SdoClientCore::onTime(TimePoint aNow) {
    if (!busy() || aNow < mDeadline) {
        return false;
    }
    bool const synchronising = mPhase == Phase::Synchronise;
    mSynchroniseNext = true;
    finish(SdoOutcome::TimedOut, sdoabort::kTimeout,
           synchronising ? "no answer to the synchronising read, the request was not sent"
                         : "no answer in time");
    sendAbort(synchronising ? mSynchronisingObject : mObject, sdoabort::kTimeout);
    return true;
}

void SdoClientCore::cancel() {
    if (!busy()) {
        return;
    }
    bool const synchronising = mPhase == Phase::Synchronise;
    mSynchroniseNext = true;
    finish(SdoOutcome::Cancelled, sdoabort::kGeneral, "the transfer was cancelled");
    sendAbort(synchronising ? mSynchronisingObject : mObject, sdoabort::kGeneral);
}

void SdoClientCore::nodeRestarted() noexcept {
    if (!busy()) {
        mSynchroniseNext = false;
        mLastFrameValid = false;
    }
}

std::span<std::uint8_t const> SdoClientCore::data() const noexcept {
    return !busy() && mResult.outcome == SdoOutcome::Done ? std::span<std::uint8_t const>(mBuffer)
                                                          : std::span<std::uint8_t const>();
}

void SdoClientCore::throwUnlessDone() const {
    switch (mResult.outcome) {
        case SdoOutcome::Done:
            return;
        case SdoOutcome::Aborted:
            throw SdoAbortError(mNode, mObject, mResult.abortCode, mResult.refused);
        case SdoOutcome::TimedOut:
            throw SdoTimeoutError(mNode, mObject, mResult.words);
        case SdoOutcome::ProtocolError:
            throw SdoProtocolError(
                mNode, mObject,
                std::string(mResult.words) + " (" + describeSdoAbort(mResult.abortCode) + ")");
        case SdoOutcome::Cancelled:
            throw SdoProtocolError(mNode, mObject, mResult.words);
    }
}

void SdoClientCore::accept(CanFrame const& aFrame, TimePoint aNow) noexcept {
    mLastFrame = aFrame;
    mLastFrameTime = aNow;
    mLastFrameValid = true;
}

bool SdoClientCore::isSecondCopy(CanFrame const& aFrame) const noexcept {
    return mLastFrameValid && aFrame == mLastFrame;
}

/// What does not belong here shows that something else is under way.
bool SdoClientCore::drop(std::uint64_t& aCount) noexcept {
    ++aCount;
    mSynchroniseNext = true;
    return false;
}

bool SdoClientCore::dropMisfit(CanFrame const& aFrame) noexcept {
    if (isSecondCopy(aFrame)) {
        return drop(mDropCounts.duplicate);
    }
    bool const other = namesObject(aFrame.data[0]) && objectOf(aFrame.data) != mObject;
    return drop(other ? mDropCounts.otherObject : mDropCounts.misfit);
}

bool SdoClientCore::done() {
    finish(SdoOutcome::Done, sdoabort::kNone, "done");
    return true;
}

bool SdoClientCore::breakOff(std::uint32_t aCode, char const* aWords) {
    mSynchroniseNext = true;
    finish(SdoOutcome::ProtocolError, aCode, aWords);
    sendAbort(mObject, aCode);
    return true;
}

void SdoClientCore::finish(SdoOutcome aOutcome, std::uint32_t aCode, char const* aWords) noexcept {
    mPhase = Phase::Idle;
    mSource = {};
    mResult.outcome = aOutcome;
    mResult.abortCode = aCode;
    mResult.words = aWords;
}

void SdoClientCore::send(std::array<std::uint8_t, 8> const& aData) {
    try {
        mSink.sendFrame({sdoRequestId(mNode), kFrameLength, aData});
    } catch (...) {
        if (busy()) {
            mSynchroniseNext = true;
            finish(SdoOutcome::Cancelled, sdoabort::kGeneral, "the request could not be sent");
        }
        throw;
    }
}

void SdoClientCore::sendAbort(SdoObject aObject, std::uint32_t aCode) {
    Bytes abort = withObject(kAbort, aObject);
    setNumber(abort, aCode);
    send(abort);
}

} // namespace velmor::kepla::canopen
