// SPDX-License-Identifier: Apache-2.0
// A simulated sequencer on an even magnet, stepped by hand, with shorthands for its files and devices.
#pragma once

#include "simulator/sequencer/SequencerDriver.h"
#include "support/TemporaryDirectory.h"

#include <velmor/platform/HandClock.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace libfieldwarden::sim {

class SequencerFixture : public testing::Test {
protected:
    static constexpr double kBinHz = 68571428.0 / (2048.0 * 65536.0);
    static constexpr std::uint32_t kTransmitterWord = 827'877'000; ///< Near 75.38 MHz at the sample.
    static constexpr std::uint32_t kAmplitudeWord = 1638;          ///< 100 mVpp.
    static constexpr std::chrono::milliseconds kLongerThanACycle{31};
    using Bytes = std::vector<unsigned char>;

    /// Spectrum or FID as it comes out of its device.
    struct Block {
        std::vector<std::int32_t> real;
        std::vector<std::int32_t> imaginary;
        std::int32_t imaginaryAt(int aBin) const {
            return imaginary[static_cast<std::size_t>(aBin & 0xFFFF)];
        }
        std::int32_t realAt(int aBin) const { return real[static_cast<std::size_t>(aBin & 0xFFFF)]; }
    };

    /// An even magnet whose line is so many bins above the transmitter's frequency.
    std::shared_ptr<Magnet> magnetAt(double aBins, Magnet::Harmonics const& aRaw = {}) const {
        double const fluorine = LockReceiver::transmitterHz(kTransmitterWord) + aBins * kBinHz;
        return std::make_shared<Magnet>(Magnet::Options{.protonHz = fluorine / Magnet::kFluorineOverProton,
                                                        .driftProtonHzPerSecond = 0.0,
                                                        .raw = aRaw},
                                        mClock->now());
    }

    /// Gives the sequencer a magnet, and makes it ready as the start of the lock does, at this shift.
    void make(std::shared_ptr<Magnet> aMagnet,
              unsigned aShift = 15,
              SequencerDriver::Pace aPace = SequencerDriver::Pace::Hand,
              std::uint64_t aSeed = 1) {
        mMagnet = std::move(aMagnet);
        mMainboard = std::make_shared<Mainboard>();
        mMainboard->setTxEnable(1, true);
        mMainboard->setTxAmplitudeWord(kAmplitudeWord);
        mMainboard->setTxFrequencyWord(1, kTransmitterWord);
        mDriver = std::make_shared<SequencerDriver>(mClock, mMagnet, mMainboard,
                                                    Sequencer::Options{.seed = aSeed}, aPace);
        write("data/fft_zeros", 64'529);
        load("/dev/seqlock-window", test::readFile(LOCK_IMAGES "/window.bin"));
        load("/dev/seqlock", test::readFile(LOCK_IMAGES "/memory.bin"));
        write("log/time_domain_src", 1);
        write("control/stream_control", 1);
        write("data/fid_group_delay", 6);
        write("data/fid_shift", aShift);
        write("control/seq_clock_enable", 1);
    }

    void load(std::string const& aDevice, std::string const& aImage) const {
        auto const stream = mDriver->openMemory(aDevice);
        *stream << aImage;
        stream->flush();
    }

    static std::string path(std::string const& aRegister) { return "/sys/class/misc/seqlock/" + aRegister; }
    void write(std::string const& aRegister, long long aValue) const {
        mDriver->writeRegister(path(aRegister), std::to_string(aValue));
    }
    long long read(std::string const& aRegister) const {
        return std::stoll(mDriver->readRegister(path(aRegister)), nullptr, 0);
    }
    int position() const { return static_cast<std::int16_t>(read("data/max_slice_position")); }
    long long magnitude() const {
        return (read("data/max_slice_magnitude_high") << 32) + read("data/max_slice_magnitude_low");
    }
    /// The magnitude over what is asked of an FID: 53687091 at shift 10, twice that with each further shift.
    double timesThreshold() const {
        return static_cast<double>(magnitude()) /
               std::ldexp(53'687'091.0, static_cast<int>(read("data/fid_shift")) - 10);
    }

    void step(int aCycles = 1) const {
        for (int i = 0; i < aCycles; ++i) {
            ASSERT_TRUE(mDriver->step());
        }
    }

    /// Turns the spectrum so that its real part is the absorption line.
    void correctPhase() const {
        step();
        write("data/fid_phase_correction", read("data/phase_correction"));
    }

    std::unique_ptr<velmor::q47::seqlock::StreamDevice> open(std::string const& aPath) const {
        auto device = mDriver->openStream(aPath);
        EXPECT_TRUE(device);
        EXPECT_EQ(device->ioctl(velmor::q47::seqlock::kSetPacketMode, 1), 0);
        return device;
    }

    /// Goes to the next packet and reads it whole. Empty when there is none.
    static Bytes packet(velmor::q47::seqlock::StreamDevice& aDevice) {
        EXPECT_EQ(aDevice.ioctl(velmor::q47::seqlock::kNextPacket, 0), 0);
        Bytes bytes(0x80001);
        ssize_t const count = aDevice.read(bytes.data(), bytes.size());
        bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return bytes;
    }

    Block block(std::string const& aDevice, std::string const& aTrigger) const {
        auto const device = open(aDevice);
        write(aTrigger, 1);
        step();
        Bytes const bytes = packet(*device);
        EXPECT_EQ(bytes.size(), 0x80000U);
        Block result;
        for (std::size_t i = 0; i + 8 <= bytes.size(); i += 8) {
            result.imaginary.push_back(bigEndian(bytes, i));
            result.real.push_back(bigEndian(bytes, i + 4));
        }
        return result;
    }
    Block spectrum() const { return block("/dev/lock_dma_fd", "log/single_fd_transfer"); }
    Block fid() const { return block("/dev/lock_dma_td", "log/single_td_transfer"); }

    static std::int32_t bigEndian(Bytes const& aBytes, std::size_t aAt) {
        std::uint32_t word = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            word = word << 8 | aBytes[aAt + i];
        }
        return static_cast<std::int32_t>(word);
    }

    std::shared_ptr<velmor::platform::HandClock> mClock = std::make_shared<velmor::platform::HandClock>();
    std::shared_ptr<Magnet> mMagnet;
    std::shared_ptr<Mainboard> mMainboard;
    std::shared_ptr<SequencerDriver> mDriver;
};

} // namespace libfieldwarden::sim
