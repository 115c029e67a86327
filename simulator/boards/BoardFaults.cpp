// SPDX-License-Identifier: Apache-2.0
// The list of a board's faults.
#include "simulator/boards/BoardFaults.h"

namespace libfieldwarden::sim {

void BoardFaults::setSilent(bool aSilent) {
    std::lock_guard const lock(mMutex);
    mActive.silent = aSilent;
}

void BoardFaults::abortObject(SdoObject aObject, std::uint32_t aCode) {
    std::lock_guard const lock(mMutex);
    if (aCode == 0) {
        mActive.aborts.erase(aObject);
    } else {
        mActive.aborts[aObject] = aCode;
    }
}

void BoardFaults::answerWithSize(SdoObject aObject, std::optional<std::size_t> aSize) {
    std::lock_guard const lock(mMutex);
    if (aSize) {
        mActive.sizes[aObject] = *aSize;
    } else {
        mActive.sizes.erase(aObject);
    }
}

void BoardFaults::restartAtFrame(unsigned aFrame) {
    std::lock_guard const lock(mMutex);
    mActive.framesToRestart = aFrame;
}

void BoardFaults::loseFrames(unsigned aCount) {
    std::lock_guard const lock(mMutex);
    mActive.framesToLose = aCount;
}

void BoardFaults::delayAnswers(Duration aBy) {
    std::lock_guard const lock(mMutex);
    mActive.answerDelay = aBy;
}

void BoardFaults::clear() {
    std::lock_guard const lock(mMutex);
    mActive = Active{};
}

bool BoardFaults::silent() const {
    std::lock_guard const lock(mMutex);
    return mActive.silent;
}

std::uint32_t BoardFaults::abortCode(SdoObject aObject) const {
    std::lock_guard const lock(mMutex);
    auto const found = mActive.aborts.find(aObject);
    return found == mActive.aborts.end() ? 0 : found->second;
}

std::optional<std::size_t> BoardFaults::answerSize(SdoObject aObject) const {
    std::lock_guard const lock(mMutex);
    auto const found = mActive.sizes.find(aObject);
    return found == mActive.sizes.end() ? std::nullopt : std::optional(found->second);
}

BoardFaults::Duration BoardFaults::answerDelay() const {
    std::lock_guard const lock(mMutex);
    return mActive.answerDelay;
}

bool BoardFaults::takeRestart() {
    std::lock_guard const lock(mMutex);
    return mActive.framesToRestart > 0 && --mActive.framesToRestart == 0;
}

bool BoardFaults::takeLoss() {
    std::lock_guard const lock(mMutex);
    if (mActive.framesToLose == 0) {
        return false;
    }
    --mActive.framesToLose;
    return true;
}

} // namespace libfieldwarden::sim
