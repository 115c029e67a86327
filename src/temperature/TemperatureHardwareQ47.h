// SPDX-License-Identifier: Apache-2.0
// The temperature service: wires board, listener and adjustable temperature together, and judges whether the
// magnet is ready.
#pragma once

#include "temperature/AverageComparator.h"
#include "temperature/MovingAverage.h"

#include <fieldwarden/ShimTargetTemperatureIfc.h>
#include <fieldwarden/TemperatureForLockIfc.h>
#include <fieldwarden/TemperatureInterface.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class ATController;
class LockForTemperatureIfc;
class TempBoardQ47Ifc;
class TemperatureListenerSync;
namespace velmor::kepla::datalogger {
class DataLoggerChannelIfc;
class DataLoggerInterface;
} // namespace velmor::kepla::datalogger
namespace velmor::kepla::deviceid {
class DeviceIdClientIfc;
}
namespace velmor::kepla::utils {
class PeriodicCallerIfc;
class PeriodicCallerManagerIfc;
} // namespace velmor::kepla::utils

/// The temperature service of this instrument.
///
/// Every ten seconds it averages the six sensors of the magnet, each over up to 100 readings. The magnet is
/// ready when the last 50 averages of all six lay within 0.02 K of the target of the first heater, so never
/// before 500 s have passed.
///
/// Threads: any may call; the judgement runs on the periodic caller's thread. The operations are told at the
/// interfaces.
class TemperatureHardwareQ47 : private virtual velmor::kepla::log::Logger,
                               public TemperatureInterface,
                               public ShimTargetTemperatureIfc,
                               public TemperatureForLockIfc {
public:
    /// Reads the targets from the board and sets the board up as the records say. Blocks for these transfers.
    /// @param aBoard            The temperature board; not null.
    /// @param aDataLogger       Makes the channels; not null.
    /// @param aPeriodicCallers  Runs polls and judgement; not null.
    /// @param aDeviceId         Gives the main record, which tells the Peltier element of the iso box; not
    /// null.
    /// @param aVtuMdsPath       File with the record of the variable temperature unit; one that cannot be
    ///                          read makes a system without adjustable temperature.
    /// @throws std::runtime_error  when the board cannot be set up.
    TemperatureHardwareQ47(
        std::shared_ptr<TempBoardQ47Ifc> aBoard,
        std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger,
        std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const& aPeriodicCallers,
        std::shared_ptr<velmor::kepla::deviceid::DeviceIdClientIfc> const& aDeviceId,
        std::string const& aVtuMdsPath);
    /// Ends the judgement before anything else goes; waits for one that is under way.
    ~TemperatureHardwareQ47() override;
    TemperatureHardwareQ47(TemperatureHardwareQ47 const&) = delete;
    TemperatureHardwareQ47& operator=(TemperatureHardwareQ47 const&) = delete;

    void setListener(TemperatureListenerInterface* aListener) override;
    void removeListener() override;
    void beginOfOneParameterSet() override {}
    void endOfOneParameterSet() override {}
    void cancelOfOneParameterSet() override {}
    BoundedValue getMagnetTemperature() override;
    double getTargetMagnetTemperature() override;
    bool isMagnetReady() override;
    BoundedValue getProbeTemperature() override;
    double getTargetProbeTemperature() override;
    void setTargetProbeTemperature(double aTemperature) override;
    BoundedValue getShimCoilTemperature() override;
    BoundedValue getIsoBoxTemperature() override;
    ProbeTemperatureGlobalStatus getProbeTemperatureStatus() override;
    void setProbeTemperatureStatus(ProbeTemperatureGlobalStatus aStatus) override;
    int getProbeChillerType() override { return 0; }
    std::string getProbeChillerActualPowerParameterName() override { return {}; }
    std::string getProbeChillerTargetPowerParameterName() override { return {}; }
    int getProbeChillerStatus() override { return 0; }
    double getProbeMeasuredGasFlow() override;
    double getProbeTargetGasFlowForOperation() override;
    void setProbeGasFlowForOperation(double aFlow) override;
    std::string getProbeGasFlowList() const override;
    double getProbeTargetGasFlowForStandby() override { return 0.0; }
    ProbeTemperatureControlGasFlowStatus getProbeGasFlowStatus() override;
    std::string getProbeTemperatureMeasurements() override;
    int getProbeGasMode() override { return 0; }
    int getProbeDeviceActiveChannel() override;
    int getProbeDeviceAccessoryChannel() override { return 0; }
    double getProbeMeasuredSafetyTemperature() override { return 0.0; }
    int getProbeTemperatureRegulatorStatus() override;
    TemperatureStability getProbeTemperatureRegulatorStability() override;
    double getProbeActualPower() override;
    ProbeTemperatureControlStatus getProbeTemperatureRegulatorMode() override;
    double getProbeMaximumSafetyTemperature() override { return mProbeMaximumSafetyTemperature; }
    void setProbeMaximumSafetyTemperature(double aTemperature) override {
        mProbeMaximumSafetyTemperature = aTemperature;
    }
    double getProbeFullPower() override { return kProbePowerWatt; }
    double getProbeMaximumPower() override { return kProbePowerWatt; }
    void setProbeTemperatureMin(double aTemperature) override;
    void setProbeTemperatureMax(double aTemperature) override;
    void setShimCoolingMode(int aMode) override;
    void setAirFlowForSampleExchange(bool aSampleExchange) override;
    void setSampleInMagnetForAirFlow(bool aSampleInMagnet) override;
    bool getAirFlowForSampleExchange() const override;

    void setShimTargetTemperature(double aTemperature) override;
    double shimTargetTemperature(bool aFromBoard) const override;
    double probeTemperature() const override;

    bool atEnabled() const override;

    /// Lets the regulation of the probe ask the lock. The lock also holds this service: whoever owns both
    /// sets null here before letting go of them.
    /// @param aLock  The lock; null for none.
    void setLock(std::shared_ptr<LockForTemperatureIfc> aLock);

    /// @return The board as all but this service's owner should see it: what goes over it is logged as data.
    std::shared_ptr<TempBoardQ47Ifc> board() const { return mBoard; }

    /// @return The record text of the temperature board; empty when it cannot be read, which is logged.
    /// Blocks for transfers to the board.
    std::string tempBoardMDS();

private:
    using Channel = std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc>;

    static constexpr double kProbePowerWatt = 43.0;

    std::string readFileSafe(std::string const& aPath) const;
    void configureIsoBoxPeltier(velmor::kepla::deviceid::DeviceIdClientIfc& aDeviceId);
    void initializeDataLogger(velmor::kepla::datalogger::DataLoggerInterface& aDataLogger);
    void saveSetupIfNeeded();
    void notifyProbeTemperatureMinMaxChanged();
    void readAndUpdateStability();
    void updateMagnetSensor(std::size_t aSensor);
    void updateMagnetTemperature();
    void updateShim();
    void updateIsoBox();
    void updateMagnetReady();
    void guarded(char const* aSignal, std::function<void()> const& aUpdate) const;
    bool computeMagnetReadyState() const;
    void push(Channel const& aChannel, double aValue) const;

    velmor::platform::Clock& mClock;
    std::shared_ptr<TempBoardQ47Ifc> mBoard; ///< The proxy, once it is made.
    double const mMagnetTolerance = 0.02;    ///< In K.
    double const mShimTolerance = 0.02;      ///< In K.
    double const mIsoBoxTolerance = 0.3;     ///< In K; for the display only.
    double const mShimTargetCelsius = 25.0;
    std::vector<MovingAverage> mMagnetAverages;
    MovingAverage mIsoBoxAverage;
    MovingAverage mShimAverage;
    std::vector<AverageComparator> mMagnetComparators;
    AverageComparator mShimComparator;
    double mLastMagnetTemperature = 0.0; ///< In K, for the log only.
    double mLastShimTemperature = 0.0;   ///< In K, for the log only.
    std::atomic<bool> mMagnetReady{false};
    std::mutex mStabilityMutex; ///< Guards averages and comparators.
    std::string const mMagnetFormat = "1.3";
    std::string const mShimFormat = "1.3";
    std::string const mProbeFormat = "1.1";
    std::string const mIsoBoxFormat = "1.3";
    std::shared_ptr<TemperatureListenerSync> mListener;
    std::shared_ptr<ATController> mATController;
    Channel mMagnetStableChannel;
    Channel mSampleInMagnetChannel;
    Channel mExchangeModeChannel;
    Channel mShimAverageChannel;
    Channel mShimInSpecChannel;
    Channel mIsoBoxAverageChannel;
    std::vector<Channel> mMagnetAverageChannels;
    std::vector<Channel> mMagnetInSpecChannels;
    std::atomic<double> mProbeMaximumSafetyTemperature{0.0}; ///< Set and read only.
    std::atomic<bool> mSampleInMagnet{true};
    /// Last, so that no judgement meets a service that is half gone.
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> mPeriodicCaller;
};
