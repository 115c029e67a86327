// SPDX-License-Identifier: Apache-2.0
// The simulated main board: a status LED and the transmitter's words.
#pragma once

#include <velmor/q47/mainboarddaemon/MainboardInterface.h>

#include <array>
#include <cstdint>
#include <functional>
#include <mutex>

namespace libfieldwarden::sim {

/// Remembers what the library sets, as the board's registers do. Starts as the board does after power-on: LED
/// off, transmitter off, all words 0. All operations may be called from any thread.
class Mainboard : public velmor::q47::mainboarddaemon::MainboardInterface {
public:
    static constexpr unsigned int kTxChannels = 2;

    /// What the transmitter does on one channel.
    struct TxChannel {
        bool enabled = false;
        std::uint32_t frequencyWord = 0;
    };

    void setStatusLed(int aColour) override;
    /// @throws std::runtime_error  for a channel that the board does not have; so do the other channel
    /// operations.
    void setTxEnable(unsigned int aChannel, bool aOn) override;
    std::uint32_t txFrequencyWord(unsigned int aChannel) override;
    void setTxFrequencyWord(unsigned int aChannel, std::uint32_t aWord) override;
    void setTxAmplitudeWord(std::uint32_t aWord) override;

    /// @param aObserver  Called after every write of a channel's frequency word, by the thread that writes;
    /// null for none. When this returns, the former one is not running and will not be called any more.
    void setTransmitterObserver(std::function<void()> aObserver);

    /// @return The colour of the status LED, 0 while it is off.
    int statusLed() const;
    /// @return The state of a transmitter channel.
    TxChannel txChannel(unsigned int aChannel) const;
    /// @return The amplitude word, common to all channels.
    std::uint32_t txAmplitudeWord() const;

private:
    static void checkChannel(unsigned int aChannel);

    mutable std::mutex mMutex;
    int mStatusLed = 0;
    std::array<TxChannel, kTxChannels> mTx;
    std::uint32_t mTxAmplitudeWord = 0;

    std::mutex mObserverMutex; ///< Held while the observer runs; never together with the other one.
    std::function<void()> mTransmitterObserver;
};

} // namespace libfieldwarden::sim
