// SPDX-License-Identifier: Apache-2.0
// The simulated lock sequencer: registers, memories, acquisition cycle, regulator, interrupts, streams.
#pragma once

#include "simulator/magnet/Magnet.h"
#include "simulator/mainboard/Mainboard.h"
#include "simulator/sequencer/LockReceiver.h"
#include "simulator/sequencer/PacketQueue.h"
#include "simulator/sequencer/PaddedTransform.h"
#include "simulator/sequencer/PidRegulator.h"
#include "simulator/sequencer/RegisterFile.h"
#include "simulator/sequencer/SequencerFaults.h"
#include "simulator/sequencer/SequencerProgram.h"

#include <velmor/platform/Clock.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace libfieldwarden::sim {

/// The sequencer without its driver: it is told the time and does what is due.
///
/// The clock enable lets the program run from its first instruction. With the program of
/// simulator/data/make-lock-images.py a cycle is: pulse, 1,007 points (30.08 ms), spectrum, interrupt, step
/// of the regulator, streams. Field, transmitter and H0 count as they are at the pulse; all settings of the
/// digital side as they are when the last point is in.
///
/// The words, with FID words F and window coefficients w in Q15:
///
///     W(k) = 1/8 sum over n of w(n) F(n) exp(-i phase correction) exp(-2 pi i n k / 65536)
///     data/max_slice_magnitude = |W| of the greatest slice
///     spectrum on the stream   = W >> 16, 32 bits, limited
///     input of the regulator   = imaginary part of W(0) >> 9: the spectrum's counts with 7 more bits
///
/// Phases (data/phase_correction, data/fid_phase_correction and the records) are in radians with 29 bits
/// behind the point. data/phase_correction tells the phase at which the FID begins; written into
/// data/fid_phase_correction it makes the spectrum's real part an absorption line.
///
/// The streams: a block is 65,536 points of 8 bytes, imaginary part ahead of real part, both big endian; it
/// comes once for a 1 in log/single_td_transfer or log/single_fd_transfer, which go back to 0 then, and with
/// each cycle while log/time_domain_itf or log/fft_itf_enable is on. log/time_domain_src chooses the FID's
/// words (1) or the counts ahead of the gain (0). A PID record has 16 bytes:
///
///     0       1  0
///     1       4  phase at the greatest slice, little endian
///     5       6  input of the regulator less its set point, big endian
///     11      3  output of the regulator, big endian
///     14      2  index of the greatest slice, big endian
///
/// The record's input is limited to 25 bits, -2^24 to 2^24 - 1, so that its two upper bytes hold nothing but
/// its sign: who puts the bytes together in another order than this finds the same number. Where the slope is
/// 18,000 counts a bin the limit lies 7 bins from 0 Hz. log/stream_packet_size records make a packet.
///
/// Passive; one thread at a time.
class Sequencer {
public:
    using Clock = velmor::platform::Clock;
    using TimePoint = Clock::TimePoint;

    struct Options {
        std::uint64_t seed = 1; ///< Of the noise.
    };

    /// Of the transmitter's synthesiser after a change of its frequency.
    static constexpr Clock::Duration kPllLockTime = std::chrono::microseconds(80);
    /// What is later than this is left out.
    static constexpr Clock::Duration kLongestDelay = std::chrono::seconds(3);
    static constexpr std::size_t kTransformLength = PaddedTransform::kLength;
    static constexpr std::size_t kWindowWords = 1'024; ///< That the window memory has.
    static constexpr std::size_t kRecordBytes = 16;
    static constexpr std::size_t kPointBytes = 8;
    static constexpr std::size_t kKeptRecordPackets = 1'024;
    static constexpr std::size_t kKeptBlocks = 4;
    static constexpr unsigned kTransmitterChannel = 1;

    /// @param aMagnet, aMainboard, aFaults  Outlive the sequencer.
    Sequencer(Options const& aOptions, Magnet& aMagnet, Mainboard& aMainboard, SequencerFaults& aFaults);

    /// @return The text of a register's file.
    std::string read(SequencerRegister aRegister, TimePoint aNow);
    /// Writes a text into a register's file.
    /// @return 0, EACCES for a register that is read only, EINVAL for a text that it does not take.
    int write(SequencerRegister aRegister, std::string_view aText, TimePoint aNow);

    /// Puts an image into the instruction memory and checks it. While the clock is enabled the memory cannot
    /// be accessed, which is an instruction memory error as an image too long is.
    void loadProgram(std::span<std::uint8_t const> aImage);
    /// Puts an image into the window memory: 16-bit coefficients in Q15, unsigned, little endian. What is too
    /// much is left out; what is not in the image stays as it was.
    void loadWindow(std::span<std::uint8_t const> aImage);

    /// Tells that the transmitter's frequency word was written: its PLL has to lock again.
    void transmitterChanged(TimePoint aNow);

    /// @return When there is something to do; none while nothing runs.
    std::optional<TimePoint> due() const noexcept { return mDue; }
    /// Does what is due at due(), whatever the time is.
    void advance();
    /// Leaves out what is too late to be caught up with.
    void skipTo(TimePoint aNow);

    /// @return How many interrupts the masks have let pass.
    std::uint64_t interrupts() const noexcept { return mInterrupts; }
    /// @return How many acquisitions have come to their end.
    std::uint64_t acquisitions() const noexcept { return mAcquisitions; }
    /// @return What the H0 converter puts out.
    std::int32_t h0Count() const noexcept { return mH0; }

    PacketQueue& timeDomain() noexcept { return mTimeDomain; }
    PacketQueue& frequencyDomain() noexcept { return mFrequencyDomain; }
    PacketQueue& records() noexcept { return mRecords; }

private:
    /// What the spectrum's arithmetic found.
    struct Result {
        std::uint16_t slice = 0;
        std::int64_t magnitude = 0;
        std::int32_t phase = 0; ///< At the greatest slice.
        std::int64_t input = 0; ///< Of the regulator.
    };

    void applyControl(SequencerRegister aRegister, bool aChanged, TimePoint aNow);
    void reset();
    void begin(TimePoint aNow);
    void halt() noexcept;
    void run();
    bool waitFor(std::size_t aPoints);
    void applyDacData();
    void raise(SequencerRegister aStatus);
    void interrupt(SequencerRegister aStatus);
    void watchPlls(TimePoint aNow);

    void excite();
    std::size_t pointsToAcquire(std::uint32_t aOperand);
    void acquire();
    void checkDc();
    void transform();
    void measurePhase(std::size_t aPeak);
    void regulate();
    void feedStreams();
    void pushRecord();
    PacketQueue::Packet timeDomainBlock() const;
    PacketQueue::Packet frequencyDomainBlock() const;

    Magnet& mMagnet;
    Mainboard& mMainboard;
    SequencerFaults& mFaults;

    RegisterFile mRegisters;
    SequencerProgram mProgram;
    std::vector<std::uint16_t> mWindow;
    LockReceiver mReceiver;
    PaddedTransform mTransform;
    std::vector<PaddedTransform::Value> mWeighted;
    PidRegulator mRegulator;

    std::optional<TimePoint> mDue;
    TimePoint mTime;                       ///< Of the program.
    std::size_t mAddress = 1;              ///< Of the next instruction.
    std::optional<std::size_t> mAcquiring; ///< Points on their way.
    std::optional<LockExcitation> mExcitation;
    std::optional<TimePoint> mPllLocksAt;

    bool mPhaseWanted = false; ///< Whether the one update of a single phase update is still to come.

    LockFid mFid;
    Result mResult;
    PidRegulator::Output mOutput;
    std::int32_t mH0 = 0;
    std::uint64_t mInterrupts = 0;
    std::uint64_t mAcquisitions = 0;

    PacketQueue::Packet mRecordPacket; ///< The one that is being filled.
    PacketQueue mTimeDomain{kKeptBlocks};
    PacketQueue mFrequencyDomain{kKeptBlocks};
    PacketQueue mRecords{kKeptRecordPackets};
};

} // namespace libfieldwarden::sim
