// SPDX-License-Identifier: Apache-2.0
// What the main board does for the magnet control: the status LED and the lock transmitter.
#pragma once

#include <cstdint>

namespace velmor::q47::mainboarddaemon {

/// Colours of the status LED, as the board numbers them. Not a class enumeration: the board takes plain
/// numbers.
enum StatusLedColour : int {
    blue = 4,
};

/// The main board. All operations may be called from any thread, may block while the board is asked, and
/// throw std::runtime_error when it cannot be reached or refuses.
class MainboardInterface {
public:
    virtual ~MainboardInterface() = default;

    /// @param aColour  Colour number, such as StatusLedColour::blue.
    virtual void setStatusLed(int aColour) = 0;

    /// Switches a transmitter channel.
    /// @param aChannel  Number of the channel; the lock's is 1.
    /// @param aOn       Whether it transmits.
    virtual void setTxEnable(unsigned int aChannel, bool aOn) = 0;

    /// @param aChannel  Number of the channel.
    /// @return The 32-bit frequency word of the channel.
    virtual std::uint32_t txFrequencyWord(unsigned int aChannel) = 0;

    /// @param aChannel  Number of the channel.
    /// @param aWord     Its new 32-bit frequency word.
    virtual void setTxFrequencyWord(unsigned int aChannel, std::uint32_t aWord) = 0;

    /// @param aWord  The new amplitude word, common to all channels.
    virtual void setTxAmplitudeWord(std::uint32_t aWord) = 0;
};

} // namespace velmor::q47::mainboarddaemon
