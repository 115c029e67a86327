// SPDX-License-Identifier: Apache-2.0
// Bodies that store heat, conductances between them, and gas that carries heat along: a linear model, moved
// on exactly for any time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <utility>
#include <vector>

namespace libfieldwarden::sim {

/// Lumped capacities: body i follows C dT/dt = P + sum of G (Tj - Ti) + what gas brings, with all powers,
/// conductances, flows and the temperatures of reservoirs constant from one advance() to the next. The
/// solution is then a matrix exponential, so a step of any length is exact and stable; the matrices of some
/// settings are kept.
///
/// A reservoir is a body that nothing warms up, as the room; the model counts the heat that it takes, so that
/// the energy balance closes: what the bodies store and the reservoirs take is what the powers put in.
///
/// Temperatures are in degrees Celsius, powers in W, capacities in J/K, conductances in W/K, energies in J.
///
/// Not for several threads at a time; nothing blocks. Operations throw std::out_of_range for what is no body,
/// conductance or stream of this network, and std::invalid_argument for a number that cannot be.
class ThermalNetwork {
public:
    using Seconds = std::chrono::duration<double>;

    struct Body {
        std::size_t number;
    };
    struct Conductance {
        std::size_t number;
    };
    struct Stream {
        std::size_t number;
    };
    /// A body that gas passes, and how well the two exchange heat.
    struct Passed {
        Body body;
        double
            wattPerKelvin; ///< h A of the surface: the gas comes near by 1 - exp(-h A / W) of the distance.
    };
    /// A body that something holds at a temperature.
    struct Held {
        Body body;
        double celsius;
    };

    ThermalNetwork() = default;
    ~ThermalNetwork() = default;
    ThermalNetwork(ThermalNetwork const&) = delete;
    ThermalNetwork& operator=(ThermalNetwork const&) = delete;

    /// @param aJoulePerKelvin  Above 0.
    Body addBody(double aJoulePerKelvin, double aCelsius);
    Body addReservoir(double aCelsius);
    /// @param aWattPerKelvin  0 or more.
    Conductance connect(Body aOne, Body aOther, double aWattPerKelvin);
    /// Gas that comes from a reservoir, passes bodies in their order, and leaves to a reservoir, which is
    /// credited with what it carries away. It does not flow at first.
    Stream addStream(Body aFrom, std::vector<Passed> aPassed, Body aTo);

    /// @param aWattPerKelvin  0 or more.
    void setConductance(Conductance aConductance, double aWattPerKelvin);
    /// @param aWattPerKelvin  The flow's capacity rate: mass flow times specific heat; 0 for no flow.
    void setFlow(Stream aStream, double aWattPerKelvin);
    /// @param aWatt  Heat made in a body, negative for heat taken out, from now on.
    void setPower(Body aBody, double aWatt);
    /// Puts a body or a reservoir to a temperature at once.
    void setTemperature(Body aBody, double aCelsius);

    /// Moves on.
    /// @param aTime  0 or more.
    void advance(Seconds aTime);

    /// Puts all bodies to where they come to rest with the present powers, while some are held.
    /// @return The power that each of the held bodies needs, in their order; it becomes the present one.
    /// @throws std::logic_error  when a body has no way to a reservoir or a held body.
    std::vector<double> settle(std::span<Held const> aHeld);

    double celsius(Body aBody) const;
    double power(Body aBody) const;
    /// @return The heat that a reservoir has taken so far; negative where it gave some.
    double heatTaken(Body aReservoir) const;
    /// @return The heat that all bodies store, counted from 0 degrees Celsius.
    double heatStored() const;

private:
    struct Node {
        double joulePerKelvin; ///< 0 for a reservoir.
        double celsius;
        double watt = 0.0;  ///< Only of bodies.
        double taken = 0.0; ///< Only of reservoirs.
    };
    struct Link {
        std::size_t one;
        std::size_t other;
        double wattPerKelvin;
    };
    struct Flow {
        std::size_t from;
        std::vector<Passed> passed;
        std::size_t to;
        double wattPerKelvin = 0.0;
    };
    using Matrix = std::vector<double>;
    using Setting = std::vector<double>; ///< All conductances and flows, and the time.

    bool isReservoir(std::size_t aNode) const { return mNodes[aNode].joulePerKelvin == 0.0; }
    std::size_t temperatureColumn(std::size_t aNode) const;
    Matrix rates() const;
    Matrix const& propagator(Seconds aTime);
    void touch() { mPropagator = nullptr; }
    Node& node(Body aBody);
    Node const& node(Body aBody) const;

    std::vector<Node> mNodes;
    std::vector<Link> mLinks;
    std::vector<Flow> mFlows;
    std::map<Setting, Matrix> mPropagators;
    Matrix const* mPropagator = nullptr; ///< The one used last; null when something has changed.
    Seconds mPropagatorTime{};
    std::vector<double> mState;   ///< Scratch: temperatures or energies, then powers or temperatures.
    std::vector<double> mMovedOn; ///< Scratch.
};

} // namespace libfieldwarden::sim
