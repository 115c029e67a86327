// SPDX-License-Identifier: Apache-2.0
// The SDO server: one handler for each kind of request.
#include "SdoFrames.h"

#include <velmor/kepla/canopen/SdoAbort.h>
#include <velmor/kepla/canopen/SdoServerCore.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace velmor::kepla::canopen {

using namespace sdoframes;

namespace {

constexpr std::size_t kFirstCapacity = 64;     ///< Bytes that the buffer always has room for.
constexpr std::size_t kPassOnThreshold = 4096; ///< Bytes that are collected before a stream gets them.

} // namespace

SdoServerCore::SdoServerCore(std::uint8_t aNode,
                             ObjectDictionaryIfc& aDictionary,
                             SdoFrameSink& aSink,
                             SdoServerSettings const& aSettings)
    : mNode(aNode)
    , mDictionary(aDictionary)
    , mSink(aSink)
    , mSettings(aSettings) {
    if (aNode < 1 || aNode > 127) {
        throw std::invalid_argument("A CANopen node number must be between 1 and 127");
    }
    if (aSettings.blockSize < 1 || aSettings.blockSize > kMaximalBlock) {
        throw std::invalid_argument("The block size of an SDO download must be between 1 and 127");
    }
    mBuffer.reserve(kFirstCapacity);
}

void SdoServerCore::onFrame(CanFrame const& aFrame, TimePoint aNow) {
    if (aFrame.id != sdoRequestId(mNode) || aFrame.length != kFrameLength || aFrame.remote) {
        return;
    }
    mDeadline = aNow + mSettings.requestTimeout;
    if (aFrame.data[0] == kAbort) {
        reset();
    } else if (mPhase == Phase::BlockDownSegments) {
        onBlockDownSegment(aFrame.data);
    } else if (mPhase == Phase::BlockDownEnd && aFrame.data == mLastRequest) {
        return; // a second copy of the last segment
    } else {
        onRequest(aFrame.data);
    }
}

void SdoServerCore::onTime(TimePoint aNow) {
    if (busy() && aNow >= mDeadline) {
        abort(sdoabort::kTimeout);
    }
}

void SdoServerCore::reset() noexcept {
    mPhase = Phase::Idle;
    mStream.reset();
}

void SdoServerCore::onRequest(Bytes const& aData) {
    switch (aData[0] >> 5U) {
        case 0:
            onDownloadSegment(aData);
            break;
        case 1:
            onDownloadInit(aData);
            break;
        case 2:
            onUploadInit(aData);
            break;
        case 3:
            onUploadSegment(aData);
            break;
        case 5:
            onBlockUpload(aData);
            break;
        case 6:
            onBlockDownload(aData);
            break;
        default:
            misfit();
    }
}

void SdoServerCore::onUploadInit(Bytes const& aData) {
    reset();
    mObject = objectOf(aData);
    mBuffer.clear();
    if (std::uint32_t const code = mDictionary.read(mObject, mBuffer); code != sdoabort::kNone) {
        abort(code);
        return;
    }
    answerUpload();
}

/// Answers with the data themselves where they fit, else opens a segmented upload.
void SdoServerCore::answerUpload() {
    auto const size = static_cast<std::uint32_t>(mBuffer.size());
    if (size >= 1 && size <= kExpeditedBytes) {
        Bytes answer = withObject(0x43U | expeditedSize(size), mObject);
        std::copy_n(mBuffer.begin(), size, answer.begin() + 4);
        send(answer);
        return;
    }
    mPhase = Phase::UploadSegments;
    mPosition = 0;
    mToggle = false;
    Bytes answer = withObject(mSettings.announceSizes ? 0x41 : 0x40, mObject);
    if (mSettings.announceSizes) {
        setNumber(answer, size);
    }
    send(answer);
}

void SdoServerCore::onUploadSegment(Bytes const& aData) {
    if (mPhase != Phase::UploadSegments) {
        misfit();
        return;
    }
    if (((aData[0] & 0x10U) != 0) != mToggle) {
        abort(sdoabort::kToggleBit);
        return;
    }
    std::size_t const size = std::min(kSegmentBytes, mBuffer.size() - mPosition);
    bool const last = mPosition + size == mBuffer.size();
    Bytes answer{static_cast<std::uint8_t>((mToggle ? 0x10U : 0U) | ((kSegmentBytes - size) << 1U) |
                                           (last ? 1U : 0U))};
    std::copy_n(mBuffer.begin() + static_cast<std::ptrdiff_t>(mPosition), size, answer.begin() + 1);
    mPosition += size;
    mToggle = !mToggle;
    if (last) {
        reset();
    }
    send(answer);
}

void SdoServerCore::onDownloadInit(Bytes const& aData) {
    reset();
    mObject = objectOf(aData);
    bool const expedited = (aData[0] & 0x02U) != 0;
    bool const sizeIndicated = (aData[0] & 0x01U) != 0;
    if (expedited) {
        std::size_t const size = kExpeditedBytes - (sizeIndicated ? (aData[0] >> 2U) & 3U : 0U);
        std::uint32_t const code = mDictionary.write(mObject, std::span(aData).subspan(4, size));
        if (code != sdoabort::kNone) {
            abort(code);
            return;
        }
    } else {
        if (!openDownload(sizeIndicated, numberOf(aData))) {
            return;
        }
        mPhase = Phase::DownloadSegments;
        mToggle = false;
    }
    send(withObject(0x60, mObject));
}

/// Makes ready for the data of a segmented or block download.
/// @return False when it was refused.
bool SdoServerCore::openDownload(bool aSizeKnown, std::uint32_t aSize) {
    mBuffer.clear();
    mPosition = 0;
    mCrcSoFar = 0;
    mSizeKnown = aSizeKnown;
    mAnnounced = aSizeKnown ? aSize : 0;
    mStream = mDictionary.openStream(mObject, aSizeKnown ? std::optional(aSize) : std::nullopt);
    if (!mStream && mAnnounced > mSettings.maximalDownload) {
        abort(sdoabort::kOutOfMemory);
        return false;
    }
    return true;
}

void SdoServerCore::onDownloadSegment(Bytes const& aData) {
    if (mPhase != Phase::DownloadSegments) {
        misfit();
        return;
    }
    if (((aData[0] & 0x10U) != 0) != mToggle) {
        abort(sdoabort::kToggleBit);
        return;
    }
    std::size_t const size = kSegmentBytes - ((aData[0] >> 1U) & 7U);
    mBuffer.insert(mBuffer.end(), aData.begin() + 1, aData.begin() + 1 + static_cast<std::ptrdiff_t>(size));
    bool const last = (aData[0] & 0x01U) != 0;
    if (mSizeKnown && mPosition + mBuffer.size() > mAnnounced) {
        abort(sdoabort::kTooLong);
        return;
    }
    if (!(last ? complete(0) : passOn())) {
        return;
    }
    send({static_cast<std::uint8_t>(mToggle ? 0x30 : 0x20)});
    mToggle = !mToggle;
}

void SdoServerCore::onBlockUpload(Bytes const& aData) {
    switch (aData[0] & 0x03U) {
        case 0:
            onBlockUpInit(aData);
            break;
        case 1:
            if (mPhase == Phase::BlockUpEnd) {
                reset();
            } else {
                misfit();
            }
            break;
        case 2:
            onBlockUpAck(aData);
            break;
        default:
            if (mPhase == Phase::BlockUpStart) {
                sendBlockSegments();
            } else {
                misfit();
            }
    }
}

void SdoServerCore::onBlockUpInit(Bytes const& aData) {
    reset();
    mObject = objectOf(aData);
    if (!mSettings.blockTransfers) {
        abort(sdoabort::kCommandSpecifier);
        return;
    }
    mBlockSize = aData[4];
    if (mBlockSize < 1 || mBlockSize > kMaximalBlock) {
        abort(sdoabort::kBlockSize);
        return;
    }
    mBuffer.clear();
    if (std::uint32_t const code = mDictionary.read(mObject, mBuffer); code != sdoabort::kNone) {
        abort(code);
        return;
    }
    // The client may leave it to the node to answer small objects as if no block had been asked for.
    if (unsigned const threshold = aData[5]; threshold != 0 && mBuffer.size() <= threshold) {
        answerUpload();
        return;
    }
    mPhase = Phase::BlockUpStart;
    mPosition = 0;
    mCrc = mSettings.checkSums && (aData[0] & 0x04U) != 0;
    Bytes answer =
        withObject(0xC0U | (mSettings.checkSums ? 4U : 0U) | (mSettings.announceSizes ? 2U : 0U), mObject);
    if (mSettings.announceSizes) {
        setNumber(answer, static_cast<std::uint32_t>(mBuffer.size()));
    }
    send(answer);
}

void SdoServerCore::sendBlockSegments() {
    mPhase = Phase::BlockUpAck;
    mLastSegment = false;
    std::size_t position = mPosition;
    for (mSequence = 0; mSequence < mBlockSize && !mLastSegment;) {
        std::size_t const size = std::min(kSegmentBytes, mBuffer.size() - position);
        mLastSegment = position + size == mBuffer.size();
        ++mSequence;
        Bytes segment{static_cast<std::uint8_t>(mSequence | (mLastSegment ? kLastSegment : 0U))};
        std::copy_n(mBuffer.begin() + static_cast<std::ptrdiff_t>(position), size, segment.begin() + 1);
        position += size;
        send(segment);
    }
}

void SdoServerCore::onBlockUpAck(Bytes const& aData) {
    if (mPhase != Phase::BlockUpAck) {
        misfit();
        return;
    }
    std::uint8_t const received = aData[1];
    if (received > mSequence) {
        abort(sdoabort::kSequenceNumber);
        return;
    }
    if (mLastSegment && received == mSequence) {
        mPhase = Phase::BlockUpEnd;
        unsigned const unused = mBuffer.empty() ? kSegmentBytes : unusedOfLastSegment(mBuffer.size());
        std::uint16_t const crc = mCrc ? sdoCrc(0, mBuffer) : std::uint16_t{0};
        send({static_cast<std::uint8_t>(0xC1U | (unused << 2U)), static_cast<std::uint8_t>(crc & 0xFFU),
              static_cast<std::uint8_t>(crc >> 8U)});
        return;
    }
    mBlockSize = aData[2];
    if (mBlockSize < 1 || mBlockSize > kMaximalBlock) {
        abort(sdoabort::kBlockSize);
        return;
    }
    mPosition += received * kSegmentBytes;
    sendBlockSegments();
}

void SdoServerCore::onBlockDownload(Bytes const& aData) {
    if ((aData[0] & 0x01U) != 0) {
        onBlockDownEnd(aData);
        return;
    }
    reset();
    mObject = objectOf(aData);
    if (!mSettings.blockTransfers) {
        abort(sdoabort::kCommandSpecifier);
        return;
    }
    if (!openDownload((aData[0] & 0x02U) != 0, numberOf(aData))) {
        return;
    }
    mPhase = Phase::BlockDownSegments;
    mLastRequest = aData;
    mCrc = mSettings.checkSums && (aData[0] & 0x04U) != 0;
    mSequence = 0;
    mLastSegment = false;
    Bytes answer = withObject(mSettings.checkSums ? 0xA4 : 0xA0, mObject);
    answer[4] = mSettings.blockSize;
    send(answer);
}

void SdoServerCore::onBlockDownSegment(Bytes const& aData) {
    std::uint8_t const sequence = aData[0] & kSequenceMask;
    bool const last = (aData[0] & kLastSegment) != 0;
    if (sequence != mSequence + 1 && (sequence <= mSequence || aData == mLastRequest)) {
        return; // a second copy
    }
    mLastRequest = aData;
    if (sequence == mSequence + 1) {
        mSequence = sequence;
        mLastSegment = last;
        mBuffer.insert(mBuffer.end(), aData.begin() + 1, aData.end());
        // The last segment may have up to seven bytes that are no data.
        if (mSizeKnown && mPosition + mBuffer.size() > std::size_t{mAnnounced} + kSegmentBytes) {
            abort(sdoabort::kTooLong);
            return;
        }
        if (!passOn()) {
            return;
        }
    }
    if (last || sequence >= mSettings.blockSize) {
        Bytes const acknowledgement{0xA2, mSequence, mSettings.blockSize};
        mSequence = 0;
        if (mLastSegment) {
            mPhase = Phase::BlockDownEnd;
        }
        send(acknowledgement);
    }
}

void SdoServerCore::onBlockDownEnd(Bytes const& aData) {
    if (mPhase != Phase::BlockDownEnd) {
        misfit();
        return;
    }
    std::size_t const unused = (aData[0] >> 2U) & 7U;
    auto const crc = static_cast<std::uint16_t>(aData[1] | (aData[2] << 8U));
    if (mCrc && crc != sdoCrc(mCrcSoFar, std::span(mBuffer).first(mBuffer.size() - unused))) {
        abort(sdoabort::kCrc);
        return;
    }
    if (complete(unused)) {
        send({0xA1});
    }
}

/// Hands what has come to the stream, but keeps the last segment, of which only the end tells how much is
/// data.
/// @return False when the transfer was given up.
bool SdoServerCore::passOn() {
    if (!mStream) {
        if (mBuffer.size() > std::size_t{mSettings.maximalDownload} + kSegmentBytes) {
            abort(sdoabort::kOutOfMemory);
            return false;
        }
        return true;
    }
    if (mBuffer.size() < kPassOnThreshold) {
        return true;
    }
    auto const data = std::span<std::uint8_t const>(mBuffer).first(mBuffer.size() - kSegmentBytes);
    mCrcSoFar = sdoCrc(mCrcSoFar, data);
    if (std::uint32_t const code = mStream->write(data); code != sdoabort::kNone) {
        abort(code);
        return false;
    }
    mPosition += data.size();
    mBuffer.erase(mBuffer.begin(), mBuffer.end() - kSegmentBytes);
    return true;
}

/// Everything has come: checks the size and hands it to the dictionary.
/// @param aUnused  Bytes at the end that are no data.
/// @return False when the transfer was given up.
bool SdoServerCore::complete(std::size_t aUnused) {
    auto const data = std::span<std::uint8_t const>(mBuffer).first(mBuffer.size() - aUnused);
    std::size_t const size = mPosition + data.size();
    std::uint32_t code = sdoabort::kNone;
    if (mSizeKnown && size != mAnnounced) {
        code = size > mAnnounced ? sdoabort::kTooLong : sdoabort::kTooShort;
    } else if (!mStream && size > mSettings.maximalDownload) {
        code = sdoabort::kOutOfMemory;
    } else if (!mStream) {
        code = mDictionary.write(mObject, data);
    } else {
        code = data.empty() ? sdoabort::kNone : mStream->write(data);
        code = code == sdoabort::kNone ? mStream->finish() : code;
    }
    if (code != sdoabort::kNone) {
        abort(code);
        return false;
    }
    reset();
    return true;
}

/// A request that does not belong here.
void SdoServerCore::misfit() {
    if (busy()) {
        abort(sdoabort::kCommandSpecifier);
    }
}

void SdoServerCore::send(Bytes const& aData) {
    mSink.sendFrame({sdoAnswerId(mNode), kFrameLength, aData});
}

void SdoServerCore::abort(std::uint32_t aCode) {
    reset();
    Bytes data = withObject(kAbort, mObject);
    setNumber(data, aCode);
    send(data);
}

} // namespace velmor::kepla::canopen
