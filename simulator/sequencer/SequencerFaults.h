// SPDX-License-Identifier: Apache-2.0
// What can go wrong in the lock sequencer and its driver, switchable at any time.
#pragma once

#include <atomic>
#include <cstddef>
#include <limits>
#include <map>
#include <mutex>
#include <string>

namespace libfieldwarden::sim {

/// The faults of one sequencer. Nothing is wrong at first. All operations may be called from any thread and
/// never block; what they change holds from the next access or acquisition on. Field and drift go wrong in
/// the Magnet.
class SequencerFaults {
public:
    static constexpr std::size_t kWhole = std::numeric_limits<std::size_t>::max();

    /// The PLL of the transmitter's synthesiser does not lock; there is no FID without it.
    void setDdsPllUnlocked(bool aOn) { mDdsPllUnlocked = aOn; }
    /// The PLL of the converter does not lock.
    void setAdcPllUnlocked(bool aOn) { mAdcPllUnlocked = aOn; }
    /// The sample gives no signal; the noise stays.
    void setSilentFid(bool aOn) { mSilentFid = aOn; }
    /// Every FID runs over the 32 bits of its words, at any shift.
    void setOverflow(bool aOn) { mOverflow = aOn; }
    /// No acquisition comes to its end.
    void setStoppedAcquisition(bool aOn) { mStoppedAcquisition = aOn; }
    /// The PID records stay away while all else goes on.
    void setStoppedPidStream(bool aOn) { mStoppedPidStream = aOn; }
    /// Every read of a DMA device gives data: there is always one more packet, of noughts.
    void setEndlessStreams(bool aOn) { mEndlessStreams = aOn; }
    /// Thermal noise as a multiple of what it should be. @param aFactor  0 or more.
    void setNoise(double aFactor) { mNoise = aFactor; }
    /// The next packet of each DMA device ends early. @param aBytes  The length of what is left of it.
    void truncateNextPackets(std::size_t aBytes);

    /// A file or device can be opened no more, though what is open stays open.
    /// @param aPath   The whole path, such as "/dev/lock_dma_pid".
    /// @param aErrno  ENOENT, EACCES and their like; 0 ends the fault.
    void refuseOpening(std::string const& aPath, int aErrno);
    /// The ioctl calls of a device fail. @param aErrno  0 ends the fault.
    void failIoctl(std::string const& aPath, int aErrno);
    /// The read calls of a device fail. @param aErrno  0 ends the fault.
    void failRead(std::string const& aPath, int aErrno);

    /// Ends all faults.
    void clear();

    // For the sequencer: what holds now.
    bool ddsPllUnlocked() const noexcept { return mDdsPllUnlocked; }
    bool adcPllUnlocked() const noexcept { return mAdcPllUnlocked; }
    bool silentFid() const noexcept { return mSilentFid; }
    bool overflow() const noexcept { return mOverflow; }
    bool stoppedAcquisition() const noexcept { return mStoppedAcquisition; }
    bool stoppedPidStream() const noexcept { return mStoppedPidStream; }
    bool endlessStreams() const noexcept { return mEndlessStreams; }
    double noise() const noexcept { return mNoise; }
    /// @return How much of the next packet of a device is left; kWhole for all. Holds for one packet.
    std::size_t takeTruncation(std::string const& aPath);
    int openErrno(std::string const& aPath) const { return look(mRefused, aPath); }
    int ioctlErrno(std::string const& aPath) const { return look(mIoctls, aPath); }
    int readErrno(std::string const& aPath) const { return look(mReads, aPath); }

private:
    using Errors = std::map<std::string, int>;

    int look(Errors const& aErrors, std::string const& aPath) const;
    void store(Errors& aErrors, std::string const& aPath, int aErrno);

    std::atomic<bool> mDdsPllUnlocked = false;
    std::atomic<bool> mAdcPllUnlocked = false;
    std::atomic<bool> mSilentFid = false;
    std::atomic<bool> mOverflow = false;
    std::atomic<bool> mStoppedAcquisition = false;
    std::atomic<bool> mStoppedPidStream = false;
    std::atomic<bool> mEndlessStreams = false;
    std::atomic<double> mNoise = 1.0;

    mutable std::mutex mMutex; ///< Guards all below.
    std::map<std::string, std::size_t> mTruncated;
    Errors mRefused;
    Errors mIoctls;
    Errors mReads;
};

} // namespace libfieldwarden::sim
