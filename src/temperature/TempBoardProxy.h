// SPDX-License-Identifier: Apache-2.0
// Stands before the temperature board: whatever is read or written on its way goes to the data logger too,
// and a poll keeps all channels alive whether or not anybody reads.
#pragma once

#include "temperature/KnownTemperature.h"
#include "temperature/TempBoardQ47Ifc.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class TemperatureListenerSync;
namespace velmor::kepla::datalogger {
class DataLoggerChannelIfc;
class DataLoggerInterface;
} // namespace velmor::kepla::datalogger
namespace velmor::kepla::utils {
class PeriodicCallerIfc;
class PeriodicCallerManagerIfc;
} // namespace velmor::kepla::utils

/// The temperature board as all above it see it. Each operation asks the board and returns what it says,
/// pushes values to their channels, and tells the listener the temperatures of magnet, shim coils and probe
/// and the power of the probe's heater.
///
/// Target temperatures are remembered, so that reading one again costs no transfer. The shim coil temperature
/// is passed on as it would be with its target at the nominal 298.15 K, since the lock moves that target.
///
/// Threads: as the board, any; poll() comes on the periodic caller's thread. There is no lock: each
/// remembered target is an atomic of its own.
class TempBoardProxy : private virtual velmor::kepla::log::Logger, public TempBoardQ47Ifc {
public:
    /// Makes all channels; init() has to follow.
    /// @param aBoard            The board; not null.
    /// @param aListener         Who is told; not null.
    /// @param aDataLogger       Makes the channels; not null.
    /// @param aPeriodicCallers  Runs the poll; not null.
    TempBoardProxy(std::shared_ptr<TempBoardQ47Ifc> aBoard,
                   std::shared_ptr<TemperatureListenerSync> aListener,
                   std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger,
                   std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> aPeriodicCallers);
    /// Ends the poll before anything else goes; waits for one that is under way.
    ~TempBoardProxy() override;
    TempBoardProxy(TempBoardProxy const&) = delete;
    TempBoardProxy& operator=(TempBoardProxy const&) = delete;

    /// Asks for a poll every 10 s, and reads the targets on the calling thread. Blocks for transfers to the
    /// board; one that fails is logged.
    void init();

    std::string mds() override;
    std::string mdsOfATFlowBox() override;
    double magnetTemperature() const override;
    /// As the board's, but read at most once. What setTargetMagnetTemperature() sets is not seen here.
    double targetMagnetTemperature(unsigned char aId) const override;
    void setTargetMagnetTemperature(double aTemperature) override;
    double isoBoxTemperature() const override;
    /// As the board's, but read at most once.
    double isoBoxTargetTemperature() const override;
    /// @return Temperature of the shim coils in K, as it would be with the target at 298.15 K.
    double shimTemperature() const override;
    double shimTemperatureSensor(unsigned char aId) const override;
    /// @param aId            1 to 3.
    /// @param aFromHardware  false is content with the value that was last read or written.
    /// @throws std::runtime_error  when there is no such id, and when the board does not answer.
    double shimTargetTemperature(unsigned char aId, bool aFromHardware) const override;
    void setShimTargetTemperature(unsigned char aId, double aKelvin) override;
    double probeTemperature() override;
    double probeGasHeatingSpiralTemperature() override;
    double probeGasExhaustTemperature() override;
    /// As the board's, but read at most once and only while nobody has set it here.
    double targetProbeTemperature() const override;
    void setTargetProbeTemperature(double aKelvin) override;
    double magnetTemperatureSensor(unsigned char aId) const override;
    double isoBoxTemperatureSensor(unsigned char aId) const override;
    double magnetHeaterVoltage(unsigned char aId) const override;
    unsigned char isoBoxFanSpeed() const override;
    double isoBoxPeltierCurrentPercent() const override;
    double probeGasHeatingSpiralPower() override;
    void setProbeGasHeatingSpiralPower(double aWatt) override;
    bool probeGasHeatingSpiralRegulation() override;
    void setProbeGasHeatingSpiralRegulation(bool aEnabled) override;
    bool probeTemperatureRegulation() override;
    void setProbeTemperatureRegulation(bool aEnabled) override;
    unsigned probeGasOvercurrentCountSinceLastRead() override;
    double probeGasHeatingSpiralTargetTemperature() override;
    void setProbeGasHeatingSpiralTargetTemperature(double aKelvin) override;
    unsigned char probeGasFlow() override;
    void setProbeGasFlow(unsigned char aFlowIndex) override;
    ShimTemperingMode shimTemperingMode() const override;
    void setShimTemperingMode(ShimTemperingMode aMode) override;
    VTMode vtMode() override;
    void setVTMode(VTMode aMode) override;
    IsoBoxTemperingMode isoBoxTemperingMode() const override;
    void setIsoBoxTemperingMode(IsoBoxTemperingMode aMode) override;
    bool setupSavedOnEEPROM() const override;
    void saveSetupToEEPROM() const override;
    std::pair<double, double> probeGasRegulatedTemperatureRange() const override;
    unsigned char probeGasHeatingTimeout() const override;
    void setProbeGasHeatingTimeout(unsigned char aSeconds) override;
    unsigned char guessedFlowBoxEcl() override;
    void dumpCANopenValues(std::string const& aDirectory) override;

    /// Remembers a target temperature of the magnet and pushes it to its channel.
    /// @param aId      The id that targetMagnetTemperature() knows it by.
    /// @param aKelvin  The temperature in K.
    void pushTargetMagnetTemperature(unsigned char aId, double aKelvin) const;

    /// Reads what nobody else reads regularly. A read that fails is logged and loses its signal only.
    /// Thread: the periodic caller's; blocks for 23 transfers to the board.
    void poll();

    /// Reads the target temperatures. A read that fails is logged and ends the sequence.
    void singleShot();

private:
    using Channel = std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc>;
    using Known = libfieldwarden::temperature::KnownTemperature;

    /// The families of channels, in the order of their making.
    enum class Signal : std::size_t {
        MagnetSensor,
        MagnetHeaterVoltage,
        MagnetTarget,
        Magnet,
        Shim,
        ShimSensor,
        ShimTarget,
        ShimMatCurrent,
        ShimMatPower,
        IsoBox,
        IsoBoxSensor,
        IsoBoxPeltierCurrent,
        IsoBoxFanSpeed,
        IsoBoxTarget,
        Probe,
        SpiralTemperature,
        Exhaust,
        ProbeTarget,
        SpiralPower,
        SpiralRegulation,
        ProbeRegulation,
        OvercurrentCount,
        SpiralTarget,
        GasFlowIndex,
    };
    static constexpr std::size_t kSignals = 24;

    struct ChannelFamily;
    static ChannelFamily const kChannelFamilies[kSignals];

    void createChannels(velmor::kepla::datalogger::DataLoggerInterface& aDataLogger);
    void record(Signal aSignal, std::size_t aIndex, double aValue) const;
    void guarded(char const* aCall, std::function<void()> const& aRead) const;

    velmor::platform::Clock& mClock;
    std::shared_ptr<TempBoardQ47Ifc> const mBoard;
    std::shared_ptr<TemperatureListenerSync> const mListener;
    std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const mPeriodicCallers;
    mutable std::array<Known, 8> mMagnetTargets; ///< By sensor id.
    mutable std::array<Known, 3> mShimTargets;   ///< By shim id - 1.
    mutable Known mIsoBoxTarget;
    mutable Known mProbeTarget;
    std::array<std::vector<Channel>, kSignals> mChannels;
    /// Last, so that no poll meets a proxy that is half gone.
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> mPollHandle;
};
