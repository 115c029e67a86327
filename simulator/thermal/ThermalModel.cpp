// SPDX-License-Identifier: Apache-2.0
// What touches what, and what the drive makes of it.
#include "simulator/thermal/ThermalModel.h"

#include <algorithm>
#include <numeric>

namespace libfieldwarden::sim {

namespace {

constexpr std::size_t kTop = 4; ///< The face above the shim coil; the one below follows it.

bool areOpposite(std::size_t aOne, std::size_t aOther) {
    return aOne / 2 == aOther / 2;
}

template <std::size_t Size>
double mean(std::array<double, Size> const& aValues) {
    return std::accumulate(aValues.begin(), aValues.end(), 0.0) / Size;
}

template <std::size_t Size>
std::array<ThermalNetwork::Body, Size> bodies(ThermalNetwork& aNetwork,
                                              double aJoulePerKelvin,
                                              double aCelsius) {
    std::array<ThermalNetwork::Body, Size> result{};
    for (ThermalNetwork::Body& each : result) {
        each = aNetwork.addBody(aJoulePerKelvin, aCelsius);
    }
    return result;
}

} // namespace

double ThermalModel::Temperatures::magnet() const {
    return mean(faces);
}

double ThermalModel::Temperatures::shimCoil() const {
    return mean(shimEnds);
}

ThermalModel::ThermalModel(double aRoomCelsius)
    : mRoom(mNetwork.addReservoir(aRoomCelsius))
    , mAir(mNetwork.addBody(kAirJoulePerKelvin, aRoomCelsius))
    , mElectronics(mNetwork.addBody(kElectronicsJoulePerKelvin, aRoomCelsius))
    , mHeatsink(mNetwork.addBody(kHeatsinkJoulePerKelvin, aRoomCelsius))
    , mFaces(bodies<kFaces>(mNetwork, kFaceJoulePerKelvin, aRoomCelsius))
    , mShimEnds(bodies<kShimEnds>(mNetwork, kShimEndJoulePerKelvin, aRoomCelsius))
    , mProbe(mNetwork.addBody(kProbeJoulePerKelvin, aRoomCelsius))
    , mSpiral(mNetwork.addBody(kSpiralJoulePerKelvin, aRoomCelsius))
    , mExhaust(mNetwork.addBody(kExhaustJoulePerKelvin, aRoomCelsius))
    , mHeatsinkToRoom(mNetwork.connect(mHeatsink, mRoom, kHeatsinkToRoomWattPerKelvin[0]))
    , mShimToAir{mNetwork.connect(mShimEnds[0], mAir, kShimEndToAirWattPerKelvin),
                 mNetwork.connect(mShimEnds[1], mAir, kShimEndToAirWattPerKelvin)}
    , mGas(mNetwork.addStream(mRoom,
                              {{mSpiral, kSpiralToGasWattPerKelvin},
                               {mProbe, kProbeToGasWattPerKelvin},
                               {mExhaust, kExhaustToGasWattPerKelvin}},
                              mRoom)) {
    mNetwork.connect(mAir, mRoom, kAirToRoomWattPerKelvin);
    mNetwork.connect(mElectronics, mAir, kElectronicsToAirWattPerKelvin);
    mNetwork.connect(mHeatsink, mAir, kHeatsinkToAirWattPerKelvin);
    for (std::size_t face = 0; face < kFaces; ++face) {
        mNetwork.connect(mFaces[face], mAir, kFaceToAirWattPerKelvin);
        for (std::size_t other = face + 1; other < kFaces; ++other) {
            if (!areOpposite(face, other)) {
                mNetwork.connect(mFaces[face], mFaces[other], kFaceToFaceWattPerKelvin);
            }
        }
    }
    mNetwork.connect(mShimEnds[0], mShimEnds[1], kShimEndToEndWattPerKelvin);
    for (std::size_t end = 0; end < kShimEnds; ++end) {
        mNetwork.connect(mShimEnds[end], mFaces[kTop + end], kShimEndToFaceWattPerKelvin);
        mNetwork.connect(mShimEnds[end], mProbe, kProbeToShimEndWattPerKelvin);
    }
    mNetwork.connect(mProbe, mRoom, kProbeToRoomWattPerKelvin);
    mNetwork.connect(mSpiral, mRoom, kSpiralToRoomWattPerKelvin);
    mNetwork.connect(mExhaust, mRoom, kExhaustToRoomWattPerKelvin);
    setDrive({});
}

void ThermalModel::setRoom(double aCelsius) {
    mNetwork.setTemperature(mRoom, aCelsius);
}

double ThermalModel::pumpWatt() const {
    return mDrive.peltier * (mDrive.bigPeltier ? kBigPeltierPumpWatt : kSmallPeltierPumpWatt);
}

double ThermalModel::ownWatt() const {
    return mDrive.peltier * mDrive.peltier * (mDrive.bigPeltier ? kBigPeltierOwnWatt : kSmallPeltierOwnWatt);
}

void ThermalModel::setDrive(Drive const& aDrive) {
    mNetwork.setConductance(mHeatsinkToRoom, kHeatsinkToRoomWattPerKelvin.at(aDrive.fan));
    mDrive = aDrive;
    for (std::size_t face = 0; face < kFaces; ++face) {
        mNetwork.setPower(mFaces[face], mDrive.faceWatt[face]);
    }
    for (std::size_t end = 0; end < kShimEnds; ++end) {
        mNetwork.setPower(mShimEnds[end], mDrive.shimMatWatt / kShimEnds);
        mNetwork.setConductance(mShimToAir[end], mDrive.shimCooling ? kShimEndToCoolingAirWattPerKelvin
                                                                    : kShimEndToAirWattPerKelvin);
    }
    mNetwork.setPower(mElectronics, kElectronicsWatt);
    mNetwork.setPower(mAir, -pumpWatt());
    mNetwork.setPower(mHeatsink, pumpWatt() + ownWatt());
    mNetwork.setPower(mSpiral, mDrive.spiralWatt);
    mNetwork.setFlow(mGas, mDrive.gasLiterPerHour * kGasWattPerKelvinPerLiterPerHour);
}

void ThermalModel::advance(Seconds aTime) {
    mNetwork.advance(aTime);
}

ThermalModel::Drive ThermalModel::settle(double aMagnetCelsius,
                                         double aShimCoilCelsius,
                                         double aAirCelsius,
                                         Drive const& aModes) {
    Drive drive = aModes;
    drive.faceWatt = {};
    drive.shimMatWatt = 0.0;
    drive.spiralWatt = 0.0;
    drive.gasLiterPerHour = 0.0;
    drive.peltier = 0.0;
    std::vector<ThermalNetwork::Held> held;
    for (Body const face : mFaces) {
        held.push_back({face, aMagnetCelsius});
    }
    for (Body const end : mShimEnds) {
        held.push_back({end, aShimCoilCelsius});
    }
    held.push_back({mAir, aAirCelsius});
    // The element's own heat comes back through it, so that its current is found by repetition; each round
    // takes two figures off the error.
    constexpr int kRounds = 12;
    for (int round = 0; round < kRounds; ++round) {
        setDrive(drive);
        std::vector<double> const watt = mNetwork.settle(held);
        for (std::size_t face = 0; face < kFaces; ++face) {
            drive.faceWatt[face] = std::clamp(watt[face], 0.0, kFaceHeaterWatt);
        }
        drive.shimMatWatt = std::clamp(watt[kFaces] + watt[kFaces + 1], 0.0, kShimMatWatt);
        drive.peltier = std::clamp(
            -watt.back() / (drive.bigPeltier ? kBigPeltierPumpWatt : kSmallPeltierPumpWatt), -1.0, 1.0);
    }
    setDrive(drive);
    return drive;
}

ThermalModel::Temperatures ThermalModel::temperatures() const {
    Temperatures result;
    auto const celsius = [this](Body aBody) { return mNetwork.celsius(aBody); };
    std::transform(mFaces.begin(), mFaces.end(), result.faces.begin(), celsius);
    std::transform(mShimEnds.begin(), mShimEnds.end(), result.shimEnds.begin(), celsius);
    result.air = celsius(mAir);
    result.electronics = celsius(mElectronics);
    result.heatsink = celsius(mHeatsink);
    result.probe = celsius(mProbe);
    result.spiral = celsius(mSpiral);
    result.exhaust = celsius(mExhaust);
    return result;
}

double ThermalModel::roomCelsius() const {
    return mNetwork.celsius(mRoom);
}

double ThermalModel::wattMade() const {
    double const faces = std::accumulate(mDrive.faceWatt.begin(), mDrive.faceWatt.end(), 0.0);
    return faces + mDrive.shimMatWatt + ownWatt() + kElectronicsWatt + mDrive.spiralWatt;
}

double ThermalModel::heatGivenAway() const {
    return mNetwork.heatTaken(mRoom);
}

double ThermalModel::heatStored() const {
    return mNetwork.heatStored();
}

} // namespace libfieldwarden::sim
