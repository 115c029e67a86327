// SPDX-License-Identifier: Apache-2.0
// Keeps an eye on the temperatures of a run and tells those changes that are worth a line.
#pragma once

#include "apps/fieldwarden/Event.h"
#include "apps/fieldwarden/TemperatureText.h"

#include <optional>
#include <string>

class TemperatureInterface;

namespace libfieldwarden::app {

/// All temperatures at one time.
struct Temperatures {
    double magnetKelvin = 0.0;
    double coilCelsius = 0.0;
    double isoBoxKelvin = 0.0;
    std::optional<double> probeKelvin; ///< None without the option.
    double flowLiterPerHour = 0.0;     ///< Of the probe's gas.

    /// @return Such as "298.150 K, shim coil 25.000 C, iso box 294.15 K, probe 297.8 K", the magnet's first.
    std::string words() const;
};

/// Reads the temperatures when it is told to look. One thread.
class TemperatureWatch {
public:
    static constexpr char const* kTemperatures = "temperatures";
    static constexpr char const* kReadiness = "readiness";

    /// @param aTemperature  The temperature service; outlives this object.
    /// @param aQueue        Takes the events; outlives this object.
    TemperatureWatch(TemperatureInterface& aTemperature, EventQueue& aQueue);

    /// Reads, and puts what has moved enough since it was told last into the queue. A board that does not
    /// answer is told once. Blocks for some transfers to the board.
    void look();

    /// @return What was read last; none before, and while the board does not answer.
    std::optional<Temperatures> const& temperatures() const noexcept { return mNow; }

    /// @param aWithProbe  Whether the probe's temperature is wanted, too.
    /// @return The magnet's readiness and the temperatures, for a terminal's line.
    std::string words(bool aWithProbe) const;

private:
    void read();
    void tellMoves();
    void tellReadiness();

    TemperatureInterface& mTemperature;
    EventQueue& mQueue;
    MagnetReadiness mReadiness;
    std::optional<Temperatures> mNow;
    std::optional<Temperatures> mTold;
    std::optional<MagnetReadiness::Kind> mToldKind;
    bool mSilent = false; ///< Whether the board did not answer at the last look.
};

} // namespace libfieldwarden::app
