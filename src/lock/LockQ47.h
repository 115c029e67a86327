// SPDX-License-Identifier: Apache-2.0
// The lock service of this instrument.
#pragma once

#include "lock/LockFieldScanPoint.h"

#include <fieldwarden/LockDiagnosticsInterface.h>
#include <fieldwarden/LockForTemperatureIfc.h>
#include <fieldwarden/LockInterface.h>
#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class LockFSM;
class LockHardwareHelper;
class LockHardwareInterface;
class LockListenerSync;
class LockPIDDataStream;
class LockParametersInterface;
class LockShimTargetTemperatureRegulatorIfc;
class LockStreams;
class LockWorkflows;
class ShimForLockIfc;
class ShimTargetTemperatureIfc;
class TemperatureForLockIfc;
namespace velmor::kepla::datalogger {
class DataLoggerChannelIfc;
class DataLoggerInterface;
} // namespace velmor::kepla::datalogger
namespace velmor::kepla::utils {
class PeriodicCallerManagerIfc;
}

/// Builds the objects of the lock, turns the service's calls into events of the state machine, keeps the
/// values that this instrument's hardware has no use for, and words the warnings.
///
/// Everything that changes the lock goes through the queue of LockFSM. The destructor ends all threads of the
/// lock; it waits no longer than the longest single wait of a start.
class LockQ47 : private virtual velmor::kepla::log::Logger,
                public LockInterface,
                public LockForTemperatureIfc,
                public libfieldwarden::LockDiagnosticsInterface {
public:
    /// @param aHardware         The sequencer.
    /// @param aParameters       The lock's numbers.
    /// @param aShimTarget       Takes the shim coil's target temperature.
    /// @param aTemperature      Says whether the adjustable temperature is on.
    /// @param aShim             Says whether all shims are zero.
    /// @param aDataLogger       Makes the channels.
    /// @param aPeriodicCallers  Runs the regular dumps.
    /// @param aStartNow         Whether the lock starts by itself, as soon as the magnet's frequency is
    /// known.
    /// @throws std::filesystem::filesystem_error  when the folder of the dumps cannot be made.
    LockQ47(std::shared_ptr<LockHardwareInterface> aHardware,
            std::shared_ptr<LockParametersInterface> aParameters,
            std::shared_ptr<ShimTargetTemperatureIfc> aShimTarget,
            std::shared_ptr<TemperatureForLockIfc> aTemperature,
            std::shared_ptr<ShimForLockIfc> aShim,
            std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger,
            std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> aPeriodicCallers,
            bool aStartNow);
    ~LockQ47() override;
    LockQ47(LockQ47 const&) = delete;
    LockQ47& operator=(LockQ47 const&) = delete;

    bool getLock() override;
    void startLock() override;
    void stopLock() override;
    void holdLock() override;
    void setBasic1HFrequency(double aFrequency) override;
    double getBasic1HFrequency() override;
    float getMagnetField() override;
    void beginOfOneParameterSet() override;
    void endOfOneParameterSet() override;
    void cancelOfOneParameterSet() override;
    std::string getLockConfiguration() override;
    bool get19FOptionAvailable() override;
    int getLockSubstance() override;
    void setLockSubstance(int aSubstance) override;
    double getLockInPowerStep() override;
    void setLockInPowerStep(double aStep) override;
    double getEffectiveField() override;
    std::string getSubstanceValueRange() override;
    bool getH0PolarityInverse() override;
    bool getLockMute() override;
    void setLockMute(bool aMute) override;
    double getLockField() override;
    void setLockField(double aField) override;
    double getLockDC() override;
    double getLockShift() override;
    void setLockShift(double aShift) override;
    double getLoopGain() override;
    void setLoopGain(double aGain) override;
    double getLoopTime() override;
    void setLoopTime(double aTime) override;
    double getLoopFilter() override;
    void setLoopFilter(double aFilter) override;
    bool getLockLost() override;
    double getLockPhase() override;
    void setLockPhase(double aPhase) override;
    double getLockPower() override;
    void setLockPower(double aPower) override;
    double getLockGain() override;
    void setLockGain(double aGain) override;
    int getLockPIDSet() override;
    void setLockPIDSet(int aPIDSet) override;
    double getLockLevel() override;
    int getAutoLockBehavior() override;
    int getAdditionalLockPeaks() override;
    void setAdditionalLockPeaks(int aPeaks) override;
    void setListener(LockInterfaceListener* aListener) override;
    void removeListener() override;
    std::string warnings() const override;
    std::string criticalWarnings() const override;
    void resetLockLost() override;

    bool shimCoilTargetTemperatureRegulationArmed() const override;

    std::vector<libfieldwarden::LockRegisterText> readRegisters() override;
    std::string dumpSignal(std::string const& aName) override;
    std::vector<libfieldwarden::LockScanPoint> scanFrequencies(
        libfieldwarden::LockProgressListener aListener) override;
    void setProgressListener(libfieldwarden::LockProgressListener aListener) override;

    /// @return The sequences on the sequencer, for diagnosis.
    /// Thread: any; does not block.
    std::shared_ptr<LockHardwareHelper> hwHelper() const;

    /// @return New workflows on this lock's objects. They must not run while the state machine starts or
    /// stops.
    std::shared_ptr<LockWorkflows> workflows() const;

    /// Brings the hardware up and nothing else. Blocks. @throws std::exception  as
    /// LockWorkflows::startHardware().
    void startForTests() const;

    /// Looks at the whole frequency range. Blocks for many minutes. @throws std::exception  as LockWorkflows.
    /// @return What the lock saw at each frequency with a signal.
    std::vector<LockFieldScanPoint> scanField() const;

    /// @return The slope of the FFT's imaginary part at its zero crossing, in counts a point. Blocks.
    /// @throws std::exception  when there are no data.
    double fftSlopeAt0Crossing();

    /// Request a dump of the FID or of the FFT; they return at once.
    /// @param aName  Becomes part of the file's name.
    void dumpFID(std::string const& aName);
    void dumpFFT(std::string const& aName);

    /// @return The warning that the field correction nears the end of its range, with the frequency to set.
    std::string lockDACRangeWarningMessage() const;

private:
    void initializeDataLogger(velmor::kepla::datalogger::DataLoggerInterface& aDataLogger);

    /// Takes the state machine away from the streams.
    struct NotifierTaker {
        void operator()(LockStreams* aStreams) const;
    };

    std::mutex mParameterSetMutex;
    bool mInParameterSet = false;
    std::shared_ptr<LockListenerSync> mListener;
    std::shared_ptr<LockHardwareInterface> mHardware;
    std::shared_ptr<LockParametersInterface> mParameters;
    std::shared_ptr<LockShimTargetTemperatureRegulatorIfc> mRegulator;
    std::shared_ptr<TemperatureForLockIfc> mTemperature;
    std::shared_ptr<LockHardwareHelper> mHelper;
    std::shared_ptr<LockPIDDataStream> mPIDStream;
    std::shared_ptr<LockStreams> mStreams;
    std::shared_ptr<ShimForLockIfc> mShim;
    std::shared_ptr<LockFSM> mFSM;
    // Kept for the user interface, see LockInterface; atomic, since any thread may ask.
    std::atomic<double> mLockField{0.0};
    std::atomic<double> mLockShift{0.0};
    std::atomic<double> mLoopGain{0.0};
    std::atomic<double> mLoopTime{0.0};
    std::atomic<double> mLoopFilter{0.0};
    std::atomic<double> mLockPhase{0.0};
    std::atomic<double> mLockPower{0.0};
    std::atomic<double> mLockGain{0.0};
    std::atomic<int> mAdditionalLockPeaks{0};
    std::atomic<double> mLockInPowerStep{0.0};
    std::atomic<int> mLockSubstance{1};
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc> mChannelEnabled;
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc> mChannelPidSetIndex;
    /// The streams that tell the state machine; owns nothing. The machine holds the streams, too: without
    /// this the two would keep each other for good. Last, so that the ring is open before anything goes, also
    /// where the service fails on its way up.
    std::unique_ptr<LockStreams, NotifierTaker> mNotifying;
};
