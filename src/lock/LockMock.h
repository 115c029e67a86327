// SPDX-License-Identifier: Apache-2.0
// A lock without any hardware, for benches without a magnet: it answers with stored values and takes warnings
// from two text files.
#pragma once

#include <fieldwarden/LockInterface.h>
#include <velmor/kepla/log/Logger.h>
#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>
#include <velmor/platform/Clock.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

class LockInterfaceListener;

/// Keeps what is set and gives it back; everything else is a fixed answer. Nothing is validated and nothing
/// throws.
///
/// A thread polls the control files "warnings" and "critical_warnings" once a second; their text is what
/// warnings() and criticalWarnings() return, and a change is told to the listener on that thread. A missing
/// or unreadable file counts as an empty text. All operations may be called from any thread.
class LockMock : private virtual velmor::kepla::log::Logger, public LockInterface {
public:
    /// @param aMockDirectory     Folder of the control files; it is not looked at here.
    /// @param aPeriodicCallers   Not used: the mock polls on a thread of its own.
    LockMock(std::filesystem::path const& aMockDirectory,
             std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const& aPeriodicCallers);

    /// Ends the polling; a poll that is under way is waited for.
    ~LockMock() override;
    LockMock(LockMock const&) = delete;
    LockMock& operator=(LockMock const&) = delete;

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

private:
    void poll();
    void pollCtrlFiles();
    void store(std::string& aMember, std::string const& aText);

    std::filesystem::path mWarningsPath;
    std::filesystem::path mCriticalWarningsPath;
    std::atomic<bool> mLockMute{false};
    std::atomic<double> mLockField{0.0};
    std::atomic<double> mLockShift{0.0};
    std::atomic<double> mLoopGain{0.0};
    std::atomic<double> mLockGain{0.0};
    std::atomic<double> mLoopTime{0.0};
    std::atomic<double> mLoopFilter{0.0};
    std::atomic<double> mLockPhase{0.0};
    std::atomic<double> mLockPower{0.0};
    std::atomic<LockInterfaceListener*> mListener{nullptr};
    std::atomic<double> mBasic1HFrequency{0.0};
    std::atomic<int> mLockPIDSet{0};
    std::atomic<int> mLockSubstance{0};
    std::atomic<double> mLockInPowerStep{0.0};
    std::atomic<int> mAdditionalLockPeaks{0};
    mutable std::mutex
        mTextMutex; ///< Guards the two texts alone, and is never held during a call to anybody.
    std::string mWarnings;
    std::string mCriticalWarnings;
    /// Always null: the mock polls on a thread of its own, whatever manager it was given.
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> mPeriodicCaller;
    velmor::platform::Clock& mClock;
    std::mutex mStopMutex;
    std::condition_variable mStopCondition;
    std::thread mPollThread;
    std::atomic<bool> mStop{false};
};
