// SPDX-License-Identifier: Apache-2.0
// The numbers of the lock: compiled-in defaults, the configuration file over them, and what the lock start
// computes.
#pragma once

#include "lock/LockParametersInterface.h"

#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <boost/program_options/variables_map.hpp>

/// The parameters of the lock of this instrument.
///
/// Any thread may read and write. Nothing blocks but reload(), which reads a file. The sets of PID terms are
/// replaced, never changed, so that a reader that holds a set keeps a whole set.
class LockParameters : public LockParametersInterface, private virtual velmor::kepla::log::Logger {
public:
    /// @param path  The configuration file; it is first read by reload().
    explicit LockParameters(std::string path);

    /// As told by the interface. Blocks while it reads the file.
    /// @throws std::runtime_error  with the words for the user, when the file cannot be understood.
    void reload() override;

    unsigned int transmitAmplitude_mVpp() const override;
    std::uint16_t fftZerosPadding() const override;
    std::string firmwareRootPath() const override;
    unsigned int decimation() const override;
    double samplingFrequency() const override;
    unsigned int fftLength() const override;
    double magnet1HFrequency() const override;
    void setMagnet1HFrequency(double aFrequencyHz) override;
    std::shared_ptr<LockParametersPIDSet> currentPID() override;
    LockPIDSetID pidSetID() const override;
    void setPIDSetID(LockPIDSetID aID) override;
    std::shared_ptr<LockParametersPIDSet> getToZeroPID() override;
    std::shared_ptr<LockParametersPIDSet> pidSetByID(LockPIDSetID aID) const override;
    double lockedThreshold() const override;
    double frequencyFactor1HTo19F() const override;
    double fredCoefficientOrder1() const override;
    double fredCoefficientOrder2() const override;
    std::uint8_t fredOutputShift() const override;
    std::string pathRootLogs() const override;
    double dacOutOfRangeWarningThreshold() const override;
    double dacOutOfRangeWarningRearmThreshold() const override;
    std::shared_ptr<LockParametersPIDSet> lockToShimCoilTargetTemperaturePID() const override;
    double lockToShimCoilTargetTemperatureFeedForwardSlope() const override;
    double lockToShimCoilTargetTemperatureFeedForwardOffset() const override;
    double intermediateFrequencyInHz() const override;
    bool useComputedPIDThreshold() const override;
    void setComputedPIDThreshold(double aThreshold,
                                 std::shared_ptr<LockParametersPIDSet> aNormal,
                                 std::shared_ptr<LockParametersPIDSet> aFast,
                                 std::shared_ptr<LockParametersPIDSet> aSlow) override;

private:
    using PIDSet = std::shared_ptr<LockParametersPIDSet>;

    void overrideFromFile(std::string const& path);
    boost::program_options::variables_map parseFile(std::istream& aFile) const;
    void overrideFrom(boost::program_options::variables_map const& aValues);
    void overrideFredOutputShift(unsigned int aShift);
    void overrideSet(boost::program_options::variables_map const& aValues,
                     std::string const& aPrefix,
                     std::string const& aName,
                     PIDSet& aSet);
    PIDSet copyOf(PIDSet const& aSet) const;
    PIDSet const* setOf(LockPIDSetID aID) const;

    std::string const mPath;
    PIDSet const mDefaultSlow;
    PIDSet const mDefaultFast;
    PIDSet const mDefaultNormal;
    PIDSet const mDefaultShimCoil;
    double const mDefaultFactor = 0.9407841;
    double const mDefaultLockedThreshold = 4800000.0;
    double const mIntermediateFrequency = 120000000.0 / 7.0;
    std::string const mPathRootLogs = "/var/log/q47lock";
    std::atomic<double> mMagnet1HFrequency{0.0};
    std::atomic<LockPIDSetID> mPidSetID{LockPIDSetID::Normal};
    PIDSet mSlow;
    PIDSet mFast;
    PIDSet mNormal;
    PIDSet mCurrent;
    PIDSet const mToZero;
    std::atomic<double> mFactor{mDefaultFactor};
    std::atomic<double> mFredOrder1{0.0};
    std::atomic<double> mFredOrder2{0.0};
    std::atomic<std::uint8_t> mFredShift{0};
    std::atomic<double> mLockedThreshold{mDefaultLockedThreshold};
    PIDSet mShimCoilPID;
    std::atomic<double> mFeedForwardOffset{0.0};
    std::atomic<double> mFeedForwardSlope{0.0};
    std::atomic<bool> mUseComputed{true};
    std::atomic<double> mComputedThreshold{mDefaultLockedThreshold};
    /// Guards the pointers to the sets alone, and is never held during a call to anybody.
    mutable std::mutex mSetsMutex;
};
