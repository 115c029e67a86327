// SPDX-License-Identifier: Apache-2.0
// What the simulated sequencer does with its registers, its program and its signal.
#include "simulator/sequencer/Sequencer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <limits>
#include <numbers>

namespace libfieldwarden::sim {

namespace {

using Reg = SequencerRegister;

constexpr double kWordsPerSum = 1.0 / 8.0;
constexpr int kStreamShift = 16;
constexpr int kInputShift = kStreamShift - static_cast<int>(PidRegulator::kFractionBits);
constexpr double kPhaseOne = 536'870'912.0; ///< 2^29: one radian.
constexpr std::uint32_t kDacWrite = 0x4000'0000;
constexpr std::int64_t kGreatestRecordInput = (std::int64_t{1} << 24) - 1;
constexpr std::int64_t kLeastRecordInput = -(std::int64_t{1} << 24);
constexpr std::size_t kPhasePoints = 32; ///< At the start of the FID, from which its phase is taken.
constexpr double kWindowOne = 32'768.0;

struct Source {
    Reg mask;
    Reg status;
};

constexpr std::array kSources{
    Source{Reg::IrqAdcPllUnlocked, Reg::AdcPllUnlocked},
    Source{Reg::IrqDdsPllUnlocked, Reg::DdsPllUnlocked},
    Source{Reg::IrqDdsPllBusy, Reg::DdsPllBusy},
    Source{Reg::IrqDdsPllIoError, Reg::UpdateBusyError},
    Source{Reg::IrqDcOutOfRange, Reg::DcOutOfRange},
    Source{Reg::IrqSeqInstrMemError, Reg::SeqInstrMemError},
    Source{Reg::IrqSeqError, Reg::SeqError},
    Source{Reg::IrqPidOverflow, Reg::PidOverflow},
    Source{Reg::IrqFidOverflow, Reg::FidOverflow},
    Source{Reg::IrqFidDone, Reg::FidDone},
};

std::int32_t phaseWord(double aRadian) {
    return static_cast<std::int32_t>(std::lround(aRadian * kPhaseOne));
}

std::int32_t limited32(std::int64_t aValue) {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(
        aValue, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

void putBigEndian(PacketQueue::Packet& aPacket, std::uint64_t aValue, unsigned aBytes) {
    for (unsigned byte = aBytes; byte > 0; --byte) {
        aPacket.push_back(static_cast<std::uint8_t>(aValue >> (8 * (byte - 1))));
    }
}

void putPoint(PacketQueue::Packet& aPacket, std::int32_t aReal, std::int32_t aImaginary) {
    putBigEndian(aPacket, static_cast<std::uint32_t>(aImaginary), 4);
    putBigEndian(aPacket, static_cast<std::uint32_t>(aReal), 4);
}

} // namespace

Sequencer::Sequencer(Options const& aOptions,
                     Magnet& aMagnet,
                     Mainboard& aMainboard,
                     SequencerFaults& aFaults)
    : mMagnet(aMagnet)
    , mMainboard(aMainboard)
    , mFaults(aFaults)
    , mWindow(kWindowWords, 0)
    , mReceiver(aOptions.seed) {}

std::string Sequencer::read(SequencerRegister aRegister, TimePoint aNow) {
    watchPlls(aNow);
    return mRegisters.text(aRegister);
}

int Sequencer::write(SequencerRegister aRegister, std::string_view aText, TimePoint aNow) {
    auto const access = RegisterFile::row(aRegister).access;
    if (access == RegisterFile::Access::ReadOnly) {
        return EACCES;
    }
    auto const value = RegisterFile::parse(aRegister, aText);
    if (!value) {
        return EINVAL;
    }
    if (access == RegisterFile::Access::OneToClear) {
        mRegisters.set(aRegister, mRegisters.get(aRegister) & ~*value);
        return 0;
    }
    bool const changed = mRegisters.get(aRegister) != *value;
    mRegisters.set(aRegister, *value);
    applyControl(aRegister, changed, aNow);
    return 0;
}

/// What a register does beside being read by others.
void Sequencer::applyControl(SequencerRegister aRegister, bool aChanged, TimePoint aNow) {
    switch (aRegister) {
        case Reg::MainReset:
            if (mRegisters.isSet(Reg::MainReset)) {
                reset();
            } else if (aChanged) {
                mRegisters.set(Reg::FirReady, 1);
                mRegisters.set(Reg::DacConfReady, 1);
                begin(aNow);
            }
            break;
        case Reg::SeqClockEnable:
            if (aChanged) {
                begin(aNow);
            }
            break;
        case Reg::SeqStart:
            if (mRegisters.isSet(Reg::SeqStart)) {
                begin(aNow);
            }
            break;
        case Reg::SinglePhaseUpdate:
            mPhaseWanted = mRegisters.isSet(Reg::SinglePhaseUpdate);
            break;
        case Reg::DacData:
        case Reg::DacConfMode:
        case Reg::NoUseDac:
            applyDacData();
            break;
        case Reg::PidControlClear:
            mRegulator.clear();
            break;
        case Reg::SeqIrqTest:
            if (mRegisters.isSet(Reg::SeqIrqTest) && mRegisters.isSet(Reg::SeqIrqTestEnable)) {
                ++mInterrupts;
            }
            break;
        default:
            break;
    }
}

/// Forgets all that is under way. What the software has set, and the memories, stay.
void Sequencer::reset() {
    halt();
    for (std::size_t i = 0; i < RegisterFile::kRows.size(); ++i) {
        auto const reg = static_cast<SequencerRegister>(i);
        if (RegisterFile::row(reg).access != RegisterFile::Access::ReadWrite) {
            mRegisters.set(reg, 0);
        }
    }
    mRegulator.clear();
    mResult = {};
    mOutput = {};
    mRecordPacket.clear();
}

void Sequencer::begin(TimePoint aNow) {
    halt();
    if (mRegisters.isSet(Reg::SeqClockEnable) && !mRegisters.isSet(Reg::MainReset) && mProgram.runnable()) {
        mTime = aNow;
        mAddress = 1;
        run();
    }
}

void Sequencer::halt() noexcept {
    mDue.reset();
    mAcquiring.reset();
    mExcitation.reset();
}

/// Runs the program up to the next instruction that takes time.
void Sequencer::run() {
    mDue.reset();
    for (std::size_t steps = 0; steps < SequencerProgram::kWords; ++steps) {
        SequencerProgram::Instruction const instruction = mProgram.at(mAddress++);
        switch (instruction.op) {
            case SequencerProgram::Op::Idle:
                if (waitFor(instruction.operand)) {
                    return;
                }
                break;
            case SequencerProgram::Op::Excite:
                excite();
                break;
            case SequencerProgram::Op::Acquire:
                mAcquiring = pointsToAcquire(instruction.operand);
                if (waitFor(*mAcquiring)) {
                    return;
                }
                mAcquiring.reset();
                break;
            case SequencerProgram::Op::Transform:
                transform();
                break;
            case SequencerProgram::Op::Regulate:
                regulate();
                break;
            case SequencerProgram::Op::Stream:
                if (mRegisters.isSet(Reg::StreamControl)) {
                    feedStreams();
                }
                break;
            case SequencerProgram::Op::Jump:
                mAddress = instruction.operand;
                break;
            case SequencerProgram::Op::Halt:
                return;
        }
    }
    // A program that goes round without taking time stands still: nothing can come of it.
}

/// @return Whether that takes any time.
bool Sequencer::waitFor(std::size_t aPoints) {
    if (aPoints == 0) {
        return false;
    }
    std::chrono::duration<double> const time(static_cast<double>(aPoints) / LockReceiver::kSamplesPerSecond);
    mTime += std::chrono::round<Clock::Duration>(time);
    mDue = mTime;
    return true;
}

void Sequencer::advance() {
    if (!mDue) {
        return;
    }
    watchPlls(mTime);
    if (mAcquiring) {
        if (mFaults.stoppedAcquisition()) {
            waitFor(*mAcquiring);
            return;
        }
        acquire();
        mAcquiring.reset();
    }
    run();
}

void Sequencer::skipTo(TimePoint aNow) {
    if (mDue && aNow - *mDue > kLongestDelay) {
        mTime = aNow;
        mDue = aNow;
    }
}

void Sequencer::applyDacData() {
    std::uint32_t const word = mRegisters.get(Reg::DacData);
    if (!mRegisters.isSet(Reg::DacConfMode) && !mRegisters.isSet(Reg::NoUseDac) && (word & kDacWrite) != 0) {
        mH0 = static_cast<std::int32_t>(word << 8) >> 8;
        mRegisters.set(Reg::DacConfReady, 1);
    }
}

void Sequencer::raise(SequencerRegister aStatus) {
    mRegisters.set(aStatus, 1);
    interrupt(aStatus);
}

void Sequencer::interrupt(SequencerRegister aStatus) {
    auto const source = std::find_if(kSources.begin(), kSources.end(),
                                     [&](Source const& aSource) { return aSource.status == aStatus; });
    if (source != kSources.end() && mRegisters.isSet(source->mask)) {
        ++mInterrupts;
    }
}

void Sequencer::transmitterChanged(TimePoint aNow) {
    mPllLocksAt = aNow + kPllLockTime;
    watchPlls(aNow);
}

/// Keeps in the status what a PLL shows, until that is cleared.
void Sequencer::watchPlls(TimePoint aNow) {
    if (mPllLocksAt && aNow >= *mPllLocksAt) {
        mPllLocksAt.reset();
    }
    if ((mPllLocksAt || mFaults.ddsPllUnlocked()) && !mRegisters.isSet(Reg::DdsPllUnlocked)) {
        raise(Reg::DdsPllUnlocked);
    }
    if (mFaults.adcPllUnlocked() && !mRegisters.isSet(Reg::AdcPllUnlocked)) {
        raise(Reg::AdcPllUnlocked);
    }
}

void Sequencer::loadProgram(std::span<std::uint8_t const> aImage) {
    if (mRegisters.isSet(Reg::SeqClockEnable)) {
        raise(Reg::SeqInstrMemError);
        return;
    }
    mProgram = SequencerProgram(aImage);
    if (mProgram.overrun()) {
        raise(Reg::SeqInstrMemError);
    }
    if (mProgram.error() != SequencerProgram::Error::None) {
        mRegisters.set(Reg::SeqErrorCode, static_cast<std::uint32_t>(mProgram.error()));
        mRegisters.set(Reg::ErrorAddress, mProgram.errorAddress());
        raise(Reg::SeqError);
    }
}

void Sequencer::loadWindow(std::span<std::uint8_t const> aImage) {
    std::size_t const words = std::min(aImage.size() / 2, kWindowWords);
    for (std::size_t i = 0; i < words; ++i) {
        mWindow[i] = static_cast<std::uint16_t>(aImage[2 * i] | aImage[2 * i + 1] << 8);
    }
}

void Sequencer::excite() {
    watchPlls(mTime);
    Mainboard::TxChannel const transmitter = mMainboard.txChannel(kTransmitterChannel);
    bool const heard =
        transmitter.enabled && !mPllLocksAt && !mFaults.ddsPllUnlocked() && !mFaults.silentFid();
    std::uint32_t const amplitude = heard ? mMainboard.txAmplitudeWord() : 0;
    mExcitation = LockReceiver::excite(mMagnet.lockLine(mTime, mH0), transmitter.frequencyWord, amplitude);
}

std::size_t Sequencer::pointsToAcquire(std::uint32_t aOperand) {
    std::uint32_t const zeros = mRegisters.get(Reg::FftZeros);
    if (zeros >= kTransformLength) {
        mRegisters.set(Reg::FdError, 1);
        return kTransformLength;
    }
    std::size_t const room = kTransformLength - zeros;
    return aOperand == 0 ? room : std::min<std::size_t>(aOperand, room);
}

void Sequencer::acquire() {
    LockExcitation excitation = mExcitation.value_or(LockExcitation{});
    if (mFaults.overflow()) {
        excitation.amplitude = std::numeric_limits<std::int32_t>::max() * 2.0;
    }
    mFid = mReceiver.acquire(excitation, *mAcquiring, mRegisters.get(Reg::FidShift),
                             mRegisters.get(Reg::FidGroupDelay), mFaults.noise());
    mExcitation.reset();
    mRegisters.set(Reg::FidMaxSlice, static_cast<std::uint32_t>(mFid.greatest));
    // Of the last acquisition, unless it is cleared before: a search for the gain could not go on below one
    // that was too high otherwise.
    if (mFid.overflow) {
        raise(Reg::FidOverflow);
    } else {
        mRegisters.set(Reg::FidOverflow, 0);
    }
    checkDc();
}

/// The mean of the counts ahead of the gain; a threshold of 0 switches the check off.
void Sequencer::checkDc() {
    std::int32_t const threshold = mRegisters.getSigned(Reg::DcOutOfRangeThreshold);
    if (threshold <= 0 || mFid.samples.empty()) {
        return;
    }
    std::complex<double> sum;
    for (auto const& sample : mFid.samples) {
        sum += sample;
    }
    if (std::abs(sum) > static_cast<double>(threshold) * static_cast<double>(mFid.samples.size())) {
        raise(Reg::DcOutOfRange);
    }
}

void Sequencer::transform() {
    bool const windowed = !mRegisters.isSet(Reg::WindowDisable);
    bool const turned = !mRegisters.isSet(Reg::PhaseCorrectionBypass);
    auto const correction = static_cast<std::int32_t>(mRegisters.get(Reg::FidPhaseCorrection));
    auto const turn = std::polar(kWordsPerSum, turned ? -correction / kPhaseOne : 0.0);

    mWeighted.resize(mFid.words.size());
    for (std::size_t n = 0; n < mFid.words.size(); ++n) {
        double weight = 1.0;
        if (windowed) {
            weight = n < kWindowWords ? mWindow[n] / kWindowOne : 0.0;
        }
        std::complex<double> const word(mFid.words[n].real(), mFid.words[n].imag());
        mWeighted[n] = word * turn * weight;
    }
    mTransform.transform(mWeighted);

    PaddedTransform::Peak const peak = mTransform.peak();
    mResult.slice = static_cast<std::uint16_t>(peak.index);
    mResult.magnitude = std::llround(peak.magnitude);
    mResult.phase = phaseWord(std::arg(mTransform.at(peak.index)));
    mResult.input = std::llround(mTransform.at(0).imag()) >> kInputShift;
    measurePhase(peak.index);

    auto const magnitude = static_cast<std::uint64_t>(mResult.magnitude);
    mRegisters.set(Reg::MaxSlicePosition, mResult.slice);
    mRegisters.set(Reg::MaxSliceMagnitudeHigh, static_cast<std::uint32_t>(magnitude >> 32));
    mRegisters.set(Reg::MaxSliceMagnitudeLow, static_cast<std::uint32_t>(magnitude));
    ++mAcquisitions;
    raise(Reg::FidDone);
}

/// The phase at which the FID begins: its first points, turned back by the frequency that was found.
void Sequencer::measurePhase(std::size_t aPeak) {
    if (mRegisters.isSet(Reg::SinglePhaseUpdate) && !mPhaseWanted) {
        return;
    }
    mPhaseWanted = false;
    std::complex<double> sum;
    std::size_t const points = std::min(kPhasePoints, mFid.words.size());
    for (std::size_t n = 0; n < points; ++n) {
        double const angle = -2.0 * std::numbers::pi * static_cast<double>(n * aPeak) / kTransformLength;
        sum += std::complex<double>(mFid.words[n].real(), mFid.words[n].imag()) * std::polar(1.0, angle);
    }
    mRegisters.set(Reg::PhaseCorrection, static_cast<std::uint32_t>(phaseWord(std::arg(sum))));
}

void Sequencer::regulate() {
    bool const pidDrives = mRegisters.isSet(Reg::DacConfMode);
    std::int64_t input = mResult.input;
    if (mRegisters.isSet(Reg::FredOutputEnable) && !mRegisters.isSet(Reg::FredOutputClear)) {
        input +=
            fredOutput(mRegisters.getSigned48(Reg::FredOffsetHigh, Reg::FredOffsetLow),
                       mRegisters.getSigned(Reg::FredCoefOrder1), mRegisters.getSigned(Reg::FredCoefOrder2),
                       mRegisters.get(Reg::FredShift), mRegisters.isSet(Reg::FredOutputSelect), mH0);
    }
    if (mRegisters.isSet(Reg::PidControlClear)) {
        mRegulator.clear();
    }
    mOutput = mRegulator.step(input, mResult.magnitude,
                              {.setPoint = mRegisters.getSigned48(Reg::PidSetPointHigh, Reg::PidSetPointLow),
                               .p = mRegisters.getSigned(Reg::PidPTerm),
                               .i = mRegisters.getSigned(Reg::PidITerm),
                               .d = mRegisters.getSigned(Reg::PidDTerm),
                               .outputOffset = mRegisters.getSigned(Reg::PidOutputOffset),
                               .outputShift = mRegisters.get(Reg::PidOutputShift),
                               .inputShift = mRegisters.get(Reg::PidInputShift),
                               .derivativeOrder = mRegisters.get(Reg::PidDerivativeOrder),
                               .scaler = mRegisters.isSet(Reg::PidEnableScaler)});
    if (pidDrives && !mRegisters.isSet(Reg::NoUseDac)) {
        mH0 = mOutput.value;
    }
    if (mOutput.overflow) {
        raise(Reg::PidOverflow);
    }
    if (!mRegisters.isSet(Reg::StreamControl)) {
        feedStreams();
    }
}

void Sequencer::feedStreams() {
    if (mRegisters.isSet(Reg::TimeDomainItf) || mRegisters.isSet(Reg::SingleTdTransfer)) {
        mRegisters.set(Reg::SingleTdTransfer, 0);
        mTimeDomain.push(timeDomainBlock());
    }
    if (mRegisters.isSet(Reg::FftItfEnable) || mRegisters.isSet(Reg::SingleFdTransfer)) {
        mRegisters.set(Reg::SingleFdTransfer, 0);
        mFrequencyDomain.push(frequencyDomainBlock());
    }
    if (mRegisters.isSet(Reg::PidItfEnable) && !mFaults.stoppedPidStream()) {
        pushRecord();
    } else {
        mRecordPacket.clear();
    }
}

void Sequencer::pushRecord() {
    std::int64_t const input = std::clamp(mOutput.error, kLeastRecordInput, kGreatestRecordInput);
    auto const phase = static_cast<std::uint32_t>(mResult.phase);
    mRecordPacket.push_back(0);
    for (unsigned byte = 0; byte < 4; ++byte) {
        mRecordPacket.push_back(static_cast<std::uint8_t>(phase >> (8 * byte)));
    }
    putBigEndian(mRecordPacket, static_cast<std::uint64_t>(input), 6);
    putBigEndian(mRecordPacket, static_cast<std::uint32_t>(mOutput.value), 3);
    putBigEndian(mRecordPacket, mResult.slice, 2);
    std::size_t const records = std::max<std::size_t>(mRegisters.get(Reg::StreamPacketSize), 1);
    if (mRecordPacket.size() >= records * kRecordBytes) {
        mRecords.push(std::move(mRecordPacket));
        mRecordPacket.clear();
    }
}

PacketQueue::Packet Sequencer::timeDomainBlock() const {
    PacketQueue::Packet block;
    block.reserve(kTransformLength * kPointBytes);
    bool const words = mRegisters.isSet(Reg::TimeDomainSrc);
    for (std::size_t n = 0; n < mFid.words.size(); ++n) {
        if (words) {
            putPoint(block, mFid.words[n].real(), mFid.words[n].imag());
        } else {
            putPoint(block, limited32(std::llround(mFid.samples[n].real())),
                     limited32(std::llround(mFid.samples[n].imag())));
        }
    }
    block.resize(kTransformLength * kPointBytes, 0);
    return block;
}

PacketQueue::Packet Sequencer::frequencyDomainBlock() const {
    PacketQueue::Packet block;
    block.reserve(kTransformLength * kPointBytes);
    for (std::size_t k = 0; k < kTransformLength; ++k) {
        PaddedTransform::Value const value = mTransform.at(k);
        putPoint(block, limited32(std::llround(value.real()) >> kStreamShift),
                 limited32(std::llround(value.imag()) >> kStreamShift));
    }
    return block;
}

} // namespace libfieldwarden::sim
