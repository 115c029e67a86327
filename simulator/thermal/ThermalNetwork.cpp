// SPDX-License-Identifier: Apache-2.0
// The matrix of the network, its exponential, and the state at rest.
#include "simulator/thermal/ThermalNetwork.h"

#include "simulator/thermal/MatrixExponential.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>

namespace libfieldwarden::sim {

namespace {

/// As many settings as a running instrument has: fan speeds times gas flows times modes.
constexpr std::size_t kKeptPropagators = 64;

/// Below it a pivot is rounding.
constexpr double kSmallestPivot = 1e-12;

void refuseUnless(bool aGood, char const* aWhy) {
    if (!aGood) {
        throw std::invalid_argument(aWhy);
    }
}

/// Solves A x = b by elimination with partial pivoting; both are used up.
std::vector<double> solve(std::vector<double> aMatrix, std::vector<double> aRight) {
    std::size_t const size = aRight.size();
    auto const at = [&](std::size_t aRow, std::size_t aColumn) -> double& {
        return aMatrix[aRow * size + aColumn];
    };
    for (std::size_t column = 0; column < size; ++column) {
        std::size_t pivot = column;
        for (std::size_t row = column + 1; row < size; ++row) {
            pivot = std::abs(at(row, column)) > std::abs(at(pivot, column)) ? row : pivot;
        }
        if (std::abs(at(pivot, column)) < kSmallestPivot) {
            throw std::logic_error("A body of the thermal network has no way to give its heat away");
        }
        for (std::size_t each = 0; each < size; ++each) {
            std::swap(at(pivot, each), at(column, each));
        }
        std::swap(aRight[pivot], aRight[column]);
        for (std::size_t row = column + 1; row < size; ++row) {
            double const factor = at(row, column) / at(column, column);
            for (std::size_t each = column; each < size; ++each) {
                at(row, each) -= factor * at(column, each);
            }
            aRight[row] -= factor * aRight[column];
        }
    }
    for (std::size_t row = size; row-- > 0;) {
        for (std::size_t each = row + 1; each < size; ++each) {
            aRight[row] -= at(row, each) * aRight[each];
        }
        aRight[row] /= at(row, row);
    }
    return aRight;
}

} // namespace

// ---------------------------------------------------------------------------------------------- building

ThermalNetwork::Body ThermalNetwork::addBody(double aJoulePerKelvin, double aCelsius) {
    refuseUnless(aJoulePerKelvin > 0.0 && std::isfinite(aJoulePerKelvin), "A body must store heat");
    mNodes.push_back({aJoulePerKelvin, aCelsius});
    mPropagators.clear();
    touch();
    return {mNodes.size() - 1};
}

ThermalNetwork::Body ThermalNetwork::addReservoir(double aCelsius) {
    mNodes.push_back({0.0, aCelsius});
    mPropagators.clear();
    touch();
    return {mNodes.size() - 1};
}

ThermalNetwork::Conductance ThermalNetwork::connect(Body aOne, Body aOther, double aWattPerKelvin) {
    node(aOne);
    node(aOther);
    mLinks.push_back({aOne.number, aOther.number, 0.0});
    mPropagators.clear();
    touch();
    Conductance const result{mLinks.size() - 1};
    setConductance(result, aWattPerKelvin);
    return result;
}

ThermalNetwork::Stream ThermalNetwork::addStream(Body aFrom, std::vector<Passed> aPassed, Body aTo) {
    refuseUnless(node(aFrom).joulePerKelvin == 0.0 && node(aTo).joulePerKelvin == 0.0,
                 "Gas comes from a reservoir and goes to one");
    for (Passed const& passed : aPassed) {
        refuseUnless(node(passed.body).joulePerKelvin > 0.0 && passed.wattPerKelvin >= 0.0,
                     "Gas passes bodies");
    }
    mFlows.push_back({aFrom.number, std::move(aPassed), aTo.number});
    mPropagators.clear();
    touch();
    return {mFlows.size() - 1};
}

// ---------------------------------------------------------------------------------------------- settings

void ThermalNetwork::setConductance(Conductance aConductance, double aWattPerKelvin) {
    refuseUnless(aWattPerKelvin >= 0.0 && std::isfinite(aWattPerKelvin), "A conductance is 0 or more");
    if (double& present = mLinks.at(aConductance.number).wattPerKelvin; present != aWattPerKelvin) {
        present = aWattPerKelvin;
        touch();
    }
}

void ThermalNetwork::setFlow(Stream aStream, double aWattPerKelvin) {
    refuseUnless(aWattPerKelvin >= 0.0 && std::isfinite(aWattPerKelvin), "A flow is 0 or more");
    if (double& present = mFlows.at(aStream.number).wattPerKelvin; present != aWattPerKelvin) {
        present = aWattPerKelvin;
        touch();
    }
}

void ThermalNetwork::setPower(Body aBody, double aWatt) {
    Node& body = node(aBody);
    refuseUnless(body.joulePerKelvin > 0.0 && std::isfinite(aWatt), "A power heats a body");
    body.watt = aWatt;
}

void ThermalNetwork::setTemperature(Body aBody, double aCelsius) {
    refuseUnless(std::isfinite(aCelsius), "A temperature is a number");
    node(aBody).celsius = aCelsius;
}

// ---------------------------------------------------------------------------------------------- time

/// Where the temperature of a node stands in the state: a body's own row, a reservoir's input.
std::size_t ThermalNetwork::temperatureColumn(std::size_t aNode) const {
    return isReservoir(aNode) ? mNodes.size() + aNode : aNode;
}

/// The matrix M of dz/dt = M z. The first half of z are the temperatures of bodies and the heat that
/// reservoirs have taken, the second half the powers of bodies and the temperatures of reservoirs, which do
/// not change.
ThermalNetwork::Matrix ThermalNetwork::rates() const {
    std::size_t const nodes = mNodes.size();
    std::size_t const size = 2 * nodes;
    Matrix matrix(size * size, 0.0);
    auto const perJoule = [&](std::size_t aNode) {
        return isReservoir(aNode) ? 1.0 : 1.0 / mNodes[aNode].joulePerKelvin;
    };
    auto const addHeat = [&](std::size_t aInto, std::size_t aColumn, double aWattPerKelvin) {
        matrix[aInto * size + aColumn] += aWattPerKelvin * perJoule(aInto);
    };
    for (std::size_t each = 0; each < nodes; ++each) {
        if (!isReservoir(each)) {
            matrix[each * size + nodes + each] = perJoule(each);
        }
    }
    for (Link const& link : mLinks) {
        std::size_t const one = temperatureColumn(link.one);
        std::size_t const other = temperatureColumn(link.other);
        addHeat(link.one, other, link.wattPerKelvin);
        addHeat(link.one, one, -link.wattPerKelvin);
        addHeat(link.other, one, link.wattPerKelvin);
        addHeat(link.other, other, -link.wattPerKelvin);
    }
    for (Flow const& flow : mFlows) {
        if (flow.wattPerKelvin == 0.0) {
            continue;
        }
        std::vector<double> gas(size, 0.0); // Its temperature as a sum over those of the nodes.
        gas[temperatureColumn(flow.from)] = 1.0;
        for (Passed const& passed : flow.passed) {
            double const share = 1.0 - std::exp(-passed.wattPerKelvin / flow.wattPerKelvin);
            std::size_t const body = temperatureColumn(passed.body.number);
            for (std::size_t column = 0; column < size; ++column) {
                addHeat(passed.body.number, column, flow.wattPerKelvin * share * gas[column]);
                gas[column] *= 1.0 - share;
            }
            addHeat(passed.body.number, body, -flow.wattPerKelvin * share);
            gas[body] += share;
        }
        for (std::size_t column = 0; column < size; ++column) {
            addHeat(flow.to, column, flow.wattPerKelvin * gas[column]);
        }
        addHeat(flow.to, temperatureColumn(flow.from), -flow.wattPerKelvin);
    }
    return matrix;
}

/// @return The upper half of exp(M t).
ThermalNetwork::Matrix const& ThermalNetwork::propagator(Seconds aTime) {
    if (mPropagator != nullptr && mPropagatorTime == aTime) {
        return *mPropagator;
    }
    Setting setting{aTime.count()};
    for (Link const& link : mLinks) {
        setting.push_back(link.wattPerKelvin);
    }
    for (Flow const& flow : mFlows) {
        setting.push_back(flow.wattPerKelvin);
    }
    auto found = mPropagators.find(setting);
    if (found == mPropagators.end()) {
        if (mPropagators.size() >= kKeptPropagators) {
            mPropagators.clear();
        }
        Matrix matrix = rates();
        for (double& element : matrix) {
            element *= aTime.count();
        }
        matrix = matrixExponential(matrix, 2 * mNodes.size());
        matrix.resize(matrix.size() / 2);
        found = mPropagators.emplace(std::move(setting), std::move(matrix)).first;
    }
    mPropagatorTime = aTime;
    mPropagator = &found->second;
    return *mPropagator;
}

void ThermalNetwork::advance(Seconds aTime) {
    refuseUnless(aTime.count() >= 0.0 && std::isfinite(aTime.count()), "Time does not run backwards");
    std::size_t const nodes = mNodes.size();
    mState.resize(2 * nodes);
    mMovedOn.resize(nodes);
    for (std::size_t each = 0; each < nodes; ++each) {
        Node const& present = mNodes[each];
        mState[each] = isReservoir(each) ? present.taken : present.celsius;
        mState[nodes + each] = isReservoir(each) ? present.celsius : present.watt;
    }
    Matrix const& matrix = propagator(aTime);
    for (std::size_t row = 0; row < nodes; ++row) {
        double sum = 0.0;
        for (std::size_t column = 0; column < 2 * nodes; ++column) {
            sum += matrix[row * 2 * nodes + column] * mState[column];
        }
        mMovedOn[row] = sum;
    }
    for (std::size_t each = 0; each < nodes; ++each) {
        (isReservoir(each) ? mNodes[each].taken : mNodes[each].celsius) = mMovedOn[each];
    }
}

std::vector<double> ThermalNetwork::settle(std::span<Held const> aHeld) {
    std::vector<std::optional<double>> held(mNodes.size());
    for (Held const& each : aHeld) {
        refuseUnless(node(each.body).joulePerKelvin > 0.0, "A body can be held, a reservoir is");
        held[each.body.number] = each.celsius;
    }
    std::vector<std::size_t> bodies;
    for (std::size_t each = 0; each < mNodes.size(); ++each) {
        if (!isReservoir(each)) {
            bodies.push_back(each);
        }
    }
    // One row a body: 0 = its power and all heat that comes to it. Unknown is the temperature of a body that
    // is not held and the power of one that is.
    Matrix const rate = rates();
    std::size_t const size = 2 * mNodes.size();
    Matrix matrix(bodies.size() * bodies.size(), 0.0);
    std::vector<double> right(bodies.size(), 0.0);
    for (std::size_t row = 0; row < bodies.size(); ++row) {
        double const capacity = mNodes[bodies[row]].joulePerKelvin;
        auto const heat = [&](std::size_t aNode) {
            return capacity * rate[bodies[row] * size + temperatureColumn(aNode)];
        };
        for (std::size_t column = 0; column < bodies.size(); ++column) {
            if (auto const temperature = held[bodies[column]]) {
                right[row] -= heat(bodies[column]) * *temperature;
            } else {
                matrix[row * bodies.size() + column] = heat(bodies[column]);
            }
        }
        for (std::size_t each = 0; each < mNodes.size(); ++each) {
            right[row] -= isReservoir(each) ? heat(each) * mNodes[each].celsius : 0.0;
        }
        if (held[bodies[row]]) {
            matrix[row * bodies.size() + row] = 1.0;
        } else {
            right[row] -= mNodes[bodies[row]].watt;
        }
    }
    std::vector<double> const found = solve(std::move(matrix), std::move(right));
    for (std::size_t row = 0; row < bodies.size(); ++row) {
        Node& body = mNodes[bodies[row]];
        auto const temperature = held[bodies[row]];
        body.celsius = temperature.value_or(found[row]);
        body.watt = temperature ? found[row] : body.watt;
    }
    std::vector<double> powers;
    std::transform(aHeld.begin(), aHeld.end(), std::back_inserter(powers),
                   [this](Held const& aEach) { return power(aEach.body); });
    return powers;
}

// ---------------------------------------------------------------------------------------------- readings

ThermalNetwork::Node& ThermalNetwork::node(Body aBody) {
    return mNodes.at(aBody.number);
}

ThermalNetwork::Node const& ThermalNetwork::node(Body aBody) const {
    return mNodes.at(aBody.number);
}

double ThermalNetwork::celsius(Body aBody) const {
    return node(aBody).celsius;
}

double ThermalNetwork::power(Body aBody) const {
    return node(aBody).watt;
}

double ThermalNetwork::heatTaken(Body aReservoir) const {
    return node(aReservoir).taken;
}

double ThermalNetwork::heatStored() const {
    double sum = 0.0;
    for (Node const& each : mNodes) {
        sum += each.joulePerKelvin * each.celsius;
    }
    return sum;
}

} // namespace libfieldwarden::sim
