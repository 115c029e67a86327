// SPDX-License-Identifier: Apache-2.0
// The registers of the simulated main board.
#include "simulator/mainboard/Mainboard.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace libfieldwarden::sim {

void Mainboard::checkChannel(unsigned int aChannel) {
    if (aChannel >= kTxChannels) {
        throw std::runtime_error("The main board has no transmitter channel " + std::to_string(aChannel));
    }
}

void Mainboard::setStatusLed(int aColour) {
    std::lock_guard const lock(mMutex);
    mStatusLed = aColour;
}

void Mainboard::setTxEnable(unsigned int aChannel, bool aOn) {
    checkChannel(aChannel);
    std::lock_guard const lock(mMutex);
    mTx[aChannel].enabled = aOn;
}

std::uint32_t Mainboard::txFrequencyWord(unsigned int aChannel) {
    return txChannel(aChannel).frequencyWord;
}

void Mainboard::setTxFrequencyWord(unsigned int aChannel, std::uint32_t aWord) {
    checkChannel(aChannel);
    {
        std::lock_guard const lock(mMutex);
        mTx[aChannel].frequencyWord = aWord;
    }
    std::lock_guard const lock(mObserverMutex);
    if (mTransmitterObserver) {
        mTransmitterObserver();
    }
}

void Mainboard::setTransmitterObserver(std::function<void()> aObserver) {
    std::lock_guard const lock(mObserverMutex);
    mTransmitterObserver = std::move(aObserver);
}

void Mainboard::setTxAmplitudeWord(std::uint32_t aWord) {
    std::lock_guard const lock(mMutex);
    mTxAmplitudeWord = aWord;
}

int Mainboard::statusLed() const {
    std::lock_guard const lock(mMutex);
    return mStatusLed;
}

Mainboard::TxChannel Mainboard::txChannel(unsigned int aChannel) const {
    checkChannel(aChannel);
    std::lock_guard const lock(mMutex);
    return mTx[aChannel];
}

std::uint32_t Mainboard::txAmplitudeWord() const {
    std::lock_guard const lock(mMutex);
    return mTxAmplitudeWord;
}

} // namespace libfieldwarden::sim
