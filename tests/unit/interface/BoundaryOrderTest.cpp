// SPDX-License-Identifier: Apache-2.0
// A daemon that was compiled against the boundary calls its operations by position. This test holds every
// operation to its place and its signature, every enumeration to its numbers, and every record to the order
// of its fields.
#include "support/VirtualOrder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>

#include <fieldwarden/BoundedValue.h>
#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/LockForTemperatureIfc.h>
#include <fieldwarden/LockInterface.h>
#include <fieldwarden/LockInterfaceListener.h>
#include <fieldwarden/LockInternalNotifierIfc.h>
#include <fieldwarden/LockPIDSetID.h>
#include <fieldwarden/ProbeTemperatureControlGasFlowStatus.h>
#include <fieldwarden/ProbeTemperatureControlStatus.h>
#include <fieldwarden/ProbeTemperatureGlobalStatus.h>
#include <fieldwarden/SampleRotationInterface.h>
#include <fieldwarden/ShimForLockIfc.h>
#include <fieldwarden/ShimInterface.h>
#include <fieldwarden/ShimListenerInterface.h>
#include <fieldwarden/ShimSysType.h>
#include <fieldwarden/ShimTargetTemperatureIfc.h>
#include <fieldwarden/TemperatureForLockIfc.h>
#include <fieldwarden/TemperatureInterface.h>
#include <fieldwarden/TemperatureListenerInterface.h>
#include <fieldwarden/TemperatureStability.h>

namespace {

using libfieldwarden::test::expectOrder;
using libfieldwarden::test::row;
using std::string;
using Gas = ProbeTemperatureControlGasFlowStatus;
using Control = ProbeTemperatureControlStatus;
using Global = ProbeTemperatureGlobalStatus;

template <typename Enumeration>
constexpr bool kIs32Bits = std::is_same_v<std::underlying_type_t<Enumeration>, std::int32_t>;

template <typename Enumeration>
constexpr std::int32_t number(Enumeration aValue) {
    return static_cast<std::int32_t>(aValue);
}

} // namespace

TEST(BoundaryOrder, FieldwardenInterfaceKeepsItsOperationsInPlace) {
    using I = FieldwardenInterface;
    expectOrder<I>(
        15, {
                row<ShimInterface*()>("getShim", &I::getShim),
                row<LockInterface*()>("getLock", &I::getLock),
                row<TemperatureInterface*()>("getTemperature", &I::getTemperature),
                row<SampleRotationInterface*()>("getSampleRotation", &I::getSampleRotation),
                row<SampleTransferInterface*()>("getSampleTransfer", &I::getSampleTransfer),
                row<string()>("getFirmwareVersion", &I::getFirmwareVersion),
                row<string()>("getKLRBConfiguration", &I::getKLRBConfiguration),
                row<string()>("getDWAConfiguration", &I::getDWAConfiguration),
                row<int()>("get2HTXRouterAddress", &I::get2HTXRouterAddress),
                row<string()>("getMdsFromVariablePowerSupplyBoard", &I::getMdsFromVariablePowerSupplyBoard),
                row<string()>("getMdsFromSensorAndPneumaticBoard", &I::getMdsFromSensorAndPneumaticBoard),
                row<string()>("getMdsFromTheMagnet", &I::getMdsFromTheMagnet),
                row<string()>("getVTUMDS", &I::getVTUMDS),
                row<bool()>("getLoggingTransferEnable", &I::getLoggingTransferEnable),
                row<void(bool)>("setLoggingTransferEnable", &I::setLoggingTransferEnable),
            });
}

TEST(BoundaryOrder, FieldwardenInterfaceCanNeitherBeMadeNorCopiedByTheDaemon) {
    EXPECT_FALSE(std::is_default_constructible_v<FieldwardenInterface>);
    EXPECT_FALSE(std::is_copy_constructible_v<FieldwardenInterface>);
    EXPECT_FALSE(std::is_copy_assignable_v<FieldwardenInterface>);
}

TEST(BoundaryOrder, LockInterfaceKeepsItsOperationsInPlace) {
    using I = LockInterface;
    expectOrder<I>(50, {
                           row<bool()>("getLock", &I::getLock),
                           row<void()>("startLock", &I::startLock),
                           row<void()>("stopLock", &I::stopLock),
                           row<void()>("holdLock", &I::holdLock),
                           row<void(double)>("setBasic1HFrequency", &I::setBasic1HFrequency),
                           row<double()>("getBasic1HFrequency", &I::getBasic1HFrequency),
                           row<float()>("getMagnetField", &I::getMagnetField),
                           row<void()>("beginOfOneParameterSet", &I::beginOfOneParameterSet),
                           row<void()>("endOfOneParameterSet", &I::endOfOneParameterSet),
                           row<void()>("cancelOfOneParameterSet", &I::cancelOfOneParameterSet),
                           row<string()>("getLockConfiguration", &I::getLockConfiguration),
                           row<bool()>("get19FOptionAvailable", &I::get19FOptionAvailable),
                           row<int()>("getLockSubstance", &I::getLockSubstance),
                           row<void(int)>("setLockSubstance", &I::setLockSubstance),
                           row<double()>("getLockInPowerStep", &I::getLockInPowerStep),
                           row<void(double)>("setLockInPowerStep", &I::setLockInPowerStep),
                           row<double()>("getEffectiveField", &I::getEffectiveField),
                           row<string()>("getSubstanceValueRange", &I::getSubstanceValueRange),
                           row<bool()>("getH0PolarityInverse", &I::getH0PolarityInverse),
                           row<bool()>("getLockMute", &I::getLockMute),
                           row<void(bool)>("setLockMute", &I::setLockMute),
                           row<double()>("getLockField", &I::getLockField),
                           row<void(double)>("setLockField", &I::setLockField),
                           row<double()>("getLockDC", &I::getLockDC),
                           row<double()>("getLockShift", &I::getLockShift),
                           row<void(double)>("setLockShift", &I::setLockShift),
                           row<double()>("getLoopGain", &I::getLoopGain),
                           row<void(double)>("setLoopGain", &I::setLoopGain),
                           row<double()>("getLoopTime", &I::getLoopTime),
                           row<void(double)>("setLoopTime", &I::setLoopTime),
                           row<double()>("getLoopFilter", &I::getLoopFilter),
                           row<void(double)>("setLoopFilter", &I::setLoopFilter),
                           row<bool()>("getLockLost", &I::getLockLost),
                           row<double()>("getLockPhase", &I::getLockPhase),
                           row<void(double)>("setLockPhase", &I::setLockPhase),
                           row<double()>("getLockPower", &I::getLockPower),
                           row<void(double)>("setLockPower", &I::setLockPower),
                           row<double()>("getLockGain", &I::getLockGain),
                           row<void(double)>("setLockGain", &I::setLockGain),
                           row<int()>("getLockPIDSet", &I::getLockPIDSet),
                           row<void(int)>("setLockPIDSet", &I::setLockPIDSet),
                           row<double()>("getLockLevel", &I::getLockLevel),
                           row<int()>("getAutoLockBehavior", &I::getAutoLockBehavior),
                           row<int()>("getAdditionalLockPeaks", &I::getAdditionalLockPeaks),
                           row<void(int)>("setAdditionalLockPeaks", &I::setAdditionalLockPeaks),
                           row<void(LockInterfaceListener*)>("setListener", &I::setListener),
                           row<void()>("removeListener", &I::removeListener),
                           row<string() const>("warnings", &I::warnings),
                           row<string() const>("criticalWarnings", &I::criticalWarnings),
                           row<void()>("resetLockLost", &I::resetLockLost),
                       });
}

TEST(BoundaryOrder, LockInterfaceListenerKeepsItsOperationsInPlace) {
    using I = LockInterfaceListener;
    expectOrder<I>(6, {
                          row<void(string const&)>("error", &I::error),
                          row<void()>("warningsChanged", &I::warningsChanged),
                          row<void(string const&)>("doing", &I::doing),
                          row<void(int)>("state", &I::state),
                          row<void(int)>("updateLockPIDSet", &I::updateLockPIDSet),
                          row<void(int)>("lost", &I::lost),
                      });
}

TEST(BoundaryOrder, ShimInterfaceKeepsItsOperationsInPlace) {
    using I = ShimInterface;
    expectOrder<I>(17, {
                           row<void(ShimListenerInterface*)>("setListener", &I::setListener),
                           row<void()>("removeListener", &I::removeListener),
                           row<string()>("getNamesOfActiveShimGradients", &I::getNamesOfActiveShimGradients),
                           row<string()>("getShimId", &I::getShimId),
                           row<unsigned int()>("getShimCurrentsCount", &I::getShimCurrentsCount),
                           row<BoundedValue(unsigned int)>("getShimCurrent", &I::getShimCurrent),
                           row<void(unsigned int, double)>("setShimCurrent", &I::setShimCurrent),
                           row<void(string const&, int)>("setSingleShim", &I::setSingleShim),
                           row<BoundedIntegerValue(string const&)>("getSingleShim", &I::getSingleShim),
                           row<void()>("beginOfOneParameterSet", &I::beginOfOneParameterSet),
                           row<void()>("endOfOneParameterSet", &I::endOfOneParameterSet),
                           row<void()>("cancelOfOneParameterSet", &I::cancelOfOneParameterSet),
                           row<string()>("getTOSKFileName", &I::getTOSKFileName),
                           row<bool()>("getAutoShim", &I::getAutoShim),
                           row<string()>("getTOSKMatrixRelations", &I::getTOSKMatrixRelations),
                           row<string()>("getShimSystemMDS", &I::getShimSystemMDS),
                           row<void(ShimSysType)>("setShimSystem", &I::setShimSystem),
                       });
}

TEST(BoundaryOrder, ShimListenerInterfaceKeepsItsOperationsInPlace) {
    using I = ShimListenerInterface;
    expectOrder<I>(2, {
                          row<void(string const&, int)>("shimGradientChanged", &I::shimGradientChanged),
                          row<void(unsigned int, double)>("shimCurrentChanged", &I::shimCurrentChanged),
                      });
}

TEST(BoundaryOrder, TemperatureInterfaceKeepsItsOperationsInPlace) {
    using I = TemperatureInterface;
    expectOrder<I>(
        44, {
                row<void(TemperatureListenerInterface*)>("setListener", &I::setListener),
                row<void()>("removeListener", &I::removeListener),
                row<void()>("beginOfOneParameterSet", &I::beginOfOneParameterSet),
                row<void()>("endOfOneParameterSet", &I::endOfOneParameterSet),
                row<void()>("cancelOfOneParameterSet", &I::cancelOfOneParameterSet),
                row<BoundedValue()>("getMagnetTemperature", &I::getMagnetTemperature),
                row<double()>("getTargetMagnetTemperature", &I::getTargetMagnetTemperature),
                row<bool()>("isMagnetReady", &I::isMagnetReady),
                row<BoundedValue()>("getProbeTemperature", &I::getProbeTemperature),
                row<double()>("getTargetProbeTemperature", &I::getTargetProbeTemperature),
                row<void(double)>("setTargetProbeTemperature", &I::setTargetProbeTemperature),
                row<BoundedValue()>("getShimCoilTemperature", &I::getShimCoilTemperature),
                row<BoundedValue()>("getIsoBoxTemperature", &I::getIsoBoxTemperature),
                row<Global()>("getProbeTemperatureStatus", &I::getProbeTemperatureStatus),
                row<void(Global)>("setProbeTemperatureStatus", &I::setProbeTemperatureStatus),
                row<int()>("getProbeChillerType", &I::getProbeChillerType),
                row<string()>("getProbeChillerActualPowerParameterName",
                              &I::getProbeChillerActualPowerParameterName),
                row<string()>("getProbeChillerTargetPowerParameterName",
                              &I::getProbeChillerTargetPowerParameterName),
                row<int()>("getProbeChillerStatus", &I::getProbeChillerStatus),
                row<double()>("getProbeMeasuredGasFlow", &I::getProbeMeasuredGasFlow),
                row<double()>("getProbeTargetGasFlowForOperation", &I::getProbeTargetGasFlowForOperation),
                row<void(double)>("setProbeGasFlowForOperation", &I::setProbeGasFlowForOperation),
                row<string() const>("getProbeGasFlowList", &I::getProbeGasFlowList),
                row<double()>("getProbeTargetGasFlowForStandby", &I::getProbeTargetGasFlowForStandby),
                row<Gas()>("getProbeGasFlowStatus", &I::getProbeGasFlowStatus),
                row<string()>("getProbeTemperatureMeasurements", &I::getProbeTemperatureMeasurements),
                row<int()>("getProbeGasMode", &I::getProbeGasMode),
                row<int()>("getProbeDeviceActiveChannel", &I::getProbeDeviceActiveChannel),
                row<int()>("getProbeDeviceAccessoryChannel", &I::getProbeDeviceAccessoryChannel),
                row<double()>("getProbeMeasuredSafetyTemperature", &I::getProbeMeasuredSafetyTemperature),
                row<int()>("getProbeTemperatureRegulatorStatus", &I::getProbeTemperatureRegulatorStatus),
                row<TemperatureStability()>("getProbeTemperatureRegulatorStability",
                                            &I::getProbeTemperatureRegulatorStability),
                row<double()>("getProbeActualPower", &I::getProbeActualPower),
                row<Control()>("getProbeTemperatureRegulatorMode", &I::getProbeTemperatureRegulatorMode),
                row<double()>("getProbeMaximumSafetyTemperature", &I::getProbeMaximumSafetyTemperature),
                row<void(double)>("setProbeMaximumSafetyTemperature", &I::setProbeMaximumSafetyTemperature),
                row<double()>("getProbeFullPower", &I::getProbeFullPower),
                row<double()>("getProbeMaximumPower", &I::getProbeMaximumPower),
                row<void(double)>("setProbeTemperatureMin", &I::setProbeTemperatureMin),
                row<void(double)>("setProbeTemperatureMax", &I::setProbeTemperatureMax),
                row<void(int)>("setShimCoolingMode", &I::setShimCoolingMode),
                row<void(bool)>("setAirFlowForSampleExchange", &I::setAirFlowForSampleExchange),
                row<void(bool)>("setSampleInMagnetForAirFlow", &I::setSampleInMagnetForAirFlow),
                row<bool() const>("getAirFlowForSampleExchange", &I::getAirFlowForSampleExchange),
            });
}

TEST(BoundaryOrder, TemperatureListenerInterfaceKeepsItsOperationsInPlace) {
    using I = TemperatureListenerInterface;
    expectOrder<I>(
        16,
        {
            row<void(double)>("magnetTemperatureChanged", &I::magnetTemperatureChanged),
            row<void(bool)>("magnetReadyChanged", &I::magnetReadyChanged),
            row<void(double)>("coilTemperatureChanged", &I::coilTemperatureChanged),
            row<void(double)>("probeTargetTemperatureChanged", &I::probeTargetTemperatureChanged),
            row<void(double)>("probeTemperatureChanged", &I::probeTemperatureChanged),
            row<void(Global)>("probeTemperatureStatusChanged", &I::probeTemperatureStatusChanged),
            row<void(Gas)>("probeTemperatureGasStatusChanged", &I::probeTemperatureGasStatusChanged),
            row<void(TemperatureStability)>("probeTemperatureStabilityChanged",
                                            &I::probeTemperatureStabilityChanged),
            row<void(double)>("probeMeasuredGasFlowChanged", &I::probeMeasuredGasFlowChanged),
            row<void(double)>("probeTargetGasFlowForOperationChanged",
                              &I::probeTargetGasFlowForOperationChanged),
            row<void(double)>("probeTargetGasFlowForStandbyChanged", &I::probeTargetGasFlowForStandbyChanged),
            row<void(Control)>("probeTemperatureControlStatusChanged",
                               &I::probeTemperatureControlStatusChanged),
            row<void(double)>("probeActualPowerChanged", &I::probeActualPowerChanged),
            row<void(double)>("probeTargetTemperatureMinimumChanged",
                              &I::probeTargetTemperatureMinimumChanged),
            row<void(double)>("probeTargetTemperatureMaximumChanged",
                              &I::probeTargetTemperatureMaximumChanged),
            row<void(double)>("probePowerMaximumChanged", &I::probePowerMaximumChanged),
        });
}

TEST(BoundaryOrder, SampleRotationInterfaceKeepsItsOperationsInPlace) {
    using I = SampleRotationInterface;
    expectOrder<I>(3, {
                          row<int()>("getSpin", &I::getSpin),
                          row<double()>("getTargetSpinRate", &I::getTargetSpinRate),
                          row<double()>("getActualSpinRate", &I::getActualSpinRate),
                      });
}

TEST(BoundaryOrder, TheNarrowInterfacesKeepTheirOperationsInPlace) {
    expectOrder<ShimForLockIfc>(1, {row<bool()>("areAllShimZero", &ShimForLockIfc::areAllShimZero)});
    expectOrder<LockForTemperatureIfc>(
        1, {
               row<bool() const>("shimCoilTargetTemperatureRegulationArmed",
                                 &LockForTemperatureIfc::shimCoilTargetTemperatureRegulationArmed),
           });
    expectOrder<TemperatureForLockIfc>(1,
                                       {row<bool() const>("atEnabled", &TemperatureForLockIfc::atEnabled)});
    expectOrder<ShimTargetTemperatureIfc>(
        3, {
               row<void(double)>("setShimTargetTemperature",
                                 &ShimTargetTemperatureIfc::setShimTargetTemperature),
               row<double(bool) const>("shimTargetTemperature",
                                       &ShimTargetTemperatureIfc::shimTargetTemperature),
               row<double() const>("probeTemperature", &ShimTargetTemperatureIfc::probeTemperature),
           });
    expectOrder<LockInternalNotifierIfc>(
        1, {row<void()>("notifyHardwareError", &LockInternalNotifierIfc::notifyHardwareError)});
}

TEST(BoundaryEnumerations, AreWholeNumbersOf32Bits) {
    EXPECT_TRUE(kIs32Bits<ProbeTemperatureGlobalStatus>);
    EXPECT_TRUE(kIs32Bits<ProbeTemperatureControlGasFlowStatus>);
    EXPECT_TRUE(kIs32Bits<ProbeTemperatureControlStatus>);
    EXPECT_TRUE(kIs32Bits<TemperatureStability>);
    EXPECT_TRUE(kIs32Bits<ShimSysType>);
    EXPECT_TRUE(kIs32Bits<LockPIDSetID>);
}

TEST(BoundaryEnumerations, KeepTheirNumbers) {
    EXPECT_EQ(number(Global::Off), 0);
    EXPECT_EQ(number(Global::On), 1);
    EXPECT_EQ(number(Global::Error), 7);

    EXPECT_EQ(number(Gas::Off), 0);
    EXPECT_EQ(number(Gas::Ramping), 1);
    EXPECT_EQ(number(Gas::On), 2);
    EXPECT_EQ(number(Gas::Error), 7);
    EXPECT_EQ(number(Gas::SampleExchange), 8);

    EXPECT_EQ(number(Control::Off), 0);
    EXPECT_EQ(number(Control::Ramping), 1);
    EXPECT_EQ(number(Control::Holding), 2);
    EXPECT_EQ(number(Control::SampleExchange), 6);

    EXPECT_EQ(number(TemperatureStability::NotYetStable), 0);
    EXPECT_EQ(number(TemperatureStability::LeftBand), 1);
    EXPECT_EQ(number(TemperatureStability::Stable), 2);

    EXPECT_EQ(number(ShimSysType::Wmxs1a), 8);
    EXPECT_EQ(number(ShimSysType::Wmxs1b), 9);
    EXPECT_EQ(number(ShimSysType::Wmxs1c), 10);
    EXPECT_EQ(number(ShimSysType::Wmxs2a), 11);

    EXPECT_EQ(number(LockPIDSetID::Slow), 0);
    EXPECT_EQ(number(LockPIDSetID::Fast), 1);
    EXPECT_EQ(number(LockPIDSetID::Normal), 2);
}

TEST(BoundaryRecords, KeepTheOrderValueUpperLowerFormat) {
    auto const& [value, upper, lower, format] = BoundedValue{1.5, 2.5, 0.5, "1.3"};
    EXPECT_EQ(value, 1.5);
    EXPECT_EQ(upper, 2.5);
    EXPECT_EQ(lower, 0.5);
    EXPECT_EQ(format, "1.3");

    auto const& [integer, integerUpper, integerLower, integerFormat] = BoundedIntegerValue{5, 6, 4, "1.0"};
    EXPECT_EQ(integer, 5);
    EXPECT_EQ(integerUpper, 6);
    EXPECT_EQ(integerLower, 4);
    EXPECT_EQ(integerFormat, "1.0");
}

TEST(BoundaryRecords, HaveNoFieldBesides) {
    struct Real {
        double value, upper, lower;
        string format;
    };
    struct Whole {
        int value, upper, lower;
        string format;
    };
    EXPECT_EQ(sizeof(BoundedValue), sizeof(Real));
    EXPECT_EQ(sizeof(BoundedIntegerValue), sizeof(Whole));
    EXPECT_TRUE((std::is_same_v<decltype(BoundedValue::value), double>));
    EXPECT_TRUE((std::is_same_v<decltype(BoundedIntegerValue::value), int>));
}

TEST(BoundaryRecords, StartAtZeroWithAnEmptyFormat) {
    BoundedValue const real;
    EXPECT_EQ(real.value, 0.0);
    EXPECT_EQ(real.upper, 0.0);
    EXPECT_EQ(real.lower, 0.0);
    EXPECT_TRUE(real.format.empty());

    BoundedIntegerValue const whole;
    EXPECT_EQ(whole.value, 0);
    EXPECT_EQ(whole.upper, 0);
    EXPECT_EQ(whole.lower, 0);
    EXPECT_TRUE(whole.format.empty());
}
