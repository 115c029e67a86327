// SPDX-License-Identifier: Apache-2.0
// The switches of the sequencer's faults.
#include "simulator/sequencer/SequencerFaults.h"

namespace libfieldwarden::sim {

void SequencerFaults::truncateNextPackets(std::size_t aBytes) {
    std::lock_guard const lock(mMutex);
    for (char const* path : {"/dev/lock_dma_td", "/dev/lock_dma_fd", "/dev/lock_dma_pid"}) {
        mTruncated[path] = aBytes;
    }
}

void SequencerFaults::refuseOpening(std::string const& aPath, int aErrno) {
    store(mRefused, aPath, aErrno);
}

void SequencerFaults::failIoctl(std::string const& aPath, int aErrno) {
    store(mIoctls, aPath, aErrno);
}

void SequencerFaults::failRead(std::string const& aPath, int aErrno) {
    store(mReads, aPath, aErrno);
}

void SequencerFaults::clear() {
    mDdsPllUnlocked = false;
    mAdcPllUnlocked = false;
    mSilentFid = false;
    mOverflow = false;
    mStoppedAcquisition = false;
    mStoppedPidStream = false;
    mEndlessStreams = false;
    mNoise = 1.0;
    std::lock_guard const lock(mMutex);
    mTruncated.clear();
    mRefused.clear();
    mIoctls.clear();
    mReads.clear();
}

std::size_t SequencerFaults::takeTruncation(std::string const& aPath) {
    std::lock_guard const lock(mMutex);
    auto const found = mTruncated.find(aPath);
    if (found == mTruncated.end()) {
        return kWhole;
    }
    std::size_t const bytes = found->second;
    mTruncated.erase(found);
    return bytes;
}

int SequencerFaults::look(Errors const& aErrors, std::string const& aPath) const {
    std::lock_guard const lock(mMutex);
    auto const found = aErrors.find(aPath);
    return found == aErrors.end() ? 0 : found->second;
}

void SequencerFaults::store(Errors& aErrors, std::string const& aPath, int aErrno) {
    std::lock_guard const lock(mMutex);
    aErrors[aPath] = aErrno;
}

} // namespace libfieldwarden::sim
