// SPDX-License-Identifier: Apache-2.0
// The bodies of the instrument that the temperature board holds: magnet, shim coil, iso box, probe and its
// gas.
#pragma once

#include "simulator/thermal/ThermalNetwork.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace libfieldwarden::sim {

/// Fourteen lumped bodies and the room:
///
/// ```
///                     room ──────────────┬───────────┬──────────────────────────────┐
///                      │ wall            │ fan       │ losses                       │
///   electronics ── air of the iso box ── heatsink    ├── spiral ─┐ gas: room, spiral, probe, exhaust, room
///                      │   │     Peltier             ├── probe ──┤
///              six faces   shim coil ────────────────│───┘       │
///              of the magnet ──┘                     └── exhaust ┘
/// ```
///
/// The faces of the magnet are the sides of a cube: each touches the four that are not opposite to it. The
/// Peltier element moves heat in proportion to its current and adds its own in proportion to the current's
/// square; what leaks back through it is a conductance. All is linear but that square, so that a step of any
/// length is exact while the drive is constant.
///
/// Not for several threads at a time; nothing blocks.
class ThermalModel {
public:
    using Seconds = ThermalNetwork::Seconds;
    static constexpr std::size_t kFaces = 6;    ///< Left, right, front, back, top, bottom.
    static constexpr std::size_t kShimEnds = 2; ///< At the top and at the bottom face.

    // Magnet: 40 kg of iron and rare earth at 450 J/(kg K), in an insulated case.
    static constexpr double kFaceJoulePerKelvin = 3000.0;
    static constexpr double kFaceToFaceWattPerKelvin = 8.0;
    static constexpr double kFaceToAirWattPerKelvin = 0.25;
    static constexpr double kFaceHeaterOhm = 24.0;
    static constexpr double kFaceHeaterWatt = 24.0; ///< At its largest voltage, 24 V.

    // Shim coil: copper on a glass fibre tube in the magnet's gap, half of it for each end.
    static constexpr double kShimEndJoulePerKelvin = 200.0;
    static constexpr double kShimEndToEndWattPerKelvin = 4.0;
    static constexpr double kShimEndToFaceWattPerKelvin = 0.15;
    static constexpr double kShimEndToAirWattPerKelvin = 0.2;
    /// While the tempering mode 1 lets the box's air through the gap.
    static constexpr double kShimEndToCoolingAirWattPerKelvin = 0.5;
    static constexpr double kShimMatWatt = 8.0; ///< The heating mat at its most, on both ends.

    // Iso box: its air and what has its temperature, the electronics in it, and the Peltier's heatsink.
    static constexpr double kAirJoulePerKelvin = 3000.0;
    static constexpr double kAirToRoomWattPerKelvin = 1.5;
    static constexpr double kElectronicsJoulePerKelvin = 300.0;
    static constexpr double kElectronicsWatt = 8.0;
    static constexpr double kElectronicsToAirWattPerKelvin = 1.2;
    static constexpr double kHeatsinkJoulePerKelvin = 600.0;
    static constexpr double kHeatsinkToAirWattPerKelvin = 0.4; ///< Back through the element.
    /// By the fan's speed: off, 12 V, 16 V.
    static constexpr std::array kHeatsinkToRoomWattPerKelvin{1.0, 6.0, 9.0};
    static constexpr double kSmallPeltierPumpWatt = 35.0; ///< Moved at full current.
    static constexpr double kSmallPeltierOwnWatt = 45.0;  ///< Its own heat at full current.
    static constexpr double kBigPeltierPumpWatt = 70.0;
    static constexpr double kBigPeltierOwnWatt = 90.0;

    // Probe: a tube with the sample in it, in a dewar; the spiral that heats its gas; the gas's way out.
    static constexpr double kProbeJoulePerKelvin = 10.0;
    static constexpr double kProbeToShimEndWattPerKelvin = 0.01;
    static constexpr double kProbeToRoomWattPerKelvin = 0.005;
    static constexpr double kProbeToGasWattPerKelvin = 0.2;
    static constexpr double kSpiralJoulePerKelvin = 15.0;
    static constexpr double kSpiralToRoomWattPerKelvin = 0.03;
    static constexpr double kSpiralToGasWattPerKelvin = 0.3;
    static constexpr double kSpiralWatt = 43.0; ///< At its most.
    static constexpr double kExhaustJoulePerKelvin = 5.0;
    static constexpr double kExhaustToRoomWattPerKelvin = 0.02;
    static constexpr double kExhaustToGasWattPerKelvin = 0.05;
    /// Nitrogen at 25 degrees Celsius and 1 bar: 1.145 kg/m3 times 1040 J/(kg K), for 1 l/h.
    static constexpr double kGasWattPerKelvinPerLiterPerHour = 1.145 * 1040.0 * 1e-3 / 3600.0;

    /// What the board and the gas supply do.
    struct Drive {
        std::array<double, kFaces> faceWatt{};
        double shimMatWatt = 0.0;
        bool shimCooling = false; ///< The box's air goes through the gap.
        double peltier = 0.0;     ///< Current over the largest one; above 0 it cools the box.
        bool bigPeltier = false;
        std::uint8_t fan = 0; ///< 0 off, 1 at 12 V, 2 at 16 V.
        double spiralWatt = 0.0;
        double gasLiterPerHour = 0.0;
    };

    /// All in degrees Celsius.
    struct Temperatures {
        std::array<double, kFaces> faces{};
        std::array<double, kShimEnds> shimEnds{};
        double air = 0.0;
        double electronics = 0.0;
        double heatsink = 0.0;
        double probe = 0.0;
        double spiral = 0.0;
        double exhaust = 0.0;

        double magnet() const;   ///< Mean of the faces.
        double shimCoil() const; ///< Mean of the ends.
    };

    /// Everything has the room's temperature and nothing is driven.
    explicit ThermalModel(double aRoomCelsius);

    void setRoom(double aCelsius);
    /// @throws std::out_of_range  for a fan speed above 2.
    void setDrive(Drive const& aDrive);
    /// Moves on with the present drive. @param aTime  0 or more.
    void advance(Seconds aTime);

    /// Puts everything to where it is after days of regulation: magnet, shim coil and iso box on target, no
    /// gas, no heating of it.
    /// @param aModes  The drive's modes and fan; its powers are not used.
    /// @return The drive that holds it there, as far as the heaters and the element can.
    Drive settle(double aMagnetCelsius, double aShimCoilCelsius, double aAirCelsius, Drive const& aModes);

    Temperatures temperatures() const;
    double roomCelsius() const;
    /// @return The power that all heaters, the element and the electronics take now, in W.
    double wattMade() const;
    /// @return The heat that the room has taken so far, in J.
    double heatGivenAway() const;
    /// @return The heat in all bodies, in J from 0 degrees Celsius.
    double heatStored() const;

private:
    using Body = ThermalNetwork::Body;

    double pumpWatt() const;
    double ownWatt() const;

    ThermalNetwork mNetwork;
    Drive mDrive;
    Body const mRoom;
    Body const mAir;
    Body const mElectronics;
    Body const mHeatsink;
    std::array<Body, kFaces> mFaces;
    std::array<Body, kShimEnds> mShimEnds;
    Body const mProbe;
    Body const mSpiral;
    Body const mExhaust;
    ThermalNetwork::Conductance const mHeatsinkToRoom;
    std::array<ThermalNetwork::Conductance, kShimEnds> mShimToAir;
    ThermalNetwork::Stream const mGas;
};

} // namespace libfieldwarden::sim
