// SPDX-License-Identifier: Apache-2.0
// The front of the adjustable temperature option (AT) towards the temperature service.
#pragma once

#include "temperature/TempBoardQ47Ifc.h"

#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

class ATFlowTable;
class ATRange;
class LockForTemperatureIfc;
class TemperatureListenerSync;
class TemperatureStabilityMgr;
namespace velmor::kepla::datalogger {
class DataLoggerInterface;
}
namespace velmor::kepla::mds {
class Mds;
}
namespace velmor::kepla::utils {
class PeriodicCallerManagerIfc;
}

/// Finds out at start whether the system has the option, and is its one front from then on. Without the
/// option it is inert: what would regulate refuses with one message, ranges are empty, and the sample
/// exchange keeps its mode so that callers need not care.
///
/// This version drives no flow box yet: a record that tells of one is logged, and the system counts as one
/// without the option.
///
/// Any thread may call; nothing blocks but for the transfers that are told.
class ATController : private virtual velmor::kepla::log::Logger {
public:
    /// Sets the board up for what the record says, see saveSetupToEEPROM(); blocks for these transfers.
    /// @param aBoard            The temperature board; not null.
    /// @param aListener         Who is told; not null.
    /// @param aPeriodicCallers  Runs ticks and polls of a system with the option.
    /// @param aVtuMds           Text of the record of the variable temperature unit; one that cannot be read
    ///                          makes a system without the option.
    /// @param aDataLogger       Makes the channels of a system with the option.
    /// @throws std::runtime_error  when the board does not answer.
    ATController(std::shared_ptr<TempBoardQ47Ifc> aBoard,
                 std::shared_ptr<TemperatureListenerSync> aListener,
                 std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const& aPeriodicCallers,
                 std::string const& aVtuMds,
                 std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger);
    ~ATController();
    ATController(ATController const&) = delete;
    ATController& operator=(ATController const&) = delete;

    /// @return Whether the system has the option.
    bool hasAT() const;

    /// @param aContext  What was to be done, for the log.
    /// @throws std::runtime_error  on a system without the option.
    void checkHasAT(std::string const& aContext) const;

    /// @param aLock  Is asked before the regulation starts; null for none, which is not asked.
    void setLock(std::shared_ptr<LockForTemperatureIfc> aLock);

    /// Switches the regulation on or off.
    /// @throws std::runtime_error  without the option, and when the lock is not ready for it.
    void setEnabled(bool aEnabled);

    /// @return Whether the regulation was switched on last.
    bool enabled() const { return mEnabled; }

    /// @param aKelvin  Target in K, within temperatureRange(), both ends included.
    /// @throws std::runtime_error     without the option.
    /// @throws std::invalid_argument  when it is outside of the range.
    void setTargetTemperature(double aKelvin);

    /// @return Target in K; 0.0 without the option.
    double targetTemperature() const { return mTargetTemperature; }

    /// @return Lowest and highest target in K.
    std::pair<double, double> temperatureRange() const;

    /// Narrows the range from below; a target that is left outside goes along.
    /// @param aKelvin  Limit in K, not negative.
    /// @throws std::invalid_argument  when it is negative.
    /// @throws std::runtime_error     when a target would have to go along on a system without the option.
    void setProbeTemperatureMin(double aKelvin);

    /// As setProbeTemperatureMin(), from above.
    void setProbeTemperatureMax(double aKelvin);

    /// @param aLiterPerHour  Flow in l/h, one of the table's.
    /// @throws std::runtime_error  without the option.
    void setFlowOverrideByUser(double aLiterPerHour);

    /// @return The possible flows as XML; only that of 0 l/h without the option.
    std::string flowsAsXmlForPanorin() const;

    /// @return Whether the probe's last readings were all near the target; false without the option.
    bool isStable() const { return mStable; }

    /// Makes ready for the exchange of a sample. A second call only logs.
    /// @throws std::runtime_error  with a flow box of the prototype generation, and when the gas does not
    /// follow.
    void prepareTransfer();

    /// Goes back from the exchange of a sample. A second call only logs.
    /// @param aSampleInMagnet  Whether a sample is in the magnet now.
    /// @throws std::runtime_error  as prepareTransfer().
    void completeTransfer(bool aSampleInMagnet);

    /// @return Whether a sample is being exchanged.
    bool isInSampleTransferMode() const { return mInSampleTransferMode; }

    /// @throws std::runtime_error  with a flow box of the prototype generation.
    void checkAutomationAllowed();

private:
    void detectOption(std::string const& aVtuMds);
    VTMode vtModeFromATMDS(velmor::kepla::mds::Mds const& aMds) const;
    void configureBoard();

    std::shared_ptr<TempBoardQ47Ifc> mBoard;
    std::shared_ptr<LockForTemperatureIfc> mLock; ///< Null until setLock().
    std::shared_ptr<ATFlowTable> mFlowTable;
    std::shared_ptr<ATRange> mRange;
    std::mutex mMutex; ///< Guards enabling, target and lock; not recursive.
    VTMode mVTMode = VTMode::None;
    std::atomic<double> mTargetTemperature{0.0};
    std::atomic<bool> mEnabled{false};
    std::shared_ptr<TemperatureListenerSync> mListener;
    std::shared_ptr<TemperatureStabilityMgr> mStabilityMgr;
    std::atomic<bool> mStable{false};
    std::atomic<bool> mInSampleTransferMode{false};
};
